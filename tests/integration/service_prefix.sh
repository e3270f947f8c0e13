# Shared by the integration tests that run the service in a prefix of their own: a clone of the
# test prefix with its own wineserver (and driver simulator when asked), the service in C:\nv, and
# the run / fail / expect helpers. Sourced; the test calls new_prefix, start_sim, install_service.
: "${WINEPREFIX:?}" "${NV_BIN_DIR:?}" "${NV_SOURCE_DIR:?}"
export WINEDEBUG=-all WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

base_prefix=$WINEPREFIX
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-service-prefix.XXXXXX")
# before_cleanup, when a test defines it, runs first (e.g. to release what a process waits on), and
# then whatever installer_probe holds is let go.
cleanup() {
    [ "$(type -t before_cleanup)" = function ] && before_cleanup
    [ -z "${hold_pid:-}" ] || wine "$helper" set-event "$hold_release" </dev/null >/dev/null 2>&1
    local p
    for p in "$work"/prefix*; do [ -d "$p" ] && WINEPREFIX=$p wineserver -k >/dev/null 2>&1; done
    rm -rf "$work"
}
trap cleanup EXIT

exe='C:\nv\NorvaleHalvernService.exe'
client=$NV_BIN_DIR/nv_ipc_client.exe
ctl=$NV_BIN_DIR/driver_ctl.exe
helper=$NV_BIN_DIR/nv_test_helper.exe
svc=norvale_halvern_svc
helper_key='HKLM\Software\Norvale\NVClientHelper'

# new_prefix [NAME]: a clone of the test prefix in $work/prefix[-NAME] with a wineserver of its
# own kept up, and Wine's own services started detached from the test's output.
new_prefix() {
    local dest=$work/prefix${1:+-$1}
    rm -rf "$dest"
    cp -a "$base_prefix" "$dest"
    export WINEPREFIX=$dest
    wineserver -p </dev/null >/dev/null 2>&1
    wine cmd /c exit </dev/null >/dev/null 2>&1
}
# start_sim: this build's Filter Manager stand-in in the prefix and the driver simulator running.
start_sim() {
    cp "$NV_BIN_DIR/fltlib.dll" "$WINEPREFIX/drive_c/windows/system32/fltlib.dll"
    bash "$NV_SOURCE_DIR/tests/wine/prefix.sh" sim || { echo "FAIL: the driver simulator did not start"; exit 1; }
}
driver_state() { wine "$ctl" state </dev/null 2>/dev/null | tr -d '\r'; }  # the simulator's state as JSON
# install_service: the service executable alone in C:\nv ($nv), so its debug log ($log) is ours.
install_service() {
    nv=$WINEPREFIX/drive_c/nv log=$WINEPREFIX/drive_c/nv/nvhalvernservice.debug.log
    rm -rf "$nv" && mkdir -p "$nv" && cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$nv/"
}

# win PATH: a Linux path as the Windows programs see it (Z: maps the Linux root).
win() { local p=${1//\//\\}; printf 'Z:%s' "$p"; }
recovery_key=$NV_BIN_DIR/../recovery_key/build.priv.hex  # the build's own pair
# recovery_code: a code for this prefix's machine, valid through tomorrow (UTC), signed with the
# build's private key: what an administrator puts beside the emergency options to unlock them.
recovery_code() {
    local guid; guid=$(reg_value 'HKLM\SOFTWARE\Microsoft\Cryptography' MachineGuid)
    wine "$NV_BIN_DIR/recovery_code.exe" make "$(win "$recovery_key")" "${guid#REG_SZ }" "$(date -u -d tomorrow +%Y%m%d)" \
        </dev/null 2>/dev/null | tr -d '\r'
}

failures=0
out=$work/out.txt
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
# poll TRIES PAUSE CONDITION: evaluates CONDITION until it holds, at most TRIES times PAUSE s apart.
poll() { local i; for ((i = 0; i < $1; i++)); do eval "$3" && return 0; sleep "$2"; done; return 1; }
# double PROGRAM RECORD STOP-EVENT [ARGS...]: nv_service_double (PROGRAM, as Wine names it) serving
# the service's pipe until undouble; it appends each message it gets to RECORD (a Linux path) and
# its IPC log to RECORD.log. Waits up to 60 s until that log says the listener is set up (a client
# that came earlier would find no service); a double that never gets there ends the test, saying
# whether it still runs and what it logged.
double() {
    double_stop=$3 double_record=$2
    rm -f "$2.log"
    wine "$1" $svc "$(win "$2")" "$3" "${@:4}" </dev/null >/dev/null 2>&1 & double_pid=$!
    poll 300 0.2 "grep -q check_pipe_name '$2.log' 2>/dev/null" && return 0
    local state="still running"
    kill -0 "$double_pid" 2>/dev/null || { wait "$double_pid"; state="exited with code $?"; }
    fail "the double recording to $2 did not listen within 60 s ($state)"
    tail -n 60 "$2.log" 2>/dev/null
    exit 1
}
# undouble: the double stopped, and a failure with its IPC log when it has not ended within 30 s.
undouble() {
    wine "$helper" set-event "$double_stop" </dev/null >/dev/null 2>&1
    if ! poll 150 0.2 '! kill -0 "$double_pid" 2>/dev/null'; then
        fail "the double recording to $double_record did not stop within 30 s"
        tail -n 40 "$double_record.log" 2>/dev/null
        kill "$double_pid" 2>/dev/null
    fi
    wait "$double_pid" 2>/dev/null
}
# waiter VAR OUT HELPER-ARGS...: nv_test_helper in the background, its pid in VAR, its output in
# OUT (emptied first: no earlier run's "ready"); a failure unless it is ready within 30 s.
waiter() { : >"$2"; wine "$helper" "${@:3}" </dev/null >"$2" 2>&1 & printf -v "$1" %s $!; poll 150 0.2 "grep -q ready '$2'" || fail "${*:3}: not ready"; }
within() {  # within SECONDS COMMAND...: COMMAND run, and a failure when it took SECONDS or longer.
    local t0=$(date +%s%N) ms
    "${@:2}"
    ms=$((($(date +%s%N) - t0) / 1000000))
    [ "$ms" -lt $(($1 * 1000)) ] || fail "${*:2} took $ms ms"
}
# hv_run ARGS...: halvernctl's stdout in $out, stderr in $err, exit code in $rc.
err=$work/err.txt
hv_run() {
    wine "$NV_BIN_DIR/halvernctl.exe" "$@" </dev/null >"$out" 2>"$err"; rc=$?
    sed -i 's/\r$//' "$out" "$err"
}
# encode MESSAGE [KEY=VALUE ...]: a request's payload in hex, to send as it is, cut or patch.
# encode_reply MESSAGE [KEY=VALUE ...]: the payload of a reply to MESSAGE in hex, for a peer that
# plays the service. Through a file, as Wine's helper processes may hold a pipe; a run that
# printed nothing under load is tried once more, and a second one says so.
encode() { coded encode "$@"; }
encode_reply() { coded encode-reply "$@"; }
coded() {
    local file=$work/coded.$BASHPID try
    for try in 1 2; do
        wine "$client" "$@" </dev/null >"$file" 2>/dev/null && [ -s "$file" ] && { tr -d '\r' <"$file"; return 0; }
    done
    echo "FAIL: nv_ipc_client $* printed nothing" >&2
    return 1
}
# Bytes in upper-case hex, for what named fields cannot carry: registry records, driver messages,
# text outside the ANSI code page, payloads longer than a command line, bytes that must not decode.
hex_u32() { printf '%02X%02X%02X%02X' $(($1 & 255)) $((($1 >> 8) & 255)) $((($1 >> 16) & 255)) $((($1 >> 24) & 255)); }
hex_str() { printf '%s' "$1" | xxd -p -u | tr -d '\n'; printf '00'; }
hex_wstr() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-16LE | xxd -p -u | tr -d '\n'; printf '0000'; }
run() {  # run PROGRAM ARGS...: output in $out, exit code (0..255) in $rc.
    wine "$@" </dev/null >"$out" 2>&1; rc=$?
    tr -d '\r' <"$out" >"$out.n" && mv "$out.n" "$out"
}
expect() {  # expect LABEL RC [EXACT-OUTPUT ('*': any)]
    [ "$rc" -eq "$2" ] || fail "$1: exit code $rc, want $2; output: $(cat "$out")"
    [ $# -lt 3 ] || [ "$3" = '*' ] || [ "$(cat "$out")" = "$3" ] || fail "$1: output [$(cat "$out")], want [$3]"
}
runs() { run "${@:4}"; expect "$1" "$2" "$3"; }  # runs LABEL RC OUTPUT PROGRAM ARGS...: run, then expect
expect_eq() { [ "$2" == "$3" ] || fail "$1: want [$2], got [$3]"; }  # LABEL WANT GOT
# reg_value KEY NAME: the registry value as "TYPE DATA" (nothing and a failure when it is absent).
reg_value() { wine reg query "$1" /v "$2" </dev/null 2>/dev/null | tr -d '\r' | grep -o 'REG_[A-Z_]* .*' | tr -s ' '; }
log_lines() { tr -d '\r' <"$log" 2>/dev/null | grep -c -- "$1"; }  # PATTERN: the lines that match (basic regex)
svc_state() { run "$exe" -c "$1"; echo "$rc"; }  # 0 running, 252 stopped, 251 missing
wait_svc_state() {  # wait_svc_state NAME WANT [TRIES of 0.2 s]
    local name=$1 want=$2
    poll "${3:-150}" 0.2 '[ "$(svc_state "$name")" = "$want" ]' ||
        { fail "$name: state $(svc_state "$name"), want $want"; return 1; }
}
state() { svc_state $svc; }  # of this product's service
wait_state() { wait_svc_state $svc "$@"; }  # wait_state WANT [TRIES of 0.2 s]
# sc_state NAME: the state the service manager reports (RUNNING ...), empty for no such service
sc_state() { wine sc query "$1" </dev/null 2>/dev/null | tr -d '\r' | awk '$1 == "STATE" { print $4 }'; }
# logged FILE PATTERN: a line of FILE matches (grep reads to the end, not to fail the pipe).
logged() { tr -d '\r' <"$1" | grep -- "$2" >/dev/null; }
# expect_logged LABEL FILE PATTERN...: each PATTERN matches a line of FILE.
expect_logged() { local p; for p in "${@:3}"; do logged "$2" "$p" || fail "$1: $(basename "$2") has no [$p]"; done; }
expect_not_logged() { ! logged "$2" "$3" || fail "$1: $(basename "$2") has [$3]"; }  # LABEL FILE PATTERN
# install_test_service NAME FOLDER START [MODE]: nv_test_service copied to C:\prot\FOLDER, installed.
install_test_service() {
    mkdir -p "$WINEPREFIX/drive_c/prot/$2" && cp "$NV_BIN_DIR/nv_test_service.exe" "$WINEPREFIX/drive_c/prot/$2/"
    run sc create "$1" binPath= "\"C:\\prot\\$2\\nv_test_service.exe\" ${4:-}" start= "$3"
    [ "$rc" = 0 ] || fail "install $1: $(cat "$out")"
}
# hold image|service PATH|NAME: installer_probe ($probe, a Windows path) keeps an image mapping (as
# a loaded driver does) or a service handle until unhold.
hold_release='Global\nv_installer_hold'
hold() {
    wine "$probe" "hold-$1" "$2" "$hold_release" </dev/null >"$work/hold.txt" 2>&1 & hold_pid=$!
    poll 100 0.2 'grep -q holding "$work/hold.txt" 2>/dev/null' || fail "hold-$1 $2 did not start: $(cat "$work/hold.txt")"
}
unhold() { wine "$helper" set-event "$hold_release" </dev/null >/dev/null 2>&1; wait "$hold_pid" 2>/dev/null; }
# finish WHAT [LOG-LINES]: with failures, the debug log (its last LOG-LINES lines) and exit 1.
finish() {
    [ "$failures" -ne 0 ] || { echo "all $1 checks passed"; return; }
    echo "---- debug log"
    tr -d '\r' <"$log" | tail -n "${2:-+1}"
    echo "$failures failure(s)"
    exit 1
}
