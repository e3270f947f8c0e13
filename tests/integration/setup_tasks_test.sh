#!/usr/bin/env bash
# "-proxy_task" from a staging folder, from and back to the previous release (bin/previous:
# 3.0.40.1, protocol 3, named NVHalvernService.exe). The two slow cases run in prefixes of their own.
set -uo pipefail
. "$NV_SOURCE_DIR/tests/integration/service_prefix.sh"
halvernctl=$NV_BIN_DIR/halvernctl.exe
new_exe=$NV_BIN_DIR/hooks/NorvaleHalvernService.exe  # the test build: its folder repair is recorded
old_exe=$NV_BIN_DIR/previous/NVHalvernService.exe
new_version=196653 old_version=$(((3 << 16) + 40))
pf='C:\Program Files\Norvale\Halvern Service\'

in_prefix() {  # in_prefix NAME: a prefix of its own with the simulator
    new_prefix "$1" && start_sim
    product="$WINEPREFIX/drive_c/Program Files/Norvale/Halvern Service" stage_root=$WINEPREFIX/drive_c/stage out=$work/$1.out
}
# stage NAME PROGRAM|damaged: C:\stage\NAME with the INF, the driver and the program as
# NorvaleHalvernService.exe; one that cannot run the task itself gets setup.exe (this build) beside.
stage() {
    local dir=$stage_root/$1
    rm -rf "$dir" && mkdir -p "$dir" && cp "$NV_BIN_DIR/VQRMonitor.inf" "$NV_BIN_DIR/VQRMonitor.sys" "$dir/"
    if [ "$2" = damaged ]; then head -c 4096 /dev/urandom >"$dir/NorvaleHalvernService.exe"; else cp "$2" "$dir/NorvaleHalvernService.exe"; fi
    [ "$2" = "$new_exe" ] || [ "$2" = "$old_exe" ] || cp "$new_exe" "$dir/setup.exe"
}
task() {  # task STAGE TASK [ARG]
    local dir=$1 runner=NorvaleHalvernService.exe
    shift
    : >"$stage_root/$dir/nvhalvernservice.debug.log"
    [ -f "$stage_root/$dir/setup.exe" ] && runner=setup.exe
    run "C:\\stage\\$dir\\$runner" -proxy_task "$@"
    # Exit code 1 is none of the task's own: with nothing in its debug log the program never ran
    # (Wine lost the process before its first line). Said, and run once more.
    if [ "$rc" -eq 1 ] && [ ! -s "$stage_root/$dir/nvhalvernservice.debug.log" ]; then
        echo "note: $runner -proxy_task $* ended with 1 before its first log line: run again"
        run "C:\\stage\\$dir\\$runner" -proxy_task "$@"
    fi
}
tasked() { task "${@:3}"; expect "$1" "$2"; }  # LABEL RC STAGE TASK [ARG]
product_file() { find "$product" -maxdepth 1 -iname "$1" 2>/dev/null | head -n 1; }
expect_product_files() {  # expect_product_files LABEL PROGRAM-FILE [NAME]: INF, driver, that program, no .bak
    [ -n "$(product_file vqrmonitor.inf)" ] && [ -n "$(product_file vqrmonitor.sys)" ] && [ -z "$(product_file '*.bak')" ] &&
        cmp -s "$2" "$(product_file "${3:-NorvaleHalvernService.exe}")" || fail "$1: the product folder holds [$(ls "$product")]"
}
service_binary() { reg_value "HKLM\\System\\CurrentControlSet\\Services\\$svc" ImagePath | grep -o 'C:.*exe'; }
driver() {  # "present" (service and file) or "gone" (neither)
    local state=$(sc_state VQRMonitor) file=$WINEPREFIX/drive_c/windows/system32/drivers/VQRMonitor.sys
    if [ -n "$state" ] && [ -f "$file" ]; then echo present; elif [ -z "$state" ] && [ ! -e "$file" ]; then echo gone; fi
}
expect_running() {  # expect_running LABEL PACKED_VERSION PROTOCOL
    # A service just started may still report START_PENDING on a loaded machine.
    poll 50 0.2 '[ "$(sc_state $svc)" = RUNNING ]' || fail "$1: the service is [$(sc_state $svc)]"
    run "$halvernctl" status
    grep -q "protocol_version: $3" "$out" && grep -q "service_version: $2" "$out" ||
        fail "$1: the running service is not version $2 / protocol $3: $(cat "$out")"
}
expect_protected() {
    run "$halvernctl" service list
    grep -q nv_setup_svc_a "$out" && grep -q nv_setup_svc_b "$out" || fail "$1: the two services are not protected: $(cat "$out")"
}
# expect_rolled_back LABEL STAGE PROGRAM-NAME [PROGRAM VERSION PROTOCOL]: a failed upgrade (exit code
# in $rc) put the release it found (the previous one unless named) back under that name, registered,
# running and protecting; its log tells each step.
expect_rolled_back() {
    expect "$1" 254
    expect_product_files "$1" "${4:-$old_exe}" "$3"
    [[ "$(service_binary)" == *"$3" ]] || fail "$1: the service runs [$(service_binary)]"
    expect_running "$1" "${5:-$old_version}" "${6:-3}"
    expect_protected "$1"
    expect_logged "$1" "$stage_root/$2/hvs_upgrade.log" "Backup files." "Copying files." "Installing VQRMonitor driver..." \
        "Installing halvern service..." "restore_previous_service.*Installing VQRMonitor driver..." \
        "Leaving halvern service install function..."
}
install_old_name() {  # the previous release as NVHalvernService.exe, running and protecting two services
    mkdir -p "$product" && cp "$old_exe" "$NV_BIN_DIR/VQRMonitor.sys" "$NV_BIN_DIR/VQRMonitor.inf" "$product/"
    for args in "-i instdrv" "-i install" "-s start"; do run "${pf}NVHalvernService.exe" $args; done
    expect_running "old name installed" $old_version 3
    for s in nv_setup_svc_a nv_setup_svc_b; do install_test_service $s $s demand && run sc start $s; done
    run "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys  # stands in for the service SID (protection_lib.sh)
    runs "two services protected" 0 '*' "$halvernctl" service protect nv_setup_svc_a nv_setup_svc_b
}

# Killed after the backup, before the program and the driver are copied (the staged INF, copied
# first, is big enough to copy for a while), the upgrade run again completes; the service it
# finds installed, stopped and unreachable counts as a fresh install.
interrupted() {
    in_prefix interrupted && stage old "$old_exe" && task old hvs_install
    expect "interrupted: previous release installed" 0
    for s in good blocked; do stage $s "$new_exe"; done
    truncate -s 768M "$stage_root/blocked/VQRMonitor.inf"
    wine 'C:\stage\blocked\NorvaleHalvernService.exe' -proxy_task hvs_upgrade </dev/null >"$out" 2>&1 & local pid=$!
    poll 2000 0.02 'grep -q "Copying files" "$stage_root/blocked/nvhalvernservice.debug.log" 2>/dev/null' ||
        fail "interrupted: the upgrade never reached the copy"
    kill -9 "$pid" 2>/dev/null; wait "$pid" 2>/dev/null
    rm -f "$stage_root/blocked/VQRMonitor.inf"
    expect_not_logged "interrupted" "$stage_root/blocked/nvhalvernservice.debug.log" "Installing VQRMonitor driver"
    # Nothing lost: the previous release is there as .bak, the new program not yet copied.
    cmp -s "$old_exe" "$(product_file NorvaleHalvernService.exe.bak)" && [ -n "$(product_file vqrmonitor.sys.bak)" ] &&
        [ -z "$(product_file NorvaleHalvernService.exe)" ] || fail "interrupted: the product folder holds [$(ls "$product")]"
    tasked "interrupted: upgrade run again" 0 good hvs_upgrade
    expect_logged "interrupted: upgrade run again" "$stage_root/good/hvs_upgrade.log" "treat it as fresh install"
    expect_product_files "interrupted: upgrade run again" "$new_exe"
    expect_running "interrupted: upgrade run again" $new_version 5
}

# A new release that registers (under the new name) but whose service never starts is rolled back.
never_starts() {
    in_prefix never_starts && install_old_name
    stage stillborn "$NV_BIN_DIR/nv_test_service.exe"
    task stillborn hvs_upgrade
    expect_rolled_back "never starts" stillborn NVHalvernService.exe
    expect_logged "never starts" "$stage_root/stillborn/hvs_upgrade.log" "Fail to start protection service"
    expect_not_logged "never starts" "$stage_root/stillborn/hvs_upgrade.log" "Failed to run command <"
}

# An installed service that takes the stop control and goes on running (its pipe served from its
# own folder): the upgrade gives up before it changes anything, protection never switched off;
# the uninstall, which switches protection off first, switches it back on.
wont_stop() {
    in_prefix wont_stop
    local dir=$WINEPREFIX/drive_c/prot/wontstop record=$WINEPREFIX/drive_c/prot/wontstop/double.txt
    mkdir -p "$dir" && cp "$NV_BIN_DIR/nv_test_service.exe" "$NV_BIN_DIR/nv_service_double.exe" "$dir/"
    run sc create $svc binPath= 'C:\prot\wontstop\nv_test_service.exe ignore-stop' start= demand && run sc start $svc
    double 'C:\prot\wontstop\nv_service_double.exe' "$record" 'Global\nv_wontstop_double'
    stage new "$new_exe"
    tasked "will not stop, hvs_upgrade" 254 new hvs_upgrade
    expect_logged "will not stop, hvs_upgrade" "$stage_root/new/hvs_upgrade.log" "Fail to stop protection service"
    expect_not_logged "will not stop, hvs_upgrade" "$stage_root/new/hvs_upgrade.log" "Backup files.\|restore_previous_service"
    ! grep -q '^1000008 ' "$record" && [ "$(sc_state $svc)" = RUNNING ] && [ ! -e "$product" ] ||
        fail "will not stop, hvs_upgrade: something changed: $(cat "$record")"
    tasked "will not stop, hvs_uninstall" 254 new hvs_uninstall
    [ "$(grep '^1000008 ' "$record" | tr -d '\r' | tr '\n' '|')" = "1000008 00|1000008 01|" ] && [ "$(sc_state $svc)" = RUNNING ] ||
        fail "will not stop, hvs_uninstall: protection not switched back on: $(cat "$record")"
    undouble
}

for job in interrupted never_starts wont_stop; do
    ($job; echo "$failures" >"$work/$job.failures") >"$work/$job.txt" 2>&1 &
done

in_prefix main
echo "== a fresh install of a damaged program fails and rolls nothing back"
stage damaged damaged
tasked "fresh, damaged" 254 damaged hvs_fresh
expect_logged "fresh, damaged" "$stage_root/damaged/hvs_install.log" \
    "Failed to run command <\"C:\\\\Program Files\\\\Norvale\\\\Halvern Service\\\\NorvaleHalvernService.exe\" -i install>"
expect_not_logged "fresh, damaged" "$stage_root/damaged/hvs_install.log" restore_previous_service
rm -rf "$product"

echo "== hvs_install on a clean machine"
stage new "$new_exe"
tasked "hvs_install" 0 new hvs_install
expect_product_files "hvs_install" "$new_exe"
[ "$(driver)" = present ] || fail "hvs_install: no driver"
[ "$(service_binary)" = "${pf}NorvaleHalvernService.exe" ] || fail "hvs_install: the service runs [$(service_binary)]"
expect_running "hvs_install" $new_version 5
expect_logged "hvs_install" "$stage_root/new/hvs_install.log" "Entering halvern service install proxy function..." \
    "Halvern service has not been detected, prepare a fresh install." "Initializing directories." "Backup files." \
    "Creating folders." "Copying files." "Installing VQRMonitor driver..." "Installing halvern service..." \
    "Starting protection service" "Leaving halvern service install function..."
expect_not_logged "hvs_install" "$stage_root/new/hvs_install.log" "services_backup\|Fail to stop"

echo "== folder repair: nothing is written while the driver port is reachable"
journal=$stage_root/repair.journal
debug_log=$stage_root/new/nvhalvernservice.debug.log
mkdir -p "$WINEPREFIX/drive_c/other"
run reg add "$helper_key" /v ObjectSecurityJournal /t REG_SZ /d 'C:\stage\repair.journal' /f
tasked "repair, port reachable" 0 new hvs_folder_repair 'C:\other'
expect_logged "repair, port reachable" "$debug_log" "Driver can be loaded, no repair needed."
[ ! -e "$journal" ] || fail "repair, port reachable: security was written: $(cat "$journal")"
echo "== folder repair: unreachable, the default descriptor on both folders after taking C:\\other from its owner"
run "$ctl" unload
printf 'owner\tC:\\other\tO:S-1-5-21-1-2-3-1001\n' >"$journal"
tasked "repair, port unreachable" 0 new hvs_folder_repair 'C:\other'
default='D:(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;SDGXGWGR;;;AU)'
want=$(printf '%s\n' "owner	C:\\other	O:S-1-5-21-1-2-3-1001" "file	$pf	$default" "owner	C:\\other	O:BA" \
    "owner	$pf	O:BA" "file	C:\\other	$default" "file	$pf	$default")
[ "$(tr -d '\r' <"$journal" | cut -f 1-3)" = "$want" ] || fail "repair, port unreachable: recorded [$(cat "$journal")], want [$want]"
expect_logged "repair, port unreachable" "$debug_log" "Driver could not be loaded, repair needed." \
    "SetNamedSecurityInfo failed(C:\\\\other, 5)"
run "$ctl" load

echo "== hvs_uninstall: service, driver, files, folder and registry key gone"
run reg add "$helper_key\\install" /v services_backup /t REG_MULTI_SZ /d x /f
# A container and a blocked file as the service records them: their DACLs come back first.
mkdir -p "$WINEPREFIX/drive_c/qc" && : >"$WINEPREFIX/drive_c/qc/blocked.dll"
run reg add "$helper_key\\QuarantineContainers" /v 'C:\qc\' /t REG_DWORD /d 1 /f
run reg add "$helper_key\\BlockedFiles" /v 'C:\qc\blocked.dll' /t REG_SZ /d 'D:P(A;;FA;;;SY)(A;;FR;;;BU)' /f
: >"$journal"
tasked "hvs_uninstall" 0 new hvs_uninstall
[ -z "$(sc_state $svc)" ] && [ "$(driver)" = gone ] && [ ! -e "$product" ] && ! wine reg query "$helper_key" </dev/null >/dev/null 2>&1 ||
    fail "hvs_uninstall: the service [$(sc_state $svc)], the driver [$(driver)], the product folder or $helper_key is still there"
want=$(printf '%s\n' "file	C:\\qc\\	$default" "file	C:\\qc\\blocked.dll	D:P(A;;FA;;;SY)(A;;FR;;;BU)")
[ "$(tr -d '\r' <"$journal" | cut -f 1-3)" = "$want" ] || fail "hvs_uninstall: recorded [$(cat "$journal")], want [$want]"
expect_logged "hvs_uninstall" "$stage_root/new/hvs_uninstall.log" "Entering halvern service uninstall proxy function..." \
    "Uninstalling halvern service..." "Uninstalling VQRMonitor driver..." "Removing files..." "trying to remove folder..." \
    "trying to remove registry entries..." "Leaving halvern service uninstall proxy function..."
run "$ctl" load

echo "== the previous release named NVHalvernService.exe, protecting two services, a damaged upgrade rolled back"
install_old_name
stage damaged damaged
task damaged hvs_upgrade
expect_rolled_back "failing upgrade" damaged NVHalvernService.exe
expect_logged "failing upgrade" "$stage_root/damaged/hvs_upgrade.log" "Failed to run command <"

echo "== ... hvs_upgrade replaces it"
old_pid=$(wine "$helper" service-pid $svc </dev/null 2>/dev/null | tr -d '\r')
: >"$product/nvhalvernservice.debug.log"
tasked "hvs_upgrade" 0 new hvs_upgrade
[ -n "$old_pid" ] && [ "$old_pid" != 0 ] && ! wine "$helper" process-alive "$old_pid" </dev/null >/dev/null 2>&1 ||
    fail "hvs_upgrade: the old service process $old_pid is still there"
[ "$(service_binary)" = "${pf}NorvaleHalvernService.exe" ] && [ -z "$(product_file NVHalvernService.exe)" ] ||
    fail "hvs_upgrade: the service runs [$(service_binary)], or NVHalvernService.exe is left"
expect_product_files "hvs_upgrade" "$new_exe"
expect_running "hvs_upgrade" $new_version 5
expect_protected "hvs_upgrade"
[[ "$(reg_value "$helper_key\\install" services_backup)" == *nv_setup_svc_a*nv_setup_svc_b* ]] ||
    fail "hvs_upgrade: services_backup does not list the two services"
# The previous service stopped with its protection on; the new one switched on, the services given back.
expect_logged "hvs_upgrade" "$product/nvhalvernservice.debug.log" "Received IPC message 1000008, payload size: 1" \
    "protect service nv_setup_svc_a"

echo "== ... a damaged upgrade of a release of the same name rolled back to it, over .bak files of an earlier run"
rm -f "$stage_root/damaged/hvs_upgrade.log"
for f in NorvaleHalvernService.exe.bak vqrmonitor.sys.bak; do head -c 4096 /dev/urandom >"$product/$f"; done
task damaged hvs_upgrade
expect_rolled_back "same name" damaged NorvaleHalvernService.exe "$new_exe" $new_version 5
expect_not_logged "same name" "$stage_root/damaged/hvs_upgrade.log" "has no readable version"

echo "== hvs_uninstall ends with 0 when a file cannot be removed"
cp "$NV_BIN_DIR/installer_probe.exe" "$stage_root/"
probe='C:\stage\installer_probe.exe'
hold image "${pf}vqrmonitor.sys"
tasked "hvs_uninstall, file held" 0 new hvs_uninstall
expect_logged "hvs_uninstall, file held" "$stage_root/new/hvs_uninstall.log" \
    "Unable to remove folder <C:\\\\Program Files\\\\Norvale\\\\Halvern Service\\\\>"
[ -z "$(sc_state $svc)" ] || fail "hvs_uninstall, file held: the service is still there"
unhold
rm -rf "$product"
run "$ctl" load

echo "== a service's pipe served by a program from elsewhere, or refusing our protocol: tasks fail before anything changes"
# The client takes only the service's process or a program in its registered program's folder.
mkdir -p "$WINEPREFIX/drive_c/prot/incompatible" && cp "$NV_BIN_DIR/nv_test_service.exe" "$NV_BIN_DIR/nv_service_double.exe" \
    "$WINEPREFIX/drive_c/prot/incompatible/"
run sc create $svc binPath= 'C:\prot\incompatible\nv_test_service.exe' start= demand && run sc start $svc
record=$WINEPREFIX/drive_c/double.txt
# CASE#THE DOUBLE#TASKS#ITS LINE#LINES NOT LOGGED#WHAT THE DOUBLE MAY HAVE GOT (a regular expression)
while IFS='#' read -r case program tasks line not_logged may_get; do
    double "$program" "$record" 'Global\nv_setup_test_double' --reply 1000009 00
    for t in $tasks; do
        tasked "$case, $t" 254 new $t
        expect_logged "$case, $t" "$stage_root/new/$t.log" "$line" "Fail to initialize the communicate interface with protection service"
        expect_not_logged "$case, $t" "$stage_root/new/$t.log" "$not_logged"
        [ ! -e "$product" ] && [ -n "$(sc_state $svc)" ] && [ "$(driver)" = gone ] && ! tr -d '\r' <"$record" | grep -q -v -E "$may_get" ||
            fail "$case, $t: something changed or was sent: $(cat "$record")"
    done
    undouble
done <<EOF
stranger#$NV_BIN_DIR/nv_service_double.exe#hvs_install#nv_service_double.exe), not by the protection service#uses an incompatible IPC protocol#^\$
incompatible#C:\\prot\\incompatible\\nv_service_double.exe#hvs_install hvs_upgrade hvs_uninstall#uses an incompatible IPC protocol#Initializing directories.\\|Uninstalling halvern service...\\|Fail to stop#^(1000009 [0-9A-Fa-f]*|1000000 -)$
EOF

wait
for job in interrupted never_starts wont_stop; do cat "$work/$job.txt" && failures=$((failures + $(cat "$work/$job.failures" || echo 1))); done
[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "all setup task checks passed"
