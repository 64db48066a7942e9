"""How traffic of open ports passes the router: from inside by the external address, and past a
firewall."""

import unittest

from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, ControlPoint,
                             exchange_tcp, exchange_udp, tcp_refused, udp_refused)
from support.router_case import RouterCase

OTHER_NETWORK = "192.168.89"
FOREIGN_ADDRESS = "8.8.8.8"
PORT = 8080
SERVER_PORT = 80
# What the documents give for a firewall of nftables.
RULE = f"insert rule inet filter forward iifname {WAN_LINK} ct status dnat accept"


def add_network(case):
    """A host of another internal network of the router."""
    other = ControlPoint(f"{OTHER_NETWORK}.10")
    case.addCleanup(other.close)
    case.network.router.link("lan9", other.namespace, ControlPoint.LINK)
    case.network.router.ip("address", "add", f"{OTHER_NETWORK}.1/24", "dev", "lan9")
    other.namespace.ip("address", "add", f"{other.address}/24", "dev", ControlPoint.LINK)
    other.namespace.ip("route", "add", "default", "via", f"{OTHER_NETWORK}.1")
    case.router.lumenctl("upnp", "interface", "add", "lan9", "--role", "internal")
    return other


class HairpinTest(RouterCase):
    """LAN hosts that use the external address, as they do with a name that all the world uses."""

    def setUp(self):
        super().setUp()
        self.network.let_bridge_alone()
        self.server, self.neighbour = self.lan
        self.server.open_port(PORT, "TCP", internal_port=SERVER_PORT)
        self.server.open_port(PORT, "UDP", internal_port=SERVER_PORT)

    def reach(self, client, seen_as):
        """Bytes from the client, which the server sees by that address, by TCP and by UDP."""
        exchange_tcp(client, WAN_ADDRESS, PORT, self.server, SERVER_PORT, seen_as=seen_as)
        with client.udp(to=(WAN_ADDRESS, PORT)) as sock:
            exchange_udp(sock, self.server, SERVER_PORT, seen_as=seen_as)

    # Promise [hairpin-same]: A LAN host that connects to the external address and an open port
    # reaches the server when both are in the same network; the server sees the router's address.
    def test_a_host_of_the_same_network_reaches_an_open_port(self):
        self.reach(self.neighbour, seen_as=LAN_ADDRESS)

    # Promise [hairpin-own]: A LAN host reaches its own open port by the external address.
    def test_a_host_reaches_its_own_open_port(self):
        self.reach(self.server, seen_as=LAN_ADDRESS)

    # Promise [hairpin-other]: A host of another internal network that uses the external address is
    # seen by its own address.
    def test_a_host_of_another_internal_network_is_seen_by_its_own_address(self):
        other = add_network(self)
        self.reach(other, seen_as=other.address)

    # Promise [wan-source]: A WAN host is seen by its own address.
    def test_the_wan_host_is_seen_by_its_own_address(self):
        exchange_tcp(self.wan, WAN_ADDRESS, PORT, self.server, SERVER_PORT)
        exchange_udp(self.wan_udp(PORT), self.server, SERVER_PORT)

    # Promise: A port that is closed is closed to LAN hosts that use the external address too.
    def test_a_closed_port_is_closed_from_inside_too(self):
        self.server.close_port(PORT, "TCP")
        self.server.close_port(PORT, "UDP")
        self.assertTrue(tcp_refused(self.neighbour, WAN_ADDRESS, PORT, self.server, SERVER_PORT))
        with self.neighbour.udp(to=(WAN_ADDRESS, PORT)) as sock:
            self.assertTrue(udp_refused(sock, self.server, SERVER_PORT))

    # Promise: What another table redirects on its way to an address that is not the router's keeps
    # its source address.
    def test_redirections_of_others_are_left_alone(self):
        self.network.router.run("nft", f"""
            table ip interceptor {{
              chain prerouting {{
                type nat hook prerouting priority dstnat;
                ip daddr {FOREIGN_ADDRESS} udp dport 53 dnat to {self.server.address}
              }}
            }}""")
        with (self.server.udp(53) as names,
              self.neighbour.udp(to=(FOREIGN_ADDRESS, 53)) as client):
            client.send(b"who is it?")
            self.assertEqual(names.recvfrom(100), (b"who is it?", client.getsockname()))

    # Promise: Without the chains `addressed`, `hairpin` and `srcnat` in `nat-ruleset.nft`
    # everything else works.
    def test_the_rest_works_without_the_hairpin_chains(self):
        ruleset = self.router.root / "etc" / "nat-ruleset.nft"
        text = ruleset.read_text()
        without = text[:text.index("\n\t# A host that reaches")] + "}\n"
        self.assertNotIn("masquerade", without)
        self.router.stop()
        ruleset.write_text(without)
        self.router.start()
        self.router.wait_until_controllable()
        self.server.open_port(PORT, "TCP", internal_port=SERVER_PORT)
        exchange_tcp(self.wan, WAN_ADDRESS, PORT, self.server, SERVER_PORT)
        self.neighbour.namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries")
        with self.assertRaises(TimeoutError):
            exchange_tcp(self.neighbour, WAN_ADDRESS, PORT, self.server, SERVER_PORT)


class FirewallTest(RouterCase):
    """A router whose own firewall lets nothing in that was not asked for."""

    def setUp(self):
        super().setUp()
        self.network.let_bridge_alone()
        self.server, self.neighbour = self.lan
        self.nft(f"""
            table inet filter {{
              chain forward {{
                type filter hook forward priority filter; policy drop;
                ct state established,related accept
                iifname {LAN_BRIDGE} oifname {WAN_LINK} accept
              }}
            }}""")
        self.server.open_port(PORT, "TCP", internal_port=SERVER_PORT)

    def nft(self, commands):
        self.network.router.run("nft", commands)

    def reach(self, host=None, seen_as=None):
        exchange_tcp(host or self.wan, WAN_ADDRESS, PORT, self.server, SERVER_PORT,
                     seen_as=seen_as)

    def assert_stopped(self, host):
        host.namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries")
        with self.assertRaises(TimeoutError):
            self.reach(host)

    # Promise [firewall-rule]: On a router that drops forwarded traffic an open port needs one rule,
    # `iifname EXTERNAL ct status dnat accept`.
    def test_an_open_port_needs_one_rule(self):
        self.assert_stopped(self.wan)
        self.nft(RULE)
        self.reach()

    # Promise [firewall-only]: The rule `iifname EXTERNAL ct status dnat accept` lets in nothing but
    # what open ports forward.
    def test_the_rule_lets_nothing_else_in(self):
        self.nft(RULE)
        self.wan.namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries")
        self.wan.namespace.ip("route", "add", f"{self.server.address}/32", "via", WAN_ADDRESS)
        with self.server.listen(SERVER_PORT), self.assertRaises(TimeoutError):
            self.wan.connect(self.server.address, SERVER_PORT)

    # Promise [firewall-lan]: That rule lets no LAN host through: a host that uses the external
    # address is stopped as the firewall stops it otherwise.
    def test_the_rule_lets_no_host_of_the_lan_through(self):
        other = add_network(self)
        self.nft(RULE)
        self.reach()
        for host in (other, self.neighbour, self.server):
            self.assert_stopped(host)
        self.nft("add rule inet filter forward ct status dnat accept")
        self.reach(other)
        for host in (self.neighbour, self.server):
            self.reach(host, seen_as=LAN_ADDRESS)

    # Promise: With a rule that names an internal interface twice, as the incoming
    # and as the outgoing one, hosts of its network reach its open ports by the external address, and
    # hosts of other networks do not.
    def test_a_second_rule_admits_hosts_of_the_same_network(self):
        other = add_network(self)
        self.nft(RULE)
        self.nft(f"add rule inet filter forward iifname {LAN_BRIDGE} oifname {LAN_BRIDGE} "
                 "ct status dnat accept")
        self.reach()
        self.reach(self.neighbour, seen_as=LAN_ADDRESS)
        self.reach(self.server, seen_as=LAN_ADDRESS)
        self.assert_stopped(other)


if __name__ == "__main__":
    unittest.main()
