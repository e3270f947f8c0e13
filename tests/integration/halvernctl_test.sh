#!/usr/bin/env bash
# halvernctl, and through it every method of the client library, in one prefix with the driver
# simulator: usage errors, a service not installed, commands against nv_service_double (the bytes
# of the requests whose fields the real service does not show, refusals, an older protocol), then
# every command against the real service: status, --json output and the stand-in's state
# afterwards, denials injected reaching a subscriber and `watch`.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"
expect_rc() { [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; stdout: $(cat "$out"); stderr: $(cat "$err")"; }
expect_in() { grep -qF -- "$3" "$2" || fail "$1: [$3] not in $(basename "$2"): $(head -c 400 "$2")"; }

echo "== usage errors give exit code 2 and the help text"
while IFS='|' read -r args want; do
    # shellcheck disable=SC2086
    hv_run $args
    expect_rc "halvernctl $args" 2
    expect_in "halvernctl $args" "$err" "$want"
    expect_in "halvernctl $args: help" "$err" "usage: halvernctl [--json]"
    [ -s "$out" ] && fail "halvernctl $args: stdout not empty"
done <<'EOF'
|usage: halvernctl [--json] COMMAND
bogus|halvernctl: unknown command: bogus
service protect|halvernctl: missing arguments
service stop a b|halvernctl: too many arguments
service list --bogus|halvernctl: unknown option: --bogus
quarantine create C:\q --service|halvernctl: --service needs a value
key protect Software\X|halvernctl: not a registry key: Software\X
key protect HKLM\Software\X --level all|halvernctl: --level takes none, read or write
quarantine drop C:\q|halvernctl: give either --delete or --restore
notify subscribe --file C:\f|halvernctl: --event NAME is required
watch --major 300|halvernctl: --major and --minor take 0 to 255, --type a number
EOF
hv_run process protect "$(printf 'C:\\%0300d' 0)"
expect_rc "an over-long path" 2
expect_in "an over-long path" "$err" "halvernctl: argument too long (303 characters, at most 260)"
while IFS='|' read -r args want; do
    # shellcheck disable=SC2086
    hv_run $args --help
    expect_rc "$args --help" 0
    expect_in "$args --help" "$out" "$want"
done <<'EOF'
|quarantine is-quarantined
service protect|usage: halvernctl [--json] service protect NAME... [--service-only]
watch|needs a service that speaks IPC protocol 5 or later
EOF

echo "== the service is not installed"
hv_run status
expect_rc "status, not installed" 4
expect_eq "status, not installed" "|halvernctl: the service norvale_halvern_svc is not installed" "$(cat "$out")|$(cat "$err")"
hv_run --json service list
expect_rc "--json service list, not installed" 4
expect_eq "not installed as JSON" '["not_installed",4,"service list"]' "$(jq -c '[.error, .exit_code, .command]' "$out")"

echo "== every command against a peer playing the service"
# The manager knows the service (stopped, with no program), so commands try to start it and
# then connect to whatever listens under its name: here the double.
run sc create $svc binPath= 'C:\nv\absent.exe'
expect_eq "sc create" 0 "$rc"
record=$work/record.txt
stop_event='Global\nv_service_double_stop'
start_double() {
    : >"$record"
    wine "$NV_BIN_DIR/nv_service_double.exe" $svc "$(printf 'Z:%s' "$record" | tr '/' '\\')" "$stop_event" "$@" \
        </dev/null >/dev/null 2>&1 &
    double_pid=$!
    poll 50 0.2 'hv_run driver on; [ "$rc" = 0 ]'
    sleep 1  # the disconnect of the probe
    : >"$record"
}
stop_double() {
    wine "$helper" set-event "$stop_event" </dev/null >/dev/null 2>&1
    wait "$double_pid" 2>/dev/null
}
# Payloads from named fields (nv_ipc_client encode and encode-reply).
containers_reply=$(encode_reply get-quarantine-containers container='c:\q\')
start_double --reply 1000004 "$(encode_reply query-protected-services valid=1 process_protected=1 service_sddl=D:S \
    folder_sddl=D:F name=svcA sid=S-1-5-80-9 image='C:\svcA\a.exe' folder='C:\svcA')" --reply 10000CD "$containers_reply" \
    --reply 10000D2 "$(encode_reply is-file-access-blocked result=1 message=no)" \
    --reply 1000069 "$(encode_reply recover-folder-dacl result=0 message='Invalid path.')"

# command|message id|payload (the request the command sends after the protocol query); the other
# commands are checked by their effect on the running service. HKLM is 0xFFFFFFFF80000002.
while IFS='|' read -r args id payload; do
    before=$(wc -l <"$record")
    eval "hv_run $args"
    expect_rc "halvernctl $args" 0
    want="$id $(eval "printf %s \"$payload\"")"
    # The disconnect comes last.
    poll 50 0.1 'tail -n +"$((before + 1))" "$record" | tr -d "\r" >"$work/sent.txt"; [ "$(tail -n 1 "$work/sent.txt")" = "1000000 -" ]'
    expect_eq "halvernctl $args: sent" "1000009 05000000|$want|1000000 -" "$(paste -sd '|' "$work/sent.txt")"
done <<'EOF'
service protect a b --service-only|1000002|$(encode protect-services svc=1 proc=0 name=a svc=1 proc=0 name=b)
key protect 'HKLM\Software\X' --level write|100000B|$(encode protect-reg-keys protect=1 root=0xFFFFFFFF80000002 path='Software\X' owner= level=2)
key protect 'HKCU\Software\X' --owner o --service s1 --service s2|100000B|$(encode protect-reg-keys protect=1 root=0xFFFFFFFF80000001 path='Software\X' owner=o service=s1 service=s2 level=1)
quarantine create 'C:\q' --service s1|10000C9|$(encode create-quarantine-container path='C:\q' service=s1)
quarantine drop 'C:\q' --restore|10000CB|$(encode remove-quarantine-container action=2 path='C:\q')
block 'C:\f' 'C:\g' --service s1|10000D1|$(encode block-files-access action=0 service=s1 path='C:\f' path='C:\g')
notify subscribe --event E --file 'C:\f' --major 3|10000FA|$(encode subscribe-irp-notification unsubscribe=0 subscriber=NVCHCTRLOFFLOAD event=E file='C:\f' major=3 minor=0xFF type=0)
notify unsubscribe --event E --as me --type 1|10000FA|$(encode subscribe-irp-notification unsubscribe=1 subscriber=me event=E file= major=0xFF minor=0xFF type=1)
EOF

echo "== text output, a refusal"
hv_run service list
expect_eq "service list" "name=svcA  process_protected=yes  image=C:\\svcA\\a.exe  folder=C:\\svcA  sid=S-1-5-80-9  service_sddl=D:S  folder_sddl=D:F" "$(cat "$out")"
hv_run quarantine containers
expect_eq "quarantine containers" 'c:\q\' "$(cat "$out")"
hv_run is-blocked 'C:\f'
expect_eq "is-blocked" $'ok: yes\nblocked: no\nmessage: no' "$(cat "$out")"
hv_run recover folder 'C:\f'
expect_eq "refused: exit code 1, the message on stderr" "1 halvernctl: Invalid path." "$rc $(cat "$err")"
hv_run --json recover folder 'C:\f'
expect_eq "refused as JSON" '[false,"refused","Invalid path.",1]' "$(jq -c '[.ok, .error, .message, .exit_code]' "$out")"
stop_double

echo "== a service speaking protocol 3"
start_double --reply 1000009 "$(encode_reply protocol-compatible ok=1 version=3)" --reply 10000CD "$containers_reply"
hv_run quarantine containers
expect_rc "quarantine against protocol 3" 0
hv_run notify collect
expect_rc "notify collect against protocol 3" 5
expect_eq "notify collect against protocol 3" \
    "halvernctl: Service does not support the feature, current IPC protocol version : 3, minimum required version: 5" "$(cat "$err")"
grep -q '^10000FB' "$record" && fail "a gated request was sent"
stop_double

echo "== nobody listens"
hv_run driver on
expect_rc "no listener" 3
expect_eq "no listener" "halvernctl: cannot connect to the service norvale_halvern_svc" "$(cat "$err")"
run sc delete $svc

echo "== status leaves a stopped service stopped, a command starts it"
run "$exe" -i install
hv_run status
expect_eq "status, stopped" $'0 service: norvale_halvern_svc\ninstalled: yes\nrunning: no' "$rc $(cat "$out")"
[ "$(state)" = 252 ] || fail "status started the service"
hv_run driver on
expect_rc "a command on a stopped service" 0
hv_run status
expect_eq "status, running" "service: norvale_halvern_svc
installed: yes
running: yes
compatible: yes
protocol_version: 5
service_version: 196653
service_version_text: 3.0.45" "$(cat "$out")"
hv_run --json status
expect_eq "status as JSON" '[true,5,196653,"3.0.45"]' \
    "$(jq -c '[.running, .protocol_version, .service_version, .service_version_text]' "$out")"
# The service's own keys as its service SID would have them (see start_service).
run "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys

for row in "nv_ctl_svc svc" "nv_lib_svc lib" "nv_lib_ctl libctl"; do
    install_test_service $row demand
done
for s in nv_ctl_svc nv_lib_svc; do
    run sc start $s
    wait_svc_state $s 0
done
mkdir -p "$drive_c/prot/app" "$drive_c/prot/data"
printf 'sample' >"$drive_c/prot/data/sample.txt"
printf 'secret' >"$drive_c/prot/data/secret.txt"

echo "== every command: exit code, JSON output and the driver stand-in afterwards"
svc_image='c:\\prot\\svc\\nv_test_service.exe'
lib_image='c:\\prot\\lib\\nv_test_service.exe'
key='HKLM\Software\NvLib\Key'
nvlib_key='(.key | ascii_downcase) == "hklm\\software\\nvlib\\key"'
nvlib_rule='any(.registry_rules[]; contains("Software\\NvLib\\Key"))'
features='[.features["0","6","11"]]'  # process, folder and registry protection
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
service unprotect nv_ctl_svc#0#.ok#all(.process_rules[]; ascii_downcase != "$svc_image")
service protect nv_ctl_svc nv_lib_svc#0#.ok#any(.process_rules[]; ascii_downcase == "$lib_image")
service list#0#[.services[] | select(.process_protected) | .name] - ["norvale_halvern_svc"] | sort == ["nv_ctl_svc", "nv_lib_svc"]#-
service unprotect nv_ctl_svc nv_lib_svc#0#.ok#all(.process_rules[]; ascii_downcase != "$svc_image" and ascii_downcase != "$lib_image")
process protect 'C:\prot\app\a.exe'#0#.ok#any(.process_rules[]; ascii_downcase == "c:\\\\prot\\\\app\\\\a.exe")
process protect 'C:\prot\app\b.exe' 'C:\prot\app\c.exe'#0#.ok#any(.process_rules[]; ascii_downcase == "c:\\\\prot\\\\app\\\\c.exe")
process list#0#[.processes[] | select(.folder == "C:\\\\prot\\\\app") | .image] | sort == ["C:\\\\prot\\\\app\\\\a.exe", "C:\\\\prot\\\\app\\\\b.exe", "C:\\\\prot\\\\app\\\\c.exe"]#-
process unprotect 'C:\prot\app\a.exe'#0#.ok#all(.process_rules[]; ascii_downcase != "c:\\\\prot\\\\app\\\\a.exe")
process unprotect 'C:\prot\app\b.exe' 'C:\prot\app\c.exe'#0#.ok#all(.process_rules[]; ascii_downcase | startswith("c:\\\\prot\\\\app") | not)
process protect 'C:\e.exe'#1#.ok == false and .error == "refused" and .exit_code == 1#all(.process_rules[]; ascii_downcase != "c:\\\\e.exe")
key protect '$key' --level write#0#.ok#$nvlib_rule
key list#0#any(.keys[]; $nvlib_key)#-
key unprotect '$key'#0#.ok#$nvlib_rule | not
key protect '$key' --owner nv_lib_svc --service nv_ctl_svc#0#.ok#$nvlib_rule
key list#0#any(.keys[]; $nvlib_key and .owner == "nv_lib_svc" and .services == "nv_ctl_svc")#-
key unprotect '$key'#0#.ok#$nvlib_rule | not
driver off#0#.ok#$features == [false, false, true]
protection off#0#.ok#$features == [false, false, false]
driver on#0#.ok#$features == [true, true, false]
protection on#0#.ok#$features == [true, true, true]
driver off#0#.ok#$features == [false, false, true]
driver restore#0#.ok#$features == [true, true, true]
service start nv_lib_ctl alpha 'beta gamma'#0#.ok#-
service start nv_lib_ctl#0#.ok and .message == "Service has already been started."#-
service stop nv_lib_ctl#0#.ok#-
recover service nv_lib_ctl#0#.ok#-
recover folder 'C:\prot\lib'#0#.ok#-
quarantine create 'C:\prot\q'#0#.ok#-
quarantine containers#0#[.containers[].path] == ["c:\\\\prot\\\\q\\\\"]#-
block '$secret'#0#.ok#$blocked
is-blocked '$secret'#0#.ok and .blocked#-
unblock '$secret'#0#.ok#$blocked | not
is-blocked '$secret'#0#.ok and (.blocked | not)#-
block '$secret' '$sample'#0#.ok#$blocked
unblock '$secret' '$sample'#0#.ok#$blocked | not
EOF_TABLE
expect_eq "the arguments the service was started with" $'alpha\nbeta gamma' "$(tr -d '\r' <"$drive_c/prot/libctl/nv_lib_ctl.args")"
wait_svc_state nv_lib_ctl 252

echo "== halvernctl: quarantine a file and restore it, quarantine it and remove the archive"
hv_run --json quarantine add 'C:\prot\q' "$sample"
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
hv_run --json quarantine add 'C:\prot\q' "$sample"
archive=$(jq -r '.archives[0].archive' "$out")
hv_run --json quarantine remove 'C:\prot\q' "$archive"
expect_eq "remove" "0 true" "$rc $(jq .ok "$out")"
[ -e "$drive_c/prot/q/${archive##*\\}" ] || [ -e "$drive_c/prot/data/sample.txt" ] && fail "removed: [$archive] or the file is there"
hv_run --json quarantine drop 'C:\prot\q' --delete
expect_eq "drop" "0 true" "$rc $(jq .ok "$out")"
hv_run --json quarantine containers
expect_eq "no container left" "0 0" "$rc $(jq '.containers | length' "$out")"
hv_run process protect 'C:\e.exe'
expect_eq "a refusal on stderr" "halvernctl: the service refused the request" "$(cat "$err")"

echo "== subscribe, a denial injected into the simulator, collect"
pid=$(pid_of svc nv_ctl_svc)
# Under the client's own subscriber name; `watch` below subscribes under a name it gives.
filter=(--event 'Global\nv_ctl_event' --file 'C:\Data\Ctl.txt')
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
hv_run --json notify collect
jq -e --argjson pid "$pid" '.notifications == [.notifications[0]] and (.notifications[0] |
    .file == "c:\\data\\ctl.txt" and .major == 3 and .minor == 0 and .pid == $pid and .denied and
    (.image | ascii_downcase) == "c:\\prot\\svc\\nv_test_service.exe")' "$out" >/dev/null || fail "collected: $(cat "$out")"
hv_run --json notify collect
expect_eq "collected once" "0 0" "$rc $(jq '.notifications | length' "$out")"
hv_run --json notify unsubscribe "${filter[@]}"
expect_eq "unsubscribe" "0 true" "$rc $(jq .ok "$out")"
echo "== watch prints an injected denial as it arrives, until Ctrl+C"
wine "$NV_BIN_DIR/halvernctl.exe" watch --file 'C:\Data\Watch.txt' </dev/null >"$work/watch.txt" 2>"$work/watch.err" &
watcher=$!
poll 150 0.2 'grep -q "^watching" "$work/watch.err"'
grep -q '^watching denied access to C:\\Data\\Watch.txt' "$work/watch.err" || fail "watch did not subscribe: $(cat "$work/watch.err")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\watch.txt'
# Woken by the subscriber's event; a loaded machine may still take a moment to schedule it.
poll 100 0.05 'grep -q denied "$work/watch.txt"' || fail "watch printed no denial within 5 s"
grep -qi "UTC denied c:\\\\data\\\\watch.txt major=3 minor=0 pid=$pid C:\\\\prot\\\\svc\\\\nv_test_service.exe" "$work/watch.txt" ||
    fail "watch output: $(cat "$work/watch.txt")"
kill -INT $watcher
wait $watcher
expect_eq "watch ends on Ctrl+C" 0 "$?"

hv_run shutdown
expect_rc "shutdown" 0
wait_state 252
finish halvernctl 60
