"""What the tests of events have in common."""

from gateway_case import GATEWAY, WAN, WAN_ADDRESS, WAN_ADDRESS_ID, GatewayCase
from scripted_platform import address
from support.lan import LanHost
from support.subscriber import Subscriber
from test_control import CONTROL, IP_CONNECTION, mapping

CONNECTION = f"/upnp/event/wanipconn-{WAN}"
LINK = f"/upnp/event/wancommonifc-{WAN}"
OS_INFO = "/upnp/event/osinfo"

# The evented variables of a WAN connection that has just been started, in the order of the event.
# The number of mappings counts the dummy from the first change on.
INITIAL = {"ConnectionStatus": "Connected", "ExternalIPAddress": WAN_ADDRESS,
           "PortMappingNumberOfEntries": "0", "PossibleConnectionTypes": "IP_Routed"}


def notify(subscriber, seq, **properties):
    """The bytes of a NOTIFY (UPnP Device Architecture 1.0, section 4.2.1)."""
    inner = "".join(f"  <e:property>\r\n    <{name}>{value}</{name}>\r\n  </e:property>\r\n"
                    for name, value in properties.items())
    body = (f'<e:propertyset xmlns:e="urn:schemas-upnp-org:event-1-0">\r\n{inner}'
            "</e:propertyset>\r\n")
    return (f"NOTIFY {subscriber.path} HTTP/1.1\r\n"
            f"HOST: {subscriber.host.address}:{subscriber.port}\r\nCONTENT-TYPE: text/xml\r\n"
            f"CONTENT-LENGTH: {len(body)}\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\n"
            f"SID: {subscriber.sid}\r\nSEQ: {seq}\r\n\r\n{body}").encode()


class EventCase(GatewayCase):
    """The LAN host has the addresses from .128 up besides its own."""

    def setUp(self):
        super().setUp()
        self.lan.namespace.ip("route", "add", "local", "192.168.88.128/25", "dev", "lo")
        self.serve()

    def subscriber(self, number=None, **options):
        """One on the host's own address, or on its `number`-th other one; until the test ends."""
        host = self.lan
        if number is not None:
            host = LanHost(host.namespace, host.link, f"192.168.88.{128 + number}", GATEWAY)
        made = Subscriber(host, **options)
        self.addCleanup(made.close)
        return made

    def informed(self, number=None, url=CONNECTION, **options):
        """A subscriber that has had its initial event."""
        made = self.subscriber(number, **options)
        made.subscribe(url)
        self.assertEqual(made.event().seq, 0)
        return made

    def change_address(self, text):
        """The platform gives the WAN side another address."""
        self.notify_addresses(address(WAN_ADDRESS_ID, WAN, text))

    def invoke(self, action, arguments=()):
        reply = self.lan.invoke(CONTROL, IP_CONNECTION, action, arguments)
        self.assertEqual(reply.status, 200, reply)

    def open_port(self, port):
        self.invoke("AddPortMapping", mapping(port=str(port)))
