#!/usr/bin/env bash
# Makes a compiler for static programs with musl, the C library of routers: Debian's GCC 12 for that
# machine with musl's headers and start files, and GCC's C++ library, both built once for it, in three
# minutes on an idle machine. All of it comes from Debian's packages and is kept in
# ~/.cache/palinode-igd/HOST.
#   scripts/crossing/musl.sh HOST    HOST: x86_64-linux-musl, or mips-linux-musl: 32 bits, big-endian
# Prints the folder with the compiler, HOST-g++. The libraries of the programs are built with it by
# scripts/crossing/libraries.sh, and found by CMake in CMAKE_PREFIX_PATH, their own libraries too with
# -DPKG_CONFIG_ARGN=--static; the options of the preset small are for it.
. "$(dirname "$0")/../lib.sh"

make=
[ "${1:-}" != --make ] || { make=yes && shift; }
host=${1:-} gcc=12.2.0
# tools, suffix: of GCC and the binary tools. headers: those of the kernel.
case $host in
  x86_64-linux-musl)
    [ "$(uname -m)" = x86_64 ] || fail "this makes a compiler of amd64's"
    tools= suffix=-12 headers=(/usr/include/{linux,asm-generic} /usr/include/x86_64-linux-gnu/asm) ;;
  mips-linux-musl)
    tools=mips-linux-gnu- suffix= headers=(/usr/mips-linux-gnu/include/{linux,asm-generic,asm}) ;;
  '') fail "for which host? There are x86_64-linux-musl and mips-linux-musl" ;;
  *) fail "unknown host '$host', there are x86_64-linux-musl and mips-linux-musl" ;;
esac
# Package of Debian 12: version and SHA-256.
sources="gcc-12-source 12.2.0-14+deb12u1 8f2a5411028dfe216aeb6346b926df0cc7471f375c6a375bf180fbf279af02a1"
flags="-Os -fPIE -ffunction-sections -fdata-sections"

made=$HOME/.cache/palinode-igd/$host
state="$sources $flags $(cat "$0" "$(dirname "$0")"/{sources,find_object.c} | sha256sum)"

fetch() {
  local package=$1 version=$2 checksum=$3
  apt-get download -q "$package=$version"
  printf '%s  %s\n' "$checksum" "${package}_${version}"_*.deb | sha256sum --check --quiet --strict
}

unpack() {
  dpkg-deb --fsys-tarfile gcc-12-source_*.deb | tar x --wildcards '*/gcc-*.tar.xz'
  # What the C++ library is configured and built from.
  tar xf usr/src/gcc-12/gcc-*.tar.xz --strip-components=1 --wildcards --no-wildcards-match-slash \
    --exclude='*/testsuite/*/*' --exclude='*/doc/html/*' "gcc-$gcc/*.m4" \
    "gcc-$gcc/"{libstdc++-v3,libgcc,config,include,libiberty/cp-demangle.{c,h}} \
    "gcc-$gcc/libiberty/cp-demint.c" "gcc-$gcc/gcc/"{BASE-VER,DATESTAMP,DEV-PHASE} \
    "gcc-$gcc/"{config.sub,config.guess,config-ml.in,ltmain.sh,install-sh,mkinstalldirs,missing}
}

# The compiler's own files of settings: what it searches, and what it links.
specs() {
  local cxx=$1
  cat <<SPECS
%rename cpp_options old_cpp_options
*cpp_options:
-nostdinc $cxx -isystem $include -isystem include%s %(old_cpp_options)

*cc1:
%(cc1_cpu) -nostdinc $cxx -isystem $include -isystem include%s

*link_libgcc:
-L$made/lib -L$lib -L .%s

*libgcc:
libgcc.a%s libgcc_eh.a%s

*lib:
-lc -lfind_object

*link_gcc_c_sequence:
--start-group %G %L --end-group

*startfile:
$lib/rcrt1.o $lib/crti.o crtbeginS.o%s

*endfile:
crtendS.o%s $lib/crtn.o

*link:
-nostdlib -static -pie --no-dynamic-linker -z text --eh-frame-hdr

SPECS
}

make_musl() {
  "$top/scripts/crossing/libraries.sh" --unpack musl "$PWD/musl"
  cd musl
  ./configure --target="$host" --prefix="$made/musl" --disable-shared CC="${tools}gcc$suffix" \
    AR="${tools}ar" RANLIB="${tools}ranlib" CFLAGS="-Os -ffunction-sections -fdata-sections"
  make -j2 install
  cd ..
  ln -s "${headers[@]}" "$include"
}

make_compiler() {
  local name
  mkdir -p "$made/bin" "$made/lib"
  specs "" >"$made/gcc.specs"
  specs "-nostdinc++ -isystem $made/c++ -isystem $made/c++/$host" >"$made/g++.specs"
  for name in gcc g++; do
    printf '#!/bin/sh\nexec %s -specs=%s "$@"\n' "$tools$name$suffix" "$made/$name.specs" \
      >"$made/bin/$host-$name"
    chmod +x "$made/bin/$host-$name"
  done
  for name in ar ranlib nm strip; do ln -s "/usr/bin/$tools$name" "$made/bin/$host-$name"; done
  # What unwinds the stack asks the GNU C library for a function that musl does not have.
  "$made/bin/$host-gcc" $flags -c "$top/scripts/crossing/find_object.c" -o find_object.o
  ar rcs "$made/lib/libfind_object.a" find_object.o
}

build_library() {
  export PATH=$made/bin:$PATH
  # No weak references to threads: a static program would have half of them.
  sed -i 's/^#define GTHREAD_USE_WEAK 1/#define GTHREAD_USE_WEAK 0/' libgcc/gthr.h
  mkdir -p built/libgcc built/libstdc++
  cp libgcc/gthr-posix.h built/libgcc/gthr-default.h
  cd built/libstdc++
  ../../libstdc++-v3/configure CC=$host-gcc CXX=$host-g++ CFLAGS="$flags" CXXFLAGS="$flags" \
    --build="$(uname -m)-linux-${host##*-}" --host=$host --prefix="$made" --with-gxx-include-dir="$made/c++" \
    --disable-shared --disable-multilib --disable-nls --disable-libstdcxx-pch --disable-werror
  local folder
  for folder in include libsupc++ src; do make -j2 -C $folder; done
  for folder in include libsupc++ src; do make -C $folder install; done
  rm "$made"/lib/*.la
  # A native configuration knows no suffix for libraries of a C library that it takes for another.
  local library
  for library in "$made"/lib/lib*.; do [ ! -e "$library" ] || mv "$library" "${library}a"; done
}

if [ -n "$make" ]; then
  # A process of its own: in a step a failing command would not end it.
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  cd "$work"
  rm -rf "$made"
  mkdir -p "$made"
  include=$made/musl/include lib=$made/musl/lib
  # shellcheck disable=SC2086
  fetch $sources
  unpack
  make_musl
  make_compiler
  build_library
  exit
fi

command -v "${tools}g++$suffix" >/dev/null ||
  fail "${tools}g++$suffix is missing: the C++ library is that of GCC 12"
if [ "$(cat "$made/made" 2>/dev/null)" != "$state" ]; then
  "$top/scripts/crossing/libraries.sh" --fetch musl >&2
  step "made a compiler for $host" "$top/scripts/crossing/musl.sh" --make "$host" >&2
  printf '%s\n' "$state" >"$made/made"
fi
printf '%s\n' "$made/bin"
