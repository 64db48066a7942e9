#!/bin/bash
# Runs a command on a machine that is a root folder, in namespaces of its own but for the network.
# The kernel notes there when a file is read. All mounts and processes end with the command.
#   enter.sh ROOT DOWNLOADS CACHE COMMAND...
#     DOWNLOADS  a folder that keeps the packages that apt-get reads
#     CACHE      a folder that keeps what the compiler has made
set -euo pipefail
. "$(dirname "$0")/../support/machine.sh"

case $1 in
  --inside)
    root=$2 downloads=$3 cache=$4
    shift 4
    mount --make-rprivate /
    mount --bind "$root" "$root"
    mount -o remount,bind,strictatime "$root"
    mount --bind "$downloads" "$root/var/cache/apt/archives"
    mkdir -p "$root/var/cache/ccache"
    mount --bind "$cache" "$root/var/cache/ccache"
    mount_machine "$root"
    hostname fresh
    enter_machine "$root" CCACHE_DIR=/var/cache/ccache "$@"
    ;;
  *)
    exec unshare --mount --pid --ipc --uts --fork --kill-child "$0" --inside "$@"
    ;;
esac
