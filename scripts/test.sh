#!/usr/bin/env bash
# Installs the dependencies, builds everything and runs the test suite.
#   scripts/test.sh           the full suite
#   scripts/test.sh --quick   only the tests labelled quick
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
bash scripts/bootstrap.sh
build="${LE_BUILD_DIR:-build}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)"
label=()
[ "${1:-}" = "--quick" ] && label=(-L quick)
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 900 "${label[@]}"
