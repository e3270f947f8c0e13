#!/usr/bin/env bash
# quarantine_tool: the archive layout of every content shape (decoded with libmcrypt and lz4 by
# quarantine_decode.py), exit codes and messages for good and damaged archives, and that verify
# writes nothing and create and extract write only where they are told.
#   quarantine_tool_test.sh wine|native TOOL
set -u
mode=$1 tool=$2
decode=$(cd "$(dirname "$0")" && pwd)/quarantine_decode.py work=$(mktemp -d "${TMPDIR:-/tmp}/nv-qtool.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Runs the tool with relative paths (Wine maps the working directory); output to files.
tool_run() {
  if [ "$mode" = wine ]; then WINEDEBUG=-all wine "$tool" "$@"; else "$tool" "$@"; fi </dev/null >out.txt 2>err.txt
}
expect() {  # expect CODE TEXT-IN-OUTPUT -- ARGS...
  local want=$1 text=$2 rc
  shift 3
  tool_run "$@"; rc=$?
  [ "$rc" = "$want" ] || { fail "quarantine_tool $*: exit $rc, expected $want"; cat out.txt err.txt; return; }
  [ -z "$text" ] || grep -qF -- "$text" out.txt err.txt || { fail "quarantine_tool $*: no '$text' in output"; cat out.txt err.txt; }
}
# patch OFFSET HEX FILE: writes the bytes given as hex at OFFSET of FILE.
patch() { printf "$(echo "$2" | sed 's/../\\x&/g')" | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }
# invert OFFSET FILE: complements the byte at OFFSET, so it differs whatever the random content made it.
invert() { patch "$1" "$(printf '%02x' $((255 - $(od -An -tu1 -j "$1" -N1 "$2"))))" "$2"; }
field() { sed -n "s/^$1: //p" out.txt | tr -d '\r'; }  # a field that info printed
sum_of() { sha256sum "$1" | cut -d' ' -f1; }
text() { yes 'quarantined line of text' | head -c "$1"; }  # content that LZ4 shrinks a lot

head -c 700000 /dev/urandom >orig.bin  # stored blocks: a flipped plain byte is one content byte
# Each content shape the format has an edge case for, archived as the service does:
#   NAME|CONTENT|DECRYPT LENGTH|ENCRYPTION LENGTH (- where compression decides)|ENCRYPTED CHUNK
# where the chunk is the "whole" frame, end mark included, or its "first" block with plain
# blocks after it. Longer than the first 16 KiB read: the reader completes the chunk from the
# file; a first block shrunk below 16 KiB: plain blocks follow it inside the first read.
# Longer than the writer's ring of 1 MiB read blocks and than the 16 MiB between two flushes of
# the growing archive, ending one byte into a read block: blocks are recycled while the digest
# thread still works, when archiving and when extracting (whose writer thread gets every byte).
while IFS='|' read -r name content dlen elen chunk; do
  eval "$content" >"$name"
  t0=$(date +%s%3N)
  expect 0 "ok: $name.QUA" -- --log shapes.log create "$name" "$name.QUA"
  t1=$(date +%s%3N)
  tool_run info "$name.QUA"
  [ "$dlen" = - ] && dlen=$(field decrypt_length) && elen=$(((dlen + 31) / 32 * 32))
  sum=$(sum_of "$name")
  [ "$(field data_offset) $(field marker_a) $(field decrypt_length) $(field encryption_length) $(field marker_b)" = \
    "$((61 + ${#name})) 1 $dlen $elen 1" ] || fail "$name: header $(tr -d '\r' <out.txt)"
  [ "$(field content_hash) $(field path)" = "$sum $name" ] || fail "$name: recorded digest and path"
  time=$(field archive_time)
  [ "$t0" -le "$time" ] && [ "$time" -le "$t1" ] || fail "$name: archive time $time not within [$t0, $t1]"
  [ "$(python3 "$decode" "$name.QUA" decoded.bin 2>&1)" = "$name $sum $chunk" ] || fail "$name: independent decode"
  cmp -s "$name" decoded.bin || fail "$name: independently decoded content differs"
  expect 0 "ok: $name" -- extract "$name.QUA" extracted.bin
  cmp -s "$name" extracted.bin || fail "$name: extracted content differs"
  [ "$(grep -c -e "NVFileArchive_archiveFile:[0-9]*\] - Archiving : $name -> $name.QUA\$" \
        -e 'header size 7 bytes' -e 'Archiving : done' <(tr -d '\r' <shapes.log))" = 3 ] ||
    fail "$name: log lines $(cat shapes.log)"
  rm shapes.log
done <<EOT
empty|:|4|32|whole
one_byte|head -c 1 orig.bin|9|32|whole
chunk_multiple_of_32|head -c 24 orig.bin|32|32|whole
small_text|text 1000|-|-|whole
just_under_256k|head -c 262143 orig.bin|262151|262176|whole
exactly_256k|head -c 262144 orig.bin|262148|262176|first
random_300k|head -c 300000 orig.bin|262148|262176|first
text_1m|text 1048593|-|-|first
text_9m|text 9437185|-|-|first
random_17m|head -c 17825793 /dev/urandom|262148|262176|first
EOT

# A fixed content (random, text, random) always gives the same archive bytes but for the time
# stamp at offset 20: how the writer reads, hashes and compresses may change, the bytes may not.
python3 -c "
import random, sys
r = random.Random(7)
sys.stdout.buffer.write(r.randbytes(1572867) + b'quarantined line of text\\n' * 60000 + r.randbytes(700001))" >fixed.bin
expect 0 "ok: fixed.QUA" -- create fixed.bin fixed.QUA
dd if=/dev/zero of=fixed.QUA bs=1 seek=20 count=8 conv=notrunc status=none
[ "$(sum_of fixed.QUA)" = a6deea5f80043a873a5ad6e7c8b5e018a7ccb87cf2226e1fb14b2aa877d6ac16 ] ||
  fail "the archive of the fixed content changed"

cp orig.bin victim.bin
expect 1 "usage" -- bogus
expect 1 "usage" -- info
expect 0 "ok: good.QUA" -- create victim.bin good.QUA
rm victim.bin
before=$(ls | sort)
expect 0 "ok: victim.bin" -- verify good.QUA
[ "$(ls | sort)" = "$before" ] || fail "verify wrote a file"
expect 2 "cannot open archive" -- verify missing.QUA

# A failed create leaves what was at the archive path and no partial file.
mkdir folder
cp good.QUA kept.QUA
expect 2 "archiving missing.bin to kept.QUA failed" -- --log failed.log create missing.bin kept.QUA
grep -q 'Failed to open the source file <missing.bin>' failed.log || fail "no log line for a missing source"
expect 2 "failed" -- create folder kept.QUA
expect 2 "failed" -- --log failed.log create orig.bin no_such_dir/s.QUA
grep -q 'Archiving : orig.bin' failed.log && fail "archiving started without an archive to write"
cmp -s good.QUA kept.QUA || fail "a failed create changed what was at the archive path"
ls | grep -q partial && fail "partial file left by create: $(ls | grep partial)"

# NAME CODE TEXT DAMAGE: a copy of good.QUA damaged by the command DAMAGE (given the file) fails verify.
n=$(stat -c %s good.QUA)
while IFS='|' read -r name code text damage; do
  cp good.QUA "$name"
  eval "$damage $name"
  expect "$code" "$text" -- verify "$name"
done <<EOT
cut.QUA|3|damaged archive header|truncate -s 65
magic.QUA|4|damaged content|patch 71 ffffffff
trailing.QUA|4|detail: Decompress: Trailing data left in file after frame|printf x >>
short.QUA|4|damaged content|truncate -s -5000
digest.QUA|5|does not match the recorded digest|invert 30
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

# A source that another process rewrites and appends to while it is archived: archiving fails,
# or the archive extracts to the bytes it recorded.
head -c 8000000 /dev/urandom >moving.bin
( for i in $(seq 1 40); do
    head -c 300000 /dev/urandom | dd of=moving.bin bs=300000 seek=$((i % 20)) conv=notrunc status=none
    head -c 100000 /dev/urandom >>moving.bin
  done ) & writer=$!
for i in 1 2; do
  rm -f moving.QUA
  if tool_run create moving.bin moving.QUA; then
    expect 0 "ok: moving.bin" -- extract moving.QUA moved.bin
    tool_run info moving.QUA
    [ "$(field content_hash)" = "$(sum_of moved.bin)" ] || fail "moving: digest"
  else
    [ ! -e moving.QUA ] || fail "failed create left an archive"
  fi
done
wait "$writer"

if [ "$failures" -ne 0 ]; then echo "$failures failure(s)"; exit 1; fi
echo "all quarantine_tool checks passed"
