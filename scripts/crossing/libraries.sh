#!/usr/bin/env bash
# Builds libraries of the programs for another machine or another C library, static, from Debian's
# source packages in the table beside this file.
#   scripts/crossing/libraries.sh HOST PREFIX PACKAGE...
#     HOST     the target as configure scripts name it: mips-linux-gnu
#     PREFIX   where include/, lib/, lib/pkgconfig/ and lib/cmake/ end up
#     PACKAGE  names of the table, what others need first
#   scripts/crossing/libraries.sh --fetch PACKAGE...
#     only downloads what is not there yet; status 4, and the names, when the archive lacks some
#   scripts/crossing/libraries.sh --unpack PACKAGE FOLDER
#     of one that was fetched; FOLDER must not exist
# From the environment: CC, CXX, AR, RANLIB (without them HOST-gcc and so on), CFLAGS and CXXFLAGS
# (-O2). Sources are kept in ~/.cache/palinode-igd/sources. What PREFIX already has, built in the
# same way from the same version, is left alone.
# What this needs itself: the list crossing_packages in scripts/lib.sh, without compilers.
. "$(dirname "$0")/../lib.sh"
. "$top/scripts/crossing/archive.sh"

table=$top/scripts/crossing/sources
apt=$cache/apt
kept=$cache/sources
wide=(-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)  # as the programs are compiled

# of PACKAGE COLUMN: its version (2) or checksum (3).
of() {
  local found
  found=$(awk -v package="$1" -v column="$2" '$1 == package { print $column }' "$table")
  [ -n "$found" ] || fail "there is no $1 in scripts/crossing/sources"
  printf '%s' "$found"
}

# The path of its .dsc. A version's epoch is not part of file names.
dsc() {
  local version
  version=$(of "$1" 2)
  printf '%s' "$kept/$1_${version#*:}.dsc"
}

# Whether all of it is there and what the table says.
is_kept() {
  local file
  file=$(dsc "$1")
  [ -e "$file" ] || return
  (
    cd "$kept"
    printf '%s  %s\n' "$(of "$1" 3)" "$file"
    awk '/^[^ ]/ { listed = /^Checksums-Sha256:/ } /^ / && listed { print $1 "  " $3 }' "$file"
  ) | (cd "$kept" && sha256sum --check --quiet --strict)
}

download() {
  mkdir -p "$kept"
  rm -f "$(dsc "$1")"
  cd "$kept"
  apt get source --download-only "$1=$(of "$1" 2)"
}

fetch() {
  local package missing=() lacking=()
  for package in "$@"; do
    of "$package" 2 >/dev/null
    is_kept "$package" >/dev/null 2>&1 || missing+=("$package")
  done
  [ "${#missing[@]}" -gt 0 ] || return 0
  (step "read which sources Debian has" read_archive deb-src bookworm bookworm-updates trixie) || {
    printf 'not to be had, since the archive cannot be read: %s\n' "${missing[*]}" >&2
    return 4
  }
  for package in "${missing[@]}"; do
    if (step "downloaded $package $(of "$package" 2)" download "$package" 2>/dev/null); then
      is_kept "$package" || fail "$package is not what scripts/crossing/sources says"
    else
      lacking+=("$package $(of "$package" 2)")
    fi
  done
  [ "${#lacking[@]}" -eq 0 ] || {
    printf 'not to be had: %s\n' "${lacking[*]}" >&2
    return 4
  }
}

configured() {
  ./configure --host="$host" --prefix="$prefix" --enable-static --disable-shared \
    --disable-dependency-tracking --disable-silent-rules \
    PKG_CONFIG_LIBDIR="$prefix/lib/pkgconfig" "$@"
}
made() { make -j2 "$@"; }
cmade() {
  cmake -G Ninja -S "$1" -B built -DCMAKE_BUILD_TYPE=None -DCMAKE_SYSTEM_NAME=Linux \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF \
    -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_AR="$(command -v "$AR")" \
    -DCMAKE_RANLIB="$(command -v "$RANLIB")" -DCMAKE_C_FLAGS="$CFLAGS" \
    -DCMAKE_CXX_FLAGS="$CXXFLAGS" "${@:2}"
  ninja -C built -j2 install
}

# archived LIBRARY FLAG... -- SOURCE...: for what is quicker compiled than configured.
archived() {
  local library=$1 flags=() source
  shift
  while [ "$1" != -- ]; do flags+=("$1") && shift; done
  shift
  for source in "$@"; do
    case $source in
      *.cc) "$CXX" -std=c++17 $CXXFLAGS "${flags[@]}" -c "$source" ;;
      *) "$CC" -D_GNU_SOURCE $CFLAGS "${flags[@]}" -c "$source" ;;
    esac
  done
  rm -f "lib$library.a"
  "$AR" rcs "lib$library.a" *.o
  rm ./*.o
  install -D -m 644 -t "$prefix/lib" "lib$library.a"
}
# described LIBRARY VERSION: for pkg-config.
described() {
  mkdir -p "$prefix/lib/pkgconfig"
  printf '%s\n' "Name: $1" "Description: $1" "Version: $2" "Libs: -L$prefix/lib -l$1" \
    "Cflags: -I$prefix/include" >"$prefix/lib/pkgconfig/$1.pc"
}

build_expat() {
  cd expat/lib
  : >expat_config.h
  archived expat -I. -DXML_DTD=1 -DXML_CONTEXT_BYTES=1024 -DBYTEORDER=__BYTE_ORDER__ \
    -DHAVE_GETRANDOM=1 -fno-strict-aliasing -- xmlparse.c xmlrole.c xmltok.c
  install -D -m 644 -t "$prefix/include" expat.h expat_external.h
  described expat "$(of expat 2)"
}
build_util-linux() {
  local has=(UNISTD_H STDLIB_H SYS_{TIME,FILE,IOCTL,SOCKET,UN,SYSCALL,SYSMACROS}_H NET_IF_H
    NETINET_IN_H ERR_H ERR ERRX WARN WARNX GETRANDOM NANOSLEEP USLEEP TLS JRAND48 SRANDOM LOFF_T
    DECL_DIRFD DIRFD PROGRAM_INVOCATION_SHORT_NAME STRUCT_STAT_ST_MTIM_TV_NSEC)
  : >include/config.h
  archived uuid -Iinclude -Ilibuuid/src "${has[@]/#/-DHAVE_}" -- \
    libuuid/src/{clear,compare,copy,gen_uuid,isnull,pack,parse,unpack,unparse,uuid_time,predefined}.c \
    lib/{randutils,md5,sha1}.c
  install -D -m 644 -t "$prefix/include/uuid" libuuid/src/uuid.h
  described uuid "$(of util-linux 2)"
  sed -i 's|^Cflags: \(.*\)|& \1/uuid|' "$prefix/lib/pkgconfig/uuid.pc"
}
build_libev() {
  # Of the ways to wait, the one that the programs use.
  local without=(IOURING LINUXAIO INOTIFY SELECT POLL)
  without=("${without[@]/#/-DEV_USE_}")
  configured CPPFLAGS="${without[*]/%/=0}"
  made install
}
build_libseccomp() {
  configured
  made -C include install
  made -C src install
  made install-pkgconfDATA
}
build_c-ares() { cmade . -DCARES_STATIC=ON -DCARES_SHARED=OFF -DCARES_BUILD_TOOLS=OFF; }
build_libcap-ng() {
  configured --without-python --without-python3
  made -C src install
}
build_libinih() {
  archived inih -- ini.c
  install -D -m 644 -t "$prefix/include" ini.h
  described inih "$(of libinih 2)"
}
build_googletest() {
  cd googletest
  archived gtest -Iinclude -I. -- src/gtest-all.cc
  archived gtest_main -Iinclude -- src/gtest_main.cc
  cp -R include/gtest "$prefix/include"
}
build_libmnl() {
  configured
  made install
}
build_libnftnl() { build_libmnl; }
build_nftables() {
  configured --with-mini-gmp --without-cli --disable-man-doc --disable-python
  made install
}
build_libmicrohttpd() {
  configured --disable-https --disable-doc --disable-examples --disable-curl
  made -C src/include install
  made -C src/microhttpd install
  made install-pkgconfigDATA
}
# found_by_cmake PACKAGE TARGET: headers alone.
found_by_cmake() {
  mkdir -p "$prefix/lib/cmake/$1"
  printf '%s\n' "add_library($2 INTERFACE IMPORTED)" \
    "target_include_directories($2 INTERFACE $prefix/include)" >"$prefix/lib/cmake/$1/$1Config.cmake"
}
build_cli11() {
  cp -R include/CLI "$prefix/include"
  found_by_cmake CLI11 CLI11::CLI11
}
build_nlohmann-json3() {
  cp -R include/nlohmann "$prefix/include"
  found_by_cmake nlohmann_json nlohmann_json::nlohmann_json
}

if [ "${1:-}" = --fetch ]; then
  shift
  fetch "$@"
  exit
fi
unpack() { dpkg-source --no-check -x "$(dsc "$1")" "$2"; }
if [ "${1:-}" = --unpack ]; then
  unpack "$2" "$3"
  exit
fi
if [ "${1:-}" = --build ]; then
  # A process of its own: in a step a failing command would not end it.
  host=$2 prefix=$3
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  unpack "$4" "$work/source"
  cd "$work/source"
  "build_$4"
  exit
fi
[ $# -ge 3 ] || fail "usage: libraries.sh HOST PREFIX PACKAGE..."
host=$1 prefix=$2
shift 2
export CC=${CC:-$host-gcc} CXX=${CXX:-$host-g++} AR=${AR:-$host-ar} RANLIB=${RANLIB:-$host-ranlib}
export CFLAGS="${CFLAGS:--O2} ${wide[*]}" CXXFLAGS="${CXXFLAGS:--O2} ${wide[*]}"
mkdir -p "$prefix/built"
compiler="$CC $("$CC" -dumpfullversion) $CXX $CFLAGS $CXXFLAGS"
[[ $host != *-musl ]] || compiler+=" musl $(of musl 2)"
wanted=()
for package in "$@"; do
  # Built again when any of this changes.
  [ "$(cat "$prefix/built/$package" 2>/dev/null)" = "$(of "$package" 2) $compiler" ] ||
    wanted+=("$package")
done
[ "${#wanted[@]}" -eq 0 ] || fetch "${wanted[@]}"
for package in "${wanted[@]}"; do
  step "built $package $(of "$package" 2) for $host" "$top/scripts/crossing/libraries.sh" --build "$host" "$prefix" "$package"
  printf '%s\n' "$(of "$package" 2) $compiler" >"$prefix/built/$package"
done
