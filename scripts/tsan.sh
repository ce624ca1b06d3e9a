#!/usr/bin/env bash
# The ThreadSanitizer run: the whole tree built with -fsanitize=thread (through
# scripts/test.sh, which installs what is missing) and every ctest test except the e2e ones,
# which drive a separately started oasd. Any race or lock-order inversion fails the run.
#   scripts/tsan.sh [--build-dir DIR]        (default: build-ci-tsan)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build-ci-tsan"

while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift ;;
    *) echo "usage: $0 [--build-dir DIR]" >&2; exit 2 ;;
  esac
  shift
done

export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1${TSAN_OPTIONS:+:$TSAN_OPTIONS}"

# The sanitizer's shadow layout assumes the classic address-space randomisation range;
# kernels with more random bits make instrumented programs abort at start. The tests do
# not depend on randomised addresses, so run them without it where setarch can.
no_aslr=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  no_aslr=(setarch "$(uname -m)" -R)
fi

# Benchmarks are not run here and only cost build time. GCC 12's heap-object analysis
# misreads vector copies in thread-instrumented code, so that one warning stays a warning.
"${no_aslr[@]}" "$root/scripts/test.sh" --werror --sanitize thread --build-dir "$build_dir" \
  --cmake-args "-DOAS_BENCHMARKS=OFF -DCMAKE_CXX_FLAGS=-Wno-error=free-nonheap-object" \
  --ctest-args "-LE e2e"
