"""Programs of the router that are killed while hosts on the LAN open and close ports."""

import contextlib
import json
import os
import random
import select
import signal
import subprocess
import unittest

from support.lan import read_to_end
from support.mappings import Mappings
from support.network import (CONNECTION_SERVICE, WAN_ADDRESS, WAN_LINK, exchange_tcp, exchange_udp,
                             tcp_refused, udp_refused)
from support.router import PROGRAMS
from support.router_case import RouterCase, programs_in

ROUNDS, OPERATIONS = 10, 500
# After the last kill of a round ports are opened again, so that there is something to compare.
QUIET_END = 50
# What happens is chosen by this number; when it happens is up to the machine.
SEED = int(os.environ.get("PALINODE_SEED", "1"))

GATEWAY, LUMEND = "gateway", "lumend"


class CrashTest(RouterCase):
    @staticmethod
    def children(pid):
        with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
            return [int(child) for child in children.read().split()]

    def setUp(self):
        super().setUp()
        print(f"PALINODE_SEED={SEED}")
        self.random = random.Random(SEED)
        self.mappings = Mappings(self.random, [host.address for host in self.lan])
        self.kills = {GATEWAY: 0, LUMEND: 0}
        self.duration = 0.005  # of an operation, in seconds
        self.network.router.run("sh", "-c", "echo 0 > /proc/sys/net/ipv4/icmp_ratelimit")
        self.askers = []
        self.gateway = None
        self.find_gateway()
        self.addCleanup(lambda: os.close(self.gateway))
        self.control = self.router.wait_until_controllable()
        self.stored = self.files("store")

    # The story.

    # Promise [kill-consistent]: When either program is killed in the middle of mapping operations
    # the kernel's map holds exactly what the daemon lists afterwards.
    def test_programs_killed_during_mapping_operations_leave_nothing(self):
        for number in range(ROUNDS):
            strikes = self.plan()
            for operation in range(OPERATIONS):
                if operation in strikes:
                    self.strike(strikes[operation])
                else:
                    self.mappings.next().invoke(self.random.choice(self.lan), self.control)
            with self.subTest(round=number):
                self.assert_consistent()
        self.assert_ports_carry()
        print(f"{ROUNDS * OPERATIONS} operations, killed: {self.kills}")
        self.assertGreaterEqual(min(self.kills.values()), 10)

    # Also proves [flows-killed].
    def test_flows_end_with_their_ports_however_lumend_ends(self):
        """Beside the masquerading of a usual router, which keeps translated flows going."""
        self.network.router.run(
            "nft", "add table ip theirs; "
                   "add chain ip theirs out { type nat hook postrouting priority srcnat; }; "
                   f"add rule ip theirs out oifname {WAN_LINK} masquerade")
        for end in (self.router.stop, self.router.kill):
            with self.subTest(end.__name__):
                flows = [self.begin_flow(port) for port in (5060, 5061, 5062)]
                end()
                if end == self.router.stop:
                    self.assert_refused(flows)
                self.router.start()
                self.recover()
                self.assert_refused(flows)
                self.wait_until(lambda: not self.files("run/udp"), "nothing is to be looked at")

    # What is killed, and when.

    def plan(self):
        """What to kill during which operations of a round."""
        victims = [[GATEWAY], [LUMEND],
                   self.random.choice(([GATEWAY], [LUMEND], [GATEWAY, LUMEND],
                                       [LUMEND, GATEWAY]))]
        self.random.shuffle(victims)
        return dict(zip(self.random.sample(range(OPERATIONS - QUIET_END), len(victims)), victims))

    def strike(self, victims):
        """Kills the victims at a random moment of the next operation; returns when the router works
        again."""
        tcp = min((m for m in self.mappings.enabled() if m[1] == "tcp"), default=None)
        flows = [self.begin_flow(5060)]
        host = self.lan[0].speak_to()
        operation = self.mappings.next()
        request = host.invocation(self.control, CONNECTION_SERVICE, operation.action,
                                  operation.arguments)
        with host.connect() as connection:
            connection.sendall(request)
            select.select([connection], [], [], self.random.uniform(0, 2 * self.duration))
            for victim in victims:
                self.kill(victim)
            with contextlib.suppress(OSError):
                read_to_end(connection)
        if LUMEND in victims:
            self.restart_lumend()
        self.recover()
        self.mappings.table.clear()
        self.assert_consistent()
        self.assert_refused(flows)
        if tcp:
            port, _, client, client_port = tcp
            host = next(h for h in self.lan if h.address == client)
            self.assertTrue(tcp_refused(self.wan, WAN_ADDRESS, port, host, client_port))

    def kill(self, victim):
        self.kills[victim] += 1
        if victim == LUMEND:
            self.router.kill()
        else:
            with contextlib.suppress(ProcessLookupError):  # ended with lumend
                signal.pidfd_send_signal(self.gateway, signal.SIGKILL)

    def restart_lumend(self):
        """As an init system does, at once. Now and then the new one is killed as well."""
        while self.random.random() < 0.25:
            self.router.launch()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.router.lumend.wait(self.random.uniform(0, 0.1))
            self.kill(LUMEND)
        self.router.start()

    def recover(self):
        """Waits until the router works again. Now and then the new gateway is killed as well."""
        self.wait_until_ended()
        while self.random.random() < 0.25:
            self.find_gateway()
            self.wait_until_ended(limit=self.random.uniform(0, 0.05))
            self.kill(GATEWAY)
            self.wait_until_ended()
        self.find_gateway()
        self.control = self.router.wait_until_controllable()
        for asking in self.askers:
            asking.wait(30)
        self.askers.clear()

    def wait_until_ended(self, limit=10.0):
        """Waits for the gateway's end; with another limit it need not come."""
        ended = select.select([self.gateway], [], [], limit)[0]
        self.assertTrue(ended or limit < 10.0, "the gateway has not ended")

    def find_gateway(self):
        """Notes the process of the gateway that runs or starts now."""
        if self.gateway is not None:
            os.close(self.gateway)
        self.pid = self.wait_until(self.starts, "the gateway is started")
        self.gateway = os.pidfd_open(self.pid)

    def starts(self):
        """The gateway's process. It need not wait for longer and longer before it starts again: an
        administrator asks it something."""
        service = self.router.service()
        if service["state"] == "waiting":
            self.askers.append(subprocess.Popen(
                [PROGRAMS / "lumenctl", "--root", self.router.root, "upnp", "settings"],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        return service["process"]

    # What there must be.

    def assert_consistent(self):
        """The kernel, the platform and the gateway have the same ports open, those that were
        opened; and there are no processes and files but those of a router at work."""
        table = self.mappings.table
        self.assertEqual(self.kernel_entries(), self.mappings.enabled())
        self.assertEqual(
            {(p["port"], p["protocol"], p["client"], p["client_port"], p["state"])
             for p in self.router.ask("nat", "list")},
            {(port, protocol.lower(), m.client, m.internal_port,
              "open" if m.enabled else "disabled") for (port, protocol), m in table.items()})
        for index in range(len(table) + 2):
            self.mappings.listing(index).invoke(self.lan[0], self.control)

        self.assertEqual(self.router.gateway_pid(), self.pid)
        lumend = self.router.lumend.pid
        # What is off leaves a second after lumend has started it.
        self.wait_until(lambda: self.children(lumend) == [self.pid], "the gateway alone is left")
        router = os.stat(self.network.router.path).st_ino
        self.assertEqual({int(path.split("/")[2]) for path in programs_in({router})},
                         {lumend, self.pid})

        marks = {f"{WAN_ADDRESS}:{port}" for port, protocol, _, _ in self.mappings.enabled()
                 if protocol == "udp"}
        self.wait_until(lambda: self.files("run/udp") == marks, "flows have been looked at")
        self.assertEqual(self.files("run"),
                         {"lumen.sock", "lumend.lock", "pcp.lock", "upnp.lock", "web.lock",
                          "udp"} |
                         {f"udp/{mark}" for mark in marks})
        self.assertEqual(self.files("store"), self.stored)

    def kernel_entries(self):
        listed = self.network.router.run("nft", "-j", "list", "map", "ip", "lumen", "forwards")
        entries = set()
        for entry, client in json.loads(listed)["nftables"][1]["map"].get("elem", []):
            address, protocol, port = entry["elem"]["val"]["concat"]
            self.assertEqual(address, WAN_ADDRESS)
            entries.add((port, protocol, *client["concat"]))
        return entries

    def files(self, folder):
        folder = self.router.root / folder
        return {str(path.relative_to(folder)) for path in folder.rglob("*")}

    def begin_flow(self, port):
        """A UDP flow from the WAN host through the port, which is opened for it."""
        host = self.lan[0]
        self.mappings.table.pop((port, "UDP"), None)
        host.open_port(port, "UDP", control=self.control)
        client = self.wan_udp(port)
        exchange_udp(client, host, port)
        return port, client

    def assert_refused(self, flows):
        for port, client in flows:
            self.wait_until(lambda: udp_refused(client, self.lan[0], port), "the flow is refused")

    def assert_ports_carry(self):
        for protocol in ("tcp", "udp"):
            port, _, address, client_port = next(m for m in sorted(self.mappings.enabled())
                                                 if m[1] == protocol)
            client = next(host for host in self.lan if host.address == address)
            if protocol == "tcp":
                exchange_tcp(self.wan, WAN_ADDRESS, port, client, client_port)
            else:
                exchange_udp(self.wan_udp(port), client, client_port)


if __name__ == "__main__":
    unittest.main()
