#!/usr/bin/env bash
# Kill to answering again: the service holds the storm's persisted state (200 protected keys with
# their owners among 8 protected services, the storm's container with archives), has its process
# ended (as taskkill /f does) and is started again as soon as the service manager lets it, and the time until it
# answers its key and service lists is taken (restart_bench.exe; then nv_storm checks that no key
# and no file was lost). Prints "name: value unit" lines.
#
#   bench/restart_bench.sh [BUILD_DIR]           200 keys, 100 archives, 10 kills
#   bench/restart_bench.sh --smoke [BUILD_DIR]   20 keys, 10 archives, 2 kills
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
. "$src/tests/integration/protection_lib.sh"
. "$src/tests/soak/storm_setup.sh"
keys=200 archives=100 kills=10
[ "$smoke" = 0 ] || keys=20 archives=10 kills=2

storm_setup "$keys"

# The state: every storm key protected in one request, each owned by one of the 8 services.
for i in 0 1 2 3 4 5 6 7; do call protect-services svc=1 proc=1 name="nvstorm$i"; done
args=()
for ((i = 0; i < keys; i++)); do
    args+=(protect=1 root=0xFFFFFFFF80000002 "path=SOFTWARE\\NVStorm\\k$i" "owner=nvstorm$((i % 8))" level=1)
done
call protect-reg-keys "${args[@]}"
[ "$reply" = "result=1 message=" ] || fail "protect $keys keys: $reply"
call create-quarantine-container 'path=C:\storm\q'
for ((i = 0; i < archives; i += 10)); do
    paths=()
    for ((j = i; j < i + 10 && j < archives; j++)); do paths+=("path=C:\\storm\\f$((j / 2))\\q$((j % 2)).bin"); done
    call quarantine-files action=0 'container=C:\storm\q' "${paths[@]}"
done
echo "restart_state: $keys keys, 8 services, $(ls "$drive_c/storm/q" | grep -c -i '\.QUA$') archives"

total=0
for k in $(seq 1 "$kills"); do
    run "$NV_BIN_DIR/restart_bench.exe" 120
    [ "$rc" = 0 ] || fail "kill $k: $(cat "$out")"
    s=$(sed -n 's/^restart_seconds: \([0-9.]*\) s$/\1/p' "$out")
    [ -n "$s" ] || { fail "kill $k: no figure"; break; }
    echo "restart_kill_$k: $s s"
    total=$(awk -v t="$total" -v s="$s" 'BEGIN { print t + s }')
    grep -E '^restart_(process_ended|service_started|keys_listed): ' "$out" >>"$work/steps.txt"
    run "$storm" checks "$keys"
    [ "$rc" = 0 ] || fail "kill $k: $(cat "$out")"
    # Stands in for the service SID, as after every start (see protection_lib.sh).
    run "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys
done
# Where the time went, each step's mean from the kill: the process gone, the service manager's
# start accepted, the key list answered (the service list follows).
awk -F': ' '{ t[$1] += $2; n[$1]++ } END { for (k in t) printf "%s_mean: %.3f s\n", k, t[k] / n[k] }' "$work/steps.txt" | sort
echo "restart_seconds: $(awk -v t="$total" -v n="$kills" 'BEGIN { printf "%.2f", t / n }') s (mean of $kills kills, kill to both lists answered; target under 1)"
stop_service
[ "$failures" = 0 ]
