#!/usr/bin/env bash
# Installs everything the build and the tests need on a fresh Debian machine.
# A second run finds everything in place and returns quickly.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
deps="$root/.deps"
lz4_version=1.9.4

packages=(
  mingw-w64 g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix
  wine wine64 cmake ninja-build clang libclang-rt-14-dev
  googletest lz4 libmcrypt-dev libssl-dev dpkg-dev
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)

# deb-src entries mirroring the machine's own deb entries (same URIs, suites, components and
# keys), as deb822 stanzas: the sources come from wherever this machine gets its packages.
deb_src_entries() {
  local f
  for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$f" ] || continue
    awk '
      $1 == "deb" {
        i = 2; key = ""
        if ($2 ~ /^\[/) {
          opts = ""
          for (; i <= NF; i++) { opts = opts " " $i; if ($i ~ /\]$/) { i++; break } }
          if (match(opts, /signed-by=[^] ]+/)) key = substr(opts, RSTART + 10, RLENGTH - 10)
        }
        printf "Types: deb-src\nURIs: %s\nSuites: %s\nComponents:", $i, $(i + 1)
        for (j = i + 2; j <= NF && $j !~ /^#/; j++) printf " %s", $j
        printf "\n"
        if (key != "") printf "Signed-By: %s\n", key
        printf "\n"
      }' "$f"
  done
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -f "$f" ] || continue
    awk '
      function flush() {
        if (types ~ /(^| )deb( |$)/ && enabled !~ /^[Nn]o$/ && uris != "")
          printf "Types: deb-src\nURIs: %s\nSuites: %s\nComponents: %s\n%s\n", uris, suites, comps, \
            key != "" ? "Signed-By: " key "\n" : ""
        types = uris = suites = comps = key = enabled = ""
      }
      /^[ \t]*#/ { next }
      /^[ \t]*$/ { flush(); next }
      { name = tolower($1); sub(/^[^:]*:[ \t]*/, "") }
      name == "types:" { types = $0 } name == "uris:" { uris = $0 } name == "suites:" { suites = $0 }
      name == "components:" { comps = $0 } name == "signed-by:" { key = $0 } name == "enabled:" { enabled = $0 }
      END { flush() }' "$f"
  done
}

src_list=/etc/apt/sources.list.d/nv-deb-src.sources
need_update=0
if ! apt-cache showsrc lz4 2>/dev/null | grep -q '^Package: lz4'; then
  entries=$(deb_src_entries)
  if [ -z "$entries" ]; then
    echo "setup: no deb entries in the apt sources to take deb-src entries from" >&2
    exit 1
  fi
  printf '%s\n' "$entries" | "${sudo_cmd[@]}" tee "$src_list" >/dev/null
  need_update=1
fi

if [ ${#missing[@]} -gt 0 ] || [ "$need_update" -eq 1 ]; then
  "${sudo_cmd[@]}" apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# LZ4 sources for the MinGW builds come from Debian's source package; CMake compiles them per target.
if [ ! -f "$deps/lz4/lib/lz4frame.c" ]; then
  mkdir -p "$deps"
  tmp=$(mktemp -d "$deps/lz4-src.XXXX")
  (cd "$tmp" && apt-get source -qq --download-only "lz4=$(apt-cache showsrc lz4 | awk '/^Version:/{print $2; exit}')" >/dev/null 2>&1 || apt-get source -qq --download-only lz4 >/dev/null)
  orig=$(ls "$tmp"/lz4_*.orig.tar.* | head -n1)
  mkdir -p "$tmp/x" && tar -xf "$orig" -C "$tmp/x"
  rm -rf "$deps/lz4" && mv "$tmp/x/"lz4-* "$deps/lz4" && rm -rf "$tmp"
  grep -q "LZ4_VERSION_MINOR *9" "$deps/lz4/lib/lz4.h" || { echo "setup: unexpected lz4 version" >&2; exit 1; }
fi

echo "setup: ready (lz4 $lz4_version sources in .deps/lz4, GoogleTest from /usr/src/googletest)"
