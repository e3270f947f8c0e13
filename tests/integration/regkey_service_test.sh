#!/usr/bin/env bash
# Registry key protection against the running service and the driver simulator: key and subkey
# DACLs as SDDL, what the driver received, access without the service SIDs, persisted records
# across stops, kills and uninstalled owners, and DACLs that cannot be written back.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"
probe=$NV_BIN_DIR/nv_regkey_probe.exe
persist='Software\Norvale\NVClientHelper\ProtectedRegKeys'
own_keys=(
    'Software\Norvale\NVClientHelper\ProtectedServices'
    'system\CurrentControlSet\Services\VQRMonitor\ProtectedProcesses'
    'system\CurrentControlSet\Services\VQRMonitor\ProtectedFolders'
    'system\CurrentControlSet\Services\VQRMonitor\TrustedOpenApps'
    'Software\Norvale\NVClientHelper\ProtectedRegKeys'
    'Software\Norvale\NVClientHelper\QuarantineContainers'
)
hklm=FFFFFFFF80000002
hklm_text=18446744071562067970
sddl() { run "$probe" sddl "$1" && cat "$out"; }
access() { run "$probe" access "$1" && cat "$out"; }
# protect ENTRY...: request 0x100000b from "action|root|path|owner|level|svc,svc"; reply hex in $reply
protect() {
    run "$probe" request "$@"
    run "$client" -t 60000 send 100000b "$(cat "$out")"
    reply=$(cat "$out")
}
protected_keys() {
    run "$client" send 100000c
    run "$probe" keys "$(cat "$out")" && cat "$out"
}
journal() { run "$ctl" journal && cat "$out"; }
# journal_has LABEL CODE TEXT: a command CODE with exactly TEXT (Windows says MACHINE, Wine Machine)
journal_has() {
    journal | grep -q -i -F "\"code\":$2,\"kind\":\"command\",\"text\":\"${3//\\/\\\\}\"" || fail "$1: no code $2 with [$3]"
}
journal_count() { journal | grep -c -F "\"code\":$1,"; }
# Waits for the six own keys' load lines, then stands in for the service SID on the record key.
start_service() {
    local before
    before=$(log_count 'Load protected reg key: ')
    for _ in $(seq 1 60); do  # after a kill the manager may count it as running a while
        run "$exe" -s start
        [ "$rc" = 0 ] && break
        sleep 1
    done
    [ "$rc" = 0 ] || fail "start: $(cat "$out")"
    for _ in $(seq 1 150); do
        [ "$(log_count 'Load protected reg key: ')" -ge $((before + 6)) ] && break
        sleep 0.2
    done
    run "$probe" grant "$persist"
}
has_value() { wine reg query "HKLM\\$persist" /v "$1" </dev/null >/dev/null 2>&1; }
own_sid=$(service_sid $svc)
owner_sid=$(service_sid nv_owner_a)
extra_sid=$(service_sid nv_extra)

echo "== set-up: service, owner services, test keys"
run "$exe" -i install
run sc create nv_owner_a binPath= 'C:\windows\system32\notepad.exe'
run sc create nv_owner_b binPath= 'C:\windows\system32\notepad.exe'
for k in Lvl0 Lvl0\\A Lvl0\\A\\B Lvl0\\C Lvl2 Lvl2\\A Lvl1 Lvl1\\A Crash Seam Locked NoDriver; do
    run reg add "HKLM\\Software\\NvTest\\$k" /f
done
wine reg delete 'HKLM\Software\NvTest\Fresh' /f </dev/null >/dev/null 2>&1
orig=$(sddl 'Software\NvTest\Lvl0')
[ -n "$orig" ] || fail "original DACL readable"
declare -A own_orig
for k in "${own_keys[@]}"; do
    run reg add "HKLM\\$k" /f
    own_orig[$k]=$(sddl "$k")
done

# The protected DACL of Wine's default key DACL for a level and its full-access SIDs.
protected_sddl() {
    local level=$1 sid text='D:PARAI'
    shift
    for sid in "$@"; do text+="(A;OICI;0x101f003f;;;$sid)"; done
    case $level in
    0) text+='(A;CIIO;;;;BU)(A;;;;;BA)' ;;
    2) text+='(A;CIIO;;;;BU)(A;;KW;;;BA)' ;;
    *) text+='(A;CIIO;GR;;;BU)(A;;KR;;;BA)' ;;
    esac
    echo "$text"
}
# tree_is LABEL WANT KEY...: every key's DACL as SDDL
tree_is() {
    local label=$1 want=$2 k
    shift 2
    for k in "$@"; do expect_eq "$label: $k" "$want" "$(sddl "$k")"; done
}
t='Software\NvTest'
lvl0_tree=("$t\\Lvl0" "$t\\Lvl0\\A" "$t\\Lvl0\\A\\B" "$t\\Lvl0\\C")
lvl2_tree=("$t\\Lvl2" "$t\\Lvl2\\A")
lvl1_tree=("$t\\Lvl1" "$t\\Lvl1\\A")
value_of() { echo "\\\\$hklm_text\\$(echo "$1" | tr '[:upper:]' '[:lower:]')"; }

echo "== start: the own keys are protected, and released by an orderly stop"
start_service
for k in "${own_keys[@]:0:4}"; do expect_eq "own key protected" "$(protected_sddl 1 "$own_sid")" "$(sddl "$k")"; done
p=$(protected_sddl 1 "$own_sid")
expect_eq "own key protected, then granted by the test" "D:PARAI(A;;KA;;;BA)${p#D:PARAI}" "$(sddl "$persist")"
# Protected after "ProtectedRegKeys", whose protected DACL lets the service only read it under
# Wine: its record cannot be written first, so its DACL is left as it was.
expect_eq "a key whose record cannot be written" "${own_orig[${own_keys[5]}]}" "$(sddl "${own_keys[5]}")"
[ "$(log_count "Original dacl for registry key [${own_keys[5]}] could not be recorded, the dacl is left as it is")" = 1 ] ||
    fail "unrecorded key line"
for k in "${own_keys[@]}"; do journal_has "own key rule" 12 "\\REGISTRY\\Machine\\$k"; done
expect_eq "own keys listed" "count=6" "$(protected_keys | head -n 1)"
stop_service
for k in "${own_keys[@]}"; do expect_eq "own key released" "${own_orig[$k]}" "$(sddl "$k")"; done
expect_eq "own keys' rules removed" 6 "$(journal_count 13)"
start_service

echo "== protect three trees at levels 0, 2 and 1"
protect "1|$hklm|$t\\Lvl0|nv_owner_a|0|nv_extra" "1|$hklm|$t\\Lvl2|nv_owner_a|2|" "1|$hklm|$t\\Lvl1|nv_owner_b|1|nv_extra,$svc,nv_owner_b"
expect_eq "protect reply" 0100 "$reply"
tree_is "level 0" "$(protected_sddl 0 "$own_sid" "$owner_sid" "$extra_sid")" "${lvl0_tree[@]}"
tree_is "level 2" "$(protected_sddl 2 "$own_sid" "$owner_sid")" "${lvl2_tree[@]}"
tree_is "level 1" "$(protected_sddl 1 "$own_sid" "$(service_sid nv_owner_b)" "$extra_sid")" "${lvl1_tree[@]}"
for k in Lvl0 Lvl2 Lvl1; do
    journal_has "rule for $k" 12 "\\REGISTRY\\Machine\\Software\\NvTest\\$k"
    has_value "$(value_of "$t\\$k")" || fail "$k persisted"
done
# This process holds no service SID: it keeps only what the level leaves to Administrators.
expect_eq "level 0 access" "read=denied write=denied" "$(access "$t\\Lvl0\\A")"
expect_eq "level 2 access" "read=denied write=ok" "$(access "$t\\Lvl2")"
expect_eq "level 1 access" "read=ok write=denied" "$(access "$t\\Lvl1\\A")"
expect_eq "an unprotected key" "read=ok write=ok" "$(access "$t\\Crash")"
expect_eq "nine keys listed" "count=9" "$(protected_keys | head -n 1)"
protected_keys | grep -q -F "$hklm_text|$t\\Lvl0|nv_owner_a|nv_extra|$orig|" || fail "Lvl0 listed: $(protected_keys)"
[ "$(log_count "Reg key \\\\$hklm_text\\software\\nvtest\\lvl0 has been protected.")" = 1 ] || fail "protected line"

echo "== the same key twice and in another letter case; a key that is not protected"
rules=$(journal_count 12)
protect "1|$hklm|SOFTWARE\\NVTEST\\LVL1|nv_owner_a|0|" "1|$hklm|$t\\Lvl1|nv_owner_a|0|"
expect_eq "again reply" 0100 "$reply"
tree_is "the first record stays" "$(protected_sddl 1 "$own_sid" "$(service_sid nv_owner_b)" "$extra_sid")" "${lvl1_tree[@]}"
protect "0|$hklm|$t\\Crash|nv_owner_a|0|"
expect_eq "unprotect of an unprotected key" 0100 "$reply"
expect_eq "no rule sent" "$rules" "$(journal_count 12)"
expect_eq "still nine" "count=9" "$(protected_keys | head -n 1)"

echo "== an empty first path with action 1 does nothing"
protect "1|$hklm||nv_owner_a|0|" "0|$hklm|$t\\Lvl0|nv_owner_a|0|"
expect_eq "empty path, action 1" 0100 "$reply"
expect_eq "nothing changed" "count=9" "$(protected_keys | head -n 1)"

echo "== a missing key is created and protected"
protect "1|$hklm|$t\\Fresh\\New|nv_owner_a|1|"
expect_eq "missing key reply" 0100 "$reply"
tree_is "created key" "$(protected_sddl 1 "$own_sid" "$owner_sid")" "$t\\Fresh\\New"

echo "== unprotect: original DACLs back on every subkey, code 13, record gone"
protect "0|$hklm|$t\\LVL0|x|0|"
expect_eq "unprotect reply" 0100 "$reply"
tree_is "level 0 restored" "$orig" "${lvl0_tree[@]}"
journal_has "rule removed" 13 "\\REGISTRY\\Machine\\Software\\NvTest\\Lvl0"
has_value "$(value_of "$t\\Lvl0")" && fail "Lvl0 value left"
expect_eq "nine keys again (Fresh in, Lvl0 out)" "count=9" "$(protected_keys | head -n 1)"
[ "$(log_count "Reg key \\\\$hklm_text\\software\\nvtest\\lvl0 has been unprotected.")" = 1 ] || fail "unprotected line"

echo "== an original DACL that cannot be written back: answered 0, the key stays protected"
# Owned by SYSTEM, the protected key grants nobody here the right to write its DACL.
wine "$probe" lock "$t\\Locked" </dev/null >"$work/lock.txt" 2>&1 &
locker=$!
for _ in $(seq 1 150); do grep -q locked "$work/lock.txt" && break; sleep 0.2; done
protect "1|$hklm|$t\\Locked|nv_owner_a|1|"
expect_eq "protect reply" 0100 "$reply"
removed=$(journal_count 13)
protect "0|$hklm|$t\\Locked|nv_owner_a|1|"
expect_eq "unprotect reply" 0000 "$reply"
tree_is "still protected" "$(protected_sddl 1 "$own_sid" "$owner_sid")" "$t\\Locked"
expect_eq "its rule stays" "$removed" "$(journal_count 13)"
has_value "$(value_of "$t\\Locked")" || fail "Locked record kept"
protected_keys | grep -q -F "$hklm_text|$t\\Locked|nv_owner_a||$orig|" || fail "Locked still listed: $(protected_keys)"
expect_eq "failure line" 1 "$(log_count "Failed to restore the original dacl of reg key (\\\\$hklm_text\\$t\\Locked), the key stays protected")"
expect_eq "no unprotected line" 0 "$(log_count "software\\nvtest\\locked has been unprotected.")"
run "$probe" unlock
wait "$locker" || fail "lock: the owner was not given back"
protect "0|$hklm|$t\\Locked|nv_owner_a|1|"
expect_eq "a later unprotect" 0100 "$reply"
expect_eq "original DACL back" "$orig" "$(sddl "$t\\Locked")"
journal_has "rule removed" 13 "\\REGISTRY\\Machine\\Software\\NvTest\\Locked"
has_value "$(value_of "$t\\Locked")" && fail "Locked value left"

echo "== a protect without the driver answers 0; an unprotect gives back what it left"
run "$ctl" unload
protect "1|$hklm|$t\\NoDriver|nv_owner_a|1|"
expect_eq "protect without the driver" 0000 "$reply"
tree_is "its DACL step stays" "$(protected_sddl 1 "$own_sid" "$owner_sid")" "$t\\NoDriver"
has_value "$(value_of "$t\\NoDriver")" || fail "NoDriver record persisted"
run "$ctl" load
protect "0|$hklm|$t\\NoDriver|nv_owner_a|1|"
expect_eq "unprotect reply" 0100 "$reply"
expect_eq "original DACL back" "$orig" "$(sddl "$t\\NoDriver")"
has_value "$(value_of "$t\\NoDriver")" && fail "NoDriver value left"

echo "== restart: client keys released while stopped, protected again from their records"
stop_service
tree_is "level 2 released" "$orig" "${lvl2_tree[@]}"
tree_is "level 1 released" "$orig" "${lvl1_tree[@]}"
has_value "$(value_of "$t\\Lvl2")" || fail "Lvl2 record kept"
start_service
tree_is "level 2 again" "$(protected_sddl 2 "$own_sid" "$owner_sid")" "${lvl2_tree[@]}"
protect "0|$hklm|$t\\Lvl2|nv_owner_a|0|"
tree_is "level 2 restored after the restart" "$orig" "${lvl2_tree[@]}"
has_value "$(value_of "$t\\Lvl2")" && fail "Lvl2 value left"

echo "== an owner uninstalled while the service was stopped"
stop_service
run sc delete nv_owner_b
start_service
[ "$(log_count "Owner service [nv_owner_b] of reg key {$(value_of "$t\\Lvl1")} has been uninstalled, unprotect the key.")" = 1 ] ||
    fail "uninstalled owner line"
tree_is "level 1 given back" "$orig" "${lvl1_tree[@]}"
has_value "$(value_of "$t\\Lvl1")" && fail "Lvl1 value left"

echo "== killed right after a protect"
protect "1|$hklm|$t\\Crash|nv_owner_a|1|"
expect_eq "protect before the kill" 0100 "$reply"
run taskkill /f /im NorvaleHalvernService.exe
[ "$rc" = 0 ] || fail "taskkill: $(cat "$out")"
start_service
protect "0|$hklm|$t\\Crash|nv_owner_a|1|"
expect_eq "unprotect after the kill" 0100 "$reply"
expect_eq "DACL from before the first protect" "$orig" "$(sddl "$t\\Crash")"

echo "== ended between the record write and the DACL write"
stop_service
run "$probe" crash-protect "$t\\Seam" nv_owner_a 0
expect_eq "ended at the seam" 9 "$rc"
has_value "$(value_of "$t\\Seam")" || fail "record written before the DACL"
expect_eq "DACL not yet changed" "$orig" "$(sddl "$t\\Seam")"
start_service
tree_is "protected from its record" "$(protected_sddl 0 "$own_sid" "$owner_sid")" "$t\\Seam"
protect "0|$hklm|$t\\Seam|nv_owner_a|0|"
expect_eq "DACL from before the protect" "$orig" "$(sddl "$t\\Seam")"

echo "== an empty first path with action 0 lifts every key rule"
protect "0|$hklm||nv_owner_a|0|" "1|$hklm|$t\\Lvl0|nv_owner_a|0|"
expect_eq "remove all reply" 0100 "$reply"
journal_has "all rules removed" 13 ""
expect_eq "no keys left" "count=0" "$(protected_keys | head -n 1)"
tree_is "fresh key released" "$orig" "$t\\Fresh\\New"
for k in "${own_keys[@]}"; do expect_eq "own key released by remove all" "${own_orig[$k]}" "$(sddl "$k")"; done
stop_service

finish "registry key protection"
