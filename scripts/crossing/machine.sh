#!/usr/bin/env bash
# Boots Debian's kernel of another architecture in an emulated machine whose file system, in memory,
# has the programs, and runs there scripts/crossing/machine_init: one port's life as in scripts/run,
# then the unit tests that need a kernel.
#   scripts/crossing/machine.sh ARCHITECTURE LIBRARIES BUILD
#     ARCHITECTURE  as Debian names it: s390x or mipsel
#     LIBRARIES     the folder that scripts/crossing/root.sh filled for the programs
#     BUILD         has the programs in bin/, and the target machine_tests is built: all programs that
#                   have a test with the label needs-machine or needs-root
# All that the machine's console showed is in BUILD/machine.log. What else it has, its kernel first,
# is kept in ~/.cache/palinode-igd/machine-ARCHITECTURE; to get newer versions, delete that folder.
# What this needs itself: the list machine_packages in scripts/lib.sh.
. "$(dirname "$0")/../lib.sh"

limit=3600  # seconds; a real machine would take one minute

make=no
if [ "${1:-}" = --make ]; then
  make=yes
  shift
fi
[ $# -eq 3 ] || fail "usage: machine.sh ARCHITECTURE LIBRARIES BUILD"
left_out=()
architecture=$1 libraries=$(realpath "$2") build=$(realpath "$3")
# All files lie in memory, and packed once more at the start: the kernel for MIPS uses 256 MB of it.
case $architecture in
  s390x)
    kernel=linux-image-s390x emulator=(qemu-system-s390x) console=ttysclp0
    left_out=(tests/needs-socket-calls.txt)
    ;;
  mipsel)
    kernel=linux-image-4kc-malta console=ttyS0
    emulator=(qemu-system-mipsel -machine malta -cpu 24Kf -vga none)
    ;;
  *) fail "there is no emulated machine for $architecture" ;;
esac
root=$HOME/.cache/palinode-igd/machine-$architecture
umask 022

# Copies to $image what of the folder $1 tar's further arguments select.
copy() { tar c -C "$1" "${@:2}" | tar x -C "$image"; }

# The tests to be run, which scripts/cross --test leaves out: each with its program and its name there.
list_tests() {
  ctest --test-dir "$build" --show-only=json-v1 -L unit -L 'needs-(machine|root)' | python3 -c '
import json, sys
left_out = set()
for file in sys.argv[1:]:
    left_out.update(open(file).read().split("\n"))
for test in json.load(sys.stdin)["tests"]:
    words = test.get("command", [])
    filters = [word for word in words if word.startswith("--gtest_filter=")]
    if filters and test["name"] not in left_out:
        print(test["name"], words[words.index(filters[0]) - 1], filters[0])' "${left_out[@]}"
}

make_image() {
  local modules=lib/modules
  modules+=/$(ls "$root/$modules")
  # What is there twice is the same: both are of one release of Debian.
  copy "$libraries" --exclude='gconv' --exclude='*.a' --exclude='*.o' lib usr/lib
  copy "$root" --exclude='gconv' --exclude=./lib/{udev,modules} --exclude=./usr/share --exclude=./boot .
  (
    cd "$root"
    ls -d "$modules"/modules.* "$modules"/kernel/drivers/net/*.ko
    find "$modules"/kernel/{crypto,lib,net} -type f
  ) >"$work/modules"
  copy "$root" --files-from="$work/modules"
  mkdir -p "$image/$top" "$image"/{dev,etc,mnt,proc,root,run,sys,tmp}
  chmod 1777 "$image/tmp"
  echo root:x:0:0::/root:/bin/sh >"$image/etc/passwd"
  echo root:x:0: >"$image/etc/group"
  cp scripts/crossing/machine_init "$image/init"
  # Where the tests look for them.
  (
    image+=$top
    copy "$top" etc scripts/demo.py tests/support
  )
  # Compiled in the machine they would take minutes. Another version of Python passes these by.
  python3 -m compileall -q --invalidation-mode unchecked-hash "$image"/usr/lib/python3* "$image$top"
  mkdir -p "$image$build"
  (
    image+=$build
    # shellcheck disable=SC2046
    copy "$build" bin tests/service_probe $(sed 's|^|tests/|' "$build/tests/machine_tests")
  )
  list_tests >"$image/tests"
  [ -s "$image/tests" ] || fail "there are no tests in $build"
  (cd "$image" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1) >"$build/machine.cpio.gz"
}

boot() {
  # Its clock counts instructions, 2 ns each, and does not wait while the processor does: however slow
  # the emulator is, time limits in the machine mean what they do on a real one.
  timeout --foreground -k 5 "$limit" "${emulator[@]}" -m 1024 -icount shift=1,sleep=off \
    -rtc clock=vm -nic none -nographic -no-reboot -kernel "$root"/boot/vmlinuz-* \
    -initrd "$build/machine.cpio.gz" -append "quiet panic=-1 rootfstype=ramfs console=$console \
PALINODE_TOP=$top PALINODE_BUILD=$build" </dev/null 2>&1 |
    tee "$build/machine.log" | sed -u -n 's/\r*$//; s/^\r*//; /^\(not \)\{0,1\}ok  /p'
}

if [ "$make" = yes ]; then
  # A process of its own: in a step a failing command would not end it.
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  image=$work/image
  mkdir "$image"
  make_image
  exit
fi
scripts/crossing/root.sh "$architecture" "$root" "$kernel" busybox dash python3 iproute2 nftables \
  miniupnpc natpmpc
step "made the machine's file system" "$0" --make "$@"
boot || true
if ! grep -q '^All done in the machine' "$build/machine.log"; then
  cat "$build/machine.log" >&2
  fail "the machine failed, or took longer than $limit s; above is its console"
fi
