#!/usr/bin/env bash
# Process, folder and service protection and service control through requests against the
# running service, with the driver simulator and the object-security recorder (this system does
# not keep file, folder or service DACLs, so the recorder shows what the service wrote).
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"

own_sid=$(service_sid $svc)
default_folder='D:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;SDGXGWGR;;;AU)'
# Written back unprotected, so the parent's entries flow in again.
restored_folder=${default_folder/D:AI/D:}
default_service='D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)'
device='\Device\HarddiskVolume1'
# persisted LABEL KEY VALUE: exit code of reg query for HKLM\Software\Norvale\NVClientHelper\KEY
# (or a full key) and VALUE, 0 when present, checked against the last argument.
persisted() {
    local key=$2
    [[ $key == *\\* ]] || key="HKLM\\Software\\Norvale\\NVClientHelper\\$key"
    run reg query "$key" /v "$3"
    expect_eq "$1" "$4" "$rc"
}

# Initial DACLs: a folder as installed (inherited entries, one generic-all for the creator) and
# services with the system's default service DACL.
mkdir -p "$drive_c/prot/app" "$drive_c/prot/other" "$drive_c/prot/svc" "$drive_c/prot/stubborn"
{
    printf 'file\tC:\\prot\\app\tD:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;OICIIOID;GA;;;CO)\n'
    printf 'file\tC:\\nv\t%s\n' "$default_folder"
    for s in $svc nv_test_svc nv_test_auto nv_stubborn; do printf 'service\t%s\t%s\n' "$s" "$default_service"; done
} >"$journal"
run reg add 'HKLM\Software\Norvale\NVClientHelper' /v ObjectSecurityJournal /t REG_SZ /d 'C:\nv\object_security.journal' /f
run "$exe" -i install
expect_eq "install" 0 "$rc"

echo "== self-protection at start-up"
start_service
grep -q "Object security is recorded to" "$log" || fail "recorder not selected"
self_sddl=$(recorded service $svc | cut -f 1)
expect_eq "own service DACL" "D:P(A;;0x101f01ff;;;$own_sid)(A;;CCLCSWLORC;;;SY)(A;;CCLCSWLORC;;;BA)(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)" "$self_sddl"
persisted "own service persisted" 'ProtectedServices' $svc 0
driver_messages | grep -q -F '1 command C:\nv\NorvaleHalvernService.exe' || fail "own image rule: $(driver_messages)"

echo "== two images in one folder"
mark=$(($(driver_count) + 1))
request 1000003 "$(hex_u32 1)01$(hex_wstr 'C:\prot\app\a.exe')"
expect_eq "protect a.exe" "$status_ok" "$reply"
request 1000003 "$(hex_u32 1)01$(hex_wstr 'C:\PROT\App\b.exe')"
expect_eq "protect b.exe" "$status_ok" "$reply"
expect_eq "driver messages for two images" "1 command C:\\prot\\app\\a.exe
6 feature true
7 command $device\\prot\\app
1 command C:\\PROT\\App\\b.exe
6 feature false
6 feature true
7 command $device\\prot\\app" "$(driver_messages $mark)"
expect_eq "folder DACL rewritten twice (after its initial line), stored spelling" 3 "$(recorded_count file 'C:\prot\app')"
expect_eq "the other spelling is not used" 0 "$(recorded_count file 'C:\PROT\App')"
expect_eq "folder DACL" "D:P(A;OICI;0x101f01ff;;;$own_sid)(A;OICI;0x1200a9;;;BA)(A;OICI;0x1200a9;;;SY)(A;OICI;0x1200a9;;;BU)(A;OICIIO;GXGR;;;CO)	A;0x03;0x101F01FF;$own_sid A;0x03;0x001200A9;S-1-5-32-544 A;0x03;0x001200A9;S-1-5-18 A;0x03;0x001200A9;S-1-5-32-545 A;0x0B;0xA0000000;S-1-3-0" "$(recorded file 'C:\prot\app')"
folder_sddl=$(recorded file 'C:\prot\app' | cut -f 1)
request 1000005
entry() { printf '01'; hex_str "$1"; hex_wstr "$2"; hex_wstr "$3"; }
own_entry=$(entry "$(recorded file 'C:\nv' | cut -f 1)" 'C:\nv\NorvaleHalvernService.exe' 'C:\nv')
expect_eq "listing" "$(hex_u32 3)$(entry "$folder_sddl" 'C:\PROT\App\b.exe' 'C:\prot\app')$own_entry$(entry "$folder_sddl" 'C:\prot\app\a.exe' 'C:\prot\app')" "$reply"

mark=$(($(driver_count) + 1))
request 1000003 "$(hex_u32 1)00$(hex_wstr 'C:\prot\app\a.exe')"
expect_eq "unprotect a.exe" "$status_ok" "$reply"
expect_eq "first release: code 2 only" '2 command C:\prot\app\a.exe' "$(driver_messages $mark)"
expect_eq "folder kept" 3 "$(recorded_count file 'C:\prot\app')"
mark=$(($(driver_count) + 1))
request 1000003 "$(hex_u32 1)00$(hex_wstr 'C:\PROT\App\b.exe')"
expect_eq "unprotect b.exe" "$status_ok" "$reply"
expect_eq "last release: codes 2 and 8" "2 command C:\\PROT\\App\\b.exe
8 command $device\\prot\\app" "$(driver_messages $mark)"
expect_eq "folder DACL restored" "$restored_folder	A;0x13;0x001F01FF;S-1-5-32-544 A;0x13;0x001F01FF;S-1-5-18 A;0x13;0x001200A9;S-1-5-32-545 A;0x10;0x001301BF;S-1-5-11 A;0x1B;0xE0010000;S-1-5-11" "$(recorded file 'C:\prot\app')"

echo "== remove-all rules"
request 1000003 "$(hex_u32 2)01$(hex_wstr 'C:\prot\other\c.exe')01$(hex_wstr 'C:\prot\app\d.exe')"
expect_eq "protect two folders" "$status_ok" "$reply"
mark=$(($(driver_count) + 1))
request 1000003 "$(hex_u32 2)01$(hex_wstr '')00$(hex_wstr 'C:\prot\other\c.exe')"
expect_eq "empty path, protect: nothing" "$status_ok" "$reply"
expect_eq "empty path, protect: no message" "" "$(driver_messages $mark)"
request 1000003 "$(hex_u32 1)00$(hex_wstr '')"
expect_eq "empty path, unprotect: everything" "$status_ok" "$reply"
expect_eq "remove-all messages" "2 command 
8 command " "$(driver_messages $mark)"
driver_state | jq -e '.volumes == [] and (.filter_calls | map(select(.call == "detach")) | length) >= 1' >/dev/null ||
    fail "volumes detached: $(driver_state)"
expect_eq "other folder restored" "$restored_folder" "$(recorded file 'C:\prot\other' | cut -f 1)"
expect_eq "own folder restored too" "$restored_folder" "$(recorded file 'C:\nv' | cut -f 1)"
request 1000005
expect_eq "empty listing" "00000000" "$reply"

echo "== bad process requests"
mark=$(($(driver_count) + 1))
long='C:\prot\'$(printf 'x%.0s' $(seq 1 260))'\e.exe'
for case in "truncated list:$(hex_u32 2)01$(hex_wstr 'C:\prot\app\t.exe')" "no payload:" "half a string:$(hex_u32 1)01430000" \
    "over-long path:$(hex_u32 1)01$(hex_wstr "$long")" "no drive letter:$(hex_u32 1)01$(hex_wstr 'app\e.exe')" \
    "drive root:$(hex_u32 1)01$(hex_wstr 'C:\e.exe')"; do
    request 1000003 ${case#*:}
    expect_eq "${case%%:*}" "$status_fail" "$reply"
done
expect_eq "bad requests: nothing sent" "" "$(driver_messages $mark)"
request 1000005
expect_eq "bad requests: nothing listed" "00000000" "$reply"
expect_eq "malformed lists logged" 3 "$(log_count 'Malformed process rule list')"
expect_eq "refused paths logged" 3 "$(log_count 'Process image refused')"

echo "== services"
install_test_service() {  # NAME FOLDER START [ARGS]
    mkdir -p "$drive_c/prot/$2"
    cp "$NV_BIN_DIR/nv_test_service.exe" "$drive_c/prot/$2/"
    run sc create "$1" binPath= "\"C:\\prot\\$2\\nv_test_service.exe\" ${4:-}" start= "$3"
    expect_eq "install $1" 0 "$rc"
}
install_test_service nv_test_svc svc demand
install_test_service nv_test_auto auto auto
install_test_service nv_stubborn stubborn demand ignore-stop
install_test_service nv_args_svc args demand
run sc start nv_test_svc
wait_svc_state nv_test_svc 0
svc_sid=$(service_sid nv_test_svc)
mark=$(($(driver_count) + 1))
service_rule() { printf '%s%s' "$1" "$2"; hex_str "$3"; }
request 1000002 "$(hex_u32 1)$(service_rule 01 01 nv_test_svc)"
expect_eq "protect nv_test_svc" "$status_ok" "$reply"
service_sddl="D:P(A;;0x101f01ff;;;$own_sid)(A;;0x101f01ff;;;$svc_sid)(A;;CCLCSWLORC;;;SY)(A;;CCLCSWLORC;;;BA)(A;;CCLCSWLORC;;;IU)(A;;CCLCSWLORC;;;SU)"
expect_eq "service DACL" "$service_sddl" "$(recorded service nv_test_svc | cut -f 1)"
expect_eq "service image rules" "1 command C:\\prot\\svc\\nv_test_service.exe
6 feature true
7 command $device\\prot\\svc" "$(driver_messages $mark)"
recorded file 'C:\prot\svc' | cut -f 2 | grep -q "^A;0x03;0x101F01FF;$own_sid A;0x03;0x101F01FF;$svc_sid " ||
    fail "service folder: own SID, then the service's: $(recorded file 'C:\prot\svc')"
persisted "service persisted" 'ProtectedServices' nv_test_svc 0
persisted "image persisted" 'HKLM\System\CurrentControlSet\Services\VQRMonitor\ProtectedProcesses' 'C:\prot\svc\nv_test_service.exe' 0
request 1000002 "$(hex_u32 1)$(service_rule 01 01 nv_test_svc)"
expect_eq "protect again: nothing to do" "$status_ok" "$reply"

service_entry() {  # NAME SID IMAGE FOLDER SERVICE_SDDL
    printf '0101'; hex_str "$5"; hex_str "$(recorded file "$4" | cut -f 1)"; hex_str "$1"; hex_str "$2"; hex_wstr "$3"; hex_wstr "$4"
}
# The remove-all rule above took the own image off as well.
own_service_entry="0100$(hex_str "$self_sddl")00$(hex_str $svc)$(hex_str "$own_sid")$(hex_wstr 'C:\nv\NorvaleHalvernService.exe')0000"
listing="$(hex_u32 2)$own_service_entry$(service_entry nv_test_svc "$svc_sid" 'C:\prot\svc\nv_test_service.exe' 'C:\prot\svc' "$service_sddl")"
request 1000004
expect_eq "service listing" "$listing" "$reply"

echo "== a stopped automatic service: off the enforcement list until a restart"
request 1000002 "$(hex_u32 1)$(service_rule 01 01 nv_test_auto)"
expect_eq "protect nv_test_auto" "$status_ok" "$reply"
sleep 17  # longer than one enforcement pass
expect_eq "stopped service not restarted" 252 "$(svc_state nv_test_auto)"

echo "== restart: persisted services re-applied"
stop_service
mark=$(($(driver_count) + 1))
start_service
driver_messages $mark | grep -q -F '1 command C:\prot\svc\nv_test_service.exe' || fail "image rule re-applied"
expect_eq "enforce line" 1 "$(log_count 'Enforce service nv_test_auto...')"
wait_svc_state nv_test_auto 0
request 1000004
expect_eq "listing after restart" "$(hex_u32 3)" "${reply:0:8}"

echo "== enforcement: a killed service runs again"
pid_of() { tr -d '\r' <"$drive_c/prot/$1/$2.pid" 2>/dev/null; }  # FOLDER NAME: written by the service
old_pid=$(pid_of svc nv_test_svc)
run taskkill /F /PID "$old_pid"
back=""
for _ in $(seq 1 300); do
    new_pid=$(pid_of svc nv_test_svc)
    [ "$(svc_state nv_test_svc)" = 0 ] && [ -n "$new_pid" ] && [ "$new_pid" != 0 ] && [ "$new_pid" != "$old_pid" ] && back=1 && break
    sleep 0.1
done
[ -n "$back" ] || fail "killed service not running again"

echo "== enforcement: a start that fails is retried without the image rule"
install_test_service nv_fragile fragile demand
run sc start nv_fragile
wait_svc_state nv_fragile 0
request 1000002 "$(hex_u32 1)$(service_rule 01 01 nv_fragile)"
expect_eq "protect nv_fragile" "$status_ok" "$reply"
fragile_pid=$(pid_of fragile nv_fragile)
mark=$(($(driver_count) + 1))
rm -f "$drive_c/prot/fragile/nv_test_service.exe"
run taskkill /F /PID "$fragile_pid"
for _ in $(seq 1 150); do
    [ "$(log_count 'retrying start service nv_fragile... without process protection')" -ge 1 ] && break
    sleep 0.2
done
expect_eq "retry logged" 1 "$(log_count 'retrying start service nv_fragile... without process protection' | sed 's/^[1-9][0-9]*$/1/')"
sleep 2
driver_messages $mark | head -n 2 >"$work/fragile.txt"
expect_eq "image rule lifted for the retry, then sent again" "2 command C:\\prot\\fragile\\nv_test_service.exe
1 command C:\\prot\\fragile\\nv_test_service.exe" "$(cat "$work/fragile.txt")"
request 1000002 "$(hex_u32 1)$(service_rule 00 00 nv_fragile)"
expect_eq "unprotect nv_fragile" "$status_ok" "$reply"

echo "== service control requests"
request 1000065 "$(hex_str nv_args_svc)$(hex_u32 2)$(hex_str alpha)$(hex_str 'beta gamma')"
expect_eq "start with arguments" "$status_ok" "$reply"
expect_eq "arguments" "alpha
beta gamma" "$(tr -d '\r' <"$drive_c/prot/args/nv_args_svc.args" 2>/dev/null)"
request 1000065 "$(hex_str nv_args_svc)$(hex_u32 0)"
expect_eq "start a running service" "01$(hex_str 'Service has already been started.')" "$reply"
request 1000066 "$(hex_str nv_args_svc)"
expect_eq "stop" "$status_ok" "$reply"
expect_eq "stopped" 252 "$(svc_state nv_args_svc)"
request 1000066 "$(hex_str nv_args_svc)"
expect_eq "stop a stopped service" "01$(hex_str 'Service has already been stopped.')" "$reply"

run sc start nv_stubborn
wait_svc_state nv_stubborn 0
request 1000066 "$(hex_str nv_stubborn)"
expect_eq "stop a service that ignores stop" "$status_ok" "$reply"
expect_eq "stop timed out, terminate logged" 1 "$(log_count 'Failed to stop service <nv_stubborn>, trying to terminate its process')"
expect_eq "terminated" 1 "$(log_count "Process $(pid_of stubborn nv_stubborn) terminated")"

# A process that ends on the stop control without reporting it: the task killer's "no such
# process" (128) counts as stopped where it cannot be opened; else terminating it succeeds.
install_test_service nv_vanishing vanishing demand exit-on-stop
run sc start nv_vanishing
wait_svc_state nv_vanishing 0
vanishing_pid=$(pid_of vanishing nv_vanishing)
request 1000066 "$(hex_str nv_vanishing)"
expect_eq "stop a service whose process vanished" "$status_ok" "$reply"
expect_eq "stop timed out" 1 "$(log_count 'Failed to stop service <nv_vanishing>')"
if [ "$(log_count "Failed to open process $vanishing_pid for termination")" = 1 ]; then
    expect_eq "task killer run" 1 "$(log_count "taskkill.exe /PID $vanishing_pid /F")"
    expect_eq "task killer exit code" 1 "$(log_count 'Command return code: 128')"
else
    expect_eq "vanished process: terminate succeeded" 1 "$(log_count "Process $vanishing_pid terminated")"
fi

mark=$(($(driver_count) + 1))
request 1000068 00
expect_eq "re-apply switches" "$status_ok" "$reply"
expect_eq "switches" "0 feature true
6 feature true
11 feature true" "$(driver_messages $mark)"

request 1000067 "$(hex_str nv_test_auto)"
expect_eq "recover a service DACL" "$status_ok" "$reply"
expect_eq "service DACL back to the default" "${default_service/D:/D:}" "$(recorded service nv_test_auto | cut -f 1)"
persisted "recovered service no longer persisted" 'ProtectedServices' nv_test_auto 1

request 1000069 "$(hex_str 'C:\prot\auto\')"
expect_eq "recover a folder DACL" "$status_ok" "$reply"
expect_eq "folder named without its backslash reset" "$restored_folder" "$(recorded file 'C:\prot\auto' | cut -f 1)"

echo "== unprotect a service"
mark=$(($(driver_count) + 1))
request 1000002 "$(hex_u32 1)$(service_rule 00 00 nv_test_svc)"
expect_eq "unprotect nv_test_svc" "$status_ok" "$reply"
expect_eq "service DACL default" "$default_service" "$(recorded service nv_test_svc | cut -f 1)"
expect_eq "image and folder released" "2 command C:\\prot\\svc\\nv_test_service.exe
8 command $device\\prot\\svc" "$(driver_messages $mark)"
persisted "unpersisted" 'ProtectedServices' nv_test_svc 1
persisted "image unpersisted" 'HKLM\System\CurrentControlSet\Services\VQRMonitor\ProtectedProcesses' 'C:\prot\svc\nv_test_service.exe' 1

echo "== bad service requests"
mark=$(($(driver_count) + 1))
for case in "truncated:$(hex_u32 2)$(service_rule 01 01 nv_test_svc)" "no payload:" "no name terminator:$(hex_u32 1)01016E76" \
    "missing service:$(hex_u32 1)$(service_rule 01 01 no_such_service)" \
    "over-long name:$(hex_u32 1)$(service_rule 01 01 "$(printf 'n%.0s' $(seq 1 300))")"; do
    request 1000002 ${case#*:}
    expect_eq "0x1000002 ${case%%:*}" "$status_fail" "$reply"
done
request 1000002 "$(hex_u32 0)"
expect_eq "0x1000002 empty list" "$status_ok" "$reply"
for id in 1000065 1000066 1000067 1000069; do
    request $id
    expect_eq "$id without payload" "$status_fail" "$reply"
    request $id 00
    expect_eq "$id empty name" "$status_fail" "$reply"
done
while IFS='|' read -r label id payload want; do
    request "$id" $payload
    expect_eq "0x$id $label" "$want" "$reply"
done <<EOF
truncated argument list|1000065|$(hex_str nv_args_svc)0200|$status_fail
missing service|1000065|$(hex_str no_such_service)$(hex_u32 0)|01$(hex_str 'Service has already been started.')
missing service|1000066|$(hex_str no_such_service)|$status_fail
missing service|1000067|$(hex_str no_such_service)|$status_fail
path without a drive letter|1000069|$(hex_str 'no\drive\letter')|$status_fail
without payload|1000068||$status_fail
EOF
expect_eq "bad service requests: nothing sent" "" "$(driver_messages $mark)"
request 1000004
expect_eq "bad requests: listing unchanged" "$(hex_u32 2)" "${reply:0:8}"
run "$client" send 100000a
expect_eq "next request served" 0 "$rc"

echo "== emergency: serv and fold act at start"
stop_service
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v serv /t REG_SZ /d nv_test_auto /f
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v fold /t REG_SZ /d 'C:\prot\stubborn' /f
lines=$(wc -l <"$journal")
run "$exe" -s start
wait_svc_state $svc 252
tail -n +"$((lines + 1))" "$journal" | grep -q -F "service	nv_test_auto	$default_service" || fail "serv: service DACL reset"
expect_eq "fold: folder DACL reset" "$restored_folder" "$(recorded file 'C:\prot\stubborn' | cut -f 1)"

echo "$failures failures"
[ "$failures" -eq 0 ]
