"""How scripts/crossing/machine.sh judges an emulated machine, with a stand-in for the emulator."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "scripts"
STORY = ("quiet\\r\\nok  booted\\r\\nruns  door_test.Opens\\r\\nskipped  door_test.Closes: no key\\r\\n"
         "not ok  door_test, 2 tests\\r\\n")


def is_running(process):
    """Also one that has ended is there until its parent takes note of it."""
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


class MachineTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="palinode-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.build = self.folder / "build"
        for made in ("scripts/crossing", "programs", "build", "root/boot", "tests"):
            (self.folder / made).mkdir(parents=True)
        shutil.copy(SCRIPTS / "lib.sh", self.folder / "scripts" / "lib.sh")
        shutil.copy(SCRIPTS / "crossing" / "machine.sh", self.folder / "scripts" / "crossing")
        self.write("scripts/crossing/root.sh", "#!/bin/sh\n")
        self.write("scripts/crossing/machine_files.sh", '#!/bin/sh\n: >"$3/machine.cpio.gz"\n')
        self.write("tests/needs-socket-calls.txt", "# Why.\n\ndoor_test.Locks\ndoor_test.Rings\n")
        self.write("tests/needs-steady-processor.txt", "door_test.ClosesAsFastAsItOpens\n")

    def write(self, path, text):
        (self.folder / path).write_text(text)
        (self.folder / path).chmod(0o755)

    def start(self, emulator, architecture="mipsel"):
        """The stand-in for the emulator is a shell script; it writes its number to a file."""
        self.write("programs/qemu-system-" + architecture,
                   f"#!/bin/sh\necho $$ >{self.folder}/emulator.new\n"
                   f"mv {self.folder}/emulator.new {self.folder}/emulator\n{emulator}\n")
        environment = {**os.environ, "HOME": str(self.folder),
                       "PATH": f"{self.folder}/programs:{os.environ['PATH']}"}
        return subprocess.Popen(["/bin/bash", self.folder / "scripts" / "crossing" / "machine.sh",
                                 architecture, self.folder / "root", self.build], env=environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                start_new_session=True)

    def run_machine(self, emulator, architecture="mipsel"):
        process = self.start(emulator, architecture)
        out, err = process.communicate(timeout=30)
        self.assertFalse((self.build / "machine.cpio.gz").exists())
        return process.returncode, out, err

    def failure(self, emulator):
        """The last line of what is said of a machine that fails."""
        status, out, err = self.run_machine(emulator)
        self.assertEqual(status, 1)
        self.assertNotIn("in the machine (", out)
        self.assertEqual((self.build / "machine.log").read_text().count("\r"), 0)
        self.assertIn("quiet\n", err)
        return err.splitlines()[-1].removesuffix("; above is its console")

    def test_a_machine_that_passes_ends_with_its_counts(self):
        status, out, err = self.run_machine(
            f"printf '{STORY}All done in the machine: 1 tests passed, 1 skipped\\r\\n'")
        self.assertEqual((status, err), (0, ""))
        self.assertRegex(out, r"ok  made the machine's file system \(.*\)\n"
                              r"left out: 1 tests that .*\n"
                              r"ok  booted\n"
                              r"skipped  door_test.Closes: no key\n"
                              r"not ok  door_test, 2 tests\n"
                              r"ok  1 tests passed, 1 skipped in the machine \(.*\)\n$")

    def test_tests_that_the_machine_cannot_run_are_counted(self):
        for architecture, left_out in (
                ("s390x", "2 tests that need a system call for each call of sockets, see "
                          "tests/needs-socket-calls.txt"),
                ("mipsel", "1 tests that compare how long two things take, see "
                           "tests/needs-steady-processor.txt")):
            out = self.run_machine("printf 'All done in the machine: 0'", architecture)[1]
            self.assertIn(f"left out: {left_out}\n", out)

    def test_tests_that_failed_are_named(self):
        self.assertEqual(
            self.failure(f"printf '{STORY}Failed in the machine: door_test.Opens, door_test.Rings\\r\\n'"),
            "machine.sh: failed in the machine: door_test.Opens, door_test.Rings")

    def test_what_ran_when_the_machine_ended_early_is_named(self):
        self.assertEqual(self.failure(f"printf '{STORY}'"),
                         "machine.sh: the machine ended while it ran door_test.Opens")

    def test_what_ran_when_the_emulator_failed_is_named(self):
        self.assertEqual(self.failure("echo quiet; exit 3"),
                         "machine.sh: qemu-system-mipsel ended with status 3 while it ran nothing")

    def test_a_machine_that_hangs_is_ended_and_what_ran_is_named(self):
        script = (self.folder / "scripts" / "crossing" / "machine.sh").read_text()
        self.assertEqual(script.count("\nlimit=1800 "), 1)
        self.write("scripts/crossing/machine.sh", script.replace("\nlimit=1800 ", "\nlimit=2 "))
        for ignored in ("", "trap '' TERM; "):
            with self.subTest(ignored=ignored):
                self.assertEqual(self.failure(f"printf '{STORY}'; {ignored}exec sleep 60"),
                                 "machine.sh: the machine was ended after 2 s while it ran door_test.Opens")
                self.assertFalse(is_running((self.folder / "emulator").read_text().strip()))

    def test_the_emulator_ends_with_the_script(self):
        for number, send in ((signal.SIGINT, os.killpg), (signal.SIGTERM, os.kill)):
            with self.subTest(signal=number):
                (self.folder / "emulator").unlink(missing_ok=True)
                process = self.start("exec sleep 60")
                while not (self.folder / "emulator").exists():
                    self.assertIsNone(process.poll())
                send(process.pid, number)
                process.communicate(timeout=30)
                self.assertNotEqual(process.returncode, 0)
                self.assertFalse((self.build / "machine.cpio.gz").exists())
                emulator = (self.folder / "emulator").read_text().strip()
                while is_running(emulator):
                    pass

    def test_a_missing_emulator_is_named_before_anything_is_made(self):
        environment = {**os.environ, "PATH": str(self.folder / "programs")}
        for program in ("dirname", "id", "realpath", "stat"):
            os.symlink(shutil.which(program), self.folder / "programs" / program)
        done = subprocess.run(["/bin/bash", self.folder / "scripts" / "crossing" / "machine.sh",
                               "s390x", self.folder / "root", self.build], env=environment,
                              capture_output=True, text=True, timeout=30, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", "machine.sh: qemu-system-s390x is missing\n"))


if __name__ == "__main__":
    unittest.main()
