#!/usr/bin/env bash
# Runs a Windows program under Wine in the test prefix (ctest's cross-compiling emulator).
#
# Output goes through a file: Wine's helper processes (services.exe and the like) may inherit
# the descriptors of the program that started them and outlive it, and a runner reading a
# pipe would then wait for them.
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
out=$(mktemp "${TMPDIR:-/tmp}/nv-wine-out.XXXXXX")
trap 'rm -f "$out"' EXIT
wine "$@" </dev/null >"$out" 2>&1
rc=$?
cat "$out"
exit $rc
