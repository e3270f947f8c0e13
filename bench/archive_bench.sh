#!/usr/bin/env bash
# Archives and restores 1 MiB, 64 MiB and 1 GiB files, compressible and random, with the
# Windows archive_bench.exe under Wine, and times Debian's `lz4 -1` plus `sha256sum` on the
# same files in the same run as the baseline. Prints "name: value unit" lines.
#
#   bench/archive_bench.sh [BIN_DIR] [WORK_DIR]
# BIN_DIR defaults to build/mingw-x64/bin; WORK_DIR (about 3 GiB free) to a temporary directory.
set -eu
trap 'wineserver -k 2>/dev/null || true' EXIT
here=$(cd "$(dirname "$0")/.." && pwd)
bin=$(cd "${1:-$here/build/mingw-x64/bin}" && pwd)
work=${2:-$(mktemp -d "${TMPDIR:-/tmp}/nv-archive-bench.XXXXXX")}
mkdir -p "$work"
cd "$work"
export WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
export WINEPREFIX=${WINEPREFIX:-$here/build/mingw-x64/wine/prefix}
runner=(wine "$bin/archive_bench.exe")
[ -x "$bin/archive_bench" ] && [ ! -e "$bin/archive_bench.exe" ] && runner=("$bin/archive_bench")

now() { date +%s.%N; }
rate() { awk -v b="$1" -v t="$2" 'BEGIN { printf "%.1f", b / 1e6 / t }'; }

make_file() {  # make_file NAME BYTES KIND
  case $3 in
    random) head -c "$2" /dev/urandom >"$1" ;;
    text) seq 1 1000000000 | head -c "$2" >"$1" ;;
  esac
}

for size in 1M:1048576 64M:67108864 1G:1073741824; do
  for kind in text random; do
    label=${kind}_${size%%:*}
    bytes=${size#*:}
    file=$label.bin
    make_file "$file" "$bytes" "$kind"
    cat "$file" >/dev/null  # both sides read from the page cache

    t0=$(now); lz4 -1 -q -f "$file" "$file.lz4"; sha256sum "$file" >/dev/null; t1=$(now)
    base_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')
    base=$(rate "$bytes" "$base_s")
    echo "baseline_lz4_sha256_$label: $base MB/s"
    rm -f "$file.lz4"

    # Wine's helper processes inherit the output and outlive the program: go through a file.
    "${runner[@]}" archive "$label" "$file" "$file.QUA" </dev/null >out.txt 2>&1 || true
    tr -d '\r' <out.txt
    archive=$(tr -d '\r' <out.txt | awk -F': ' '/^archive_.*MB\/s/ { print $2 + 0 }')
    awk -v a="$archive" -v b="$base" -v l="$label" 'BEGIN { printf "archive_vs_baseline_%s: %.2f ratio\n", l, a / b }'
    echo "archive_size_$label: $(stat -c %s "$file.QUA") bytes"
    "${runner[@]}" restore "$label" "$file.QUA" "$file" </dev/null >out.txt 2>&1 || true
    tr -d '\r' <out.txt
    rm -f "$file" "$file.QUA"
  done
done
