#!/usr/bin/env bash
# Installs the dependencies, builds everything and runs the test suite.
#   scripts/test.sh            the full suite (Release)
#   scripts/test.sh --quick    only the tests labelled quick
#   scripts/test.sh --asan     the suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan     the suite under ThreadSanitizer
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
bash scripts/bootstrap.sh

build="${LE_BUILD_DIR:-build}"
config=(-DCMAKE_BUILD_TYPE=Release)
ctest_args=()
for arg in "$@"; do
  case "$arg" in
    --quick) ctest_args+=(-L quick) ;;
    --asan) build="${LE_BUILD_DIR:-build-asan}"; config=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_SANITIZE=ON -DLE_BUILD_BENCH=OFF) ;;
    --tsan) build="${LE_BUILD_DIR:-build-tsan}"; config=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_TSAN=ON -DLE_BUILD_BENCH=OFF) ;;
    *) echo "usage: scripts/test.sh [--quick] [--asan|--tsan]" >&2; exit 2 ;;
  esac
done

cmake -S . -B "$build" "${config[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 900 "${ctest_args[@]}"
