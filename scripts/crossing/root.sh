#!/usr/bin/env bash
# Makes a folder with the libraries of another architecture, as they lie on a machine of it: Debian's
# packages of this machine's release and all that these depend on, as apt verifies them. Nothing is
# installed, and this machine's own apt does not learn of the architecture.
#   scripts/crossing/root.sh ARCHITECTURE FOLDER PACKAGE...
#     ARCHITECTURE  as Debian names it: arm64
#     FOLDER        is left alone when it has these packages already; to get their newest versions,
#                   delete it
. "$(dirname "$0")/../lib.sh"
. "$top/scripts/crossing/archive.sh"

make_root() {
  local release file link
  release=$(. /etc/os-release && printf '%s' "$VERSION_CODENAME")
  apt=$(mktemp -d)
  trap 'rm -rf "$apt"' EXIT
  : >"$apt/status"
  apt_options=(-o Dir::State::Status="$apt/status" -o APT::Architecture="$architecture"
    -o APT::Architectures="$architecture")
  read_archive deb "$release" "$release-updates"
  apt get install --download-only --no-install-recommends -y "${packages[@]}"
  rm -rf "$root"
  mkdir -p "$root"
  for file in "$apt"/archives/*.deb; do dpkg-deb -x "$file" "$root"; done
  find "$root" -type l -lname '/*' | while read -r link; do
    ln -sfrT "$root$(readlink "$link")" "$link"
  done
}

if [ "${1:-}" = --make ]; then
  # A process of its own: in a step a failing command would not end it.
  architecture=$2 root=$3 packages=("${@:4}")
  make_root
  exit
fi
[ $# -ge 3 ] || fail "usage: root.sh ARCHITECTURE FOLDER PACKAGE..."
state="$(sha256sum <"$0") ${*:3}"
[ "$(cat "$2/made" 2>/dev/null)" != "$state" ] || exit 0
step "unpacked the libraries of $1" "$0" --make "$@"
printf '%s\n' "$state" >"$2/made"
