#!/usr/bin/env bash
# Runs the tests of the vector loops as 64-bit ARM code under an emulator: no x86 processor has NEON.
# The packages that the programs need, but for the compiler, come into a directory of their own
# (QTTOVELMIXER_CACHE, below ~/.cache by default); it takes root to make it.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/apt-source.sh

say() { printf '\n==> %s\n' "$*" >&2; }

cache=${QTTOVELMIXER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/qttovelmixer}
root=$cache/arm64-bookworm
if [ ! -e "$root/complete" ]; then
  mirror=$(debian_mirror)
  say "fetching the packages of Debian 12 for arm64 into $root"
  rm -rf "$root"
  mkdir -p "$cache"
  # The first stage only: nothing of it is ever run here but its libraries.
  debootstrap --foreign --arch=arm64 --variant=minbase \
    --include=libqt6test6,libhwy-dev,libebur128-dev bookworm "$root" "$mirror" >&2
  for package in "$root"/var/cache/apt/archives/*.deb; do
    dpkg-deb -x "$package" "$root"
  done
  touch "$root/complete"
fi

out=build/arm64
mkdir -p "$out"
libraries=$root/usr/lib/aarch64-linux-gnu
# Qt's headers are the same for every processor.
qt=$(dirname "$(dpkg-query -L qt6-base-dev | grep -m1 '/QtCore/QObject$')")
flags=(-std=c++20 -O2 -ffp-contract=off -fPIC -Wall -Wextra -Wpedantic -Werror -DQTOVELMIXER_STATIC
  -I. -Itests -I"$out" -isystem "$qt" -isystem "${qt%/QtCore}" -isystem "${qt%/QtCore}/QtTest"
  -idirafter "$root/usr/include")
say "building for arm64 ($(aarch64-linux-gnu-g++ --version | head -1))"
objects=()
for source in dsp/*.cpp; do
  object=$out/$(basename "$source" .cpp).o
  aarch64-linux-gnu-g++ "${flags[@]}" -c "$source" -o "$object"
  objects+=("$object")
done
status=0
for test in tst_kernels tst_resample tst_statistics; do
  "$(qtpaths6 --query QT_HOST_LIBEXECS)"/moc "tests/dsp/$test.cpp" -o "$out/$test.moc"
  aarch64-linux-gnu-g++ "${flags[@]}" "tests/dsp/$test.cpp" "${objects[@]}" -o "$out/$test" \
    -L"$libraries" -l:libQt6Test.so.6 -l:libQt6Core.so.6 -lhwy -lebur128 \
    -Wl,--allow-shlib-undefined -Wl,-rpath-link,"$libraries"
  say "$test"
  QEMU_LD_PREFIX=$root LD_LIBRARY_PATH='' qemu-aarch64 -E "LD_LIBRARY_PATH=$libraries" "$out/$test" || status=1
done
exit "$status"
