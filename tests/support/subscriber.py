"""A control point that subscribes to events (UPnP Device Architecture 1.0, section 4), byte for
byte. Deliveries wait in the queue of its listening socket until the test takes them."""

import contextlib
import select
import socket
import struct
import xml.etree.ElementTree

from support.closing import Closing
from support.lan import HTTP_PORT, SLOWDOWN, Text

OK = b"HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n"


class Delivery(Closing):
    """A connection on which the gateway delivers."""

    def __init__(self, connection):
        self._connection = connection

    def read(self, at_once=65536):
        """The NOTIFY that comes over it, read in parts of `at_once` bytes at most."""
        data = b""
        while not _complete(data):
            part = self._connection.recv(at_once)
            if not part:
                raise AssertionError(f"the gateway closed after {data!r}")
            data += part
        return Notify(data)

    def answer(self, data=OK):
        self._connection.sendall(data)

    def wait_for_end(self, limit):
        """Waits for the gateway's end of the connection; a reset when it has not read all."""
        self._connection.settimeout(limit)
        with contextlib.suppress(ConnectionResetError):
            if self._connection.recv(1):
                raise AssertionError("the gateway sent more than a NOTIFY")

    def close(self):
        self._connection.close()

    def reset(self):
        self._connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._connection.close()


class Notify(Text):
    """A NOTIFY; `properties` are the variables that it names, with their values."""

    def __init__(self, data):
        super().__init__(data)
        root = xml.etree.ElementTree.fromstring(self.body)
        self.properties = {variable.tag: variable.text or "" for each in root for variable in each}

    @property
    def seq(self):
        return int(self["SEQ"])


class Subscriber(Closing):
    """Listens from its making to close. Subscribes to one event URL at a time."""

    def __init__(self, host, path="/events", port=0, queue=256):
        """`host` is the LanHost that it is on. `queue` deliveries can wait."""
        self.host = host
        self.path = path
        self.url = None
        self.sid = None
        self._listener = host.namespace.socket()
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind((host.address, port))
        self._listener.listen(queue)
        self.port = self._listener.getsockname()[1]

    @property
    def callback(self):
        return f"http://{self.host.address}:{self.port}{self.path}"

    def make_window_small(self):
        """From now on little of a NOTIFY gets across before it is read."""
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)

    # Towards the gateway.

    def request(self, method, url, *fields):
        lines = "".join(f"{field}\r\n" for field in fields)
        return Text(self.host.exchange(f"{method} {url} HTTP/1.1\r\nHOST: {self.host.gateway}:"
                                       f"{HTTP_PORT}\r\n{lines}\r\n".encode()))

    def ask(self, url, *fields, callback=None):
        """Sends a SUBSCRIBE for a new subscription, without expecting a certain reply."""
        reply = self.request("SUBSCRIBE", url, f"CALLBACK: <{callback or self.callback}>",
                             "NT: upnp:event", *fields)
        if reply.status == 200:
            self.url, self.sid = url, reply["SID"]
        return reply

    def subscribe(self, url, *fields, callback=None):
        reply = self.ask(url, *fields, callback=callback)
        if reply.status != 200:
            raise AssertionError(f"not subscribed: {reply}")
        return reply

    def renew(self, *fields):
        return self.request("SUBSCRIBE", self.url, f"SID: {self.sid}", *fields)

    def unsubscribe(self):
        return self.request("UNSUBSCRIBE", self.url, f"SID: {self.sid}")

    # From the gateway.

    def is_called(self, limit=0.0):
        """Whether a delivery waits to be taken."""
        return bool(select.select([self._listener], [], [], limit)[0])

    def take(self, limit=5.0):
        """The next delivery. The caller closes it."""
        limit *= SLOWDOWN
        if not self.is_called(limit):
            raise AssertionError(f"no delivery to {self.callback} within {limit} s")
        connection, _ = self._listener.accept()
        connection.settimeout(limit)
        return Delivery(connection)

    def event(self, limit=5.0):
        """The next event, which is answered as it should be."""
        with self.take(limit) as delivery:
            notify = delivery.read()
            delivery.answer()
            return notify

    def stop_listening(self):
        """From now on connections to it are refused."""
        self._listener.close()

    close = stop_listening


def _complete(data):
    head, separator, body = data.partition(b"\r\n\r\n")
    if not separator:
        return False
    length = next(line.partition(b":")[2] for line in head.split(b"\r\n")
                  if line.upper().startswith(b"CONTENT-LENGTH:"))
    return len(body) >= int(length)
