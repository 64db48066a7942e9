#!/bin/bash
# Boots a Debian from a root folder, which stays as it is: with systemd as process 1, in namespaces
# of its own but for the network, which is the caller's. All mounts end with it.
#   boot.sh BASE FOLDER GROUP
#     BASE    the root folder
#     FOLDER  an empty folder, where the mounts go
#     GROUP   a control group for its processes, made here
set -euo pipefail

# In the machine's namespaces.
boot() {
  local root=$1 folder device
  mount --make-rprivate /
  mount -t proc proc "$root/proc"
  mount -t sysfs -o ro sysfs "$root/sys"
  for folder in run tmp dev; do mount -t tmpfs -o mode=755 tmpfs "$root/$folder"; done
  chmod 1777 "$root/tmp"
  for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  mkdir "$root/dev/pts" "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
  ln -s pts/ptmx "$root/dev/ptmx"
  if [ -e /sys/fs/cgroup/cgroup.controllers ]; then
    mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
  else
    mount -t tmpfs -o mode=755 tmpfs "$root/sys/fs/cgroup"
    mkdir "$root/sys/fs/cgroup/systemd"
    mount -t cgroup -o none,name=systemd,xattr cgroup "$root/sys/fs/cgroup/systemd"
  fi
  hostname router
  cd "$root"
  exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$root" \
    /lib/systemd/systemd --unit=multi-user.target
}

case $1 in
  --boot) boot "$2" ;;
  --mount)
    base=$2 folder=$3
    mount --make-rprivate /
    mount -t tmpfs -o mode=755 tmpfs "$folder"
    mkdir "$folder/root" "$folder/upper" "$folder/work"
    mount -t overlay -o "lowerdir=$base,upperdir=$folder/upper,workdir=$folder/work" overlay \
      "$folder/root"
    exec unshare --mount --pid --ipc --uts --cgroup --fork --kill-child "$0" --boot "$folder/root"
    ;;
  *)
    mkdir "$3"
    echo $$ >"$3/cgroup.procs"
    exec unshare --mount "$0" --mount "$1" "$2"
    ;;
esac
