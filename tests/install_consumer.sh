#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds the example C host against it twice:
# through pkg-config and through find_package(le_core). The second host renders a forged bundle.
set -euo pipefail
build="$1"; examples="$2"; work="$3"
rm -rf "$work"; mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" >/dev/null
export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cc -std=c11 -Wall -Wextra -Werror "$examples/host.c" $(pkg-config --cflags --libs le_core) -o "$work/host_pc"
"$work/host_pc"
cmake -S "$examples" -B "$work/cm" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cm" >/dev/null
"$work/cm/host"
if [ -x "$work/prefix/bin/le" ]; then
  "$work/prefix/bin/le" forge "$work/bundle" --frames 4 >/dev/null 2>&1
  "$work/cm/host" "$work/bundle" b1
fi
echo "install consumer ok"
