"""What every end-to-end test has: a network, a router at work in it, and a look at what is left of
them afterwards."""

import glob
import os
import sys
import unittest

from support.network import WAN_ADDRESS, Network, exchange_udp, wait_until
from support.router import Router


class RouterCase(unittest.TestCase):
    """Each test starts with a router that is set up, or only runs when `SET_UP` is false."""

    SET_UP = True
    SET_UP_OPTIONS = ()
    PRIVATE = None  # see Router

    def setUp(self):
        self.router = self.make_router()
        self.network = self.router.network
        self.wan = self.network.wan
        self.lan = self.network.lan

    def make_router(self):
        """A router in its own network, until the end of the test."""
        network = Network()
        self.addCleanup(self._close_network, network)
        router = Router(network, private=self.PRIVATE)
        self.addCleanup(self._close_router, router)
        if self.SET_UP:
            router.set_up(*self.SET_UP_OPTIONS)
        return router

    def wan_udp(self, port, address=WAN_ADDRESS):
        """A UDP socket of the WAN host that is connected to the router's port, until the end of the
        test."""
        sock = self.wan.udp(to=(address, port))
        self.addCleanup(sock.close)
        return sock

    def open_ports_with_a_flow(self, host):
        """Opens TCP port 8080 and UDP port 5060 for the host. Returns the WAN side's socket of a flow
        through the second, until the end of the test."""
        host.open_port(8080, "TCP")
        host.open_port(5060, "UDP")
        client = self.wan_udp(5060)
        exchange_udp(client, host, 5060)
        return client

    def assert_powerless(self, pid, name, user):
        """The process is that program, and has no right but to be that user."""
        with open(f"/proc/{pid}/status", encoding="ascii") as status:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in status)
        self.assertEqual(fields["Name"], name)
        for ids in ("Uid", "Gid"):
            self.assertEqual(fields[ids].split(), [str(user)] * 4)
        self.assertLessEqual(set(fields["Groups"].split()), {str(user)})
        for capabilities in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
            self.assertEqual(int(fields[capabilities], 16), 0, capabilities)
        self.assertEqual(fields["NoNewPrivs"], "1")

    def wait_until(self, condition, what, limit=10.0):
        return wait_until(condition, what, limit)

    def _close_router(self, router):
        result = self._outcome.result
        if any(test is self for test, _ in result.failures + result.errors):
            print(router.log(), file=sys.stderr)
        root = str(router.root)
        router.close()
        self.assertFalse(os.path.exists(root), "the root folder is left")
        wait_until(lambda: not mounts_of(root), f"no mount of {root} is left")

    def _close_network(self, network):
        hosts = [network.router, network.wan.namespace]
        hosts += [host.namespace for host in network.lan]
        inodes = {os.stat(namespace.path).st_ino for namespace in hosts}
        wait_until(lambda: not programs_in(inodes), "no program is left")
        network.close()


def programs_in(inodes):
    """The processes whose network namespace is one of these."""
    found = []
    for path in glob.glob("/proc/[0-9]*/ns/net"):
        try:
            if os.stat(path).st_ino in inodes:
                found.append(path)
        except OSError:
            pass
    return found


def mounts_of(root):
    """The processes that see a mount of the folder."""
    found = []
    for path in glob.glob("/proc/[0-9]*/mountinfo"):
        try:
            with open(path, encoding="utf-8") as mounts:
                if any(root in line for line in mounts):
                    found.append(path)
        except OSError:
            pass
    return found
