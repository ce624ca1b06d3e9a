#!/usr/bin/env bash
# The project's one test command: installs what is missing (Debian packages, idempotent),
# configures, builds and runs the whole suite through ctest.
#   scripts/test.sh [--werror] [--sanitize address,undefined] [--build-dir DIR]
#                   [--cmake-args "ARGS"] [--ctest-args "ARGS"]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
werror=OFF
sanitize=""
cmake_args=()
ctest_args=()

while [ $# -gt 0 ]; do
  case "$1" in
    --werror) werror=ON ;;
    --sanitize) sanitize="$2"; shift ;;
    --build-dir) build_dir="$2"; shift ;;
    --cmake-args) read -ra cmake_args <<< "$2"; shift ;;
    --ctest-args) read -ra ctest_args <<< "$2"; shift ;;
    *) echo "usage: $0 [--werror] [--sanitize LIST] [--build-dir DIR] [--cmake-args ARGS] [--ctest-args ARGS]" >&2; exit 2 ;;
  esac
  shift
done

packages=(g++ cmake ninja-build binutils libgtest-dev libgmock-dev libboost-dev)
packages+=(libbenchmark-dev)  # the microbenchmarks under bench/, built but not run
packages+=(postgresql)  # a scratch database server for the journals cache test
packages+=(libclamav-dev libmagic-dev nlohmann-json3-dev pkg-config)  # oasd, the reference host
packages+=(prometheus-cpp-dev libsystemd-dev)  # oasd's metrics endpoint, systemd readiness
packages+=(python3-prometheus-client)  # the e2e test's parser of the metrics page
packages+=(e2fsprogs mount)  # mkfs.ext2 and loop mounts for the coarse-timestamp e2e test
packages+=(zip)  # archives for the scan_archived tests
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

cmake -S "$root" -B "$build_dir" -G Ninja \
  -DOAS_WERROR="$werror" -DOAS_SANITIZE="$sanitize" "${cmake_args[@]}"
cmake --build "$build_dir"
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)" "${ctest_args[@]}"
