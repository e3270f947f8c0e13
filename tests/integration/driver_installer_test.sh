#!/usr/bin/env bash
# -i instdrv / -i uninstdrv with the stand-in driver package beside the executable, and the
# service installing a missing driver at start-up; installer_probe makes the other calls.
#   driver_installer_test.sh VERSION NEXT_VERSION
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
version=${1:?version} next_version=${2:?next version}

new_prefix
start_sim
install_service
cp "$NV_BIN_DIR/installer_probe.exe" "$NV_BIN_DIR/VQRMonitor.inf" "$nv/"
probe='C:\nv\installer_probe.exe'
installed=$WINEPREFIX/drive_c/windows/system32/drivers/VQRMonitor.sys
key='HKLM\System\CurrentControlSet\Services\VQRMonitor' install_key='HKLM\Software\Norvale\NVClientHelper\install'

package() {  # the driver file beside the executable: current, next, unversioned or none
    rm -f "$nv/VQRMonitor.sys"
    case $1 in
        current) cp "$NV_BIN_DIR/VQRMonitor.sys" "$nv/" ;;
        next | unversioned) cp "$NV_BIN_DIR/driver_$1/VQRMonitor.sys" "$nv/" ;;
    esac
}
good_inf() { cp "$NV_BIN_DIR/VQRMonitor.inf" "$nv/"; }
broken_inf() { printf '[Version]\r\nSignature="$Windows NT$"\r\n' >"$nv/VQRMonitor.inf"; }
new_log() { : >"$log"; }
expect_value() { expect_eq "$1: $3" "$4" "$(reg_value "$2" "$3")"; }  # LABEL KEY NAME "TYPE DATA" (empty: missing)
service_type() { wine sc query VQRMonitor </dev/null 2>/dev/null | tr -d '\r' | awk '$1 == "TYPE" { print $3 }'; }
# The service manager starts the stand-in image in its driver host; a loaded machine may take a while.
start_driver_service() {
    run net start VQRMonitor
    poll 100 0.2 '[ "$(sc_state VQRMonitor)" = RUNNING ]' || fail "the driver service does not start: $(cat "$out")"
}
# The driver's service key as both routes leave it ("Tag": the direct route's own, checked there).
expect_layout() {
    local label=$1 name altitude
    while read -r name want; do
        expect_value "$label" "$key" "$name" "$want"
    done <<'EOF'
Type REG_DWORD 0x2
Start REG_DWORD 0x1
ErrorControl REG_DWORD 0x1
DisplayName REG_SZ VQRMonitor
DependOnService REG_MULTI_SZ FltMgr
Group REG_SZ FSFilter Activity Monitor
Description REG_SZ VQRMonitor mini-filter driver
SupportedFeatures REG_DWORD 0x3
WOW64
EOF
    [[ "$(reg_value "$key" ImagePath)" =~ ^REG_(EXPAND_)?SZ\ .*\\[Dd]rivers\\VQRMonitor.sys$ ]] ||
        fail "$label: ImagePath [$(reg_value "$key" ImagePath)]"
    expect_value "$label" "$key\\Instances" DefaultInstance "REG_SZ VQRMonitor - Top Instance"
    while read -r name altitude; do
        expect_value "$label" "$key\\Instances\\VQRMonitor - $name Instance" Altitude "REG_SZ $altitude"
        expect_value "$label" "$key\\Instances\\VQRMonitor - $name Instance" Flags "REG_DWORD 0x1"
    done <<<$'Bottom 362700\nMiddle 368520\nTop 383350'
    [ "$(service_type)" = 2 ] || fail "$label: the service manager does not report a file-system driver"
}
installed_version_is() {  # LABEL current|next
    cmp -s "$NV_BIN_DIR/$([ "$2" = next ] && echo driver_next/)VQRMonitor.sys" "$installed" || fail "$1: the installed file is not the $2 package"
}
features() { driver_state | jq -c '[.features["0", "6", "11"]]'; }
sim_unloads() { driver_state | jq '[.filter_calls[]? | select(.call == "unload" and .hr == "0x00000000")] | length'; }
# unloads LABEL COMMAND...: COMMAND run with the driver service started, and the driver unloaded meanwhile.
unloads() {
    start_driver_service
    local before=$(sim_unloads)
    "${@:2}"
    [ "$(sim_unloads)" -gt "$before" ] || fail "$1: the unload did not reach the driver"
}
instdrv() { new_log; runs "$1" 0 "Installing driver..." "$exe" -i instdrv; }  # LABEL: -i instdrv succeeds
uninstdrv() { new_log; runs "$1" 0 "Uninstalling driver..." "$exe" -i uninstdrv; }  # LABEL: -i uninstdrv succeeds

echo "== clean Windows 7 prefix: the INF route"
package current
run reg add "$key" /v WOW64 /t REG_DWORD /d 1 /f
instdrv "clean install"
expect_layout "clean install"
expect_value "clean install" "$install_key" DriverUpdated ""
expect_logged "clean install" "$log" "InstallHinfSection DefaultInstall 132 C:\\\\nv\\\\" "rundll command ran successfully"
expect_not_logged "clean install" "$log" "Begin install VQRMonitor driver"

echo "== the same version with a responding port: nothing happens"
run reg add "$install_key" /v DriverUpdated /t REG_DWORD /d 1 /f
instdrv "same version"
expect_logged "same version" "$log" "Installed driver version has not changed - not doing install"
expect_not_logged "same version" "$log" "Uninstalling with"
expect_value "same version" "$install_key" DriverUpdated ""

echo "== the same version with the driver not serving: reinstalled"
run "$ctl" unload
instdrv "same version, no port"
expect_logged "same version, no port" "$log" "Could not connect to filter: -2147024894 - .*, reinstall the driver." \
    "DefaultUninstall 132" "DefaultInstall 132"
expect_value "same version, no port" "$install_key" DriverUpdated "REG_DWORD 0x1"

echo "== a newer version replaces the old one; the driver service started brings the ports back"
package next
unloads "newer version" instdrv "newer version"
expect_value "newer version" "$install_key" DriverUpdated "REG_DWORD 0x1"
expect_logged "newer version" "$log" "fileVersionString: '$next_version'"
expect_layout "newer version"
echo "== a package without its driver file or its version changes nothing"
for p in none unversioned; do
    package $p
    new_log
    runs "package $p" 254 $'Installing driver...\nFailed to install driver!' "$exe" -i instdrv
    installed_version_is "package $p" next
done
expect_logged "no version" "$log" "has no readable version, nothing changed"
package current

echo "== -i uninstdrv: unload, INF uninstall, service and file gone"
unloads "uninstall" uninstdrv "uninstall"
expect_logged "uninstall" "$log" "DefaultUninstall 132 C:\\\\nv\\\\"
[ -z "$(service_type)" ] && [ ! -e "$installed" ] || fail "uninstall: the service or the file is still there"
expect_value "uninstall" "$key" SkipProc1stCreate ""

echo "== the INF route failing: the direct route, tag 160"
broken_inf
instdrv "direct route"
expect_logged "direct route" "$log" "Driver install failed" "Begin install VQRMonitor driver" \
    "Copying 'C:\\\\nv\\\\VQRMonitor.sys' to" "Creating service 'VQRMonitor'" "Service created" \
    "Restore any missing driver registry." "Driver install succeeded"
expect_layout "direct route"
expect_value "direct route" "$key" Tag "REG_DWORD 0xa0"
installed_version_is "direct route" current

echo "== uninstall with the INF route failing: the service is stopped and deleted, the file deleted"
start_driver_service
uninstdrv "direct uninstall"
expect_logged "direct uninstall" "$log" "Stopping service 'VQRMonitor'" "Service stopped" "Deleting service 'VQRMonitor'" \
    "Service deleted" "Installed file 'C:\\\\windows\\\\System32\\\\Drivers\\\\VQRMonitor.sys' deleted" "End uninstall, res = 0"
[ -z "$(service_type)" ] && [ ! -e "$installed" ] || fail "direct uninstall: the service or the file is still there"
good_inf
run "$ctl" load

echo "== a locked driver file is renamed and deleted at reboot"
for n in 0 1; do
    run "$exe" -i instdrv
    hold image 'C:\windows\system32\drivers\VQRMonitor.sys'
    uninstdrv "locked file $n"
    [ ! -e "$installed" ] && [ -f "$installed.$n" ] || fail "locked file $n: not renamed to VQRMonitor.sys.$n"
    expect_logged "locked file $n" "$log" "Renamed driver file .* -> 'C:\\\\windows\\\\System32\\\\Drivers\\\\VQRMonitor.sys.$n'" \
        "will be deleted after reboot"
    [[ "$(reg_value 'HKLM\System\CurrentControlSet\Control\Session Manager' PendingFileRenameOperations)" == *"VQRMonitor.sys.$n"* ]] ||
        fail "locked file $n: no deletion at reboot registered"
    unhold
    run "$ctl" load
done

echo "== a service marked for deletion: a non-forced install waits for the reboot"
run "$exe" -i instdrv
hold service VQRMonitor
package next
new_log
runs "marked, not forced" 0 "result=0" "$probe" install 0
expect_logged "marked, not forced" "$log" "Failed to delete service. error 1072" \
    "Previous driver service has been marked for deletion, but not yet removed"
expect_not_logged "marked, not forced" "$log" "DefaultInstall 132"
echo "== ... a forced one goes on; the direct route keeps an existing Start = 3"
broken_inf
run reg add "$key" /v Start /t REG_DWORD /d 3 /f
run reg delete "$key\\Instances" /f
instdrv "marked, forced"
expect_logged "marked, forced" "$log" "Failed to create service. error 1072"
expect_value "marked, forced" "$key" Start "REG_DWORD 0x3"
expect_value "marked, forced" "$key" Tag "REG_DWORD 0xa0"
expect_value "marked, forced" "$key\\Instances\\VQRMonitor - Top Instance" Altitude "REG_SZ 383350"
installed_version_is "marked, forced" next
unhold
good_inf
package current
run "$exe" -i uninstdrv
run "$ctl" load

echo "== result codes"
while read -r length want; do
    runs "command of $length characters" 0 "result=$want" "$probe" run-command "$length"
done <<<$'4097 7\n0 22\n4096 0'
rm -f "$nv/VQRMonitor.inf"
new_log
runs "missing INF" 0 "result=2 marked=0" "$probe" uninstall
expect_logged "missing INF" "$log" "Failed to get short path name for path 'C:\\\\nv\\\\VQRMonitor.inf'. error 2" \
    "Failed to initialize the inf file path"
runs "missing INF, -i uninstdrv" 254 "Uninstalling driver..." "$exe" -i uninstdrv
good_inf

echo "== Windows versions"
while read -r winver skip svcmgr; do
    wine winecfg -v "$winver" </dev/null >/dev/null 2>&1
    run "$exe" -i uninstdrv
    instdrv "$winver install"
    expect_value "$winver" "$key" SkipProc1stCreate "$([ "$skip" = 1 ] && echo 'REG_DWORD 0x1')"
    expect_value "$winver" "$key" SvcMgrPath "$([ "$svcmgr" = 1 ] && echo 'REG_SZ C:\windows\System32\services.exe')"
    [ "$(logged "$log" "Windows 8 / Server 2012 detected, set service manager path." && echo 1 || echo -)" = "$svcmgr" ] ||
        fail "$winver: the Windows 8 line"
done <<<$'win7 1 -\nwin8 1 1\nwin81 - -\nwin10 - -'
wine winecfg -v win7 </dev/null >/dev/null 2>&1

echo "== the service installs a missing driver at start-up, starts it and connects"
run "$exe" -i uninstdrv
# A stopping driver service is deleted once it has stopped.
poll 150 0.2 '[ -z "$(service_type)" ]' || fail "start-up: the driver is still installed"
expect_eq "start-up: the simulator before" false "$(driver_state | jq .loaded)"
runs "service install" 0 "Installing halvern service..." "$exe" -i install
new_log
runs "service start" 0 "" "$exe" -s start
poll 300 0.2 '[ "$(features)" = "[true,true,true]" ]'  # a minute at most
expect_logged "start-up" "$log" "\\[DoInstall:[0-9]*\\] - Installing with" "rundll command ran successfully" \
    "VQRMonitor Driver Version: $version"
expect_not_logged "start-up" "$log" "StartService failed\|Service is in a wrong state\|Could not connect to filter"
expect_eq "start-up: the driver service, the features the service switched on" 'RUNNING [true,true,true]' "$(sc_state VQRMonitor) $(features)"
run "$exe" -s stop
run "$exe" -i uninstall

finish "driver installer" 60
