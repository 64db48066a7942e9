# Shared by the scripts of this folder; to be sourced. Sets `top` to the checkout's folder.
# shellcheck shell=bash

set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

# What the programs are built from, and what builds them.
build_packages=(
  g++ cmake ninja-build pkgconf
  libexpat1-dev uuid-dev libev-dev libmnl-dev libnftables-dev
  libinih-dev libcap-ng-dev libseccomp-dev libc-ares-dev libmicrohttpd-dev libcli11-dev nlohmann-json3-dev
)
# What makes a package of them.
package_packages=(dpkg-dev file)
# What the demonstration needs besides: hosts in namespaces and clients that are not ours.
run_packages=(python3 iproute2 nftables miniupnpc natpmpc)
# What the unit tests need besides the programs.
unit_packages=(libgtest-dev)
# What a user's tests need besides those: without root, and so without hosts to be tested.
user_packages=("${unit_packages[@]}" python3 iproute2 clang-format lld mold)
# What all tests need besides; ccache since the package builds the same sources again.
test_packages=("${user_packages[@]}" "${run_packages[@]}" "${package_packages[@]}" ccache
  clang libclang-rt-dev nmap gir1.2-gupnp-1.6 python3-gi python3-libtorrent libupnp-dev
  transmission-cli qbittorrent-nox syncthing debootstrap lintian zsh iptables procps chromium
  chromium-driver)
# What building for another machine needs besides, but its compiler.
crossing_packages=(dpkg-dev debian-archive-keyring gperf flex bison)
# What running programs of another machine needs besides.
emulation_packages=(qemu-user-static)
# What booting another machine needs besides.
machine_packages=(qemu-system-misc qemu-system-mips cpio)
# What measuring the coverage needs besides.
coverage_packages=(llvm)

fail() {
  printf '%s\n' "${0##*/}: $*" >&2
  exit 1
}

seconds() { printf '%s.%s' "$(($1 / 1000))" "$(($1 % 1000 / 100))"; }
now() { printf '%s' "$(($(date +%s%N) / 1000000))"; }

# step TEXT COMMAND...: runs the command and says in one line what was done and how long it took.
# What the command prints is kept back and shown when it fails.
step() {
  local text=$1 started log status=0
  shift
  started=$(now)
  log=$(mktemp)
  [ ! -t 1 ] || printf '   %s ...\r' "$text"
  "$@" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    printf 'not ok  %s (%s s)\n' "$text" "$(seconds $(($(now) - started)))"
    cat "$log" >&2
    rm -f "$log"
    return "$status"
  fi
  rm -f "$log"
  printf 'ok  %s (%s s)\n' "$text" "$(seconds $(($(now) - started)))"
}

# install_missing PACKAGE...: installs those of the packages that are not there.
install_missing() {
  local missing=() package
  if ! command -v dpkg-query >/dev/null; then
    printf 'This is no Debian or Ubuntu. Needed, by their names there: %s\n' "$*"
    return 0
  fi
  for package in "$@"; do
    dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  [ "${#missing[@]}" -gt 0 ] || return 0
  [ "$(id -u)" -eq 0 ] || fail "these packages are missing, run me with sudo once: ${missing[*]}"
  install_packages() {
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q && apt-get install -q -y --no-install-recommends "$@"
  }
  step "installed ${missing[*]}" install_packages "${missing[@]}"
}

# as_owner COMMAND...: runs the command as whoever owns the checkout, so that what root builds can
# be built again without root.
as_owner() {
  local owner
  owner=$(stat -c %u "$top")
  if [ "$(id -u)" -eq 0 ] && [ "$owner" -ne 0 ]; then
    setpriv --reuid "$owner" --regid "$(stat -c %g "$top")" --clear-groups \
      env HOME="$(getent passwd "$owner" | cut -d: -f6)" "$@"
  else
    "$@"
  fi
}

# configure PRESET [CMAKE OPTION...]
configure() {
  local preset=$1 cache=
  shift
  # A compiler cache, where there is one, saves time and changes nothing that is built.
  command -v ccache >/dev/null && cache=ccache
  # It serves another checkout as well.
  export CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_BASEDIR=$top
  step "configured the $preset build" as_owner cmake --preset "$preset" \
    -DCMAKE_CXX_COMPILER_LAUNCHER="$cache" "$@"
}

# build PRESET [CMAKE OPTION...]: configures and builds; on a terminal the step counts up.
build() {
  local preset=$1 started log status=0
  configure "$@"
  started=$(now)
  log=$(mktemp)
  if [ -t 1 ]; then
    NINJA_STATUS='[%f/%t] ' as_owner cmake --build --preset "$preset" 2>&1 | tee "$log" |
      awk '/^\[/ { printf "   building %s\r", $1; fflush() }' || status=$?
  else
    as_owner cmake --build --preset "$preset" >"$log" 2>&1 || status=$?
  fi
  if [ "$status" -ne 0 ]; then
    printf 'not ok  built the programs, %s\n' "$preset"
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
  printf 'ok  built the programs, %s (%s s)\n' "$preset" "$(seconds $(($(now) - started)))"
}

# Builds the package, the only one in build-package/package/.
make_package() {
  build package
  rm -f build-package/package/*.deb
  step "made the package" as_owner cpack --config build-package/CPackConfig.cmake
}

# Root's runs leave nothing of root's in the checkout of a user.
give_back() {
  local owner
  owner=$(stat -c %u:%g "$top")
  find "$top" -xdev -user root -exec chown -h "$owner" {} +
}
if [ "$(id -u)" -eq 0 ] && [ "$(stat -c %u "$top")" -ne 0 ]; then
  trap give_back EXIT
fi

need_root() { [ "$(id -u)" -eq 0 ] || fail "$1: run me with sudo"; }
