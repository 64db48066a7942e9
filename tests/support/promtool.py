"""promtool, Prometheus' own check of what programs tell it.

Debian has it in the package of the server, which would start when it is installed; so only the
program is taken out of the package, and kept in the user's cache."""

import pathlib
import shutil
import subprocess
import tempfile

from support.debian import give_to_owner, kept


class Missing(Exception):
    """It is not installed and cannot be fetched; the text says why."""


def path():
    """The program. Raises Missing."""
    program = kept() / "promtool"
    if installed := shutil.which("promtool"):
        return pathlib.Path(installed)
    if not program.exists():
        _fetch(program)
    return program


def check(metrics):
    """What it finds wrong with the text; empty when that is nothing."""
    done = subprocess.run([path(), "check", "metrics"], input=metrics, capture_output=True,
                          text=True, timeout=30, check=False)
    return done.stdout + done.stderr if done.returncode or done.stderr else ""


def _fetch(program):
    if shutil.which("apt-get") is None:
        raise Missing("promtool is not installed, and this is no Debian that has it")
    with tempfile.TemporaryDirectory(dir=program.parent) as folder:
        done = subprocess.run(["apt-get", "download", "-q", "prometheus"], cwd=folder, timeout=120,
                              capture_output=True, text=True, check=False)
        packages = list(pathlib.Path(folder).glob("*.deb"))
        if done.returncode != 0 or not packages:
            raise Missing(f"apt-get did not fetch promtool: {done.stderr.strip()[-300:]}")
        subprocess.run(["dpkg-deb", "-x", packages[0], folder], check=True, timeout=120)
        (pathlib.Path(folder) / "usr/bin/promtool").rename(program)
    give_to_owner(program)
