#!/usr/bin/env bash
# The real service's driver steps against the driver simulator, on prefixes claiming Windows 7,
# 8 and 10 (each a clone of the test prefix with its own wineserver and simulator): what start-up
# sends and writes to the registry, the driver protection requests, what shutdown sends, and a
# driver that is not loaded or goes away while the service runs.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
driver_key='HKLM\System\CurrentControlSet\Services\VQRMonitor'
sysdir='\Device\HarddiskVolume1\windows\system32\'
not_loaded='Could not connect to filter: -2147024894 - '

# request ID [HEX] WANT: the reply of one request, in hex.
request() {
    local label="request $1 ${2:-}" want=${!#}
    if [ $# -eq 3 ]; then run "$client" send "$1" "$2"; else run "$client" send "$1"; fi
    [ "$rc" = 0 ] && [ "$(cat "$out")" = "$want" ] || fail "$label: exit $rc, reply [$(cat "$out")], want [$want]"
}
ctl() { wine "$NV_BIN_DIR/driver_ctl.exe" "$@" </dev/null 2>/dev/null | tr -d '\r'; }

# use_prefix NAME VERSION: a clone of the test prefix that claims Windows VERSION, with the
# service in C:\nv and a simulator of its own.
use_prefix() {
    new_prefix "$1"
    [ "$2" = win7 ] || wine winecfg -v "$2" </dev/null >/dev/null 2>&1
    start_sim
    install_service
    ctl reset >/dev/null
}

# Message bytes as the simulator journals them (lower-case hex).
le32() { printf '%02x%02x%02x%02x' $(($1 & 255)) $((($1 >> 8) & 255)) $((($1 >> 16) & 255)) $((($1 >> 24) & 255)); }
feature() { printf '%s00000000%02x' "$(le32 "$1")" "$2"; }
command() {
    local text
    text=$(printf '%s' "$2" | iconv -f UTF-8 -t UTF-16LE | od -An -tx1 -v | tr -d ' \n')
    printf '%s%s%s0000' "$(le32 "$1")" "$(le32 $((${#2} * 2 + 2)))" "$text"
}

# journal: every journaled message's bytes, one a line, in arrival order.
journal() { ctl journal | grep -o '"bytes":"[0-9a-f]*"' | cut -d'"' -f4; }
# The messages of the driver link's own steps: features and codes 3 and 15. Other areas' rule
# commands (and the folder switch around a folder's DACL rewrite) may come between them.
link_messages() {
    grep -E '^(00000000|05000000|06000000|0b000000|10000000)00000000..$|^(03000000|0f000000)' || true
}
# expect_in_order LABEL FILE WANT...: WANT appears in FILE's lines in this order (others may
# come between).
expect_in_order() {
    local label=$1 file=$2 w
    shift 2
    local rest
    rest=$(cat "$file")
    for w in "$@"; do
        if ! printf '%s\n' "$rest" | grep -qx -- "$w"; then
            fail "$label: [$w] missing or out of order; got:"
            cat "$file"
            return
        fi
        rest=$(printf '%s\n' "$rest" | sed -n "/^$w\$/,\$p" | tail -n +2)
    done
}
count_prefix() { grep -c "^$1" "$2" || true; }

# wait_listening: until the service answers a request (start-up is over).
wait_listening() {
    for _ in $(seq 1 150); do
        wine "$client" -t 2000 send 100000a </dev/null >/dev/null 2>&1 && return 0
        sleep 0.2
    done
    fail "the service did not start listening"
    tail -n 20 "$log"
}
# wait_exit PID: the console service ends within 60 seconds.
wait_exit() {
    for _ in $(seq 1 300); do
        kill -0 "$1" 2>/dev/null || { wait "$1"; return 0; }
        sleep 0.2
    done
    fail "the service did not stop within 60 s"
    kill -9 "$1" 2>/dev/null
}

# startup_checks LABEL VERSION: the start-up messages and registry values of one system version.
startup_checks() {
    local label=$1 version=$2
    journal >"$work/startup"
    link_messages <"$work/startup" >"$work/startup.link"
    local want=()
    [ "$version" = win7 ] && want+=("$(feature 5 1)")
    want+=("$(feature 0 1)" "$(feature 6 1)" "$(feature 11 1)")
    grep -q '^10000000' "$work/startup.link" && want+=("$(feature 16 1)")
    for app in csrss.exe lsass.exe svchost.exe; do want+=("$(command 3 "$sysdir$app")"); done
    [ "$version" = win8 ] && want+=("$(command 15 "${sysdir}services.exe")")
    expect_in_order "$label start-up" "$work/startup.link" "${want[@]}"
    local skip=0 svcmgr=0
    [ "$version" = win7 ] && skip=1
    [ "$version" = win8 ] && svcmgr=1
    [ "$(count_prefix 05000000 "$work/startup")" = $skip ] || fail "$label: feature 5 sent $(count_prefix 05000000 "$work/startup") times"
    [ "$(count_prefix 0f000000 "$work/startup")" = $svcmgr ] || fail "$label: code 15 sent $(count_prefix 0f000000 "$work/startup") times"
    [ "$(count_prefix 03000000 "$work/startup")" = 3 ] || fail "$label: trusted applications sent $(count_prefix 03000000 "$work/startup") times"
    [ "$(log_lines 'Windows 8 / Server 2012 detected, set service manager path.')" = $svcmgr ] ||
        fail "$label: Windows 8 line"

    run reg query "$driver_key\\TrustedOpenApps"
    for app in csrss.exe lsass.exe svchost.exe; do
        grep -qF "$sysdir$app    REG_DWORD    0x1" "$out" || fail "$label: TrustedOpenApps value for $app: $(cat "$out")"
    done
    run reg query "$driver_key" /v SvcMgrPath
    if [ "$version" = win8 ]; then
        grep -qF "SvcMgrPath    REG_SZ    ${sysdir}services.exe" "$out" || fail "$label: SvcMgrPath: $(cat "$out")"
    else
        [ "$rc" != 0 ] || fail "$label: SvcMgrPath written: $(cat "$out")"
    fi
    local state
    state=$(ctl state)
    for f in 0 6 11; do
        printf '%s' "$state" | grep -q "\"$f\":true" || fail "$label: feature $f not on: $state"
    done
}

# shutdown_checks LABEL FROM: the messages after the first FROM ones end with the switches off
# and hold no remove command.
shutdown_checks() {
    local label=$1 from=$2
    journal | tail -n +$((from + 1)) >"$work/shutdown"
    link_messages <"$work/shutdown" >"$work/shutdown.link"
    local want=()
    grep -q '^10000000' "$work/shutdown.link" && want+=("$(feature 16 0)")
    want+=("$(feature 0 0)" "$(feature 6 0)" "$(feature 11 0)")
    expect_in_order "$label shutdown" "$work/shutdown.link" "${want[@]}"
    if grep -qE '^(02|08|0a)000000' "$work/shutdown"; then
        fail "$label: remove command at shutdown:"
        cat "$work/shutdown"
    fi
}

echo "== Windows 7, console run: start-up, Ctrl+C"
use_prefix 7 win7
wine "$exe" -d </dev/null >"$work/console7.txt" 2>&1 &
service=$!
wait_listening
startup_checks "win7" win7
mark=$(journal | wc -l)
kill -INT $service
wait_exit $service
shutdown_checks "win7 Ctrl+C" "$mark"

echo "== Windows 7: the driver goes away while the service runs"
ctl reset >/dev/null
wine "$exe" -d </dev/null >"$work/console7b.txt" 2>&1 &
service=$!
wait_listening
before=$(log_lines "$not_loaded")
ctl unload >/dev/null
request 1000007 0100
request 100000a 2D000300
[ "$(log_lines "$not_loaded")" -gt "$before" ] || fail "no connection failure logged after the unload"
ctl load >/dev/null
mark=$(journal | wc -l)
request 1000007 0100
journal | tail -n +$((mark + 1)) >"$work/reload"
printf '%s\n' "$(feature 0 1)" "$(feature 6 1)" "$(feature 11 1)" >"$work/reload.want"
cmp -s "$work/reload.want" "$work/reload" || fail "requests after the driver came back: $(cat "$work/reload")"
mark=$(journal | wc -l)
run "$client" post 1000001
wait_exit $service
shutdown_checks "win7 after reload" "$mark"

echo "== Windows 8, under the service control manager"
use_prefix 8 win8
run "$exe" -i install
[ "$rc" = 0 ] || fail "install: $(cat "$out")"
run "$exe" -s start
[ "$rc" = 0 ] || fail "start: $(cat "$out")"
wait_listening
startup_checks "win8" win8
printf '%s' "$(ctl state)" | grep -qF '"svc_mgr_path":"\\Device\\HarddiskVolume1\\windows\\system32\\services.exe"' ||
    fail "win8: the driver's service manager path: $(ctl state)"
mark=$(journal | wc -l)
run "$exe" -s stop
[ "$rc" = 0 ] || fail "stop: $(cat "$out")"
shutdown_checks "win8 stop" "$mark"
run "$exe" -i uninstall

echo "== Windows 10, console run"
use_prefix 10 win10
wine "$exe" -d </dev/null >"$work/console10.txt" 2>&1 &
service=$!
wait_listening
startup_checks "win10" win10
# A second instance only runs the shutdown: the switches go off and it returns.
mark=$(journal | wc -l)
run "$exe" -d
[ "$rc" = 0 ] || fail "second instance: exit code $rc"
shutdown_checks "win10 second instance" "$mark"
mark=$(journal | wc -l)
run "$client" post 1000001
wait_exit $service
shutdown_checks "win10 stop message" "$mark"

echo "== Windows 10: an emergency start that disables protection"
ctl reset >/dev/null
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v disableProtection /t REG_DWORD /d 1 /f
run "$exe" -d
[ "$rc" = 0 ] || fail "emergency start: exit code $rc"
journal | link_messages >"$work/emergency"
off3=("$(feature 0 0)" "$(feature 6 0)" "$(feature 11 0)")
want=("${off3[@]}")
grep -q '^10000000' "$work/emergency" && want+=("$(feature 16 1)")
for app in csrss.exe lsass.exe svchost.exe; do want+=("$(command 3 "$sysdir$app")"); done
want+=("${off3[@]}")  # the master switch goes off
grep -q '^10000000' "$work/emergency" && want+=("$(feature 16 0)")
want+=("${off3[@]}")  # shutdown
printf '%s\n' "${want[@]}" >"$work/emergency.want"
cmp -s "$work/emergency.want" "$work/emergency" || {
    fail "emergency start messages"
    diff "$work/emergency.want" "$work/emergency"
}

finish "driver port" 80
