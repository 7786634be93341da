#!/usr/bin/env bash
# Installs what is missing, checks the format, builds, and runs every test: a normal build (with
# the browser test and the Debian package test), an ASan+UBSan build
# of everything, and a TSan build whose concurrency suites ("*ConcurrencyTest") are run.
set -euo pipefail
cd "$(dirname "$0")/.."

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

echo "== format =="
scripts/check-format.sh

echo "== normal build =="
build build
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== Debian package: build, install, check, remove =="
scripts/package-test.sh build

echo "== ASan + UBSan build =="
build build-asan -- -DPOINTLANE_SANITIZE=address -DPOINTLANE_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== TSan build (concurrency suites) =="
# Only the test programs that hold concurrency suites are built here.
build build-tsan support_tests transport_tests storage_tests game_tests monitor_tests \
  -- -DPOINTLANE_SANITIZE=thread -DPOINTLANE_BENCH=OFF
# TSan needs the fixed memory layout that address randomisation of recent kernels breaks.
# Qt itself is not instrumented: see tests/tsan-suppressions.txt for what is suppressed and why.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan-suppressions.txt" \
  setarch "$(uname -m)" -R ctest --test-dir build-tsan --output-on-failure -j "$jobs" -R ConcurrencyTest
