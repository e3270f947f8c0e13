# Shared by the driver installer and setup task tests, after service_prefix.sh (whose reg_value
# reads registry values): log lines, service states and the handles installer_probe holds.

# sc_state NAME: the state the service manager reports (RUNNING ...), empty for no such service
sc_state() { wine sc query "$1" </dev/null 2>/dev/null | tr -d '\r' | awk '$1 == "STATE" { print $4 }'; }
# logged FILE PATTERN: a line of FILE matches (grep reads to the end, not to fail the pipe).
logged() { tr -d '\r' <"$1" | grep -- "$2" >/dev/null; }
expect_logged() {  # LABEL FILE PATTERN...
    local label=$1 file=$2 p
    shift 2
    for p; do logged "$file" "$p" || fail "$label: $(basename "$file") has no [$p]"; done
}
expect_not_logged() { ! logged "$2" "$3" || fail "$1: $(basename "$2") has [$3]"; }  # LABEL FILE PATTERN
# hold image|service PATH|NAME: installer_probe ($probe, a Windows path) keeps an image mapping (as
# a loaded driver does) or a service handle until unhold.
hold_release='Global\nv_installer_hold'
hold() {
    wine "$probe" "hold-$1" "$2" "$hold_release" </dev/null >"$work/hold.txt" 2>&1 &
    hold_pid=$!
    poll 100 0.2 'grep -q holding "$work/hold.txt" 2>/dev/null' || fail "hold-$1 $2 did not start: $(cat "$work/hold.txt")"
}
unhold() {
    wine "$helper" set-event "$hold_release" </dev/null >/dev/null 2>&1
    wait "$hold_pid" 2>/dev/null
}
before_cleanup() { wine "$helper" set-event "$hold_release" </dev/null >/dev/null 2>&1; }
