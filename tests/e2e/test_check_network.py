"""lumenctl upnp check of links, addresses and routes, and of what the kernel does with packets."""

import os
import unittest

from support.check_case import CheckCase
from support.network import BRIDGE_FILTER, LAN_BRIDGE, WAN_HOST, WAN_LINK


class CheckLinksTest(CheckCase):
    def test_an_interface_is_away(self):
        self.network.disconnect_wan()
        self.assert_found(
            "wan0, the external interface, is away: there is no link of that name.",
            "No port can be opened on it.",
            "see why it is not there, or give another one its role: lumenctl upnp setup")

    def test_an_interface_is_switched_off(self):
        self.ip("link", "set", LAN_BRIDGE, "down")
        remedy = "ip link set br-lan up"
        self.assert_found("br-lan, an internal interface, is switched off.",
                          "Its hosts find no gateway.", remedy)
        self.run_inside(remedy)
        self.assert_nothing_wrong()

    def test_an_interface_has_no_link(self):
        self.wan.namespace.ip("link", "set", "eth0", "down")
        self.assert_found("wan0, the external interface, has no link.",
                          "No port can be opened on it.",
                          "see whether its cable is plugged in at both ends")

    def test_a_bridge_has_no_link(self):
        for host in self.lan:
            host.namespace.ip("link", "set", "eth0", "down")
        self.assert_found("br-lan, an internal interface, has no link.",
                          "Its hosts find no gateway.",
                          "connect one of the bridge's ports: bridge link")

    def test_an_internal_interface_has_no_address(self):
        self.ip("address", "flush", "dev", LAN_BRIDGE)
        self.assert_found("br-lan, an internal interface, has no IPv4 address.",
                          "Its hosts find no gateway.", "ip address add ADDRESS/24 dev br-lan")

    def test_a_link_is_marked_as_one_without_multicast(self):
        self.ip("link", "set", LAN_BRIDGE, "multicast", "off")
        remedy = "ip link set br-lan multicast on"
        self.assert_found("br-lan, an internal interface, has multicast switched off.",
                          "Its hosts may not find the gateway, which they search for by multicast.",
                          remedy)
        self.run_inside(remedy)
        self.assert_nothing_wrong()

    # Also proves [ctl-check-address].
    def test_there_is_no_external_address(self):
        self.ip("address", "flush", "dev", WAN_LINK)
        self.assert_found(
            "wan0, the external interface, has no IPv4 address.",
            "There is no address that ports can be opened on.",
            "see whether its DHCP client or PPP is running: ip address show wan0")

    # Also proves [ctl-check-address].
    def test_hosts_on_the_internet_cannot_reach_the_external_address(self):
        unreachable = "No host on the Internet can reach a port that is opened here"
        subject = "The external address {} of wan0"
        for address, what, why, remedy in (
                ("192.168.1.2", "is private: another router stands between this one and the "
                 "Internet.", f"{unreachable}, and many programs do not even try to open one.",
                 "on that router, forward all ports to 192.168.1.2, or let it pass on its "
                 "public address (bridge mode)"),
                ("100.64.0.9", "is inside the provider's own NAT (carrier-grade NAT).",
                 f"{unreachable}.", "ask the provider for a public IPv4 address"),
                ("169.254.7.7", "is link-local: wan0 gave it to itself, because no DHCP server "
                 "answered.", f"{unreachable}.", "see why no DHCP server answers on wan0")):
            with self.subTest(address=address):
                self.ip("address", "flush", "dev", WAN_LINK)
                self.ip("address", "add", f"{address}/24", "dev", WAN_LINK)
                self.ip("route", "add", "default", "dev", WAN_LINK)
                self.assert_found(f"{subject.format(address)} {what}", why, remedy)


class CheckKernelTest(CheckCase):
    def test_packets_are_not_forwarded(self):
        self.run_inside("echo 0 > /proc/sys/net/ipv4/ip_forward")
        remedy = "sysctl -w net.ipv4.ip_forward=1"
        self.assert_found("This router forwards no packets: net.ipv4.ip_forward is 0.",
                          "What arrives at an open port does not reach its host.",
                          f"{remedy} (a file in /etc/sysctl.d sets it at the next start)")
        self.run_inside(remedy)
        self.assert_nothing_wrong()

    def test_packets_of_one_interface_are_not_forwarded(self):
        for link, why in ((WAN_LINK, "What arrives there for an open port does not reach its "
                           "host."), (LAN_BRIDGE, "The answers of its hosts do not leave this "
                           "router.")):
            with self.subTest(link=link):
                variable = f"net/ipv4/conf/{link}/forwarding"
                self.run_inside(f"echo 0 > /proc/sys/{variable}")
                remedy = f"sysctl -w {variable}=1"
                self.assert_found(f"Packets that arrive on {link} are not forwarded: {variable} "
                                  "is 0.", why, remedy)
                self.run_inside(remedy)
                self.assert_nothing_wrong()

    def test_there_is_no_default_route(self):
        self.ip("route", "delete", "default")
        remedy = "ip route add default via GATEWAY dev wan0"
        self.assert_found("The main routing table has no default route.",
                          "Answers to the Internet may not leave this router.", remedy)
        self.run_inside(remedy.replace("GATEWAY", WAN_HOST))
        self.assert_nothing_wrong()

    def test_the_packet_filter_takes_bridged_packets_for_forwarded(self):
        if not os.path.exists(BRIDGE_FILTER):
            self.skipTest("br_netfilter is not loaded, and to load it would change this machine")
        self.run_inside(f"echo 1 > {BRIDGE_FILTER}")
        remedy = "sysctl -w net.bridge.bridge-nf-call-iptables=0"
        self.assert_found("The packet filter treats traffic within the bridge br-lan as "
                          "forwarded: net.bridge.bridge-nf-call-iptables is 1.",
                          "A host there cannot reach its own open port through the external "
                          "address.", remedy)
        self.run_inside(remedy)
        self.assert_nothing_wrong()


if __name__ == "__main__":
    unittest.main()
