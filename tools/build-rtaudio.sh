#!/usr/bin/env bash
# Builds RtAudio 6.0.1 once, outside the tree, where the system packages an older one, and
# prints its prefix. The archive comes from Debian's mirror and is checked against the signed
# package index.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/apt-source.sh"

cache=${QTTOVELMIXER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/qttovelmixer}
prefix=$cache/rtaudio-6.0.1
if [ -e "$prefix/complete" ]; then
  echo "$prefix"
  exit 0
fi

{
  echo "building RtAudio 6.0.1 into $prefix"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  fetch_debian_source trixie rtaudio 6.0.1 '\.orig\.tar\.' "$work"
  mkdir "$work/source"
  tar -xf "$work"/rtaudio_*.orig.tar.* -C "$work/source" --strip-components=1
  cmake -S "$work/source" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib -DRTAUDIO_BUILD_TESTING=OFF \
    -DRTAUDIO_API_ALSA=ON -DRTAUDIO_API_PULSE=ON -DRTAUDIO_API_JACK=ON
  cmake --build "$work/build"
  cmake --install "$work/build"
  touch "$prefix/complete"
} >&2
echo "$prefix"
