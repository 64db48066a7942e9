"""The arguments of scripts/cross, the checksums of its sources and the folders of other architectures'
libraries, with stand-ins for every program that would install or download."""

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
  *" install "*)
    for argument; do
      case $argument in Dir::Cache=*) cp "$ARCHIVE"/*.deb "${argument#*=}/archives" || exit 100 ;; esac
    done
    ;;
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
        for name in ("cross", "lib.sh", "crossing/archive.sh", "crossing/libraries.sh",
                     "crossing/root.sh"):
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

    def pack(self, name, *commands):
        """Makes a package of what the commands leave in an empty folder."""
        content = self.folder / name
        (content / "DEBIAN").mkdir(parents=True)
        (content / "DEBIAN" / "control").write_text(
            f"Package: {name}\nVersion: 1\nArchitecture: arm64\nMaintainer: m\nDescription: d\n")
        for command in commands:
            subprocess.run(command, cwd=content, shell=True, check=True)
        subprocess.run(["dpkg-deb", "--build", content, self.archive / f"{name}.deb"],
                       stdout=subprocess.DEVNULL, check=True)

    def make_root(self, *packages):
        return self.run_script("crossing/root.sh", "arm64", self.folder / "root", *packages)

    def test_wrong_arguments_are_refused_before_anything_is_installed(self):
        known = "mips, mipsel, s390x, arm64, armhf, mips-musl and musl"
        for arguments, reason in (([], f"which target? There are {known}"),
                                  (["vax"], f"unknown target 'vax', there are {known}"),
                                  (["mips", "--frob"],
                                   "unknown argument '--frob', see scripts/cross --help"),
                                  (["mips", "--vm"], "there is no emulated machine for mips, "
                                                     "only for mipsel and s390x"),
                                  (["s390x", "--vm", "-R"],
                                   "unknown argument '-R', see scripts/cross --help")):
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

    def test_the_libraries_of_another_architecture_are_downloaded_once(self):
        self.pack("libdoor-dev", "mkdir include; echo closed >include/door.h")
        done = self.make_root("libdoor-dev")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual((self.folder / "root" / "include" / "door.h").read_text(), "closed\n")
        self.calls.write_text("")
        self.assertEqual(self.make_root("libdoor-dev").returncode, 0)
        self.assertEqual(self.called(), [])
        self.assertEqual(self.make_root("libdoor-dev", "libkey-dev").returncode, 0)
        self.assertIn("libkey-dev", "\n".join(self.called()))

    def test_links_between_libraries_do_not_lead_to_those_of_this_machine(self):
        self.pack("libdoor-dev", "mkdir -p lib usr/lib", "echo door >lib/libdoor.so.1",
                  "ln -s /lib/libdoor.so.1 usr/lib/libdoor.so")
        self.assertEqual(self.make_root("libdoor-dev").returncode, 0)
        self.assertEqual((self.folder / "root" / "usr" / "lib" / "libdoor.so").read_text(), "door\n")

    def test_libraries_that_cannot_be_downloaded_leave_nothing_that_seems_complete(self):
        self.assertNotEqual(self.make_root("libdoor-dev").returncode, 0)
        self.pack("libdoor-dev", "mkdir lib")
        self.assertEqual(self.make_root("libdoor-dev").returncode, 0)
        self.assertTrue((self.folder / "root" / "lib").is_dir())


if __name__ == "__main__":
    unittest.main()
