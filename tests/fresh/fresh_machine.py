"""A machine that has nothing: the smallest Debian, a user, and a checkout."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time

from support.closing import Closing
from support.debian import give_to_owner, kept, make_archive

TOP = pathlib.Path(__file__).resolve().parents[2]
ENTER = pathlib.Path(__file__).with_name("enter.sh")
CHECKOUT = "/home/ann/palinode"
# In seconds, for one command of the user.
LIMIT = 1500


class FreshMachine(Closing):
    """Exists on the disk until close."""

    def __init__(self, suite):
        archive = make_archive(suite, suite)
        self._downloads = kept() / f"downloads-{suite}"
        self._cache = kept() / f"ccache-{suite}"
        for folder in (self._downloads, self._cache):
            folder.mkdir(exist_ok=True)
        self._folder = tempfile.mkdtemp(prefix="palinode-fresh-", dir="/var/tmp")
        try:
            subprocess.run(["tar", "--numeric-owner", "-C", self._folder, "-xf", archive],
                           check=True)
            self._finish_installation()
            self._add_user()
            self._add_checkout()
        except BaseException:
            self.close()
            raise

    def _finish_installation(self):
        """What the installer of Debian writes, and debootstrap does not."""
        etc = pathlib.Path(self._folder) / "etc"
        (etc / "hosts").write_text("127.0.0.1\tlocalhost\n127.0.1.1\tfresh\n", encoding="utf-8")

    def _add_user(self):
        """Ann has the number of who owns this checkout, so that what is kept stays his."""
        self._uid = os.stat(TOP).st_uid or 1000
        self.run("useradd", "--create-home", "--uid", str(self._uid), "--shell", "/bin/bash", "ann")
        os.chown(self._cache, self._uid, -1)

    def _add_checkout(self):
        """Copies this checkout, without what was built."""
        target = pathlib.Path(self._folder + CHECKOUT)
        target.mkdir()
        with subprocess.Popen(["tar", "-C", TOP, "--exclude=./build", "--exclude=./build-*",
                               "--exclude=./.git", "-cf", "-", "."],
                              stdout=subprocess.PIPE) as packed:
            subprocess.run(["tar", "-C", target, "-xf", "-"], stdin=packed.stdout, check=True)
        self.run("chown", "-R", "ann:ann", CHECKOUT)

    def run(self, *command, user="root", when_installed=None):
        """Runs a command, for a user in the checkout; returns what it printed. Fails when it does.
        Calls `when_installed` when a script says that it has installed packages."""
        if user != "root":
            command = ("setpriv", "--reuid", user, "--regid", user, "--init-groups",
                       "env", f"HOME=/home/{user}", f"USER={user}", *command)
        else:
            command = ("env", "HOME=/root", *command)
        command = ("env", "-C", CHECKOUT if self._has_checkout() else "/", *command)
        end = time.monotonic() + LIMIT
        said = []
        with subprocess.Popen([ENTER, self._folder, self._downloads, self._cache, *command],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True) as process:
            for line in process.stdout:
                said.append(line)
                print(line, end="", flush=True)
                if when_installed and line.startswith("ok  installed "):
                    when_installed()
                if time.monotonic() > end:
                    process.kill()
        if process.returncode != 0:
            raise AssertionError(f"{' '.join(command)} ended with {process.returncode}: "
                                 + "".join(said[-60:]))
        return "".join(said)

    def _has_checkout(self):
        return pathlib.Path(self._folder + CHECKOUT + "/scripts").exists()

    def unused(self, packages, since):
        """Those of the packages of which no file was read since then, documents aside. A package
        stands for those that it depends on and gave its name to, as python3 for python3-minimal."""
        return [package for package in packages if not self._used(package, since)]

    def _used(self, package, since):
        depends = self._ask("dpkg-query", "-W", "-f", "${Pre-Depends}, ${Depends}",
                            package)
        parts = re.findall(rf"(?:^|, )({re.escape(package)}[a-z0-9.+-]*)", depends)
        return any(os.stat(path).st_atime > since
                   for name in (package, *parts) for path in self._files(name))

    def _files(self, package):
        listed = self._ask("dpkg-query", "-L", package).splitlines()
        paths = [self._folder + path for path in listed
                 if not path.startswith(("/usr/share/doc", "/usr/share/man", "/usr/share/lintian"))]
        # The .so of a library is a link to what programs load without it.
        return [path for path in paths if os.path.isfile(path)
                and not (path.endswith(".so") and os.path.islink(path))]

    def _ask(self, *command):
        return subprocess.run(["chroot", self._folder, *command], capture_output=True, text=True,
                              check=False).stdout

    def close(self):
        shutil.rmtree(self._folder)
        give_to_owner(self._downloads, *self._downloads.rglob("*"))
