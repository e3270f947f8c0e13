# Shared by the protection tests and benchmark: a prefix of its own with the driver simulator,
# the service installed from C:\nv with the object-security recorder selected, requests from
# named fields, and the simulator's journal and the recorder's journal read back.
: "${NV_SOURCE_DIR:?}"
. "$NV_SOURCE_DIR/tests/integration/service_prefix.sh"
new_prefix
start_sim
install_service
drive_c=$WINEPREFIX/drive_c
journal=$drive_c/nv/object_security.journal
device='\Device\HarddiskVolume1'

status_ok='0100'
status_fail='0000'

# request ID [HEX]: the payload sent as it is; the reply's hex in $reply.
# call MESSAGE [KEY=VALUE ...]: the request from named fields (nv_ipc_client call); the reply's
# fields in $reply: "result=R message=M", or "count=N" and a line per list element.
request() { client_run send "$@"; reply=$(head -n 1 <<<"$reply"); }
call() { client_run call "$@"; }
client_run() {
    run "$client" -t 200000 "$@"
    reply=$(cat "$out")
    [ "$rc" = 0 ] || fail "$1 $2: client exit $rc: $reply"
}
ask() { local label=$1 want=$2; shift 2; request "$@"; expect_eq "$label" "$want" "$reply"; }  # LABEL WANT ID [HEX]
answers() { local label=$1 want=$2; shift 2; call "$@"; expect_eq "$label" "$want" "$reply"; }  # LABEL WANT MESSAGE [KEY=VALUE ...]
# call_bg VAR OUT MESSAGE [KEY=VALUE ...]: the call in the background, its output in OUT, its pid in VAR.
call_bg() { (wine "$client" -t 200000 call "${@:3}" </dev/null >"$2" 2>&1) & printf -v "$1" %s $!; }
# still_waiting LABEL PID...: half a second on, every PID still runs (its request not answered).
still_waiting() { local p; sleep 0.5; for p in "${@:2}"; do kill -0 "$p" 2>/dev/null || fail "$1: $p has ended"; done; }
# sends LABEL WANT SENT MESSAGE [KEY=VALUE ...]: answers WANT, and the simulator got SENT meanwhile.
sends() { mark; answers "$1" "$2" "${@:4}"; expect_eq "$1: sent" "$3" "$(sent)"; }
said() { printf 'result=%s message=%s' "$1" "$2"; }  # a status reply's fields
items() { local key=$1 value; shift; printf 'count=%s' $#; for value in "$@"; do printf '\n%s=%s' "$key" "$value"; done; }  # KEY VALUE...: a list reply of strings
ok=$(said 1 '')
refused=$(said 0 '')

# The service SID of a name: S-1-5-80 and the SHA-1 of its upper-cased UTF-16LE name.
service_sid() {
    python3 - "$1" <<'PY'
import hashlib, struct, sys
d = hashlib.sha1(sys.argv[1].upper().encode('utf-16-le')).digest()
print('S-1-5-80-' + '-'.join(str(w) for w in struct.unpack('<5I', d)))
PY
}
own_sid=$(service_sid $svc)

# Simulator journal as lines "code kind text|on" from message number $1 on (1-based).
driver_messages() {
    wine "$ctl" journal </dev/null 2>/dev/null | tr -d '\r' |
        jq -r --argjson from "${1:-1}" '.[] | select(.seq >= $from) | "\(.code) \(.kind) \(if .kind == "feature" then .on else .text end)"'
}
driver_count() { driver_state | jq -r .messages; }
mark() { from=$(($(driver_count) + 1)); }  # sent: the simulator's messages since the last mark
sent() { driver_messages "$from"; }

# The recorder's last line for an object: "sddl<TAB>aces".
recorded() { grep -a -F -- "$1	$2	" "$journal" | tail -n 1 | cut -f 3-; }
recorded_count() { grep -a -c -F -- "$1	$2	" "$journal"; }

# Once the service answers, its start-up has protected its own registry keys. Wine's tokens carry
# no service SID, so the running service could no longer write its own records there, as it does
# on Windows through its service SID: the test stands in for that SID (Administrators, which every
# Wine process is) on each own key, or with PROBE-ARGS ("grant KEY") on the keys named.
start_service() {  # [PROBE-ARGS]
    poll 60 1 'run "$exe" -s start; [ "$rc" = 0 ]' || fail "start: $(cat "$out")"  # a killed one may linger
    wait_svc_state $svc 0
    poll 100 0.2 'run "$client" send 100000a; [ "$rc" = 0 ]' || { fail "the service does not answer"; return; }
    local args=("${@:-grant-own-keys}")  # a run Wine lost before it started is tried again
    poll 3 1 'run "$NV_BIN_DIR/nv_regkey_probe.exe" "${args[@]}"; [ "$rc" = 0 ]' ||
        fail "nv_regkey_probe ${args[*]}: $(cat "$out")"
}
stop_service() { run "$exe" -s stop; wait_svc_state $svc 252; }
log_count() { tr -d '\r' <"$log" 2>/dev/null | grep -c -F -- "$1"; }
# logs LABEL LINE COMMAND...: COMMAND logs LINE once; once LABEL LINE...: each LINE is in the log once.
logs() { local n; n=$(log_count "$2"); "${@:3}"; expect_eq "$1: logged once: $2" $((n + 1)) "$(log_count "$2")"; }
once() { local l; for l in "${@:2}"; do expect_eq "$1: logged once: $l" 1 "$(log_count "$l")"; done; }
# held_at_dacl_write LABEL LINE AFTER MESSAGE [KEY=VALUE ...]: the request waits at its DACL write
# (once LINE is logged). Meanwhile the version and the service list are answered, the image and key
# lists as they were, and AFTER (a request's fields, split at spaces), sent next, waits behind it;
# both are answered once the writes go on. While the file its "DaclPause" value names is there, the
# test build's DACL writes (key protects, the recorder's file and folder writes) wait at the write.
held_at_dacl_write() {
    local label=$1 line=$2 after_fields n held after images keys
    read -r -a after_fields <<<"$3"
    call query-protected-processes && images=$reply
    call get-protected-reg-keys && keys=$reply
    : >"$work/dacl.paused"
    run reg add "$helper_key" /v DaclPause /t REG_SZ /d "$(win "$work/dacl.paused")" /f
    n=$(log_count "$line")
    call_bg held "$work/held.out" "${@:4}"
    poll 300 0.1 '[ "$(log_count "$line")" -gt "$n" ]' || fail "$label: not started"
    call_bg after "$work/after.out" "${after_fields[@]}"
    call service-version
    [[ "$reply" == version=* ]] || fail "$label: the version [$reply]"
    call query-protected-services
    [[ "$reply" == count=* ]] || fail "$label: the service list [$reply]"
    answers "$label: the image list as it was" "$images" query-protected-processes
    answers "$label: the key list as it was" "$keys" get-protected-reg-keys
    still_waiting "$label: it and the request after it wait" $held $after
    rm -f "$work/dacl.paused" && run reg delete "$helper_key" /v DaclPause /f
    wait $held $after
    expect_eq "$label: it, then the request after it" "$ok $ok" "$(tr -d '\r' <"$work/held.out") $(tr -d '\r' <"$work/after.out")"
}

# The test build of the service installed from C:\nv, its recorder journalling to $journal.
install_with_recorder() {
    cp "$NV_BIN_DIR/hooks/NorvaleHalvernService.exe" "$nv/"
    poll 5 1 'run reg add "$helper_key" /v ObjectSecurityJournal /t REG_SZ /d "C:\nv\object_security.journal" /f
        [ "$rc" = 0 ] && run reg query "$helper_key" /v ObjectSecurityJournal && [ "$rc" = 0 ]' ||
        fail "recorder value not written: $(cat "$out")"
    runs "install" 0 '*' "$exe" -i install
}
pid_of() { tr -d '\r' <"$drive_c/prot/$1/$2.pid" 2>/dev/null; }  # FOLDER NAME: as the test service wrote it
wait_new_pid() {  # FOLDER NAME OLD: until the service's process is another than OLD (60 s)
    local folder=$1 name=$2 old=$3 pid
    poll 3000 0.02 'pid=$(pid_of "$folder" "$name"); [ "${pid:-0}" != 0 ] && [ "$pid" != "$old" ]'
}
