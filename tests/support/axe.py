"""axe-core, which finds what keeps people from using a page (https://www.deque.com/axe/core-documentation/).

It comes as a package of npm, of one version, and is kept in the user's cache."""

import hashlib
import pathlib
import shutil
import subprocess
import tarfile
import tempfile

from support.debian import give_to_owner, kept

VERSION = "4.10.2"
DIGEST = "9ea2d2d6917da998122bdacfd3b473e31ead53f4b87146c716a12edf89158100"  # SHA-256

_RULES = ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "best-practice"]


class Missing(Exception):
    """It is not in the cache and cannot be fetched; the text says why."""


def script():
    """Its script. Raises Missing."""
    archive = kept() / f"axe-core-{VERSION}.tgz"
    if not archive.exists():
        _fetch(archive)
    with tarfile.open(archive) as package:
        return package.extractfile("package/axe.min.js").read().decode()


def violations(browser):
    """What it finds wrong with the page that the browser shows, a line each."""
    browser.devtools("Runtime.evaluate", expression=script())
    found = browser.run_to_its_end(
        "const done = arguments[arguments.length - 1];"
        "axe.run({runOnly: arguments[0]}).then(r => done(r.violations), e => done(String(e)));",
        _RULES)
    if isinstance(found, str):
        raise AssertionError(f"axe-core ended with {found}")
    return [f"{each['id']}: {each['help']}: {node['html']} {node.get('failureSummary', '')}"
            for each in found for node in each["nodes"]]


def _fetch(archive):
    if shutil.which("npm") is None:
        raise Missing("npm, which fetches axe-core, is not installed")
    with tempfile.TemporaryDirectory(dir=archive.parent) as folder:
        done = subprocess.run(["npm", "pack", f"axe-core@{VERSION}"], cwd=folder, timeout=120,
                              capture_output=True, text=True, check=False)
        fetched = pathlib.Path(folder) / archive.name
        if done.returncode != 0 or not fetched.exists():
            raise Missing(f"npm did not fetch axe-core: {done.stderr.strip()[-300:]}")
        if hashlib.sha256(fetched.read_bytes()).hexdigest() != DIGEST:
            raise AssertionError(f"npm fetched another axe-core {VERSION} than the one known here")
        fetched.rename(archive)
        give_to_owner(archive)
