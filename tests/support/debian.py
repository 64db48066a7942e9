"""The smallest Debian, as a tar archive, from the package source that this machine uses.

    python3 -m support.debian NAME [--suite SUITE] [--include PACKAGE,...]
"""

import argparse
import os
import pathlib
import pwd
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
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


def kept():
    """The folder for what is kept between runs, outside of the checkout: in the cache of
    the checkout's owner, to whom it belongs."""
    owner = pwd.getpwuid(os.stat(TOP).st_uid)
    folder = pathlib.Path(owner.pw_dir) / ".cache" / "palinode-igd"
    folder.mkdir(parents=True, exist_ok=True)
    give_to_owner(folder.parent, folder)
    return folder


def give_to_owner(*paths):
    """Gives what root has made to the owner of the checkout."""
    owner = os.stat(TOP)
    for path in paths:
        if os.lstat(path).st_uid == 0:
            os.chown(path, owner.st_uid, owner.st_gid, follow_symlinks=False)


def make_archive(name, suite, include=""):
    """Makes the archive of that name among what is kept, unless it is there and less than a day
    old: after that the package source may no longer have what its lists name. Returns its path."""
    archive = kept() / f"{name}.tar"
    if archive.exists() and time.time() < archive.stat().st_mtime + 86400:
        return archive
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
        give_to_owner(unfinished)
        unfinished.rename(archive)
    return archive


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("name")
    parser.add_argument("--suite", default=this_suite())
    parser.add_argument("--include", default="")
    arguments = parser.parse_args()
    make_archive(arguments.name, arguments.suite, arguments.include)


if __name__ == "__main__":
    sys.exit(main())
