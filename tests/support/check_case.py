"""What the tests of lumenctl upnp check share: each breaks something on a router, sees that the
check finds it, and fixes it with the remedy that the check names."""

import time

from support.administrator import run_inside
from support.network import WAN_HOST
from support.router_case import RouterCase

NOTHING_WRONG = "Nothing is wrong.\n"


def finding(what, why, remedy, number=1):
    return f"{number}. {what}\n   {why}\n   Fix it: {remedy}\n\n"


class CheckCase(RouterCase):
    def setUp(self):
        super().setUp()
        self.network.let_bridge_alone()
        self.ip = self.network.router.ip
        self.ip("route", "add", "default", "via", WAN_HOST)

    def check(self):
        """What the check prints; its exit status says whether that is a finding."""
        status, printed, said = run_inside(self.router, "upnp", "check")
        self.assertEqual(said, "")
        self.assertEqual(status, 0 if printed.startswith(NOTHING_WRONG) else 1, printed)
        return printed

    def assert_found(self, *words):
        """The check finds that and nothing else, as soon as the platform knows of it."""
        expected = finding(*words)
        self.assertEqual(self.last_of_checks(expected), expected)

    def assert_nothing_wrong(self):
        self.assertEqual(self.last_of_checks(NOTHING_WRONG), NOTHING_WRONG)

    def last_of_checks(self, expected, limit=10.0):
        """Checks until `expected` is printed, or for some time; returns what was printed last."""
        end = time.monotonic() + limit
        while (printed := self.check()) != expected and time.monotonic() < end:
            time.sleep(0.05)
        return printed

    def run_inside(self, command):
        """Runs a command line in the router."""
        return self.network.router.run("sh", "-c", command)
