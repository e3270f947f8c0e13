#!/usr/bin/env bash
# The one-shot options as a user sees them: output bytes and process exit codes (a Windows exit
# code of -2 reaches the Linux shell as 254, -3 as 253 and so on), and the recovery_code tool; then
# the service under the service control manager: install, start, unknown requests, a second
# instance, the three ways to stop with clients that never read, an ordinary user's squatted names
# and held connecting mutex, emergency options. Console runs: driver_port_test.sh.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
new_prefix
ipc_helper=$NV_BIN_DIR/nv_ipc_helper.exe
emergency='HKLM\Software\Norvale\NVClientHelper\EmergencyRecover'

echo "== one-shot options, from a private copy of the program (its debug log this test's own)"
dir=$work/app
mkdir -p "$dir" && cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$dir/"
app=$dir/NorvaleHalvernService.exe
log=$dir/nvhalvernservice.debug.log
# check EXE ARGS WANT_RC usage|empty: exit code, and stdout byte for byte the usage text or nothing.
check() {
    local before
    before=$(stat -c %s "$log" 2>/dev/null || echo 0)
    wine "$1" $2 </dev/null >"$out" 2>/dev/null
    rc=$?
    # Exit code 1 is none of the program's own: with its debug log untouched, Wine lost the process
    # before it ran (as setup_tasks_test.sh notes too). Said, and run once more.
    if [ "$rc" = 1 ] && [ "$3" != 1 ] && [ "$(stat -c %s "$log" 2>/dev/null || echo 0)" = "$before" ]; then
        echo "note: [$2] ended with 1 before its first log line: run again"
        wine "$1" $2 </dev/null >"$out" 2>/dev/null
        rc=$?
    fi
    [ "$rc" = "$3" ] || fail "exit code of [$2]: $rc, want $3"
    if [ "$4" = usage ]; then cmp -s "$NV_SOURCE_DIR/tests/data/usage.txt" "$out" || fail "usage text of [$2]: $(od -c "$out" | head -n 5)"
    elif [ -s "$out" ]; then fail "output of [$2]: $(head -c 200 "$out")"; fi
}
# A disabled service for -c (sc may fail on a loaded machine: try again). -C rpcss wants a running
# service: Wine starts RpcSs on demand, which a loaded machine may not have done yet.
for _ in 1 2 3; do
    wine sc create nvcli_disabled binPath= 'C:\windows\system32\notepad.exe' start= disabled </dev/null >/dev/null 2>&1
    wine sc query nvcli_disabled </dev/null >/dev/null 2>&1 && break
    sleep 1
done
wine net start RpcSs </dev/null >/dev/null 2>&1
while read -r want output args; do check "$app" "$args" "$want" "$output"; done <<'CASES'
0   usage -h
0   usage -H
254 usage -x
254 usage -i
254 usage -I nonsense
254 usage -s
254 usage -S restart
254 usage --help
0   empty -e
0   empty -E
254 empty -c
251 empty -c no_such_service_here
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
grep -Eq '^20991231-[0-9A-F]{512}$' "$out" || fail "code format: $(cat "$out")"
first=$(cat "$out")
run "$tool" make "$key" "${guid^^}" 20991231
expect_eq "the machine id is taken in any case" "$first" "$(cat "$out")"
runs "keygen" 0 '*' "$tool" keygen "$(win "$work/new.priv")" "$(win "$work/new.pub")"
grep -Eq '^[0-9A-F]+$' "$work/new.pub" || fail "public key file is hex"
runs "a new key" 0 '*' "$tool" make "$(win "$work/new.priv")" "$guid" 20991231
[ "$first" != "$(cat "$out")" ] || fail "a new key makes other codes"

install_service

echo "== not installed"
run "$exe" -i uninstall
expect "uninstall when not installed" 0 $'Uninstalling halvern service...\nHalvern srvice is not installed.'
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
[ "$(state)" = 252 ] || fail "installed service is not stopped"

echo "== start, stop through the manager (an emergency option without a recovery code waits)"
run reg add "$emergency" /v uninstallService /t REG_DWORD /d 1 /f
runs "start" 0 "" "$exe" -s start
[ "$(state)" = 0 ] || fail "-c of the running service"
[ "$(log_lines 'Emergency options without a recovery code are left in place')" = 1 ] || fail "no line for the option without a code"
wine reg query "$emergency" /v uninstallService </dev/null >/dev/null 2>&1 || fail "an option without a code was consumed"
[ "$(log_lines 'Service Version: 3.0.45.1')" = 1 ] || fail "one version line"
runs "start of a running service" 254 "Failed to start halvern service!" "$exe" -s start

echo "== identifiers outside the catalogue, at the edges of its ranges among them, are echoed and logged"
for id in 1000123 10000FC FFFFFF 0 100000D 1000064 100006A 10000C8 10000D3 10000F9 2000009 FFFFFFFF; do
    runs "unknown identifier $id is echoed" 0 "ABCD" "$client" send $id ABCD
    [ "$(log_lines "Unknow mc::ipc message $id, ignored")" = 1 ] || fail "unknown identifier $id logged"
done

echo "== a second instance stops at once without a version line"
runs "second instance" 0 "" "$exe" -d
[ "$(log_lines 'Service Version')" = 1 ] || fail "second instance wrote a version line"
[ "$(state)" = 0 ] || fail "the first instance keeps running"

# Fifty clients that each leave a 3,000-byte reply unread and twenty that announce 64 MiB frames
# and trickle: none of the three ways to stop waits on them.
for how in manager message event; do
    echo "== stop through the $how with clients that never read"
    [ $how = manager ] || runs "start before the $how stop" 0 "" "$exe" -s start
    : >"$work/abuse.txt"  # not the last round's "ready"
    wine "$ipc_helper" abuse $svc 'C:\nv\abuse.log' 1000123 50 0 20 120 </dev/null >"$work/abuse.txt" 2>&1 &
    abuser=$!
    poll 150 0.2 'grep -q ready "$work/abuse.txt"'
    grep -q "ready 0" "$work/abuse.txt" || fail "abusing clients connected: $(cat "$work/abuse.txt")"
    case $how in
    message) run "$client" post 1000001 ;;
    event) run "$helper" set-event "Global\\${svc}_NTSVC_STOP_EVENT" ;;
    manager) run "$exe" -s stop ;;
    esac
    expect "the $how stop" 0 ""
    wait_state 252 50
    [ $how != message ] || [ "$(log_lines 'Received IPC message 1000001')" = 1 ] || fail "stop message received"
    kill $abuser 2>/dev/null
    wait $abuser 2>/dev/null
done

echo "== a stop control the moment the service reports running"
runs "stop right after running" 0 '*' "$helper" start-stop $svc
wait_state 252

echo "== an ordinary user can neither stop the service nor keep it or an administrator's client out"
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
runs "start with the instance mutex still squatted" 0 "" "$exe" -s start
run "${as_user[@]}" set-event "Global\\${svc}_NTSVC_STOP_EVENT"
expect "the ordinary user opens the stop event for setting" 2 "error 5"
as_user_ready 'Global\nv_holder_ready' hold-mutex "Global\\${svc}_MTX_CONNECTING" 60000
within 8 hv_run status
expect_eq "status past the held connecting mutex" "0 running: yes" "$rc $(grep running: "$out")"
[ "$(state)" = 0 ] || fail "the service stopped"
runs "stop after the ordinary user" 0 "" "$exe" -s stop
wait_state 252 50

echo "== uninstall"
runs "uninstall" 0 "Uninstalling halvern service..." "$exe" -i uninstall
[ "$(state)" = 251 ] || fail "service gone"

echo "== emergency: uninstallService removes the service"
runs "install for the emergency uninstall" 0 "Installing halvern service..." "$exe" -i install
run reg add "$emergency" /v code /t REG_SZ /d "$(recovery_code)" /f
run "$exe" -s start
# The service deletes itself without a stop control to its own process and then stops.
wait_state 251 100
[ "$(log_lines 'Emergency option - protection has been disabled.')" = 1 ] || fail "protection disabled line"
[ "$(log_lines 'Emergency option - service has been uninstalled.')" = 1 ] || fail "uninstalled line"
wine reg query "$emergency" /v uninstallService </dev/null >/dev/null 2>&1 && fail "uninstallService was not consumed"

finish service
