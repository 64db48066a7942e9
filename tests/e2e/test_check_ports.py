"""lumenctl upnp check of the gateway's own ports, and of open ports that have become useless."""

import os
import socket
import unittest

from support.administrator import run_inside
from support.check_case import CheckCase, finding
from support.network import LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_HOST, WAN_LINK, exchange_tcp

NOT_LISTENING = (
    f"The gateway does not listen at 2828/tcp on {LAN_BRIDGE}.",
    "Its hosts cannot reach the gateway, which tries to listen only when it starts there "
    "(journalctl -t palinode-igd shows why it failed).",
    f"lumenctl upnp interface set {LAN_BRIDGE} --enable")


class CheckPortsTest(CheckCase):
    def listen(self, kind, port):
        """A program of the router, this one, at that port, until the end of the test."""
        sock = self.network.router.socket(kind)
        self.addCleanup(sock.close)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(("", port))
        if kind == socket.SOCK_STREAM:
            sock.listen()
        return sock

    # Also proves [ctl-check-ports].
    def test_another_program_uses_the_gateways_ports(self):
        with open("/proc/self/comm", encoding="utf-8") as comm:
            this = f"{comm.read().strip()} (process {os.getpid()})"
        for kind, port, why in (
                (socket.SOCK_DGRAM, "1900/udp",
                 "The gateway may not hear the programs that search for it."),
                (socket.SOCK_STREAM, "2828/tcp",
                 "The gateway may not be able to serve the description that programs read "
                 "first.")):
            with self.subTest(port=port):
                self.router.lumenctl("upnp", "settings", "set", "enabled=off")
                self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway has ended")
                sock = self.listen(kind, int(port.split("/")[0]))
                self.router.lumenctl("upnp", "settings", "set", "enabled=on")
                expected = finding(f"{this} uses port {port}, which the gateway needs.", why,
                                   f"stop it: systemctl status {os.getpid()} shows what started "
                                   "it")
                if kind == socket.SOCK_STREAM:
                    expected += finding(*NOT_LISTENING, number=2)
                self.assertEqual(self.last_of_checks(expected), expected)
                sock.close()
                if kind == socket.SOCK_STREAM:
                    self.assert_found(*NOT_LISTENING)
                    self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
                self.assert_nothing_wrong()

    # Also proves [ctl-check-listens].
    def test_a_gateway_that_found_its_port_taken_listens_again_by_the_command_that_is_named(self):
        self.lan[0].open_port(8080, "TCP")
        self.router.stop()
        sock = self.listen(socket.SOCK_STREAM, 2828)
        self.router.start()
        self.wait_until(lambda: "tcp bind: Address already in use" in self.router.log(),
                        "the gateway misses its port")
        sock.close()
        self.assert_found(*NOT_LISTENING)
        for where in ("outside", "inside"):
            printed = (self.router.lumenctl("status") if where == "outside" else
                       run_inside(self.router, "status")[1])
            self.assertRegex(printed, r"\AGateway: not reachable \(process \d+; lumenctl upnp check "
                             r"shows why\)\n")
        self.assertEqual(self.router.status()["gateway"], "not reachable")
        with self.assertRaises(ConnectionRefusedError):
            self.lan[0].connect(LAN_ADDRESS, 2828)
        self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
        self.assert_nothing_wrong()
        self.assertEqual(self.router.status()["gateway"], "on")
        self.lan[0].open_port(8081, "TCP")

    # Also proves [ctl-check-listens].
    def test_the_command_that_makes_the_gateway_listen_leaves_ports_open(self):
        self.lan[0].open_port(8080, "TCP")
        self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)

    # Also proves [ctl-check-listens].
    def test_a_gateway_that_listens_on_one_of_two_networks(self):
        self.ip("link", "add", "br-guest", "type", "bridge")
        self.ip("link", "add", "guest0", "type", "veth", "peer", "name", "guest1")
        self.ip("link", "set", "guest0", "master", "br-guest", "up")
        self.ip("link", "set", "guest1", "up")
        self.ip("link", "set", "br-guest", "up")
        self.ip("address", "add", "192.168.99.1/24", "dev", "br-guest")
        taken = self.network.router.socket(socket.SOCK_STREAM)
        self.addCleanup(taken.close)
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"br-guest\0")
        taken.bind(("", 2828))
        taken.listen()
        self.router.lumenctl("upnp", "interface", "add", "br-guest", "--role", "internal")
        self.wait_until(lambda: "tcp bind: Address already in use" in self.router.log(),
                        "the gateway misses its port")
        taken.close()
        remedy = "lumenctl upnp interface set br-guest --enable"
        self.assert_found(NOT_LISTENING[0].replace(LAN_BRIDGE, "br-guest"), NOT_LISTENING[1], remedy)
        self.assertRegex(run_inside(self.router, "status")[1],
                         r"\AGateway: on \(process \d+; not reachable on br-guest, lumenctl upnp "
                         r"check shows why\)\n")
        self.router.lumenctl(*remedy.split()[1:])
        self.assert_nothing_wrong()

    def test_ports_are_stale(self):
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].open_port(8081, "UDP")
        self.ip("address", "flush", "dev", WAN_LINK)
        self.ip("address", "add", "45.45.45.9/24", "dev", WAN_LINK)
        self.ip("route", "add", "default", "via", WAN_HOST)
        why = ("No host reaches them until the programs that opened them close and open them again, "
               "or the address is back.")
        what = "This router no longer has the address of some open ports (45.45.45.1): "
        remedy = ("restart these programs; for ports that stay, lumenctl upnp settings set "
                "enabled=off, then enabled=on, closes all")
        self.assert_found(f"{what}8080/tcp, 8081/udp.", why, remedy)
        self.lan[0].close_port(8080, "TCP")
        self.assert_found(f"{what}8081/udp.", why, remedy)
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.router.lumenctl("upnp", "settings", "set", "enabled=on")
        self.wait_until(lambda: self.router.gateway_pid() != 0, "the gateway is back")
        self.assert_nothing_wrong()


if __name__ == "__main__":
    unittest.main()
