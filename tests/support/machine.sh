# shellcheck shell=bash
# What makes a root folder look like a machine; to be sourced inside the machine's own namespaces.

# mount_machine ROOT: the file systems that every machine has, below ROOT, which is a mount point.
mount_machine() {
  local root=$1 folder device
  mount -t proc proc "$root/proc"
  mount -t sysfs -o ro sysfs "$root/sys"
  for folder in run tmp dev; do mount -t tmpfs -o mode=755 tmpfs "$root/$folder"; done
  chmod 1777 "$root/tmp"
  for device in null zero full random urandom tty; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  mkdir "$root/dev/pts" "$root/dev/shm"
  chmod 1777 "$root/dev/shm"
  mount -t devpts -o newinstance,ptmxmode=666 devpts "$root/dev/pts"
  ln -s pts/ptmx "$root/dev/ptmx"
  ln -s /proc/self/fd "$root/dev/fd"
}

# enter_machine ROOT COMMAND...: becomes the command, for which ROOT is all that there is.
enter_machine() {
  local root=$1
  shift
  cd "$root"
  pivot_root . .
  umount -l .
  exec env -i container=test LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}
