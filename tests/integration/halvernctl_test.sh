#!/usr/bin/env bash
# halvernctl's own parsing, output and exit codes, in one prefix with the driver simulator: usage
# errors, a service not installed, every command against nv_service_double (the bytes of each
# request it sends, its text and --json output of each reply, refusals, an older protocol), then
# against the real service what only it shows: status of a stopped and a running service, a
# command starting it, and `watch` printing a denial injected into the simulator. What the
# service does with each request is checked by the protection, registry and quarantine tests.
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

# The manager knows the service (stopped, with no program), so commands try to start it and
# then connect to whatever listens under its name: the peer below, from the registered program's
# folder. One serving the pipe from elsewhere is refused before anything is sent: setup_tasks_test.sh.
runs "sc create" 0 '*' sc create $svc binPath= 'C:\nv\absent.exe'
record=$work/record.txt
stop_event='Global\nv_service_double_stop'

echo "== every command against a peer playing the service"
cp "$NV_BIN_DIR/nv_service_double.exe" "$WINEPREFIX/drive_c/nv/"
start_double() {
    : >"$record"
    failures_before=$failures
    double 'C:\nv\nv_service_double.exe' "$record" "$stop_event" "$@"
}
stop_double() {
    undouble
    [ "$failures" = "$failures_before" ] || { echo "---- the double's IPC log"; tail -n 80 "$record.log"; }
}
# Payloads from named fields (nv_ipc_client encode and encode-reply).
containers_reply=$(encode_reply get-quarantine-containers container='c:\q\')
start_double --reply 1000004 "$(encode_reply query-protected-services valid=1 process_protected=1 service_sddl=D:S \
    folder_sddl=D:F name=svcA sid=S-1-5-80-9 image='C:\svcA\a.exe' folder='C:\svcA')" --reply 10000CD "$containers_reply" \
    --reply 1000005 "$(encode_reply query-protected-processes valid=1 folder_sddl=D:F image='C:\a\a.exe' folder='C:\a')" \
    --reply 100000C "$(encode_reply get-protected-reg-keys valid=1 original_sddl=D:O current_sddl=D:C \
        root=0xFFFFFFFF80000002 path='Software\X' owner=o service=s1 service=s2)" \
    --reply 10000CC "$(encode_reply get-quarantined-files archive=f.QUA path='C:\f')" \
    --reply 10000CA "$(encode_reply quarantine-files result=1 message='c:\q\f.QUA;c:\q\g.QUA;')" \
    --reply 10000CE "$(encode_reply is-file-quarantined result=1 message=yes)" \
    --reply 10000D2 "$(encode_reply is-file-access-blocked result=1 message=no)" \
    --reply 10000FB "$(encode_reply query-irp-notification-data sequence=7 time=0 file='c:\data\x.txt' major=3 minor=0 \
        pid=42 image='C:\a\a.exe' description=App irp_denied=1)" \
    --reply 1000065 "$(encode_reply start-service result=1 message='Service has already been started.')" \
    --reply 1000066 "$(encode_reply stop-service-by-name result=0 message=)" \
    --reply 1000069 "$(encode_reply recover-folder-dacl result=0 message='Invalid path.')"

# command|message id|payload (- for none)|exit code (0 unless given): the request the command
# sends after the protocol query. HKLM is 0xFFFFFFFF80000002.
while IFS='|' read -r args id payload want_rc; do
    before=$(wc -l <"$record")
    eval "hv_run $args"
    expect_rc "halvernctl $args" "${want_rc:-0}"
    want="$id $(eval "printf %s \"$payload\"")"
    # The disconnect comes last.
    poll 50 0.1 'tail -n +"$((before + 1))" "$record" | tr -d "\r" >"$work/sent.txt"; [ "$(tail -n 1 "$work/sent.txt")" = "1000000 -" ]'
    expect_eq "halvernctl $args: sent" "1000009 05000000|$want|1000000 -" "$(paste -sd '|' "$work/sent.txt")"
done <<'EOF'
service protect a|1000002|$(encode protect-services svc=1 proc=1 name=a)
service protect a b --service-only|1000002|$(encode protect-services svc=1 proc=0 name=a svc=1 proc=0 name=b)
service unprotect a|1000002|$(encode protect-services svc=0 proc=0 name=a)
service list|1000004|-
service start s1 alpha 'beta gamma'|1000065|$(encode start-service name=s1 arg=alpha arg='beta gamma')
service stop s1|1000066|$(encode stop-service-by-name name=s1)|1
process protect 'C:\a.exe'|1000003|$(encode protect-processes protect=1 image='C:\a.exe')
process unprotect 'C:\a.exe' 'C:\b.exe'|1000003|$(encode protect-processes protect=0 image='C:\a.exe' protect=0 image='C:\b.exe')
process list|1000005|-
key protect 'HKLM\Software\X' --level write|100000B|$(encode protect-reg-keys protect=1 root=0xFFFFFFFF80000002 path='Software\X' owner= level=2)
key protect 'HKCU\Software\X' --owner o --service s1 --service s2|100000B|$(encode protect-reg-keys protect=1 root=0xFFFFFFFF80000001 path='Software\X' owner=o service=s1 service=s2 level=1)
key unprotect 'HKLM\Software\X'|100000B|$(encode protect-reg-keys protect=0 root=0xFFFFFFFF80000002 path='Software\X' owner= level=0)
key list|100000C|-
driver off|1000006|-
driver on|1000007|-
driver restore|1000068|$(encode restore-driver-protection flag=1)
protection off|1000008|$(encode set-protection-enabled on=0)
protection on|1000008|$(encode set-protection-enabled on=1)
recover service s1|1000067|$(encode recover-service-dacl name=s1)
recover folder 'C:\f'|1000069|$(encode recover-folder-dacl name='C:\f')|1
quarantine containers|10000CD|-
quarantine create 'C:\q' --service s1|10000C9|$(encode create-quarantine-container path='C:\q' service=s1)
quarantine add 'C:\q' 'C:\f' 'C:\g'|10000CA|$(encode quarantine-files action=0 container='C:\q' path='C:\f' path='C:\g')
quarantine remove 'C:\q' a.QUA|10000CA|$(encode quarantine-files action=1 container='C:\q' path=a.QUA)
quarantine restore 'C:\q' a.QUA b.QUA|10000CA|$(encode quarantine-files action=2 container='C:\q' path=a.QUA path=b.QUA)
quarantine list 'C:\q'|10000CC|$(encode get-quarantined-files name='C:\q')
quarantine is-quarantined 'C:\q\a.QUA'|10000CE|$(encode is-file-quarantined name='C:\q\a.QUA')
quarantine drop 'C:\q' --restore|10000CB|$(encode remove-quarantine-container action=2 path='C:\q')
quarantine drop 'C:\q' --delete|10000CB|$(encode remove-quarantine-container action=1 path='C:\q')
block 'C:\f'|10000CF|$(encode block-file-access name='C:\f')
block 'C:\f' 'C:\g' --service s1|10000D1|$(encode block-files-access action=0 service=s1 path='C:\f' path='C:\g')
unblock 'C:\f'|10000D0|$(encode unblock-file-access name='C:\f')
unblock 'C:\f' 'C:\g'|10000D1|$(encode block-files-access action=1 path='C:\f' path='C:\g')
is-blocked 'C:\f'|10000D2|$(encode is-file-access-blocked name='C:\f')
notify subscribe --event E --file 'C:\f' --major 3|10000FA|$(encode subscribe-irp-notification unsubscribe=0 subscriber=NVCHCTRLOFFLOAD event=E file='C:\f' major=3 minor=0xFF type=0)
notify unsubscribe --event E --as me --type 1|10000FA|$(encode subscribe-irp-notification unsubscribe=1 subscriber=me event=E file= major=0xFF minor=0xFF type=1)
notify collect|10000FB|$(encode query-irp-notification-data subscriber=NVCHCTRLOFFLOAD)
notify collect --as me|10000FB|$(encode query-irp-notification-data subscriber=me)
EOF

echo "== text and --json output, refusals"
# arguments#jq filter of stdout (-: stdout, err: stderr, their lines joined by "|")#exit code and output
while IFS='#' read -r args filter want; do
    eval "hv_run $args"
    case $filter in -) got=$(paste -sd '|' "$out") ;; err) got=$(paste -sd '|' "$err") ;; *) got=$(jq -c "$filter" "$out" 2>&1) ;; esac
    expect_eq "$args" "$want" "$rc $got"
done <<'EOF'
service list#-#0 name=svcA  process_protected=yes  image=C:\svcA\a.exe  folder=C:\svcA  sid=S-1-5-80-9  service_sddl=D:S  folder_sddl=D:F
quarantine containers#-#0 c:\q\
is-blocked 'C:\f'#-#0 ok: yes|blocked: no|message: no
--json service list#[.command, .services[0].name, .services[0].process_protected, .services[0].image]#0 ["service list","svcA",true,"C:\\svcA\\a.exe"]
--json process list#.processes#0 [{"image":"C:\\a\\a.exe","folder":"C:\\a","folder_sddl":"D:F"}]
--json key list#.keys#0 [{"key":"HKLM\\Software\\X","owner":"o","services":"s1,s2","original_sddl":"D:O","current_sddl":"D:C"}]
--json quarantine containers#.containers#0 [{"path":"c:\\q\\"}]
--json quarantine list 'C:\q'#.files#0 [{"archive":"f.QUA","path":"C:\\f"}]
--json quarantine add 'C:\q' 'C:\f' 'C:\g'#[.ok, [.archives[].archive]]#0 [true,["c:\\q\\f.QUA","c:\\q\\g.QUA"]]
--json quarantine is-quarantined 'C:\q\f.QUA'#.quarantined#0 true
--json is-blocked 'C:\f'#[.ok, .blocked]#0 [true,false]
--json service start s1#[.ok, .message]#0 [true,"Service has already been started."]
--json notify collect#.notifications | map([.sequence, .file, .major, .minor, .pid, .image, .description, .denied])#0 [[7,"c:\\data\\x.txt",3,0,42,"C:\\a\\a.exe","App",true]]
recover folder 'C:\f'#err#1 halvernctl: Invalid path.
--json recover folder 'C:\f'#[.ok, .error, .message, .exit_code]#1 [false,"refused","Invalid path.",1]
service stop s1#err#1 halvernctl: the service refused the request
EOF
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
expect_eq "status, running" "$(printf '%s\n' 'service: norvale_halvern_svc' 'installed: yes' 'running: yes' 'compatible: yes' \
    'protocol_version: 5' 'service_version: 196653' 'service_version_text: 3.0.45')" "$(cat "$out")"
hv_run --json status
expect_eq "status as JSON" '[true,5,196653,"3.0.45"]' \
    "$(jq -c '[.running, .protocol_version, .service_version, .service_version_text]' "$out")"
echo "== watch prints a denial of the service's own process as it arrives, until Ctrl+C"
pid=$(wine "$helper" service-pid $svc </dev/null | tr -d '\r')
wine "$NV_BIN_DIR/halvernctl.exe" watch --file 'C:\Data\Watch.txt' </dev/null >"$work/watch.txt" 2>"$work/watch.err" &
watcher=$!
poll 150 0.2 'grep -qs "^watching" "$work/watch.err"'
grep -q '^watching denied access to C:\\Data\\Watch.txt' "$work/watch.err" || fail "watch did not subscribe: $(cat "$work/watch.err")"
run "$ctl" inject 3 0 "$pid" '\Device\HarddiskVolume1\data\watch.txt'
# Woken by the subscriber's event; a loaded machine may still take a moment to schedule it.
poll 100 0.05 'grep -q denied "$work/watch.txt"' || fail "watch printed no denial within 5 s"
grep -qi "UTC denied c:\\\\data\\\\watch.txt major=3 minor=0 pid=$pid C:\\\\nv\\\\NorvaleHalvernService.exe" "$work/watch.txt" ||
    fail "watch output: $(cat "$work/watch.txt")"
kill -INT $watcher
wait $watcher
expect_eq "watch ends on Ctrl+C" 0 "$?"

hv_run shutdown
expect_rc "shutdown" 0
wait_state 252
finish halvernctl 60
