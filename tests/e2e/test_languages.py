"""The three languages of the LAN together: UPnP, NAT-PMP and PCP want the same port at once."""

import contextlib
import random
import socket
import struct
import threading

from support import pcp
from support.network import LAN_ADDRESS, WAN_ADDRESS, SoapError, exchange_tcp
from support.router_case import RouterCase

PORT = 8080
ROUNDS = 150
# The host that speaks PCP is the second one by another address.
PCP_ADDRESS = "192.168.88.12"
# Option 2 without data, RFC 6887 section 13.2: that port or none.
PREFER_FAILURE = b"\2\0\0\0"

# How the losers are told: by Action Failed and CANNOT_PROVIDE_EXTERNAL. NAT-PMP gives another port.
UPNP_REFUSAL = 501
CANNOT_PROVIDE_EXTERNAL = 11


class RaceTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.router.lumenctl("pcp", "on")
        self.control = self.router.wait_until_controllable()
        second = self.lan[1]
        second.namespace.ip("address", "add", f"{PCP_ADDRESS}/24", "dev", second.LINK)
        self.natpmp = self.asker(second, second.address)
        self.pcp = self.asker(second, PCP_ADDRESS)

    def asker(self, host, address):
        sock = host.namespace.socket(socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.settimeout(0.25)
        sock.bind((address, 0))
        sock.connect((LAN_ADDRESS, pcp.PORT))
        return sock

    def ask(self, sock, request):
        """Asks again until there is an answer, as clients do."""
        for _ in range(20):
            sock.send(request)
            with contextlib.suppress(TimeoutError):
                return sock.recv(1100)
        self.fail("no answer")

    # Each returns the external port that it got, or None.

    def by_upnp(self):
        try:
            self.lan[0].open_port(PORT, "TCP", 80, control=self.control)
        except SoapError as refusal:
            self.assertEqual(refusal.code, UPNP_REFUSAL)
            return None
        return PORT

    def by_natpmp(self):
        answer = self.ask(self.natpmp, pcp.natpmp_map(pcp.TCP, 80, PORT))
        result, port = struct.unpack("!2xH6xH", answer[:12])
        self.assertEqual(result, 0)
        return port

    def by_pcp(self):
        answer = self.ask(self.pcp, pcp.pcp_map(pcp.TCP, 80, PORT, host=PCP_ADDRESS,
                                                options=PREFER_FAILURE))
        if answer[3] == 0:
            return PORT
        self.assertEqual(answer[3], CANNOT_PROVIDE_EXTERNAL)
        return None

    def close(self, got):
        if got["upnp"]:
            self.lan[0].close_port(PORT, "TCP", control=self.control)
        self.ask(self.natpmp, pcp.natpmp_map(pcp.TCP, 80, lifetime=0))
        if got["pcp"]:
            self.ask(self.pcp, pcp.pcp_map(pcp.TCP, 80, host=PCP_ADDRESS, lifetime=0))

    def race(self):
        """What each got, which wanted it at once."""
        wishes = [("upnp", self.by_upnp), ("natpmp", self.by_natpmp), ("pcp", self.by_pcp)]
        random.shuffle(wishes)
        start, got, wrong = threading.Barrier(len(wishes)), {}, []

        def run(name, wish):
            try:
                start.wait(10)
                got[name] = wish()
            except Exception as error:  # it is told by the main thread
                wrong.append(error)

        threads = [threading.Thread(target=run, args=wish) for wish in wishes]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])
        return got

    # Promise [pcp-race]: When hosts want the same port at once by UPnP, NAT-PMP and PCP, one of
    # them gets it, the others are told so in their own words, and the kernel has what the lists
    # say.
    def test_one_of_three_languages_gets_the_port(self):
        clients = {"upnp": self.lan[0].address, "natpmp": self.lan[1].address, "pcp": PCP_ADDRESS}
        won = dict.fromkeys(clients, 0)
        for number in range(ROUNDS):
            got = self.race()
            [winner] = [name for name, port in got.items() if port == PORT]
            won[winner] += 1
            if number % 10 == 0:
                ports = self.router.ports()
                self.assertEqual(ports[f"{PORT}/tcp"]["client"], clients[winner])
                self.assertEqual(len(ports), 1 + (winner != "natpmp"))
                self.assertEqual(self.router.kernel_map().count(f"{WAN_ADDRESS} . tcp"), len(ports))
                if winner != "pcp":
                    host = self.lan[0 if winner == "upnp" else 1]
                    exchange_tcp(self.wan, WAN_ADDRESS, PORT, host, 80)
            self.close(got)
        self.assertEqual(self.router.ports(), {})
        print(f"won: {won}")
