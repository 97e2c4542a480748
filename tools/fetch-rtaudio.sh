#!/usr/bin/env bash
# Fetches RtAudio's source archive once, outside the tree, and prints its path. It comes from
# Debian's mirror and is checked against the signed package index; CMake checks it again.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/apt-source.sh"

cache=${QTTOVELMIXER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/qttovelmixer}
archive=$cache/rtaudio_6.0.1~ds.orig.tar.xz
if [ ! -e "$archive" ]; then
  {
    echo "fetching RtAudio 6.0.1 into $cache"
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    fetch_debian_source trixie rtaudio 6.0.1 '\.orig\.tar\.' "$work"
    mkdir -p "$cache"
    mv "$work/$(basename "$archive")" "$archive"
  } >&2
fi
echo "$archive"
