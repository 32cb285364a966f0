#!/usr/bin/env bash
# Installs the dependencies, builds and runs the tests.
#   scripts/test.sh                 what CI runs: the Release suite, the whole suite under
#                                   AddressSanitizer + UndefinedBehaviorSanitizer, and the tests
#                                   labelled threaded under ThreadSanitizer (three build trees)
#   scripts/test.sh --all           the same
#   scripts/test.sh --release-only  only the Release suite
#   scripts/test.sh --quick         only the Release tests labelled quick
#   scripts/test.sh --asan          only the suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan          only the threaded tests under ThreadSanitizer
#   scripts/test.sh --fuzz SECONDS  builds the libFuzzer targets with clang and runs each for SECONDS
#                                   over its corpus in fuzz/corpus/<target>/
# Build trees: build/, build-asan/, build-tsan/, build-fuzz/ (LE_BUILD_DIR overrides a single one).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"

usage() {
  echo "usage: scripts/test.sh [--all|--release-only|--quick|--asan|--tsan|--fuzz SECONDS]" >&2
  exit 2
}

phases=(release asan tsan)
release_labels=()
fuzz_seconds=
while (($#)); do
  case "$1" in
    --all) phases=(release asan tsan) ;;
    --release-only) phases=(release) ;;
    --quick) phases=(release); release_labels=(-L quick) ;;
    --asan) phases=(asan) ;;
    --tsan) phases=(tsan) ;;
    --fuzz) (($# >= 2)) && [[ "$2" =~ ^[0-9]+$ ]] || usage; phases=(fuzz); fuzz_seconds="$2"; shift ;;
    *) usage ;;
  esac
  shift
done

bash scripts/bootstrap.sh

jobs="$(nproc)"
# Sanitizer reports end the test with a stack; leaks of the runtimes are suppressed inside the
# test binaries (tests/support), the command-line tool reads tests/lsan.supp.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"

report=()
# Wall and CPU seconds (user + system of everything the phase ran): on a shared machine the CPU
# time says what the phase costs, the wall time what it took.
cpu_seconds() { awk -v hz="$(getconf CLK_TCK)" '{ print int(($16 + $17) / hz) }' "/proc/$$/stat"; }
phase_start() { t0=$SECONDS; c0=$(cpu_seconds); }
phase_end() {
  report+=("$(printf '%-16s %5d s wall %6d s cpu' "$1" $((SECONDS - t0)) $(($(cpu_seconds) - c0)))")
}

configure() {  # dir, cmake args...
  local dir="$1"; shift
  cmake -S . -B "$dir" "$@" >/dev/null
}

# The sanitizer trees build at -O1 with line tables only: half the compile time of -O2 -g, the
# same findings, and reports still name file and line. No benchmarks there.
sanitizer_flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_BUILD_BENCH=OFF
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")

run_release() {
  local b="${LE_BUILD_DIR:-build}"
  phase_start
  configure "$b" -DCMAKE_BUILD_TYPE=Release
  cmake --build "$b" -j"$jobs"
  phase_end "release build"
  phase_start
  (cd "$b" && ctest --output-on-failure -j"$jobs" --timeout 900 "${release_labels[@]}")
  phase_end "release suite"
}

run_asan() {
  local b="${LE_BUILD_DIR:-build-asan}"
  phase_start
  configure "$b" "${sanitizer_flags[@]}" -DLE_SANITIZE=ON
  cmake --build "$b" -j"$jobs"
  phase_end "asan build"
  phase_start
  (cd "$b" && ctest --output-on-failure -j"$jobs" --timeout 900)
  phase_end "asan suite"
}

run_tsan() {
  local b="${LE_BUILD_DIR:-build-tsan}"
  phase_start
  configure "$b" "${sanitizer_flags[@]}" -DLE_TSAN=ON
  # Only what the threaded tests need.
  cmake --build "$b" -j"$jobs" --target le_threaded_tests
  phase_end "tsan build"
  phase_start
  (cd "$b" && ctest --output-on-failure -j"$jobs" --timeout 900 -L threaded)
  phase_end "tsan suite"
}

run_fuzz() {
  local b="${LE_BUILD_DIR:-build-fuzz}"
  phase_start
  CC=clang CXX=clang++ configure "$b" "${sanitizer_flags[@]}" -DLE_FUZZ=ON \
    -DLE_BUILD_TESTS=OFF -DLE_BUILD_TOOLS=OFF
  cmake --build "$b" -j"$jobs"
  phase_end "fuzz build"
  local failed=0
  for exe in "$b"/fuzz/*_fuzz; do
    local name corpus work
    name="$(basename "$exe")"
    corpus="fuzz/corpus/${name%_fuzz}"
    # New inputs go to a scratch corpus: the repository's corpus only changes on purpose.
    work="$b/fuzz/corpus-${name%_fuzz}"
    mkdir -p "$corpus" "$work"
    phase_start
    echo "== $name for ${fuzz_seconds}s (corpus $corpus)"
    if ! "$exe" -max_total_time="$fuzz_seconds" -print_final_stats=1 \
         -artifact_prefix="$b/fuzz/$name-" "$work" "$corpus"; then
      failed=1
      echo "$name FAILED: reproducer in $b/fuzz/$name-*" >&2
    fi
    phase_end "$name"
  done
  return "$failed"
}

# The time each phase took, also when one fails.
trap '((${#report[@]})) && printf "%s\n" "${report[@]}"' EXIT
for p in "${phases[@]}"; do
  "run_$p"
done
