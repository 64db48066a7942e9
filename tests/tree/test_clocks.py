"""Which clocks the code reads."""

import pathlib
import re
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
# Where leases and epochs are kept and timed.
FOLDERS = ("pcp", "lumen/runtime", "lumen/services/nat")
WALL_CLOCK = re.compile(r"\b(?:system_clock|utc_clock|gettimeofday|timespec_get|ftime|"
                        r"time(?=\s*\(\s*(?:nullptr|NULL|0|&\w+)\s*\)))\b")
CLOCK = re.compile(r"\bCLOCK_\w+")


def found(pattern):
    """The files of the folders in which it occurs, and as what."""
    places = {}
    for folder in FOLDERS:
        for path in sorted((TOP / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                code = re.sub(r"//.*", "", path.read_text(encoding="utf-8"))
                if names := set(pattern.findall(code)):
                    places[str(path.relative_to(TOP))] = names
    return places


class ClocksTest(unittest.TestCase):
    # Promise: Leases and the epochs of NAT-PMP and PCP are timed by the clock that counts from the
    # boot, so that they stay as they are when the router's time of day is set.
    def test_leases_and_epochs_are_timed_by_the_clock_that_counts_from_the_boot(self):
        # The record of ports shows people when something happened.
        self.assertEqual(found(WALL_CLOCK), {"lumen/services/nat/PortLog.cpp": {"system_clock"}})
        self.assertEqual(found(CLOCK), {"lumen/runtime/Clock.cpp": {"CLOCK_BOOTTIME"}})

    def test_the_time_of_day_is_recognised(self):
        for code in ("time(nullptr)", "time( 0 )", "std::chrono::system_clock::now()",
                     "gettimeofday(&now, nullptr)"):
            self.assertTrue(WALL_CLOCK.search(code), code)
        for code in ("left.time(5)", "uptime()", "timer.start(0)"):
            self.assertFalse(WALL_CLOCK.search(code), code)


if __name__ == "__main__":
    unittest.main()
