"""Links and addresses of the router that change while ports are open."""

import re
import unittest

from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_HOST, WAN_LINK, SoapError,
                             exchange_tcp, tcp_refused)
from support.router_case import RouterCase


class LinkTest(RouterCase):
    SET_UP_OPTIONS = ("--allow-disconnect",)

    def setUp(self):
        super().setUp()
        self.control = self.router.wait_until_controllable()
        self.ip = self.network.router.ip

    def connection(self):
        """The state of the WAN connection as control points see it."""
        return self.lan[0].invoke("GetStatusInfo", control=self.control)["NewConnectionStatus"]

    def external_address(self):
        reply = self.lan[0].invoke("GetExternalIPAddress", control=self.control)
        return reply["NewExternalIPAddress"]

    def wait_for_connection(self, state):
        self.wait_until(lambda: self.connection() == state, f"the connection is {state}")

    def wait_for_external_address(self, address):
        self.wait_until(lambda: self.external_address() == address,
                        f"the external address is {address}")

    # Also proves [mapping-address], [port-stale].
    def test_ports_keep_the_wan_address_that_they_were_opened_on(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        self.ip("address", "delete", f"{WAN_ADDRESS}/24", "dev", WAN_LINK)
        self.ip("address", "add", "45.45.45.9/24", "dev", WAN_LINK)
        self.wait_for_external_address("45.45.45.9")
        host.open_port(8081, "TCP")
        ports = self.router.ports()
        self.assertEqual((ports["8080/tcp"]["address"], ports["8080/tcp"]["state"]),
                         (WAN_ADDRESS, "stale"))
        self.assertEqual((ports["8081/tcp"]["address"], ports["8081/tcp"]["state"]),
                         ("45.45.45.9", "open"))
        exchange_tcp(self.wan, "45.45.45.9", 8081, host, 8081)
        self.assertTrue(tcp_refused(self.wan, "45.45.45.9", 8080, host, 8080))

        self.ip("address", "add", f"{WAN_ADDRESS}/24", "dev", WAN_LINK)
        self.wait_until(lambda: self.router.ports()["8080/tcp"]["state"] == "open",
                        "the port is no longer stale")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        host.close_port(8080, "TCP")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080))

    def test_the_gateway_moves_with_its_lan_address(self):
        old, new = LAN_ADDRESS, "192.168.88.2"
        self.lan[0].open_port(8080, "TCP")
        with self.lan[1].speak_to().hear_adverts() as adverts:
            adverts.settimeout(5)
            self.ip("address", "add", f"{new}/24", "dev", LAN_BRIDGE)
            self.ip("address", "delete", f"{old}/24", "dev", LAN_BRIDGE)
            self.assertIn(b"ssdp:byebye", adverts.recv(65536))
            while b"ssdp:alive" not in (advert := adverts.recv(65536)):
                self.assertIn(b"ssdp:byebye", advert)
            self.assertIn(f"LOCATION: http://{new}:2828/gateway.xml".encode(), advert)
        found = self.lan[0].upnpc("-s", discover=True)
        self.assertIn(f"http://{new}:2828/gateway.xml", found)
        with self.assertRaises(OSError):
            self.lan[0].speak_to(old).get("/gateway.xml")
        # The ports stay; their hosts reach them as before.
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)
        self.lan[0].close_port(8080, "TCP", gateway=new)
        self.assertEqual(self.router.ports(), {})

    def test_a_wan_side_whose_link_returns_works_again(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        self.wait_for_connection("Connected")
        self.wan.namespace.ip("link", "set", "eth0", "down")
        self.wait_for_connection("Connecting")
        self.wait_for_external_address("0.0.0.0")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "no link")
        self.wan.namespace.ip("link", "set", "eth0", "up")
        self.wait_for_connection("Connected")
        self.wait_for_external_address(WAN_ADDRESS)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        host.open_port(8081, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8081, host, 8081)

    # Promise: A control point that takes the WAN side down and up again gets its link and its
    # routes back.
    # Also proves [routes-back].
    def test_a_control_point_takes_the_wan_side_down_and_up_with_its_routes(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        self.ip("route", "add", "default", "via", WAN_HOST)
        self.ip("route", "add", "198.51.100.0/24", "via", WAN_HOST, "table", "7")

        def routes():
            return re.findall(r"(\S+) via \S+ dev wan0",
                              self.ip("route", "show", "table", "all"))

        self.assertEqual(routes(), ["198.51.100.0/24", "default"])
        host.invoke("ForceTermination", control=self.control)
        self.wait_for_connection("Disconnected")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "down")
        self.assertEqual(routes(), [])
        host.invoke("RequestConnection", control=self.control)
        self.wait_for_connection("Connected")
        self.wait_until(lambda: sorted(routes()) == ["198.51.100.0/24", "default"],
                        "the routes are back")
        self.wait_for_external_address(WAN_ADDRESS)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

        self.router.lumenctl("upnp", "settings", "set", "allow-disable-external=off")
        with self.assertRaises(SoapError) as refused:
            host.invoke("ForceTermination", control=self.control)
        self.assertEqual(refused.exception.code, 501)
        self.assertEqual(self.connection(), "Connected")

    # Promise: A host that has the WAN side taken down in a row is refused the fourth time in a
    # minute with error 501; the link stays up, its routes are written once, and lumend says it once.
    # Also proves [link-limit].
    def test_a_host_takes_the_wan_side_down_three_times_a_minute(self):
        host = self.lan[0]
        self.ip("route", "add", "default", "via", WAN_HOST)
        saved = self.router.root / "store" / "interfaces" / "1"
        versions = set()
        for _ in range(3):
            host.invoke("ForceTermination", control=self.control)
            self.wait_for_connection("Disconnected")
            version = saved.stat()
            versions.add((version.st_ino, version.st_mtime_ns))
            host.invoke("RequestConnection", control=self.control)
            self.wait_for_connection("Connected")
            self.wait_until(lambda: self.ip("route", "show", "default"), "the route is back")
        self.assertEqual(len(versions), 1)
        for _ in range(50):
            with self.assertRaises(SoapError) as refused:
                host.invoke("ForceTermination", control=self.control)
            self.assertEqual(refused.exception.code, 501)
            host.invoke("RequestConnection", control=self.control)
        self.assertEqual(self.connection(), "Connected")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "running")
        lines = self.router.log().splitlines()
        self.assertEqual(len([line for line in lines if "interface wan0:" in line]), 1, lines)
        self.assertEqual(len([line for line in lines if "interface wan0 up" in line]), 3, lines)
        self.assertIn("disable device failed: the link was taken down 3 times in a minute, which "
                      "is as often as a service may", lines)

    # Also proves [link-index].
    def test_a_wan_link_that_is_deleted_and_created_again_works_again(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        number = {i["name"]: i["id"] for i in self.router.ask("interface", "list")}[WAN_LINK]
        self.network.disconnect_wan()
        self.wait_until(lambda: self.router.interface(WAN_LINK)["state"] == "away",
                        "the WAN link is away")
        self.assertEqual(self.router.ports()["8080/tcp"]["state"], "stale")
        self.wait_for_external_address("0.0.0.0")
        self.network.connect_wan()
        self.wait_until(lambda: self.router.interface(WAN_LINK)["state"] == "running",
                        "the WAN link is back")
        self.assertEqual(
            {i["name"]: i["id"] for i in self.router.ask("interface", "list")}[WAN_LINK], number)
        self.router.wait_until_controllable()
        self.wait_for_connection("Connected")
        self.wait_for_external_address(WAN_ADDRESS)
        # A link that redials is the same as before: what was opened on it is still open.
        self.assertEqual(self.router.ports()["8080/tcp"]["state"], "open")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        host.close_port(8080, "TCP")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 8080))
        host.open_port(8081, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8081, host, 8081)

    def test_a_lan_that_comes_up_late_is_announced(self):
        self.ip("link", "set", LAN_BRIDGE, "down")
        self.wait_until(lambda: self.router.interface(LAN_BRIDGE)["state"] == "down",
                        "the LAN is down")
        with self.lan[1].speak_to().hear_adverts() as adverts:
            adverts.settimeout(5)
            self.ip("link", "set", LAN_BRIDGE, "up")
            self.assertIn(b"ssdp:alive", adverts.recv(65536))
        self.router.wait_until_controllable()

    def test_roles_that_change_take_effect_at_once(self):
        self.lan[0].open_port(8080, "TCP")
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080))
        self.assertEqual(self.router.ports(), {})
        self.router.lumenctl("interface", "forget", WAN_LINK)
        self.assertIsNone(self.router.interface(WAN_LINK))
        self.router.set_up()
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)


if __name__ == "__main__":
    unittest.main()
