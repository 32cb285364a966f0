#!/usr/bin/env bash
# Installs everything the build needs; idempotent: a second run checks and returns in seconds.
set -euo pipefail

ORT_NPM_PACKAGE="com.github.asus4.onnxruntime"
ORT_NPM_VERSION="0.4.9"
ORT_VERSION="1.29.0"

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
ort_dir="$root/third_party/onnxruntime"

apt_packages=(
  build-essential cmake pkg-config git
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libswresample-dev ffmpeg
  libhwy-dev libstb-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libonnx-testdata
  espeak-ng sox
  libboost-dev chromium
  libopencv-dev
  libfftw3-dev
  clang
)

missing=()
for p in "${apt_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "[bootstrap] apt: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

stamp="$ort_dir/.version"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$ORT_NPM_PACKAGE@$ORT_NPM_VERSION" ] \
   && [ -f "$ort_dir/lib/libonnxruntime.so.1" ] && [ -f "$ort_dir/include/onnxruntime_cxx_api.h" ]; then
  exit 0
fi

echo "[bootstrap] ONNX Runtime $ORT_VERSION from npm package $ORT_NPM_PACKAGE@$ORT_NPM_VERSION"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cache="$work/npm-cache"
integrity="$(npm view --cache "$cache" "$ORT_NPM_PACKAGE@$ORT_NPM_VERSION" dist.integrity)"
(cd "$work" && npm pack --silent --cache "$cache" "$ORT_NPM_PACKAGE@$ORT_NPM_VERSION" >/dev/null)
tarball="$(ls "$work"/*.tgz)"
algo="${integrity%%-*}"
want="${integrity#*-}"
got="$(openssl dgst "-$algo" -binary "$tarball" | base64 -w0)"
if [ "$got" != "$want" ]; then
  echo "[bootstrap] integrity mismatch for $tarball: expected $integrity" >&2
  exit 1
fi

hdr="package/Plugins/iOS~/onnxruntime.xcframework/ios-arm64_x86_64-simulator/onnxruntime.framework/Headers"
lib="package/Plugins/Linux/x64"
mkdir -p "$work/x"
tar -xzf "$tarball" -C "$work/x" "$hdr" "$lib/libonnxruntime.so" "$lib/libonnxruntime_providers_shared.so"
rm -rf "$ort_dir"
mkdir -p "$ort_dir/include" "$ort_dir/lib"
cp "$work/x/$hdr"/*.h "$ort_dir/include/"
cp "$work/x/$lib/libonnxruntime.so" "$ort_dir/lib/libonnxruntime.so.1"
ln -sf libonnxruntime.so.1 "$ort_dir/lib/libonnxruntime.so"
cp "$work/x/$lib/libonnxruntime_providers_shared.so" "$ort_dir/lib/"
echo "$ORT_NPM_PACKAGE@$ORT_NPM_VERSION" > "$stamp"
echo "[bootstrap] ONNX Runtime unpacked into $ort_dir"
