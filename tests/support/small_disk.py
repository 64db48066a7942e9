"""A disk that a test can fill up. Needs root."""

import errno
import os

from support import system_calls


class SmallDisk:
    """An empty file system of a few pages at a folder. Only the calling thread and what it starts
    from now on see it."""

    def __init__(self, folder):
        self._folder = folder
        self._filler = os.path.join(folder, "filler")
        system_calls.enter_own_mounts()
        system_calls.mount_tmpfs(folder, "size=64k")

    def fill(self):
        """Leaves room for names, and for no byte."""
        with open(self._filler, "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(bytes(4096))
            except OSError as error:
                if error.errno != errno.ENOSPC:
                    raise

    def free(self):
        """Undoes fill."""
        os.remove(self._filler)

    def protect(self):
        """Takes no change from now on, as after an error of the disk."""
        system_calls.mount("none", self._folder,
                           system_calls.MS_REMOUNT | system_calls.MS_RDONLY)

    def close(self):
        system_calls.unmount(self._folder)
