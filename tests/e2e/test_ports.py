"""Ports that programs on the LAN open, and what hosts on the WAN side get of them."""

import contextlib
import select
import socket
import unittest

from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, SoapError,
                             exchange_tcp, exchange_udp, tcp_refused, udp_refused)
from support.router import CommandFailed
from support.router_case import RouterCase


class PortTest(RouterCase):
    # Promise [mapping-reach]: A host on the WAN gets through an open TCP or UDP port to the
    # internal client, and is refused when the port is closed.
    # Also proves [known-clients], [kernel-element], [flows-end].
    def test_a_control_point_finds_the_gateway_and_opens_and_closes_ports(self):
        host = self.lan[0]
        found = host.upnpc("-s", discover=True)
        self.assertIn("http://192.168.88.1:2828/gateway.xml", found)
        self.assertIn("Found valid IGD", found)
        self.assertIn(f"ExternalIPAddress = {WAN_ADDRESS}", found)
        self.assertIn("Status : Connected", found)

        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 80))
        self.assertTrue(udp_refused(self.wan_udp(5060), host, 5061))
        opened = host.upnpc("-e", "web", "-a", host.address, "80", "8080", "TCP")
        self.assertIn(f"external {WAN_ADDRESS}:8080 TCP is redirected to internal "
                      f"{host.address}:80", opened)
        host.upnpc("-e", "phone", "-a", host.address, "5061", "5060", "UDP")

        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 80)
        client = self.wan_udp(5060)
        exchange_udp(client, host, 5061)

        listed = host.upnpc("-l")
        self.assertRegex(listed, r"TCP +8080->192\.168\.88\.10:80 +'web'")
        self.assertRegex(listed, r"UDP +5060->192\.168\.88\.10:5061 +'phone'")
        self.assertIn("Dummy inactive rule for windows to work", listed)
        status = self.router.lumenctl("status")
        self.assertRegex(status, r"Gateway: on")
        self.assertRegex(status, r"wan0 +external +running +45\.45\.45\.1")
        self.assertRegex(status, r"br-lan +internal +running +192\.168\.88\.1")
        self.assertRegex(status, r"8080/tcp +45\.45\.45\.1 +192\.168\.88\.10:80 +open")
        self.assertRegex(status, r"5060/udp +45\.45\.45\.1 +192\.168\.88\.10:5061 +open")
        for port in self.router.ports().values():
            self.assertEqual(port["connections"], 1, port)
        kernel = self.router.kernel_map()
        self.assertRegex(kernel, r"45\.45\.45\.1 \. tcp \. 8080 .*: 192\.168\.88\.10 \. 80\b")
        self.assertRegex(kernel, r"45\.45\.45\.1 \. udp \. 5060 .*: 192\.168\.88\.10 \. 5061\b")

        host.upnpc("-d", "8080", "TCP")
        host.upnpc("-d", "5060", "UDP")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 80))
        self.assertTrue(udp_refused(self.wan_udp(5060), host, 5061))
        # From the same source port: the flow does not outlive its port.
        self.wait_until(lambda: udp_refused(client, host, 5061), "the old flow is refused")
        self.assertEqual(self.router.ports(), {})
        self.assertNotIn("192.168.88.10", self.router.kernel_map())

    def test_a_flow_that_began_before_its_port_was_opened_is_forwarded(self):
        client = self.wan_udp(5060)
        self.assertTrue(udp_refused(client, self.lan[0], 5060))
        self.lan[0].open_port(5060, "UDP")
        with self.lan[0].udp(5060) as receiver:
            def arrives():
                with contextlib.suppress(ConnectionRefusedError):  # of what was sent before
                    client.send(b"hello")
                return select.select([receiver], [], [], 0.05)[0]

            self.wait_until(arrives, "the flow gets through")
            self.assertEqual(receiver.recvfrom(100), (b"hello", client.getsockname()))

    # Also proves [flows-tcp].
    def test_a_connection_outlives_its_port(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        with host.listen(8080) as listener, self.wan.connect(WAN_ADDRESS, 8080) as connection:
            accepted, _ = listener.accept()
            with accepted:
                host.close_port(8080, "TCP")
                connection.send(b"still there?")
                self.assertEqual(accepted.recv(100), b"still there?")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 8080))

    # Also proves [fault-718], [port-taken].
    def test_two_hosts_cannot_have_the_same_port(self):
        first, second = self.lan
        first.open_port(8080, "TCP")
        with self.assertRaises(SoapError) as refused:
            second.open_port(8080, "TCP")
        self.assertEqual(refused.exception.code, 718)
        with self.assertRaises(AssertionError) as failed:
            second.upnpc("-a", second.address, "80", "8080", "TCP")
        self.assertIn("failed with code 718 (ConflictInMappingEntry)", str(failed.exception))
        second.open_port(8080, "UDP")
        second.open_port(8081, "TCP", 8080)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, first, 8080)
        exchange_tcp(self.wan, WAN_ADDRESS, 8081, second, 8080)
        first.close_port(8080, "TCP")
        second.open_port(8080, "TCP", 80)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, second, 80)

    # Also proves [mapping-change].
    def test_the_same_host_may_change_its_port(self):
        host = self.lan[0]
        host.open_port(8080, "TCP", 80)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 80)
        host.open_port(8080, "TCP", 81)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 81)
        self.assertEqual(self.router.ports()["8080/tcp"]["connections"], 2)

    def test_the_connections_of_a_port_are_counted(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        host.open_port(5060, "UDP")
        for _ in range(3):
            exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        client = self.wan_udp(5060)
        for _ in range(5):
            exchange_udp(client, host, 5060)
        ports = self.router.ports()
        self.assertEqual(ports["8080/tcp"]["connections_so_far"], 3)
        self.assertEqual(ports["5060/udp"]["connections_so_far"], 1, "a flow is one connection")
        self.assertEqual(ports["8080/tcp"]["owner"], "upnp")
        self.assertRegex(self.router.lumenctl("nat", "list"),
                         r"(?m)^PORT .* OPEN FOR +CONNECTIONS +SO FAR +OPENED BY\n(.*\n)?"
                         r"8080/tcp .* open +\d+ s +\d +3 +upnp$")
        host.open_port(8080, "TCP", 81)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 81)
        self.router.lumenctl("nat", "close", "8080/tcp")
        self.assertEqual(self.router.ports()["8080/tcp"]["connections_so_far"], 4,
                         "neither a change nor its end makes it forget")

    # Also proves [client-broadcast].
    def test_policy_refuses_ports_and_clients_with_a_reason(self):
        host = self.lan[0]
        self.network.router.ip("address", "add", "192.168.88.53/32", "dev", "lo")
        for port, client in ((80, host.address), (8080, "192.168.88.1"), (8080, "8.8.8.8"),
                             (8080, self.wan.address), (8080, "192.168.88.255"),
                             (8080, "192.168.88.53")):
            with self.subTest(port=port, client=client), self.assertRaises(SoapError) as refused:
                host.open_port(port, "TCP", client=client)
            self.assertEqual(refused.exception.code, 501)
        self.assertEqual(self.router.log().count("add nat failed: "), 6)
        self.router.lumenctl("nat", "policy", "set", "internal-clients=192.168.88.0/24")
        with self.assertRaises(SoapError):
            host.open_port(8080, "UDP", client="192.168.88.255")
        self.assertEqual(self.router.ports(), {})

    def refused(self, **port):
        with self.assertRaises(SoapError) as refused:
            self.lan[0].open_port(8080, "TCP", **port)
        self.assertEqual(refused.exception.code, 501)

    # Also proves [policy-default], [policy-clients].
    def test_no_port_leads_into_a_network_that_is_not_internal(self):
        isolated = "192.168.99.10"
        self.network.router.ip("link", "add", "dmz0", "type", "bridge")
        self.network.router.ip("link", "set", "dmz0", "up")
        self.network.router.ip("address", "add", "192.168.99.1/24", "dev", "dmz0")
        self.wait_until(lambda: any(a["interface"] == "dmz0"
                                    for a in self.router.ask("address", "list")),
                        "the platform knows the network")
        self.refused(client=isolated)
        self.assertIn(f"internal client {isolated} is not allowed by the policy", self.router.log())
        for clients in ("dmz0", "internal,dmz0", "connected", "192.168.99.0/24"):
            with self.subTest(clients=clients):
                self.router.lumenctl("nat", "policy", "set", f"internal-clients={clients}")
                self.lan[0].open_port(8080, "TCP", client=isolated)
                self.lan[0].close_port(8080, "TCP")
        self.router.lumenctl("nat", "policy", "set", "internal-clients=dmz0")
        self.refused(client=self.lan[0].address)
        self.router.lumenctl("nat", "policy", "reset")
        self.router.lumenctl("upnp", "interface", "add", "dmz0", "--role", "internal")
        self.lan[0].open_port(8080, "TCP", client=isolated)

    def listen(self, kind, address, device=None):
        """A socket of a program of the router at port 8443, until the end of the test."""
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        sock = self.network.router.socket(kind, family)
        self.addCleanup(sock.close)
        if device:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
        sock.bind((address, 8443))
        if kind == socket.SOCK_STREAM:
            sock.listen()
        return sock

    def opens(self, protocol):
        """Whether the port is opened; it is closed again then."""
        try:
            self.lan[0].open_port(8443, protocol, 80)
        except SoapError as refused:
            self.assertEqual(refused.code, 501)
            return False
        self.lan[0].close_port(8443, protocol)
        return True

    # Also proves [router-ports].
    def test_the_routers_own_ports_are_not_taken_from_its_programs(self):
        tcp, udp = socket.SOCK_STREAM, socket.SOCK_DGRAM
        for kind, address, device, own in (
                (tcp, "0.0.0.0", None, True), (tcp, WAN_ADDRESS, None, True), (tcp, "::", None, True),
                (tcp, f"::ffff:{WAN_ADDRESS}", None, True), (tcp, "0.0.0.0", WAN_LINK, True),
                (udp, "0.0.0.0", None, True), (udp, WAN_ADDRESS, None, True), (udp, "::", None, True),
                (tcp, "127.0.0.1", None, False), (tcp, LAN_ADDRESS, None, False),
                (tcp, "0.0.0.0", LAN_BRIDGE, False), (udp, LAN_ADDRESS, None, False),
                (udp, "::1", None, False)):
            protocol, other = ("TCP", "UDP") if kind == tcp else ("UDP", "TCP")
            with self.subTest(protocol=protocol, address=address, device=device):
                sock = self.listen(kind, address, device)
                self.assertEqual(self.opens(protocol), not own)
                self.assertTrue(self.opens(other))
                sock.close()
                self.assertTrue(self.opens(protocol))
        self.listen(tcp, "0.0.0.0")
        self.assertFalse(self.opens("TCP"))
        self.assertRegex(self.router.log(), f"add nat failed: .*tcp port 8443 of {WAN_ADDRESS} is "
                         "this router's own: .* listens there")
        self.assertRegex(self.router.lumenctl("status").splitlines()[-1],
                         f"^Refused .* to 192[.]168[.]88[.]1[01]:[0-9]+: tcp port 8443 of "
                         f"{WAN_ADDRESS} is this router's own: .* listens there$")
        self.router.lumenctl("nat", "policy", "set", "router-ports=8443")
        self.assertTrue(self.opens("TCP"))

    # Also proves [internal-ports].
    def test_ports_of_administration_stay_closed(self):
        for port in (22, 445, 3389):
            with self.assertRaises(SoapError) as refused:
                self.lan[0].open_port(8080, "TCP", port, client=self.lan[1].address)
            self.assertEqual(refused.exception.code, 501)
        self.router.lumenctl("nat", "policy", "set", "internal-ports=22")
        self.lan[0].open_port(8080, "TCP", 22, client=self.lan[1].address)

    def open_all(self, host, first, most):
        """Opens ports from `first` on for the host until one is refused, at most `most`; returns how
        many are open."""
        control = host.connection_control()
        for count in range(most):
            try:
                host.open_port(first + count, "TCP", control=control)
            except SoapError as refused:
                self.assertEqual(refused.code, 501)
                return count
        return most

    # Also proves [mapping-client-limit], [mapping-kept-places].
    def test_a_host_that_takes_all_it_gets_leaves_places_for_others(self):
        greedy, other = self.lan
        self.assertEqual(self.open_all(greedy, 10000, 200), 128)
        self.router.lumenctl("nat", "policy", "set", "max-rules=172")
        self.assertEqual(self.open_all(other, 20000, 200), 8)
        self.assertEqual(self.open_all(other, 30000, 200), 0)
        self.assertIn("the last 43 places are kept for clients that have fewer than 8",
                      self.router.log())

    # Also proves [port-closed], [ctl-close].
    def test_the_administrator_closes_a_port(self):
        host = self.lan[0]
        client = self.open_ports_with_a_flow(host)
        self.router.lumenctl("nat", "close", "8080/tcp")
        self.router.lumenctl("nat", "close", "5060/udp")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 8080))
        self.wait_until(lambda: udp_refused(client, host, 5060), "the old flow is refused")
        self.assertEqual({p["state"] for p in self.router.ports().values()}, {"closed"})
        host.close_port(8080, "TCP")
        host.close_port(5060, "UDP")
        self.assertEqual(self.router.ports(), {})
        with self.assertRaises(CommandFailed) as refused:
            self.router.lumenctl("nat", "close", "8080/tcp")
        self.assertEqual(refused.exception.status, 1)

    # Promise [known-clients]: Other programs find the gateway: nmap's UPnP discovery shows its
    # server, location and name, and `upnpc` finds it.
    def test_nmap_recognises_the_gateway(self):
        nmap = self.lan[0].namespace.run
        seen = nmap("nmap", "-e", self.lan[0].LINK, "--script", "broadcast-upnp-info")
        self.assertIn("Server: Palinode/", seen)
        self.assertIn("Location: http://192.168.88.1:2828/gateway.xml", seen)
        self.assertIn("Name: Kestrava Router", seen)
        # The script for one host takes answers only from port 1900; ours come from another.
        # All that it can see is that a program listens.
        seen = nmap("nmap", "-sU", "-p", "1900", "-Pn", "-n", "--script", "upnp-info",
                    "192.168.88.1")
        self.assertRegex(seen, r"1900/udp open\|filtered upnp")


if __name__ == "__main__":
    unittest.main()
