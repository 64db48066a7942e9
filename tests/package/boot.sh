#!/bin/bash
# Boots a Debian from an archive of its root: with systemd as process 1, in namespaces of its own but
# for the network, which is the caller's. It lives in memory and ends with its processes.
#   boot.sh BASE FOLDER GROUP
#     BASE    the archive
#     FOLDER  an empty folder, where the mounts go
#     GROUP   a control group for its processes, made here
set -euo pipefail
. "$(dirname "$0")/../support/machine.sh"

# In the machine's namespaces.
boot() {
  local root=$1
  mount --make-rprivate /
  mount_machine "$root"
  if [ -e /sys/fs/cgroup/cgroup.controllers ]; then
    mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
  else
    mount -t tmpfs -o mode=755 tmpfs "$root/sys/fs/cgroup"
    mkdir "$root/sys/fs/cgroup/systemd"
    mount -t cgroup -o none,name=systemd,xattr cgroup "$root/sys/fs/cgroup/systemd"
  fi
  hostname router
  enter_machine "$root" /lib/systemd/systemd --unit=multi-user.target
}

case $1 in
  --boot) boot "$2" ;;
  --mount)
    base=$2 folder=$3
    mount --make-rprivate /
    mount -t tmpfs -o mode=755 tmpfs "$folder"
    tar --numeric-owner -C "$folder" -xf "$base"
    exec unshare --mount --pid --ipc --uts --cgroup --fork --kill-child "$0" --boot "$folder"
    ;;
  *)
    mkdir "$3"
    echo $$ >"$3/cgroup.procs"
    exec unshare --mount "$0" --mount "$1" "$2"
    ;;
esac
