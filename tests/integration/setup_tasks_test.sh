#!/usr/bin/env bash
# The setup tasks end to end, the way a product installer runs them: "-proxy_task" from a
# staging folder holding the program, the INF and the stand-in driver, under Wine's service
# control manager with the driver simulator, in prefixes of their own. The previous release
# (bin/previous, IPC protocol 3, once named NVHalvernService.exe) is the one upgraded from and
# rolled back to. The interrupted upgrade and the rollback run in prefixes of their own beside
# the other cases (the rollback waits out the client's connect time-out).
# NV_KEEP_WORK=1 keeps the prefixes and logs.
set -uo pipefail
: "${WINEPREFIX:?}" "${NV_BIN_DIR:?}" "${NV_SOURCE_DIR:?}"
export WINEDEBUG=-all WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

fixture=$WINEPREFIX
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-setup-test.XXXXXX")
helper=$NV_BIN_DIR/nv_test_helper.exe
ctl=$NV_BIN_DIR/driver_ctl.exe
halvernctl=$NV_BIN_DIR/halvernctl.exe
new_exe=$NV_BIN_DIR/NorvaleHalvernService.exe
old_exe=$NV_BIN_DIR/previous/NVHalvernService.exe
failures=0

fail() {
    echo "FAIL[$scope]: $*"
    failures=$((failures + 1))
}

# prefix NAME: a clone of the fixture prefix with its own wineserver and driver simulator.
prefix() {
    WINEPREFIX=$fixture bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" clone "$work/$1"
    export WINEPREFIX=$work/$1
    wineserver -p </dev/null >/dev/null 2>&1
    wine cmd /c exit </dev/null >/dev/null 2>&1
    bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" sim
    product="$WINEPREFIX/drive_c/Program Files/Norvale/Halvern Service"
    stage_root=$WINEPREFIX/drive_c/stage
    out=$work/$1.out
}
end_prefix() { wineserver -k >/dev/null 2>&1; }
trap 'for p in main side rollback; do WINEPREFIX=$work/$p wineserver -k >/dev/null 2>&1; done; [ -n "${NV_KEEP_WORK:-}" ] || rm -rf "$work"' EXIT

run() {
    wine "$@" </dev/null >"$out" 2>&1
    rc=$?
    tr -d '\r' <"$out" >"$out.n" && mv "$out.n" "$out"
}
expect_rc() { [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; output: $(head -c 300 "$out")"; }

# stage NAME PROGRAM|damaged: a staging folder C:\stage\NAME with the program (as
# NorvaleHalvernService.exe), the INF and the stand-in driver. A damaged program (random bytes)
# cannot run the task itself: setup.exe, a copy of this build's program, runs it from there.
stage() {
    local dir=$stage_root/$1
    rm -rf "$dir"
    mkdir -p "$dir"
    cp "$NV_BIN_DIR/VQRMonitor.inf" "$NV_BIN_DIR/VQRMonitor.sys" "$dir/"
    if [ "$2" = damaged ]; then
        head -c 4096 /dev/urandom >"$dir/NorvaleHalvernService.exe"
        cp "$new_exe" "$dir/setup.exe"
    else
        cp "$2" "$dir/NorvaleHalvernService.exe"
    fi
}
task() {  # task STAGE TASK [ARG]
    local name=$1
    shift
    : >"$stage_root/$name/nvhalvernservice.debug.log"
    local runner=NorvaleHalvernService.exe
    [ -f "$stage_root/$name/setup.exe" ] && runner=setup.exe
    run "C:\\stage\\$name\\$runner" -proxy_task "$@"
}
task_log() { tr -d '\r' <"$stage_root/$1/$2"; }
expect_logged() {  # expect_logged LABEL STAGE LOGFILE PATTERN
    # grep reads to the end: a reader that quits early would fail the pipe (pipefail) on a long log.
    task_log "$2" "$3" | grep -- "$4" >/dev/null || fail "$1: $3 has no [$4]"
}
expect_not_logged() {
    ! task_log "$2" "$3" | grep -- "$4" >/dev/null || fail "$1: $3 has [$4]"
}
# The file of that name (any case) in the product folder, or nothing.
product_file() { find "$product" -maxdepth 1 -iname "$1" 2>/dev/null | head -n 1; }
expect_product_files() {  # expect_product_files LABEL PROGRAM
    local f
    for f in vqrmonitor.inf vqrmonitor.sys NorvaleHalvernService.exe; do
        [ -n "$(product_file "$f")" ] || fail "$1: no $f in the product folder"
    done
    cmp -s "$2" "$(product_file NorvaleHalvernService.exe)" || fail "$1: the product folder holds another program"
    [ -z "$(find "$product" -maxdepth 1 -iname '*.bak' 2>/dev/null)" ] || fail "$1: .bak files left: $(ls "$product")"
}
field() {  # field SERVICE FIELD: a field of "sc qc" / "sc query"
    wine sc "$3" "$1" </dev/null 2>/dev/null | tr -d '\r' | awk -v f="$2" '$1 == f { $1 = ""; $2 = ""; sub(/^ +/, ""); print; exit }'
}
service_state() { field "$1" STATE query | awk '{ print $2 }'; }
service_binary() {
    wine reg query 'HKLM\System\CurrentControlSet\Services\norvale_halvern_svc' /v ImagePath </dev/null 2>/dev/null |
        tr -d '\r' | awk '$1 == "ImagePath" { $1 = ""; $2 = ""; sub(/^ +/, ""); print; exit }'
}
expect_running() {  # expect_running LABEL PACKED_VERSION PROTOCOL
    [ "$(service_state norvale_halvern_svc)" = RUNNING ] || fail "$1: the service is [$(service_state norvale_halvern_svc)]"
    run "$halvernctl" status
    grep -q "protocol_version: $3" "$out" && grep -q "service_version: $2" "$out" ||
        fail "$1: the running service is not version $2 / protocol $3: $(cat "$out")"
}
service_pid() { wine "$helper" service-pid norvale_halvern_svc </dev/null 2>/dev/null | tr -d '\r'; }
windows_process_alive() { wine "$helper" process-alive "$1" </dev/null >/dev/null 2>&1; }
key_exists() { wine reg query "$1" </dev/null >/dev/null 2>&1; }
helper_key='HKLM\Software\Norvale\NVClientHelper'
# Two services of the machine, running and protected by the installed service.
protect_two_services() {
    local name
    for name in nv_setup_svc_a nv_setup_svc_b; do
        mkdir -p "$WINEPREFIX/drive_c/prot/$name"
        cp "$NV_BIN_DIR/nv_test_service.exe" "$WINEPREFIX/drive_c/prot/$name/"
        run sc create "$name" binPath= "C:\\prot\\$name\\nv_test_service.exe" start= demand
        run sc start "$name"
    done
    run "$halvernctl" service protect nv_setup_svc_a nv_setup_svc_b
    expect_rc "two services protected" 0
}
expect_protected() {
    run "$halvernctl" service list
    grep -q nv_setup_svc_a "$out" && grep -q nv_setup_svc_b "$out" || fail "$1: the two services are not protected: $(cat "$out")"
}

new_packed=196653
old_packed=$(( (3 << 16) + 40 ))

# ---------------------------------------------------------------------------------------------
# The interrupted upgrade, in its own prefix: the task killed after the backup, before the
# program and the driver are copied (the staged INF, copied first, is made big enough to copy
# for a while); run again, it completes.
side() {
    scope=interrupted
    prefix side
    stage old "$old_exe"
    task old hvs_install
    expect_rc "previous release installed" 0
    stage good "$new_exe"
    stage blocked "$new_exe"
    truncate -s 768M "$stage_root/blocked/VQRMonitor.inf"
    wine 'C:\stage\blocked\NorvaleHalvernService.exe' -proxy_task hvs_upgrade </dev/null >"$out" 2>&1 &
    local task_pid=$!
    local copying=
    for _ in $(seq 1 2000); do
        if grep -q "Copying files" "$stage_root/blocked/nvhalvernservice.debug.log" 2>/dev/null; then
            kill -9 "$task_pid" 2>/dev/null
            copying=1
            break
        fi
        sleep 0.02
    done
    wait "$task_pid" 2>/dev/null
    rm -f "$stage_root/blocked/VQRMonitor.inf"
    [ -n "$copying" ] || fail "the upgrade never reached the copy"
    tr -d '\r' <"$stage_root/blocked/nvhalvernservice.debug.log" | grep "Installing VQRMonitor driver" >/dev/null &&
        fail "the task was killed only after the copy"
    [ -z "$(product_file NorvaleHalvernService.exe)" ] || fail "the new program was copied before the kill"
    # Nothing lost: every file of the previous release is there, under its name or as .bak.
    [ -n "$(product_file NorvaleHalvernService.exe.bak)" ] || fail "the previous program is gone after the kill"
    [ -n "$(product_file vqrmonitor.sys.bak)" ] || fail "the previous driver file is gone after the kill"
    cmp -s "$old_exe" "$(product_file NorvaleHalvernService.exe.bak)" || fail "the backup is not the previous program"
    task good hvs_upgrade
    expect_rc "upgrade run again" 0
    expect_logged "upgrade run again" good hvs_upgrade.log "treat it as fresh install"
    expect_product_files "upgrade run again" "$new_exe"
    expect_running "upgrade run again" $new_packed 5
    end_prefix
    echo "$failures" >"$work/side.failures"
}
( side ) >"$work/side.txt" 2>&1 &
side_job=$!

# ---------------------------------------------------------------------------------------------
# A failing upgrade, in its own prefix: the rollback's stop of the new service waits out the
# client's connect time-out (120 s) on the damaged program that cannot start.
rollback() {
    scope=rollback
    prefix rollback
    echo "== a failing upgrade puts the previous release back"
    stage old "$old_exe"
    task old hvs_install
    expect_rc "previous release installed" 0
    protect_two_services
    stage damaged damaged
    task damaged hvs_upgrade
    expect_rc "failing upgrade" 254
    cmp -s "$old_exe" "$(product_file NorvaleHalvernService.exe)" || fail "failing upgrade: the previous program is not back"
    [ -n "$(product_file vqrmonitor.sys)" ] || fail "failing upgrade: the driver file is not back"
    [ -z "$(find "$product" -maxdepth 1 -iname '*.bak')" ] || fail "failing upgrade: .bak files left: $(ls "$product")"
    expect_running "failing upgrade" $old_packed 3
    expect_protected "failing upgrade"
    for line in "Backup files." "Copying files." "Installing VQRMonitor driver..." "Installing halvern service..." \
        "Failed to run command <" "restore_previous_service.*Installing VQRMonitor driver..." "Leaving halvern service install function..."; do
        expect_logged "failing upgrade" damaged hvs_upgrade.log "$line"
    done
    end_prefix
    echo "$failures" >"$work/rollback.failures"
}
( rollback ) >"$work/rollback.txt" 2>&1 &
rollback_job=$!

# ---------------------------------------------------------------------------------------------
scope=main
prefix main

echo "== a fresh install that fails (damaged program) rolls nothing back"
stage damaged damaged
task damaged hvs_fresh
expect_rc "fresh install, damaged program" 254
expect_logged "fresh, damaged" damaged hvs_install.log "Failed to run command <\"C:\\\\Program Files\\\\Norvale\\\\Halvern Service\\\\NorvaleHalvernService.exe\" -i install>"
expect_not_logged "fresh, damaged" damaged hvs_install.log "restore_previous_service"
[ -z "$(service_state norvale_halvern_svc)" ] || fail "fresh, damaged: a service was registered"
rm -rf "$product"

echo "== hvs_install on a clean machine"
stage new "$new_exe"
task new hvs_install
expect_rc "hvs_install" 0
expect_product_files "hvs_install" "$new_exe"
[ "$(service_state VQRMonitor)" = RUNNING ] || [ -n "$(field VQRMonitor TYPE query)" ] || fail "hvs_install: no driver"
[ -f "$WINEPREFIX/drive_c/windows/system32/drivers/VQRMonitor.sys" ] || fail "hvs_install: no driver file"
expect_running "hvs_install" $new_packed 5
[[ "$(service_binary)" == *'Program Files\Norvale\Halvern Service\NorvaleHalvernService.exe'* ]] ||
    fail "hvs_install: the service runs [$(service_binary)]"
for line in "Entering halvern service install proxy function..." "Halvern service has not been detected, prepare a fresh install." \
    "Initializing directories." "Backup files." "Creating folders." "Copying files." "Installing VQRMonitor driver..." \
    "Installing halvern service..." "Starting protection service" "Leaving halvern service install function..."; do
    expect_logged "hvs_install" new hvs_install.log "$line"
done
expect_not_logged "hvs_install" new hvs_install.log "services_backup\|Fail to stop"

echo "== folder repair: the driver port reachable changes nothing"
mkdir -p "$WINEPREFIX/drive_c/other"
task new hvs_folder_repair 'C:\other'
expect_rc "repair, port reachable" 0
expect_logged "repair, port reachable" new nvhalvernservice.debug.log "Driver can be loaded, no repair needed."
[ ! -e "$stage_root/new/hvs_folder_repair.log" ] || fail "repair: a task log was copied"
echo "== folder repair: the driver unreachable writes the default descriptor on both folders"
run "$ctl" unload
run reg add "$helper_key" /v ObjectSecurityJournal /t REG_SZ /d 'C:\stage\repair.journal' /f
task new hvs_folder_repair 'C:\other'
expect_rc "repair, port unreachable" 0
for folder in 'C:\other' 'C:\Program Files\Norvale\Halvern Service\'; do
    tr -d '\r' <"$stage_root/repair.journal" | grep -F "file	$folder	" | grep -q -F '(A;OICIID;FA;;;BA)' ||
        fail "repair, port unreachable: no default descriptor written to $folder: $(cat "$stage_root/repair.journal")"
done
expect_logged "repair, port unreachable" new nvhalvernservice.debug.log "Driver could not be loaded, repair needed."
expect_logged "repair, port unreachable" new nvhalvernservice.debug.log "Restoring permissions of folder (C:\\\\other)"
expect_logged "repair, port unreachable" new nvhalvernservice.debug.log "Restoring permissions of folder (C:\\\\Program Files\\\\Norvale\\\\Halvern Service\\\\)"
task new hvs_folder_repair 'C:\missing'
expect_rc "repair, missing folder" 0
expect_logged "repair, missing folder" new nvhalvernservice.debug.log "Folder <C:\\\\missing> does not exist."
run "$ctl" load

echo "== hvs_uninstall: service, driver, files, folder and registry key gone"
run reg add "$helper_key\\install" /v services_backup /t REG_MULTI_SZ /d "x" /f
task new hvs_uninstall
expect_rc "hvs_uninstall" 0
[ -z "$(service_state norvale_halvern_svc)" ] || fail "hvs_uninstall: the service is still there"
[ -z "$(field VQRMonitor TYPE query)" ] || fail "hvs_uninstall: the driver service is still there"
[ ! -e "$WINEPREFIX/drive_c/windows/system32/drivers/VQRMonitor.sys" ] || fail "hvs_uninstall: driver file left"
[ ! -e "$product" ] || fail "hvs_uninstall: the product folder is still there: $(ls "$product")"
! key_exists "$helper_key" || fail "hvs_uninstall: $helper_key is still there"
for line in "Entering halvern service uninstall proxy function..." "Uninstalling halvern service..." \
    "Uninstalling VQRMonitor driver..." "Removing files..." "trying to remove folder..." \
    "trying to remove registry entries..." "Leaving halvern service uninstall proxy function..."; do
    expect_logged "hvs_uninstall" new hvs_uninstall.log "$line"
done
run "$ctl" load

echo "== hvs_uninstall ends with 0 when a file cannot be removed"
task new hvs_install
expect_rc "install again" 0
cp "$NV_BIN_DIR/installer_probe.exe" "$stage_root/"
wine 'C:\stage\installer_probe.exe' hold-image 'C:\Program Files\Norvale\Halvern Service\vqrmonitor.sys' 'Global\nv_setup_test_release' \
    </dev/null >"$work/hold.txt" 2>&1 &
hold_pid=$!
for _ in $(seq 1 100); do grep -q holding "$work/hold.txt" && break; sleep 0.2; done
task new hvs_uninstall
expect_rc "hvs_uninstall, file held" 0
expect_logged "hvs_uninstall, file held" new hvs_uninstall.log "Unable to remove folder <C:\\\\Program Files\\\\Norvale\\\\Halvern Service\\\\>"
[ -z "$(service_state norvale_halvern_svc)" ] || fail "hvs_uninstall, file held: the service is still there"
wine "$helper" set-event 'Global\nv_setup_test_release' </dev/null >/dev/null 2>&1
wait "$hold_pid" 2>/dev/null
rm -rf "$product"
run "$ctl" load

echo "== hvs_upgrade from the previous release"
stage old "$old_exe"
task old hvs_install
expect_rc "previous release installed" 0
expect_running "previous release" $old_packed 3
protect_two_services
old_pid=$(service_pid)
: >"$product/nvhalvernservice.debug.log"
task new hvs_upgrade
expect_rc "hvs_upgrade" 0
expect_product_files "hvs_upgrade" "$new_exe"
expect_running "hvs_upgrade" $new_packed 5
[ -n "$old_pid" ] && [ "$old_pid" != 0 ] && ! windows_process_alive "$old_pid" || fail "hvs_upgrade: the old service process $old_pid is still there"
for line in "Checking halvern service compatibility." "Backup files." "Copying files." "Leaving halvern service install function..."; do
    expect_logged "hvs_upgrade" new hvs_upgrade.log "$line"
done
expect_protected "hvs_upgrade"
[[ "$(wine reg query "$helper_key\\install" /v services_backup </dev/null 2>/dev/null | tr -d '\r')" == *nv_setup_svc_a*nv_setup_svc_b* ]] ||
    fail "hvs_upgrade: services_backup does not list the two services"
tr -d '\r' <"$product/nvhalvernservice.debug.log" | grep "Received IPC message 1000008, payload size: 1" >/dev/null ||
    fail "hvs_upgrade: the previous service was not asked to switch protection off"
tr -d '\r' <"$product/nvhalvernservice.debug.log" | grep "protect service nv_setup_svc_a" >/dev/null ||
    fail "hvs_upgrade: the new service was not given the services back"

echo "== hvs_upgrade from a release named NVHalvernService.exe"
task new hvs_uninstall
expect_rc "uninstall before the old name" 0
run "$ctl" load
mkdir -p "$product"
cp "$old_exe" "$NV_BIN_DIR/VQRMonitor.sys" "$NV_BIN_DIR/VQRMonitor.inf" "$product/"
old_named='C:\Program Files\Norvale\Halvern Service\NVHalvernService.exe'
run "$old_named" -i instdrv
run "$old_named" -i install
run "$old_named" -s start
expect_running "old name installed" $old_packed 3
echo "== ... a failing upgrade gives the old name back"
stage damaged damaged
task damaged hvs_upgrade
expect_rc "failing upgrade, old name" 254
[ -n "$(product_file NVHalvernService.exe)" ] || fail "failing upgrade, old name: NVHalvernService.exe not back"
[[ "$(service_binary)" == *'NVHalvernService.exe'* ]] || fail "failing upgrade, old name: the service runs [$(service_binary)]"
expect_running "failing upgrade, old name" $old_packed 3
echo "== ... the upgrade registers the new name"
task new hvs_upgrade
expect_rc "upgrade from the old name" 0
[[ "$(service_binary)" == *'NorvaleHalvernService.exe'* ]] || fail "upgrade from the old name: the service runs [$(service_binary)]"
[ -z "$(product_file NVHalvernService.exe)" ] || fail "upgrade from the old name: NVHalvernService.exe left"
expect_product_files "upgrade from the old name" "$new_exe"
expect_running "upgrade from the old name" $new_packed 5

echo "== a service speaking an incompatible protocol: every task fails before anything changes"
task new hvs_uninstall
run "$ctl" load
# A running service whose pipe answers the protocol request with a failure.
mkdir -p "$WINEPREFIX/drive_c/prot/incompatible"
cp "$NV_BIN_DIR/nv_test_service.exe" "$WINEPREFIX/drive_c/prot/incompatible/"
run sc create norvale_halvern_svc binPath= 'C:\prot\incompatible\nv_test_service.exe' start= demand
run sc start norvale_halvern_svc
wine "$NV_BIN_DIR/nv_service_double.exe" norvale_halvern_svc 'C:\double.txt' 'Global\nv_setup_test_double' \
    --reply 1000009 00 </dev/null >/dev/null 2>&1 &
double_pid=$!
sleep 2
for t in hvs_install hvs_upgrade hvs_uninstall; do
    task new "$t"
    expect_rc "incompatible, $t" 254
    case $t in hvs_uninstall) logname=hvs_uninstall.log ;; hvs_upgrade) logname=hvs_upgrade.log ;; *) logname=hvs_install.log ;; esac
    expect_logged "incompatible, $t" new $logname "uses an incompatible IPC protocol"
    expect_logged "incompatible, $t" new $logname "Fail to initialize the communicate interface with protection service"
    expect_not_logged "incompatible, $t" new $logname "Initializing directories.\|Uninstalling halvern service...\|Fail to stop"
    [ ! -e "$product" ] || fail "incompatible, $t: the product folder was made"
    [ -n "$(service_state norvale_halvern_svc)" ] || fail "incompatible, $t: the registration was removed"
    [ -z "$(field VQRMonitor TYPE query)" ] || fail "incompatible, $t: a driver was installed"
done
wine "$helper" set-event 'Global\nv_setup_test_double' </dev/null >/dev/null 2>&1
wait "$double_pid" 2>/dev/null
end_prefix

scope=main
for job in side rollback; do
    if [ "$job" = side ]; then wait "$side_job"; else wait "$rollback_job"; fi
    cat "$work/$job.txt"
    failures=$((failures + $(cat "$work/$job.failures" 2>/dev/null || echo 1)))
done
if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "all setup task checks passed"
