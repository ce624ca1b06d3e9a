#!/usr/bin/env bash
# oasd's resident memory before and after opening many files with long paths once each, as
# root in a private mount namespace on two tmpfs mounts of its own (the watched one and a
# scratch one for oasd's state), under a time limit. Nothing outside them is ever marked.
#   bench/path_memory.sh [--build-dir DIR] [--files N] [--path-bytes N] [--binary]
# Defaults: 100,000 files, paths of about 4,000 bytes, plain-text content (which the module's
# text files cache admits); --binary writes content no cache of the module takes.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
files=100000
path_bytes=4000
content='plain text\n'
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift 2 ;;
    --files) files="$2"; shift 2 ;;
    --path-bytes) path_bytes="$2"; shift 2 ;;
    --binary) content='\x7fELF\x01\x00\x00\x00'; shift ;;
    *) echo "path_memory.sh: unknown option $1" >&2; exit 2 ;;
  esac
done

source "$root/bench/sandbox.sh"
bench_require_root path_memory.sh
bench_build "$root" "$build_dir" oasd oas
bench_work_dir oasd-path-memory w s

timeout --kill-after=10 1800 unshare -m --propagation private bash -c '
  set -euo pipefail
  work=$1 oasd=$2 files=$3 path_bytes=$4 content=$5
  mount -t tmpfs -o size=2g,nr_inodes=0,mode=0755 oasd-path-memory "$work/w"
  mount -t tmpfs -o size=64m,mode=0755 oasd-path-memory-state "$work/s"

  # Directory names of 250 bytes down to about path_bytes, then file names up to 200 bytes.
  component=$(printf "d%.0s" $(seq 250))
  leaf="$work/w"
  while [ $(( ${#leaf} + 251 + 200 )) -le "$path_bytes" ]; do leaf="$leaf/$component"; done
  mkdir -p "$leaf"
  name_pad=$(( path_bytes - ${#leaf} - 1 - 7 ))
  [ "$name_pad" -gt 193 ] && name_pad=193
  [ "$name_pad" -lt 0 ] && name_pad=0
  pad=$(printf "f%.0s" $(seq "$name_pad"))
  cd "$leaf"
  for ((i = 0; i < files; i++)); do printf "$content" > "$(printf "%07d" "$i")$pad"; done
  echo "files: $files, path length: $(( ${#leaf} + 1 + 7 + ${#pad} )) bytes"

  printf "%s" "{\"watch\": [\"$work/w\"], \"engine\": \"clamav\", \"log_level\": \"error\",
    \"metrics_file\": \"$work/s/metrics.prom\", \"metrics_interval_s\": 3600}" > "$work/s/oasd.json"
  coproc OASD { exec "$oasd" --config "$work/s/oasd.json" 2>"$work/s/stderr.txt"; }
  if ! read -r -t 60 ready <&"${OASD[0]}"; then
    echo "oasd did not start:"; cat "$work/s/stderr.txt"; exit 1
  fi
  rss() { awk "/^VmRSS:/ {print \$2}" "/proc/$OASD_PID/status"; }
  before=$(rss)
  find . -type f -print0 | xargs -0 cat > /dev/null
  after=$(rss)
  kill -USR1 "$OASD_PID"; sleep 1
  echo "oasd resident before: $((before / 1024)) MB, after: $((after / 1024)) MB," \
       "per file: $(( (after - before) * 1024 / files )) bytes"
  grep -E "^(oas_cache_files|oasd_checked_cache_entries|oasd_scans_total|oas_cache_hits_total) " \
    "$work/s/metrics.prom" || true
  kill -TERM "$OASD_PID"; wait "$OASD_PID" || true
' path-memory "$work" "$build_dir/oasd" "$files" "$path_bytes" "$content"
