#!/usr/bin/env bash
# halvernctl end to end: usage errors, a service not installed, the library and status against the
# real service, then every command against nv_service_double (the bytes each command sends).
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
new_prefix
install_service
expect_rc() { [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; stdout: $(cat "$out"); stderr: $(cat "$err")"; }
expect_in() { grep -qF -- "$3" "$2" || fail "$1: [$3] not in $(basename "$2"): $(head -c 400 "$2")"; }
# json EXPRESSION: a Python expression over the JSON document on stdout (as d).
json() { python3 -c "import json,sys; d=json.load(open(sys.argv[1])); v=($1); print(v)" "$out" 2>&1; }

echo "== usage errors give exit code 2 and the help text"
while IFS='|' read -r args want; do
    # shellcheck disable=SC2086
    hv_run $args
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
hv_run process protect "$(printf 'C:\\%0300d' 0)"
expect_rc "an over-long path" 2
expect_in "an over-long path" "$err" "halvernctl: argument too long (303 characters, at most 260)"
while IFS='|' read -r args want; do
    # shellcheck disable=SC2086
    hv_run $args --help
    expect_rc "$args --help" 0
    expect_in "$args --help" "$out" "$want"
done <<'EOF'
|quarantine is-quarantined
service protect|usage: halvernctl [--json] service protect NAME... [--service-only]
watch|needs a service that speaks IPC protocol 5 or later
EOF

echo "== the service is not installed"
hv_run status
expect_rc "status, not installed" 4
expect_eq "status, not installed" "|halvernctl: the service norvale_halvern_svc is not installed" "$(cat "$out")|$(cat "$err")"
hv_run --json service list
expect_rc "--json service list, not installed" 4
expect_eq "not installed as JSON" "('not_installed', 4, 'service list')" "$(json 'd["error"], d["exit_code"], d["command"]')"

echo "== the client library against the real service"
NV_SERVICE_EXE=$exe wine "$NV_BIN_DIR/client_service_test.exe" --gtest_filter='client_against_the_service.*' </dev/null >"$out" 2>&1
rc=$?
[ "$rc" = 0 ] && grep -q 'PASSED  \] 2 tests' "$out" ||
    fail "client_service_test: $(tr -d '\r' <"$out" | grep -E 'Failure|FAILED|Expected|Actual|Which' | head -20)"

echo "== status leaves a stopped service stopped, a command starts it"
run "$exe" -i install
hv_run status
expect_eq "status, stopped" $'0 service: norvale_halvern_svc\ninstalled: yes\nrunning: no' "$rc $(cat "$out")"
[ "$(state)" = 252 ] || fail "status started the service"
hv_run driver on
expect_rc "a command on a stopped service" 0
hv_run status
expect_eq "status, running" "service: norvale_halvern_svc
installed: yes
running: yes
compatible: yes
protocol_version: 5
service_version: 196653
service_version_text: 3.0.45" "$(cat "$out")"
hv_run --json status
expect_eq "status as JSON" "(True, 5, 196653, '3.0.45')" \
    "$(json 'd["running"], d["protocol_version"], d["service_version"], d["service_version_text"]')"
hv_run shutdown
expect_rc "shutdown" 0
wait_state 252
run "$exe" -i uninstall

echo "== every command against a peer playing the service"
# The manager knows the service (stopped, with no program), so commands try to start it and
# then connect to whatever listens under its name: here the double.
run sc create $svc binPath= 'C:\nv\absent.exe'
expect_eq "sc create" 0 "$rc"
record=$work/record.txt
stop_event='Global\nv_service_double_stop'
start_double() {
    : >"$record"
    wine "$NV_BIN_DIR/nv_service_double.exe" $svc "$(printf 'Z:%s' "$record" | tr '/' '\\')" "$stop_event" "$@" \
        </dev/null >/dev/null 2>&1 &
    double_pid=$!
    poll 50 0.2 'hv_run driver on; [ "$rc" = 0 ]'
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
    if kind in ("u8", "u32", "u64"): out += struct.pack({"u8": "<B", "u32": "<I", "u64": "<Q"}[kind], int(v, 0))
    elif kind == "s": out += v.encode() + b"\0"
    elif kind == "w": out += v.encode("utf-16-le") + b"\0\0"
    elif kind == "l":
        items = v.split(",") if v else []
        out += struct.pack("<I", len(items)) + b"".join(i.encode() + b"\0" for i in items)
print(out.hex().upper() or "-")
PY
}
start_double --reply 1000004 "$(hex u32:1 u8:1 u8:1 s:D:S s:D:F s:svcA s:S-1-5-80-9 'w:C:\svcA\a.exe' 'w:C:\svcA')" \
    --reply 1000005 "$(hex u32:0)" --reply 100000C "$(hex u32:0)" --reply 10000FB "$(hex u32:0)" \
    --reply 10000CD "$(hex 'l:c:\q\')" --reply 10000D2 "$(hex u8:1 s:no)" --reply 1000069 "$(hex u8:0 's:Invalid path.')"

# command|message id|payload fields (the request the command sends after the protocol query); the
# commands that take one plain argument are checked against the running service instead.
while IFS='|' read -r args id fields; do
    before=$(wc -l <"$record")
    eval "hv_run $args"
    expect_rc "halvernctl $args" 0
    # shellcheck disable=SC2086
    want="$id $(eval "hex $fields")"
    # The disconnect comes last.
    poll 50 0.1 'tail -n +"$((before + 1))" "$record" | tr -d "\r" >"$work/sent.txt"; [ "$(tail -n 1 "$work/sent.txt")" = "1000000 -" ]'
    expect_eq "halvernctl $args: sent" "1000009 05000000|$want|1000000 -" "$(paste -sd '|' "$work/sent.txt")"
done <<'EOF'
service protect a b --service-only|1000002|u32:2 u8:1 u8:0 s:a u8:1 u8:0 s:b
service start svcA -x y|1000065|s:svcA l:-x,y
service stop svcA|1000066|s:svcA
process protect 'C:\a.exe' 'C:\b.exe'|1000003|u32:2 u8:1 'w:C:\a.exe' u8:1 'w:C:\b.exe'
process unprotect 'C:\p\a.exe'|1000003|u32:1 u8:0 'w:C:\p\a.exe'
process list|1000005|
key protect 'HKLM\Software\X' --level write|100000B|u32:1 u8:1 u64:0xFFFFFFFF80000002 'w:Software\X' s: l: u32:2
key protect 'HKCU\Software\X' --owner o --service s1 --service s2|100000B|u32:1 u8:1 u64:0xFFFFFFFF80000001 'w:Software\X' s:o l:s1,s2 u32:1
key unprotect 'HKLM\Software\X'|100000B|u32:1 u8:0 u64:0xFFFFFFFF80000002 'w:Software\X' s: l: u32:0
key list|100000C|
driver off|1000006|
driver restore|1000068|u8:1
protection off|1000008|u8:0
recover service svcA|1000067|s:svcA
quarantine create 'C:\q' --service s1|10000C9|'s:C:\q' l:s1
quarantine add 'C:\q' 'C:\d\a.txt'|10000CA|u32:0 's:C:\q' 'l:C:\d\a.txt'
quarantine remove 'C:\q' 'c:\q\a.1.QUA'|10000CA|u32:1 's:C:\q' 'l:c:\q\a.1.QUA'
quarantine restore 'C:\q' 'c:\q\a.1.QUA'|10000CA|u32:2 's:C:\q' 'l:c:\q\a.1.QUA'
quarantine drop 'C:\q' --restore|10000CB|u32:2 's:C:\q'
block 'C:\f' 'C:\g' --service s1|10000D1|u32:0 l:s1 'l:C:\f,C:\g'
unblock 'C:\f' 'C:\g'|10000D1|u32:1 l: 'l:C:\f,C:\g'
notify subscribe --event E --file 'C:\f' --major 3|10000FA|u8:0 s:NVCHCTRLOFFLOAD s:E 's:C:\f' u8:3 u8:255 u32:0
notify unsubscribe --event E --as me --type 1|10000FA|u8:1 s:me s:E s: u8:255 u8:255 u32:1
notify collect --as me|10000FB|s:me
shutdown|1000001|
EOF

echo "== text output, a refusal"
hv_run service list
expect_eq "service list" "name=svcA  process_protected=yes  image=C:\\svcA\\a.exe  folder=C:\\svcA  sid=S-1-5-80-9  service_sddl=D:S  folder_sddl=D:F" "$(cat "$out")"
hv_run quarantine containers
expect_eq "quarantine containers" 'c:\q\' "$(cat "$out")"
hv_run is-blocked 'C:\f'
expect_eq "is-blocked" $'ok: yes\nblocked: no\nmessage: no' "$(cat "$out")"
hv_run recover folder 'C:\f'
expect_eq "refused: exit code 1, the message on stderr" "1 halvernctl: Invalid path." "$rc $(cat "$err")"
hv_run --json recover folder 'C:\f'
expect_eq "refused as JSON" "(False, 'refused', 'Invalid path.', 1)" "$(json 'd["ok"], d["error"], d["message"], d["exit_code"]')"
stop_double

echo "== a service speaking protocol 3"
start_double --protocol 3 --reply 10000CD "$(hex 'l:c:\q\')"
hv_run quarantine containers
expect_rc "quarantine against protocol 3" 0
hv_run notify collect
expect_rc "notify collect against protocol 3" 5
expect_eq "notify collect against protocol 3" \
    "halvernctl: Service does not support the feature, current IPC protocol version : 3, minimum required version: 5" "$(cat "$err")"
grep -q '^10000FB' "$record" && fail "a gated request was sent"
stop_double

echo "== nobody listens"
hv_run driver on
expect_rc "no listener" 3
expect_eq "no listener" "halvernctl: cannot connect to the service norvale_halvern_svc" "$(cat "$err")"
run sc delete $svc

finish halvernctl 40
