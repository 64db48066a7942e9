"""A Debian machine in namespaces, with systemd as its first process."""

import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile

from support.closing import Closing
from support.network import wait_until

BOOT = pathlib.Path(__file__).with_name("boot.sh")

# In seconds. The first reads from the package source.
INSTALL_LIMIT = 600
COMMAND_LIMIT = 60


class CommandFailed(Exception):
    """A command on the machine ended with another status than 0."""


class Machine(Closing):
    """Runs until close, or until this process ends. Its network is `namespace`; `base` is an
    archive of the root that it starts with."""

    def __init__(self, base, namespace):
        self._folder = tempfile.mkdtemp(prefix="palinode-machine-")
        self._group = process_groups() / os.path.basename(self._folder)
        self._process = namespace.popen(str(BOOT), str(base), self._folder, str(self._group),
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        try:
            self._first = wait_until(self._first_process, "systemd starts", limit=COMMAND_LIMIT)
            wait_until(self._is_up, "the machine is up", limit=COMMAND_LIMIT)
        except BaseException:
            self.close()
            raise

    def _first_process(self):
        """The number of its process 1."""
        pid = self._process.pid
        with contextlib.suppress(OSError):
            for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split():
                if pathlib.Path(f"/proc/{child}/comm").read_text() == "systemd\n":
                    return child
        return None

    def _is_up(self):
        state = self.run("systemctl", "is-system-running", check=False)
        return state.strip() in ("running", "degraded")

    def run(self, *command, check=True, limit=COMMAND_LIMIT, own_network=True):
        """Runs a command on the machine; returns what it printed. Raises CommandFailed unless
        `check` is false."""
        spaces = ["--mount", "--pid", "--ipc", "--uts", "--cgroup"]
        spaces += ["--net"] if own_network else []
        environment = ["env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                       "DEBIAN_FRONTEND=noninteractive"]
        done = subprocess.run(["nsenter", "--target", self._first, "--root", "--wd", *spaces,
                               *environment, *command], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=limit,
                              check=False)
        if check and done.returncode != 0:
            raise CommandFailed(f"{' '.join(command)} ended with {done.returncode}: {done.stdout}")
        return done.stdout

    def apt_get(self, *arguments):
        """Runs apt-get, which reads the package source through this machine's network."""
        return self.run("apt-get", "--quiet", "--yes", "--no-install-recommends", *arguments,
                        limit=INSTALL_LIMIT, own_network=False)

    def put(self, path, destination):
        """Copies a file of this machine to it."""
        shutil.copy(path, f"/proc/{self._first}/root{destination}")

    def close(self):
        self._process.kill()
        self._process.wait()
        wait_until(self._groups_are_gone, "nothing of the machine runs")
        os.rmdir(self._folder)

    def _groups_are_gone(self):
        """Removes the control groups, which can be done when no process is in them."""
        with contextlib.suppress(OSError):
            for folder, _, _ in os.walk(self._group, topdown=False):
                os.rmdir(folder)
        return not self._group.exists()


def process_groups():
    """The control groups that systemd keeps its processes in."""
    top = pathlib.Path("/sys/fs/cgroup")
    return top if (top / "cgroup.controllers").exists() else top / "systemd"

