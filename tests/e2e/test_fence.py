"""Where the packets of the services may go, whatever code runs in them."""

import contextlib
import errno
import os
import re
import socket
import time
import unittest

from support.name_server import NameServer
from support.netns import Namespace
from support.network import LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_HOST, WAN_LINK, wait_until
from support.router import RESOLVER_USER, SERVICE_USER
from support.router_case import RouterCase
from support.subscriber import Subscriber
from support.users import NOBODY, as_user

GROUP = "239.255.255.250"
OTHER_GROUP = "239.255.255.251"
ALL_HOSTS = "224.0.0.1"
PROBE_USER = 64041

PORT = 5431

# What a refused packet may take, far below any time-out of a connection.
AT_ONCE = 0.5

OPEN = "open"
REFUSED = "refused"


def outcome(action):
    """What becomes of a packet: OPEN, REFUSED at once, or the name of another error."""
    started = time.monotonic()
    try:
        action()
    except OSError as error:
        if error.errno not in (errno.ECONNREFUSED, errno.EPERM):
            return errno.errorcode.get(error.errno, str(error))
        taken = time.monotonic() - started
        return REFUSED if taken < AT_ONCE else f"refused after {taken:.1f} s"
    return OPEN


def tcp(address, port=PORT):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with socket.socket(family) as sock:
        sock.settimeout(5)
        sock.connect((address, port))


def udp(address, port=PORT, device=None):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with socket.socket(family, socket.SOCK_DGRAM) as sock:
        if device:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        sock.sendto(b"x", (address, port))


def is_connected(sock):
    established = 1  # TCP_ESTABLISHED, net/tcp_states.h
    return sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0] == established


class FenceCase(RouterCase):
    def as_user_of_router(self, user, *packets):
        """What becomes of each packet that a process of this user sends on the router."""
        with self.network.router.entered():
            return as_user(user, lambda: [outcome(packet) for packet in packets])

    def daemon_sends(self, *packets):
        return self.as_user_of_router(SERVICE_USER, *packets)

    def listen(self, namespace, address, port=PORT):
        """A listening socket until the end of the test."""
        listener = namespace.socket()
        self.addCleanup(listener.close)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((address, port))
        listener.listen(8)
        listener.setblocking(False)
        return listener

    def listener_of(self, user, address):
        """The same on the router, at a free port, of a process of that user."""
        with self.network.router.entered():
            os.seteuid(user)
            try:
                listener = socket.socket()
            finally:
                os.seteuid(0)
        self.addCleanup(listener.close)
        listener.bind((address, 0))
        listener.listen(8)
        listener.setblocking(False)
        return listener

    def refused(self):
        """How many IPv4 packets have been refused."""
        table = self.network.router.run("nft", "list", "chain", "ip", "lumen_fence", "refuse")
        return sum(int(packets) for packets in re.findall(r"counter packets (\d+)", table))

    def connect_guests(self):
        """A network at the router that it does not serve; returns the address of a host in it."""
        guest = Namespace()
        self.addCleanup(guest.close)
        self.network.router.link("guest0", guest, "eth0")
        self.network.router.ip("address", "add", "192.168.99.1/24", "dev", "guest0")
        guest.ip("address", "add", "192.168.99.10/24", "dev", "eth0")
        self.listen(guest, "192.168.99.10")
        return "192.168.99.10"


class CallbackTest(FenceCase):
    """Subscribers that make the gateway send where it should not."""

    def setUp(self):
        super().setUp()
        self.events = self.lan[0].connection_events()

    def subscribe(self, host, address, port=PORT):
        with Subscriber(self.lan[host].speak_to()) as subscriber:
            reply = subscriber.ask(self.events, callback=f"http://{address}:{port}/")
            return reply.status

    # Promise [fence-callbacks]: A callback that is no host of an internal network gets no packet:
    # not one on the Internet, in a network that is not served, or on the router itself.
    def test_callbacks_reach_hosts_of_internal_networks_only(self):
        guest = self.connect_guests()
        self.network.router.ip("link", "set", "guest0", "up")
        router = self.network.router
        called = {WAN_HOST: self.listen(self.wan.namespace, WAN_HOST),
                  WAN_ADDRESS: self.listen(router, WAN_ADDRESS),
                  LAN_ADDRESS: self.listen(router, LAN_ADDRESS),
                  "127.0.0.1": self.listen(router, "127.0.0.1")}
        for address in (*called, guest):
            # It is heard where nothing is fenced.
            self.assertEqual(self.as_user_of_router(NOBODY, lambda a=address: tcp(a)), [OPEN])
        for listener in called.values():
            listener.accept()[0].close()
        subscriptions = self.router.log().count("subscribe: ")
        for address in (*called, guest):
            # The gateway answers as always: it cannot know.
            self.assertEqual(self.subscribe(0, address), 200)
        self.assertEqual(self.router.log().count("subscribe: "), subscriptions + 5)
        # A subscriber in the LAN is delivered to after all that.
        with Subscriber(self.lan[1].speak_to()) as subscriber:
            subscriber.subscribe(self.events)
            self.assertEqual(subscriber.event().seq, 0)
        for address, listener in called.items():
            with self.subTest(address=address), self.assertRaises(BlockingIOError):
                listener.accept()

    # Also proves [fence-callbacks].
    def test_a_refused_delivery_is_logged_and_nothing_waits_for_it(self):
        self.assertEqual(self.subscribe(0, WAN_HOST), 200)
        wait_until(lambda: re.search("notify timeout|write failed|tcp connect: Connection refused",
                                     self.router.log()), "the delivery has failed", limit=2)


class FenceTest(FenceCase):
    """Code that runs as the gateway's user."""

    def setUp(self):
        super().setUp()
        for host in self.lan:
            self.listen(host.namespace, host.address)

    # Promise [fence]: The gateway's user sends to hosts in the networks of internal
    # interfaces and to the groups of SSDP and NAT-PMP there, and nowhere else: not to the router itself, not
    # by IPv6. What it may not send is refused at once.
    def test_the_gateways_user_reaches_internal_hosts_only(self):
        self.listen(self.wan.namespace, WAN_HOST)
        guest = self.connect_guests()
        lan = self.lan[0].address
        sent = [
            (OPEN, lambda: tcp(lan)),
            (OPEN, lambda: udp(lan)),
            (OPEN, lambda: udp(GROUP, 1900, LAN_BRIDGE)),
            (OPEN, lambda: udp(ALL_HOSTS, 5350, LAN_BRIDGE)),
            (REFUSED, lambda: udp("192.168.88.255")),
            (REFUSED, lambda: udp(GROUP, 1901, LAN_BRIDGE)),
            (REFUSED, lambda: udp(OTHER_GROUP, 1900, LAN_BRIDGE)),
            (REFUSED, lambda: udp(GROUP, 1900, WAN_LINK)),
            (REFUSED, lambda: udp(ALL_HOSTS, 1900, LAN_BRIDGE)),
            (REFUSED, lambda: udp(ALL_HOSTS, 5350, WAN_LINK)),
            (REFUSED, lambda: tcp(WAN_HOST)),
            (REFUSED, lambda: udp(WAN_HOST)),
            (REFUSED, lambda: udp(WAN_HOST, 53)),
            (REFUSED, lambda: tcp(guest)),
            (REFUSED, lambda: udp(guest)),
            (REFUSED, lambda: tcp("127.0.0.1", 2828)),
            (REFUSED, lambda: udp("127.0.0.1", 53)),
            (REFUSED, lambda: tcp(LAN_ADDRESS, 2828)),
            (REFUSED, lambda: tcp(WAN_ADDRESS)),
            (REFUSED, lambda: tcp("::1")),
            (REFUSED, lambda: udp("::1")),
        ]
        self.assertEqual(self.daemon_sends(*(packet for _, packet in sent)),
                         [result for result, _ in sent])

    # Promise: The packets of other users pass, whatever their service files grant.
    def test_other_users_are_not_fenced(self):
        self.listen(self.wan.namespace, WAN_HOST)
        self.listen(self.network.router, "127.0.0.1")
        self.listen(self.network.router, LAN_ADDRESS)
        guest = self.connect_guests()
        reached = [lambda: tcp(WAN_HOST), lambda: udp(WAN_HOST), lambda: tcp("127.0.0.1"),
                   lambda: tcp(LAN_ADDRESS), lambda: tcp(guest), lambda: udp("::1"),
                   lambda: udp(OTHER_GROUP, 1900, LAN_BRIDGE)]
        for user in (NOBODY, 0):
            self.assertEqual(self.as_user_of_router(user, *reached), [OPEN] * len(reached))
        self.assertEqual(self.refused(), 0)

    # Promise: The fence follows interfaces, their addresses and their roles.
    def test_it_follows_addresses_and_roles(self):
        def reached(address):
            return self.daemon_sends(lambda: udp(address)) == [OPEN]

        guest = self.connect_guests()
        self.assertFalse(reached(guest))
        self.router.lumenctl("upnp", "interface", "add", "guest0", "--role", "internal")
        self.assertTrue(reached(guest))
        self.network.router.ip("address", "add", "192.168.100.1/24", "dev", "guest0")
        wait_until(lambda: reached("192.168.100.7"), "a network that was added is reached")
        self.network.router.ip("address", "delete", "192.168.100.1/24", "dev", "guest0")
        self.network.router.ip("route", "add", "192.168.100.0/24", "dev", "guest0")
        wait_until(lambda: not reached("192.168.100.7"), "a network that has gone is not")
        self.network.router.ip("link", "set", "guest0", "down")
        self.network.router.ip("link", "set", "guest0", "name", "guest1")
        self.network.router.ip("link", "set", "guest1", "up")
        wait_until(lambda: not reached(guest), "the name is another one")
        self.network.router.ip("link", "set", "guest1", "down")
        self.network.router.ip("link", "set", "guest1", "name", "guest0")
        self.network.router.ip("link", "set", "guest0", "up")
        wait_until(lambda: reached(guest), "the name is back")
        self.router.lumenctl("interface", "forget", "guest0")
        self.assertFalse(reached(guest))
        self.assertTrue(reached(self.lan[0].address))

    # Promise: The fence goes with lumend, however that ends, and no other program can change
    # it meanwhile.
    def test_it_goes_with_lumend(self):
        for table in ("ip", "ip6"):
            with self.assertRaises(AssertionError):
                self.network.router.run("nft", "delete", "table", table, "lumen_fence")
        self.network.router.run("nft", "flush", "ruleset")
        self.assertEqual(self.daemon_sends(lambda: udp(WAN_HOST)), [REFUSED])
        self.router.kill()
        wait_until(lambda: self.daemon_sends(lambda: udp(WAN_HOST)) == [OPEN], "it has gone")
        self.assertEqual(self.network.router.run("nft", "list", "tables"), "")

    # Promise: What listens as the gateway's user on another than an internal
    # interface gets no connection: its answers are refused.
    def test_a_listener_on_the_wan_side_answers_nobody(self):
        listener = self.listener_of(SERVICE_USER, LAN_ADDRESS)
        with self.lan[0].namespace.socket() as client:
            client.settimeout(5)
            client.connect((LAN_ADDRESS, listener.getsockname()[1]))
        listener.accept()[0].close()
        self.assertEqual(self.refused(), 0)

        for user, answered in ((NOBODY, True), (SERVICE_USER, False)):
            listener = self.listener_of(user, WAN_ADDRESS)
            with self.wan.namespace.socket() as client:
                client.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    client.connect((WAN_ADDRESS, listener.getsockname()[1]))
                wait_until(lambda c=client: is_connected(c) or self.refused(),
                           "the connection is answered or the answer refused")
                self.assertEqual(is_connected(client), answered)
                if answered:
                    self.assertEqual(self.refused(), 0)
                    listener.accept()[0].close()
                else:
                    with self.assertRaises(BlockingIOError):
                        listener.accept()


class ResolverFenceTest(FenceCase):
    def setUp(self):
        super().setUp()
        self.server = NameServer(self.wan)
        self.addCleanup(self.server.close)
        self.events = self.lan[0].connection_events()

    def resolver_sends(self, *packets):
        return self.as_user_of_router(RESOLVER_USER, *packets)

    def is_found(self, name):
        """Whether a subscriber on the host of that name is accepted."""
        with Subscriber(self.lan[0].speak_to()) as subscriber:
            reply = subscriber.ask(self.events, callback=f"http://{name}:{subscriber.port}/")
            if reply.status == 200:
                subscriber.unsubscribe()
            return reply.status == 200

    # Promise [fence-resolver]: The resolver's user sends to port 53 of the resolver's name servers
    # and nowhere else. A change of the file of name servers counts from the next lookup on.
    def test_the_resolver_reaches_its_name_servers_only(self):
        self.server.hosts.update({"one.lan": self.lan[0].address, "two.lan": self.lan[0].address})
        self.listen(self.wan.namespace, WAN_HOST, 53)
        self.router.ask_name_server(WAN_HOST)
        self.assertTrue(self.is_found("one.lan"))
        lan = self.lan[0].address
        sent = [
            (OPEN, lambda: udp(WAN_HOST, 53)),
            (OPEN, lambda: tcp(WAN_HOST, 53)),
            (REFUSED, lambda: udp(WAN_HOST, 54)),
            (REFUSED, lambda: tcp(WAN_HOST, 80)),
            (REFUSED, lambda: udp("45.45.45.3", 53)),
            (REFUSED, lambda: udp(lan, 53)),
            (REFUSED, lambda: udp("127.0.0.1", 53)),
            (REFUSED, lambda: udp("::1", 53)),
            (REFUSED, lambda: udp(GROUP, 1900, LAN_BRIDGE)),
        ]
        self.assertEqual(self.resolver_sends(*(packet for _, packet in sent)),
                         [result for result, _ in sent])

        (self.router.root / "etc" / "resolv.conf").write_text(
            "nameserver 127.0.0.1\nnameserver ::1\n")
        self.assertFalse(self.is_found("two.lan"))
        self.assertEqual(self.resolver_sends(lambda: udp("127.0.0.1", 53), lambda: udp("::1", 53),
                                             lambda: udp("::1", 54), lambda: udp(WAN_HOST, 53)),
                         [OPEN, OPEN, REFUSED, REFUSED])


class UngrantedTest(FenceCase):
    """A service whose file does not say where it may send."""

    def test_a_service_without_the_key_sends_nothing(self):
        self.router.stop()
        (self.router.root / "etc" / "services" / "probe.ini").write_text(f"""[service]
name = probe
number = 90
executable = /bin/true
user = {PROBE_USER}
""")
        self.router.start()
        self.assertEqual(
            self.as_user_of_router(PROBE_USER, lambda: udp(self.lan[0].address),
                                   lambda: udp("127.0.0.1"), lambda: udp("::1"),
                                   lambda: udp(GROUP, 1900, LAN_BRIDGE)), [REFUSED] * 4)
        self.assertIn('probe: its service file has no "network", it may send no packets\n',
                      self.router.log())


if __name__ == "__main__":
    unittest.main()
