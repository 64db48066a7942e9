"""System calls that Python's library does not have."""

import ctypes
import os

CLONE_NEWNS = 0x00020000
CLONE_NEWUTS = 0x04000000
CLONE_NEWNET = 0x40000000
MS_RDONLY = 1
MS_REMOUNT = 32
MS_BIND = 4096
MS_REC = 16384
MS_PRIVATE = 1 << 18
MNT_DETACH = 2
PR_SET_PDEATHSIG = 1
# By its number on all machines but MIPS, and its flag.
LANDLOCK_CREATE_RULESET = 444
LANDLOCK_CREATE_RULESET_VERSION = 1

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    """Raises OSError when a system call has failed."""
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def has_landlock():
    """Whether this kernel lets a program give up files."""
    return libc.syscall(LANDLOCK_CREATE_RULESET, None, 0, LANDLOCK_CREATE_RULESET_VERSION) > 0


def enter_own_mounts():
    """The calling thread, and what it starts from now on, has a mount namespace of its own: no
    mount is seen outside of it."""
    check(libc.unshare(CLONE_NEWNS), "unshare")
    mount("none", "/", MS_REC | MS_PRIVATE)


def mount(source, target, flags):
    """Changes or binds a mount by `flags`."""
    _mount(source, target, None, flags, None)


def mount_tmpfs(target, options=None):
    """An empty file system in memory."""
    _mount("none", target, b"tmpfs", 0, options.encode() if options else None)


def unmount(target):
    """Takes the mount away; it lives on where it is in use."""
    check(libc.umount2(target.encode(), MNT_DETACH), f"umount {target}")


def _mount(source, target, kind, flags, data):
    check(libc.mount(source.encode(), target.encode(), kind, flags, data),
          f"mount {source} on {target}")
