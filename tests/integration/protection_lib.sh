# Shared by the protection tests and benchmark: a prefix of its own with the driver simulator,
# the service installed from C:\nv with the object-security recorder selected, request payloads
# built in hex, and the simulator's journal and the recorder's journal read back.
: "${WINEPREFIX:?}" "${NV_BIN_DIR:?}" "${NV_SOURCE_DIR:?}"
export WINEDEBUG=-all WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

work=$(mktemp -d "${TMPDIR:-/tmp}/nv-protection.XXXXXX")
bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" clone "$work/prefix"
export WINEPREFIX=$work/prefix
wineserver -p </dev/null >/dev/null 2>&1
cleanup() {
    wineserver -k >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT
wine cmd /c exit </dev/null >/dev/null 2>&1
bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" sim || exit 1

drive_c=$WINEPREFIX/drive_c
mkdir -p "$drive_c/nv"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$drive_c/nv/"
exe='C:\nv\NorvaleHalvernService.exe'
log=$drive_c/nv/nvhalvernservice.debug.log
journal=$drive_c/nv/object_security.journal
client=$NV_BIN_DIR/nv_ipc_client.exe
ctl=$NV_BIN_DIR/driver_ctl.exe
svc=norvale_halvern_svc

failures=0
out=$work/out.txt
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
run() {
    wine "$@" </dev/null >"$out" 2>&1
    rc=$?
    tr -d '\r' <"$out" >"$out.n" && mv "$out.n" "$out"
}
# expect_eq LABEL WANT GOT
expect_eq() { [ "$2" == "$3" ] || fail "$1: want [$2], got [$3]"; }

# Payload pieces, upper-case hex.
hex_u32() { printf '%02X%02X%02X%02X' $(($1 & 255)) $((($1 >> 8) & 255)) $((($1 >> 16) & 255)) $((($1 >> 24) & 255)); }
hex_str() { printf '%s' "$1" | xxd -p -u | tr -d '\n'; printf '00'; }
hex_wstr() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-16LE | xxd -p -u | tr -d '\n'; printf '0000'; }
status_ok='0100'
status_fail='0000'
status_msg() { printf '%s' "$1"; hex_str "$2"; }

# request ID [HEX]: the reply's hex in $reply.
request() {
    run "$client" -t 200000 send "$@"
    reply=$(head -n 1 "$out")
    [ "$rc" = 0 ] || fail "request $1: client exit $rc: $(cat "$out")"
}

# The service SID of a name: S-1-5-80 and the SHA-1 of its upper-cased UTF-16LE name.
service_sid() {
    python3 - "$1" <<'PY'
import hashlib, struct, sys
d = hashlib.sha1(sys.argv[1].upper().encode('utf-16-le')).digest()
print('S-1-5-80-' + '-'.join(str(w) for w in struct.unpack('<5I', d)))
PY
}

# Simulator journal as lines "code kind text|on" from message number $1 on (1-based).
driver_messages() {
    wine "$ctl" journal </dev/null 2>/dev/null | tr -d '\r' |
        jq -r --argjson from "${1:-1}" '.[] | select(.seq >= $from) | "\(.code) \(.kind) \(if .kind == "feature" then .on else .text end)"'
}
driver_count() { wine "$ctl" state </dev/null 2>/dev/null | tr -d '\r' | jq -r .messages; }
driver_state() { wine "$ctl" state </dev/null 2>/dev/null | tr -d '\r'; }

# The recorder's last line for an object: "sddl<TAB>aces".
recorded() { grep -a -F -- "$1	$2	" "$journal" | tail -n 1 | cut -f 3-; }
recorded_count() { grep -a -c -F -- "$1	$2	" "$journal"; }

svc_state() {
    run "$exe" -c "$1"
    echo "$rc"
}
wait_svc_state() {  # wait_svc_state NAME WANT [TRIES]
    local tries=${3:-150}
    for _ in $(seq 1 "$tries"); do
        [ "$(svc_state "$1")" = "$2" ] && return 0
        sleep 0.2
    done
    fail "$1: state $(svc_state "$1"), want $2"
    return 1
}
start_service() {
    run "$exe" -s start
    wait_svc_state $svc 0
    for _ in $(seq 1 100); do
        run "$client" send 100000a && return 0
        sleep 0.2
    done
    fail "the service does not answer"
}
stop_service() {
    run "$exe" -s stop
    wait_svc_state $svc 252
}
log_count() { tr -d '\r' <"$log" 2>/dev/null | grep -c -F -- "$1"; }
