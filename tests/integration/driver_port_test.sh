#!/usr/bin/env bash
# The real service's driver steps against the driver simulator, on prefixes claiming Windows 7,
# 8 and 10 (each a clone with its own wineserver and simulator): what start-up sends and writes
# to the registry, the driver protection requests, what shutdown sends, a second instance, and a
# driver that goes away while the service runs. A junk fltlib.dll beside the service, which is
# also its current directory, must never be loaded in place of the system's.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
driver_key='HKLM\System\CurrentControlSet\Services\VQRMonitor'
sysdir='\Device\HarddiskVolume1\windows\system32\'
ctl() { wine "$NV_BIN_DIR/driver_ctl.exe" "$@" </dev/null 2>/dev/null | tr -d '\r'; }

use_prefix() {  # NAME VERSION
    new_prefix "$1"
    [ "$2" = win7 ] || wine winecfg -v "$2" </dev/null >/dev/null 2>&1
    start_sim
    install_service
    printf 'planted, not a library' >"$nv/fltlib.dll"
    ctl reset >/dev/null
}
console() { (cd "$nv" && exec wine "$exe" -d </dev/null >/dev/null 2>&1) & service=$!; }

# Message bytes as the simulator journals them (lower-case hex).
le32() { printf '%02x%02x%02x%02x' $(($1 & 255)) $((($1 >> 8) & 255)) $((($1 >> 16) & 255)) $((($1 >> 24) & 255)); }
f() { printf '%s00000000%02x\n' "$(le32 "$1")" "$2"; }  # feature switch
command() {
    printf '%s%s%s0000\n' "$(le32 "$1")" "$(le32 $((${#2} * 2 + 2)))" \
        "$(printf '%s' "$2" | iconv -f UTF-8 -t UTF-16LE | od -An -tx1 -v | tr -d ' \n')"
}
off3() { f 0 0; f 6 0; f 11 0; }
# journal [MARK]: the bytes of every message after the first MARK, one a line.
journal() { ctl journal | grep -o '"bytes":"[0-9a-f]*"' | cut -d'"' -f4 | tail -n +$((${1:-0} + 1)); }
# The driver link's own messages: features and codes 3 and 15 (other areas send rule commands).
link() { grep -E '^(00|05|06|0b|10)00000000000000..$|^(03|0f)000000' || true; }
# expect_sent LABEL GOT WANT: the same lines.
expect_sent() { [ "$2" = "$3" ] || fail "$1: sent"$'\n'"$2"$'\n'"want"$'\n'"$3"; }
# request ID HEX REPLY [SENT]: the reply in hex, and (when given) the messages that it sent.
request() {
    local mark
    mark=$(journal | wc -l)
    run "$client" send "$1" ${2:+"$2"}
    [ "$rc" = 0 ] && [ "$(cat "$out")" = "$3" ] || fail "request $1 [$2]: exit $rc, reply [$(cat "$out")], want [$3]"
    [ $# -lt 4 ] || expect_sent "request $1 [$2]" "$(journal "$mark")" "$4"
}
wait_listening() {
    for _ in $(seq 1 150); do
        wine "$client" -t 2000 send 100000a </dev/null >/dev/null 2>&1 && return 0
        sleep 0.2
    done
    fail "the service did not start listening"
}
wait_exit() {  # PID: the console run ends within 30 s
    for _ in $(seq 1 150); do
        kill -0 "$1" 2>/dev/null || { wait "$1"; return 0; }
        sleep 0.2
    done
    fail "the service did not stop within 30 s"
    kill -9 "$1" 2>/dev/null
}

startup_checks() {  # VERSION: the start-up messages and registry values
    local want
    want=$([ "$1" = win7 ] && f 5 1; f 0 1; f 6 1; f 11 1; f 16 1
        for app in csrss.exe lsass.exe svchost.exe; do command 3 "$sysdir$app"; done
        [ "$1" = win8 ] && command 15 "${sysdir}services.exe")
    # Protecting the service's own folder switches feature 6 around its DACL rewrite, after 16.
    expect_sent "$1 start-up" "$(journal | link | awk '/^10000000/ { s = 1 } !(s && /^06000000/)')" "$want"
    [ "$(log_lines 'Windows 8 / Server 2012 detected, set service manager path.')" = "$([ "$1" = win8 ] && echo 1 || echo 0)" ] ||
        fail "$1: Windows 8 line"
    run reg query "$driver_key\\TrustedOpenApps"
    for app in csrss.exe lsass.exe svchost.exe; do
        grep -qF "$sysdir$app    REG_DWORD    0x1" "$out" || fail "$1: TrustedOpenApps value for $app: $(cat "$out")"
    done
    run reg query "$driver_key" /v SvcMgrPath
    if [ "$1" = win8 ]; then
        grep -qF "SvcMgrPath    REG_SZ    ${sysdir}services.exe" "$out" || fail "$1: SvcMgrPath: $(cat "$out")"
    else
        [ "$rc" != 0 ] || fail "$1: SvcMgrPath written: $(cat "$out")"
    fi
}
shutdown_checks() {  # LABEL MARK: feature 16 off before 0, 6 and 11, and no remove command
    local sent
    sent=$(journal "$2")
    expect_sent "$1" "$(link <<<"$sent")" "$(f 16 0; off3)"
    ! grep -qE '^(02|08|0a)000000' <<<"$sent" || fail "$1: remove command at shutdown: $sent"
}

echo "== Windows 7, console run: start-up, the protection requests, the driver going away, Ctrl+C"
use_prefix 7 win7
console
wait_listening
startup_checks win7
on3=$(f 0 1; f 6 1; f 11 1)
request 1000008 '' 0000 ''                    # no byte: nothing changes
request 1000008 01 0100 ''                    # already on: nothing is sent
request 1000006 '' 0100 "$(f 0 0; f 6 0; f 11 1)"
request 1000007 '' 0100 "$on3"
request 1000008 00 0100 "$(off3; echo 02000000020000000000; echo 08000000020000000000)"
request 1000008 00 0100 ''
request 1000007 '' 0100 "$(f 0 1; f 6 1; f 11 0)"  # feature 11 follows the registry switch
request 1000006 '' 0100 "$(off3)"
request 1000008 07 0100 "$on3"                 # any non-zero byte is on
request 1000008 01 0100 ''
[ "$(log_lines 'service_enforce_thread stopped')" = 1 ] || fail "the enforcement stopped once, by the switch"
ctl unload-on-send
request 1000007 '' 0100
[ "$(log_lines '] - The kernel component of vqrmonitor has unloaded.$')" = 3 ] || fail "one unloaded line per send"
not_loaded="Could not connect to filter: -2147024894 - [A-Za-z]"
request 1000007 '' 0100
[ "$(log_lines "$not_loaded")" = 1 ] || fail "the connection failure with its text: $not_loaded"
ctl load >/dev/null
request 1000007 '' 0100 "$on3"
mark=$(journal | wc -l)
started=$(date +%s)
kill -INT $service
wait_exit $service
echo "   shutdown took $(($(date +%s) - started)) s"
shutdown_checks "win7 Ctrl+C" "$mark"

echo "== Windows 8, under the service control manager"
use_prefix 8 win8
run "$exe" -i install
expect "install" 0
run "$exe" -s start
expect "start" 0
wait_listening
startup_checks win8
ctl state | grep -qF '"svc_mgr_path":"\\Device\\HarddiskVolume1\\windows\\system32\\services.exe"' ||
    fail "win8: the driver's service manager path: $(ctl state)"
mark=$(journal | wc -l)
run "$exe" -s stop
expect "stop" 0
shutdown_checks "win8 stop" "$mark"
run "$exe" -i uninstall

echo "== Windows 10, console run: a second instance, the stop message, an emergency start"
use_prefix 10 win10
console
wait_listening
startup_checks win10
mark=$(journal | wc -l)
run "$exe" -d
expect "second instance" 0
shutdown_checks "win10 second instance" "$mark"
mark=$(journal | wc -l)
run "$client" post 1000001
wait_exit $service
shutdown_checks "win10 stop message" "$mark"
ctl reset >/dev/null
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v disableProtection /t REG_DWORD /d 1 /f
run "$exe" -d
expect "emergency start" 0
# Features off at start-up, then by the master switch, then by the shutdown.
expect_sent "emergency start" "$(journal | link)" \
    "$(off3; f 16 1; for app in csrss.exe lsass.exe svchost.exe; do command 3 "$sysdir$app"; done; off3; f 16 0; off3)"

finish "driver port" 80
