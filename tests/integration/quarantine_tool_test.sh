#!/usr/bin/env bash
# quarantine_tool: exit codes and messages for good and damaged archives, and that verify
# writes nothing and extract writes only where it is told.
#   quarantine_tool_test.sh wine|native TOOL
set -u
mode=$1
tool=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-qtool.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Runs the tool with relative paths (Wine maps the working directory); output to files.
tool_run() {
  if [ "$mode" = wine ]; then WINEDEBUG=-all wine "$tool" "$@"; else "$tool" "$@"; fi </dev/null >out.txt 2>err.txt
}
expect() {  # expect CODE TEXT-IN-OUTPUT -- ARGS...
  local want=$1 text=$2
  shift 3
  tool_run "$@"
  local rc=$?
  if [ "$rc" != "$want" ]; then
    fail "quarantine_tool $*: exit $rc, expected $want"; cat out.txt err.txt
  elif [ -n "$text" ] && ! grep -qF -- "$text" out.txt err.txt; then
    fail "quarantine_tool $*: no '$text' in output"; cat out.txt err.txt
  fi
}
# patch OFFSET HEX FILE: writes the bytes given as hex at OFFSET of FILE.
patch() { printf "$(echo "$2" | sed 's/../\\x&/g')" | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }
recorded_digest() { tool_run info "$1"; sed -n 's/^content_hash: //p' out.txt | tr -d '\r'; }

head -c 700000 /dev/urandom >orig.bin  # stored blocks: a flipped plain byte is one content byte
cp orig.bin victim.bin
expect 1 "usage" -- bogus
expect 1 "usage" -- info
expect 0 "ok: good.QUA" -- --log tool.log create victim.bin good.QUA
grep -q "Archiving : done" tool.log || fail "no log line from create"
rm victim.bin
expect 0 "path: victim.bin" -- info good.QUA
grep -q "data_offset: 71" out.txt && grep -q "decrypt_length: 262148" out.txt || fail "info: $(cat out.txt)"
before=$(ls | sort)
expect 0 "ok: victim.bin" -- verify good.QUA
[ "$(ls | sort)" = "$before" ] || fail "verify wrote a file"
expect 0 "ok: victim.bin" -- extract good.QUA copy.bin
cmp -s orig.bin copy.bin || fail "extracted content differs"
expect 2 "cannot open archive" -- verify missing.QUA

# NAME CODE TEXT DAMAGE: a copy of good.QUA damaged by the command DAMAGE (given the file) fails verify.
n=$(stat -c %s good.QUA)
while IFS='|' read -r name code text damage; do
  cp good.QUA "$name"
  eval "$damage $name"
  expect "$code" "$text" -- verify "$name"
done <<EOT
zero.QUA|3|detail: Failed to read the archive header|patch 0 00000000
cut.QUA|3|damaged archive header|truncate -s 65
magic.QUA|4|damaged content|patch 71 ffffffff
trailing.QUA|4|detail: Decompress: Trailing data left in file after frame|printf x >>
short.QUA|4|damaged content|truncate -s -5000
digest.QUA|5|does not match the recorded digest|patch 30 ff
flip.QUA|5|does not match the recorded digest|patch $((n - 200000)) 00ff00ff
EOT
expect 0 "content_hash:" -- info digest.QUA
expect 5 "does not match" -- extract digest.QUA out.bin
[ ! -e victim.bin ] || fail "something restored the recorded path"

# A failed extract leaves the destination as it was and no partial file beside it.
printf 'kept' >kept.bin
expect 4 "damaged content" -- extract short.QUA kept.bin
[ "$(cat kept.bin)" = kept ] || fail "failed extract changed its destination"
ls | grep -q partial && fail "partial file left: $(ls | grep partial)"
# A destination that is the source itself is refused, and the file stays.
cp good.QUA self.QUA
expect 1 "is the archive itself" -- extract self.QUA ./self.QUA
cmp -s good.QUA self.QUA || fail "extract onto itself changed the archive"
expect 1 "is the source itself" -- create orig.bin orig.bin
[ "$(stat -c %s orig.bin)" = 700000 ] || fail "create onto itself changed the source"

# The recorded digest is the SHA-256 of the content, as sha256sum computes it.
: >empty.bin
yes 'quarantined line of text' | head -c 1048593 >text.bin
for f in empty.bin text.bin; do
  tool_run create "$f" "$f.QUA"
  [ "$(recorded_digest "$f.QUA")" = "$(sha256sum "$f" | cut -d' ' -f1)" ] || fail "$f: recorded digest"
done

# A source that another process rewrites and appends to while it is archived: archiving fails,
# or the archive extracts to the bytes it recorded.
head -c 8000000 /dev/urandom >moving.bin
( for i in $(seq 1 40); do
    head -c 300000 /dev/urandom | dd of=moving.bin bs=300000 seek=$((i % 20)) conv=notrunc status=none
    head -c 100000 /dev/urandom >>moving.bin
  done ) &
writer=$!
for i in 1 2; do
  rm -f moving.QUA
  if tool_run create moving.bin moving.QUA; then
    expect 0 "ok: moving.bin" -- extract moving.QUA moved.bin
    [ "$(recorded_digest moving.QUA)" = "$(sha256sum moved.bin | cut -d' ' -f1)" ] || fail "moving: digest"
  else
    [ ! -e moving.QUA ] || fail "failed create left an archive"
  fi
done
wait "$writer"

if [ "$failures" -ne 0 ]; then echo "$failures failure(s)"; exit 1; fi
echo "all quarantine_tool checks passed"
