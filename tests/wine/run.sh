#!/usr/bin/env bash
# ctest's emulator: a Windows program under Wine, its output through a file (Wine's helper
# processes may inherit a pipe and outlive the program).
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
out=$(mktemp "${TMPDIR:-/tmp}/nv-wine-out.XXXXXX")
trap 'rm -f "$out"' EXIT
wine "$@" </dev/null >"$out" 2>&1; rc=$?
cat "$out"
exit $rc
