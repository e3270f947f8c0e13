#!/usr/bin/env bash
# Protecting and then unprotecting 100 and 1,000 process images (ten to a folder) in one request
# each, against the running service with the driver simulator and the object-security recorder,
# and the time from a protected service's process being killed to the service running again.
# Prints "name: value unit" lines.
#
#   bench/protection_bench.sh [BUILD_DIR]           BUILD_DIR defaults to build/mingw-x64
#   bench/protection_bench.sh --smoke [BUILD_DIR]   10 and 100 images, two kills
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
. "$src/tests/integration/protection_lib.sh"
small=100 big=1000 runs=5
[ "$smoke" = 0 ] || small=10 big=100 runs=2

install_with_recorder
start_service

# rules N PROTECT: the hex payload of N rules C:\bench\fNNN\imgNNNN.exe, ten images a folder.
rules() {
    python3 - "$1" "$2" <<'PY'
import struct, sys
n, protect = int(sys.argv[1]), int(sys.argv[2])
out = bytearray(struct.pack('<I', n))
for i in range(n):
    out += bytes([protect]) + ('C:\\bench\\f%03d\\img%04d.exe' % (i // 10, i)).encode('utf-16-le') + b'\0\0'
print(out.hex().upper())
PY
}
timed_request() {  # ID HEXFILE: round trip in ms into $ms
    wine "$client" -t 600000 -m 'C:\nv\timing.txt' send "$1" "@$2" </dev/null >"$out" 2>&1
    ms=$(tr -d '\r' <"$drive_c/nv/timing.txt")
    [ "$(head -n 1 "$out" | tr -d '\r')" = 0100 ] || fail "request $1 replied $(head -n 1 "$out")"
}

mkdir -p "$drive_c"/bench/f{000..099}
declare -A per_rule
for n in $small $big; do
    rules "$n" 1 >"$drive_c/nv/protect.hex"
    rules "$n" 0 >"$drive_c/nv/unprotect.hex"
    timed_request 1000003 'C:\nv\protect.hex'
    protect_ms=$ms
    timed_request 1000003 'C:\nv\unprotect.hex'
    unprotect_ms=$ms
    per_rule[$n]=$(awk -v a="$protect_ms" -v b="$unprotect_ms" -v n="$n" 'BEGIN { printf "%.3f", (a + b) / n }')
    echo "protect_images_$n: $(awk -v a="$protect_ms" -v n="$n" 'BEGIN { printf "%.3f", a / n }') ms/rule"
    echo "unprotect_images_$n: $(awk -v a="$unprotect_ms" -v n="$n" 'BEGIN { printf "%.3f", a / n }') ms/rule"
    echo "protect_unprotect_images_$n: ${per_rule[$n]} ms/rule"
done
echo "protect_unprotect_${big}_over_${small}: $(awk -v a="${per_rule[$big]}" -v b="${per_rule[$small]}" -v k=$((big / small)) 'BEGIN { printf "%.2f", a * k / b }') x (time for $big over time for $small; limit 12)"

# A protected service killed, running again.
install_test_service nv_bench_svc svc demand
run sc start nv_bench_svc
wait_svc_state nv_bench_svc 0
call protect-services svc=1 proc=1 name=nv_bench_svc
total=0
for _ in $(seq 1 $runs); do
    old=$(pid_of svc nv_bench_svc)
    t0=$(date +%s.%N)
    run taskkill /F /PID "$old"
    wait_new_pid svc nv_bench_svc "$old" || fail "nv_bench_svc not running again"
    total=$(awk -v s="$total" -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN { print s + b - a }')
    sleep 1
done
echo "killed_service_running_again: $(awk -v s="$total" -v n=$runs 'BEGIN { printf "%.2f", s / n }') s (mean of $runs, taskkill /f to the new process; target 2)"
stop_service
[ "$failures" = 0 ]
