#!/usr/bin/env bash
# The driver installer end to end, through the real executable, in a prefix of its own with its
# own driver simulator: -i instdrv / -i uninstdrv with the stand-in driver package beside the
# executable; the INF route, the direct route, updates, removal of a locked file, a service
# marked for deletion, the Windows 7 / 8 / 8.1 / 10 values and the service installing a missing
# driver at start-up. installer_probe (beside the package) makes the calls the command line
# does not make (a non-forced install, the run-command results).
#   driver_installer_test.sh VERSION NEXT_VERSION
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
version=${1:?version} next_version=${2:?next version}

before_cleanup() { wine "$helper" set-event "$release" </dev/null >/dev/null 2>&1; }
new_prefix
start_sim
install_service
cp "$NV_BIN_DIR/installer_probe.exe" "$NV_BIN_DIR/VQRMonitor.inf" "$nv/"
probe='C:\nv\installer_probe.exe'
drivers=$WINEPREFIX/drive_c/windows/system32/drivers
installed=$drivers/VQRMonitor.sys
key='HKLM\System\CurrentControlSet\Services\VQRMonitor'
install_key='HKLM\Software\Norvale\NVClientHelper\install'
release='Global\nv_installer_test_release'

# package V: the driver file beside the executable (current, next, unversioned or none)
package() {
    case $1 in
        current) cp "$NV_BIN_DIR/VQRMonitor.sys" "$nv/" ;;
        next) cp "$NV_BIN_DIR/driver_next/VQRMonitor.sys" "$nv/" ;;
        unversioned) cp "$NV_BIN_DIR/driver_unversioned/VQRMonitor.sys" "$nv/" ;;
        none) rm -f "$nv/VQRMonitor.sys" ;;
    esac
}
good_inf() { cp "$NV_BIN_DIR/VQRMonitor.inf" "$nv/"; }
broken_inf() { printf '[Version]\r\nSignature="$Windows NT$"\r\n' >"$nv/VQRMonitor.inf"; }
new_log() { : >"$log"; }
logged() { tr -d '\r' <"$log" | grep -q -- "$1"; }
expect_logged() { logged "$2" || fail "$1: log has no [$2]"; }
expect_not_logged() { ! logged "$2" || fail "$1: log has [$2]"; }
# value KEY NAME: "TYPE DATA" of a registry value, empty when it is missing
value() {
    wine reg query "$1" /v "$2" </dev/null 2>/dev/null | tr -d '\r' |
        awk -v n="$2" '$1 == n { $1 = ""; sub(/^ +/, ""); gsub(/ {4}/, " "); print; exit }'
}
expect_value() {  # expect_value LABEL KEY NAME "TYPE DATA" (empty: missing)
    local got
    got=$(value "$2" "$3")
    [ "$got" = "$4" ] || fail "$1: $3 is [$got], want [$4]"
}
service_type() { wine sc query VQRMonitor </dev/null 2>/dev/null | tr -d '\r' | awk '$1 == "TYPE" { print $3 }'; }
service_state() { wine sc query VQRMonitor </dev/null 2>/dev/null | tr -d '\r' | awk '$1 == "STATE" { print $4 }'; }
# The service manager starts the stand-in image in its driver host; a loaded machine may take a while.
start_driver_service() {
    run net start VQRMonitor
    for _ in $(seq 1 100); do
        [ "$(service_state)" = RUNNING ] && return 0
        sleep 0.2
    done
    fail "the driver service does not start: $(cat "$out")"
}
# hold WHAT ARG: a probe keeping a service handle or an image mapping until release
hold() {
    wine "$probe" "hold-$1" "$2" "$release" </dev/null >"$work/hold.txt" 2>&1 &
    for _ in $(seq 1 100); do
        grep -q holding "$work/hold.txt" 2>/dev/null && return 0
        sleep 0.2
    done
    fail "hold-$1 $2 did not start: $(cat "$work/hold.txt")"
}
unhold() {
    wine "$helper" set-event "$release" </dev/null >/dev/null 2>&1
    wait 2>/dev/null
}
# The whole layout of the driver's service key (Tag separately: the setup library leaves it to
# the service manager).
expect_layout() {
    local label=$1
    expect_value "$label" "$key" Type "REG_DWORD 0x2"
    expect_value "$label" "$key" Start "REG_DWORD 0x1"
    expect_value "$label" "$key" ErrorControl "REG_DWORD 0x1"
    [[ "$(value "$key" ImagePath)" =~ ^REG_(EXPAND_)?SZ\ .*\\[Dd]rivers\\VQRMonitor.sys$ ]] ||
        fail "$label: ImagePath [$(value "$key" ImagePath)]"
    expect_value "$label" "$key" DisplayName "REG_SZ VQRMonitor"
    expect_value "$label" "$key" DependOnService "REG_MULTI_SZ FltMgr"
    expect_value "$label" "$key" Group "REG_SZ FSFilter Activity Monitor"
    expect_value "$label" "$key" Description "REG_SZ VQRMonitor mini-filter driver"
    expect_value "$label" "$key" SupportedFeatures "REG_DWORD 0x3"
    expect_value "$label" "$key\\Instances" DefaultInstance "REG_SZ VQRMonitor - Top Instance"
    local row name altitude
    for row in "Bottom 362700" "Middle 368520" "Top 383350"; do
        read -r name altitude <<<"$row"
        expect_value "$label" "$key\\Instances\\VQRMonitor - $name Instance" Altitude "REG_SZ $altitude"
        expect_value "$label" "$key\\Instances\\VQRMonitor - $name Instance" Flags "REG_DWORD 0x1"
    done
    expect_value "$label" "$key" WOW64 ""
}
installed_version_is() {  # the installed file is the package of that name
    local src=$NV_BIN_DIR/VQRMonitor.sys
    [ "$2" = next ] && src=$NV_BIN_DIR/driver_next/VQRMonitor.sys
    cmp -s "$src" "$installed" || fail "$1: the installed file is not the $2 package"
}
sim_unloads() { wine "$ctl" state </dev/null 2>/dev/null | tr -d '\r' | grep -o '"unload"[^}]*' | grep -c '"hr":"0x00000000"'; }

echo "== a package without its driver file, or without a version, changes nothing"
package none
new_log
run "$exe" -i instdrv
expect "no driver file" 254 $'Installing driver...\nFailed to install driver!'
expect_logged "no driver file" "Driver package file 'C:\\\\nv\\\\VQRMonitor.sys' is missing. error 2, nothing changed"
[ -z "$(service_type)" ] || fail "no driver file: a service was registered"
package unversioned
new_log
run "$exe" -i instdrv
expect "unversioned driver file" 254 $'Installing driver...\nFailed to install driver!'
expect_logged "unversioned driver file" "has no readable version, nothing changed"
[ -e "$installed" ] && fail "unversioned driver file: something was installed"

echo "== clean Windows 7 prefix: the INF route"
package current
run reg add "$key" /v WOW64 /t REG_DWORD /d 1 /f
new_log
run "$exe" -i instdrv
expect "clean install" 0 "Installing driver..."
[ -f "$installed" ] || fail "clean install: no driver file in system32\\drivers"
installed_version_is "clean install" current
[ "$(service_type)" = 2 ] || fail "clean install: the service manager does not report a file-system driver"
expect_layout "clean install"
expect_value "clean install" "$key" SkipProc1stCreate "REG_DWORD 0x1"
expect_value "clean install" "$key" SvcMgrPath ""
expect_value "clean install" "$install_key" DriverUpdated ""
expect_logged "clean install" "InstallHinfSection DefaultInstall 132 C:\\\\nv\\\\"
expect_logged "clean install" "rundll command ran successfully"
expect_not_logged "clean install" "Begin install VQRMonitor driver"

echo "== the same version with a responding port: nothing happens"
run reg add "$install_key" /v DriverUpdated /t REG_DWORD /d 1 /f
new_log
run "$exe" -i instdrv
expect "same version" 0 "Installing driver..."
expect_logged "same version" "Installed driver version has not changed - not doing install"
expect_not_logged "same version" "Uninstalling with"
expect_value "same version" "$install_key" DriverUpdated ""

echo "== the same version with the driver not serving: reinstalled"
run "$ctl" unload
new_log
run "$exe" -i instdrv
expect "same version, no port" 0 "Installing driver..."
expect_logged "same version, no port" "Could not connect to filter: -2147024894 - .*, reinstall the driver."
expect_logged "same version, no port" "DefaultUninstall 132"
expect_logged "same version, no port" "DefaultInstall 132"
expect_value "same version, no port" "$install_key" DriverUpdated "REG_DWORD 0x1"
expect_layout "same version, no port"
run "$ctl" load

echo "== a newer version replaces the old one"
package next
before=$(sim_unloads)
new_log
run "$exe" -i instdrv
expect "newer version" 0 "Installing driver..."
installed_version_is "newer version" next
expect_value "newer version" "$install_key" DriverUpdated "REG_DWORD 0x1"
expect_logged "newer version" "fileVersionString: '$next_version'"
[ "$(sim_unloads)" -gt "$before" ] || fail "newer version: the unload did not reach the driver"
expect_layout "newer version"
run "$ctl" load

echo "== a missing package leaves the installed driver alone"
package none
run "$exe" -i instdrv
expect "missing package, driver installed" 254 $'Installing driver...\nFailed to install driver!'
installed_version_is "missing package, driver installed" next
[ "$(service_type)" = 2 ] || fail "missing package: the driver service was removed"
package current

echo "== -i uninstdrv: unload, INF uninstall, service and file gone"
start_driver_service
before=$(sim_unloads)
new_log
run "$exe" -i uninstdrv
expect "uninstall" 0 "Uninstalling driver..."
[ "$(sim_unloads)" -gt "$before" ] || fail "uninstall: the unload did not reach the driver"
expect_logged "uninstall" "DefaultUninstall 132 C:\\\\nv\\\\"
[ -z "$(service_type)" ] || fail "uninstall: the service is still there"
[ -e "$installed" ] && fail "uninstall: the driver file is still there"
expect_value "uninstall" "$key" SkipProc1stCreate ""
run "$ctl" load

echo "== the INF route failing: the direct route, tag 160"
broken_inf
new_log
run "$exe" -i instdrv
expect "direct route" 0 "Installing driver..."
for line in "Driver install failed" "Begin install VQRMonitor driver" "Copying 'C:\\\\nv\\\\VQRMonitor.sys' to" \
    "Creating service 'VQRMonitor'" "Service created" "Restore any missing driver registry." "Driver install succeeded"; do
    expect_logged "direct route" "$line"
done
expect_layout "direct route"
expect_value "direct route" "$key" Tag "REG_DWORD 0xa0"
installed_version_is "direct route" current
[ "$(service_type)" = 2 ] || fail "direct route: no driver service"

echo "== uninstall with the INF route failing: the service is stopped and deleted, the file deleted"
start_driver_service
new_log
run "$exe" -i uninstdrv
expect "direct uninstall" 0 "Uninstalling driver..."
for line in "Stopping service 'VQRMonitor'" "Service stopped" "Deleting service 'VQRMonitor'" "Service deleted" \
    "Installed file 'C:\\\\windows\\\\System32\\\\Drivers\\\\VQRMonitor.sys' deleted" "End uninstall, res = 0"; do
    expect_logged "direct uninstall" "$line"
done
[ -z "$(service_type)" ] || fail "direct uninstall: the service is still there"
[ -e "$installed" ] && fail "direct uninstall: the driver file is still there"
good_inf
run "$ctl" load

echo "== a locked driver file is renamed and deleted at reboot"
for n in 0 1; do
    run "$exe" -i instdrv
    hold image 'C:\windows\system32\drivers\VQRMonitor.sys'
    new_log
    run "$exe" -i uninstdrv
    expect "locked file $n" 0 "Uninstalling driver..."
    [ -e "$installed" ] && fail "locked file $n: still under its name"
    [ -f "$installed.$n" ] || fail "locked file $n: not renamed to VQRMonitor.sys.$n"
    expect_logged "locked file $n" "Renamed driver file .* -> 'C:\\\\windows\\\\System32\\\\Drivers\\\\VQRMonitor.sys.$n'"
    expect_logged "locked file $n" "will be deleted after reboot"
    [[ "$(value 'HKLM\System\CurrentControlSet\Control\Session Manager' PendingFileRenameOperations)" == *"VQRMonitor.sys.$n"* ]] ||
        fail "locked file $n: no deletion at reboot registered"
    unhold
    run "$ctl" load
done

echo "== a service marked for deletion: a non-forced install waits for the reboot"
run "$exe" -i instdrv
hold service VQRMonitor
package next
new_log
run "$probe" install 0
expect "marked, not forced" 0 "result=0"
expect_logged "marked, not forced" "Failed to delete service. error 1072"
expect_logged "marked, not forced" "Previous driver service has been marked for deletion, but not yet removed"
expect_not_logged "marked, not forced" "DefaultInstall 132"
echo "== ... a forced one goes on; the direct route keeps an existing Start = 3"
broken_inf
run reg add "$key" /v Start /t REG_DWORD /d 3 /f
run reg delete "$key\\Instances" /f
new_log
run "$exe" -i instdrv
expect "marked, forced" 0 "Installing driver..."
expect_logged "marked, forced" "Failed to create service. error 1072"
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
for row in "4097 7" "0 22" "4096 0"; do
    read -r length want <<<"$row"
    run "$probe" run-command "$length"
    expect "command of $length characters" 0 "result=$want"
done
rm -f "$nv/VQRMonitor.inf"
new_log
run "$probe" uninstall
expect "missing INF" 0 "result=2 marked=0"
expect_logged "missing INF" "Failed to get short path name for path 'C:\\\\nv\\\\VQRMonitor.inf'. error 2"
expect_logged "missing INF" "Failed to initialize the inf file path"
run "$exe" -i uninstdrv
expect "missing INF, -i uninstdrv" 254 "Uninstalling driver..."
good_inf

echo "== Windows versions"
services_exe='REG_SZ C:\windows\System32\services.exe'
for winver in win7 win8 win81 win10; do
    case $winver in
        win7) skip="REG_DWORD 0x1" svcmgr="" ;;
        win8) skip="REG_DWORD 0x1" svcmgr=$services_exe ;;
        *) skip="" svcmgr="" ;;
    esac
    wine winecfg -v "$winver" </dev/null >/dev/null 2>&1
    run "$exe" -i uninstdrv
    new_log
    run "$exe" -i instdrv
    expect "$winver install" 0 "Installing driver..."
    expect_value "$winver" "$key" SkipProc1stCreate "$skip"
    expect_value "$winver" "$key" SvcMgrPath "$svcmgr"
    if [ "$winver" = win8 ]; then
        expect_logged "$winver" "Windows 8 / Server 2012 detected, set service manager path."
    else
        expect_not_logged "$winver" "Windows 8 / Server 2012 detected"
    fi
done
wine winecfg -v win7 </dev/null >/dev/null 2>&1

echo "== the service installs a missing driver at start-up and starts it"
run "$exe" -i uninstdrv
for _ in $(seq 1 150); do  # a stopping driver service is deleted once it has stopped
    [ -z "$(service_type)" ] && break
    sleep 0.2
done
[ -z "$(service_type)" ] || fail "start-up: the driver is still installed"
run "$exe" -i install
expect "service install" 0 "Installing halvern service..."
new_log
run "$exe" -s start
expect "service start" 0 ""
for _ in $(seq 1 300); do  # up to a minute on a loaded machine
    logged "VQRMonitor Driver Version" && break
    sleep 0.2
done
expect_logged "start-up" "\\[DoInstall:[0-9]*\\] - Installing with"
expect_logged "start-up" "VQRMonitor Driver Version: $version"
[ "$(service_state)" = RUNNING ] || fail "start-up: the driver service is $(service_state)"
[ -f "$installed" ] || fail "start-up: no driver file"
run "$exe" -s stop
run "$exe" -i uninstall

finish "driver installer" 60
