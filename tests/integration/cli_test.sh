#!/usr/bin/env bash
# The one-shot options as a user sees them: output bytes and process exit codes
# (a Windows exit code of -2 reaches the Linux shell as 254, -3 as 253 and so on); then the
# recovery_code tool: usage errors, key generation and codes made from the build's own key.
. "$(dirname "$0")/service_prefix.sh"

# A private copy of the program, so its debug log is this test's own.
dir="$work/app"
mkdir -p "$dir"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$dir/"
exe="$dir/NorvaleHalvernService.exe"
log="$dir/nvhalvernservice.debug.log"
usage="$NV_SOURCE_DIR/tests/data/usage.txt"
# check EXE ARGS WANT_RC usage|empty: exit code, and stdout byte for byte the usage text or nothing.
check() {
  local before
  before=$(stat -c %s "$log" 2>/dev/null || echo 0)
  wine "$1" $2 </dev/null >"$out" 2>/dev/null
  rc=$?
  # Exit code 1 is none of the program's own: with its debug log untouched, Wine lost the process
  # before it ran (as setup_tasks_test.sh notes too). Said, and run once more.
  if [ "$rc" = 1 ] && [ "$3" != 1 ] && [ "$(stat -c %s "$log" 2>/dev/null || echo 0)" = "$before" ]; then
    echo "note: [$2] ended with 1 before its first log line: run again"
    wine "$1" $2 </dev/null >"$out" 2>/dev/null
    rc=$?
  fi
  [ "$rc" = "$3" ] || fail "exit code of [$2]: $rc, want $3"
  if [ "$4" = usage ]; then cmp -s "$usage" "$out" || fail "usage text of [$2]: $(od -c "$out" | head -n 5)"
  elif [ -s "$out" ]; then fail "output of [$2]: $(head -c 200 "$out")"; fi
}

# A disabled service for -c (sc may fail on a loaded machine: try again); service_test has a stopped one.
for _ in 1 2 3; do
  wine sc create nvcli_disabled binPath= 'C:\windows\system32\notepad.exe' start= disabled </dev/null >/dev/null 2>&1
  wine sc query nvcli_disabled </dev/null >/dev/null 2>&1 && break
  sleep 1
done
# -C rpcss wants a running service: Wine starts RpcSs on demand, which a loaded machine may not
# have done yet.
wine net start RpcSs </dev/null >/dev/null 2>&1
while read -r want args; do check "$exe" "$args" "$want" usage; done <<'CASES'
0   -h
0   -H
254 -x
254 -i
254 -I nonsense
254 -s
254 -S restart
254 --help
CASES
while read -r want args; do check "$exe" "$args" "$want" empty; done <<'CASES'
0   -e
0   -E
254 -c
251 -c no_such_service_here
0   -C rpcss
253 -c nvcli_disabled
254 -proxy_task
254 -proxy_task no_such_task
254 -proxy_task hvs_folder_repair
254 -PROXY_TASK HVS_FOLDER_REPAIR
0   -proxy_task hvs_unchange
CASES
wine sc delete nvcli_disabled </dev/null >/dev/null 2>&1
# No option, outside the service manager: the control dispatcher refuses the process (after about 10 s).
runs "no option, from a console" 0 "halvern service could not be started!" "$exe"
[ "$(log_lines '\] - StartServiceCtrlDispatcher failed\.')" = 1 ] || fail "no option: the dispatcher's refusal not logged"

# Folder repair never leaves a task log; the other tasks copy the debug log whatever their result.
[ ! -e "$dir/hvs_folder_repair.log" ] && [ ! -e "$dir/hvs_install.log" ] || fail "unexpected task log"
for row in "hvs_install install" "hvs_fresh install" "hvs_upgrade upgrade" "hvs_uninstall uninstall" "hvs_remove uninstall"; do
  read -r task copy <<<"$row"
  rm -f "$dir"/hvs_*.log
  wine "$exe" -proxy_task "$task" </dev/null >/dev/null 2>&1
  cmp -s "$log" "$dir/hvs_$copy.log" || fail "$task: hvs_$copy.log is not a copy of the debug log"
done

# A log path over 260 characters: no log, but the program works.
deep="$work/$(printf 'd%.0s' {1..120})/$(printf 'e%.0s' {1..120})"
mkdir -p "$deep"
cp "$exe" "$deep/"
check "$deep/NorvaleHalvernService.exe" -h 0 usage
[ ! -e "$deep/nvhalvernservice.debug.log" ] || fail "a log was written despite the long path"

tool=$NV_BIN_DIR/recovery_code.exe
key=$(win "$recovery_key")
guid=19487ca1-b523-4f5c-99a0-5e2aba76551a

runs "no arguments" 2 '*' "$tool"
runs "bad date" 2 '*' "$tool" make "$key" "$guid" 2099-12-31
runs "missing key" 1 '*' "$tool" make "$(win "$work/missing.hex")" "$guid" 20991231

runs "make" 0 '*' "$tool" make "$key" "$guid" 20991231
grep -Eq '^20991231-[0-9A-F]{512}$' "$out" || fail "code format: $(cat "$out")"
first=$(cat "$out")
run "$tool" make "$key" "${guid^^}" 20991231
expect_eq "the machine id is taken in any case" "$first" "$(cat "$out")"

runs "keygen" 0 '*' "$tool" keygen "$(win "$work/new.priv")" "$(win "$work/new.pub")"
grep -Eq '^[0-9A-F]+$' "$work/new.pub" || fail "public key file is hex"
runs "a new key" 0 '*' "$tool" make "$(win "$work/new.priv")" "$guid" 20991231
[ "$first" != "$(cat "$out")" ] || fail "a new key makes other codes"

finish cli 40
