"""A gateway with many open ports."""

import socket
import statistics
import time
import unittest

from support import pcp
from support.network import LAN_ADDRESS, WAN_ADDRESS, exchange_tcp
from support.router_case import RouterCase

# What else the machine does only makes a measurement longer, so each router's best one counts, and
# there are more while that is not good enough.
ROUNDS, MOST_ROUNDS = 3, 20
LIMIT = 1.5


class LoadTest(RouterCase):
    # Promise [mapping-speed]: The two-thousandth port opens as fast as the first.
    # Also proves [port-cost].
    def test_the_two_thousandth_port_opens_as_fast_as_the_first(self):
        empty, full = Ports(self.make_router(), 0), Ports(self.router, 1900)
        self.router.lumenctl("nat", "policy", "set", "max-rules-per-client=1000")
        full.open(0, 1900)
        first, last = [], []
        while len(last) < ROUNDS or (
                len(last) < MOST_ROUNDS and min(last) > LIMIT * min(first)):
            first.append(empty.time_to_open_a_hundred())
            last.append(full.time_to_open_a_hundred())
        print(f"first hundred {min(first) * 1000:.0f} ms, last hundred {min(last) * 1000:.0f} ms "
              f"in {len(last)} rounds")
        self.assertLessEqual(min(last), LIMIT * min(first))
        self.assertEqual(len(self.router.ports()), 2000)
        for number in (0, 999, 1999):
            exchange_tcp(self.wan, WAN_ADDRESS, 10000 + number, self.lan[number % 2], 80)
        self.router.stop()
        self.assertEqual(self.router.kernel_map(), "")

    # Promise: `upnpc` lists a thousand ports, in less than a second.
    def test_upnpc_lists_a_thousand_ports_in_less_than_a_second(self):
        self.router.lumenctl("nat", "policy", "set", "max-rules-per-client=1000")
        Ports(self.router, 0).open(0, 1000)
        rounds = []
        while not rounds or min(rounds) >= 1.0:
            self.assertLess(len(rounds), MOST_ROUNDS, f"seconds: {rounds}")
            before, used = time.monotonic(), self.gateway_seconds()
            listed = self.lan[1].upnpc("-l")
            rounds.append(time.monotonic() - before)
            used = self.gateway_seconds() - used
            self.assertEqual(listed.count("->192.168.88."), 1000, listed[-300:])
        print(f"upnpc -l took {rounds[-1] * 1000:.0f} ms, {used * 1000:.0f} ms of which the "
              f"gateway worked")

    def gateway_seconds(self):
        """Processor time that the gateway has used."""
        with open(f"/proc/{self.router.gateway_pid()}/schedstat", encoding="ascii") as spent:
            return int(spent.read().split()[0]) / 1e9


class NatPmpLoadTest(RouterCase):
    HOSTS = [f"192.168.88.{last}" for last in range(64, 250)]
    PORTS_PER_HOST = 64
    MAPPINGS = 10_000
    LIMIT = 0.001  # seconds

    def setUp(self):
        super().setUp()
        self.router.lumenctl("pcp", "on")
        self.router.lumenctl("nat", "policy", "set", "max-rules=20000")
        for network in ("192.168.88.64/26", "192.168.88.128/25"):
            self.lan[0].namespace.ip("route", "add", "local", network, "dev", "lo")

    def asker(self, address):
        sock = self.lan[0].namespace.socket(socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.settimeout(10)
        sock.bind((address, 0))
        sock.connect((LAN_ADDRESS, pcp.PORT))
        return sock

    def ask(self, sock, request):
        """Returns how long the answer took in seconds."""
        before = time.monotonic()
        sock.send(request)
        answer = sock.recv(100)
        wait = time.monotonic() - before
        self.assertEqual(answer[2:4], b"\0\0")
        return wait

    # Promise [pcp-speed]: Beside 10,000 mappings a request of NAT-PMP is answered within a
    # millisecond.
    def test_a_request_is_answered_within_a_millisecond_beside_ten_thousand_mappings(self):
        askers = [self.asker(address) for address in self.HOSTS]
        for number in range(self.MAPPINGS):
            self.ask(askers[number // self.PORTS_PER_HOST],
                     pcp.natpmp_map(pcp.TCP, 6000 + number % self.PORTS_PER_HOST))
        self.assertEqual(self.router.ask("pcp", "status")["ports"], self.MAPPINGS)
        # lumend marks UDP ports by files, which are in memory on a router, but may not be here.
        requests = {"address": b"\0\0", "map": pcp.natpmp_map(pcp.TCP, 80),
                    "renew": pcp.natpmp_map(pcp.TCP, 80), "end": pcp.natpmp_map(pcp.TCP, 80, 0, 0)}
        # Hosts that have no port yet.
        spare = askers[-(-self.MAPPINGS // self.PORTS_PER_HOST):]
        best = dict.fromkeys(requests, float("inf"))
        for _ in range(MOST_ROUNDS):
            for name, request in requests.items():
                waits = [self.ask(sock, request) for sock in spare]
                best[name] = min(best[name], statistics.median(waits))
            if max(best.values()) < self.LIMIT:
                break
        print({name: f"{wait * 1e6:.0f} µs" for name, wait in best.items()})
        self.assertLess(max(best.values()), self.LIMIT)


class Ports:
    """The ports of a router from 10000 on, of which the first `count` stay open."""

    def __init__(self, router, count):
        self._lan = router.network.lan
        self._control = router.wait_until_controllable()
        self._count = count
        self._measured = False

    def open(self, begin, end):
        for number in range(begin, end):
            client = self._lan[number % 2].address
            self._lan[0].open_port(10000 + number, "TCP", 80, client, control=self._control)

    def time_to_open_a_hundred(self):
        """In seconds. They are open afterwards."""
        begin, end = self._count, self._count + 100
        for number in range(begin, end) if self._measured else ():
            self._lan[0].close_port(10000 + number, "TCP", control=self._control)
        self._measured = True
        before = time.monotonic()
        self.open(begin, end)
        return time.monotonic() - before


if __name__ == "__main__":
    unittest.main()
