#!/usr/bin/env bash
# Registry key protection against the running service and the driver simulator: key and subkey
# DACLs as SDDL, what the driver received, access without the service SIDs, bad requests, the
# switch, records across stops, kills and uninstalled owners, DACLs that cannot be written back.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"
probe=$NV_BIN_DIR/nv_regkey_probe.exe persist='Software\Norvale\NVClientHelper\ProtectedRegKeys'
own_keys=('Software\Norvale\NVClientHelper\ProtectedServices'
    'system\CurrentControlSet\Services\VQRMonitor\ProtectedProcesses'
    'system\CurrentControlSet\Services\VQRMonitor\ProtectedFolders'
    'system\CurrentControlSet\Services\VQRMonitor\TrustedOpenApps' "$persist"
    'Software\Norvale\NVClientHelper\QuarantineContainers')
hklm=FFFFFFFF80000002 hklm_text=18446744071562067970 t='Software\NvTest'
sddl() { run "$probe" sddl "$@" && cat "$out"; }
tree_is() { expect_eq "$1" "$(for _ in "${@:3}"; do echo "$2"; done)" "$(sddl "${@:3}")"; }  # LABEL WANT KEY...
# protect WANT ENTRY...: request 0x100000b from named fields, one ENTRY
# "action|root-hex|path|owner|level|svc,svc" an element, its reply WANT (a status reply's fields)
protect() {
    local want=$1 label="${*:2}" e a r p o l s x args=()
    for e in "${@:2}"; do
        IFS='|' read -r a r p o l s <<<"$e"
        args+=(protect="$a" root="0x$r" path="$p" owner="$o")
        for x in ${s//,/ }; do args+=(service="$x"); done
        args+=(level="$l")
    done
    answers "reply to ${label:0:200}" "$want" protect-reg-keys "${args[@]}"
}
# protect_bytes WANT LABEL HEX: request 0x100000b as bytes, through a file (any length), for what
# a command line cannot carry; its reply in hex WANT
protect_bytes() {
    printf '%s' "$3" >"$work/request.hex"
    runs "reply to ${2:0:200}" 0 "$1" "$client" -t 60000 send 100000b "@Z:$work/request.hex"
}
entry_bytes() {  # PATH: one level-1 protect entry of PATH for nv_owner_a in hex
    printf '01%s%s%s%s' "$(hex_u32 0x80000002)" "$(hex_u32 0xFFFFFFFF)" "$(hex_wstr "$1")" "$(hex_str nv_owner_a)00000000$(hex_u32 1)"
}
listing() { call get-protected-reg-keys && printf '%s\n' "$reply"; }  # the records, one a line
listed() { expect_eq "records listed" "count=$1" "$(listing | head -n 1)"; }
# has_record ORIGINAL CURRENT ENTRY: the listing holds ENTRY's record with these DACL texts
has_record() {
    local a r p o l s records
    IFS='|' read -r a r p o l s <<<"$3"
    records=$(listing)
    grep -q -x -F "valid=1 original_sddl=$1 current_sddl=$2 root=$hklm_text path=$p owner=$o service=$s" <<<"$records" ||
        fail "not listed: $3 {$1} {$2}; listed: $records"
}
# has_rule CODE TEXT: the simulator got command CODE with TEXT (Windows says MACHINE, Wine Machine)
has_rule() { driver_messages | grep -q -i -x -F "$1 command $2" || fail "no code $1 with [$2]"; }
rule_count() { driver_messages | grep -c "^$1 command"; }
value_of() { echo "\\\\$hklm_text\\$(echo "$1" | tr '[:upper:]' '[:lower:]')"; }
has_value() { reg_value "HKLM\\$persist" "$(value_of "$1")" >/dev/null; }
absent() { wine reg query "HKLM\\$1" </dev/null >/dev/null 2>&1 || echo absent; }  # KEY: "absent" when there is no such key
# logged_by FUNCTION MESSAGE: MESSAGE logged once by FUNCTION, with a line break of its own
logged_by() {
    expect_eq "$2" "$1: $2||" "$(tr -d '\r' <"$log" | grep -A1 -F -- "] - $2" |
        sed 's/^.*\[\([^]]*\):[0-9]*\] - /\1: /' | tr '\n' '|')"
}
protected_sddl() {  # LEVEL SID...: the protected form of Wine's default key DACL
    local text='D:PARAI' sid
    for sid in "${@:2}"; do text+="(A;OICI;0x101f003f;;;$sid)"; done
    case $1 in 0) echo "$text(A;CIIO;;;;BU)(A;;;;;BA)" ;; 2) echo "$text(A;CIIO;;;;BU)(A;;KW;;;BA)" ;;
    *) echo "$text(A;CIIO;GR;;;BU)(A;;KR;;;BA)" ;; esac
}
# A further service with a long name makes the level-1 record longer than the first 512-byte read
# of a registry value, so that the restarts read it in two steps.
extra=nv_further_service_$(printf 'x%.0s' $(seq 100))
owner_sid=$(service_sid nv_owner_a) extra_sid=$(service_sid $extra)
# Every start protects the own keys; the test then stands in for the service SID on the record key.
start() {
    start_service grant "$persist"
    tree_is "own keys protected at start" "$(protected_sddl 1 "$own_sid")" "${own_keys[@]:0:4}"
}
own_released() {
    expect_eq "own keys released $1" "$(for k in "${own_keys[@]}"; do echo "${own_orig[$k]}"; done)" "$(sddl "${own_keys[@]}")"
}
stop() { stop_service && own_released "at stop"; }
# given_back LABEL PATH [KEY...]: PATH unprotected (naming an owner that is not installed: an
# unprotect does not look at it), its original DACL back on PATH (or each KEY), its record gone
given_back() {
    protect "$ok" "0|$hklm|$2|nv_gone|0|"
    if [ $# -gt 2 ]; then tree_is "$1" "$orig" "${@:3}"; else tree_is "$1" "$orig" "$2"; fi
    ! has_value "$2" || fail "$1: record left"
}

echo "== set-up: service, owner services, test keys"
cp "$NV_BIN_DIR/hooks/NorvaleHalvernService.exe" "$nv/"  # the test build, for its key protect pause
run "$exe" -i install
for s in nv_owner_a nv_owner_b; do run sc create $s binPath= 'C:\windows\system32\notepad.exe'; done
for k in Lvl0 Lvl0\\A Lvl0\\A\\B Lvl0\\C Lvl2 Lvl2\\A Lvl1 Lvl1\\A Crash Seam Locked NoDriver; do run reg add "HKLM\\$t\\$k" /f; done
orig=$(sddl "$t\\Lvl0")
run "$probe" grant "$t\\Lvl0\\A" && own_a=$(sddl "$t\\Lvl0\\A")  # a subkey with a DACL of its own
[ "$own_a" != "$orig" ] || fail "Lvl0\\A has a DACL of its own"
declare -A own_orig
# Under load a run once left an own key without its original DACL text: tried again, reported if it stays so.
for k in "${own_keys[@]}"; do
    poll 3 0.5 'run reg add "HKLM\\$k" /f && own_orig[$k]=$(sddl "$k") && [ -n "${own_orig[$k]}" ]' ||
        fail "set-up: own key $k added and read"
done
lvl0_tree=("$t\\Lvl0" "$t\\Lvl0\\A" "$t\\Lvl0\\A\\B" "$t\\Lvl0\\C") lvl2_tree=("$t\\Lvl2" "$t\\Lvl2\\A")
lvl1_tree=("$t\\Lvl1" "$t\\Lvl1\\A")
lvl0=$(protected_sddl 0 "$own_sid" "$owner_sid" "$extra_sid") lvl2=$(protected_sddl 2 "$own_sid" "$owner_sid")
lvl1=$(protected_sddl 1 "$own_sid" "$(service_sid nv_owner_b)" "$extra_sid")
lvl1_a=$(protected_sddl 1 "$own_sid" "$owner_sid")

echo "== the own keys: protected at start, released by an orderly stop"
start
p=$(protected_sddl 1 "$own_sid")
expect_eq "record key, granted by the test" "D:PARAI(A;;KA;;;BA)${p#D:PARAI}" "$(sddl "$persist")"
# Protected after the record key, whose protected DACL lets the service only read it under Wine:
# its record cannot be written first, so it is left as it was, without a rule.
expect_eq "a key whose record cannot be written, and its line" "${own_orig[${own_keys[5]}]} 1" "$(sddl "${own_keys[5]}") $(
    log_count "Original dacl for registry key [${own_keys[5]}] could not be recorded, the dacl is left as it is")"
for k in "${own_keys[@]:0:5}"; do has_rule 12 "\\REGISTRY\\Machine\\$k"; done
expect_eq "no rule for it" 0 "$(driver_messages | grep -c -i -F "12 command \\REGISTRY\\Machine\\${own_keys[5]}")"
expect_eq "own key loaded" 1 "$(log_count "] - Load protected reg key: $(value_of "${own_keys[0]}")")"
stop
expect_eq "own keys' rules removed" 5 "$(rule_count 13)"
start

echo "== three trees at levels 0, 2 and 1"
protect "$ok" "1|$hklm|$t\\Lvl0|nv_owner_a|0|$extra" "1|$hklm|$t\\Lvl2|nv_owner_a|2|" \
    "1|$hklm|$t\\Lvl1|nv_owner_b|1|$extra,$svc,nv_owner_b"
tree_is "level 0" "$lvl0" "${lvl0_tree[@]}"
tree_is "level 2" "$lvl2" "${lvl2_tree[@]}"
tree_is "level 1" "$lvl1" "${lvl1_tree[@]}"
for k in Lvl0 Lvl2 Lvl1; do has_rule 12 "\\REGISTRY\\Machine\\$t\\$k"; has_value "$t\\$k" || fail "$k persisted"; done
# The record's fields in order: original and current DACL, root, path, owner, services, level.
record=$(reg_value "HKLM\\$persist" "$(value_of "$t\\Lvl1")")
expect_eq "Lvl1 record" "REG_BINARY $(hex_str "$orig")$(hex_str "$lvl1")$(hex_u32 0x80000002)$(hex_wstr "$t\\Lvl1")$(
    hex_str nv_owner_b)$(hex_u32 3)$(hex_str $extra)$(hex_str $svc)$(hex_str nv_owner_b)$(hex_u32 1)" "$record"
[ ${#record} -gt $((11 + 2 * 512)) ] || fail "the Lvl1 record is no longer than 512 bytes"
# This process holds no service SID: it keeps only what the level leaves to Administrators.
run "$probe" access "$t\\Lvl0\\A" "$t\\Lvl2" "$t\\Lvl1\\A" "$t\\Crash"
expect_eq "access at levels 0, 2, 1, unprotected" "$(printf 'read=%s write=%s\n' denied denied denied ok ok denied ok ok)" \
    "$(cat "$out")"
listed 8
has_record "$orig" "$lvl1" "1|$hklm|$t\\Lvl1|nv_owner_b|1|$extra,$svc,nv_owner_b"
once "protected line, DACL lines" "Reg key \\\\$hklm_text\\software\\nvtest\\lvl0 has been protected." \
    "] - original dacl for registry key [$t\\Lvl1] : {$orig}" "] - Current dacl for registry key [$t\\Lvl1] : {$lvl1}"

echo "== bad requests: answered 0 with a line, nothing applied, the next request served"
rules=$(rule_count 12) removed=$(rule_count 13)
whole=$(encode protect-reg-keys protect=1 root=0x$hklm path="$t\\Bad" owner=nv_owner_a level=1)
for cut in 0 4 8 18 $((${#whole} - 2)); do protect_bytes "$status_fail" "cut after $cut hex digits" "${whole:0:cut}"; done
expect_eq "malformed lines" 5 "$(log_count '] - Malformed request: ')"
# An entry as fields, or a path as bytes (one outside the ANSI code page, one of 16,361 characters).
while IFS='#' read -r how e why; do
    if [ "$how" = fields ]; then logs "$why" "is not protected: $why." protect "$refused" "$e"
    else logs "$why" "is not protected: $why." protect_bytes "$status_fail" "$why" "$(hex_u32 1)$(entry_bytes "$e")"; fi
done <<EOF
fields#1|0000000080000002|$t\\Bad|nv_owner_a|1|#the root is not a predefined key
fields#1|FFFFFFFF80000008|$t\\Bad|nv_owner_a|1|#the root is not a predefined key
fields#1|$hklm|$t\\\\Bad|nv_owner_a|1|#the path has an empty key name
fields#1|$hklm|$t\\Bad\\|nv_owner_a|1|#the path has an empty key name
fields#1|$hklm|$t\\Bad\\$(printf 'k%.0s' $(seq 256))|nv_owner_a|1|#a key name is longer than 255 characters
fields#1|$hklm|$t\\Bad|nv_gone|1|#its owner service [nv_gone] is not installed
bytes#$t\\Bad\\中#the path cannot be written in the ANSI code page
bytes#$(printf 'k%.0s' $(seq 16361))#the path is longer than the registry allows
EOF
expect_eq "Bad: nothing tried, not created, not persisted" "0 absent absent" "$(log_count "$t\\Bad") $(absent "$t\\Bad") $(
    has_value "$t\\Bad" || echo absent)"
protect_bytes "$status_ok" "no entries" 00000000
expect_eq "no entries line" 1 "$(log_count '] - No reg key set to (un)protect.')"

echo "== the registry protection switch off"
request 1000008 00
protect "$refused" "1|$hklm|$t\\Off|nv_owner_a|1|"
request 1000008 01
logged_by chelperservice::protectRegKey "Trying to protect reg key (\\\\$hklm_text\\$t\\Off)"
logged_by chelperservice::protectRegKey "Registry protection function is disabled"
expect_eq "Off not created, no rule sent" "absent $rules" "$(absent "$t\\Off") $(rule_count 12)"

echo "== the same key twice and in another letter case, a key that is not protected, an empty first path with action 1"
protect "$ok" "1|$hklm|SOFTWARE\\NVTEST\\LVL1|nv_owner_a|0|" "1|$hklm|$t\\Lvl1|nv_owner_a|0|"
tree_is "the first record stays" "$lvl1" "${lvl1_tree[@]}"
protect "$ok" "0|$hklm|$t\\Crash|nv_owner_a|0|"
protect "$ok" "1|$hklm||nv_owner_a|0|" "0|$hklm|$t\\Lvl0|nv_owner_a|0|"
tree_is "Lvl0 still protected" "$lvl0" "$t\\Lvl0"
expect_eq "no rule sent or removed" "$rules $removed" "$(rule_count 12) $(rule_count 13)"
listed 8

echo "== a missing key is created and protected"
protect "$ok" "1|$hklm|$t\\Fresh\\New|nv_owner_a|1|"
tree_is "created key" "$lvl1_a" "$t\\Fresh\\New"

echo "== a protect held at its DACL write: other requests answered meanwhile, the key's next request after it"
run reg add "HKLM\\$t\\Held" /f
held_at_dacl_write "held" "Trying to protect reg key (\\\\$hklm_text\\$t\\Held)" \
    "protect-reg-keys protect=0 root=0x$hklm path=$t\\Held owner=nv_gone level=0" \
    protect-reg-keys protect=1 root=0x$hklm path="$t\\Held" owner=nv_owner_a level=1
tree_is "held: protected, then given back" "$orig" "$t\\Held"
! has_value "$t\\Held" || fail "held: record left"

echo "== unprotect: original DACLs back on every subkey, code 13, record gone"
given_back "level 0 restored" "$t\\LVL0" "$t\\Lvl0" "$t\\Lvl0\\A\\B" "$t\\Lvl0\\C"
expect_eq "a subkey's own DACL back" "$own_a" "$(sddl "$t\\Lvl0\\A")"
has_rule 13 "\\REGISTRY\\Machine\\$t\\Lvl0"
logged_by chelperservice::unprotectRegKey "Trying to unprotect reg key (\\\\$hklm_text\\$t\\Lvl0)"
expect_eq "no longer listed, unprotected line" "0 1" "$(listing | grep -c -F " path=$t\\Lvl0 ") $(
    log_count "Reg key \\\\$hklm_text\\software\\nvtest\\lvl0 has been unprotected.")"

echo "== an original DACL that cannot be written back: answered 0, the key stays protected"
# Owned by SYSTEM, the protected key grants nobody here the right to write its DACL.
wine "$probe" lock "$t\\Locked" </dev/null >"$work/lock.txt" 2>&1 & locker=$!
poll 150 0.2 'grep -q locked "$work/lock.txt"'
protect "$ok" "1|$hklm|$t\\Locked|nv_owner_a|1|"
removed=$(rule_count 13)
protect "$refused" "0|$hklm|$t\\Locked|nv_owner_a|1|"
tree_is "still protected" "$lvl1_a" "$t\\Locked"
has_record "$orig" "$lvl1_a" "1|$hklm|$t\\Locked|nv_owner_a|1|"
expect_eq "its rule and record stay, a failure line, no unprotected line" "$removed kept 1 0" "$(rule_count 13) $(
    has_value "$t\\Locked" && echo kept) $(log_count "Failed to restore the original dacl of reg key (\\\\$hklm_text\\$t\\Locked), the key stays protected") $(
    log_count "software\\nvtest\\locked has been unprotected.")"
run "$helper" set-event 'Global\nv_regkey_probe_unlock'
wait "$locker" || fail "lock: the owner was not given back"
given_back "Locked: original DACL back" "$t\\Locked"
has_rule 13 "\\REGISTRY\\Machine\\$t\\Locked"

echo "== a protect without the driver answers 0; an unprotect gives back what it left"
run "$ctl" unload
protect "$refused" "1|$hklm|$t\\NoDriver|nv_owner_a|1|"
tree_is "its DACL step stays" "$lvl1_a" "$t\\NoDriver"
has_value "$t\\NoDriver" || fail "NoDriver record persisted"
run "$ctl" load
given_back "NoDriver: original DACL back" "$t\\NoDriver"

echo "== restart: client keys released while stopped, protected again from their records"
# Also a key without an owner (the product's own) and one whose record name is over 255 characters.
long="$t\\Long\\$(printf 'k%.0s' $(seq 200))\\$(printf 'm%.0s' $(seq 80))"  # 303 characters
protect "$ok" "1|$hklm|$t\\NoOwner||1|" "1|$hklm|$long|nv_owner_a|1|"
again() {  # LABEL: both still protected after a restart
    tree_is "$1: no owner" "$(protected_sddl 1 "$own_sid")" "$t\\NoOwner"
    tree_is "$1: long path" "$lvl1_a" "$long"
}
stop
tree_is "released while stopped" "$orig" "${lvl2_tree[@]}" "${lvl1_tree[@]}"
start
tree_is "level 2 again" "$lvl2" "${lvl2_tree[@]}"
once "read and loaded" "] - Read protected reg key: $(value_of "$t\\Lvl2")" \
    "] - Load protected reg key: $(value_of "$t\\Lvl2")"
given_back "level 2 restored after the restart" "$t\\Lvl2" "${lvl2_tree[@]}"
again "first restart"

echo "== an owner uninstalled while the service was stopped"
stop
run sc delete nv_owner_b
start
expect_eq "uninstalled owner line, its record gone" "1 absent" "$(log_count "Owner service [nv_owner_b] of reg key {$(
    value_of "$t\\Lvl1")} has been uninstalled, unprotect the key.") $(has_value "$t\\Lvl1" || echo absent)"
tree_is "level 1 given back" "$orig" "${lvl1_tree[@]}"
again "second restart"
given_back "no owner" "$t\\NoOwner"
given_back "long path" "$long"

echo "== killed; a DACL changed while the service was down is protected again, one left as it was kept"
protect "$ok" "1|$hklm|$t\\Crash|nv_owner_a|1|" "1|$hklm|$t\\Kept|nv_owner_a|1|"
kept=$(sddl "$t\\Kept")
runs "taskkill" 0 '*' taskkill /f /im NorvaleHalvernService.exe
runs "grant while down" 0 '*' "$probe" grant "$t\\Crash"
granted=$(sddl "$t\\Crash")
start
after=$(sddl "$t\\Crash")
[ "$after" != "$granted" ] && [[ "$after" != *"(A;;KA;;;BA)"* ]] || fail "the DACL changed while down stayed: $after"
expect_eq "a protected DACL left as it was" "$kept" "$(sddl "$t\\Kept")"
has_record "$orig" "$kept" "1|$hklm|$t\\Kept|nv_owner_a|1|"
given_back "changed while down: DACL from before the first protect" "$t\\Crash"
given_back "kept: DACL from before the first protect" "$t\\Kept"

echo "== ended between the record write and the DACL write"
stop
runs "ended at the seam" 9 '*' "$probe" crash-protect "$t\\Seam" nv_owner_a 0
tree_is "DACL not yet changed" "$orig" "$t\\Seam"
start
tree_is "protected from its record" "$(protected_sddl 0 "$own_sid" "$owner_sid")" "$t\\Seam"
given_back "DACL from before the protect" "$t\\Seam"

echo "== an empty first path with action 0 lifts every key rule"
protect "$ok" "0|$hklm||nv_owner_a|0|" "1|$hklm|$t\\Lvl0|nv_owner_a|0|"
has_rule 13 ""
listed 0
tree_is "fresh key released" "$orig" "$t\\Fresh\\New"
own_released "by remove all"
stop

echo "== a record the service cannot write: answered 0 with a message, nothing applied"
start_service sddl "$t"  # without the test standing in for the service SID on the record key
rules=$(rule_count 12)
protect "$(said 0 "Reg key \\\\$hklm_text\\software\\nvtest\\crash was not protected: its original DACL could not be recorded.")" \
    "1|$hklm|$t\\Crash|nv_owner_a|1|"
tree_is "left as it was" "$orig" "$t\\Crash"
expect_eq "no rule sent, nothing persisted" "$rules absent" "$(rule_count 12) $(has_value "$t\\Crash" || echo absent)"
stop

finish "registry key protection"
