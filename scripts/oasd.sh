#!/usr/bin/env bash
# Builds oasd and runs it in the foreground, protecting the given paths; with no path it
# protects a demo directory (a tmpfs of its own, in a fresh directory removed at the end)
# and prints what to try there. Installs what is missing first (Debian packages,
# idempotent). Ctrl-C stops oasd cleanly.
#   scripts/oasd.sh [--build-dir DIR] [--engine clamav|none] [--log-level LEVEL] [PATH...]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
oasd_options=()

while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift ;;
    --engine|--log-level) oasd_options+=("$1" "$2"); shift ;;
    --help|-h) sed -n '2,6p' "$0"; exit 0 ;;
    --) shift; break ;;
    -*) echo "usage: $0 [--build-dir DIR] [--engine clamav|none] [--log-level LEVEL] [PATH...]" >&2
        exit 2 ;;
    *) break ;;
  esac
  shift
done

sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"

install_missing() {
  local packages=(g++ cmake ninja-build binutils libboost-dev libgtest-dev libgmock-dev)
  packages+=(libclamav-dev libmagic-dev nlohmann-json3-dev pkg-config)
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "installing: ${missing[*]}"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
}

# Reuses the test command's build tree (and its options) when there is one.
build() {
  [ -f "$build_dir/CMakeCache.txt" ] || cmake -S "$root" -B "$build_dir" -G Ninja
  cmake --build "$build_dir" --target oasd oas
}

demo_root=""
demo_dir=""
demo_mounted=0

# The demo lives in a fresh directory of root's with an unpredictable name: oasd refuses
# output files in a directory another user owns, and a fixed name in /tmp could be a link
# someone left there. The protected part gets a tmpfs of its own, so oasd marks that mount
# and nothing else; events and metrics go to a directory only root may write.
prepare_demo() {
  demo_root=$($sudo_cmd mktemp -d /tmp/oasd-demo.XXXXXX)
  $sudo_cmd chmod 0755 "$demo_root"
  demo_dir="$demo_root/files"
  local state="$demo_root/state"
  $sudo_cmd mkdir -m 0755 "$demo_dir"
  $sudo_cmd mkdir -m 0750 "$state"
  $sudo_cmd mount -t tmpfs -o size=64m,mode=1777 oasd-demo "$demo_dir"
  demo_mounted=1
  echo "This file is clean: reading it is allowed." > "$demo_dir/clean.txt"
  local events_file="$state/events.jsonl" metrics_file="$state/metrics.prom"
  oasd_options+=(--events-file "$events_file" --metrics-file "$metrics_file")
  cat <<EOT

oasd protects $demo_dir. In another terminal, try:
  cat $demo_dir/clean.txt                   # allowed
  printf '%s%s' 'X5O!P%@AP[4\\PZX54(P^)7CC)7}\$EICAR' '-STANDARD-ANTIVIRUS-TEST-FILE!\$H+H*' > $demo_dir/eicar.txt
  cat $demo_dir/eicar.txt                   # refused: Operation not permitted
  sudo tail -f $events_file       # detections and processing errors, one JSON line each
  sudo kill -USR1 \$(pidof oasd); sudo cat $metrics_file   # metrics now
Stop oasd with Ctrl-C.

EOT
}

cleanup() {
  if [ "$demo_mounted" -eq 1 ]; then $sudo_cmd umount "$demo_dir" || true; fi
  if [ -n "$demo_root" ]; then $sudo_cmd rm -rf --one-file-system -- "$demo_root"; fi
}

install_missing
build
trap cleanup EXIT
if [ $# -eq 0 ]; then
  prepare_demo
  set -- "$demo_dir"
fi
# A trap (not an ignored signal) keeps this shell alive for the cleanup while oasd, which
# inherits the default disposition, receives the Ctrl-C and stops by itself.
trap 'true' INT TERM
status=0
$sudo_cmd "$build_dir/oasd" --watch "$@" "${oasd_options[@]}" || status=$?
exit "$status"
