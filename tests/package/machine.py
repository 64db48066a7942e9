"""A Debian machine in namespaces: a fresh root from the package source that this machine uses, with
systemd as its first process.

    machine.py FOLDER    makes the root
"""

import contextlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

from support.network import wait_until

BOOT = pathlib.Path(__file__).with_name("boot.sh")

# In seconds. The first two read from the package source.
MAKE_LIMIT = 900
INSTALL_LIMIT = 600
COMMAND_LIMIT = 60


class CommandFailed(Exception):
    """A command on the machine ended with another status than 0."""


def package_source():
    """Suite and address that this machine's packages come from."""
    release = pathlib.Path("/etc/os-release").read_text(encoding="utf-8")
    suite = next(line.partition("=")[2].strip('"') for line in release.splitlines()
                 if line.startswith("VERSION_CODENAME="))
    known = subprocess.run(["apt-get", "indextargets", "--format",
                            "$(CODENAME) $(COMPONENT) $(REPO_URI)", "Created-By: Packages"],
                           capture_output=True, text=True, check=True).stdout
    for line in known.splitlines():
        if line.startswith(f"{suite} main "):
            return suite, line.split()[2]
    raise AssertionError(f"this machine knows no package source of {suite}")


def make_root(folder):
    """Makes the smallest Debian that has systemd in `folder`, unless it is there already. After a
    day the package source may no longer have what its lists name."""
    if folder.exists():
        if time.time() < folder.stat().st_mtime + 86400:
            return
        shutil.rmtree(folder)
    unfinished = folder.with_name(folder.name + ".unfinished")
    shutil.rmtree(unfinished, ignore_errors=True)
    suite, address = package_source()
    done = subprocess.run(["debootstrap", "--variant=minbase", "--include=systemd", suite,
                           unfinished, address], stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=MAKE_LIMIT,
                          check=False)
    if done.returncode != 0:
        raise AssertionError(f"debootstrap ended with {done.returncode}: {done.stdout}")
    unfinished.rename(folder)


class Machine:
    """Runs until close, or until this process ends. Its network is `namespace`; whatever happens on
    it, `base`, the root that it starts with, stays as it is."""

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

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def process_groups():
    """The control groups that systemd keeps its processes in."""
    top = pathlib.Path("/sys/fs/cgroup")
    return top if (top / "cgroup.controllers").exists() else top / "systemd"


if __name__ == "__main__":
    make_root(pathlib.Path(sys.argv[1]))
