"""What runs out, in the kernel or in a program, and is there again later."""

import contextlib
import itertools
import json
import os
import resource
import signal
import socket
import time
import unittest

from support.lan import HTTP_PORT
from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, exchange_tcp,
                             tcp_refused)
from support.processes import descriptors, is_stopped, processor_time
from support.router import CommandFailed
from support.router_case import RouterCase
from support.small_disk import SmallDisk

NEW_WAN_ADDRESS = "45.45.45.9"
OVERRUN = "interfaces: changes were lost, reading everything again: No buffer space available"

NO_DESCRIPTORS = "accept: Too many open files"

# Netlink groups (linux/rtnetlink.h) of links and addresses: the socket that receives changes.
CHANGES = 0x1 | 0x10 | 0x100


class LostChangesTest(RouterCase):
    """lumend is stopped until the kernel has to drop changes of links and addresses."""

    def setUp(self):
        super().setUp()
        self.router.wait_until_controllable()
        self.lan[0].open_port(8080, "TCP")
        self.network.router.ip("link", "add", "old0", "type", "bridge")
        self.wait_until(lambda: self.router.interface("old0") or "old0" in self.links(),
                        "lumend knows the link that goes")

    def links(self):
        """What lumend lists: from each link's name to its addresses."""
        return {i["name"]: sorted(i["addresses"]) for i in self.router.ask("interface", "list")}

    def kernels_links(self):
        listed = json.loads(self.network.router.ip("-json", "-4", "address", "show"))
        addresses = {link["ifname"]: sorted(a["local"] for a in link["addr_info"])
                     for link in listed}
        names = (link["ifname"]
                 for link in json.loads(self.network.router.ip("-json", "link", "show")))
        return {name: addresses.get(name, []) for name in names if name != "lo"}

    def drops(self):
        """How many messages the kernel has dropped of those that lumend subscribed to."""
        with open(f"/proc/{self.router.lumend.pid}/net/netlink", encoding="ascii") as sockets:
            names = next(sockets).split()
            rows = [dict(zip(names, line.split())) for line in sockets]
        row, = (row for row in rows if row["Eth"] == "0" and int(row["Groups"], 16) == CHANGES)
        return int(row["Drops"])

    def ip_batch(self, *lines):
        batch = self.router.root / "batch"
        batch.write_text("\n".join(lines))
        self.network.router.ip("-batch", str(batch))

    def test_the_tables_match_the_kernel_after_an_overrun(self):
        self.router.lumend.send_signal(signal.SIGSTOP)
        self.wait_until(lambda: is_stopped(self.router.lumend.pid), "lumend stands still")
        flood = [f"address {change} 10.9.0.{n}/32 dev {LAN_BRIDGE}"
                 for change in ("add", "del") for n in range(1, 251)] * 4
        while not self.drops():
            self.ip_batch(*flood)
        # From here on the kernel drops every change.
        self.ip_batch(
            f"address del {WAN_ADDRESS}/24 dev {WAN_LINK}",
            f"address add {NEW_WAN_ADDRESS}/24 dev {WAN_LINK}",
            *(f"address add 10.9.1.{n}/32 dev {LAN_BRIDGE}" for n in range(1, 201)),
            "link del old0", "link add new0 type bridge", "address add 10.9.2.1/24 dev new0",
            "link set new0 up")
        self.router.lumend.send_signal(signal.SIGCONT)

        self.wait_until(lambda: OVERRUN in self.router.log(), "lumend notices")
        expected = self.kernels_links()
        self.assertEqual(expected[WAN_LINK], [NEW_WAN_ADDRESS])
        self.assertEqual(len(expected[LAN_BRIDGE]), 201)
        self.assertIn("new0", expected)
        self.assertNotIn("old0", expected)
        self.wait_until(lambda: self.links() == expected, "the tables are the kernel's")
        self.assertEqual(sorted(a["address"] for a in self.router.ask("address", "list")),
                         sorted(sum(expected.values(), [])))

        # The gateway was notified of what matters to it, and serves at its old address.
        host = self.lan[0]
        self.wait_until(lambda: host.invoke("GetExternalIPAddress")["NewExternalIPAddress"] ==
                        NEW_WAN_ADDRESS, "the gateway has the new external address")
        self.assertEqual(self.router.ports()["8080/tcp"]["state"], "stale")
        self.assertTrue(tcp_refused(self.wan, NEW_WAN_ADDRESS, 8080, host, 8080))
        host.open_port(8081, "TCP")
        exchange_tcp(self.wan, NEW_WAN_ADDRESS, 8081, host, 8081)

        # Changes arrive one by one again.
        self.network.router.ip("address", "del", "10.9.2.1/24", "dev", "new0")
        self.wait_until(lambda: self.links()["new0"] == [], "the change is seen")
        self.assertEqual(self.router.log().count("changes were lost"), 1)


class DescriptorTest(RouterCase):
    LIMIT = 40  # descriptors that each program of the router may have

    # A program tries to accept a client ten times a second, with a line each time.
    LINES, DURATION = 10, 1.0
    SHARE = 0.2  # of a processor, that this may take at most

    def setUp(self):
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (self.LIMIT, usual[1]))
        try:
            super().setUp()
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, usual)
        self.control = self.router.wait_until_controllable()
        self.clients = []
        self.addCleanup(self.let_clients_go)

    def use_up(self, pid, connect, line):
        """Connects clients to the process, one after the other, until it says again and again, by
        `line`, that it can accept no more. The last one waits."""
        while (used := len(descriptors(pid))) < self.LIMIT or not self.goes_on_saying(line):
            self.clients.append(connect())
            # Some that it has open for a moment may be closed just now.
            with contextlib.suppress(AssertionError):
                self.wait_until(lambda: len(descriptors(pid)) > used, "the client is accepted", 1.0)

    def goes_on_saying(self, line):
        said = self.times_said(line)
        with contextlib.suppress(AssertionError):
            self.wait_until(lambda: self.times_said(line) >= said + 3, "it says so again", 1.0)
            return True
        return False

    def times_said(self, line):
        return self.router.log().count(line + "\n")

    def let_clients_go(self):
        while self.clients:
            self.clients.pop().close()

    def connect_to_lumend(self):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        client.connect(str(self.router.root / "run" / "lumen.sock"))
        return client

    def assert_tries_calmly(self, pid, line):
        """The program says again and again that it cannot accept, and hardly does anything."""
        lines, computed, started = self.times_said(line), processor_time(pid), time.monotonic()
        self.wait_until(lambda: self.times_said(line) >= lines + self.LINES, "it tries again")
        elapsed = time.monotonic() - started
        self.assertGreater(elapsed, self.DURATION / 2)
        self.assertLess(processor_time(pid) - computed, self.SHARE * elapsed)

    def assert_let_go(self, pid, before):
        """The process has no more descriptors than before the clients came."""
        self.wait_until(lambda: len(descriptors(pid)) <= before, "nothing is left of the clients")

    def test_a_gateway_that_ran_out_of_descriptors_serves_again_when_some_are_free(self):
        gateway = self.router.gateway_pid()
        before = len(descriptors(gateway))
        self.lan[1].open_port(8080, "TCP", control=self.control)
        self.use_up(gateway, lambda: self.lan[0].connect(LAN_ADDRESS, HTTP_PORT), "accept failed")
        self.assert_tries_calmly(gateway, "accept failed")
        # What needs no new connection goes on.
        self.assertEqual(self.router.status()["gateway"], "on")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[1], 8080)

        self.let_clients_go()
        self.lan[1].open_port(8081, "TCP", control=self.control)
        exchange_tcp(self.wan, WAN_ADDRESS, 8081, self.lan[1], 8081)
        self.assert_let_go(gateway, before)
        self.assertEqual(self.router.gateway_pid(), gateway)

    # Promise [descriptors]: A lumend that ran out of descriptors serves, and starts services, when
    # it has some again.
    def test_a_lumend_that_ran_out_of_descriptors_serves_again_when_some_are_free(self):
        lumend = self.router.lumend.pid
        before = len(descriptors(lumend))
        self.use_up(lumend, self.connect_to_lumend, NO_DESCRIPTORS)
        self.assert_tries_calmly(lumend, NO_DESCRIPTORS)
        # The programs that are connected go on.
        host = self.lan[0]
        host.open_port(8080, "TCP", control=self.control)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)

        self.let_clients_go()
        self.assertIn("8080/tcp", self.router.ports())
        self.assert_let_go(lumend, before)

    # Also proves [descriptors].
    def test_a_gateway_that_ends_meanwhile_is_started_when_descriptors_are_free_again(self):
        gateway = self.router.gateway_pid()
        self.use_up(self.router.lumend.pid, self.connect_to_lumend, NO_DESCRIPTORS)
        # It leaves one descriptor to the client that waits, and none to those after it.
        self.clients += [self.connect_to_lumend() for _ in range(3)]
        os.kill(gateway, signal.SIGKILL)
        self.wait_until(lambda: "upnp: cannot be started" in self.router.log(), "lumend tries")
        self.let_clients_go()
        control = self.router.wait_until_controllable()
        self.lan[0].open_port(8080, "TCP", control=control)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)


class DiskTest(RouterCase):
    SET_UP = False

    def setUp(self):
        super().setUp()
        self.router.stop()
        self.disk = SmallDisk(str(self.router.root / "store"))
        self.addCleanup(self.disk.close)
        self.router.start()
        self.router.set_up()

    def assert_refused(self, reason, *command):
        with self.assertRaises(CommandFailed) as refused:
            self.router.lumenctl(*command)
        self.assertEqual(refused.exception.error, f"lumenctl: {reason}")

    def limit(self):
        return self.router.ask("nat", "policy")["max-rules"]

    def roles(self):
        return {i["name"]: i["role"] for i in self.router.ask("interface", "list")}

    # Also proves [object-store].
    def test_what_cannot_be_stored_is_refused_until_there_is_room(self):
        limit, roles = self.limit(), self.roles()
        self.disk.fill()
        self.assert_refused("the policy could not be stored", "nat", "policy", "set", "max-rules=7")
        self.assert_refused("the name could not be stored", "upnp", "interface", "add", "lan1",
                            "--role", "internal")
        self.assertEqual(self.limit(), limit)
        self.assertEqual(self.roles(), roles)
        self.disk.free()
        self.router.lumenctl("nat", "policy", "set", "max-rules=7")
        self.router.stop()
        self.router.start()
        self.router.wait_until_controllable()
        self.assertEqual(self.limit(), 7)
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)


if __name__ == "__main__":
    unittest.main()
