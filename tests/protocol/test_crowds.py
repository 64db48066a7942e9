"""One host that takes as much as it can get, beside another that only asks."""

import resource
import select
import socket
import time

from event_case import CONNECTION, EventCase
from gateway_case import GATEWAY
from support.lan import HTTP_PORT, LanHost, Text, read_to_end
from support.network import wait_until
from support.processes import descriptors

LISTENING = "0A"  # TCP_LISTEN of linux/include/net/tcp_states.h
REQUEST = b"GET /gateway.xml HTTP/1.1\r\n\r\n"


class CrowdCase(EventCase):
    """The daemon has few descriptors. The hostile host has its own address, the other one the first
    of the crowd's."""

    DESCRIPTORS = 128

    def setUp(self):
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (self.DESCRIPTORS, usual[1]))
        try:
            super().setUp()  # starts the daemon, which inherits it
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, usual)
        self.other = LanHost(self.lan.namespace, self.lan.link, "192.168.88.128", GATEWAY)
        self.assertEqual(self.other.get("/gateway.xml").status, 200)
        self.before = len(descriptors(self.daemon.pid))

    def connect(self, host):
        """A connection that the daemon has accepted: the queue has room for the next one."""
        client = host.connect()
        self.addCleanup(client.close)
        wait_until(lambda: self.queue() == 0, "the connection is accepted")
        return client

    def queue(self):
        """How many connections wait to be accepted, by proc(5)."""
        waiting, = (row[4].partition(":")[2] for row in self.sockets() if row[3] == LISTENING)
        return int(waiting, 16)

    def sockets(self):
        """The fields of the router's TCP sockets in proc(5)'s net/tcp."""
        with open(f"/proc/{self.daemon.pid}/net/tcp", encoding="ascii") as sockets:
            next(sockets)
            return [line.split() for line in sockets]

    def held(self):
        """How many descriptors the daemon has for its clients."""
        return len(descriptors(self.daemon.pid)) - self.before

    def assert_other_is_answered(self):
        before = time.monotonic()
        self.assertEqual(self.other.get("/gateway.xml").status, 200)
        self.assertLess(time.monotonic() - before, 0.9)


class Connections(CrowdCase):
    # Also proves [connections-limit].
    def test_a_host_that_holds_connections_keeps_no_other_out(self):
        waiting = self.connect(self.other)
        since = self.log_mark()
        held = [self.connect(self.lan) for _ in range(200)]
        self.assert_other_is_answered()
        self.assertLessEqual(self.held(), 64)
        # There was room for 62 beside the two of the other host.
        self.assertTrue(closed_of(held) == held[:138], "the oldest are closed")
        # The other host's are not, however old they are.
        waiting.sendall(REQUEST)
        self.assertEqual(Text(read_to_end(waiting)).status, 200)
        self.assert_logged(since)

    # Also proves [request-memory].
    def test_a_host_with_large_requests_displaces_its_own(self):
        waiting = self.connect(self.other)
        waiting.sendall(REQUEST[:10])
        since = self.log_mark()
        head = b"POST / HTTP/1.1\r\nCONTENT-LENGTH: 65450\r\n\r\n"
        large = []
        for _ in range(60):
            large.append(self.connect(self.lan))
            large[-1].sendall(head + b"x" * (65536 - 4096))
        self.assert_other_is_answered()
        self.assertGreaterEqual(len(closed_of(large)), 60 - 33)
        self.assertLessEqual(self.held(), 34)
        waiting.sendall(REQUEST[10:])
        self.assertEqual(Text(read_to_end(waiting)).status, 200)
        self.assert_logged(since)


class Replies(CrowdCase):
    SIZE = 16384

    def setUp(self):
        super().setUp()
        with open(f"{self.folder}/etc/upnp/osinfo.xml", "wb") as file:
            file.write(b"x" * self.SIZE)

    def unread(self):
        """How many bytes the router keeps for clients that do not take them, by proc(5)."""
        return sum(int(row[4].partition(":")[0], 16) for row in self.sockets()
                   if row[3] != LISTENING)

    def connect_with_small_window(self, host):
        client = host.namespace.socket()
        self.addCleanup(client.close)
        client.settimeout(10)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        client.bind((host.address, 0))
        client.connect((GATEWAY, HTTP_PORT))
        client.sendall(b"GET /osinfo.xml HTTP/1.1\r\n\r\n")
        return client

    # Promise [reply-unread]: The memory of a reply that its client does not take is free again ten
    # seconds later.
    def test_replies_that_are_not_read_are_given_up_after_ten_seconds(self):
        clients = [self.connect_with_small_window(self.lan) for _ in range(20)]
        wait_until(lambda: self.unread() > 15 * (self.SIZE - 5000), "the replies wait")
        written = time.monotonic()
        self.assert_other_is_answered()
        wait_until(lambda: self.unread() == 0, "the memory is free", limit=14)
        self.assertGreater(time.monotonic() - written, 7)
        for client in clients:
            with self.assertRaises(ConnectionError):
                read_to_end(client)


class Subscribers(CrowdCase):
    DESCRIPTORS = 256

    # Also proves [event-limit], [event-places], [event-dropped].
    def test_subscribers_that_take_nothing_keep_no_other_out(self):
        good = self.informed(99)
        since = self.log_mark()
        for number in range(1, 99):
            self.subscriber(number).subscribe(CONNECTION)
        for seq in range(1, 61):
            self.change_address(f"45.45.45.{100 + seq}")
            event = good.event()
            self.assertEqual((event.seq, event.properties),
                             (seq, {"ExternalIPAddress": f"45.45.45.{100 + seq}"}))
            self.assertLessEqual(self.held(), 164)
        self.assert_other_is_answered()
        said = self.daemon.log()[since:self.log_mark()]
        self.assertNotIn("accept failed", said)
        self.assertFalse([line for line in said if line.startswith("tcp socket: ")])
        self.assertIn("notify dropped: ExternalIPAddress", said)


def closed_of(clients):
    """Those whose connection the daemon has closed."""
    poller = select.poll()
    for client in clients:
        poller.register(client, select.POLLIN)
    closed = {fd for fd, _ in poller.poll(0)}
    return [client for client in clients if client.fileno() in closed]
