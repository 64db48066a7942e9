"""The network around a router: hosts on its LAN, a host on its WAN side, each in a network
namespace of its own. Addresses of the WAN side are ones that UPnP clients take for public; they
exist in the namespaces only.

    lan[0] 192.168.88.10 ─┐
                          br-lan 192.168.88.1  router  wan0 45.45.45.1 ── 45.45.45.2 wan
    lan[1] 192.168.88.11 ─┘
"""

import contextlib
import re
import select
import socket
import time
import urllib.parse
import xml.etree.ElementTree

from support.closing import Closing
from support.lan import SLOWDOWN, LanHost
from support.netns import Namespace

LAN_BRIDGE = "br-lan"
LAN_ADDRESS = "192.168.88.1"
LAN_HOSTS = ("192.168.88.10", "192.168.88.11")
WAN_LINK = "wan0"
WAN_ADDRESS = "45.45.45.1"
WAN_HOST = "45.45.45.2"

BRIDGE_FILTER = "/proc/sys/net/bridge/bridge-nf-call-iptables"

DESCRIPTION = "/gateway.xml"
CONNECTION_SERVICE = "urn:schemas-upnp-org:service:WANIPConnection:1"

# In seconds. Between namespaces an answer takes no time worth mentioning.
ANSWER_LIMIT = 5.0 * SLOWDOWN


def wait_until(condition, what, limit=10.0):
    """Looks again and again until `condition()` gives something true, and returns that. Raises
    AssertionError, which names `what`, after `limit` seconds of a usual machine."""
    limit *= SLOWDOWN
    end = time.monotonic() + limit
    pause = 0.005
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() >= end:
            raise AssertionError(f"waited {limit} s in vain: {what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.1)


class SoapError(Exception):
    """A control request that was answered with a fault; `code` is its UPnP error code."""

    def __init__(self, code, action):
        super().__init__(f"{action}: error {code}")
        self.code = code


class Host:
    """A computer with one cable."""

    def __init__(self, address):
        self.address = address
        self.namespace = Namespace()

    def listen(self, port):
        """A listening TCP socket."""
        listener = self.namespace.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.settimeout(ANSWER_LIMIT)
        listener.bind((self.address, port))
        listener.listen(8)
        return listener

    def udp(self, port=0, to=None):
        """A UDP socket. With `to`, an address and a port, it is connected, so that it learns when
        the other side refuses what it sent."""
        sock = self.namespace.socket(socket.SOCK_DGRAM)
        sock.settimeout(ANSWER_LIMIT)
        sock.bind((self.address, port))
        if to:
            sock.connect(to)
        return sock

    def connect(self, address, port):
        """A TCP connection. Raises ConnectionRefusedError, or TimeoutError without an answer."""
        sock = self.namespace.socket()
        sock.settimeout(ANSWER_LIMIT)
        try:
            sock.connect((address, port))
        except BaseException:
            sock.close()
            raise
        return sock

    def close(self):
        self.namespace.close()


class ControlPoint(Host):
    """A host on the LAN with programs that look for a gateway."""

    LINK = "eth0"

    def upnpc(self, *arguments, gateway=LAN_ADDRESS, discover=False):
        """Runs upnpc, a third-party control point; returns what it printed. With
        `discover` it looks for the gateway by multicast, which takes it two seconds."""
        where = [] if discover else ["-u", f"http://{gateway}:2828{DESCRIPTION}"]
        return self.namespace.run("upnpc", "-m", self.LINK, *where, *arguments)

    def speak_to(self, gateway=LAN_ADDRESS):
        """SSDP, HTTP and SOAP with the gateway, byte for byte."""
        return LanHost(self.namespace, self.LINK, self.address, gateway)

    def connection_control(self, gateway=LAN_ADDRESS):
        """The path at which the gateway's WANIPConnection service is controlled."""
        return self._connection_url("controlURL", gateway)

    def connection_events(self, gateway=LAN_ADDRESS):
        """The path at which the service's events are subscribed to."""
        return self._connection_url("eventSubURL", gateway)

    def _connection_url(self, which, gateway):
        description = self.speak_to(gateway).get(DESCRIPTION)
        if description.status != 200:
            raise AssertionError(f"no description: {description}")
        return service_path(description.body, CONNECTION_SERVICE, which)

    def invoke(self, action, arguments=(), gateway=LAN_ADDRESS, control=None):
        """Invokes an action of the WANIPConnection service; returns its out arguments. Raises
        SoapError when it is answered with a fault."""
        control = control or self.connection_control(gateway)
        reply = self.speak_to(gateway).invoke(control, CONNECTION_SERVICE, action, arguments)
        if reply.status == 200:
            body = xml.etree.ElementTree.fromstring(reply.body)
            return {out.tag: out.text or "" for out in body[0][0]}
        code = re.search(rb"<errorCode>(\d+)</errorCode>", reply.body)
        raise SoapError(int(code.group(1)) if code else reply.status, action)

    def open_port(self, port, protocol, internal_port=None, client=None, description="test",
                  **invocation):
        """Opens the port for this host, or for `client`."""
        self.invoke("AddPortMapping", [
            ("NewRemoteHost", ""), ("NewExternalPort", port), ("NewProtocol", protocol),
            ("NewInternalPort", internal_port or port),
            ("NewInternalClient", client or self.address), ("NewEnabled", "1"),
            ("NewPortMappingDescription", description), ("NewLeaseDuration", "0")], **invocation)

    def close_port(self, port, protocol, **invocation):
        self.invoke("DeletePortMapping", [("NewRemoteHost", ""), ("NewExternalPort", port),
                                          ("NewProtocol", protocol)], **invocation)


def service_path(description, service_type, which):
    """A URL of the first service of that type in a root description."""
    root = xml.etree.ElementTree.fromstring(description)
    namespace = root.tag[: root.tag.index("}") + 1] if "}" in root.tag else ""
    for service in root.iter(f"{namespace}service"):
        if service.findtext(f"{namespace}serviceType") == service_type:
            return urllib.parse.urlsplit(service.findtext(f"{namespace}{which}")).path
    return None


class Network(Closing):
    """The hosts and cables of the picture above. Everything of it ends with close, or with the
    process."""

    def __init__(self):
        with contextlib.ExitStack() as undo:
            self.router = Namespace()
            undo.callback(self.router.close)
            self.wan = Host(WAN_HOST)
            undo.callback(self.wan.close)
            self.lan = []
            for address in LAN_HOSTS:
                self.lan.append(ControlPoint(address))
                undo.callback(self.lan[-1].close)
            self._wire()
            self._undo = undo.pop_all()

    def _wire(self):
        # The second as distributions set it: the other addresses of a link outlive its first one.
        for setting in ("ip_forward", "conf/all/promote_secondaries"):
            self.router.run("sh", "-c", f"echo 1 > /proc/sys/net/ipv4/{setting}")
        self.router.ip("link", "add", LAN_BRIDGE, "type", "bridge")
        for number, host in enumerate(self.lan):
            port = f"lan{number}"
            self.router.link(port, host.namespace, ControlPoint.LINK)
            self.router.ip("link", "set", port, "master", LAN_BRIDGE)
            host.namespace.ip("address", "add", f"{host.address}/24", "dev", ControlPoint.LINK)
            host.namespace.ip("route", "add", "default", "via", LAN_ADDRESS)
        self.router.ip("link", "set", LAN_BRIDGE, "up")
        self.router.ip("address", "add", f"{LAN_ADDRESS}/24", "dev", LAN_BRIDGE)
        self.connect_wan()

    def connect_wan(self, *addresses):
        """Plugs the WAN cable in, with these addresses on the router's side."""
        self.router.link(WAN_LINK, self.wan.namespace, "eth0")
        for address in addresses or (WAN_ADDRESS,):
            self.router.ip("address", "add", f"{address}/24", "dev", WAN_LINK)
        self.wan.namespace.ip("address", "add", f"{self.wan.address}/24", "dev", "eth0")

    def let_bridge_alone(self):
        """Packets that only cross the bridge are no business of the router's packet filter. It is
        the kernel's default, unless a program has loaded br_netfilter."""
        self.router.run("sh", "-c", f"[ ! -e {BRIDGE_FILTER} ] || echo 0 > {BRIDGE_FILTER}")

    def disconnect_wan(self):
        """Takes the WAN link out of the router."""
        self.router.ip("link", "delete", WAN_LINK)

    def close(self):
        self._undo.close()


def exchange_tcp(sender, address, port, receiver, receiver_port, seen_as=None):
    """Sends bytes from the host `sender` through `address`:`port` to the host `receiver`, which
    sees its address or `seen_as`, and back."""
    with receiver.listen(receiver_port) as listener, sender.connect(address, port) as connection:
        accepted, peer = listener.accept()
        with accepted:
            accepted.settimeout(ANSWER_LIMIT)
            if peer[0] != (seen_as or sender.address):
                raise AssertionError(f"came from {peer[0]}")
            for data, out, back in ((b"tcp there", connection, accepted),
                                    (b"tcp back", accepted, connection)):
                out.send(data)
                got = back.recv(100)
                if got != data:
                    raise AssertionError(f"sent {data}, got {got}")


def exchange_udp(sender, receiver, receiver_port, seen_as=None):
    """Sends bytes from the connected UDP socket `sender` to the host `receiver`, which sees its
    address or `seen_as`, and back."""
    with receiver.udp(receiver_port) as sock:
        sender.send(b"udp there")
        data, peer = sock.recvfrom(100)
        if data != b"udp there" or peer[0] != (seen_as or sender.getsockname()[0]):
            raise AssertionError(f"got {data} from {peer}")
        sock.sendto(b"udp back", peer)
        if sender.recv(100) != b"udp back":
            raise AssertionError("got something else back")


def tcp_refused(sender, address, port, receiver, receiver_port):
    """Whether a connection from the host `sender` is refused, although the host `receiver` would
    take it."""
    with receiver.listen(receiver_port):
        try:
            sender.connect(address, port).close()
            return False
        except ConnectionRefusedError:
            return True


def udp_refused(sender, receiver, receiver_port):
    """Whether what the connected UDP socket `sender` sends is refused, although the host `receiver`
    would take it."""
    with receiver.udp(receiver_port) as sock:
        sender.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)  # forgets earlier refusals
        sender.send(b"anybody there?")
        readable, _, _ = select.select([sender, sock], [], [], ANSWER_LIMIT)
        if sock in readable or not readable:
            return False
        try:
            sender.recv(100)
            return False
        except ConnectionRefusedError:
            return True
