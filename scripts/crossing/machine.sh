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

limit=1800  # seconds, for a computer that is ten times slower than usual

[ $# -eq 3 ] || fail "usage: machine.sh ARCHITECTURE LIBRARIES BUILD"
architecture=$1 libraries=$2 build=$(realpath "$3")
# All files lie in memory, and packed once more at the start: the kernel for MIPS uses 256 MB of it.
case $architecture in
  s390x)
    kernel=linux-image-s390x emulator=(qemu-system-s390x) console=ttysclp0 slowdown=1
    # Its clock counts instructions, 2 ns each, and does not wait while the processor does: however slow
    # the emulator is, time limits in the machine mean what they do on a real one.
    emulator+=(-icount "shift=1,sleep=off" -rtc clock=vm)
    left_out=tests/needs-socket-calls.txt
    reason="need a system call for each call of sockets"
    ;;
  mipsel)
    # Its clock is that of this computer: when it counts instructions, Linux leaves the processor's timer
    # alone, and QEMU 7.2 hangs as soon as that has come around, after 26 s.
    kernel=linux-image-4kc-malta console=ttyS0 slowdown=4
    emulator=(qemu-system-mipsel -machine malta -cpu 24Kf -vga none)
    left_out=tests/needs-steady-processor.txt
    reason="compare how long two things take"
    ;;
  *) fail "there is no emulated machine for $architecture" ;;
esac
command -v "${emulator[0]}" >/dev/null || fail "${emulator[0]} is missing"
root=$HOME/.cache/palinode-igd/machine-$architecture
log=$build/machine.log

# The machine ends with this script, and after $limit seconds.
boot() {
  setpriv --pdeathsig TERM timeout --foreground -k 5 "$limit" "${emulator[@]}" -m 1024 \
    -nic none -nographic -no-reboot \
    -kernel "$root"/boot/vmlinuz-* -initrd "$build/machine.cpio.gz" \
    -append "quiet panic=-1 rootfstype=ramfs console=$console PALINODE_TOP=$top PALINODE_BUILD=$build \
PALINODE_SLOWDOWN=$slowdown" \
    </dev/null 2>&1 |
    sed -u 's/\r//g' | tee "$log" | sed -u -n '/^\(\(not \)\{0,1\}ok\|skipped\)  /p'
}

scripts/crossing/root.sh "$architecture" "$root" "$kernel" busybox dash python3 iproute2 nftables \
  miniupnpc natpmpc
trap 'rm -f "$build/machine.cpio.gz"' EXIT
step "made the machine's file system" scripts/crossing/machine_files.sh "$root" "$libraries" "$build" \
  "$left_out"
printf 'left out: %s tests that %s, see %s\n' "$(grep -c '^[a-z]' "$left_out")" "$reason" "$left_out"
started=$(now) status=0
boot || status=$?
running=$(sed -n 's/^runs  //p' "$log" | tail -n 1)
reason=$(sed -n 's/^Failed in the machine: /failed in the machine: /p' "$log")
if [ $(($(now) - started)) -ge $((limit * 1000)) ]; then
  reason="the machine was ended after $limit s while it ran ${running:-nothing}"
elif [ "$status" -ne 0 ]; then
  reason="${emulator[0]} ended with status $status while it ran ${running:-nothing}"
else
  reason=${reason:-the machine ended while it ran ${running:-nothing}}
fi
summary=$(sed -n 's/^All done in the machine: //p' "$log")
if [ "$status" -ne 0 ] || [ -z "$summary" ]; then
  sed '/^runs  /d' "$log" >&2
  fail "$reason; above is its console"
fi
printf 'ok  %s in the machine (%s s)\n' "$summary" "$(seconds $(($(now) - started)))"
