"""The smallest Debian, as a tar archive, from the package source that this machine uses.

    python3 -m support.debian ARCHIVE [--suite SUITE] [--include PACKAGE,...]
"""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile
import time

# In seconds; it reads from the package source.
MAKE_LIMIT = 900


class NoPackageSource(Exception):
    """This machine knows no package source of Debian."""


def this_suite():
    """The code name of the Debian, or what comes from it, that this machine runs."""
    release = pathlib.Path("/etc/os-release").read_text(encoding="utf-8")
    return next(line.partition("=")[2].strip('"') for line in release.splitlines()
                if line.startswith("VERSION_CODENAME="))


def package_source():
    """The address that this machine's packages come from."""
    suite = this_suite()
    known = subprocess.run(["apt-get", "indextargets", "--format",
                            "$(CODENAME) $(COMPONENT) $(REPO_URI)", "Created-By: Packages"],
                           capture_output=True, text=True, check=True).stdout
    for line in known.splitlines():
        if line.startswith(f"{suite} main "):
            return line.split()[2]
    raise NoPackageSource(f"this machine knows no package source of {suite}")


def make_archive(archive, suite, include=""):
    """Makes the archive, unless it is there and less than a day old: after that the package source
    may no longer have what its lists name."""
    if archive.exists() and time.time() < archive.stat().st_mtime + 86400:
        return
    archive.parent.mkdir(exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="palinode-debian-", dir="/var/tmp") as root:
        os.chmod(root, 0o755)
        options = [f"--include={include}"] if include else []
        done = subprocess.run(["debootstrap", "--variant=minbase", *options, suite, root,
                               package_source()], stdin=subprocess.DEVNULL, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=MAKE_LIMIT, check=False)
        if done.returncode != 0:
            raise AssertionError(f"debootstrap ended with {done.returncode}: {done.stdout}")
        # debootstrap keeps the packages that it unpacked.
        subprocess.run(["chroot", root, "apt-get", "clean"], check=True)
        unfinished = archive.with_name(archive.name + ".unfinished")
        subprocess.run(["tar", "--numeric-owner", "-C", root, "-cf", unfinished, "."], check=True)
        unfinished.rename(archive)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("archive", type=pathlib.Path)
    parser.add_argument("--suite", default=this_suite())
    parser.add_argument("--include", default="")
    arguments = parser.parse_args()
    make_archive(arguments.archive, arguments.suite, arguments.include)


if __name__ == "__main__":
    sys.exit(main())
