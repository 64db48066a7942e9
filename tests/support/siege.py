"""How long a host of the LAN waits for the gateway while another one attacks it."""

import contextlib
import os
import time

from support import attacks
from support.lan import HTTP_PORT, LanHost
from support.network import CONNECTION_SERVICE, LAN_ADDRESS

# That a service has which says nothing else, by systemd and by the kernel.
DESCRIPTORS = 1024

MILLISECONDS = 1000
KIB = 1024
# What the kernel keeps for clients that are just being answered.
BEING_READ = 16 * KIB


class Siege(contextlib.ExitStack):
    """A router that is set up, its hostile host and one that asks all the while. To be closed."""

    def __init__(self, router):
        super().__init__()
        self.router = router
        self.hostile, self.other = router.network.lan
        self.hostile.namespace.ip("route", "add", "local", attacks.CROWD_NETWORK, "dev", "lo")
        self.control = self.hostile.connection_control()
        self.events = self.hostile.connection_events()
        self.gateway = router.gateway_pid()

    def measure(self, seconds, attack=None, *arguments, settle=0):
        """Lets the other host ask beside the attack for so long, from `settle` seconds after its
        beginning on."""
        figures = Figures()
        before = self._resident()
        with contextlib.ExitStack() as attacking:
            if attack:
                attacking.enter_context(attacks.Worker(self.hostile, attack, *arguments))
            self._watch(figures, before, settle)
            with attacks.Bystander(self.other, self.control) as bystander:
                self._watch(figures, before, seconds)
                attacking.close()
                figures.waits = bystander.waits()
        return figures

    def _watch(self, figures, before, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            figures.note(len(os.listdir(self._of_gateway("fd"))), self._resident() - before,
                         self._unread())
            time.sleep(0.05)

    def accepted(self):
        """How many connections the router's kernel has completed since its start."""
        with open(self._of_gateway("net/snmp"), encoding="ascii") as counters:
            names, values = [line.split() for line in counters if line.startswith("Tcp:")]
        return int(values[names.index("PassiveOpens")])

    def change(self, number):
        """The request that opens a port, or closes it again for every other number."""
        host = LanHost(self.hostile.namespace, self.hostile.LINK, self.hostile.address, LAN_ADDRESS)
        port = [("NewRemoteHost", ""), ("NewExternalPort", 8080), ("NewProtocol", "TCP")]
        if number % 2:
            return host.invocation(self.control, CONNECTION_SERVICE, "DeletePortMapping", port)
        return host.invocation(self.control, CONNECTION_SERVICE, "AddPortMapping", port + [
            ("NewInternalPort", 80), ("NewInternalClient", self.hostile.address),
            ("NewEnabled", "1"), ("NewPortMappingDescription", ""), ("NewLeaseDuration", "0")])

    def silence_name_servers(self):
        """From now on the router's name server is a host that never answers."""
        self.enter_context(self.router.network.wan.udp(53))
        self.router.ask_name_server(self.router.network.wan.address)

    def largest_file(self):
        """The URL of the longest document that the gateway serves."""
        return self.control.replace("/upnp/control", "") + ".xml"

    def _of_gateway(self, what):
        return f"/proc/{self.gateway}/{what}"

    def _resident(self):
        """The gateway's memory in KiB."""
        with open(self._of_gateway("status"), encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

    def _unread(self):
        """Bytes that the kernel keeps until clients take them."""
        with open(self._of_gateway("net/tcp"), encoding="ascii") as sockets:
            next(sockets)
            rows = [line.split() for line in sockets]
        port = f"{HTTP_PORT:04X}"
        return sum(int(row[4].partition(":")[0], 16) for row in rows if row[1].endswith(port))


class Figures:
    HEAD = (
        " requests   median      99%    worst  > 50 ms   lost  descriptors   memory  unread     for",
        "                ms       ms       ms                                  KiB     KiB       s")

    def __init__(self):
        self.waits = []
        self.descriptors = 0
        self.memory = 0  # KiB more than before, at most
        self.unread = 0  # bytes, at most
        self._unread_since = self._unread_until = None

    def note(self, descriptors, memory, unread):
        self.descriptors = max(self.descriptors, descriptors)
        self.memory = max(self.memory, memory)
        self.unread = max(self.unread, unread)
        now = time.monotonic()
        if unread > BEING_READ:
            self._unread_since = self._unread_since or now
            self._unread_until = now

    @property
    def lost(self):
        """How many requests had no proper reply."""
        return sum(not wait.answered for wait in self.waits)

    def percentile(self, percent):
        """Seconds that so many of a hundred requests took at most."""
        return sorted(wait.seconds for wait in self.waits)[len(self.waits) * percent // 100]

    def __str__(self):
        taken = sorted(wait.seconds for wait in self.waits)
        unread_for = self._unread_until - self._unread_since if self._unread_since else 0
        return (f"{len(taken):9} {taken[len(taken) // 2] * MILLISECONDS:8.1f} "
                f"{self.percentile(99) * MILLISECONDS:8.1f} "
                f"{taken[-1] * MILLISECONDS:8.1f} {sum(wait > 0.05 for wait in taken):8} "
                f"{self.lost:6} {self.descriptors:12} {self.memory:8} {self.unread // KIB:7} "
                f"{unread_for:7.1f}")
