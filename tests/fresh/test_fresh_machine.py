"""The README's promise, on machines on which nothing is installed."""

import time
import unittest

from fresh_machine import CHECKOUT, FreshMachine


class FreshMachineTest(unittest.TestCase):
    def test_debian_12_needs_only_the_scripts(self):
        self.needs_only_the_scripts("bookworm")

    def test_debian_13_needs_only_the_scripts(self):
        self.needs_only_the_scripts("trixie")

    def needs_only_the_scripts(self, suite):
        machine = FreshMachine(suite)
        self.addCleanup(machine.close)
        self.machine = machine
        self.save_time()

        said = self.every_package_is_used(["build_packages", "run_packages"], "scripts/run")
        self.assertIn("All steps done; nothing is left behind.", said)
        machine.run("scripts/build", user="ann")

        said = self.every_package_is_used(["unit_packages"], "scripts/test", "--unit")
        self.assertIn("100% tests passed, 0 tests failed", said)
        said = machine.run("scripts/test", "--unit", user="ann")
        self.assertRegex(said, r"left out: [1-9][0-9]* tests that need root")
        self.assertIn("100% tests passed, 0 tests failed", said)

        self.assertEqual(machine.run("find", ".", "-not", "-user", "ann"), "")
        machine.run("rm", "-rf", CHECKOUT + "/build", user="ann")

    def save_time(self):
        """A compiler cache makes the second run of this test quick; it compiles nothing itself."""
        self.machine.run("sh", "-c", "apt-get update -q && apt-get install -q -y "
                         "--no-install-recommends ccache")

    def every_package_is_used(self, lists, *command):
        """Runs a script that installs what it needs, and demands that it has read something of
        each package afterwards. Returns what the script printed."""
        installed = []
        said = self.machine.run(*command, when_installed=lambda: installed.append(time.time()))
        self.assertEqual(len(installed), 1, "the script installed nothing")
        names = " ".join(f'"${{{name}[@]}}"' for name in lists)
        packages = self.machine.run("bash", "-c", f". scripts/lib.sh; echo {names}").split()
        self.assertEqual(self.machine.unused(packages, installed[0]), [],
                         "packages that scripts/lib.sh lists and nothing uses")
        return said


if __name__ == "__main__":
    unittest.main()
