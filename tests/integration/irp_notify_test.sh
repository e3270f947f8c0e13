#!/usr/bin/env bash
# IRP-denied notifications end to end: the service (console and under the service manager) with
# the driver simulator, subscriber processes, and denials injected with driver_ctl.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
new_prefix
start_sim
install_service
sub=$NV_BIN_DIR/nv_irp_subscriber.exe
file='\Device\HarddiskVolume1\data\file.txt'
wait_log() {  # PATTERN COUNT: until the log holds COUNT lines with PATTERN (60 s)
    for _ in $(seq 1 300); do
        [ "$(log_lines "$1")" -ge "$2" ] && return 0
        sleep 0.2
    done
    fail "log line [$1] x$2 did not come"
}
expect_log() { [ "$(log_lines "$1")" = "$2" ] || fail "log line [$1]: $(log_lines "$1") times, want $2"; }
# watcher NAME EVENT PATH MAJOR MINOR TYPE: a subscriber process in the background ($wpid); its
# Windows process id in $spid once it has subscribed.
watcher() {
    rm -f "$work/$1.ready"
    wine "$sub" watch "$@" 60000 "$(printf 'Z:%s' "$work/$1.ready" | tr '/' '\\')" </dev/null >"$work/$1.out" 2>&1 &
    wpid=$!
    for _ in $(seq 1 150); do
        [ -s "$work/$1.ready" ] && break
        sleep 0.2
    done
    spid=$(tr -d '\r\n' <"$work/$1.ready" 2>/dev/null)
    [ -n "$spid" ] || fail "$1 did not subscribe: $(cat "$work/$1.out")"
}
expect_watch() {  # NAME LINES...: the watcher's output holds each line (a regular expression)
    local name=$1 got line
    got=$(tr -d '\r' <"$work/$name.out")
    shift
    for line in "$@"; do grep -q "$line" <<<"$got" || fail "$name: [$line]: $got"; done
}
console_start() {
    local before
    before=$(log_lines 'loadqQuarantineContainers')
    wine "$exe" -d </dev/null >/dev/null 2>&1 &
    console=$!
    wait_log 'loadqQuarantineContainers' $((before + 1))
}
console_stop() {
    run "$helper" set-event "Global\\${svc}_NTSVC_STOP_EVENT"
    for _ in $(seq 1 300); do kill -0 "$console" 2>/dev/null || break; sleep 0.2; done
    kill -0 "$console" 2>/dev/null && { fail "the console run did not stop"; kill "$console"; }
    wait "$console" 2>/dev/null
}

echo "== console run: feature 16 on, the receiver connected"
console_start
run "$ctl" journal
grep -q '"code":16,"kind":"feature","on":true' "$out" || fail "feature 16 on: $(cat "$out")"
run "$ctl" state
grep -q '"notify":1' "$out" || fail "one notification connection: $(cat "$out")"

echo "== a denial reaches two subscribers, each collects its own record once"
watcher subA 'Global\nv_subA' 'C:\Data\File.TXT' 0xFF 0xFF 0
pidA=$spid procA=$wpid
watcher subB 'Global\nv_subB' '' 0xFF 0xFF 0
run "$ctl" inject 3 0 "$pidA" "$file"
expect "inject" 0
wait $procA $wpid
expect_watch subA '^subscribe: 1$' '^event: fired$' '^first query: 1$' '^second query: 0$' \
    "^record seq=[0-9]* path=c:\\\\data\\\\file.txt major=3 minor=0 pid=$pidA image=.*nv_irp_subscriber.exe description=..* denied=1$"
expect_watch subB '^event: fired$' '^first query: 1$' '^second query: 0$'
seqs=$(cat "$work/subA.out" "$work/subB.out" | sed -n 's/^record seq=\([0-9]*\).*/\1/p' | sort -u | wc -l)
[ "$seqs" = 2 ] || fail "two records with different sequences"
expect_log 'Add subscription for <subB> on file <subscribe_any_file>' 1
expect_log 'Notify subscriber <subA> on IRP for file <c:\\data\\file.txt>' 1
expect_log 'Coverted file path="c:\\data\\file.txt"' 1
run "$sub" subscribe subA 'Global\nv_subA' 'c:\data\file.txt' 3 0 1
expect "a filter covered by {0xFF, 0xFF, 0}" 0 "subscribe: 0"

echo "== bad requests and malformed notifications are dropped with a line"
run "$client" send 10000fa 00
expect "truncated subscription" 0 "0000"
run "$client" send 10000fb 71
expect "truncated query" 0 "00000000"
expect_log 'Subscription request of 1 bytes is truncated, refused' 1
expect_log 'Query of 1 bytes is truncated, refused' 1
run "$ctl" inject-raw "$(printf '%040d' 0)"  # 20 bytes
# Type 1, functions 3 and 0, pid 0, then 524 bytes of 'A' without a terminator.
run "$ctl" inject-raw "$(printf '%032d' 0)010000000300000000000000$(printf '41%.0s' $(seq 524))"
run "$ctl" inject 3 0 0 "$file" 7
wait_log 'Invalid notification type 7, message ignored.' 1
expect_log 'The file name of message 0 does not end inside the message, dropped.' 1
expect_log 'Message of 20 bytes is shorter than its header (28 bytes), dropped.' 1
expect_log 'Notify subscriber' 2

echo "== the per-subscriber bound"
run "$sub" bound burst 'Global\nv_burst' 10005
grep -q '^collected: 10000$' "$out" || fail "bound: $(cat "$out")"
expect_log 'Subscriber <burst> holds 10000 notification records, dropping the oldest' 1

echo "== stop: feature 16 off; without a stop message from the driver the receiver's wait is cancelled"
run "$ctl" stop-message off
started=$(date +%s)
console_stop
[ $(($(date +%s) - started)) -lt 30 ] || fail "the stop took $(($(date +%s) - started)) s"
expect_log '\[IRP Notification\]: FilterGetMessage aborted: -2147023901 - [A-Za-z]' 1
expect_log 'Received the stop message from driver' 0
expect_log 'Failed to close the notification port' 0
run "$ctl" journal
grep -q '"code":16,"kind":"feature","on":false' "$out" || fail "feature 16 off: $(cat "$out")"
run "$ctl" stop-message on

echo "== driver not loaded: start-up goes on without the receiver, requests are still served"
run "$ctl" unload
before=$(log_lines 'Could not connect to filter: -2147024894 - [A-Za-z]')
console_start
# Feature 5, features 0/6/11, feature 16 and the three trusted applications: one line each at least.
[ "$(log_lines 'Could not connect to filter: -2147024894 - [A-Za-z]')" -ge $((before + 6)) ] ||
    fail "a connection failure line with its text for every attempt"
expect_log 'Could not connect to filter for notification' 0
run "$sub" subscribe nodrv 'Global\nv_nodrv' 'c:\x' 0xFF 0xFF 0
expect "subscribe without a driver" 0 "subscribe: 1"
run "$sub" query nodrv
expect "query without a driver" 0 "records: 0"
console_stop
run "$ctl" load

echo "== under the service control manager; the driver unloads while the service runs"
run "$exe" -i install
run "$exe" -s start
expect "start" 0
wait_log 'loadqQuarantineContainers' 3
watcher scm 'Global\nv_scm' 'c:\data\file.txt' 3 0xFF 1
run "$ctl" inject 3 0 "$spid" "$file"
wait $wpid
expect_watch scm "^record seq=[0-9]* path=c:\\\\data\\\\file.txt major=3 minor=0 pid=$spid " '^second query: 0$'
run "$ctl" unload
wait_log 'Received the stop message from driver' 1
run "$client" version
expect "a request after the unload" 0
started=$(date +%s)
run "$exe" -s stop
wait_state 252
[ $(($(date +%s) - started)) -lt 30 ] || fail "the stop after the unload took $(($(date +%s) - started)) s"
run "$exe" -i uninstall

finish "IRP notification" 80
