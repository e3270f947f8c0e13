# Shared by the shell tests: run Windows programs of this build under Wine and check results.
# Output always goes through files: Wine's helper processes may hold a pipe open.
set -u
: "${NV_BIN_DIR:?run through ctest}" "${WINEPREFIX:?run through ctest}"
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

failures=0
checks=0
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-test.XXXXXX")
trap 'rm -rf "$work"' EXIT

# run_exe EXE ARGS... : runs under wine; sets $rc and $out (a file with standard output).
run_exe() {
  local exe=$1
  shift
  out="$work/out.$((checks + 1))"
  wine "$exe" "$@" </dev/null >"$out" 2>"$out.err"
  rc=$?
}

pass() { checks=$((checks + 1)); }
fail() {
  checks=$((checks + 1))
  failures=$((failures + 1))
  echo "FAIL: $*"
}

expect_eq() {  # expect_eq WHAT EXPECTED ACTUAL
  if [ "$2" == "$3" ]; then pass; else fail "$1: expected [$2], got [$3]"; fi
}

expect_file_eq() {  # expect_file_eq WHAT EXPECTED_FILE ACTUAL_FILE
  if cmp -s "$2" "$3"; then pass; else
    fail "$1: output differs"
    diff <(od -c "$2") <(od -c "$3") | head -n 20
  fi
}

expect_empty() {  # expect_empty WHAT FILE
  if [ ! -s "$2" ]; then pass; else fail "$1: expected no output, got: $(head -c 200 "$2")"; fi
}

expect_grep() {  # expect_grep WHAT PATTERN FILE
  if grep -q -- "$2" "$3"; then pass; else fail "$1: [$2] not found in $3"; fi
}

finish() {
  echo "$((checks - failures)) passed, $failures failed"
  [ "$failures" -eq 0 ]
}

# A Windows path for a Linux one (Z: maps the Linux root).
winpath() { printf 'Z:%s' "$(printf '%s' "$1" | tr '/' '\\')"; }
