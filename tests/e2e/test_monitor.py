"""lumenctl monitor beside a router at work."""

import json
import re
import select
import signal
import subprocess
import unittest

from support.network import WAN_ADDRESS
from support.router import PROGRAMS
from support.router_case import RouterCase


class MonitorTest(RouterCase):
    def command(self, *arguments):
        return [PROGRAMS / "lumenctl", "--root", self.router.root, "monitor", *arguments]

    def monitor(self, *arguments):
        """A monitor at work; what it prints goes to files in the router's folder."""
        self.printed = self.router.root / "monitor"
        self.said = self.router.root / "monitor-errors"
        with open(self.printed, "wb") as out, open(self.said, "wb") as err:
            process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL,
                                       stdout=out, stderr=err)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)

        def works():
            self.router.lumenctl("identity")
            return "get-settings" in self.printed.read_text()

        self.wait_until(works, "something is shown")
        return process

    def lines(self):
        """The complete lines printed since the start."""
        return self.printed.read_text().split("\n")[:-1]

    def ended(self, process):
        """The exit status and what was said on standard error."""
        return process.wait(timeout=10), self.said.read_text()

    def test_a_control_points_request_is_shown_at_every_step(self):
        self.monitor("--json")
        host = self.lan[0]
        host.open_port(8080, "TCP", 80)

        def replied():
            nat = [m for m in map(json.loads, self.lines())
                   if "nat" in (m["from"], m["to"]) and m["kind"] != "notification"]
            return nat if any(m["kind"] == "reply" for m in nat) else None

        request, reply = self.wait_until(replied, "request and reply are shown")
        self.assertEqual((request["from"], request["to"], request["kind"], request["command"]),
                         ("upnp", "nat", "request", "add"))
        fields = request["fields"]
        self.assertEqual(fields["chain"], "dstnat")
        self.assertEqual((fields["address-first"], fields["port-first"]), (WAN_ADDRESS, 8080))
        self.assertEqual((fields["client-first"], fields["client-port-first"]),
                         (host.address, 80))
        self.assertEqual(fields["protocol"], 6)
        self.assertEqual([name for name in fields if "0x" in name], [], "all names are known")
        self.assertEqual((reply["from"], reply["to"], reply["kind"], reply["command"]),
                         ("nat", "upnp", "reply", "add"))
        self.assertEqual(list(reply["fields"]), ["id"])
        self.assertGreaterEqual(reply["time"], request["time"])

    def test_each_message_is_a_line(self):
        self.monitor()
        host = self.lan[0]
        host.open_port(8080, "TCP", 80)
        self.network.router.ip("link", "set", "wan0", "down")
        expected = [
            rf"upnp -> nat: request add .*chain=dstnat .*address-first={re.escape(WAN_ADDRESS)} "
            r".*port-first=8080 .*client-first=192\.168\.88\.10 .*client-port-first=80\b.*",
            r"nat -> upnp: reply to add id=\d+",
            r"interfaces -> all: notification changed records=\[\{.*running=false.*\}\]",
            r"addresses -> all: notification changed records=\[\{.*address=45\.45\.45\.1.*\}\]",
        ]
        for line in expected:
            self.wait_until(lambda l=line: any(re.fullmatch(r"\d\d:\d\d:\d\d\.\d{3} " + l, shown)
                                               for shown in self.lines()), line)
        self.assertTrue(any(re.search(r" connection \d+ -> identity: request get-settings$", shown)
                            for shown in self.lines()), self.lines())

    # Also proves [ctl-monitor-end].
    def test_it_ends_with_0_when_it_is_asked_to(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=number):
                process = self.monitor()
                process.send_signal(number)
                self.assertEqual(self.ended(process), (0, ""))

    # Also proves [ctl-monitor-end].
    def test_it_ends_with_1_when_the_platform_does(self):
        process = self.monitor()
        self.router.stop()
        self.assertEqual(self.ended(process),
                         (1, "lumenctl: the platform has ended the connection\n"))

    def popen(self, stdout):
        """A monitor that prints to `stdout`, until the end of the test."""
        process = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, stdout=stdout,
                                   stderr=subprocess.PIPE)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    # Promise [ctl-monitor-output]: `monitor` ends when its reader ends, with 1 when its lines
    # cannot be written.
    def test_it_ends_when_its_reader_does(self):
        process = self.popen(subprocess.PIPE)

        def shows():
            self.router.lumenctl("identity")
            return select.select([process.stdout], [], [], 0)[0]

        self.wait_until(shows, "something is shown")
        self.assertIn(b" -> ", process.stdout.readline())
        process.stdout.close()
        # Nothing else passes: it sees that by itself.
        self.assertIn(process.wait(timeout=10), (0, -signal.SIGPIPE))
        self.assertEqual(process.stderr.read(), b"")

    # Also proves [ctl-output], [ctl-monitor-output].
    def test_it_reports_that_its_lines_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            process = self.popen(full)

        def ended():
            self.router.lumenctl("identity")
            return process.poll() is not None

        self.wait_until(ended, "it has something to write")
        self.assertEqual(process.returncode, 1)
        self.assertEqual(process.stderr.read(), b"lumenctl: standard output cannot be written\n")


if __name__ == "__main__":
    unittest.main()
