"""What scripts/run does with real interfaces when lumend does not start."""

import subprocess
import unittest

from support.network import LAN_BRIDGE, WAN_LINK
from support.router import TOP
from support.router_case import RouterCase


class RunTest(RouterCase):
    SET_UP = False

    def test_it_reports_that_lumend_ended_and_where_the_reason_is(self):
        """Another lumend runs in this network namespace."""
        command = ("python3", "-B", str(TOP / "scripts" / "demo.py"), "--internal", LAN_BRIDGE,
                   "--external", WAN_LINK)
        with self.router.namespace.popen(*command, stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                         text=True) as process:
            printed, said = process.communicate(timeout=50)
        self.assertEqual(process.returncode, 1)
        self.assertIn("nftables table ip lumen exists already", printed)
        self.assertEqual(said, "scripts/run: lumend ended with 1; what it said is above\n")


if __name__ == "__main__":
    unittest.main()
