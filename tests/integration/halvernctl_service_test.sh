#!/usr/bin/env bash
# The client library and halvernctl against the running service and the driver simulator: --json
# output and the stand-in's state afterwards, denials injected reaching a subscriber and `watch`.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"
hv=$NV_BIN_DIR/halvernctl.exe
run "$exe" -i install
expect_eq "install" 0 "$rc"
start_service
for row in "nv_ctl_svc svc" "nv_lib_svc lib" "nv_lib_ctl libctl"; do
    read -r name folder <<<"$row"
    mkdir -p "$drive_c/prot/$folder"
    cp "$NV_BIN_DIR/nv_test_service.exe" "$drive_c/prot/$folder/"
    run sc create "$name" binPath= "C:\\prot\\$folder\\nv_test_service.exe" start= demand
    expect_eq "install $name" 0 "$rc"
done
for s in nv_ctl_svc nv_lib_svc; do
    run sc start $s
    wait_svc_state $s 0
done
mkdir -p "$drive_c/prot/app" "$drive_c/prot/data"
printf 'sample' >"$drive_c/prot/data/sample.txt"
printf 'secret' >"$drive_c/prot/data/secret.txt"

echo "== the client library: every method"
NV_WITH_SIMULATOR=1 wine "$NV_BIN_DIR/client_service_test.exe" --gtest_filter='client_with_simulator.*' </dev/null >"$out" 2>&1
rc=$?
[ "$rc" = 0 ] && grep -q 'PASSED  \] 1 test' "$out" ||
    fail "client_with_simulator: $(tr -d '\r' <"$out" | grep -E 'Failure|FAILED|Expected|Which|Value of|: ' | head -30)"

echo "== halvernctl: exit code, JSON output and the driver stand-in afterwards"
svc_image='c:\\prot\\svc\\nv_test_service.exe'
sample='C:\prot\data\sample.txt'
secret='C:\prot\data\secret.txt'
blocked='any(.blocking_rules[]; ascii_downcase | endswith("\\prot\\data\\secret.txt"))'
# arguments#exit code#jq test of the JSON output#jq test of the simulator's state (- for none)
while IFS='#' read -r args want_rc test driver_test; do
    eval "hv_run --json $args"
    expect_eq "halvernctl $args: exit code (stderr: $(cat "$err"))" "$want_rc" "$rc"
    jq -e "$test" "$out" >/dev/null 2>&1 || fail "halvernctl $args: [$test] on $(cat "$out")"
    [ "$driver_test" = - ] || jq -e "$driver_test" <(driver_state) >/dev/null 2>&1 ||
        fail "halvernctl $args: driver [$driver_test] on $(driver_state)"
done <<EOF_TABLE
service protect nv_ctl_svc#0#.ok#any(.process_rules[]; ascii_downcase == "$svc_image")
service list#0#any(.services[]; .name == "nv_ctl_svc" and .process_protected and .image == "C:\\\\prot\\\\svc\\\\nv_test_service.exe")#-
process protect 'C:\e.exe'#1#.ok == false and .error == "refused" and .exit_code == 1#all(.process_rules[]; ascii_downcase != "c:\\\\e.exe")
quarantine create 'C:\prot\q'#0#.ok#-
quarantine containers#0#[.containers[].path] == ["c:\\\\prot\\\\q\\\\"]#-
block '$secret'#0#.ok#$blocked
is-blocked '$secret'#0#.ok and .blocked#-
unblock '$secret'#0#.ok#$blocked | not
is-blocked '$secret'#0#.ok and (.blocked | not)#-
service unprotect nv_ctl_svc#0#.ok#all(.process_rules[]; ascii_downcase != "$svc_image")
service list#0#all(.services[]; .name != "nv_ctl_svc")#-
EOF_TABLE

echo "== halvernctl: quarantine a file and restore it"
hv_run --json quarantine add 'C:\prot\q' 'C:\prot\data\sample.txt'
archive=$(jq -r '.archives[0].archive' "$out")
[[ "$rc $(jq -c '[.ok, (.archives | length)]' "$out") $archive" =~ ^'0 [true,1] c:\prot\q\sample.txt.'[0-9A-F]{16}'.QUA'$ ]] ||
    fail "quarantine add: $rc $(cat "$out") $(cat "$err")"
[ -e "$drive_c/prot/data/sample.txt" ] && fail "the quarantined file is still there"
[ -f "$drive_c/prot/q/${archive##*\\}" ] || fail "no archive file for [$archive]"
hv_run --json quarantine list 'C:\prot\q'
expect_eq "quarantine list" "0 [{\"archive\":\"${archive##*\\}\",\"path\":\"C:\\\\prot\\\\data\\\\sample.txt\"}]" "$rc $(jq -c .files "$out")"
hv_run --json quarantine is-quarantined "$archive"
expect_eq "is-quarantined" "0 true" "$rc $(jq .quarantined "$out")"
hv_run --json quarantine restore 'C:\prot\q' "$archive"
expect_eq "restore" "0 true" "$rc $(jq .ok "$out")"
expect_eq "the restored file" sample "$(cat "$drive_c/prot/data/sample.txt" 2>/dev/null)"
hv_run --json quarantine list 'C:\prot\q'
expect_eq "nothing left in the container" "0 0" "$rc $(jq '.files | length' "$out")"
hv_run process protect 'C:\e.exe'
expect_eq "a refusal on stderr" "halvernctl: the service refused the request" "$(cat "$err")"

echo "== subscribe, a denial injected into the simulator, collect"
pid=$(tr -d '\r' <"$drive_c/prot/svc/nv_ctl_svc.pid")
# A subscriber name of its own: the library's test has used the client's own name with another event.
filter=(--as nv_ctl_sub --event 'Global\nv_ctl_event' --file 'C:\Data\Ctl.txt')
# The subscriber's event, created by a process of its own that waits for it.
wine "$helper" wait-event 'Global\nv_ctl_event' 60000 </dev/null >"$work/event.txt" 2>&1 &
waiter=$!
poll 100 0.2 'grep -q ready "$work/event.txt"'
hv_run --json notify subscribe "${filter[@]}"
expect_eq "subscribe" "0 true" "$rc $(jq .ok "$out")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\ctl.txt'
expect_eq "inject" 0 "$rc"
wait $waiter
expect_eq "the subscriber's event was set" $'ready\nfired' "$(tr -d '\r' <"$work/event.txt")"
hv_run --json notify collect --as nv_ctl_sub
jq -e --argjson pid "$pid" '.notifications == [.notifications[0]] and (.notifications[0] |
    .file == "c:\\data\\ctl.txt" and .major == 3 and .minor == 0 and .pid == $pid and .denied and
    (.image | ascii_downcase) == "c:\\prot\\svc\\nv_test_service.exe")' "$out" >/dev/null || fail "collected: $(cat "$out")"
hv_run --json notify collect --as nv_ctl_sub
expect_eq "collected once" "0 0" "$rc $(jq '.notifications | length' "$out")"
hv_run --json notify unsubscribe "${filter[@]}"
expect_eq "unsubscribe" "0 true" "$rc $(jq .ok "$out")"

echo "== watch prints an injected denial as it arrives, until Ctrl+C"
wine "$hv" watch --file 'C:\Data\Watch.txt' </dev/null >"$work/watch.txt" 2>"$work/watch.err" &
watcher=$!
poll 150 0.2 'grep -q "^watching" "$work/watch.err"'
grep -q '^watching denied access to C:\\Data\\Watch.txt' "$work/watch.err" || fail "watch did not subscribe: $(cat "$work/watch.err")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\watch.txt'
injected=$(date +%s.%N)
poll 200 0.05 'grep -q denied "$work/watch.txt"'
shown=$(date +%s.%N)
grep -qi "UTC denied c:\\\\data\\\\watch.txt major=3 minor=0 pid=$pid C:\\\\prot\\\\svc\\\\nv_test_service.exe" "$work/watch.txt" ||
    fail "watch output: $(cat "$work/watch.txt")"
latency=$(awk -v a="$injected" -v b="$shown" 'BEGIN { printf "%.2f", b - a }')
echo "watch printed the denial $latency s after the injection"
# Woken by the subscriber's event; a loaded machine may still take a moment to schedule it.
awk -v l="$latency" 'BEGIN { exit !(l < 5) }' || fail "watch took $latency s"
kill -INT $watcher
wait $watcher
expect_eq "watch ends on Ctrl+C" 0 "$?"

stop_service
finish "halvernctl service" 60
