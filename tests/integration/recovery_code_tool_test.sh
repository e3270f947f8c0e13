#!/usr/bin/env bash
# The recovery_code tool: usage errors, key generation and codes made from the test key.
set -uo pipefail
: "${WINEPREFIX:?}" "${NV_BIN_DIR:?}" "${NV_SOURCE_DIR:?}"
export WINEDEBUG=-all
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-recovery-tool.XXXXXX")
trap 'rm -rf "$work"' EXIT
tool=$NV_BIN_DIR/recovery_code.exe
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
run() {
    wine "$tool" "$@" </dev/null >"$work/out" 2>"$work/err"
    rc=$?
    tr -d '\r' <"$work/out" >"$work/out.n" && mv "$work/out.n" "$work/out"
}
# The Windows name of a Linux path: Z: maps the root (no wine process to start, or to fail
# under load).
win() { local p=${1//\//\\}; printf 'Z:%s' "$p"; }

key=$(win "$NV_SOURCE_DIR/tests/data/recovery_test_key.priv.hex")
guid=19487ca1-b523-4f5c-99a0-5e2aba76551a

run
[ "$rc" = 2 ] || fail "no arguments: exit $rc"
run make "$key" "$guid" 2099-12-31
[ "$rc" = 2 ] || fail "bad date: exit $rc"
run make "$(win "$work/missing.hex")" "$guid" 20991231
[ "$rc" = 1 ] || fail "missing key: exit $rc"

run make "$key" "$guid" 20991231
[ "$rc" = 0 ] || fail "make: exit $rc $(cat "$work/err")"
grep -Eq '^20991231-[0-9A-F]{512}$' "$work/out" || fail "code format: $(cat "$work/out")"
first=$(cat "$work/out")
run make "$key" "$guid" 20991231
[ "$first" = "$(cat "$work/out")" ] || fail "the same input makes the same code"
run make "$key" "${guid^^}" 20991231
[ "$first" = "$(cat "$work/out")" ] || fail "the machine id is taken in any case"
run make "$key" "$guid" 20991230
[ "$first" != "$(cat "$work/out")" ] || fail "the date is signed"

run keygen "$(win "$work/new.priv")" "$(win "$work/new.pub")"
[ "$rc" = 0 ] || fail "keygen: exit $rc $(cat "$work/err")"
grep -Eq '^[0-9A-F]+$' "$work/new.pub" || fail "public key file is hex"
run make "$(win "$work/new.priv")" "$guid" 20991231
[ "$rc" = 0 ] && [ "$first" != "$(cat "$work/out")" ] || fail "a new key makes other codes"

[ "$failures" = 0 ] || exit 1
echo "recovery_code tool checks passed"
