#!/usr/bin/env bash
# IRP-denied notifications end to end: the service (console and under the service manager) with
# the driver simulator, subscriber processes and denials injected with driver_ctl.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
new_prefix
start_sim
install_service
sub=$NV_BIN_DIR/nv_irp_subscriber.exe
# wait_log PATTERN COUNT: until the log holds COUNT lines with PATTERN (60 s).
wait_log() {
    for _ in $(seq 1 300); do
        [ "$(log_lines "$1")" -ge "$2" ] && return 0
        sleep 0.2
    done
    fail "log line [$1] x$2 did not come"
    return 1
}
# watcher NAME EVENT PATH MAJOR MINOR TYPE: a subscriber process in the background; sets $wpid
# (its Linux pid) and $spid (its Windows process id, once it has subscribed).
watcher() {
    local name=$1
    rm -f "$work/$name.ready"
    wine "$sub" watch "$1" "$2" "$3" "$4" "$5" "$6" 60000 "$(printf 'Z:%s' "$work/$name.ready" | tr '/' '\\')" \
        </dev/null >"$work/$name.out" 2>&1 &
    wpid=$!
    for _ in $(seq 1 150); do
        [ -s "$work/$name.ready" ] && break
        sleep 0.2
    done
    spid=$(tr -d '\r\n' <"$work/$name.ready" 2>/dev/null)
    [ -n "$spid" ] || fail "$name did not subscribe: $(cat "$work/$name.out")"
}
watch_result() { tr -d '\r' <"$work/$1.out"; }
# console_start: the service in the foreground (-d), in the background of this script.
console_start() {
    local before
    before=$(log_lines 'loadqQuarantineContainers')
    wine "$exe" -d </dev/null >"$work/console.txt" 2>&1 &
    console=$!
    wait_log 'loadqQuarantineContainers' $((before + 1))
}
# console_stop: sets the stop event and waits (60 s) for the console run to end.
console_stop() {
    run "$helper" set-event "Global\\${svc}_NTSVC_STOP_EVENT"
    for _ in $(seq 1 300); do
        kill -0 "$console" 2>/dev/null || break
        sleep 0.2
    done
    if kill -0 "$console" 2>/dev/null; then
        fail "the console run did not stop"
        kill "$console"
    fi
    wait "$console" 2>/dev/null
}

echo "== console run: feature 16 on, the receiver connected ($(date +%T))"
console_start
run "$ctl" journal
grep -q '"code":16,"kind":"feature","on":true' "$out" || fail "feature 16 on: $(cat "$out")"
run "$ctl" state
grep -q '"notify":1' "$out" || fail "one notification connection: $(cat "$out")"

echo "== a denial reaches two subscribers, each collects its own record once ($(date +%T))"
watcher subA 'Global\nv_subA' 'C:\Data\File.TXT' 0xFF 0xFF 0
pidA=$spid; procA=$wpid
watcher subB 'Global\nv_subB' '' 0xFF 0xFF 0
procB=$wpid
run "$ctl" inject 3 0 "$pidA" '\Device\HarddiskVolume1\data\file.txt'
[ "$rc" = 0 ] || fail "inject: $rc $(cat "$out")"
wait $procA $procB
a=$(watch_result subA)
b=$(watch_result subB)
for line in '^subscribe: 1$' '^event: fired$' '^first query: 1$' '^second query: 0$' \
    "^record seq=[0-9]* path=c:\\\\data\\\\file.txt major=3 minor=0 pid=$pidA image=.*nv_irp_subscriber.exe description=..* denied=1$"; do
    grep -q "$line" <<<"$a" || fail "subA: [$line]: $a"
done
for line in '^event: fired$' '^first query: 1$'; do grep -q "$line" <<<"$b" || fail "subB (any file): [$line]: $b"; done
seqA=$(sed -n 's/^record seq=\([0-9]*\).*/\1/p' <<<"$a")
seqB=$(sed -n 's/^record seq=\([0-9]*\).*/\1/p' <<<"$b")
[ -n "$seqA" ] && [ "$seqA" != "$seqB" ] || fail "two records with different sequences: $seqA $seqB"
[ "$(log_lines 'Add subscription for <subB> on file <subscribe_any_file>')" = 1 ] || fail "any-file subscription line"
[ "$(log_lines 'Notify subscriber <subA> on IRP for file <c:\\data\\file.txt>')" = 1 ] || fail "notify line"
[ "$(log_lines 'Coverted file path="c:\\data\\file.txt"')" = 1 ] || fail "converted path line"

echo "== the per-subscriber bound ($(date +%T))"
run "$sub" bound burst 'Global\nv_burst' 10005
grep -q '^collected: 10000$' "$out" || fail "bound: $(cat "$out")"
[ "$(log_lines 'Subscriber <burst> holds 10000 notification records, dropping the oldest')" = 1 ] ||
    fail "one drop line per burst"

echo "== stop: feature 16 off, the receiver ends on the driver's stop message ($(date +%T))"
console_stop
[ "$(log_lines 'Received the stop message from driver')" -ge 1 ] || fail "stop message line"
run "$ctl" journal
grep -q '"code":16,"kind":"feature","on":false' "$out" || fail "feature 16 off: $(cat "$out")"

echo "== driver not loaded: no receiver, requests still served ($(date +%T))"
run "$ctl" unload
before=$(log_lines 'Could not connect to filter: ')
console_start
[ "$(log_lines 'Could not connect to filter: ')" -gt "$before" ] || fail "connection failure logged"
grep -q 'Could not connect to filter: -2147024894 - ' "$log" || fail "HRESULT and its text"
[ "$(log_lines 'Could not connect to filter for notification')" = 0 ] || fail "the receiver was started"
run "$sub" subscribe nodrv 'Global\nv_nodrv' 'c:\x' 0xFF 0xFF 0
[ "$(cat "$out")" = "subscribe: 1" ] || fail "subscribe without a driver: $(cat "$out")"
run "$sub" query nodrv
[ "$(cat "$out")" = "records: 0" ] || fail "query without a driver: $(cat "$out")"
console_stop
run "$ctl" load

echo "== under the service control manager ($(date +%T))"
run "$exe" -i install
run "$exe" -s start
[ "$rc" = 0 ] || fail "start: $(cat "$out")"
wait_log 'loadqQuarantineContainers' 3
watcher scm 'Global\nv_scm' 'c:\data\file.txt' 3 0xFF 1
procS=$wpid
run "$ctl" inject 3 0 "$spid" '\Device\HarddiskVolume1\data\file.txt'
wait $procS
s=$(watch_result scm)
grep -q "^record seq=[0-9]* path=c:\\\\data\\\\file.txt major=3 minor=0 pid=$spid " <<<"$s" || fail "scm record: $s"
grep -q '^second query: 0$' <<<"$s" || fail "scm second query: $s"
stops=$(log_lines 'Received the stop message from driver')
started=$(date +%s)
run "$exe" -s stop
wait_state 252
[ $(($(date +%s) - started)) -lt 60 ] || fail "stop took $(($(date +%s) - started)) s"
[ "$(log_lines 'Received the stop message from driver')" -gt "$stops" ] || fail "receiver stopped at service stop"

echo "== the driver unloads while the service runs ($(date +%T))"
run "$exe" -s start
wait_log 'loadqQuarantineContainers' 4
before=$(log_lines 'Received the stop message from driver')
run "$ctl" unload
wait_log 'Received the stop message from driver' $((before + 1))
run "$client" version
[ "$rc" = 0 ] || fail "requests after the unload"
started=$(date +%s)
run "$exe" -s stop
wait_state 252
[ $(($(date +%s) - started)) -lt 60 ] || fail "stop after the unload took too long"
run "$exe" -i uninstall

finish "IRP notification" 80
