"""Network namespaces for tests: made, wired and entered from Python. Needs root.

A namespace here has no name in the file system: it is a descriptor of this process. When the
process ends, however it ends, the kernel takes the namespace and every link in it away, so nothing
is left behind and nothing can clash with another run. Commands reach it as `namespace.path`, for
instance with `nsenter --net=PATH`.
"""

import contextlib
import fcntl
import os
import signal
import socket
import struct
import subprocess
import threading
import time

from support.system_calls import (CLONE_NEWNET, CLONE_NEWUTS, MS_BIND, MS_REC,
                                  PR_SET_PDEATHSIG, check, enter_own_mounts, libc, mount,
                                  mount_tmpfs, unmount)

_SIOCGIFFLAGS = 0x8913
_IFF_RUNNING = 0x40


class Namespace:
    """A network namespace whose loopback is up."""

    def __init__(self):
        made = []
        # In another thread, so that this one stays in its namespace.
        thread = threading.Thread(target=lambda: made.append(_make_namespace()))
        thread.start()
        thread.join()
        if not made:
            raise OSError("could not make a network namespace")
        self._fd = made[0]
        self.ip("link", "set", "lo", "up")

    @classmethod
    def current(cls):
        """The namespace that the calling thread is in."""
        namespace = cls.__new__(cls)
        namespace._fd = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        return namespace

    @property
    def path(self):
        """A path to the namespace for other programs, valid until close."""
        return f"/proc/{os.getpid()}/fd/{self._fd}"

    @contextlib.contextmanager
    def entered(self):
        """Inside the `with` the calling thread is in the namespace. What it opens stays there."""
        outside = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        try:
            check(libc.setns(self._fd, CLONE_NEWNET), "setns")
            try:
                yield
            finally:
                check(libc.setns(outside, CLONE_NEWNET), "setns back")
        finally:
            os.close(outside)

    def socket(self, kind=socket.SOCK_STREAM, family=socket.AF_INET):
        """A socket that lives in the namespace."""
        with self.entered():
            return socket.socket(family, kind)

    def popen(self, *command, private=None, host_name=None, **options):
        """Starts a program in the namespace; it is killed when the calling thread ends.

        `private` maps absolute paths of one component ("/lumen") to folders that the program finds
        there instead, and `host_name` is what the host is called there; nothing outside of it
        changes.
        """

        def enter():
            check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0), "prctl")
            check(libc.setns(self._fd, CLONE_NEWNET), "setns")
            if private:
                _enter_private_root(private)
            if host_name is not None:
                check(libc.unshare(CLONE_NEWUTS), "unshare")
                socket.sethostname(host_name)

        return subprocess.Popen(list(command), preexec_fn=enter, **options)

    def run(self, *command, **options):
        """Runs a program in the namespace to its end; returns what it wrote. Fails when it does."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True, **options}
        limit = options.pop("timeout", 30)
        with self.popen(*command, **options) as process:
            try:
                output, _ = process.communicate(timeout=limit)
            except subprocess.TimeoutExpired:
                process.kill()
                output, _ = process.communicate()
                raise AssertionError(f"{' '.join(command)} took longer than {limit} s: {output}")
        if process.returncode != 0:
            raise AssertionError(f"{' '.join(command)} ended with {process.returncode}: {output}")
        return output

    def ip(self, *arguments):
        return self.run("ip", *arguments)

    def link(self, name, other, other_name):
        """A cable: link `name` here, `other_name` in the namespace `other`, both up."""
        self.ip("link", "add", name, "type", "veth",
                "peer", "name", other_name, "netns", other.path)
        self.ip("link", "set", name, "up")
        other.ip("link", "set", other_name, "up")
        # For a moment the kernel still drops what is sent at the end that came up first.
        limit = time.monotonic() + 5
        while not self.is_running(name):
            if time.monotonic() > limit:
                raise AssertionError(f"{name} does not come up")
            time.sleep(0.001)

    def is_running(self, name):
        """Whether the link is up and has a peer that is."""
        with self.socket(socket.SOCK_DGRAM) as any_socket:
            request = struct.pack("16s16x", name.encode())
            flags = struct.unpack_from("H", fcntl.ioctl(any_socket, _SIOCGIFFLAGS, request), 16)[0]
            return bool(flags & _IFF_RUNNING)

    def close(self):
        """Releases the namespace; it ends with the last program and socket in it."""
        if self._fd >= 0:
            os.close(self._fd)
            self._fd = -1


def _make_namespace():
    check(libc.unshare(CLONE_NEWNET), "unshare")
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)


def _enter_private_root(private):
    """Moves the calling process, which is about to start another program, to a root of its own that
    shows everything of the old one but the paths in `private`. Mounting over a path of the old root
    would need the path to exist there, and its removal by one test would end another's mount."""
    enter_own_mounts()
    working_directory = os.getcwd()
    mount_tmpfs("/mnt")
    os.mkdir("/mnt/.old")
    check(libc.pivot_root(b"/mnt", b"/mnt/.old"), "pivot_root")
    os.chdir("/")
    for entry in os.scandir("/.old"):
        target = "/" + entry.name
        if target in private:
            continue
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), target)
        elif entry.is_dir():
            os.mkdir(target)
            mount(entry.path, target, MS_BIND | MS_REC)
    for path, folder in private.items():
        os.mkdir(path)
        mount("/.old" + folder, path, MS_BIND | MS_REC)
    unmount("/.old")
    os.rmdir("/.old")
    os.chdir(working_directory)
