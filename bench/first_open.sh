#!/usr/bin/env bash
# The first open of a fresh 4 KiB file, scanned before it is allowed: oasd with libclamav
# against clamonacc passing the descriptor to clamd (--fdpass), both with oasd's bundled
# signature, in one run. Installs clamav-daemon and clamdscan when missing. Root; a private
# mount namespace and a tmpfs of its own hold everything, and only that tmpfs is marked.
#   bench/first_open.sh [--build-dir DIR] [--files N]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build_dir="$root/build"
files=200
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build_dir="$2"; shift 2 ;;
    --files) files="$2"; shift 2 ;;
    *) echo "first_open.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
source "$root/bench/sandbox.sh"
bench_require_root first_open.sh
if ! command -v clamd > /dev/null || ! command -v clamonacc > /dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends clamav-daemon clamdscan
fi
bench_build "$root" "$build_dir" oasd oas
bench_work_dir oas-first-open watched scratch

timeout --kill-after=10 600 unshare -m --propagation private bash -s "$work" "$build_dir" \
  "$root/host/engine/signatures" "$files" <<'INNER'
set -euo pipefail
work=$1 build=$2 signatures=$3 count=$4
dir=$work/watched scratch=$work/scratch
mount -t tmpfs -o size=256m,mode=0755 oas-first-open "$dir"
mount -t tmpfs -o size=64m,mode=0755 oas-first-open-scratch "$scratch"
eicar='X5O!P%@AP[4\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*'
for set in oasd clamonacc; do
  mkdir "$dir/$set"
  for i in $(seq 1 "$count"); do head -c 4096 /dev/urandom > "$dir/$set/$i.bin"; done
  printf '%s' "$eicar" > "$dir/$set/eicar.txt"
done
sleep 0.3

# Median and range of open+close of each file once, in microseconds.
time_first_opens() {
  python3 - "$1" "$count" <<'PY'
import os, sys, time, statistics
d, n = sys.argv[1], int(sys.argv[2])
t = []
for i in range(1, n + 1):
    p = f"{d}/{i}.bin"
    s = time.perf_counter_ns()
    os.close(os.open(p, os.O_RDONLY))
    t.append((time.perf_counter_ns() - s) / 1000)
t.sort()
print(f"{statistics.median(t):.0f} {t[len(t) // 10]:.0f} {t[len(t) * 9 // 10]:.0f}")
PY
}
# Waits until the listener refuses the test file: it is then scanning.
await_denied() {
  for _ in $(seq 1 300); do
    if ! cat "$1" > /dev/null 2>&1; then return 0; fi
    sleep 0.1
  done
  echo "first_open.sh: $1 was never refused" >&2
  exit 1
}

coproc OASD { "$build/oasd" --watch "$dir" --engine clamav --log-level error \
  --log-file "$scratch/oasd.log" --metrics-file "" --events-file ""; }
read -r -t 60 line <&"${OASD[0]}"
[ "$line" = "oasd: ready" ] || { echo "oasd did not start: $(cat "$scratch/oasd.log")" >&2; exit 1; }
await_denied "$dir/oasd/eicar.txt"
read -r oasd_median oasd_p10 oasd_p90 < <(time_first_opens "$dir/oasd")
kill -TERM "$OASD_PID"; wait "$OASD_PID" || true

cat > "$scratch/clamd.conf" <<CONF
LocalSocket $scratch/clamd.sock
DatabaseDirectory $signatures
Foreground yes
User root
LogFile $scratch/clamd.log
OnAccessIncludePath $dir
OnAccessPrevention yes
OnAccessExcludeUname clamav
CONF
clamd --config-file="$scratch/clamd.conf" &
clamd_pid=$!
for _ in $(seq 1 600); do [ -S "$scratch/clamd.sock" ] && break; sleep 0.1; done
clamonacc --config-file="$scratch/clamd.conf" --fdpass --foreground --log="$scratch/clamonacc.log" &
onacc_pid=$!
await_denied "$dir/clamonacc/eicar.txt"
read -r acc_median acc_p10 acc_p90 < <(time_first_opens "$dir/clamonacc")
kill -TERM "$onacc_pid"; wait "$onacc_pid" || true
kill -TERM "$clamd_pid"; wait "$clamd_pid" || true

printf '\nfirst open of a fresh 4 KiB file (%s files each), median (p10-p90) in us\n' "$count"
printf '%-34s %8s (%s-%s)\n' "oasd, libclamav" "$oasd_median" "$oasd_p10" "$oasd_p90"
printf '%-34s %8s (%s-%s)\n' "clamonacc --fdpass, clamd" "$acc_median" "$acc_p10" "$acc_p90"
awk -v a="$oasd_median" -v b="$acc_median" 'BEGIN { printf "oasd / clamonacc: %.2fx\n", a / b }'
INNER
