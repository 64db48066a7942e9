"""The arguments of scripts/cross and the checksums of its sources, with stand-ins for every program
that would install or download."""

import hashlib
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
RECORDER = """#!/bin/sh
echo "${0##*/} $*" >>"$CALLS"
"""
# Downloads what $ARCHIVE has.
APT_GET = """#!/bin/sh
echo "${0##*/} $*" >>"$CALLS"
case " $* " in
  *" indextargets "*) echo http://archive.invalid/debian/ ;;
  *" source "*) cp "$ARCHIVE"/* . ;;
esac
"""
TAR = b"the sources of a door"


def sha256(content):
    return hashlib.sha256(content).hexdigest()


DSC = f"Source: door\nChecksums-Sha256:\n {sha256(TAR)} {len(TAR)} door_1.0.tar.gz\n".encode()


class CrossTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="palinode-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "scripts" / "crossing").mkdir(parents=True)
        for name in ("cross", "lib.sh", "crossing/libraries.sh"):
            shutil.copy(SCRIPTS / name, self.folder / "scripts" / name)
        self.archive = self.folder / "archive"
        self.archive.mkdir()
        (self.folder / "programs").mkdir()
        for name in ("apt-get", "dpkg-query", "cmake", "ninja"):
            program = self.folder / "programs" / name
            program.write_text(APT_GET if name == "apt-get" else RECORDER)
            program.chmod(0o755)
        self.calls = self.folder / "calls"
        self.calls.touch()

    def run_script(self, name, *arguments):
        environment = {**os.environ, "CALLS": str(self.calls), "ARCHIVE": str(self.archive),
                       "HOME": str(self.folder),
                       "PATH": f"{self.folder}/programs:{os.environ['PATH']}"}
        return subprocess.run(["/bin/bash", self.folder / "scripts" / name, *arguments],
                              env=environment, capture_output=True, text=True, timeout=30,
                              check=False)

    def called(self):
        return self.calls.read_text().splitlines()

    def fetch(self, wanted):
        """Asks for the package door, whose .dsc should have that checksum."""
        (self.folder / "scripts" / "crossing" / "sources").write_text(
            f"# a comment\ndoor  1:1.0  {wanted}\n")
        return self.run_script("crossing/libraries.sh", "--fetch", "door")

    def serve(self, dsc, tar):
        (self.archive / "door_1.0.dsc").write_bytes(dsc)
        (self.archive / "door_1.0.tar.gz").write_bytes(tar)

    def test_wrong_arguments_are_refused_before_anything_is_installed(self):
        for arguments, reason in (([], "which target? There is mips"),
                                  (["vax"], "unknown target 'vax', there is mips"),
                                  (["mips", "--frob"],
                                   "unknown argument '--frob', see scripts/cross --help")):
            with self.subTest(arguments=arguments):
                done = self.run_script("cross", *arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr),
                                 (1, "", f"cross: {reason}\n"))
                self.assertEqual(self.called(), [])

    def test_its_help_installs_nothing(self):
        done = self.run_script("cross", "--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertIn("scripts/cross TARGET --test", done.stdout)
        self.assertEqual(self.called(), [])

    def test_right_sources_are_downloaded_once(self):
        self.serve(DSC, TAR)
        self.assertEqual(self.fetch(sha256(DSC)).returncode, 0)
        self.assertNotEqual(self.called(), [])
        self.calls.write_text("")
        self.assertEqual(self.fetch(sha256(DSC)).returncode, 0)
        self.assertEqual(self.called(), [])

    def test_other_sources_than_those_of_the_table_are_refused(self):
        for dsc, tar, wanted in ((DSC, TAR, sha256(b"another")),
                                 (DSC + b"\n", TAR, sha256(DSC)),
                                 (DSC, b"other sources", sha256(DSC)),
                                 (b"Source: door\n", TAR, sha256(DSC))):
            with self.subTest(dsc=dsc, tar=tar):
                shutil.rmtree(self.folder / ".cache", ignore_errors=True)
                self.serve(dsc, tar)
                done = self.fetch(wanted)
                self.assertEqual(done.returncode, 1)
                self.assertIn("door is not what scripts/crossing/sources says\n", done.stderr)

    def test_what_the_archive_lacks_is_named(self):
        done = self.fetch(sha256(DSC))
        self.assertEqual((done.returncode, done.stderr), (4, "not to be had: door 1:1.0\n"))

    def test_a_package_that_the_table_lacks_is_refused(self):
        (self.folder / "scripts" / "crossing" / "sources").write_text("door  1:1.0  0\n")
        done = self.run_script("crossing/libraries.sh", "--fetch", "window")
        self.assertEqual((done.returncode, done.stderr),
                         (1, "libraries.sh: there is no window in scripts/crossing/sources\n"))


if __name__ == "__main__":
    unittest.main()
