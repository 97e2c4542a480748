# Fetches one Debian source archive, checked against the signed package index.
# Sourced by the scripts beside it; needs apt and nothing else.
#
#   fetch_debian_source SUITE PACKAGE VERSION PATTERN FOLDER  (VERSION: its beginning will do)
#
# PATTERN (an extended regular expression) selects the files of the source package. The look-up
# runs in an apt configuration of its own that reuses the machine's mirror and Debian's keyring,
# so the machine's package sources stay as they are.

# debian_mirror: the address of the archive that this machine installs from, or
# QTTOVELMIXER_DEBIAN_MIRROR, which a machine of another distribution has to set.
debian_mirror() {
  if [ -n "${QTTOVELMIXER_DEBIAN_MIRROR:-}" ]; then
    echo "$QTTOVELMIXER_DEBIAN_MIRROR"
    return
  fi
  local mirror
  mirror=$(configured_mirror)
  if [ -z "$mirror" ]; then
    echo "apt has no mirror of Debian configured; set QTTOVELMIXER_DEBIAN_MIRROR to the address of one" >&2
    return 1
  fi
  echo "$mirror"
}

configured_mirror() {
  apt-get indextargets --format '$(ORIGIN)|$(REPO_URI)|$(LABEL)' 'Created-By: Packages' 2>/dev/null |
    awk -F'|' '$1 == "Debian" && $3 == "Debian" { print $2; exit }'
}

fetch_debian_source() {
  local suite=$1 package=$2 version=$3 pattern=$4 folder=$5
  local apt mirror directory name hash
  mirror=$(debian_mirror) || return 1
  apt=$(mktemp -d)
  mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$folder"
  echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" >"$apt/sources.list"
  cat >"$apt/apt.conf" <<CONF
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "-";
Dir::State::lists "$apt/lists";
Dir::Cache "$apt/cache";
APT::Sandbox::User "";
CONF
  if ! APT_CONFIG="$apt/apt.conf" apt-get -qq update; then
    echo "cannot read the package index of $suite from $mirror" >&2
    rm -rf "$apt"
    return 1
  fi
  APT_CONFIG="$apt/apt.conf" apt-cache showsrc "$package" |
    awk -v version="$version" -v pattern="$pattern" '
      /^Package:/ { wanted = 0; sums = 0 }
      /^Version:/ { wanted = (index($2, version) == 1) }
      /^Directory:/ { directory = $2 }
      /^[A-Za-z0-9-]+:/ { sums = ($1 == "Checksums-Sha256:") }
      sums && NF == 3 && $3 ~ pattern { file[$3] = $1 }
      /^$/ { flush_record() }
      END { flush_record() }
      function flush_record(  name) {
        if (wanted) for (name in file) print directory, name, file[name]
        delete file; wanted = 0
      }' >"$apt/files"
  if [ ! -s "$apt/files" ]; then
    echo "no source archive of $package $version in $suite" >&2
    rm -rf "$apt"
    return 1
  fi
  while read -r directory name hash; do
    if ! /usr/lib/apt/apt-helper -o APT::Sandbox::User= download-file \
        "${mirror%/}/$directory/$name" "$folder/$name" "SHA256:$hash"; then
      rm -rf "$apt"
      return 1
    fi
  done <"$apt/files"
  rm -rf "$apt"
}
