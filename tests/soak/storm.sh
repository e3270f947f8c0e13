#!/usr/bin/env bash
# The storm, then its crash recovery, against the running service with the driver simulator:
# what it does and checks is under "Storm benchmark" in bench/README.md.
#   tests/soak/storm.sh [BUILD_DIR [SECONDS [CLIENTS [KILLS [GROWTH_LIMIT]]]]]
#                                                        defaults: build/mingw-x64 600 200 10 10
set -uo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd) build=$(cd "${1:-$here/build/mingw-x64}" && pwd)
seconds=${2:-600} clients=${3:-200} kills=${4:-10}
export NV_STORM_GROWTH_LIMIT=${5:-10}
export NV_BIN_DIR=$build/bin NV_SOURCE_DIR=$here WINEPREFIX=${WINEPREFIX:-$build/wine/prefix}
[ -d "$WINEPREFIX" ] || bash "$here/tests/wine/prefix.sh" create >/dev/null
. "$here/tests/integration/protection_lib.sh"
. "$here/tests/soak/storm_setup.sh"

storm_setup "$clients"

# The simulator's churn: the driver unloaded and loaded again, denials injected, until told.
churn() {
    while [ ! -e "$work/stop_churn" ]; do
        sleep $((2 + RANDOM % 5))
        wine "$ctl" unload </dev/null >/dev/null 2>&1
        sleep 1
        wine "$ctl" load </dev/null >/dev/null 2>&1
        for _ in 1 2 3; do
            wine "$ctl" inject 3 0 4 "C:\\storm\\f$((RANDOM % clients))\\data.txt" </dev/null >/dev/null 2>&1
        done
    done
}
churn & churner=$!

echo "== storm: $clients clients, $seconds s ($(date +%T))"
# A storm gets its length, two minutes for its clients to end and five for its checks; one that
# outlives that (a process Wine left unable to exit) has its threads' stacks printed, is ended
# and fails.
bounded() {  # SECONDS COMMAND...
    local limit=$(($1 + 420)) pid t
    "${@:2}" & pid=$!
    for ((t = 0; t < limit; t++)); do kill -0 "$pid" 2>/dev/null && sleep 1; done
    if kill -0 "$pid" 2>/dev/null; then
        echo "== nv_storm outlived ${limit} s, its threads (its own frames by source line after them):" >&2
        timeout 120 winedbg --command "bt all" </dev/null 2>&1 | awk '/^Backtracing/ { keep = /nv_storm/ } keep' |
            head -n 600 | tee "$work/stacks.txt" >&2
        grep -o 'in nv_storm (+0x[0-9a-f]*)' "$work/stacks.txt" | grep -o '0x[0-9a-f]*' | sort -u |
            while read -r at; do printf '0x%x\n' $((0x140000000 + at)); done |
            x86_64-w64-mingw32-addr2line -f -p -e "$storm" >&2
        kill "$pid"; sleep 10; kill -9 "$pid" 2>/dev/null
    fi
    wait "$pid"
}
bounded "$seconds" wine "$storm" storm "$seconds" "$clients" </dev/null >"$work/storm.txt" 2>&1; storm_rc=$?
tr -d '\r' <"$work/storm.txt"
[ "$storm_rc" = 0 ] || fail "storm checks (exit $storm_rc)"
touch "$work/stop_churn"
wait "$churner"
# The simulator must be loaded for what follows.
wine "$ctl" load </dev/null >/dev/null 2>&1

echo "== crash recovery: $kills kills during a storm ($(date +%T))"
crash_seconds=$((kills * 8 + 20))
rm -f "$drive_c/storm/kills_done"
crash_clients=$((clients / 4 > 0 ? clients / 4 : 1))
bounded "$crash_seconds" wine "$storm" storm "$crash_seconds" "$crash_clients" --crashes </dev/null >"$work/crash_storm.txt" 2>&1 &
crash_storm=$!
for k in $(seq 1 "$kills"); do
    sleep "$((1 + RANDOM % 5)).$((RANDOM % 10))"
    runs "kill $k: taskkill" 0 '*' taskkill /F /PID "$(wine "$helper" service-pid $svc </dev/null | tr -d '\r')"
    # The stand-in grant (see protection_lib.sh) only after the checks: until then the service
    # cannot change its records, so the crash storm leaves the keys as the kill left them.
    start_service sddl 'Software\Norvale'
    # Beside the crash storm's clients killed mid-handshake a connection may fail cleanly: each
    # list is asked until it is answered.
    for list in get-protected-reg-keys query-protected-services; do
        poll 100 0.2 'run "$client" -t 20000 call $list; [ "$rc" = 0 ]' || fail "kill $k: $list: $(cat "$out")"
    done
    run "$storm" checks "$clients"
    sed "s/^/kill $k: /" "$out"
    [ "$rc" = 0 ] || fail "kill $k: checks failed"
    run "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys
done
touch "$drive_c/storm/kills_done"  # the crash storm's last checks wait for it
echo "== waiting for the crash storm's end ($(date +%T))"
wait "$crash_storm"; crash_rc=$?
tr -d '\r' <"$work/crash_storm.txt" | sed 's/^/crash storm: /'
[ "$crash_rc" = 0 ] || fail "crash storm checks (exit $crash_rc)"

stop_service
echo "== done ($(date +%T))"
echo "failures: $failures"
[ "$failures" = 0 ]
