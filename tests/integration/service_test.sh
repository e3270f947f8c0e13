#!/usr/bin/env bash
# The one-shot options as a user sees them: output bytes and process exit codes (a Windows exit
# code of -2 reaches the Linux shell as 254, -3 as 253 and so on), and the recovery_code tool; then
# the service under the service control manager: install, start, unknown requests, a second
# instance, the three ways to stop with clients that never read, an ordinary user's squatted names
# and held connecting mutex, emergency options; then halvernctl. Console runs: driver_port_test.sh.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
new_prefix
ipc_helper=$NV_BIN_DIR/nv_ipc_helper.exe emergency='HKLM\Software\Norvale\NVClientHelper\EmergencyRecover'

echo "== one-shot options, from a private copy of the program (its debug log this test's own)"
dir=$work/app app=$work/app/NorvaleHalvernService.exe log=$work/app/nvhalvernservice.debug.log
mkdir -p "$dir" && cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$dir/"
# check EXE ARGS WANT_RC usage|empty: exit code, and stdout byte for byte the usage text or nothing.
check() {
    local before=$(stat -c %s "$log" 2>/dev/null || echo 0)
    wine "$1" $2 </dev/null >"$out" 2>/dev/null; rc=$?
    # Exit code 1 is none of the program's own: with its debug log untouched, Wine lost the process
    # before it ran (as setup_tasks_test.sh notes too). Said, and run once more.
    if [ "$rc" = 1 ] && [ "$3" != 1 ] && [ "$(stat -c %s "$log" 2>/dev/null || echo 0)" = "$before" ]; then
        echo "note: [$2] ended with 1 before its first log line: run again"
        wine "$1" $2 </dev/null >"$out" 2>/dev/null; rc=$?
    fi
    [ "$rc" = "$3" ] || fail "exit code of [$2]: $rc, want $3"
    if [ "$4" = usage ]; then cmp -s "$NV_SOURCE_DIR/tests/data/usage.txt" "$out" || fail "usage text of [$2]: $(od -c "$out" | head -n 5)"
    elif [ -s "$out" ]; then fail "output of [$2]: $(head -c 200 "$out")"; fi
}
# A disabled service for -c (sc may fail on a loaded machine: try again). -C rpcss wants a running
# service: Wine starts RpcSs on demand, which a loaded machine may not have done yet.
poll 3 1 "wine sc create nvcli_disabled binPath= 'C:\windows\system32\notepad.exe' start= disabled </dev/null >/dev/null 2>&1
    wine sc query nvcli_disabled </dev/null >/dev/null 2>&1"
wine net start RpcSs </dev/null >/dev/null 2>&1
while read -r want output args; do check "$app" "$args" "$want" "$output"; done <<'CASES'
0   usage -h
0   usage -H
254 usage -x
254 usage -i
254 usage -I nonsense
254 usage -s
254 usage -S restart
0   empty -e
254 empty -c
0   empty -C rpcss
253 empty -c nvcli_disabled
254 empty -proxy_task
254 empty -proxy_task no_such_task
254 empty -proxy_task hvs_folder_repair
254 empty -PROXY_TASK HVS_FOLDER_REPAIR
0   empty -proxy_task hvs_unchange
CASES
# No option, outside the service manager: the control dispatcher refuses the process (after about 10 s).
runs "no option, from a console" 0 "halvern service could not be started!" "$app"
[ "$(log_lines '\] - StartServiceCtrlDispatcher failed\.')" = 1 ] || fail "no option: the dispatcher's refusal not logged"
# Folder repair never leaves a task log; the other tasks copy the debug log whatever their result.
[ ! -e "$dir/hvs_folder_repair.log" ] && [ ! -e "$dir/hvs_install.log" ] || fail "unexpected task log"
for row in "hvs_install install" "hvs_fresh install" "hvs_upgrade upgrade" "hvs_uninstall uninstall" "hvs_remove uninstall"; do
    read -r task copy <<<"$row"
    rm -f "$dir"/hvs_*.log
    wine "$app" -proxy_task "$task" </dev/null >/dev/null 2>&1
    cmp -s "$log" "$dir/hvs_$copy.log" || fail "$task: hvs_$copy.log is not a copy of the debug log"
done
# A log path over 260 characters: no log, but the program works.
deep="$work/$(printf 'd%.0s' {1..120})/$(printf 'e%.0s' {1..120})"
mkdir -p "$deep" && cp "$app" "$deep/"
check "$deep/NorvaleHalvernService.exe" -h 0 usage
[ ! -e "$deep/nvhalvernservice.debug.log" ] || fail "a log was written despite the long path"

echo "== recovery_code: usage errors, codes from the build's key and from a new one"
tool=$NV_BIN_DIR/recovery_code.exe
key=$(win "$recovery_key")
guid=19487ca1-b523-4f5c-99a0-5e2aba76551a
runs "no arguments" 2 '*' "$tool"
runs "bad date" 2 '*' "$tool" make "$key" "$guid" 2099-12-31
runs "missing key" 1 '*' "$tool" make "$(win "$work/missing.hex")" "$guid" 20991231
runs "make" 0 '*' "$tool" make "$key" "$guid" 20991231
first=$(cat "$out")
runs "the machine id is taken in any case" 0 "$first" "$tool" make "$key" "${guid^^}" 20991231
runs "keygen" 0 '*' "$tool" keygen "$(win "$work/new.priv")" "$(win "$work/new.pub")"
grep -Eq '^[0-9A-F]+$' "$work/new.pub" || fail "public key file is hex"
runs "a new key" 0 '*' "$tool" make "$(win "$work/new.priv")" "$guid" 20991231
[ "$first" != "$(cat "$out")" ] || fail "a new key makes other codes"

install_service

echo "== not installed"
runs "uninstall when not installed" 0 $'Uninstalling halvern service...\nHalvern srvice is not installed.' "$exe" -i uninstall
runs "start when not installed" 254 "Failed to start halvern service!" "$exe" -s start
runs "stop when not installed" 254 "Failed to stop halvern service!" "$exe" -s stop

echo "== install"
runs "install" 0 "Installing halvern service..." "$exe" -i install
runs "install again" 0 $'Installing halvern service...\nHalvern srvice has already been installed.' "$exe" -I INSTALL
run reg query 'HKLM\System\CurrentControlSet\Services\norvale_halvern_svc'
for want in 'ImagePath.*"C:\\nv\\NorvaleHalvernService.exe"' 'Start.*0x2' 'Type.*0x10' 'DisplayName.*Norvale Halvern Service' \
    'Description.*Provides process and file protection services for Norvale Clients'; do
    grep -q "$want" "$out" || fail "service key: no [$want] in $(cat "$out")"
done

echo "== start, stop through the manager (an emergency option without a recovery code waits)"
run reg add "$emergency" /v uninstallService /t REG_DWORD /d 1 /f
runs "start" 0 "" "$exe" -s start
expect_eq "-c of the running service, a line for the option without a code, one version line" "0 1 1" \
    "$(state) $(log_lines 'Emergency options without a recovery code are left in place') $(log_lines 'Service Version: 3.0.45.1')"
runs "start of a running service" 254 "Failed to start halvern service!" "$exe" -s start

echo "== identifiers outside the catalogue, at the edges of its ranges among them, are echoed and logged"
for id in 1000123 10000FC FFFFFF 0 100000D 1000064 100006A 10000C8 10000D3 10000F9 2000009 FFFFFFFF; do
    runs "unknown identifier $id is echoed" 0 "ABCD" "$client" send $id ABCD
    [ "$(log_lines "Unknow mc::ipc message $id, ignored")" = 1 ] || fail "unknown identifier $id logged"
done

echo "== a second instance stops at once without a version line"
runs "second instance" 0 "" "$exe" -d
expect_eq "second instance: no version line of its own, the first instance keeps running" "1 0" "$(log_lines 'Service Version') $(state)"

# Fifty clients that each leave a 3,000-byte reply unread and twenty that announce 64 MiB frames
# and trickle: none of the three ways to stop waits on them.
for how in manager message event; do
    echo "== stop through the $how with clients that never read"
    [ $how = manager ] || runs "start before the $how stop" 0 "" "$exe" -s start
    : >"$work/abuse.txt"  # not the last round's "ready"
    wine "$ipc_helper" abuse $svc 'C:\nv\abuse.log' 1000123 50 0 20 120 </dev/null >"$work/abuse.txt" 2>&1 & abuser=$!
    poll 150 0.2 'grep -q ready "$work/abuse.txt"'
    grep -q "ready 0" "$work/abuse.txt" || fail "abusing clients connected: $(cat "$work/abuse.txt")"
    case $how in
    message) run "$client" post 1000001 ;;
    event) run "$helper" set-event "Global\\${svc}_NTSVC_STOP_EVENT" ;;
    manager) run "$exe" -s stop ;;
    esac
    expect "the $how stop" 0 ""
    wait_state 252 50
    kill $abuser 2>/dev/null; wait $abuser 2>/dev/null
done

echo "== a stop control the moment the service reports running"
runs "stop right after running" 0 '*' "$helper" start-stop $svc

echo "== an ordinary user's squatted instance mutex and stop event neither keep the service from starting nor stop it"
as_user=("$helper" as-user "$(win "$helper")")
# as_user_ready NAME ARGS...: runs the helper as an ordinary user in the background, once it has
# set the event NAME (its last argument).
as_user_ready() {
    local ready
    waiter ready "$work/ready.txt" wait-event "$1" 30000
    wine "${as_user[@]}" "${@:2}" "$1" </dev/null >/dev/null 2>&1 &
    wait $ready || fail "as an ordinary user, ${*:2} did not get ready"
}
as_user_ready 'Global\nv_squatter_ready' hold-mutex 'Global\NORVALE_ClientHelper_Service_Running' 120000
waiter squatter "$work/squatted.txt" "${as_user[@]:1}" wait-event "Global\\${svc}_NTSVC_STOP_EVENT" 120000
runs "start with a squatted instance mutex and stop event" 0 "" "$exe" -s start
for name in 'Global\\NORVALE_ClientHelper_Service_Running' "Global\\\\${svc}_NTSVC_STOP_EVENT"; do
    [ "$(log_lines "The named object \"$name\" was made before the service by .*, neither the system nor")" = 1 ] ||
        fail "squatter of $name not logged"
done
runs "the ordinary user sets the squatted stop event" 0 '*' "${as_user[@]}" set-event "Global\\${svc}_NTSVC_STOP_EVENT"
sleep 1
[ "$(state)" = 0 ] || fail "the squatted stop event stopped the service"
runs "the manager stops the service that waits on its own event" 0 "" "$exe" -s stop
wait_state 252 50

echo "== uninstall; emergency: uninstallService removes the service"
runs "uninstall" 0 "Uninstalling halvern service..." "$exe" -i uninstall
runs "install for the emergency uninstall" 0 "Installing halvern service..." "$exe" -i install
run reg add "$emergency" /v code /t REG_SZ /d "$(recovery_code)" /f
run "$exe" -s start
# The service deletes itself without a stop control to its own process and then stops.
wait_state 251 100
expect_eq "protection disabled and uninstalled lines" "1 1" \
    "$(log_lines 'Emergency option - protection has been disabled.') $(log_lines 'Emergency option - service has been uninstalled.')"
wine reg query "$emergency" /v uninstallService </dev/null >/dev/null 2>&1 && fail "uninstallService was not consumed"

# halvernctl's own parsing, output and exit codes, with the driver simulator: every command against
# nv_service_double (the bytes of each request it sends, its text and --json output of each reply,
# refusals, an older protocol), then against the real service what only it shows: status of a
# stopped and a running service, a command starting it, and `watch` printing a denial injected
# into the simulator. What the service does with each request is checked by the protection,
# registry and quarantine tests.
run reg delete "$emergency" /f
start_sim
expect_rc() { [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; stdout: $(cat "$out"); stderr: $(cat "$err")"; }
expect_in() { grep -qF -- "$3" "$2" || fail "$1: [$3] not in $(basename "$2"): $(head -c 400 "$2")"; }
# outputs: rows "ARGUMENTS#WHAT#EXIT CODE AND WHAT" run through halvernctl. WHAT is its stdout (-), stderr
# (err) or both (all: stdout|stderr), their lines joined by "|", a jq filter of stdout, or nothing (*).
outputs() {
    while IFS='#' read -r args filter want; do
        eval "hv_run $args"
        case $filter in
        -) got=$(paste -sd '|' "$out") ;; err) got=$(paste -sd '|' "$err") ;; all) got="$(cat "$out")|$(cat "$err")" ;;
        '*') got='*' ;; *) got=$(jq -c "$filter" "$out" 2>&1) ;;
        esac
        expect_eq "halvernctl $args" "$want" "$rc $got"
    done
}
echo "== halvernctl: usage errors give exit code 2 and the help text"
while IFS='|' read -r args want; do
    hv_run $args
    expect_rc "halvernctl $args" 2
    expect_in "halvernctl $args" "$err" "$want"
    expect_in "halvernctl $args: help" "$err" "usage: halvernctl [--json]"
    [ -s "$out" ] && fail "halvernctl $args: stdout not empty"
done <<EOF
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
process protect C:\\$(printf '%0300d' 0)|halvernctl: argument too long (303 characters, at most 260)
EOF
while IFS='|' read -r args want; do
    hv_run $args --help
    expect_rc "$args --help" 0
    expect_in "$args --help" "$out" "$want"
done <<'EOF'
|quarantine is-quarantined
service protect|usage: halvernctl [--json] service protect NAME... [--service-only]
watch|needs a service that speaks IPC protocol 5 or later
EOF

echo "== the service is not installed"
outputs <<'EOF'
status#all#4 |halvernctl: the service norvale_halvern_svc is not installed
--json service list#[.error, .exit_code, .command]#4 ["not_installed",4,"service list"]
EOF

# The manager knows the service (stopped, with no program), so commands try to start it and
# then connect to whatever listens under its name: the peer below, from the registered program's
# folder. One serving the pipe from elsewhere is refused before anything is sent: setup_tasks_test.sh.
runs "sc create" 0 '*' sc create $svc binPath= 'C:\nv\absent.exe'
record=$work/record.txt stop_event='Global\nv_service_double_stop'

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
outputs <<'EOF'
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
outputs <<'EOF'
quarantine containers#-#0 c:\q\
notify collect#err#5 halvernctl: Service does not support the feature, current IPC protocol version : 3, minimum required version: 5
EOF
grep -q '^10000FB' "$record" && fail "a gated request was sent"
stop_double

echo "== nobody listens"
outputs <<<"driver on#err#3 halvernctl: cannot connect to the service norvale_halvern_svc"
run sc delete $svc

echo "== status leaves a stopped service stopped, a command starts it"
run "$exe" -i install
outputs <<<"status#-#0 service: norvale_halvern_svc|installed: yes|running: no"
[ "$(state)" = 252 ] || fail "status started the service"
outputs <<'EOF'
driver on#*#0 *
status#-#0 service: norvale_halvern_svc|installed: yes|running: yes|compatible: yes|protocol_version: 5|service_version: 196653|service_version_text: 3.0.45
--json status#[.running, .protocol_version, .service_version, .service_version_text]#0 [true,5,196653,"3.0.45"]
EOF
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
kill -INT $watcher; wait $watcher
expect_eq "watch ends on Ctrl+C" 0 "$?"

echo "== an ordinary user can neither set the stop event of the service nor keep an administrator's client out"
runs "the ordinary user sets the stop event" 2 "error 5" "${as_user[@]}" set-event "Global\\${svc}_NTSVC_STOP_EVENT"
as_user_ready 'Global\nv_holder_ready' hold-mutex "Global\\${svc}_MTX_CONNECTING" 60000
within 8 hv_run status
expect_eq "status past the held connecting mutex" "0 running: yes" "$rc $(grep running: "$out")"
outputs <<<"shutdown#*#0 *"
wait_state 252
finish service
