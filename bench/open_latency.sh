#!/usr/bin/env bash
# Builds what is missing and runs the open-latency benchmark as root in a private mount
# namespace, on two tmpfs mounts of its own (the one every listener marks, and a scratch one
# for oasd's log and metrics), all under a time limit. Nothing outside them is ever marked.
#   bench/open_latency.sh [--build-dir DIR] [--cpus LIST] [open_latency options]
# --cpus runs everything (the benchmark, its responder, oasd) on those CPUs only (taskset);
# open_latency's own options: --iterations N, --first-opens N, --without-oasd.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
pin=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift 2 ;;
    --cpus) pin=(taskset -c "$2"); shift 2 ;;
    *) break ;;
  esac
done

source "$root/bench/sandbox.sh"
bench_require_root open_latency.sh
bench_build "$root" "$build_dir" open_latency oasd oas
bench_work_dir oas-open-latency watched scratch

# The program keeps its own, shorter alarm; this limit is the backstop for it. It marks only a
# tmpfs mounted under the name oas-open-latency, and only when started (exec, not forked) in a
# namespace its parent does not share: hence the exec chain below.
timeout --kill-after=10 150 "${pin[@]}" unshare -m --propagation private bash -c '
  set -e
  mount -t tmpfs -o size=256m,mode=0755 oas-open-latency "$1/watched"
  mount -t tmpfs -o size=16m,mode=0755 oas-open-latency-scratch "$1/scratch"
  work=$1 bench=$2
  shift 2
  exec "$bench" --dir "$work/watched" --scratch "$work/scratch" "$@"
' open-latency "$work" "$build_dir/open_latency" "$@"
