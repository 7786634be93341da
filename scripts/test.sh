#!/usr/bin/env bash
# Installs what is missing, checks the format, builds, and runs every test: a normal build (with
# the browser test, every benchmark once at a tiny size and the Debian package test), an
# ASan+UBSan build of everything, and a TSan build whose concurrency suites ("*ConcurrencyTest")
# are run. The sanitizer trees are unity builds at -O1 -g1: they are built to run the tests, and
# that halves their build time. Each phase's time is shown at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

timings=()
phase_started=$(date +%s)
all_started=$phase_started
# phase NAME: ends the running phase (its time is kept for the summary) and names the next.
phase() {
  local now
  now=$(date +%s)
  if [ -n "${phase_name:-}" ]; then
    timings+=("$(printf '%-36s %5d s' "$phase_name" $((now - phase_started)))")
  fi
  phase_started=$now
  phase_name=$1
  if [ "$1" != end ]; then
    echo "== $1 =="
  fi
}
summary() {
  phase end
  printf '%s\n' "-- phase times" "${timings[@]}" \
    "$(printf '%-36s %5d s' total $(($(date +%s) - all_started)))"
}
trap summary EXIT

phase setup
scripts/setup.sh

jobs=$(nproc)
# build DIR [TARGET...] [-- CMAKE_OPTION...]: configures DIR and builds the targets (all if none).
build() {
  local dir=$1
  shift
  local targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    targets+=(--target "$1")
    shift
  done
  [ $# -gt 0 ] && shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > /dev/null
  cmake --build "$dir" -j "$jobs" "${targets[@]}"
}

# Widget tests draw offscreen; nothing here needs a display.
export QT_QPA_PLATFORM=offscreen

phase format
scripts/check-format.sh

phase "normal build"
build build
phase "normal tests (with benchmark smoke)"
ctest --test-dir build --output-on-failure -j "$jobs"

phase "Debian package test"
scripts/package-test.sh build

phase "ASan + UBSan build"
build build-asan -- -DPOINTLANE_SANITIZE=address -DPOINTLANE_BENCH=OFF -DCMAKE_UNITY_BUILD=ON
phase "ASan + UBSan tests"
# The descriptor test is left out here: with every descriptor used up, UBSan's own type check
# can't open the pipe it probes memory with, so it reports a live object (the web listener's
# socket notifier) as invalid and stops the server. The normal build runs the test.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs" -E '^WebDescriptorTest\.'

phase "TSan build (concurrency suites)"
# Only the test programs that hold concurrency suites are built here.
build build-tsan support_tests transport_tests storage_tests game_tests table_tests monitor_tests \
  -- -DPOINTLANE_SANITIZE=thread -DPOINTLANE_BENCH=OFF -DCMAKE_UNITY_BUILD=ON
phase "TSan tests"
# TSan needs the fixed memory layout that address randomisation of recent kernels breaks.
# Qt itself is not instrumented: see tests/tsan-suppressions.txt for what is suppressed and why.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan-suppressions.txt" \
  setarch "$(uname -m)" -R ctest --test-dir build-tsan --output-on-failure -j "$jobs" -R ConcurrencyTest
