#!/usr/bin/env bash
# Fails when the shared library exports anything beyond the flat interface and the
# namespace functions a host may call.
set -euo pipefail
lib="$1"
allowed='^(le_[a-z0-9_]+|le::simd::target\(\)|le::movieDecoderBuild(\[abi:cxx11\])?\(.*\)|le::tessera::decodeBankTrack\(.*\)|le::tessera::bankDecoderBuild(\[abi:cxx11\])?\(.*\))$'
bad=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' | grep -v -E "$allowed" || true)
if [ -n "$bad" ]; then
  echo "unexpected exported symbols:"; echo "$bad"; exit 1
fi
n=$(nm -D --defined-only "$lib" | grep -c ' T le_' || true)
echo "exports ok: $n flat functions"
