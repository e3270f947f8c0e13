#!/usr/bin/env bash
# The recovery_code tool: usage errors, key generation and codes made from the test key.
set -uo pipefail
. "$(dirname "$0")/service_prefix.sh"
tool=$NV_BIN_DIR/recovery_code.exe
win() { local p=${1//\//\\}; printf 'Z:%s' "$p"; }  # Z: maps the Linux root
key=$(win "$NV_SOURCE_DIR/tests/data/recovery_test_key.priv.hex")
guid=19487ca1-b523-4f5c-99a0-5e2aba76551a

run "$tool"
expect "no arguments" 2
run "$tool" make "$key" "$guid" 2099-12-31
expect "bad date" 2
run "$tool" make "$(win "$work/missing.hex")" "$guid" 20991231
expect "missing key" 1

run "$tool" make "$key" "$guid" 20991231
expect "make" 0
grep -Eq '^20991231-[0-9A-F]{512}$' "$out" || fail "code format: $(cat "$out")"
first=$(cat "$out")
run "$tool" make "$key" "$guid" 20991231
expect_eq "the same input makes the same code" "$first" "$(cat "$out")"
run "$tool" make "$key" "${guid^^}" 20991231
expect_eq "the machine id is taken in any case" "$first" "$(cat "$out")"
run "$tool" make "$key" "$guid" 20991230
[ "$first" != "$(cat "$out")" ] || fail "the date is signed"

run "$tool" keygen "$(win "$work/new.priv")" "$(win "$work/new.pub")"
expect "keygen" 0
grep -Eq '^[0-9A-F]+$' "$work/new.pub" || fail "public key file is hex"
run "$tool" make "$(win "$work/new.priv")" "$guid" 20991231
expect "a new key" 0
[ "$first" != "$(cat "$out")" ] || fail "a new key makes other codes"

[ "$failures" = 0 ] || exit 1
echo "recovery_code tool checks passed"
