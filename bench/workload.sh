#!/usr/bin/env bash
# Real workloads under each listener, in one run: grep -r over a copy of /usr/include twice,
# tar of it, a small C build against that copy. Each runs with (a) no interception, (b) the
# minimal responder that allows everything, (c) oasd with libclamav without the kernel cache
# and (d) with it, and is printed with its ratio to (a). Root; everything happens in a private
# mount namespace on a tmpfs of its own, into which /usr/include is copied first: nothing
# else is ever marked.
#   bench/workload.sh [--build-dir DIR]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
[ "${1:-}" = "--build-dir" ] && build_dir="$2"
source "$root/bench/sandbox.sh"
bench_require_root workload.sh
bench_build "$root" "$build_dir" open_latency oasd oas
bench_work_dir oas-workload watched scratch

timeout --kill-after=10 1500 unshare -m --propagation private bash -s "$work" "$build_dir" <<'INNER'
set -euo pipefail
work=$1 build=$2
dir=$work/watched scratch=$work/scratch
mount -t tmpfs -o size=1g,mode=0755 oas-open-latency "$dir"
mount -t tmpfs -o size=64m,mode=0755 oas-workload-scratch "$scratch"
cp -a /usr/include "$dir/include"
mkdir "$dir/build"
gcc_include=$(gcc -print-file-name=include)
for i in $(seq 1 20); do
  cat > "$dir/build/unit$i.c" <<C
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <pthread.h>
int unit$i(const char *s) { struct stat st; return (int)strlen(s) + (stat(s, &st) == 0); }
C
done
echo 'int main(void) { return 0; }' > "$dir/build/main.c"
sleep 0.3  # past the timestamp tick: files just written may be cached like any other

declare -A took
# run CONFIG NAME TIMES COMMAND...: the median of TIMES runs, in ms (the machine is shared).
run() {
  local config=$1 name=$2 times=$3
  shift 3
  local samples=() start end
  for _ in $(seq 1 "$times"); do
    start=$(date +%s%N)
    "$@" > /dev/null || true  # grep finds nothing on purpose
    end=$(date +%s%N)
    samples+=($(( (end - start) / 1000000 )))
  done
  took[$config,$name]=$(printf '%s\n' "${samples[@]}" | sort -n | sed -n "$(( (times + 1) / 2 ))p")
}
build_c() {
  cd "$dir/build"
  for f in *.c; do
    gcc -nostdinc -isystem "$gcc_include" -isystem "$dir/include/x86_64-linux-gnu" \
        -isystem "$dir/include" -O1 -c "$f" -o "${f%.c}.o"
  done
  gcc -o prog ./*.o
  rm -f ./*.o prog
}
workloads() {
  run "$1" grep1 1 grep -r -c zzqx_never_there "$dir/include"
  run "$1" grep2 3 grep -r -c zzqx_never_there "$dir/include"
  run "$1" tar 3 bash -c "tar -C '$dir' -cf - include | cat"
  run "$1" build 3 build_c
}

oasd_pid=
start_oasd() {
  coproc OASD { exec "$build/oasd" --watch "$dir" --engine clamav --log-level error \
    --log-file "$scratch/oasd.log" --metrics-file "$scratch/oasd.prom" --events-file "" "$@"; }
  oasd_pid=$OASD_PID
  read -r -t 60 line <&"${OASD[0]}"
  [ "$line" = "oasd: ready" ] || { echo "oasd did not start: $(cat "$scratch/oasd.log")" >&2; exit 1; }
}
# What oasd did during the workloads: events read, scans, kernel cache marks and flushes.
stop_oasd() {
  rm -f "$scratch/oasd.prom"
  kill -USR1 "$oasd_pid"
  for _ in $(seq 1 100); do [ -f "$scratch/oasd.prom" ] && break; sleep 0.05; done
  summary[$1]=$(grep -E '^oasd_(events_total|scans_total|allowed_at_once_total|kernel_cache_marks_(added|removed)_total|kernel_cache_flushes_total)' \
    "$scratch/oasd.prom" | grep -v ' 0$' | sed 's/^oasd_//' | tr '\n' ' ')
  kill -TERM "$oasd_pid"; wait "$oasd_pid" || true
}
declare -A summary

workloads a
coproc RESPONDER { "$build/open_latency" --dir "$dir" --scratch "$scratch" --respond; }
read -r -t 30 line <&"${RESPONDER[0]}"
[ "$line" = "ready" ] || { echo "the responder did not start" >&2; exit 1; }
workloads b
eval "exec ${RESPONDER[1]}>&-"
wait "$RESPONDER_PID" || true
start_oasd --no-kernel-cache
workloads c
stop_oasd c
start_oasd
workloads d
stop_oasd d

declare -A names=([a]="(a) no interception" [b]="(b) minimal responder" [c]="(c) oasd, no kernel cache" [d]="(d) oasd, kernel cache")
printf '\n%-28s %14s %14s %14s %14s\n' "configuration" "grep -r 1st" "grep -r 2nd" "tar" "C build"
for c in a b c d; do
  printf '%-28s' "${names[$c]}"
  for w in grep1 grep2 tar build; do
    t=${took[$c,$w]} base=${took[a,$w]}
    printf ' %6d ms %5s' "$t" "$(awk -v t="$t" -v b="$base" 'BEGIN { printf "%.2fx", (b > 0 ? t / b : 0) }')"
  done
  printf '\n'
done
for c in c d; do echo "${names[$c]}: ${summary[$c]}"; done
echo "files: $(find "$dir/include" -type f | wc -l), $(du -sh "$dir/include" | cut -f1); ratios to (a);" \
  "later passes: the median of 3, so 'grep -r 2nd' is the 2nd to 4th"
INNER
