# Debian's archive, read apart from this machine's own apt; to be sourced after scripts/lib.sh.
# shellcheck shell=bash

cache=$HOME/.cache/palinode-igd

# apt COMMAND ARGUMENT...: apt with nothing of this machine's but the keys and the archive. Its files
# are in the folder $apt; $apt_options are further options.
apt_options=()
apt() {
  "apt-$1" -q -o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts=- \
    -o Dir::State::Lists="$apt/lists" -o Dir::Cache="$apt" -o Debug::NoLocking=1 \
    -o APT::Sandbox::User="$(id -un)" "${apt_options[@]}" "${@:2}"
}

# read_archive deb|deb-src SUITE...: downloads the lists of what these suites have.
read_archive() {
  local type=$1 suite archive
  shift
  archive=$(apt-get indextargets --format '$(REPO_URI)' 'Label: Debian' | head -n 1)
  [ -n "$archive" ] || { echo "apt on this machine knows no archive of Debian" >&2 && return 1; }
  mkdir -p "$apt"/{lists,archives}/partial
  for suite in "$@"; do
    printf '%s [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] %s %s main\n' \
      "$type" "$archive" "$suite"
  done >"$apt/sources.list"
  apt get update
}
