"""lumend stands still for longer than the gateway waits for it: what is open, what lumend lists and
what the gateway lists are the same afterwards."""

import contextlib
import re
import signal

from support.network import WAN_ADDRESS, WAN_LINK, SoapError, exchange_tcp, tcp_refused
from support.processes import is_stopped
from support.router_case import RouterCase

GIVEN_UP = re.compile(r"^connection \d+ \(.*\) has given up request \d+, which is undone$", re.M)
ELEMENT = re.compile(r"45\.45\.45\.\d+ \. (tcp|udp) \. (\d+) counter .*? : ([\d.]+) \. (\d+)")


class StallTest(RouterCase):
    SET_UP_OPTIONS = ("--allow-disconnect",)

    @contextlib.contextmanager
    def stall(self):
        """lumend stands still; afterwards it undoes one request that was given up meanwhile."""
        before = len(GIVEN_UP.findall(self.router.log()))
        self.router.lumend.send_signal(signal.SIGSTOP)
        try:
            self.wait_until(lambda: is_stopped(self.router.lumend.pid), "lumend stands still")
            yield
        finally:
            self.router.lumend.send_signal(signal.SIGCONT)
        self.wait_until(lambda: len(GIVEN_UP.findall(self.router.log())) == before + 1,
                        "lumend undoes the request")

    def assert_fails(self, action, *arguments, **others):
        with self.assertRaises(SoapError) as fault:
            action(*arguments, **others)
        self.assertEqual(fault.exception.code, 501)

    def in_kernel(self):
        return {(int(port), protocol, client, int(client_port)) for
                protocol, port, client, client_port in ELEMENT.findall(self.router.kernel_map())}

    def in_lumend(self):
        return {(p["port"], p["protocol"], p["client"], p["client_port"])
                for p in self.router.ask("nat", "list") if p["state"] == "open"}

    def in_gateway(self):
        found = set()
        with contextlib.suppress(SoapError):
            for index in range(1, 100):
                entry = self.lan[0].invoke("GetGenericPortMappingEntry",
                                           [("NewPortMappingIndex", index)])
                found.add((int(entry["NewExternalPort"]), entry["NewProtocol"].lower(),
                           entry["NewInternalClient"], int(entry["NewInternalPort"])))
        return found

    def assert_open(self, *ports):
        """All three have exactly these ports: port, protocol, client and its port."""
        self.assertEqual(self.in_kernel(), set(ports))
        self.assertEqual(self.in_lumend(), set(ports))
        self.assertEqual(self.in_gateway(), set(ports))

    # Promise [mapping-agrees]: After lumend stood still for longer than the gateway waits, the
    # kernel, `lumenctl nat list` and the gateway list the same ports: none whose opening failed,
    # and every one whose closing or change failed as it was.
    def test_a_port_that_a_stalled_lumend_opens_too_late_is_closed_again(self):
        host = self.lan[0]
        with self.stall():
            self.assert_fails(host.open_port, 8080, "TCP")
        self.assert_open()
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 8080))
        host.open_port(8080, "TCP")
        self.assert_open((8080, "tcp", host.address, 8080))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

    def test_a_port_that_a_stalled_lumend_changes_too_late_is_as_before(self):
        host = self.lan[0]
        host.open_port(8080, "TCP", 80)
        with self.stall():
            self.assert_fails(host.open_port, 8080, "TCP", 81)
        self.assert_open((8080, "tcp", host.address, 80))
        host.open_port(8080, "TCP", 81)
        self.assert_open((8080, "tcp", host.address, 81))

    def test_a_port_that_a_stalled_lumend_closes_too_late_stays_open(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        port = (8080, "tcp", host.address, 8080)
        with self.stall():
            self.assert_fails(host.close_port, 8080, "TCP")
        self.assert_open(port)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        # Under the id that the gateway knows.
        host.close_port(8080, "TCP")
        self.assert_open()

    def test_a_port_that_is_asked_for_again_during_the_stall_is_open_once(self):
        host = self.lan[0]
        self.router.lumend.send_signal(signal.SIGSTOP)
        self.assert_fails(host.open_port, 8080, "TCP")
        self.router.lumend.send_signal(signal.SIGCONT)
        host.open_port(8080, "TCP")
        self.assert_open((8080, "tcp", host.address, 8080))

    def test_a_link_that_a_stalled_lumend_takes_down_too_late_comes_up_again(self):
        with self.stall():
            self.assert_fails(self.lan[0].invoke, "ForceTermination")
        self.wait_until(lambda: self.router.interface(WAN_LINK)["state"] == "running",
                        "the link runs")
        self.wait_until(lambda: self.lan[0].invoke("GetStatusInfo")["NewConnectionStatus"] ==
                        "Connected", "the gateway sees it")
