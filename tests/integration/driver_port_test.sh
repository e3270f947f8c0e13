#!/usr/bin/env bash
# The real service's driver link against the driver simulator, on prefixes claiming Windows 7,
# 8 and 10 (each a clone with its own wineserver and simulator): what start-up sends and writes
# to the registry, the driver protection requests, what shutdown sends, a second instance, a
# driver that goes away or is not loaded, and IRP-denied notifications to subscriber processes
# (denials injected with driver_ctl). A junk fltlib.dll beside the service, which is also its
# current directory, must never be loaded in place of the system's.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
driver_key='HKLM\System\CurrentControlSet\Services\VQRMonitor' sysdir='\Device\HarddiskVolume1\windows\system32\'
ctl() { wine "$NV_BIN_DIR/driver_ctl.exe" "$@" </dev/null 2>/dev/null | tr -d '\r'; }

use_prefix() {  # NAME VERSION
    new_prefix "$1"
    [ "$2" = win7 ] || wine winecfg -v "$2" </dev/null >/dev/null 2>&1
    start_sim
    install_service
    printf 'planted, not a library' >"$nv/fltlib.dll"
    ctl reset >/dev/null
}

# Message bytes: a feature switch, a command with its path.
f() { printf '%s00000000%02X\n' "$(hex_u32 "$1")" "$2"; }
command() { printf '%s%s%s\n' "$(hex_u32 "$1")" "$(hex_u32 $((${#2} * 2 + 2)))" "$(hex_wstr "$2")"; }
off3() { f 0 0; f 6 0; f 11 0; }
# journal [MARK]: the bytes of every message after the first MARK, one a line.
journal() { ctl journal | grep -o '"bytes":"[0-9a-f]*"' | cut -d'"' -f4 | tr a-f A-F | tail -n +$((${1:-0} + 1)); }
# The driver link's own messages: features and codes 3 and 15 (other areas send rule commands).
link() { grep -E '^(00|05|06|0B|10)00000000000000..$|^(03|0F)000000' || true; }
# expect_sent LABEL GOT WANT: the same lines.
expect_sent() { [ "$2" = "$3" ] || fail "$1: sent"$'\n'"$2"$'\n'"want"$'\n'"$3"; }
# request ID HEX REPLY [SENT]: the reply in hex, and (when given) the messages that it sent.
request() {
    local mark=$(journal | wc -l)
    runs "request $1 [$2]" 0 "$3" "$client" send "$1" ${2:+"$2"}
    [ $# -lt 4 ] || expect_sent "request $1 [$2]" "$(journal "$mark")" "$4"
}
wait_listening() {
    poll 150 0.2 'wine "$client" -t 2000 send 100000a </dev/null >/dev/null 2>&1' || fail "the service did not start listening"
}
console() { (cd "$nv" && exec wine "$exe" -d </dev/null >/dev/null 2>&1) & service=$!; wait_listening; }  # its pid in $service
wait_exit() {  # PID: the console run ends within 30 s, with exit code 0
    local pid=$1
    poll 150 0.2 '! kill -0 $pid 2>/dev/null' || { fail "the service did not stop within 30 s"; kill -9 "$pid" 2>/dev/null; }
    wait "$pid" 2>/dev/null || fail "the console run ended with exit code $?"
}

startup_checks() {  # VERSION: the start-up messages and registry values
    local want=$([ "$1" = win7 ] && f 5 1; f 0 1; f 6 1; f 11 1; f 16 1
        for app in csrss.exe lsass.exe svchost.exe; do command 3 "$sysdir$app"; done
        [ "$1" = win8 ] && command 15 "${sysdir}services.exe")
    # Protecting the service's own folder switches feature 6 around its DACL rewrite, after 16.
    expect_sent "$1 start-up" "$(journal | link | awk '/^10000000/ { s = 1 } !(s && /^06000000/)')" "$want"
    expect_eq "$1: Windows 8 line" "$([ "$1" = win8 ] && echo 1 || echo 0)" "$(log_lines 'Windows 8 / Server 2012 detected, set service manager path.')"
    for app in csrss.exe lsass.exe svchost.exe; do
        expect_eq "$1: TrustedOpenApps value for $app" "REG_DWORD 0x1" "$(reg_value "$driver_key\\TrustedOpenApps" "$sysdir$app")"
    done
    expect_eq "$1: SvcMgrPath" "$([ "$1" = win8 ] && echo "REG_SZ ${sysdir}services.exe")" "$(reg_value "$driver_key" SvcMgrPath)"
}
shuts_down() {  # LABEL COMMAND: what COMMAND (evaluated) sends: feature 16 off before 0, 6 and 11, no remove command
    local mark=$(journal | wc -l) sent
    eval "$2"
    sent=$(journal "$mark")
    expect_sent "$1" "$(link <<<"$sent")" "$(f 16 0; off3)"
    ! grep -qE '^(02|08|0A)000000' <<<"$sent" || fail "$1: remove command at shutdown: $sent"
}

# IRP-denied notifications. wait_log PATTERN COUNT: until the log holds COUNT lines (60 s).
wait_log() {
    local pattern=$1 count=$2
    poll 300 0.2 '[ "$(log_lines "$pattern")" -ge "$count" ]' || fail "log line [$1] x$2 did not come"
}
expect_log() { [ "$(log_lines "$1")" = "$2" ] || fail "log line [$1]: $(log_lines "$1") times, want $2"; }
file='\Device\HarddiskVolume1\data\file.txt'
# A subscription request 0x10000fa from its fields: REMOVE SUBSCRIBER EVENT PATH [MAJOR MINOR TYPE].
subscription() { encode subscribe-irp-notification unsubscribe="$1" subscriber="$2" event="$3" file="$4" major="${5:-0xFF}" minor="${6:-0xFF}" type="${7:-0}"; }
# subscriber NAME EVENT PATH [MAJOR MINOR TYPE]: a process of its own creates EVENT and waits
# for it ($wpid, exit 0 once it fired), then NAME subscribes with it over the pipe.
subscriber() {
    waiter wpid "$work/$1.event" wait-event "$2" 60000
    request 10000fa "$(subscription 0 "$@")" 0100
}
# records NAME: the reply to one 0x10000fb in hex, then " again" unless the next reply is empty.
records() {
    run "$client" send 10000fb "$(hex_str "$1")"; cat "$out"
    run "$client" send 10000fb "$(hex_str "$1")"; [ "$(cat "$out")" = 00000000 ] || echo " again"
}
# record PATH PID IMAGE DESCRIPTION: a list of one IRP-denied record (any sequence and time) as a pattern.
record() { printf '01000000[0-9A-F]{32}%s0300%s00000000%s%s01000000' "$(hex_str "$1")" "$(hex_u32 "$2")" "$(hex_str "$3")" "$(hex_str "$4")"; }
# expect_record NAME PATTERN: NAME collects one record, which matches.
expect_record() { local got; got=$(records "$1"); [[ "$got" =~ ^$2$ ]] || fail "$1: the record [$got]"; }

echo "== Windows 7, console run: start-up, the protection requests, the driver going away, Ctrl+C"
use_prefix 7 win7
console
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
ctl unload-on-send
request 1000007 '' 0100
[ "$(log_lines '] - The kernel component of vqrmonitor has unloaded.$')" = 3 ] || fail "one unloaded line per send"
not_loaded="Could not connect to filter: -2147024894 - [A-Za-z]"
ctl load >/dev/null
request 1000007 '' 0100 "$on3"
shuts_down "win7 Ctrl+C" 'kill -INT $service; wait_exit $service'

echo "== Windows 8, under the service control manager; a stop message without a name"
use_prefix 8 win8
run "$exe" -i install
runs "start" 0 '*' "$exe" -s start
wait_listening
startup_checks win8
# A denial by the service's own process: its image and description in the record.
subscriber scm 'Global\nv_scm' 'c:\data\file.txt' 3 0xFF 1
spid=$(wine "$helper" service-pid $svc </dev/null | tr -d '\r')
run "$ctl" inject 3 0 "$spid" "$file"
wait $wpid || fail "scm: the event did not fire"
expect_record scm "$(record 'c:\data\file.txt' "$spid" 'C:\nv\NorvaleHalvernService.exe' 'Norvale Halvern Service')"
# Type 0 and the fixed fields only: a stop message's name is not read.
run "$ctl" inject-raw "$(printf '%032d' 0)000000000000000000000000"
wait_log 'Received the stop message from driver' 1
runs "a request after the stop message" 0 '*' "$client" version
shuts_down "win8 stop" 'within 30 runs "stop" 0 "*" "$exe" -s stop'
run "$exe" -i uninstall

echo "== Windows 10, console run: IRP-denied notifications"
use_prefix 10 win10
console
startup_checks win10
poll 150 0.2 'ctl state | grep -q "\"notify\":1"' || fail "one notification connection: $(ctl state)"

echo "== a denial reaches two subscribers, each collects its own record once"
subscriber subA 'Global\nv_subA' 'C:\Data\File.TXT'
procA=$wpid
subscriber subB 'Global\nv_subB' ''
runs "inject" 0 '*' "$ctl" inject 3 0 4000000 "$file"  # no such process: no image, no description
wait $procA && wait $wpid || fail "an event did not fire"
a=$(records subA) b=$(records subB)
for got in "$a" "$b"; do
    [[ "$got" =~ ^$(record 'c:\data\file.txt' 4000000 '' '')$ ]] || fail "a subscriber's record [$got]"
done
[ "${a:8:16}" != "${b:8:16}" ] || fail "two records with one sequence: $a / $b"
expect_log 'Notify subscriber <subA> on IRP for file <c:\\data\\file.txt>' 1
expect_log 'Coverted file path="c:\\data\\file.txt"' 1
expect_log 'Received the IRP denied notification: FileName="\\Device\\HarddiskVolume1\\data\\file.txt" MajorFun=3, MinorFunc=0, pid=0x' 1
expect_log "Found notification data for <subA> on file <c:\\\\data\\\\file.txt>, from pid <4000000>" 1

echo "== a name on no volume reaches the any-file subscribers with an empty path; an event that is gone"
subscriber any 'Global\nv_any' ''
run "$ctl" inject 3 0 4000000 '\Device\NoSuchVolume\x'
wait $wpid || fail "any: the event did not fire"
expect_record any "$(record '' 4000000 '' '')"
expect_log 'Failed to notify subscriber <subB> on IRP for file <>, unable to open event <Global\\nv_subB>, error: 2' 1

echo "== requests on the wire: bad ones refused with a line, the table left alone"
waiter wire "$work/wire.event" wait-event 'Global\wire_ev' 600000  # the subscriptions' event
# ID|PAYLOAD|REPLY|LOG LINE ('-': none)
while IFS='|' read -r id payload reply line; do
    request "$id" "$payload" "$reply"
    [ "$line" = - ] || [ "$(log_lines "$line")" = 1 ] || fail "$id [$payload]: log line [$line] x$(log_lines "$line")"
done <<ROWS
10000fa|$(subscription 0 wire 'Global\wire_ev' 'C:\Wire\A.TXT')|0100|Add subscription for <wire> on file <c:\\\\wire\\\\a.txt>
10000fa|$(subscription 0 wire 'Global\wire_ev' '')|0100|Add subscription for <wire> on file <subscribe_any_file>
10000fa|$(subscription 1 wire '' 'C:\WIRE\a.txt')|0000|-
10000fa|$(subscription 1 wire e 'C:\WIRE\a.txt')|0100|Remove subscription for <wire> on file <c:\\\\wire\\\\a.txt>
10000fa|$(subscription 0 '' e p)|0000|-
10000fa|71|0000|Subscription request of 1 bytes is truncated, refused
10000fa|$(subscription 0 "$(printf 's%.0s' $(seq 300))" e p)|0000|Subscription request of 312 bytes is oversized (at most 1554 bytes, names 260, path 1024), refused
10000fb|$(hex_str nobody)|00000000|-
10000fb|00|00000000|-
10000fb|71|00000000|Query of 1 bytes is truncated, refused
10000fb|$(hex_str "$(printf 'q%.0s' $(seq 261))")|00000000|Query of 262 bytes is oversized (a subscriber name of at most 260 bytes), refused
10000fb|$(hex_str wire)00|00000000|Query of 6 bytes is oversized
10000fa|$(subscription 0 wire 'Global\wire_ev' '')|0000|-
ROWS

echo "== malformed notifications are dropped with a line"
header=$(printf '%032d' 0) fixed=010000000300000000000000  # type 1, functions 3 and 0, pid 0
run "$ctl" inject-raw "$header${fixed:0:22}"  # 27 bytes
run "$ctl" inject-raw "$header$fixed"
run "$ctl" inject-raw "${header}070000000300000000000000"  # an unknown type: its name is not read
run "$ctl" inject-raw "$header${fixed}410000"  # cut inside the terminator
run "$ctl" inject-raw "$header$fixed$(printf '41%.0s' $(seq 524))"  # to byte 552 without a terminator
run "$ctl" inject-raw "$header${fixed}41000000"  # cut right after the terminator: taken
wait_log 'Received the IRP denied notification: FileName="A"' 1
expect_log 'Message of 27 bytes is shorter than its header (28 bytes), dropped.' 1
expect_log 'The file name of message 0 does not end inside the message, dropped.' 3
expect_log 'Invalid notification type 7, message ignored.' 1

echo "== a second instance; with the stop message switched off the receiver's own wait is cancelled at the stop"
run "$ctl" stop-message off
shuts_down "win10 second instance" 'runs "second instance" 0 "*" "$exe" -d'
shuts_down "win10 stop message" 'run "$client" post 1000001; wait_exit $service'
expect_log '\[IRP Notification\]: FilterGetMessage aborted: -2147023901 - [A-Za-z]' 1
expect_log 'Received the stop message from driver' 0
expect_log 'Failed to close the notification port' 0
run "$ctl" stop-message on

echo "== driver not loaded: start-up goes on without the receiver, requests are still served"
run "$ctl" unload
console
# Features 0/6/11, feature 16 and the three trusted applications: a line each at least.
[ "$(log_lines "$not_loaded")" -ge 5 ] || fail "a connection failure line with its text for every attempt"
expect_log 'Could not connect to filter for notification' 0
subscriber nodrv 'Global\nv_nodrv' 'c:\x'
request 10000fb "$(hex_str nodrv)" 00000000
run "$client" post 1000001
wait_exit $service
run "$ctl" load

echo "== an emergency start"
ctl reset >/dev/null
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v disableProtection /t REG_DWORD /d 1 /f
run reg add 'HKLM\Software\Norvale\NVClientHelper\EmergencyRecover' /v code /t REG_SZ /d "$(recovery_code)" /f
runs "emergency start" 0 '*' "$exe" -d
# Features off at start-up, then by the master switch, then by the shutdown.
expect_sent "emergency start" "$(journal | link)" \
    "$(off3; f 16 1; for app in csrss.exe lsass.exe svchost.exe; do command 3 "$sysdir$app"; done; off3; f 16 0; off3)"

finish "driver link" 80
