#!/usr/bin/env bash
# Process, folder and service protection and service control through requests against the
# running service, with the driver simulator and the object-security recorder (this system does
# not keep file, folder or service DACLs, so the recorder shows what the service wrote).
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"

default_folder='D:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;SDGXGWGR;;;AU)'
restored_folder=${default_folder/D:AI/D:}  # written back unprotected: the parent's entries flow in again
default_service='D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)'
own_service=${default_service/;;CCLCSWLOCRRC;;;IU/;;CCLCSWRPLOCRRC;;;IU}  # interactive users may start it
auto_service=${default_service/;;CCLCSWLOCRRC;;;SU/;;CCLCSWRPLOCRRC;;;SU}  # service logons may start it
services_key='HKLM\Software\Norvale\NVClientHelper\ProtectedServices'
procs='HKLM\System\CurrentControlSet\Services\VQRMonitor\ProtectedProcesses'
persisted() {  # LABEL WANT SERVICE [FOLDER]: reg query's exit code for the service (and C:\prot\FOLDER's image)
    run reg query "$services_key" /v "$3"; expect_eq "$1" "$2" "$rc"
    [ $# -lt 4 ] && return
    run reg query "$procs" /v "C:\\prot\\$4\\nv_test_service.exe"; expect_eq "$1: image" "$2" "$rc"
}
entry() { printf 'valid=1 folder_sddl=%s image=%s folder=%s' "$1" "$2" "$3"; }  # one image of the image listing
msgs() { printf '%s\n' "$@"; }  # one a line
started=$(said 1 'Service has already been started.')
features_on=$(msgs "0 feature true" "6 feature true" "11 feature true")

# Initial DACLs: a folder as installed (inherited entries, the system's with a generic-all bit, one
# generic-all for the creator) and services with the system's default service DACL.
mkdir -p "$drive_c/prot/app" "$drive_c/prot/other"
{
    printf 'file\tC:\\prot\\app\tD:AI(A;OICIID;FA;;;BA)(A;OICIID;0x101f01ff;;;SY)(A;OICIID;0x1200a9;;;BU)(A;OICIIOID;GA;;;CO)\n'
    printf 'file\tC:\\nv\t%s\n' "$default_folder"
    printf 'service\t%s\t%s\n' $svc "$default_service" nv_test_auto "$auto_service" nv_killed "$default_service"
    printf 'service\tnv_test_svc\t%s\n' "$own_service"
} >"$journal"
install_with_recorder

echo "== self-protection at start-up"
start_service
self_sddl=$(recorded service $svc | cut -f 1)
expect_eq "own service DACL" "D:P(A;;0x101f01ff;;;$own_sid)(A;;CCLCSWLORC;;;SY)(A;;CCLCSWLORC;;;BA)(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)" "$self_sddl"
persisted "own service persisted" 0 $svc
driver_messages | grep -q -F '1 command C:\nv\NorvaleHalvernService.exe' || fail "own image rule: $(driver_messages)"

echo "== two images in one folder"
mark
answers "protect a.exe" "$ok" protect-processes protect=1 image='C:\prot\app\a.exe'
answers "protect b.exe" "$ok" protect-processes protect=1 image='C:\PROT\App\b.exe'
expect_eq "driver messages for two images" "$(msgs "1 command C:\\prot\\app\\a.exe" "6 feature true" "7 command $device\\prot\\app" "1 command C:\\PROT\\App\\b.exe" "6 feature false" "6 feature true" "7 command $device\\prot\\app")" "$(sent)"
expect_eq "folder DACL rewritten twice (after its initial line), stored spelling; the other unused" "3 0" \
    "$(recorded_count file 'C:\prot\app') $(recorded_count file 'C:\PROT\App')"
expect_eq "folder DACL" "D:P(A;OICI;0x101f01ff;;;$own_sid)(A;OICI;0x1200a9;;;BA)(A;OICI;0xa01200a9;;;SY)(A;OICI;0x1200a9;;;BU)(A;OICIIO;GXGR;;;CO)	A;0x03;0x101F01FF;$own_sid A;0x03;0x001200A9;S-1-5-32-544 A;0x03;0xA01200A9;S-1-5-18 A;0x03;0x001200A9;S-1-5-32-545 A;0x0B;0xA0000000;S-1-3-0" "$(recorded file 'C:\prot\app')"
folder_sddl=$(recorded file 'C:\prot\app' | cut -f 1)
own_entry() { entry "$(recorded file 'C:\nv' | cut -f 1)" 'C:\nv\NorvaleHalvernService.exe' 'C:\nv'; }
answers "listing" "$(msgs count=3 "$(entry "$folder_sddl" 'C:\PROT\App\b.exe' 'C:\prot\app')" "$(own_entry)" "$(entry "$folder_sddl" 'C:\prot\app\a.exe' 'C:\prot\app')")" query-protected-processes
mark
answers "unprotect a.exe" "$ok" protect-processes protect=0 image='C:\prot\app\a.exe'
expect_eq "first release: code 2 only, folder kept" "2 command C:\\prot\\app\\a.exe 3" "$(sent) $(recorded_count file 'C:\prot\app')"
sends "unprotect b.exe, the last release: codes 2 and 8" "$ok" \
    "$(msgs "2 command C:\\PROT\\App\\b.exe" "8 command $device\\prot\\app")" protect-processes protect=0 image='C:\PROT\App\b.exe'
expect_eq "folder DACL restored" "$restored_folder	A;0x13;0x001F01FF;S-1-5-32-544 A;0x13;0x001F01FF;S-1-5-18 A;0x13;0x001200A9;S-1-5-32-545 A;0x10;0x001301BF;S-1-5-11 A;0x1B;0xE0010000;S-1-5-11" "$(recorded file 'C:\prot\app')"

echo "== remove-all rules"
answers "protect two folders" "$ok" protect-processes protect=1 image='C:\prot\other\c.exe' protect=1 image='C:\prot\app\d.exe'
sends "empty path, protect: nothing" "$ok" "" protect-processes protect=1 image='' protect=0 image='C:\prot\other\c.exe'
answers "empty path, unprotect: everything" "$ok" protect-processes protect=0 image=''
expect_eq "remove-all messages" "$(msgs "2 command " "8 command ")" "$(sent)"
driver_state | jq -e '.volumes == [] and (.filter_calls | map(select(.call == "detach")) | length) >= 1' >/dev/null ||
    fail "volumes detached: $(driver_state)"
expect_eq "other and own folders restored" "$restored_folder $restored_folder" \
    "$(recorded file 'C:\prot\other' | cut -f 1) $(recorded file 'C:\nv' | cut -f 1)"
answers "empty listing" count=0 query-protected-processes

echo "== services"
for s in nv_test_svc:svc:demand nv_test_auto:auto:auto nv_fragile:fragile:demand nv_args_svc:args:demand \
    nv_stubborn:stubborn:demand:ignore-stop nv_vanishing:vanishing:demand:exit-on-stop nv_stuck:stuck:demand:stuck-starting; do
    install_test_service ${s//:/ }
done
for s in nv_test_svc nv_fragile nv_stubborn nv_vanishing; do run sc start $s && wait_svc_state $s 0; done
svc_sid=$(service_sid nv_test_svc)
sends "protect nv_test_svc: its image rules" "$ok" "$(msgs "1 command C:\\prot\\svc\\nv_test_service.exe" "6 feature true" \
    "7 command $device\\prot\\svc")" protect-services svc=1 proc=1 name=nv_test_svc
service_sddl="D:P(A;;0x101f01ff;;;$own_sid)(A;;0x101f01ff;;;$svc_sid)(A;;CCLCSWLORC;;;SY)(A;;CCLCSWLORC;;;BA)(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)"
expect_eq "service DACL" "$service_sddl" "$(recorded service nv_test_svc | cut -f 1)"
recorded file 'C:\prot\svc' | cut -f 2 | grep -q "^A;0x03;0x101F01FF;$own_sid A;0x03;0x101F01FF;$svc_sid " ||
    fail "service folder: own SID, then the service's: $(recorded file 'C:\prot\svc')"
persisted "service and image persisted" 0 nv_test_svc svc
sends "protect again: nothing to do" "$ok" "" protect-services svc=1 proc=1 name=nv_test_svc
# The remove-all rule above took the own image off as well.
own_service_entry="valid=1 process_protected=0 service_sddl=$self_sddl folder_sddl= name=$svc sid=$own_sid image=C:\nv\NorvaleHalvernService.exe folder="
svc_entry="valid=1 process_protected=1 service_sddl=$service_sddl folder_sddl=$(recorded file 'C:\prot\svc' | cut -f 1) name=nv_test_svc sid=$svc_sid image=C:\prot\svc\nv_test_service.exe folder=C:\prot\svc"
answers "service listing" "$(msgs count=2 "$own_service_entry" "$svc_entry")" query-protected-services
expect_eq "no service SID types here: said once" 1 "$(log_count 'This system has no service SID types')"

echo "== enforcement: a killed service runs again; a failed start retried without the image rule"
answers "protect nv_test_auto (stopped)" "$ok" protect-services svc=1 proc=1 name=nv_test_auto
answers "protect nv_fragile" "$ok" protect-services svc=1 proc=1 name=nv_fragile
old_pid=$(pid_of svc nv_test_svc)
run taskkill /F /PID "$old_pid"
wait_new_pid svc nv_test_svc "$old_pid" && wait_svc_state nv_test_svc 0 || fail "killed service not running again"
mark
rm -f "$drive_c/prot/fragile/nv_test_service.exe"
run taskkill /F /PID "$(pid_of fragile nv_fragile)"
poll 150 0.2 '[ "$(log_count "retrying start service nv_fragile... without process protection")" -ge 1 ] && [ "$(sent | wc -l)" -ge 2 ]' ||
    fail "no retry without process protection"
expect_eq "image rule lifted for the retry, then sent again" "$(msgs "2 command C:\\prot\\fragile\\nv_test_service.exe" "1 command C:\\prot\\fragile\\nv_test_service.exe")" "$(sent | head -n 2)"
# That pass went over the whole list: a service stopped when protected is not on it.
expect_eq "stopped service left alone" "252 0" "$(svc_state nv_test_auto) $(log_count 'trying start service nv_test_auto')"
answers "unprotect nv_fragile" "$ok" protect-services svc=0 proc=0 name=nv_fragile

echo "== restart: persisted services re-applied, automatic ones enforced; one without a program path skipped"
run sc create nv_no_image binPath= '""' start= auto
answers "protect nv_no_image" "$ok" protect-services svc=1 proc=1 name=nv_no_image
stop_service
lines=$(wc -l <"$journal")
mark
start_service
sent | grep -q -F '1 command C:\prot\svc\nv_test_service.exe' || fail "image rule re-applied"
expect_eq "service DACL in place, not written again" "$service_sddl 0" \
    "$(recorded service nv_test_svc | cut -f 1) $(tail -n +"$((lines + 1))" "$journal" | grep -c -F "service	nv_test_svc	")"
expect_eq "enforce lines" "1 1" "$(log_count 'Enforce service nv_test_auto...') $(log_count 'Enforce service nv_no_image...')"
wait_svc_state nv_test_auto 0
poll 150 0.2 '[ "$(log_count "Service nv_no_image has no readable image path, skipped")" = 1 ]' || fail "nv_no_image not skipped"
expect_eq "no code 2 without a path, four services listed" "0 count=4" \
    "$(sent | grep -cE '^2 command ?$') $(call query-protected-services && head -n 1 <<<"$reply")"

echo "== service control requests"
answers "start with arguments" "$ok" start-service name=nv_args_svc arg=alpha arg='beta gamma'
expect_eq "arguments" "$(msgs alpha 'beta gamma')" "$(tr -d '\r' <"$drive_c/prot/args/nv_args_svc.args" 2>/dev/null)"
answers "start a running service" "$started" start-service name=nv_args_svc
logs "given up without progress" 'Service is still start pending, without progress for 10000 ms' \
    answers "start a service that hangs in start pending" "$refused" start-service name=nv_stuck
run taskkill /F /PID "$(pid_of stuck nv_stuck)"
answers "stop" "$ok" stop-service-by-name name=nv_args_svc && expect_eq "stopped" 252 "$(svc_state nv_args_svc)"
answers "stop a stopped service" "$(said 1 "Service has already been stopped.")" stop-service-by-name name=nv_args_svc
# A service whose process bears a system process's image name is never stopped nor terminated.
mkdir -p "$drive_c/prot/crit" && cp "$NV_BIN_DIR/nv_test_service.exe" "$drive_c/prot/crit/lsass.exe"
run sc create nv_crit binPath= 'C:\prot\crit\lsass.exe ignore-stop' start= demand
run sc start nv_crit && wait_svc_state nv_crit 0
stubborn=$(pid_of stubborn nv_stubborn) vanishing=$(pid_of vanishing nv_vanishing) crit=$(pid_of crit nv_crit)
# LABEL|REPLY|SERVICE|THE LINES IT LOGS ONCE (";" between). nv_vanishing ends on the stop without
# reporting it and nobody may open it: the task killer finds no such process (128), which counts as stopped.
while IFS='|' read -r label want name lines; do
    answers "stop $label" "$want" stop-service-by-name name="$name"
    IFS=';' read -r -a lines <<<"$lines" && once "stop $label" "${lines[@]}"
done <<EOF
a service that ignores stop|$ok|nv_stubborn|Failed to stop service <nv_stubborn>, trying to terminate its process $stubborn;Process $stubborn terminated
a service whose process vanished|$ok|nv_vanishing|Failed to stop service <nv_vanishing>, trying to terminate its process $vanishing;Failed to open process $vanishing for termination;command: "C:\\windows\\system32\\taskkill.exe /PID $vanishing /F";Command return code: 128
a service in a system process|$refused|nv_crit|Stop of service <nv_crit> refused: its process $crit (C:\\prot\\crit\\lsass.exe) is a system process
EOF
expect_eq "system process: still running, same process" "0 $crit" "$(svc_state nv_crit) $(pid_of crit nv_crit)"
sends "re-apply switches" "$ok" "$features_on" restore-driver-protection flag=0
answers "recover a service DACL" "$ok" recover-service-dacl name=nv_test_auto
expect_eq "service DACL back to its own from before" "$auto_service" "$(recorded service nv_test_auto | cut -f 1)"
persisted "recovered service and its image no longer persisted" 1 nv_test_auto auto

echo "== unprotect a service"
sends "unprotect nv_test_svc: image and folder released" "$ok" "$(msgs "2 command C:\\prot\\svc\\nv_test_service.exe" \
    "8 command $device\\prot\\svc")" protect-services svc=0 proc=0 name=nv_test_svc
expect_eq "service DACL from before given back" "$own_service" "$(recorded service nv_test_svc | cut -f 1)"
persisted "service and image unpersisted" 1 nv_test_svc svc
expect_eq "its DACL record gone" "" "$(reg_value "$services_key" 'nv_test_svc\OriginalDacl')"

echo "== driver unreachable: protect fails, unprotect keeps the entry, a service's image is forced off"
answers "protect f.exe" "$ok" protect-processes protect=1 image='C:\prot\other\f.exe'
run "$ctl" unload
answers "protect without the driver" "$refused" protect-processes protect=1 image='C:\prot\other\g.exe'
answers "unprotect without the driver" "$refused" protect-processes protect=0 image='C:\prot\other\f.exe'
other_sddl=$(recorded file 'C:\prot\other' | cut -f 1)
answers "entry kept, nothing added" "$(msgs count=3 "$(own_entry)" "$(entry "$(recorded file 'C:\prot\auto' | cut -f 1)" 'C:\prot\auto\nv_test_service.exe' 'C:\prot\auto')" \
    "$(entry "$other_sddl" 'C:\prot\other\f.exe' 'C:\prot\other')")" query-protected-processes
answers "unprotect nv_test_auto with its image" "$ok" protect-services svc=0 proc=0 name=nv_test_auto
expect_eq "force: folder reset locally" "1 $restored_folder" \
    "$(log_count 'Failed to connect driver,  reset the folder permissions (C:\prot\auto)') $(recorded file 'C:\prot\auto' | cut -f 1)"
run "$ctl" load

echo "== folder DACL recovery, held at its write: the lists answered meanwhile, a protect after it"
held_at_dacl_write "recover held" 'Restoring permissions of folder (C:\prot\other)' \
    "protect-processes protect=0 image=C:\prot\other\none.exe" recover-folder-dacl name='C:\prot\other\'
expect_eq "folder named without its backslash reset" "$restored_folder" "$(recorded file 'C:\prot\other' | cut -f 1)"
answers "folder dropped from the protected folders" "$(msgs count=2 "$(own_entry)" "$(entry '' 'C:\prot\other\f.exe' 'C:\prot\other')")" query-protected-processes

echo "== a service protect held at its image folder's DACL write: the lists answered meanwhile"
held_at_dacl_write "service protect held" 'Trying to protect process (C:\prot\svc\nv_test_service.exe)' \
    "protect-processes protect=0 image=C:\prot\other\none.exe" protect-services svc=1 proc=1 name=nv_test_svc
answers "unprotect nv_test_svc again" "$ok" protect-services svc=0 proc=0 name=nv_test_svc

echo "== master switch off, held at a DACL write: the lists answered, the driver's re-apply after it"
mark
logs "switch held" 'service_enforce_thread stopped' \
    held_at_dacl_write "switch held" "Trying to unprotect service ($svc)" "restore-driver-protection flag=0" set-protection-enabled on=0
off_features=$(msgs "0 feature false" "6 feature false" "11 feature false")
expect_eq "every service and image rule removed, then the switches' new state" "$(msgs "$off_features" "2 command C:\\nv\\NorvaleHalvernService.exe" "8 command $device\\nv" "2 command " "8 command " "$off_features")" "$(sent)"
answers "no services" count=0 query-protected-services
answers "no images" count=0 query-protected-processes
expect_eq "own service DACL default" "$default_service" "$(recorded service $svc | cut -f 1)"
persisted "own service unpersisted" 1 $svc
answers "protect while off" "$refused" protect-services svc=1 proc=1 name=nv_test_svc
answers "protect an image while off" "$refused" protect-processes protect=1 image='C:\prot\app\a.exe'
once "refusals" 'Service protection function is disabled' 'Process protection function is disabled'
answers "start a listed service" "$ok" start-service name=nv_args_svc
old_pid=$(pid_of args nv_args_svc)
run taskkill /F /PID "$old_pid"
sleep 3
expect_eq "killed, not started again while off" "$old_pid" "$(pid_of args nv_args_svc)"
sends "switch on" "$ok" "$features_on" set-protection-enabled on=1
wait_new_pid args nv_args_svc "$old_pid" || fail "enforcement not running again"

echo "== bad input: a reply, a log line, nothing applied, the next request served"
mark
call query-protected-services
services_before=$reply
long=$(printf 'x%.0s' $(seq 1 300))
# Bytes that do not hold the request (an identifier; conformance_test has every malformed reply), or
# well-formed fields that name what cannot be done (a message): a row per handler's line.
while IFS='|' read -r label what want line args; do
    [[ $what == 1* ]] && send=ask || send=answers
    logs "$what: $label" "$line" $send "$what: $label" "$want" "$what" $args
done <<EOF
truncated list|1000003|$status_fail|Malformed process rule list|02$(encode protect-processes protect=1 image='C:\prot\app\t.exe' | cut -c 3-)
no name terminator|1000002|$status_fail|Malformed service rule list|0100000001016E76
empty name|1000065|$status_fail|Malformed start request|00
empty name|1000066|$status_fail|Malformed stop request|00
empty name|1000067|$status_fail|Malformed DACL recovery request|00
no payload|1000068|$status_fail|Empty request: nothing re-applied|
empty path|1000069|$status_fail|Malformed folder DACL recovery request|00
over-long path|protect-processes|$refused|Process image refused|protect=1 image=C:\\prot\\$long\\e.exe
drive root|protect-processes|$refused|Process image refused|protect=1 image=C:\e.exe
missing service|protect-services|$refused|Failed to protect service: no_such_service|svc=1 proc=1 name=no_such_service
over-long name|protect-services|$refused|Failed to protect service: $long|svc=1 proc=1 name=$long
empty list|protect-services|$ok|No service set to (un)protect.|
missing service|start-service|$started|Status of service <no_such_service> unknown|name=no_such_service
over-long name|start-service|$started|Status of service <$long> unknown|name=$long
missing service|stop-service-by-name|$refused|Failed to stop service <no_such_service>|name=no_such_service
over-long name|stop-service-by-name|$refused|Failed to stop service <$long>|name=$long
missing service|recover-service-dacl|$refused|OpenServiceA failed|name=no_such_service
over-long name|recover-service-dacl|$refused|OpenServiceA failed|name=$long
over-long path|recover-folder-dacl|$refused|SetNamedSecurityInfoW failed(C:\\$long|name=C:\\$long
EOF
expect_eq "bad input: nothing sent" "" "$(sent)"
answers "bad input: services unchanged" "$services_before" query-protected-services
answers "bad input: no images, the next requests served" count=0 query-protected-processes

echo "== a service whose image is in System32: the service and its image, never the folder"
cp "$NV_BIN_DIR/nv_test_service.exe" "$drive_c/windows/system32/nv_hosted.exe"
run sc create nv_hosted binPath= 'C:\windows\system32\nv_hosted.exe' start= demand
run sc start nv_hosted && wait_svc_state nv_hosted 0
sends "protect nv_hosted" "$ok" "1 command C:\\windows\\system32\\nv_hosted.exe" protect-services svc=1 proc=1 name=nv_hosted
expect_eq "hosted: said so" 1 \
    "$(log_count 'Process C:\windows\system32\nv_hosted.exe protected without its folder, C:\windows\system32 is a system folder')"
recorded service nv_hosted | grep -q -F "(A;;0x101f01ff;;;$(service_sid nv_hosted))" || fail "hosted: service DACL $(recorded service nv_hosted)"
call query-protected-services
hosted=$(grep -F 'name=nv_hosted ' <<<"$reply")
[[ "$hosted" == *"process_protected=1 "*"folder_sddl= name=nv_hosted "*'image=C:\windows\system32\nv_hosted.exe folder=' ]] ||
    fail "hosted: listed with its image, without a folder: [$hosted]"

echo "== a stop while a request waits for a service that stays stop pending: no thread terminated"
install_test_service nv_stuck_stop stuckstop demand stuck-stopping
run sc start nv_stuck_stop && wait_svc_state nv_stuck_stop 0
n=$(log_count 'Received IPC message 1000066')
call_bg waiter /dev/null stop-service-by-name name=nv_stuck_stop
poll 150 0.2 '[ "$(log_count "Received IPC message 1000066")" -gt "$n" ]' || fail "the stop request did not come"
sleep 2  # well inside its 30-second wait
within 10 run "$exe" -s stop  # not the other service's 30 seconds
expect_eq "stopped, the wait given up, no thread terminated" "0 252 1 0" "$rc $(svc_state $svc) $(
    log_count 'The wait for service nv_stuck_stop to stop was given up') $(log_count 'of its stop, terminated')"
wait $waiter
run taskkill /F /PID "$(pid_of stuckstop nv_stuck_stop)"

echo "== emergency: serv and fold act at start, unlocked by a recovery code"
for v in 'serv nv_test_svc' 'fold C:\prot\stubborn' "code $(recovery_code)"; do
    run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v "${v%% *}" /t REG_SZ /d "${v#* }" /f
done
lines=$(wc -l <"$journal")
run "$exe" -s start
poll 150 0.2 '[ "$(log_count "Emergency options have been handled")" = 1 ]' && wait_svc_state $svc 252 || fail "no emergency start"
tail -n +"$((lines + 1))" "$journal" | grep -q -F "service	nv_test_svc	$default_service" || fail "serv: service DACL reset"
expect_eq "emergency start: own service not protected" 0 "$(tail -n +"$((lines + 1))" "$journal" | grep -c -F "service	$svc	")"
expect_eq "fold: folder DACL reset" "$restored_folder" "$(recorded file 'C:\prot\stubborn' | cut -f 1)"
expect_eq "the Windows folder: no DACL written, at protect or any shutdown" 0 "$(grep -a -i -c -F "file	C:\windows" "$journal")"

echo "== killed at a service's DACL write, protecting and then unprotecting: its records give it back"
install_test_service nv_killed killed demand
# kill_at SERVICE: the test build ends where it would write that service's DACL.
kill_at() { run reg add "$helper_key" /v KillAtServiceDacl /t REG_SZ /d "$1" /f; }
killed_in() {  # LABEL FIELD...: the request the service dies in; then started again without the kill
    local before=$(recorded service nv_killed | cut -f 1)
    kill_at nv_killed
    run "$client" -t 20000 call protect-services "${@:2}"
    [ "$rc" != 0 ] || fail "$1: answered: $(cat "$out")"
    expect_eq "$1: no DACL written" "$before" "$(recorded service nv_killed | cut -f 1)"
    kill_at none && start_service
    persisted "$1: still recorded" 0 nv_killed killed
    recorded service nv_killed | grep -q "^D:P(A;;0x101f01ff;;;$own_sid)(A;;0x101f01ff;;;$(service_sid nv_killed))" ||
        fail "$1: protected again from its record: $(recorded service nv_killed)"
}
start_service
killed_in "killed protecting" svc=1 proc=1 name=nv_killed
killed_in "killed unprotecting" svc=0 proc=0 name=nv_killed
answers "unprotect nv_killed" "$ok" protect-services svc=0 proc=0 name=nv_killed
expect_eq "its DACL from before the first protect" "$default_service" "$(recorded service nv_killed | cut -f 1)"
persisted "records gone after the DACL" 1 nv_killed killed

echo "== a record the service cannot write: answered 0 with a message, nothing applied"
stop_service
start_service sddl 'Software\Norvale'  # the test no longer stands in for the service SID
sends "protect nv_killed unrecorded, no image rule sent" "$(said 0 "Service nv_killed was not protected: its original DACL could not be recorded.")" \
    "" protect-services svc=1 proc=1 name=nv_killed
expect_eq "its DACL left as it was" "$default_service" "$(recorded service nv_killed | cut -f 1)"
persisted "nothing recorded" 1 nv_killed killed

finish protection 300
