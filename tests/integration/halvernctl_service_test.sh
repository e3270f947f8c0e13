#!/usr/bin/env bash
# The client library and halvernctl against the running service and the driver simulator, in a
# prefix of its own: every command whose request the service handles (quarantine aside), its
# --json output and exit code, and what the driver stand-in holds afterwards; a denial injected
# into the simulator reaching a subscriber and `watch`.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"
hv=$NV_BIN_DIR/halvernctl.exe
err=$work/err.txt
# hv_run ARGS...: halvernctl's stdout in $out, stderr in $err, exit code in $rc.
hv_run() {
    wine "$hv" "$@" </dev/null >"$out" 2>"$err"
    rc=$?
    sed -i 's/\r$//' "$out" "$err"
}
install_test_service() {  # NAME FOLDER START
    mkdir -p "$drive_c/prot/$2"
    cp "$NV_BIN_DIR/nv_test_service.exe" "$drive_c/prot/$2/"
    run sc create "$1" binPath= "C:\\prot\\$2\\nv_test_service.exe" start= "$3"
    expect_eq "install $1" 0 "$rc"
}

run "$exe" -i install
expect_eq "install" 0 "$rc"
start_service
mkdir -p "$drive_c/prot/app"
install_test_service nv_ctl_svc svc demand
install_test_service nv_ctl_args args demand
install_test_service nv_lib_svc lib demand
install_test_service nv_lib_ctl libctl demand
for s in nv_ctl_svc nv_lib_svc; do
    run sc start $s
    wait_svc_state $s 0
done

echo "== the client library: every method of the landed requests"
NV_WITH_SIMULATOR=1 wine "$NV_BIN_DIR/client_service_test.exe" --gtest_filter='client_with_simulator.*' </dev/null >"$out" 2>&1
rc=$?
[ "$rc" = 0 ] && grep -q 'PASSED  \] 1 test' "$out" ||
    fail "client_with_simulator: $(tr -d '\r' <"$out" | grep -E 'Failure|FAILED|Expected|Which|Value of|: ' | head -30)"

echo "== halvernctl: each command's exit code, JSON output and the driver stand-in afterwards"
features='[.features["0", "6", "11"]]'
svc_image='c:\\prot\\svc\\nv_test_service.exe'
# arguments#exit code#jq test of the JSON output#jq test of the simulator's state (- for none)
while IFS='#' read -r args want_rc test driver_test; do
    eval "hv_run --json $args"
    expect_eq "halvernctl $args: exit code (stderr: $(cat "$err"))" "$want_rc" "$rc"
    jq -e "$test" "$out" >/dev/null 2>&1 || fail "halvernctl $args: [$test] on $(cat "$out")"
    if [ "$driver_test" != - ]; then
        driver_state >"$work/state.json"
        jq -e "$driver_test" "$work/state.json" >/dev/null 2>&1 || fail "halvernctl $args: driver [$driver_test] on $(cat "$work/state.json")"
    fi
done <<EOF_TABLE
service protect nv_ctl_svc#0#.ok#any(.process_rules[]; ascii_downcase == "$svc_image")
service list#0#any(.services[]; .name == "nv_ctl_svc" and .process_protected and .image == "C:\\\\prot\\\\svc\\\\nv_test_service.exe")#-
process protect 'C:\prot\app\a.exe' 'C:\prot\app\b.exe'#0#.ok#any(.process_rules[]; ascii_downcase == "c:\\\\prot\\\\app\\\\b.exe")
process list#0#[.processes[] | select(.folder == "C:\\\\prot\\\\app") | .image] | sort == ["C:\\\\prot\\\\app\\\\a.exe", "C:\\\\prot\\\\app\\\\b.exe"]#-
process unprotect 'C:\prot\app\b.exe'#0#.ok#all(.process_rules[]; ascii_downcase != "c:\\\\prot\\\\app\\\\b.exe")
process list#0#all(.processes[]; .image != "C:\\\\prot\\\\app\\\\b.exe")#-
process protect 'C:\e.exe'#1#.ok == false and .error == "refused" and .exit_code == 1#all(.process_rules[]; ascii_downcase != "c:\\\\e.exe")
key protect 'HKLM\Software\NvCtl\Key' --level write --service nv_ctl_svc#0#.ok#any(.registry_rules[]; ascii_downcase | endswith("software\\\\nvctl\\\\key"))
key list#0#any(.keys[]; (.key | ascii_downcase) == "hklm\\\\software\\\\nvctl\\\\key" and .services == "nv_ctl_svc")#-
key unprotect 'HKLM\Software\NvCtl\Key'#0#.ok#all(.registry_rules[]; ascii_downcase | endswith("software\\\\nvctl\\\\key") | not)
key list#0#all(.keys[]; (.key | ascii_downcase) != "hklm\\\\software\\\\nvctl\\\\key")#-
driver off#0#.ok#$features == [false, false, true]
protection off#0#.ok#$features == [false, false, false]
driver on#0#.ok#$features == [true, true, false]
protection on#0#.ok#$features == [true, true, true]
driver off#0#.ok#$features == [false, false, true]
driver restore#0#.ok#$features == [true, true, true]
service start nv_ctl_args alpha 'beta gamma'#0#.ok#-
service start nv_ctl_args#0#.ok and .message == "Service has already been started."#-
service stop nv_ctl_args#0#.ok#-
service stop nv_ctl_args#0#.ok and .message == "Service has already been stopped."#-
recover service nv_ctl_args#0#.ok#-
recover folder 'C:\prot\app'#0#.ok#-
service unprotect nv_ctl_svc#0#.ok#all(.process_rules[]; ascii_downcase != "$svc_image")
service list#0#all(.services[]; .name != "nv_ctl_svc")#-
EOF_TABLE
expect_eq "start arguments" "alpha
beta gamma" "$(tr -d '\r' <"$drive_c/prot/args/nv_ctl_args.args" 2>/dev/null)"
hv_run driver off
expect_eq "text output" "ok: yes" "$(cat "$out")"
hv_run process protect 'C:\e.exe'
expect_eq "a refusal on stderr" "halvernctl: the service refused the request" "$(cat "$err")"
hv_run driver restore

echo "== subscribe, a denial injected into the simulator, collect"
pid=$(tr -d '\r' <"$drive_c/prot/svc/nv_ctl_svc.pid")
# A subscriber name of its own: the library's test has used the client's own name with another event.
filter=(--as nv_ctl_sub --event 'Global\nv_ctl_event' --file 'C:\Data\Ctl.txt')
# The subscriber's event, created by a process of its own that waits for it.
wine "$NV_BIN_DIR/nv_test_helper.exe" wait-event 'Global\nv_ctl_event' 60000 </dev/null >"$work/event.txt" 2>&1 &
waiter=$!
for _ in $(seq 1 100); do
    grep -q ready "$work/event.txt" && break
    sleep 0.2
done
hv_run --json notify subscribe "${filter[@]}"
expect_eq "subscribe" "0 true" "$rc $(jq .ok "$out")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\ctl.txt'
expect_eq "inject" 0 "$rc"
wait $waiter
expect_eq "the subscriber's event was set" "ready
fired" "$(tr -d '\r' <"$work/event.txt")"
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
for _ in $(seq 1 150); do
    grep -q '^watching' "$work/watch.err" && break
    sleep 0.2
done
grep -q '^watching denied access to C:\\Data\\Watch.txt' "$work/watch.err" || fail "watch did not subscribe: $(cat "$work/watch.err")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\watch.txt'
injected=$(date +%s.%N)
for _ in $(seq 1 200); do
    grep -q 'denied' "$work/watch.txt" && break
    sleep 0.05
done
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
if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "all halvernctl service checks passed"
