# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# To be sourced: installs Debian packages on this machine, and downloads and unpacks packages of other
# architectures. The latter uses a private apt state, which leaves the machine's as it is.

say() { echo "${0##*/}: $*" >&2; }
die() { say "$*"; exit 1; }

# Runs a noisy command, shows its output only when it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 </dev/null || status=$?
  if ((status)); then cat "$log" >&2; fi
  rm -f "$log"
  return "$status"
}

as_root() {
  if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

# install_missing PACKAGE...: installs those that are missing; the only step that needs root.
install_missing() {
  local missing
  mapfile -t missing < <(comm -23 <(printf '%s\n' "$@" | sort) \
    <(dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n' "$@" 2>/dev/null |
      sed -n 's/^ii  *//p' | sort -u))
  ((${#missing[@]})) || return 0
  say "installing ${missing[*]}"
  quietly as_root apt-get update || die "apt-get update failed, so ${missing[*]} cannot be installed"
  quietly as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}" ||
    die "apt-get could not install: ${missing[*]}"
}

# private_apt DIR: from here on apt works below DIR/apt in this process. It takes the machine's sources
# and keys; the rest is private. The empty status file says that no package is installed.
private_apt() {
  mkdir -p "$1"/apt/{state/lists,cache/archives}/partial
  : >"$1/apt/status"
  cat >"$1/apt/apt.conf" <<CONF
Dir::State "$1/apt/state";
Dir::State::status "$1/apt/status";
Dir::Cache "$1/apt/cache";
APT::Architectures { "amd64"; "arm64"; };
APT::Sandbox::User "root";
CONF
  export APT_CONFIG=$1/apt/apt.conf
  say "reading the arm64 package lists"
  quietly apt-get update --error-on=any || die "the arm64 package lists could not be downloaded"
}

# download DIR PACKAGE...: into the folder DIR, made afresh.
download() {
  local dir=$1
  shift
  say "downloading $# packages"
  rm -rf "$dir"
  mkdir -p "$dir"
  (cd "$dir" && quietly apt-get download "$@") || die "could not download all of: $*"
}

# unpack INTO TAR_OPTIONS... -- DEB_FILE...
unpack() {
  local into=$1 options=() deb
  shift
  while [[ $1 != -- ]]; do options+=("$1"); shift; done
  shift
  mkdir -p "$into"
  for deb; do
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$into" "${options[@]}" || die "could not unpack $deb"
  done
}

# The libraries that a program or library names.
needed_by() { # FILE
  aarch64-linux-gnu-readelf -d "$1" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}

# copy_with_libraries STAGE FROM BASE_INITRAMFS FILE...: copies files of the folder FROM, each to its own place
# below STAGE, and all libraries that they need and the board's base image lacks into one folder.
copy_with_libraries() {
  local stage=$1 from=$2 lib=$1/usr/lib/aarch64-linux-gnu todo=() name file
  local -A seen=()
  while read -r name; do seen[${name##*/}]=1; done < <(cpio --quiet -t <"$3")
  shift 3
  (cd "$from" && cp -a --parents "$@" "$stage")
  todo=("${@/#/$from/}")
  mkdir -p "$lib"
  while ((${#todo[@]})); do
    file=${todo[-1]}
    unset 'todo[-1]'
    while read -r name; do
      [[ -z ${seen[$name]:-} ]] || continue
      seen[$name]=1
      file=$(find "$from" -name "$name" -print -quit)
      [[ $file ]] || die "no package has $name"
      cp -L "$file" "$lib/"
      todo+=("$file")
    done < <(needed_by "$file")
  done
}
