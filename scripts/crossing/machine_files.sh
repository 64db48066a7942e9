#!/usr/bin/env bash
# Packs the file system of the emulated machine of scripts/crossing/machine.sh into BUILD/machine.cpio.gz:
# what a distribution has, the kernel's modules, the programs, their libraries and the tests.
#   scripts/crossing/machine_files.sh ROOT LIBRARIES BUILD LEFT_OUT
#     ROOT       the folder that scripts/crossing/root.sh filled with a kernel, Python and tools
#     LIBRARIES  the one that it filled for the programs
#     BUILD      as for machine.sh
#     LEFT_OUT   a file with the names of tests that are not run there
# Its file /tests has a line for each test: its name, its program, and the argument that selects it.
. "$(dirname "$0")/../lib.sh"

[ $# -eq 4 ] || fail "usage: machine_files.sh ROOT LIBRARIES BUILD LEFT_OUT"
root=$(realpath "$1") libraries=$(realpath "$2") build=$(realpath "$3") left_out=$4
umask 022
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
image=$work/image
mkdir "$image"

# Copies to $image what of the folder $1 tar's further arguments select.
copy() { tar c -C "$1" "${@:2}" | tar x -C "$image"; }

# The tests that scripts/cross --test leaves out.
list_tests() {
  ctest --test-dir "$build" --show-only=json-v1 -L unit -L 'needs-(machine|root)' | python3 -c '
import json, sys
left_out = open(sys.argv[1]).read().split("\n")
for test in json.load(sys.stdin)["tests"]:
    words = test.get("command", [])
    filters = [word for word in words if word.startswith("--gtest_filter=")]
    if filters and test["name"] not in left_out:
        print(test["name"], words[words.index(filters[0]) - 1], filters[0])' "$left_out"
}

modules=lib/modules
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
