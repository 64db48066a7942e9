"""The arguments of scripts/run, with stand-ins for every program that would install or build."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
STAND_IN = """#!/bin/sh
echo "${0##*/} $*" >>"$CALLS"
"""
INSTALLS_OR_BUILDS = ("apt-get", "dpkg-query", "dpkg", "cmake", "ninja", "setpriv", "python3", "env")


def may_become_others():
    """Whether this is root, and not root of a namespace that has no other user."""
    users = pathlib.Path("/proc/self/uid_map").read_text(encoding="ascii").split()
    return os.getuid() == 0 and users == ["0", "0", "4294967295"]


class RunTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="palinode-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.folder.chmod(0o755)
        (self.folder / "scripts").mkdir()
        (self.folder / "programs").mkdir()
        for name in ("run", "lib.sh"):
            shutil.copy(SCRIPTS / name, self.folder / "scripts")
        for name in INSTALLS_OR_BUILDS:
            program = self.folder / "programs" / name
            program.write_text(STAND_IN)
            program.chmod(0o755)
        self.calls = self.folder / "calls"
        self.calls.touch()
        self.calls.chmod(0o666)

    def run_script(self, *arguments, **options):
        """The exit status, what it printed and what it said on standard error."""
        environment = {**os.environ, "CALLS": str(self.calls),
                       "PATH": f"{self.folder}/programs:{os.environ['PATH']}"}
        done = subprocess.run(["/bin/bash", self.folder / "scripts" / "run", *arguments],
                              env=environment, capture_output=True, text=True, timeout=30,
                              check=False, **options)
        return done.returncode, done.stdout, done.stderr

    def called(self):
        """What of the stand-ins was started, in order."""
        return self.calls.read_text().splitlines()

    def test_wrong_arguments_are_refused_before_anything_is_installed_or_built(self):
        for arguments, reason in ((["foo"], "unknown argument 'foo'"),
                                  (["--frobnicate"], "unknown argument '--frobnicate'"),
                                  (["--internal"], "--internal needs an interface"),
                                  (["--internal", "--external", "lo"],
                                   "--internal needs an interface"),
                                  (["--internal", "lo", "--external"],
                                   "--external needs an interface"),
                                  (["--internal", "lo"], "--internal and --external go together"),
                                  (["--external", "lo"], "--internal and --external go together"),
                                  (["--external", "lo", "--external", "lo"],
                                   "--external is given twice"),
                                  (["--preset"], "--preset needs release or small"),
                                  (["--preset", "tidy"], "--preset needs release or small")):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.run_script(*arguments),
                                 (2, "", f"scripts/run: {reason}, see scripts/run --help\n"))
                self.assertEqual(self.called(), [])

    def test_an_unknown_interface_is_refused_before_anything_is_installed_or_built(self):
        self.assertEqual(self.run_script("--internal", "nosuch", "--external", "lo"),
                         (1, "", "run: there is no interface 'nosuch'\n"))
        self.assertEqual(self.called(), [])

    def test_its_help_needs_neither_root_nor_a_build(self):
        for arguments in (["-h"], ["--help"], ["--internal", "lo", "--help"]):
            with self.subTest(arguments=arguments):
                options = {"user": 65534, "group": 65534, "extra_groups": []}
                status, printed, said = self.run_script(
                    *arguments, **(options if may_become_others() else {}))
                self.assertEqual((status, said), (0, ""))
                self.assertIn("sudo scripts/run --internal IF... --external IF\n", printed)
                self.assertEqual(self.called(), [])

    def test_right_arguments_reach_the_demonstration(self):
        if os.getuid() != 0:
            self.skipTest("scripts/run goes on as root only")
        for arguments, passed in (
                ([], ""),
                (["--internal", "lo", "--external", "lo"], " --internal lo --external lo"),
                (["--external", "lo", "--internal", "lo", "lo", "--internal", "lo"],
                 " --internal lo lo lo --external lo")):
            with self.subTest(arguments=arguments):
                self.calls.write_text("")
                status, _, said = self.run_script(*arguments)
                self.assertEqual((status, said), (0, ""))
                self.assertEqual(self.called()[-1], "env PYTHONDONTWRITEBYTECODE=1 python3 "
                                                    f"scripts/demo.py{passed}")

    def test_the_preset_is_what_is_built_and_run(self):
        if os.getuid() != 0:
            self.skipTest("scripts/run goes on as root only")
        (self.folder / "programs" / "env").write_text(STAND_IN + 'echo "$PALINODE_BIN" >>"$CALLS"\n')
        for arguments, preset, folder in (([], "release", "build"),
                                          (["--preset", "small"], "small", "build-small")):
            with self.subTest(arguments=arguments):
                self.calls.write_text("")
                self.run_script(*arguments)
                called = self.called()
                self.assertIn(f"cmake --build --preset {preset}", called)
                self.assertEqual(called[-1], f"{self.folder}/{folder}/bin")


if __name__ == "__main__":
    unittest.main()
