"""A host on the gateway's LAN: speaks SSDP, HTTP and SOAP from a namespace, byte for byte."""

import os
import select
import socket
import time

SSDP_GROUP = "239.255.255.250"
SSDP_PORT = 1900
# By this many times a machine may be slower than a usual one: an emulated one is.
SLOWDOWN = float(os.environ.get("PALINODE_SLOWDOWN", "1"))
HTTP_PORT = 2828


class Text:
    """An HTTP-shaped text: start line, fields in order, body."""

    def __init__(self, data):
        head, separator, self.body = data.partition(b"\r\n\r\n")
        if not separator:
            raise AssertionError(f"no end of the header: {data!r}")
        self.start_line, *lines = head.decode("latin-1").split("\r\n")
        self.fields = [tuple(line.split(": ", 1)) for line in lines]
        self.raw = data

    def names(self):
        return [name for name, _ in self.fields]

    def __getitem__(self, name):
        for field, value in self.fields:
            if field == name:
                return value
        raise AssertionError(f"no field {name} in {self.fields}")

    @property
    def status(self):
        return int(self.start_line.split(" ")[1])

    def __repr__(self):
        return repr(self.raw)


def search_request(target="ssdp:all"):
    """A well-formed M-SEARCH (UPnP Device Architecture 1.0, section 1.2.2)."""
    return (f"M-SEARCH * HTTP/1.1\r\nHOST: {SSDP_GROUP}:{SSDP_PORT}\r\n"
            f"MAN: \"ssdp:discover\"\r\nMX: 1\r\nST: {target}\r\n\r\n").encode()


def soap_envelope(action, arguments=(), service=""):
    """A control request's body (UPnP Device Architecture 1.0, section 3.2.1)."""
    inner = "".join(f"<{name}>{value}</{name}>" for name, value in arguments)
    return ('<?xml version="1.0"?>\r\n'
            '<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            f'<u:{action} xmlns:u="{service}">{inner}</u:{action}></s:Body></s:Envelope>')


def receive_texts(sock, count, limit=5.0):
    """Exactly `count` datagrams that arrive within `limit` seconds, in their order."""
    texts = []
    end = time.monotonic() + limit
    while len(texts) < count:
        readable, _, _ = select.select([sock], [], [], max(0, end - time.monotonic()))
        if not readable:
            raise AssertionError(f"{len(texts)} datagrams of {count} in {limit} s: {texts}")
        texts.append(Text(sock.recv(65536)))
    return texts


def pending_texts(sock):
    """What has arrived already."""
    texts = []
    while select.select([sock], [], [], 0)[0]:
        texts.append(Text(sock.recv(65536)))
    return texts


class LanHost:
    def __init__(self, namespace, link, address, gateway):
        self.namespace = namespace
        self.link = link
        self.address = address
        self.gateway = gateway

    def hear_adverts(self):
        """A socket that has joined the SSDP group; the caller closes it."""
        sock = self.namespace.socket(socket.SOCK_DGRAM)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(("", SSDP_PORT))
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                        socket.inet_aton(SSDP_GROUP) + socket.inet_aton(self.address))
        return sock

    def send_search(self, datagram):
        """Multicasts the datagram; its replies come to the socket returned. The caller closes it."""
        sock = self.namespace.socket(socket.SOCK_DGRAM)
        sock.bind((self.address, 0))
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(self.address))
        sock.sendto(datagram, (SSDP_GROUP, SSDP_PORT))
        return sock

    def search(self, datagram):
        """Every reply to the datagram. Searches are answered one after the other, so there are no
        more of them when a search sent later has its reply."""
        if isinstance(datagram, str):
            datagram = search_request(datagram)
        with self.send_search(datagram) as asked, \
                self.send_search(search_request("upnp:rootdevice")) as later:
            receive_texts(later, 1)
            return pending_texts(asked)

    def connect(self, port=HTTP_PORT, limit=10.0):
        """A connection. The gateway's queue holds one client: a SYN that finds it full is sent
        again after a second."""
        sock = self.namespace.socket()
        sock.settimeout(limit)
        try:
            sock.bind((self.address, 0))
            sock.connect((self.gateway, port))
        except BaseException:
            sock.close()
            raise
        return sock

    def exchange(self, data, limit=10.0):
        """Sends the bytes on a connection of their own; returns all that comes back to its end."""
        with self.connect(limit=limit) as sock:
            sock.sendall(data)
            return read_to_end(sock)

    def get(self, url, *fields):
        lines = "".join(f"{field}\r\n" for field in fields)
        return Text(self.exchange(f"GET {url} HTTP/1.1\r\n{lines}\r\n".encode()))

    def post_request(self, url, body, *fields, host=None):
        """The POST of the body with these fields besides HOST and CONTENT-LENGTH."""
        body = body.encode() if isinstance(body, str) else body
        lines = "".join(f"{field}\r\n" for field in fields)
        head = (f"POST {url} HTTP/1.1\r\nHOST: {host or f'{self.gateway}:{HTTP_PORT}'}\r\n{lines}"
                f"CONTENT-LENGTH: {len(body)}\r\n\r\n")
        return head.encode() + body

    def post(self, url, body, *fields, host=None):
        return Text(self.exchange(self.post_request(url, body, *fields, host=host)))

    def invocation(self, url, service, action, arguments=()):
        """The request that invokes an action of the service at its control URL."""
        return self.post_request(url, soap_envelope(action, arguments, service),
                                 'CONTENT-TYPE: text/xml; charset="utf-8"',
                                 f'SOAPACTION: "{service}#{action}"')

    def invoke(self, url, service, action, arguments=()):
        """Invokes an action; returns the reply."""
        return Text(self.exchange(self.invocation(url, service, action, arguments)))


def read_to_end(sock):
    parts = []
    while True:
        part = sock.recv(65536)
        if not part:
            return b"".join(parts)
        parts.append(part)
