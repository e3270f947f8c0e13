#!/usr/bin/env bash
# What one client's long request costs the others: the round trip of a version request while
# another client quarantines a large file, and of a service-list request while another client
# stops a service that stays stop-pending (the service waits 30 s for it, then ends its
# process), each against the idle median of the same request in the same run. Each figure is a
# whole client's time: process start, connect (with its own version check) and the request, as a
# program of the product would see it. Prints "name: value unit" lines.
#
#   bench/hol_bench.sh [BUILD_DIR]           a 1 GiB file; samples for the whole stop
#   bench/hol_bench.sh --smoke [BUILD_DIR]   a 64 MiB file; ten samples of the stop
# It works in a copy of the test prefix (bench/bench_setup.sh).
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
. "$src/tests/integration/protection_lib.sh"
size=1G
[ "$smoke" = 0 ] || size=64M

round_trip() {  # ID: one client's time in ms on stdout, nothing when it was not answered
    local t0
    t0=$(date +%s%N)
    wine "$client" -t 120000 send "$1" </dev/null >/dev/null 2>&1 && awk -v a="$t0" -v b="$(date +%s%N)" 'BEGIN { printf "%.1f", (b - a) / 1e6 }'
}
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR) print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
samples() {  # ID COUNT: COUNT round trips, one per line
    local i
    for ((i = 0; i < $2; i++)); do round_trip "$1" && echo; done
}
# during ID PID [MAX]: round trips of ID while process PID runs (at most MAX), one per line.
during() {
    local n=0
    while kill -0 "$2" 2>/dev/null && [ "$n" -lt "${3:-100000}" ]; do
        round_trip "$1" && echo
        n=$((n + 1))
    done
}
report() {  # NAME IDLE-FILE BUSY-FILE
    local idle busy
    idle=$(median <"$2") busy=$(median <"$3")
    [ -n "$idle" ] && [ -n "$busy" ] || { fail "$1: no round trips (idle ${idle:-none}, busy ${busy:-none})"; return; }
    echo "${1}_idle_median: $idle ms"
    echo "${1}_busy_median: $busy ms"
    echo "${1}_busy_worst: $(sort -g "$3" | tail -n 1) ms"
    echo "${1}_busy_samples: $(wc -l <"$3") requests"
    awk -v b="$busy" -v i="$idle" -v n="$1" 'BEGIN { printf "%s: %.2f x\n", n, b / (i > 0 ? i : 0.001) }'
}

printf '' >"$journal"
install_with_recorder
install_test_service nv_hol_stubborn stubborn demand stuck-stopping
start_service
call create-quarantine-container path='C:\Q'
mkdir -p "$drive_c/data"

# A version request while another client quarantines the file.
head -c "$size" /dev/urandom >"$drive_c/data/hol.bin"
samples 100000a 20 >"$work/version_idle"
(wine "$client" -t 600000 call quarantine-files action=0 container='c:\q' 'path=C:\data\hol.bin' </dev/null >"$work/quarantine.out" 2>&1) &
quarantiner=$!
poll 300 0.05 '[ "$(log_count "Archiving : C:\data\hol.bin")" = 1 ]' || fail "the quarantine did not start"
during 100000a $quarantiner >"$work/version_busy"
wait $quarantiner
grep -q '^result=1 ' "$work/quarantine.out" || fail "the quarantine failed: $(cat "$work/quarantine.out")"
report hol_version_during_quarantine "$work/version_idle" "$work/version_busy"

# A service-list request while another client stops a service that stays stop-pending.
run sc start nv_hol_stubborn
wait_svc_state nv_hol_stubborn 0
samples 1000004 20 >"$work/list_idle"
(wine "$client" -t 600000 call stop-service-by-name name=nv_hol_stubborn </dev/null >"$work/stop.out" 2>&1) &
stopper=$!
poll 300 0.05 '[ "$(log_count "Received IPC message 1000066")" -ge 1 ]' || fail "the stop did not arrive"
max=
[ "$smoke" = 0 ] || max=10
during 1000004 $stopper $max >"$work/list_busy"
report hol_list_during_service_stop "$work/list_idle" "$work/list_busy"
stop_service  # a stop that is still waiting gives up
wait $stopper
run sc stop nv_hol_stubborn
run taskkill /F /IM nv_test_service.exe
run sc delete nv_hol_stubborn
[ "$failures" = 0 ]
