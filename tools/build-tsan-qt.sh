#!/usr/bin/env bash
# Builds QtCore and QtTest with the thread sanitizer, once, outside the tree, and prints the
# folder of the libraries. Debian's own QtCore synchronises through futexes that the sanitizer
# cannot see, so on it correct code is reported and real races drown.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/apt-source.sh"

cache=${QTTOVELMIXER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/qttovelmixer}
version=$(dpkg-query -W -f '${Version}' qt6-base-dev)
prefix=$cache/qt-tsan-$version
if [ -e "$prefix/complete" ]; then
  echo "$prefix/lib"
  exit 0
fi

{
  echo "building QtCore $version with the thread sanitizer into $prefix (about 10 minutes)"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  fetch_debian_source bookworm qt6-base "$version" '\.tar\.' "$work"
  mkdir "$work/source"
  tar -xf "$work"/qt6-base_*.orig.tar.* -C "$work/source" --strip-components=1
  tar -xf "$work"/qt6-base_*.debian.tar.* -C "$work/source"
  (cd "$work/source" && grep -vE '^(#|$)' debian/patches/series | while read -r patch _; do
    patch -s -p1 <"debian/patches/$patch"
  done)
  mkdir "$work/build"
  cd "$work/build"
  # Bytecode for other tools and the documentation are left out: only the two libraries matter.
  "$work/source/configure" -prefix "$prefix" -release -force-debug-info -sanitize thread \
    -no-gui -no-widgets -no-dbus -no-openssl -no-feature-sql -no-feature-network -no-feature-xml \
    -no-feature-concurrent -no-feature-icu -qt-doubleconversion -nomake tests -nomake examples \
    -- -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++
  cmake --build . --parallel
  cmake --install .
  touch "$prefix/complete"
} >&2
echo "$prefix/lib"
