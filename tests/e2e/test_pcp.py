"""NAT-PMP as a program on the LAN speaks it: natpmpc, the platform and hosts on both sides."""

import contextlib
import os
import pathlib
import signal
import socket
import struct
import subprocess

from support import pcp
from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, exchange_tcp,
                             exchange_udp, tcp_refused, udp_refused, wait_until)
from support.router import PCP_USER
from support.router_case import RouterCase


LIBTORRENT = pathlib.Path(__file__).parent / "clients" / "libtorrent_client.py"


class NatPmpTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.router.lumenctl("pcp", "on")
        self.host = self.lan[0]

    def natpmpc(self, *arguments):
        return self.host.namespace.run("natpmpc", "-g", LAN_ADDRESS, *map(str, arguments))

    def epoch(self):
        """The seconds since the start of the epoch, as NAT-PMP tells them."""
        with self.host.udp(to=(LAN_ADDRESS, 5351)) as sock:
            sock.settimeout(1)
            sock.send(b"\0\0")
            return struct.unpack("!I", sock.recv(100)[4:8])[0]

    def lease(self, port):
        """The seconds that the port's lease has left, by the platform."""
        return self.router.ports()[port]["seconds_left"]

    # Promise: A program on the LAN that speaks NAT-PMP opens a port, which leads bytes from the
    # Internet to it, renews its lease, and closes it.
    def test_natpmpc_opens_renews_and_closes_a_port(self):
        self.assertIn(f"Public IP address : {WAN_ADDRESS}", self.natpmpc())
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))
        self.assertIn("Mapped public port 8080 protocol TCP to local port 80 liftime 600",
                      self.natpmpc("-a", 8080, 80, "tcp", 600))
        self.assertIn("Mapped public port 5060 protocol UDP to local port 5061 liftime 600",
                      self.natpmpc("-a", 5060, 5061, "udp", 600))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)
        exchange_udp(self.wan_udp(5060), self.host, 5061)
        self.assertEqual(self.router.ports()["8080/tcp"]["owner"], "pcp")
        self.assertLessEqual(self.lease("8080/tcp"), 600)

        self.assertIn("liftime 7200", self.natpmpc("-a", 8080, 80, "tcp", 7200))
        self.assertGreater(self.lease("8080/tcp"), 7100)

        self.natpmpc("-a", 0, 80, "tcp", 0)
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))
        self.assertEqual(list(self.router.ports()), ["5060/udp"])
        self.router.lumenctl("pcp", "off")
        self.assertTrue(udp_refused(self.wan_udp(5060), self.host, 5061))
        self.assertEqual(self.router.ports(), {})

    # Promise: A port that a UPnP client holds becomes another one for a NAT-PMP client.
    def test_a_port_of_the_other_language_becomes_another_one(self):
        self.lan[1].open_port(8080, "TCP")
        self.assertRegex(self.natpmpc("-a", 8080, 80, "tcp", 600),
                         r"Mapped public port (?!8080 )\d+ protocol TCP to local port 80")
        self.assertEqual(len(self.router.ports()), 2)

    # Promise [pcp-libtorrent]: A BitTorrent program opens its ports by PCP where UPnP is off, is
    # reached from the Internet, and closes them when it ends.
    def test_a_bittorrent_program_opens_and_closes_its_ports(self):
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        client = self.host.namespace.popen(LIBTORRENT, "6889", stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE, text=True)
        with client:
            for _ in range(2):
                self.assertIn("successfully mapped port using NAT-PMP", client.stdout.readline())
            self.assertEqual({port: rule["owner"] for port, rule in self.router.ports().items()},
                             {"6889/tcp": "pcp", "6889/udp": "pcp"})
            self.wan.connect(WAN_ADDRESS, 6889).close()
            client.stdin.close()
        self.assertEqual(client.returncode, 0)
        self.wait_until(lambda: self.router.ports() == {}, "both ports are closed")

    # Promise [pcp-killed]: When the program that speaks NAT-PMP is killed, its ports are closed and
    # its next life begins a new epoch, so that programs ask again.
    def test_a_killed_program_leaves_no_port_and_begins_a_new_epoch(self):
        self.natpmpc("-a", 8080, 80, "tcp", 600)
        self.wait_until(lambda: self.epoch() >= 2, "the epoch is two seconds old")
        process = self.router.service("pcp")["process"]
        self.assert_powerless(process, "palinode-pcp", PCP_USER)
        os.kill(process, signal.SIGKILL)
        self.wait_until(lambda: self.router.ports() == {}, "the port is closed")

        def answers():
            try:
                return self.epoch() < 2
            except (ConnectionRefusedError, socket.timeout):
                return False

        self.wait_until(answers, "the next life answers")
        self.assertIn("Mapped public port 8080", self.natpmpc("-a", 8080, 80, "tcp", 600))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)

    # Promise: The LAN hears that a new epoch has begun, in both languages.
    def test_a_new_epoch_is_announced_to_the_lan(self):
        with self.host.namespace.socket(socket.SOCK_DGRAM) as sock:
            sock.settimeout(5)
            sock.bind(("", 5350))
            with self.host.namespace.entered():
                group = struct.pack("4s4si", socket.inet_aton("224.0.0.1"), bytes(4),
                                    socket.if_nametoindex(self.host.LINK))
            sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
            os.kill(self.router.service("pcp")["process"], signal.SIGKILL)
            natpmp, announce = sock.recv(100), sock.recv(100)
        self.assertEqual(natpmp[:4], b"\0\x80\0\0")
        self.assertEqual(natpmp[8:], socket.inet_aton(WAN_ADDRESS))
        self.assertEqual((announce[:8], len(announce)), (b"\2\x80\0\0\0\0\0\0", 24))

    # Promise: A port that the administrator has closed is not opened again by NAT-PMP before its
    # lease is over.
    def test_a_port_that_the_administrator_closed_stays_closed(self):
        self.natpmpc("-a", 8080, 80, "tcp", 600)
        self.router.lumenctl("nat", "close", "8080/tcp")
        self.assertRaises(AssertionError, self.natpmpc, "-a", 8080, 80, "tcp", 600)
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))


def only_from(network, prefix):
    """The option FILTER of RFC 6887 section 13.3: code 3 of 20 bytes, a reserved byte, the prefix,
    any remote port, the network as one of IPv6."""
    return struct.pack("!BxHxBH", 3, 20, prefix, 0) + pcp.mapped(network)


NO_FILTER = only_from("0.0.0.0", 0)


class OtherLanguageTest(RouterCase):
    # Promise: A host that has opened a port by UPnP and asks for it again by PCP is told that port,
    # cannot close it by PCP, and gets a port of PCP when UPnP has closed it.
    def test_a_port_that_is_open_by_upnp_is_the_answer_of_pcp(self):
        self.router.lumenctl("pcp", "on")
        host = self.lan[0]

        def asks(external, lifetime=3600):
            """The result code and the external port for TCP port 80 of the host."""
            request = pcp.pcp_map(pcp.TCP, 80, external, host=host.address, lifetime=lifetime)
            with host.udp(to=(LAN_ADDRESS, pcp.PORT)) as sock:
                sock.settimeout(5)
                sock.send(request)
                answer = sock.recv(1100)
            return answer[3], struct.unpack("!H", answer[42:44])[0]

        host.open_port(9090, "TCP", internal_port=80)
        self.assertEqual(asks(8080), (0, 9090))
        self.assertEqual(asks(0, lifetime=0)[0], 2)
        self.assertEqual({port: rule["owner"] for port, rule in self.router.ports().items()},
                         {"9090/tcp": "upnp"})
        exchange_tcp(self.wan, WAN_ADDRESS, 9090, host, 80)
        host.close_port(9090, "TCP")
        self.assertEqual(asks(9090), (0, 9090))
        self.assertEqual({port: rule["owner"] for port, rule in self.router.ports().items()},
                         {"9090/tcp": "pcp"})
        exchange_tcp(self.wan, WAN_ADDRESS, 9090, host, 80)


class FilterTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.router.lumenctl("pcp", "on")
        self.host = self.lan[0]

    def maps(self, options):
        """The result code for TCP port 8080 to the host's port 80."""
        request = pcp.pcp_map(pcp.TCP, 80, 8080, host=self.host.address, options=options)
        with self.host.udp(to=(LAN_ADDRESS, pcp.PORT)) as sock:
            sock.settimeout(5)
            sock.send(request)
            return sock.recv(1100)[3]

    def sources(self):
        return self.router.ports()["8080/tcp"]["from"]

    # Promise: A port that a program of PCP opens to some networks of the Internet alone is reached
    # from these and from no other address, and a renewal can name other ones or none.
    def test_a_filtered_port_is_reached_from_its_networks_alone(self):
        self.assertEqual(self.maps(only_from(self.wan.address, 96 + 32)), 0)
        self.assertEqual(self.sources(), self.wan.address + "/32")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)

        self.assertEqual(self.maps(NO_FILTER + only_from("198.51.100.0", 96 + 24)), 0)
        self.assertEqual(self.sources(), "198.51.100.0/24")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))

        self.assertEqual(self.maps(only_from("45.45.45.0", 96 + 24)), 0)
        self.assertEqual(self.sources(), "45.45.45.0/24 198.51.100.0/24")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)

        self.assertEqual(self.maps(NO_FILTER + only_from("198.51.100.0", 96 + 24)), 0)
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))
        self.assertEqual(self.maps(NO_FILTER), 0)
        self.assertEqual(self.sources(), "")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)


class RouterEventTest(RouterCase):
    """What hosts see of a router whose programs are killed and whose links and addresses change."""

    def setUp(self):
        super().setUp()
        self.router.lumenctl("pcp", "on")
        self.host = self.lan[0]
        self.listener = self.host.namespace.socket(socket.SOCK_DGRAM)
        self.addCleanup(self.listener.close)
        self.listener.bind(("", 5350))
        with self.host.namespace.entered():
            group = struct.pack("4s4si", socket.inet_aton("224.0.0.1"), bytes(4),
                                socket.if_nametoindex(self.host.LINK))
        self.listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)

    def ask(self, request):
        """The answer to a request, sent again until there is one, as clients do."""
        with self.host.udp(to=(LAN_ADDRESS, 5351)) as sock:
            sock.settimeout(0.25)

            def answer():
                with contextlib.suppress(OSError):
                    sock.send(request)
                    return sock.recv(1100)

            return wait_until(answer, "the router answers")

    def map(self, external=8080):
        """Maps TCP port 80 by NAT-PMP; the result, the external port and the lifetime."""
        result, port, lifetime = struct.unpack(
            "!2xH6xHI", self.ask(pcp.natpmp_map(pcp.TCP, 80, external)))
        return result, port, lifetime

    def wait_for_age(self, seconds):
        """Waits until the epoch is that old."""
        wait_until(lambda: struct.unpack("!I", self.ask(b"\0\0")[4:8])[0] >= seconds,
                   f"the epoch is {seconds} s old")

    def forget_announcements(self):
        self.listener.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.listener.recv(100)

    def hear(self, result, address):
        """Waits for announcements of a new epoch in both languages."""
        self.listener.settimeout(10)
        natpmp = struct.pack("!BBHI", 0, 128, result, 0) + socket.inet_aton(address)
        while self.listener.recv(100) != natpmp:
            pass
        # Version 2, response to ANNOUNCE, success, lifetime 0, epoch 0.
        self.assertEqual(self.listener.recv(100), bytes([2, 128]) + bytes(22))

    # Promise [pcp-platform-killed]: When the platform is killed the kernel forgets every port of
    # NAT-PMP and PCP; its next life begins a new epoch, which is announced, and hosts get their
    # ports back.
    def test_a_killed_platform_leaves_no_port_and_begins_a_new_epoch(self):
        self.assertEqual(self.map(), (0, 8080, 3600))
        self.wait_for_age(2)
        self.forget_announcements()
        self.router.kill()
        self.assertEqual(self.router.kernel_map(), "")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.host, 80))
        self.router.start()
        self.hear(0, WAN_ADDRESS)
        self.assertEqual(self.router.ports(), {})
        self.assertEqual(self.map(), (0, 8080, 3600))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)

    # Promise [pcp-moved]: A change of the external address ends the ports of NAT-PMP and PCP and
    # begins a new epoch, which is announced with the new address.
    def test_another_external_address_begins_a_new_epoch(self):
        self.assertEqual(self.map(), (0, 8080, 3600))
        self.wait_for_age(2)
        self.forget_announcements()
        new = "45.45.45.9"
        self.network.router.ip("address", "add", f"{new}/24", "dev", WAN_LINK)
        self.network.router.ip("address", "delete", f"{WAN_ADDRESS}/24", "dev", WAN_LINK)
        self.hear(0, new)
        self.assertEqual(self.router.ports(), {})
        self.assertNotIn(f"{WAN_ADDRESS} . tcp", self.router.kernel_map())
        self.assertEqual(self.map(), (0, 8080, 3600))
        exchange_tcp(self.wan, new, 8080, self.host, 80)

    # Promise: While the external link is down there is no external address: the loss and the return
    # begin an epoch each.
    def test_the_external_link_goes_and_returns(self):
        self.assertEqual(self.map(), (0, 8080, 3600))
        self.wait_for_age(2)
        self.forget_announcements()
        self.wan.namespace.ip("link", "set", "eth0", "down")
        self.hear(3, "0.0.0.0")
        self.assertEqual(self.router.ports(), {})
        self.assertEqual(self.map(), (3, 0, 0))
        self.wait_for_age(1)
        self.wan.namespace.ip("link", "set", "eth0", "up")
        self.hear(0, WAN_ADDRESS)
        self.assertEqual(self.map(), (0, 8080, 3600))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)

    # Promise [pcp-lan-link]: When an internal link goes and returns its hosts keep their ports, and
    # no new epoch begins.
    def test_ports_and_epoch_outlive_the_internal_link(self):
        self.assertEqual(self.map(), (0, 8080, 3600))
        self.wait_for_age(2)
        served = lambda: self.router.ask("pcp", "status")["served"]
        self.network.router.ip("link", "set", LAN_BRIDGE, "down")
        wait_until(lambda: not served(), "the link is not served")
        self.network.router.ip("link", "set", LAN_BRIDGE, "up")
        wait_until(served, "the link is served again")
        self.assertGreaterEqual(struct.unpack("!I", self.ask(b"\0\0")[4:8])[0], 2)
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.host, 80)
