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

src_list=/etc/apt/sources.list.d/debian-src.sources
need_update=0
if [ ! -f "$src_list" ]; then
  "${sudo_cmd[@]}" tee "$src_list" >/dev/null <<'SRC'
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: bookworm
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
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
