"""What is left when a program of the router dies, or another program interferes."""

import os
import select
import signal
import unittest

from support.network import (LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, exchange_tcp, tcp_refused,
                             udp_refused)
from support.router import PROGRAMS
from support.router_case import RouterCase


class FailureTest(RouterCase):
    # Also proves [restart], [rules-die].
    def test_a_killed_gateway_leaves_no_port_open_and_is_started_again(self):
        host = self.lan[0]
        client = self.open_ports_with_a_flow(host)
        killed = self.router.gateway_pid()
        os.kill(killed, signal.SIGKILL)
        self.wait_until(lambda: not self.router.ports(), "no port is open")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080))
        self.wait_until(lambda: udp_refused(client, host, 5060), "the old flow is refused")
        self.assertNotIn("192.168.88.10", self.router.kernel_map())

        control = self.router.wait_until_controllable()
        self.assertNotIn(self.router.gateway_pid(), (0, killed))
        self.assertEqual(self.router.service()["restarts"], 1)
        host.open_port(8080, "TCP", control=control)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

    # Also proves [service-term], [kernel-gone].
    def test_a_killed_lumend_leaves_neither_table_nor_gateway(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        gateway = os.pidfd_open(self.router.gateway_pid())
        self.addCleanup(os.close, gateway)
        self.router.kill()
        self.assertTrue(select.select([gateway], [], [], 10.0)[0], "the gateway ends")
        self.wait_until(lambda: not self.router.kernel_map(), "the table is gone")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080))

        # What was set up is still so.
        self.router.start()
        self.router.wait_until_controllable()
        host.open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

    # Promise [lumend-end]: lumend ends in good order on SIGTERM and SIGINT, with 0.
    def test_lumend_leaves_nothing_when_it_ends_in_order(self):
        self.lan[0].open_port(8080, "TCP")
        gateway = self.router.gateway_pid()
        with self.lan[1].speak_to().hear_adverts() as adverts:
            adverts.settimeout(5)
            self.assertEqual(self.router.stop(), 0)
            self.assertIn(b"ssdp:byebye", adverts.recv(65536))
        self.assertFalse(os.path.exists(f"/proc/{gateway}"))
        self.assertEqual(self.router.kernel_map(), "")
        self.assertFalse((self.router.root / "run" / "lumen.sock").exists())

    # Also proves [kernel-owned].
    def test_no_other_program_can_change_the_open_ports(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        nft = self.router.namespace.run
        nft("nft", "add", "table", "ip", "theirs")
        nft("nft", "flush", "ruleset")
        self.assertNotIn("theirs", nft("nft", "list", "tables"))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
        for command in ("delete", "flush"):
            with self.assertRaises(AssertionError) as refused:
                nft("nft", command, "table", "ip", "lumen")
            self.assertIn("Operation not permitted", str(refused.exception))
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

    # Promise [kernel-others]: No other table of the kernel is touched.
    def test_other_tables_are_left_alone(self):
        nft = self.router.namespace.run
        nft("nft", "add table ip theirs; "
                   "add chain ip theirs input { type filter hook input priority 0; }")
        before = nft("nft", "list", "table", "ip", "theirs")
        self.lan[0].open_port(8080, "TCP")
        self.router.stop()
        self.assertEqual(nft("nft", "list", "ruleset"), before)

    # Also proves [one-table].
    def test_a_second_lumend_in_the_same_network_is_refused(self):
        root = self.router.root / "second"
        root.mkdir()
        (root / "etc").symlink_to(self.router.root / "etc")
        second = self.router.namespace.popen(str(PROGRAMS / "lumend"), "--root", str(root),
                                             stdout=-1, stderr=-2, text=True)
        said, _ = second.communicate(timeout=20)
        self.assertNotEqual(second.returncode, 0)
        self.assertIn("another lumend", said)
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)


class SwitchTest(RouterCase):
    SET_UP = False

    # Promise [no-network]: lumend opens no network socket: a router that is not set up has none.
    def test_a_router_that_is_not_set_up_opens_no_port(self):
        self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway ends by itself")
        for kind in ("tcp", "tcp6", "udp", "udp6", "raw", "raw6", "packet"):
            with self.subTest(kind=kind):
                file = f"/proc/net/{kind}"  # those of IPv6 are only there where IPv6 is
                sockets = self.network.router.run("sh", "-c", f"! [ -e {file} ] || cat {file}")
                self.assertEqual(sockets.splitlines()[1:], [])

    # Also proves [service-leave], [ctl-passive].
    def test_a_gateway_that_is_off_does_not_run_until_it_is_switched_on(self):
        self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway ends by itself")
        for _ in range(3):
            self.assertEqual(self.router.status()["gateway"], "off")
        self.assertEqual(self.router.gateway_pid(), 0)
        self.router.set_up()
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)

        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway ends by itself")
        self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080))
        status = self.router.status()
        self.assertEqual(status["gateway"], "off")
        self.assertEqual({(i["name"], i["role"]) for i in status["interfaces"]},
                         {(LAN_BRIDGE, "internal"), (WAN_LINK, "external")})
        self.assertEqual(status["ports"], [])
        self.assertEqual(self.router.gateway_pid(), 0)
        self.assertEqual(self.router.service()["restarts"], 0)

        self.router.lumenctl("upnp", "settings", "set", "enabled=on")
        self.router.wait_until_controllable()
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)


if __name__ == "__main__":
    unittest.main()
