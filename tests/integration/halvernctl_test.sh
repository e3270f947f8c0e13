#!/usr/bin/env bash
# halvernctl end to end, in a prefix of its own: usage errors and help, a service that is not
# installed, status and the stopped service that a command starts (the real service), then every
# command against nv_service_double playing the service (the bytes each command sends, its
# output as text and as JSON, refusals, the protocol gates, watch).
set -uo pipefail
: "${WINEPREFIX:?}" "${NV_BIN_DIR:?}" "${NV_SOURCE_DIR:?}"
export WINEDEBUG=-all WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

work=$(mktemp -d "${TMPDIR:-/tmp}/nv-halvernctl-test.XXXXXX")
bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" clone "$work/prefix"
export WINEPREFIX=$work/prefix
wineserver -p </dev/null >/dev/null 2>&1
cleanup() {
    wineserver -k >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
wine cmd /c exit </dev/null >/dev/null 2>&1

mkdir -p "$WINEPREFIX/drive_c/nv"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$WINEPREFIX/drive_c/nv/"
exe='C:\nv\NorvaleHalvernService.exe'
log=$WINEPREFIX/drive_c/nv/nvhalvernservice.debug.log
ctl=$NV_BIN_DIR/halvernctl.exe
double=$NV_BIN_DIR/nv_service_double.exe
helper=$NV_BIN_DIR/nv_test_helper.exe
svc=norvale_halvern_svc

failures=0
out=$work/out.txt
err=$work/err.txt
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
# run PROGRAM ARGS...: standard output in $out, standard error in $err, exit code in $rc.
run() {
    wine "$@" </dev/null >"$out" 2>"$err"
    rc=$?
    sed -i 's/\r$//' "$out" "$err"
}
expect_rc() { [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; stdout: $(cat "$out"); stderr: $(cat "$err")"; }
expect_out() { [ "$(cat "$out")" = "$2" ] || fail "$1: stdout [$(cat "$out")], want [$2]"; }
expect_err() { [ "$(cat "$err")" = "$2" ] || fail "$1: stderr [$(cat "$err")], want [$2]"; }
expect_in() { grep -qF -- "$3" "$2" || fail "$1: [$3] not in $(basename "$2"): $(head -c 400 "$2")"; }
# json EXPRESSION: evaluates a Python expression over the JSON document on stdout (as d).
json() { python3 -c "import json,sys; d=json.load(open(sys.argv[1])); v=($1); print(v)" "$out" 2>&1; }
state() {
    wine "$exe" -c $svc </dev/null >/dev/null 2>&1
    echo $?
}
wait_state() {
    for _ in $(seq 1 150); do
        [ "$(state)" = "$1" ] && return 0
        sleep 0.2
    done
    fail "service state $(state), want $1"
}
log_lines() { tr -d '\r' <"$log" 2>/dev/null | grep -c -- "$1"; }

echo "== usage errors give exit code 2 and the help text"
while IFS='|' read -r args want; do
    # shellcheck disable=SC2086
    run "$ctl" $args
    expect_rc "halvernctl $args" 2
    expect_in "halvernctl $args" "$err" "$want"
    expect_in "halvernctl $args: help" "$err" "usage: halvernctl [--json]"
    [ -s "$out" ] && fail "halvernctl $args: stdout not empty"
done <<'EOF'
|usage: halvernctl [--json] COMMAND
bogus|halvernctl: unknown command: bogus
service protect|halvernctl: missing arguments
service stop a b|halvernctl: too many arguments
service list --bogus|halvernctl: unknown option: --bogus
quarantine create C:\q --service|halvernctl: --service needs a value
key protect Software\X|halvernctl: not a registry key: Software\X
key protect HKLM\Software\X --level all|halvernctl: --level takes none, read or write
quarantine drop C:\q|halvernctl: give either --delete or --restore
notify subscribe --file C:\f|halvernctl: --event NAME is required
watch --major 300|halvernctl: --major and --minor take 0 to 255, --type a number
EOF
long=$(printf 'C:\\%0300d' 0)
run "$ctl" process protect "$long"
expect_rc "an over-long path" 2
expect_in "an over-long path" "$err" "halvernctl: argument too long (303 characters, at most 260)"

echo "== help"
run "$ctl" --help
expect_rc "--help" 0
expect_in "--help lists the commands" "$out" "quarantine is-quarantined"
run "$ctl" service protect --help
expect_rc "service protect --help" 0
expect_in "service protect --help" "$out" "usage: halvernctl [--json] service protect NAME... [--service-only]"
run "$ctl" watch --help
expect_in "watch --help" "$out" "needs a service that speaks IPC protocol 5 or later"

echo "== the service is not installed"
run "$ctl" status
expect_rc "status, not installed" 4
expect_out "status, not installed" ""
expect_err "status, not installed" "halvernctl: the service norvale_halvern_svc is not installed"
run "$ctl" --json service list
expect_rc "--json service list, not installed" 4
[ "$(json 'd["error"], d["exit_code"], d["command"]')" = "('not_installed', 4, 'service list')" ] ||
    fail "not installed as JSON: $(cat "$out")"

echo "== the client library against the real service"
NV_SERVICE_EXE=$exe wine "$NV_BIN_DIR/client_service_test.exe" --gtest_filter='client_against_the_service.*' </dev/null >"$out" 2>&1
rc=$?
[ "$rc" = 0 ] || fail "client_service_test: $(tr -d '\r' <"$out" | grep -E 'Failure|FAILED|Expected|Actual|Which' | head -20)"
grep -q 'PASSED  \] 2 tests' "$out" || fail "client_service_test did not run its two tests"
rm -f "$log"

echo "== a stopped service: status leaves it stopped, a command starts it"
run "$exe" -i install
run "$ctl" status
expect_rc "status, stopped" 0
expect_out "status, stopped" $'service: norvale_halvern_svc\ninstalled: yes\nrunning: no'
[ "$(state)" = 252 ] || fail "status started the service"
run "$ctl" shutdown
expect_rc "shutdown of a stopped service (started first)" 0
wait_state 252
[ "$(log_lines 'Service Version: 3.0.45.1')" = 1 ] || fail "the command did not start the service once"
[ "$(log_lines 'Received IPC message 1000009, payload size: 4')" = 1 ] || fail "protocol asked once"
[ "$(log_lines 'Received IPC message 1000001')" = 1 ] || fail "stop request received"

echo "== status of the running service"
run "$exe" -s start
run "$ctl" status
expect_rc "status, running" 0
expect_out "status, running" "service: norvale_halvern_svc
installed: yes
running: yes
compatible: yes
protocol_version: 5
service_version: 196653
service_version_text: 3.0.45"
run "$ctl" --json status
expect_rc "--json status" 0
[ "$(json 'd["running"], d["protocol_version"], d["service_version"], d["service_version_text"]')" = \
    "(True, 5, 196653, '3.0.45')" ] || fail "status as JSON: $(cat "$out")"
for _ in $(seq 1 50); do
    [ "$(log_lines 'Received IPC message 1000000')" -ge 2 ] && break
    sleep 0.2
done
[ "$(log_lines 'Received IPC message 1000000')" -ge 2 ] || fail "release posts the disconnect"
run "$ctl" shutdown
expect_rc "shutdown" 0
wait_state 252
run "$exe" -i uninstall

echo "== every command against a peer playing the service"
# The manager knows the service (stopped, with no program), so commands try to start it and
# then connect to whatever listens under its name: here the double.
run sc create $svc binPath= 'C:\nv\absent.exe'
expect_rc "sc create" 0
record=$work/record.txt
stop_event='Global\nv_service_double_stop'
start_double() {
    : >"$record"
    wine "$double" $svc "$(printf 'Z:%s' "$record" | tr '/' '\\')" "$stop_event" "$@" </dev/null >/dev/null 2>&1 &
    double_pid=$!
    for _ in $(seq 1 50); do
        run "$ctl" driver on && break
        sleep 0.2
    done
    sleep 1  # the disconnect of the probe
    : >"$record"
}
stop_double() {
    wine "$helper" set-event "$stop_event" </dev/null >/dev/null 2>&1
    wait "$double_pid" 2>/dev/null
}
# hex FIELD...: a payload in the wire encodings (u8:N u32:N u64:N s:TEXT w:TEXT l:A,B l:).
hex() {
    python3 - "$@" <<'PY'
import struct, sys
out = b""
for f in sys.argv[1:]:
    kind, _, v = f.partition(":")
    if kind == "u8": out += struct.pack("<B", int(v, 0))
    elif kind == "u32": out += struct.pack("<I", int(v, 0))
    elif kind == "u64": out += struct.pack("<Q", int(v, 0))
    elif kind == "s": out += v.encode() + b"\0"
    elif kind == "w": out += v.encode("utf-16-le") + b"\0\0"
    elif kind == "l":
        items = v.split(",") if v else []
        out += struct.pack("<I", len(items)) + b"".join(i.encode() + b"\0" for i in items)
print(out.hex().upper() or "-")
PY
}
ok_reply=$(hex u8:1 s:)
archive_reply=$(hex u8:1 's:c:\q\a.txt.0102030405060708.QUA;')
start_double --reply 10000CA "$archive_reply" \
    --reply 1000004 "$(hex u32:1 u8:1 u8:1 s:D:S s:D:F s:svcA s:S-1-5-80-9 'w:C:\svcA\a.exe' 'w:C:\svcA')" \
    --reply 1000005 "$(hex u32:1 u8:1 s:D:F 'w:C:\svcA\a.exe' 'w:C:\svcA')" \
    --reply 100000C "$(hex u32:1 u8:1 s:D:O s:D:N u64:0xFFFFFFFF80000002 'w:software\x' s:own l:s1)" \
    --reply 10000CC "$(hex u32:1 s:a.txt.0102030405060708.QUA 's:C:\d\a.txt')" \
    --reply 10000CD "$(hex 'l:c:\q\')" \
    --reply 10000CE "$(hex u8:1 s:yes)" \
    --reply 10000D2 "$(hex u8:1 s:no)" \
    --reply 10000FB "$(hex u32:1 u64:7 u64:0x01DB000000000000 's:c:\d\f.txt' u8:3 u8:0 u64:1234 's:C:\evil.exe' s:Evil u32:1)" \
    --reply 1000069 "$(hex u8:0 's:Invalid path.')"
[ "$ok_reply" = 0100 ] || fail "payload helper: $ok_reply"

# command|message id|payload fields (the request the command sends after the protocol query)
while IFS='|' read -r args id fields; do
    before=$(wc -l <"$record")
    # shellcheck disable=SC2086
    eval "run \"\$ctl\" $args"
    expect_rc "halvernctl $args" 0
    # shellcheck disable=SC2086
    want="$id $(eval "hex $fields")"
    for _ in $(seq 1 50); do  # the disconnect comes last
        tail -n +"$((before + 1))" "$record" | tr -d '\r' >"$work/sent.txt"
        [ "$(tail -n 1 "$work/sent.txt")" = "1000000 -" ] && break
        sleep 0.1
    done
    [ "$(head -n 1 "$work/sent.txt")" = "1000009 05000000" ] || fail "halvernctl $args: protocol not asked first"
    grep -qxF -- "$want" "$work/sent.txt" || fail "halvernctl $args: sent $(tr '\n' ' ' <"$work/sent.txt"), want [$want]"
    [ "$(tail -n 1 "$work/sent.txt")" = "1000000 -" ] || fail "halvernctl $args: no disconnect at the end"
done <<'EOF'
service protect svcA|1000002|u32:1 u8:1 u8:1 s:svcA
service protect a b --service-only|1000002|u32:2 u8:1 u8:0 s:a u8:1 u8:0 s:b
service unprotect svcA|1000002|u32:1 u8:0 u8:0 s:svcA
service list|1000004|
service start svcA -x y|1000065|s:svcA l:-x,y
service stop svcA|1000066|s:svcA
process protect 'C:\p\a.exe'|1000003|u32:1 u8:1 'w:C:\p\a.exe'
process protect 'C:\a.exe' 'C:\b.exe'|1000003|u32:2 u8:1 'w:C:\a.exe' u8:1 'w:C:\b.exe'
process unprotect 'C:\p\a.exe'|1000003|u32:1 u8:0 'w:C:\p\a.exe'
process list|1000005|
key protect 'HKLM\Software\X' --level write|100000B|u32:1 u8:1 u64:0xFFFFFFFF80000002 'w:Software\X' s: l: u32:2
key protect 'HKCU\Software\X' --owner o --service s1 --service s2|100000B|u32:1 u8:1 u64:0xFFFFFFFF80000001 'w:Software\X' s:o l:s1,s2 u32:1
key unprotect 'HKLM\Software\X'|100000B|u32:1 u8:0 u64:0xFFFFFFFF80000002 'w:Software\X' s: l: u32:0
key list|100000C|
driver off|1000006|
driver on|1000007|
driver restore|1000068|u8:1
protection off|1000008|u8:0
protection on|1000008|u8:1
recover service svcA|1000067|s:svcA
quarantine containers|10000CD|
quarantine create 'C:\q' --service s1|10000C9|'s:C:\q' l:s1
quarantine add 'C:\q' 'C:\d\a.txt'|10000CA|u32:0 's:C:\q' 'l:C:\d\a.txt'
quarantine remove 'C:\q' 'c:\q\a.1.QUA'|10000CA|u32:1 's:C:\q' 'l:c:\q\a.1.QUA'
quarantine restore 'C:\q' 'c:\q\a.1.QUA'|10000CA|u32:2 's:C:\q' 'l:c:\q\a.1.QUA'
quarantine list 'C:\q'|10000CC|'s:C:\q'
quarantine drop 'C:\q' --restore|10000CB|u32:2 's:C:\q'
quarantine is-quarantined 'C:\d\a.txt'|10000CE|'s:C:\d\a.txt'
block 'C:\f'|10000CF|'s:C:\f'
unblock 'C:\f'|10000D0|'s:C:\f'
block 'C:\f' 'C:\g' --service s1|10000D1|u32:0 l:s1 'l:C:\f,C:\g'
unblock 'C:\f' 'C:\g'|10000D1|u32:1 l: 'l:C:\f,C:\g'
is-blocked 'C:\f'|10000D2|'s:C:\f'
notify subscribe --event E --file 'C:\f' --major 3|10000FA|u8:0 s:NVCHCTRLOFFLOAD s:E 's:C:\f' u8:3 u8:255 u32:0
notify unsubscribe --event E --as me --type 1|10000FA|u8:1 s:me s:E s: u8:255 u8:255 u32:1
notify collect|10000FB|s:NVCHCTRLOFFLOAD
notify collect --as me|10000FB|s:me
shutdown|1000001|
EOF

echo "== output as text and as JSON"
run "$ctl" service list
expect_out "service list" "name=svcA  process_protected=yes  image=C:\\svcA\\a.exe  folder=C:\\svcA  sid=S-1-5-80-9  service_sddl=D:S  folder_sddl=D:F"
run "$ctl" quarantine containers
expect_out "quarantine containers" 'c:\q\'
run "$ctl" is-blocked 'C:\f'
expect_out "is-blocked" $'ok: yes\nblocked: no\nmessage: no'
# command|Python expression over the JSON document d|its value
while IFS='|' read -r args expr want; do
    eval "run \"\$ctl\" --json $args"
    [ "$(json "$expr")" = "$want" ] || fail "halvernctl --json $args: $(cat "$out")"
done <<'EOF'
service list|[(s["name"], s["process_protected"], s["image"]) for s in d["services"]]|[('svcA', True, 'C:\\svcA\\a.exe')]
process list|d["processes"][0]["folder"]|C:\svcA
key list|d["keys"][0]["key"], d["keys"][0]["services"]|('HKLM\\software\\x', 's1')
quarantine add 'C:\q' 'C:\d\a.txt'|d["ok"], d["archives"]|(True, [{'archive': 'c:\\q\\a.txt.0102030405060708.QUA'}])
quarantine list 'C:\q'|d["files"][0]["archive"], d["files"][0]["path"]|('a.txt.0102030405060708.QUA', 'C:\\d\\a.txt')
quarantine is-quarantined 'C:\d\a.txt'|d["quarantined"]|True
notify collect|[(n["file"], n["major"], n["pid"], n["image"], n["denied"]) for n in d["notifications"]]|[('c:\\d\\f.txt', 3, 1234, 'C:\\evil.exe', True)]
recover folder 'C:\f'|d["ok"], d["error"], d["message"], d["exit_code"]|(False, 'refused', 'Invalid path.', 1)
EOF

echo "== a refusal: exit code 1, the service's message on stderr"
run "$ctl" recover folder 'C:\f'
expect_rc "refused" 1
expect_err "refused" "halvernctl: Invalid path."

echo "== watch prints denials until Ctrl+C"
wine "$ctl" watch --file 'C:\d\f.txt' </dev/null >"$work/watch.txt" 2>"$work/watch.err" &
watcher=$!
for _ in $(seq 1 50); do
    grep -q 'denied c:\\d\\f.txt' "$work/watch.txt" && break
    sleep 0.2
done
expect_in "watch output" "$work/watch.txt" 'denied c:\d\f.txt major=3 minor=0 pid=1234 C:\evil.exe'
kill -INT $watcher
wait $watcher
rc=$?
[ "$rc" = 0 ] || fail "watch ended with $rc"
tr -d '\r' <"$record" >"$work/sent.txt"
grep -q "^10000FA 00.*433A5C645C662E74787400FFFF00000000$" "$work/sent.txt" || fail "watch subscribed: $(grep 10000FA "$record")"
grep -q "^10000FA 01.*433A5C645C662E74787400FFFF00000000$" "$work/sent.txt" || fail "watch unsubscribed at Ctrl+C"
stop_double

echo "== a service speaking protocol 3"
start_double --protocol 3 --reply 10000CD "$(hex 'l:c:\q\')"
run "$ctl" quarantine containers
expect_rc "quarantine against protocol 3" 0
run "$ctl" notify collect
expect_rc "notify collect against protocol 3" 5
expect_err "notify collect against protocol 3" \
    "halvernctl: Service does not support the feature, current IPC protocol version : 3, minimum required version: 5"
grep -q '^10000FB' "$record" && fail "a gated request was sent"
stop_double

echo "== nobody listens"
run "$ctl" driver on
expect_rc "no listener" 3
expect_err "no listener" "halvernctl: cannot connect to the service norvale_halvern_svc"
run sc delete $svc

if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "all halvernctl checks passed"
