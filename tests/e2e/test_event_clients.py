"""Third-party control points subscribe to the gateway's events and miss none."""

import contextlib
import os
import pathlib
import subprocess
import unittest
from collections import Counter

from support.network import DESCRIPTION, LAN_ADDRESS, WAN_ADDRESS, ControlPoint
from support.router_case import RouterCase

CLIENTS = pathlib.Path(__file__).parent / "clients"
PORTS = "PortMappingNumberOfEntries"
RUNS = 20

# From the subscription to an event, in seconds.
LIMIT = 20.0


class EventClient:
    """A running program that prints the events that it receives."""

    def __init__(self, namespace, *command):
        self._process = namespace.popen(*command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        os.set_blocking(self._process.stdout.fileno(), False)
        self._output = b""

    def heard(self):
        """The variables and values received, in order."""
        self._output += self._process.stdout.read() or b""
        lines = self._output.decode().split("\n")[:-1]
        return [tuple(line.split(" ", 1)) for line in lines]

    def unsubscribe(self):
        self._process.stdin.close()

    def close(self):
        if self._process.returncode is not None:
            return
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


class EventClientTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.control = self.router.wait_until_controllable()
        self.wait_until(lambda: self.router.log().count("set external ip"), "the WAN side is up")

    # Promise [event-clients]: Control points of others, one that is built on GLib and one on
    # libupnp, get the initial and the change events, 20 times out of 20.
    def test_a_glib_control_point_misses_no_event(self):
        self.check("gupnp_subscriber.py", ControlPoint.LINK)

    # Also proves [event-clients].
    def test_a_libupnp_control_point_misses_no_event(self):
        # libupnp wants to listen at the link-local IPv6 address as well, which takes a new link
        # seconds to have.
        self.lan[0].namespace.run("sh", "-c",
                                  "file=/proc/sys/net/ipv6/conf/all/disable_ipv6; "
                                  "! [ -e $file ] || echo 1 > $file")
        self.check("libupnp_subscriber.py", ControlPoint.LINK,
                   f"http://{LAN_ADDRESS}:2828{DESCRIPTION}")

    def check(self, program, *arguments):
        for run in range(RUNS):
            with self.says("subscribe: urn:schemas-upnp-org:service:WANIPConnection:1"):
                client = EventClient(self.lan[0].namespace, CLIENTS / program, *arguments)
                self.addCleanup(client.close)
            self.assertEqual(self.missed_by(client, run), [], f"missed in run {run + 1}")
            with self.says("unsubscribe"):
                client.unsubscribe()
            client.close()

    @contextlib.contextmanager
    def says(self, line):
        """What is done inside makes the gateway log the line."""
        def count():
            return self.router.log().splitlines().count(line)

        before = count()
        yield
        self.wait_until(lambda: count() > before, f"the gateway says {line!r}", limit=20.0)

    def missed_by(self, client, run):
        """The events that the client misses when a port is opened and closed."""
        expected = [("ConnectionStatus", "Connected"), ("ExternalIPAddress", WAN_ADDRESS),
                    (PORTS, "1" if run else "0"), ("PossibleConnectionTypes", "IP_Routed")]
        missed = []

        def hears_it():
            missed[:] = (Counter(expected) - Counter(client.heard())).elements()
            return not missed

        self.wait_briefly(hears_it)
        self.lan[1].open_port(8080, "TCP", control=self.control)
        expected.append((PORTS, "2"))
        self.wait_briefly(hears_it)
        self.lan[1].close_port(8080, "TCP", control=self.control)
        expected.append((PORTS, "1"))
        self.wait_briefly(hears_it)
        if not missed:
            self.assertEqual(client.heard(), expected)
        return missed

    def wait_briefly(self, condition):
        with contextlib.suppress(AssertionError):  # what was missed is reported at the end
            self.wait_until(condition, "an event", LIMIT)


if __name__ == "__main__":
    unittest.main()
