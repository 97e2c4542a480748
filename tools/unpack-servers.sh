#!/usr/bin/env bash
# tools/unpack-servers.sh PACKAGE...: downloads packages, and those that they need and the machine
# lacks, into a folder of the cache, without installing anything, and prints the folder. Its bin/
# holds a starter for each program: the programs look for their libraries, modules and settings
# below /usr, and are told where those are instead.
set -euo pipefail

cache=${QTTOVELMIXER_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/qttovelmixer}
# "NAME=VERSION", from lines such as: Inst NAME [OLD] (VERSION Debian:12/stable [amd64])
wanted=$(apt-get -s -q --no-install-recommends install "$@" |
  sed -nE 's/^Inst ([^ ]+) (\[[^]]*\] )?\(([^ ]+) .*/\1=\3/p' | sort)
[ -n "$wanted" ] || { echo "apt knows no way to provide $*" >&2; exit 1; }
folder=$cache/servers-$(sha256sum <<<"$wanted" | cut -c1-16)
if [ -e "$folder/complete" ]; then
  echo "$folder"
  exit 0
fi

rm -rf "$folder"
mkdir -p "$folder/packages" "$folder/root" "$folder/bin"
# shellcheck disable=SC2086
(cd "$folder/packages" && apt-get -q download $wanted) >&2
for package in "$folder"/packages/*.deb; do
  dpkg-deb -x "$package" "$folder/root"
done
rm -r "$folder/packages"

# set_when_there NAME VALUE FILE: a line for the starters, when the file was unpacked.
set_when_there() {
  [ ! -e "$3" ] || printf 'export %s="%s"\n' "$1" "$2"
}

root=$folder/root
libraries=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)
modules=("$libraries"/wireplumber-*)
pulse=("$root"/usr/lib/pulse-*/modules)
[ ! -d "$libraries/alsa-lib" ] || ln -s "$libraries/alsa-lib" "$folder/alsa-lib"
environment=$(
  printf 'export LD_LIBRARY_PATH="${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}%s"\n' \
    "$libraries:$root/lib/${libraries##*/}:$libraries/pulseaudio:${pulse[0]}"
  set_when_there JACK_DRIVER_DIR "$libraries/jack" "$libraries/jack"
  set_when_there SPA_PLUGIN_DIR "$libraries/spa-0.2" "$libraries/spa-0.2"
  set_when_there PIPEWIRE_MODULE_DIR "$libraries/pipewire-0.3" \
    "$libraries/pipewire-0.3/libpipewire-module-protocol-native.so"
  set_when_there PIPEWIRE_CONFIG_DIR "$root/usr/share/pipewire" "$root/usr/share/pipewire"
  set_when_there WIREPLUMBER_MODULE_DIR "${modules[0]}" "${modules[0]}"
  set_when_there WIREPLUMBER_DATA_DIR "$root/usr/share/wireplumber" "$root/usr/share/wireplumber"
  # What the user set up, here the test, goes before the packaged settings.
  set_when_there WIREPLUMBER_CONFIG_DIR \
    '${XDG_CONFIG_HOME:-$HOME/.config}/wireplumber:'"$root/usr/share/wireplumber" \
    "$root/usr/share/wireplumber"
)
for program in "$root"/usr/bin/*; do
  name=${program##*/}
  arguments=''
  [ "$name" != pulseaudio ] || arguments=" --dl-search-path='${pulse[0]}'"
  # Scripts name their libraries by themselves.
  if [ "$(head -c 2 "$program" | tr -d '\0')" = '#!' ]; then
    sed -i "s|/usr/lib/|$root/usr/lib/|g; s|/usr/\${LIB}|$libraries|g" "$program"
  fi
  printf '#!/bin/sh\n%s\nexec "%s"%s "$@"\n' "$environment" "$program" "$arguments" >"$folder/bin/$name"
  chmod +x "$folder/bin/$name"
done
touch "$folder/complete"
echo "$folder"
