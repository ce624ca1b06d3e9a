#!/usr/bin/env bash
# Builds the libFuzzer targets under fuzz/ with clang (module and fake host instrumented
# with ASan and UBSan) and runs each one over its seed corpus fuzz/corpus/<target>/.
# Installs what is missing (Debian packages, idempotent). New inputs go to the build
# directory, never to the seed corpus; a crash leaves its input in <build>/artifacts/.
#   scripts/fuzz.sh [--runs N] [--time SECONDS] [--target NAME] [--build-dir DIR]
# Defaults: every target, 20000 runs each, build-ci-fuzz. --time fuzzes each target for
# that many seconds instead, e.g. scripts/fuzz.sh --time 600 --target intake
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build-ci-fuzz"
runs=20000
seconds=""
only=""

usage() { echo "usage: $0 [--runs N] [--time SECONDS] [--target NAME] [--build-dir DIR]" >&2; exit 2; }
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs="$2"; shift ;;
    --time) seconds="$2"; shift ;;
    --target) only="${2%_fuzz}"; shift ;;
    --build-dir) build_dir="$2"; shift ;;
    *) usage ;;
  esac
  shift
done

packages=(clang libclang-rt-14-dev cmake ninja-build libboost-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
compiler=$(command -v clang++-14 || command -v clang++)

# Tests, benchmarks and the host are not fuzzed; the fuzz block builds its own fake host.
cmake -S "$root" -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
  -DOAS_WERROR=ON -DOAS_SANITIZE=fuzzer-no-link,address,undefined -DOAS_FUZZ=ON \
  -DBUILD_TESTING=OFF -DOAS_HOST=OFF -DOAS_BENCHMARKS=OFF

targets=()
for source in "$root"/fuzz/*_fuzz.cpp; do
  name=$(basename "$source" .cpp)
  if [ -z "$only" ] || [ "$name" = "${only}_fuzz" ]; then targets+=("$name"); fi
done
if [ ${#targets[@]} -eq 0 ]; then
  echo "no fuzz target named '$only'" >&2
  exit 2
fi
cmake --build "$build_dir" --target "${targets[@]}"

limit=(-runs="$runs")
[ -z "$seconds" ] || limit=(-max_total_time="$seconds")
export ASAN_OPTIONS="${ASAN_OPTIONS:-abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=()
for name in "${targets[@]}"; do
  target="${name%_fuzz}"
  work="$build_dir/corpus/$target"
  mkdir -p "$work" "$build_dir/artifacts"
  # The intake's fake host keeps growing logs, so every input would look like a possible
  # leak and trigger a full leak scan; leaks are still reported when the run ends.
  extra=()
  [ "$target" != intake ] || extra=(-detect_leaks=0)
  echo "== $target"
  if ! "$build_dir/fuzz/$name" "${limit[@]}" "${extra[@]}" -print_final_stats=1 \
      -artifact_prefix="$build_dir/artifacts/$target-" "$work" "$root/fuzz/corpus/$target"; then
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz targets failed: ${failed[*]} (inputs in $build_dir/artifacts/)" >&2
  exit 1
fi
echo "fuzz targets passed: ${targets[*]}"
