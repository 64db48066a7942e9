"""Pinholes for IPv6 hosts on the LAN, by PCP: hosts on both sides of a router whose firewall drops all
but their label."""

import json
import os
import shutil
import signal
import socket
import struct
import subprocess

from support import lm
from support.pcp import PORT, TCP, UDP, ipv6_map
from support.router_case import RouterCase
from test_completion import bash, zsh

LAN_ROUTER = "2001:db8:1::1"
LAN_HOST = "2001:db8:1::10"
NEIGHBOUR = "2001:db8:1::11"
WAN_ROUTER = "2001:db8:ff::1"
WAN_HOST = "2001:db8:ff::2"

def only_from(network, prefix):
    """The option FILTER of RFC 6887 section 13.3: code 3 of 20 bytes, a reserved byte, the prefix,
    any remote port, the network. Prefix 0 forgets the filters before it."""
    return struct.pack("!BxHxBH", 3, 20, prefix, 0) + socket.inet_pton(socket.AF_INET6, network)


SUCCESS, NOT_AUTHORIZED, NETWORK_FAILURE, ADDRESS_MISMATCH = 0, 2, 7, 12

# What is not admitted is refused at once, so that no test waits for it.
FIREWALL = """
table ip6 firewall {
    chain forward {
        type filter hook forward priority 0; policy drop
        iifname wan0 ct label 125 accept
        ct state established,related accept
        iifname br-lan accept
        meta l4proto tcp reject with tcp reset
        reject with icmpv6 port-unreachable
    }
}
"""
LABEL_RULE = ("ip6tables -P FORWARD DROP",
              "ip6tables -A FORWARD -i wan0 -m connlabel --label 125 -j ACCEPT",
              "ip6tables -A FORWARD -m conntrack --ctstate ESTABLISHED -j ACCEPT",
              "ip6tables -A FORWARD -p tcp -j REJECT --reject-with tcp-reset")


class PinholeCase(RouterCase):
    def setUp(self):
        super().setUp()
        router = self.network.router
        router.ip("address", "add", f"{LAN_ROUTER}/64", "dev", "br-lan", "nodad")
        router.ip("address", "add", f"{WAN_ROUTER}/64", "dev", "wan0", "nodad")
        self.forwards(True)
        for host, address in zip(self.lan, (LAN_HOST, NEIGHBOUR)):
            host.namespace.ip("address", "add", f"{address}/64", "dev", host.LINK, "nodad")
            host.namespace.ip("-6", "route", "add", "default", "via", LAN_ROUTER)
        self.wan.namespace.ip("address", "add", f"{WAN_HOST}/64", "dev", "eth0", "nodad")
        self.wan.namespace.ip("-6", "route", "add", "default", "via", WAN_ROUTER)
        self.host = self.lan[0]
        self.router.lumenctl("pcp", "on")
        self.wait_until(lambda: self.announced() == SUCCESS, "PCP is answered by IPv6")

    def forwards(self, on):
        self.network.router.run(
            "sh", "-c", f"echo {int(on)} > /proc/sys/net/ipv6/conf/all/forwarding")

    def firewall(self, rules=FIREWALL):
        self.network.router.run("nft", rules)

    def ask(self, request, server=LAN_ROUTER, host=None):
        """The answer; None: there is none."""
        host = host or self.host
        with host.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as sock:
            sock.settimeout(2)
            scope = 0
            if server.startswith("fe80"):
                with host.namespace.entered():
                    scope = socket.if_nametoindex(host.LINK)
            try:
                sock.connect((server, PORT, 0, scope))  # takes answers from there only
                sock.send(request)
                return sock.recv(2000)
            except (ConnectionRefusedError, socket.timeout):
                return None

    def announced(self):
        """The result code of ANNOUNCE."""
        answer = self.ask(struct.pack("!BBHI", 2, 0, 0, 0) + socket.inet_pton(socket.AF_INET6,
                                                                              LAN_HOST))
        return answer[3] if answer else None

    def map(self, protocol, port, lifetime=3600, host=LAN_HOST, options=b""):
        """The result code, the lifetime and the external address and port."""
        answer = self.ask(ipv6_map(protocol, port, host=host, lifetime=lifetime,
                                   options=options))
        lifetime, = struct.unpack_from("!I", answer, 4)
        external, = struct.unpack_from("!H", answer, 42)
        return answer[3], lifetime, (socket.inet_ntop(socket.AF_INET6, answer[44:60]), external)

    def is_open(self, port, address=LAN_HOST):
        """Whether bytes of the WAN host reach TCP `port` of the host on the LAN."""
        with self.host.namespace.socket(family=socket.AF_INET6) as listener:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind((address, port))
            listener.listen()
            listener.settimeout(5)
            with self.wan.namespace.socket(family=socket.AF_INET6) as client:
                client.settimeout(5)
                try:
                    client.connect((address, port))
                except ConnectionRefusedError:
                    return False
                accepted, peer = listener.accept()
                with accepted:
                    client.send(b"there")
                    self.assertEqual((accepted.recv(10), peer[0]), (b"there", WAN_HOST))
                    accepted.send(b"back")
                    self.assertEqual(client.recv(10), b"back")
        return True

    def link_local_address(self, namespace, link):
        """That of a link, when the kernel has found that it is its alone."""
        def address():
            for line in namespace.ip("-6", "-o", "address", "show", "dev", link,
                                     "scope", "link").splitlines():
                if "tentative" not in line:
                    return line.split()[3].split("/")[0]
            return None

        return self.wait_until(address, f"{link} has a link-local address")

    def findings(self):
        """What `upnp check` finds, by id."""
        command = self.network.router.popen(self.router.programs / "lumenctl", "--root",
                                            self.router.root, "--json", "upnp", "check",
                                            stdout=subprocess.PIPE, text=True)
        with command:
            found = json.loads(command.stdout.read())["findings"]
        return {finding["id"]: finding for finding in found}

    def pinholes(self):
        """The elements of the kernel's set."""
        listed = self.network.router.run("nft", "list", "set", "ip6", "lumen", "pinholes")
        return listed.count(LAN_HOST)


class PinholeTest(PinholeCase):
    # Promise [pinhole-open]: A port of an IPv6 host is reached from the Internet through a firewall that
    # drops all but the label, from the host's PCP request until it ends the mapping.
    def test_a_host_opens_and_closes_a_port_to_itself(self):
        self.firewall()
        self.assertFalse(self.is_open(8080))
        self.assertEqual(self.map(TCP, 8080), (SUCCESS, 3600, (LAN_HOST, 8080)))
        self.assertTrue(self.is_open(8080))
        self.assertFalse(self.is_open(8081))
        self.assertEqual(self.map(TCP, 8080, lifetime=0)[0], SUCCESS)
        self.assertFalse(self.is_open(8080))

    # Also proves [pinhole-open].
    def test_ip6tables_admits_the_label_too(self):
        for command in LABEL_RULE:
            self.network.router.run(*command.split())
        self.assertFalse(self.is_open(8080))
        self.map(TCP, 8080)
        self.assertTrue(self.is_open(8080))

    def test_udp_reaches_the_host(self):
        self.firewall()
        with self.host.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as server, \
                self.wan.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as client:
            for sock in (server, client):
                sock.settimeout(5)
            server.bind((LAN_HOST, 5060))
            client.connect((LAN_HOST, 5060))
            client.send(b"refused")
            self.assertRaises(ConnectionRefusedError, client.recv, 10)
            self.map(UDP, 5060)
            client.send(b"there")
            data, peer = server.recvfrom(10)
            self.assertEqual((data, peer[0]), (b"there", WAN_HOST))

    # Also proves [pinhole-remotes].
    def test_a_filtered_pinhole_is_reached_from_its_networks_alone(self):
        self.firewall()
        elsewhere = only_from("::", 0) + only_from("2001:db8:ee::", 48)
        self.assertEqual(self.map(TCP, 8080, options=only_from(WAN_HOST, 128))[0], SUCCESS)
        self.assertTrue(self.is_open(8080))
        self.assertIn(f"{WAN_HOST}/128", self.router.lumenctl("nat", "list"))
        self.assertEqual(self.pinholes(), 0, "it is in the other set")
        self.assertEqual(self.map(TCP, 8080, options=elsewhere)[0], SUCCESS)
        self.assertFalse(self.is_open(8080))
        self.assertEqual(self.router.status()["pinholes"][0]["from"], "2001:db8:ee::/48")
        self.assertEqual(self.map(TCP, 8080, options=only_from("2001:db8:ff::", 64))[0], SUCCESS)
        self.assertTrue(self.is_open(8080))
        self.assertEqual(self.map(TCP, 8080, options=elsewhere)[0], SUCCESS)
        self.assertFalse(self.is_open(8080))
        self.assertEqual(self.map(TCP, 8080, options=only_from("::", 0))[0], SUCCESS)
        self.assertTrue(self.is_open(8080))
        self.assertEqual(self.pinholes(), 1)

    # Also proves [pinhole-flows].
    def test_a_udp_flow_ends_with_its_pinhole(self):
        self.firewall()
        with self.host.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as closed, \
                self.host.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as kept, \
                self.wan.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as to_closed, \
                self.wan.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as to_kept:
            pairs = (closed, to_closed, 5060), (kept, to_kept, 5061)
            for server, client, port in pairs:
                server.settimeout(5)
                client.settimeout(5)
                server.bind((LAN_HOST, port))
                client.connect((LAN_HOST, port))
                self.map(UDP, port)

            def passes(server, client):
                client.send(b"there")
                data, peer = server.recvfrom(10)
                server.sendto(b"back", peer)
                self.assertEqual((data, client.recv(10)), (b"there", b"back"))

            for server, client, _ in pairs:
                passes(server, client)
            self.assertEqual(self.map(UDP, 5060, lifetime=0)[0], SUCCESS)

            def refused():
                try:
                    to_closed.send(b"late")
                    to_closed.settimeout(0.1)
                    to_closed.recv(10)
                except ConnectionRefusedError:
                    return True
                except socket.timeout:
                    return False
                return False

            self.wait_until(refused, "the open flow is refused")
            closed.setblocking(False)
            with self.assertRaises(BlockingIOError):
                while closed.recv(10):
                    pass  # what came before the flow ended
            to_closed.settimeout(5)
            for _ in range(3):
                with self.assertRaises(ConnectionRefusedError):
                    to_closed.send(b"late")
                    to_closed.recv(10)
            self.assertRaises(BlockingIOError, closed.recv, 10)
            passes(kept, to_kept)

    # Also proves [pinhole-network].
    def test_a_pinhole_ends_with_the_network_of_its_host(self):
        self.firewall()
        self.assertEqual(self.map(TCP, 8080, lifetime=1)[:2], (SUCCESS, 120))
        self.assertTrue(self.is_open(8080))
        self.network.router.ip("address", "delete", f"{LAN_ROUTER}/64", "dev", "br-lan")
        self.wait_until(lambda: self.pinholes() == 0, "the pinhole is closed")
        self.network.router.ip("address", "add", f"{LAN_ROUTER}/64", "dev", "br-lan", "nodad")
        self.assertFalse(self.is_open(8080))

    # Promise [pinhole-lease]: When the lease of a pinhole is over, its port is closed, though the program
    # that opened it says nothing.
    def test_a_lease_ends_on_a_real_router(self):
        self.firewall()
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as service:
            service.settimeout(5)
            service.connect(str(self.router.root / "run" / "lumen.sock"))
            service.send(lm.encode(lm.Message({
                lm.DESTINATION: [20, 7], lm.SERIAL: 7, lm.COMMAND: lm.CMD_ADD,
                0x20000001: LAN_HOST, 0x08000002: TCP, 0x08000003: 8080, 0x08000004: 1})))
            self.assertIsNone(lm.decode(service.recv(65536)).error())
            self.assertTrue(self.is_open(8080))
            self.wait_until(lambda: self.pinholes() == 0, "the lease is over")
            self.assertFalse(self.is_open(8080))

    # Also proves [pinhole-owner].
    def test_a_killed_program_leaves_no_pinhole_and_announces_its_next_life(self):
        self.firewall()
        self.map(TCP, 8080)
        self.assertEqual(self.pinholes(), 1)
        router = self.link_local_address(self.network.router, "br-lan")
        with self.host.namespace.socket(socket.SOCK_DGRAM, socket.AF_INET6) as sock:
            sock.settimeout(10)
            sock.bind(("", 5350))
            with self.host.namespace.entered():
                index = socket.if_nametoindex(self.host.LINK)
            sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                            socket.inet_pton(socket.AF_INET6, "ff02::1") + struct.pack("I", index))
            os.kill(self.router.service("pcp")["process"], signal.SIGKILL)
            self.wait_until(lambda: self.pinholes() == 0, "the pinhole is closed")
            self.assertFalse(self.is_open(8080))
            announcement, sender = sock.recvfrom(100)
        self.assertEqual((announcement[:8], len(announcement)), (b"\2\x80\0\0\0\0\0\0", 24))
        self.assertEqual((sender[0].split("%")[0], sender[1]), (router, PORT))
        self.wait_until(lambda: self.announced() == SUCCESS, "the next life answers")
        self.assertEqual(self.map(TCP, 8080)[0], SUCCESS)
        self.assertTrue(self.is_open(8080))

    # Also proves [pinhole-forwarding].
    def test_nothing_is_opened_where_the_router_does_not_forward(self):
        self.forwards(False)
        self.assertEqual(self.map(TCP, 8080)[:2], (NETWORK_FAILURE, 30))
        self.assertEqual(self.pinholes(), 0)

    # Also proves [pinhole-hosts].
    def test_a_host_opens_ports_to_itself_only(self):
        self.assertEqual(self.map(TCP, 8080, host=NEIGHBOUR)[0], ADDRESS_MISMATCH)
        self.assertEqual(self.map(TCP, 22)[0], NOT_AUTHORIZED)
        self.assertEqual(self.pinholes(), 0)

    # Promise: The router answers PCP at its link-local address, by which hosts know it, from that
    # address; a link-local address of a host gets no pinhole.
    def test_the_link_local_address_of_the_router_answers(self):
        router = self.link_local_address(self.network.router, "br-lan")
        own = self.link_local_address(self.host.namespace, self.host.LINK)
        answer = self.ask(ipv6_map(TCP, 8080, host=own), server=router)
        self.assertEqual(answer[3], NOT_AUTHORIZED)
        answer = self.ask(struct.pack("!BBHI", 2, 0, 0, 0) +
                          socket.inet_pton(socket.AF_INET6, own), server=router)
        self.assertEqual(answer[3], SUCCESS)

    # Promise: The WAN side gets no answer of PCP by IPv6.
    def test_the_wan_side_gets_no_answer(self):
        request = ipv6_map(TCP, 8080, host=WAN_HOST)
        self.assertIsNone(self.ask(request, server=WAN_ROUTER, host=self.wan_control()))
        self.assertEqual(self.pinholes(), 0)

    def wan_control(self):
        self.wan.LINK = "eth0"
        return self.wan

    # Promise: `lumenctl nat list` and `lumenctl status` show pinholes: which service opened each, for
    # which host, and what is left.
    def test_the_administrator_sees_pinholes(self):
        self.map(TCP, 8080)
        listed = self.router.lumenctl("nat", "list")
        for word in (LAN_HOST, "8080", "tcp", "pcp"):
            self.assertIn(word, listed)
        [pinhole] = self.router.status()["pinholes"]
        self.assertEqual((pinhole["host"], pinhole["port"], pinhole["protocol"], pinhole["owner"]),
                         (LAN_HOST, 8080, "tcp", "pcp"))
        self.assertGreater(pinhole["seconds_left"], 3500)

    # Promise: `lumenctl nat close` with an IPv6 host closes that port of it, `palinode-pcp` forgets
    # the mapping, and `nat log` has both.
    def test_the_administrator_closes_a_pinhole(self):
        self.firewall()
        self.map(TCP, 8080)
        self.map(TCP, 8081)
        self.assertTrue(self.is_open(8080))
        self.assertIn(f"8080/tcp {LAN_HOST}: closed",
                      self.router.lumenctl("nat", "close", "8080/tcp", LAN_HOST))
        self.assertFalse(self.is_open(8080))
        self.assertTrue(self.is_open(8081))
        self.wait_until(lambda: self.router.ask("pcp", "status")["pinholes"] == 1,
                        "the mapping is forgotten")
        self.assertEqual(self.map(TCP, 8080)[:2], (SUCCESS, 3600))
        self.assertTrue(self.is_open(8080))
        self.assertEqual([(event["event"], event["who"]) for event in self.router.ask("nat", "log")
                          if (event["client"], event["port"]) == (LAN_HOST, 8080)],
                         [("opened", "pcp"), ("closed", "administrator"), ("opened", "pcp")])

    # Also proves [ctl-ports].
    def test_the_shells_offer_the_hosts_of_a_port(self):
        self.map(TCP, 8080)
        close = ("lumenctl", "--root", str(self.router.root), "nat", "close")
        self.assertEqual(bash(*close, ""), {"8080/tcp"})
        self.assertEqual(bash(*close, "8080/tcp", ""), {LAN_HOST})
        self.assertEqual(bash(*close, "8080/udp", ""), set())
        # bash makes words of what stands beside each ':'.
        self.assertEqual(bash(*close, "8080/tcp", "2001", ":", "db8", ":", ""), {"1::10"})
        if shutil.which("zsh"):
            self.assertEqual(zsh(*close, "8080/tcp", ""), {LAN_HOST})

    # Promise: `lumenctl upnp check` finds a firewall that drops forwarded IPv6 packets and
    # not those of pinholes, and says which rule admits them; it finds a missing `pinhole-ruleset.nft`.
    def test_the_check_finds_a_firewall_without_the_label(self):
        self.assertNotIn("firewall-drops-pinholes", self.findings())
        rule = "iifname wan0 ct label 125 accept"
        self.firewall(FIREWALL.replace(rule, ""))
        finding = self.findings()["firewall-drops-pinholes"]
        self.assertIn("nft insert rule ip6 firewall forward " + rule, finding["remedy"])
        self.network.router.run("sh", "-c", finding["remedy"])
        self.assertNotIn("firewall-drops-pinholes", self.findings())
        self.network.router.run("nft", "delete table ip6 firewall")
        for command in LABEL_RULE[:1] + LABEL_RULE[3:]:
            self.network.router.run(*command.split())
        finding = self.findings()["firewall-drops-pinholes"]
        self.assertIn("ip6tables -I FORWARD -i wan0 -m connlabel --label 125", finding["remedy"])
        self.network.router.run("sh", "-c", finding["remedy"])
        self.assertNotIn("firewall-drops-pinholes", self.findings())


class OtherPinholeFileTest(PinholeCase):
    # Promise: `lumenctl upnp check` names a pinhole-ruleset.nft from before filters; pinholes for any
    # remote host are opened with it.
    def test_an_older_file_opens_no_filtered_pinhole_and_is_named(self):
        self.assertNotIn("pinhole-ruleset-without-remote-networks", self.findings())
        path = self.router.root / "etc" / "pinhole-ruleset.nft"
        older = [line for line in path.read_text().splitlines(True) if "@filtered" not in line]
        path.unlink()
        path.write_text("".join(older))
        self.router.stop()
        self.router.start()
        self.wait_until(lambda: self.announced() == SUCCESS, "PCP is answered by IPv6")
        self.assertEqual(self.map(TCP, 8080, options=only_from(WAN_HOST, 128))[0], NOT_AUTHORIZED)
        self.assertEqual(self.map(TCP, 8080)[0], SUCCESS)
        self.assertEqual(self.pinholes(), 1)
        # The mapping goes on as it was.
        self.assertEqual(self.map(TCP, 8080, options=only_from(WAN_HOST, 128))[0], NOT_AUTHORIZED)
        self.assertEqual(self.map(TCP, 8080)[0], SUCCESS)
        self.assertEqual(self.pinholes(), 1)
        self.assertIn("pinhole-ruleset-without-remote-networks", self.findings())

class NoPinholeFileTest(PinholeCase):
    def test_without_its_file_pinholes_are_refused_and_all_else_works(self):
        (self.router.root / "etc" / "pinhole-ruleset.nft").unlink()
        self.router.stop()
        self.router.start()
        self.wait_until(lambda: self.announced() == SUCCESS, "PCP is answered by IPv6")
        self.assertEqual(self.map(TCP, 8080)[:2], (NOT_AUTHORIZED, 1800))
        self.assertIn("no IPv6 pinholes: /lumen/etc/pinhole-ruleset.nft: No such file or directory",
                      self.router.log())
        self.assertIn("no-pinholes", self.findings())
        self.router.wait_until_controllable()
        self.host.open_port(8080, "TCP")
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])
