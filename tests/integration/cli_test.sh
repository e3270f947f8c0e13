#!/usr/bin/env bash
# The one-shot options as a user sees them: output bytes and process exit codes
# (a Windows exit code of -2 reaches the Linux shell as 254, -3 as 253 and so on).
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
  wine "$1" $2 </dev/null >"$out" 2>/dev/null
  rc=$?
  [ "$rc" = "$3" ] || fail "exit code of [$2]: $rc, want $3"
  if [ "$4" = usage ]; then cmp -s "$usage" "$out" || fail "usage text of [$2]: $(od -c "$out" | head -n 5)"
  elif [ -s "$out" ]; then fail "output of [$2]: $(head -c 200 "$out")"; fi
}

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
0   -c RpcSs
0   -C rpcss
254 -proxy_task
254 -proxy_task no_such_task
254 -proxy_task hvs_folder_repair
254 -PROXY_TASK HVS_FOLDER_REPAIR
0   -proxy_task hvs_unchange
CASES

# A stopped and a disabled service (sc may fail on a loaded machine: try again).
for row in "252 nvcli_stopped_$$" "253 nvcli_disabled_$$ start= disabled"; do
  read -r want name options <<<"$row"
  for _ in 1 2 3; do
    wine sc create "$name" binPath= 'C:\windows\system32\notepad.exe' $options </dev/null >/dev/null 2>&1
    wine sc query "$name" </dev/null >/dev/null 2>&1 && break
    sleep 1
  done
  check "$exe" "-c $name" "$want" empty
  wine sc delete "$name" </dev/null >/dev/null 2>&1
done

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

finish cli 40
