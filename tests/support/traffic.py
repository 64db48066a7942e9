"""Everything that may happen to a router, in laps: each lap has some traffic of every kind, good and
bad. What a lap holds on to is bounded, so that one lap needs what the lap before needed."""

import collections
import contextlib
import random
import re
import socket
import time

from support.lan import (HTTP_PORT, SSDP_GROUP, SSDP_PORT, LanHost, read_to_end, search_request,
                         soap_envelope)
from support.mappings import Mappings
from support.mutations import mutation
from support.name_server import NameServer
from support.network import (CONNECTION_SERVICE, DESCRIPTION, LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS,
                             WAN_LINK, SoapError, exchange_tcp, exchange_udp, service_path,
                             tcp_refused, wait_until)
from support.router import CommandFailed
from support.subscriber import Subscriber

LINK_SERVICE = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1"
INFO_SERVICE = "urn:schemas-microsoft-com:service:OSInfo:1"
QUERY = "urn:schemas-upnp-org:control-1-0"
TARGETS = ("ssdp:all", "upnp:rootdevice", "urn:schemas-upnp-org:device:InternetGatewayDevice:1",
           "urn:schemas-upnp-org:device:WANDevice:1",
           "urn:schemas-upnp-org:device:WANConnectionDevice:1",
           CONNECTION_SERVICE, LINK_SERVICE, INFO_SERVICE)

# A network of addresses of one host on the LAN: an address can have one subscription.
MANY_ADDRESSES = "192.168.88.128/25"
FIRST_OF_MANY = 128
SUBSCRIPTION_LIMIT = 100
TERMINATIONS = 3  # in a minute
ABSENT = "192.168.88.99"
OTHER_WAN_ADDRESS = "45.45.45.9"
OTHER_LAN_ADDRESS = "192.168.88.2"

HELD = 10  # connections and deliveries of a kind that are left alone for a while
# In seconds.
DELIVERY_LIMIT = 30.0  # then the gateway gives a delivery up
SEARCH_LIMIT = 5.0  # for a host on the LAN; then the kernel says that it does not exist

KINDS = []


def kind(times, every=1):
    """Marks a method as a kind of traffic: `times` in every lap, or in every fifth and so on."""
    def mark(method):
        KINDS.append((method, times, every))
        return method

    return mark


def expect(true, what):
    if not true:
        raise AssertionError(what)


class Traffic:
    """Traffic on a router that is set up. Ends with close."""

    def __init__(self, router, seed):
        self.random = random.Random(seed)
        self.router = router
        self.network = router.network
        self.lan, self.wan = self.network.lan, self.network.wan
        self.laps = 0
        self.done = collections.Counter()  # by kind
        self.errors = []
        # Deliveries that fail live on for half a minute: there are none when that is too long.
        self.may_linger = True
        self._most = HELD
        self.refused = 0  # connections
        self._unanswered = collections.deque()  # since when there are deliveries of that kind
        self._unreachable = collections.deque()
        self._held_connections = collections.deque()
        self._held_deliveries = collections.deque()
        self._terminations = collections.deque(maxlen=TERMINATIONS)  # their times
        self._numbers = 0
        self._mappings = Mappings(self.random, [host.address for host in self.lan])
        self._names = NameServer(self.wan)
        self._names.hosts["player.lan"] = self.lan[1].address
        self._names.lame.add("lame.lan")
        router.ask_name_server(self.wan.address)
        self.lan[1].namespace.ip("route", "add", "local", MANY_ADDRESSES, "dev", "lo")
        self.network.router.run("sh", "-c", "echo 0 > /proc/sys/net/ipv4/icmp_ratelimit")
        self.find_urls()

    def lap(self):
        for method, times, every in KINDS:
            for _ in range(times if self.laps % every == 0 else 0):
                try:
                    method(self)
                except ConnectionRefusedError:
                    # This host holds connections that it leaves alone: the kernel may refuse it.
                    self.refused += 1
                except (AssertionError, OSError, SoapError, CommandFailed) as error:
                    self.errors.append(f"{method.__name__}: {type(error).__name__}: {error}")
                self.done[method.__name__] += 1
        self.laps += 1

    def peak(self):
        """More at once than any lap comes to: what that needs, the programs keep."""
        self._most = 2 * HELD
        for operation in self._mappings.all_openings():
            operation.invoke(self.lan[0], self.control)
        for method in (self.say_nothing, self.keep_an_event_waiting, self.hang_up_on_an_event,
                       self.subscribe_from_an_absent_host):
            for _ in range(self._most):
                method()
        self.lap()
        self._most = HELD

    def settle(self):
        """Lets go of all that is held and closes every port."""
        while self._held_connections:
            self._held_connections.popleft().close()
        while self._held_deliveries:
            self._release_delivery()
        for port, protocol in list(self._mappings.table):
            self.lan[0].close_port(port, protocol, control=self.control)
        self._mappings.table.clear()
        wait_until(self._no_connection_is_left, "all deliveries and requests have ended",
                   DELIVERY_LIMIT + 15)

    def close(self):
        self._names.close()

    def find_urls(self):
        """Notes where the services are."""
        self.control = self.router.wait_until_controllable()
        description = self.lan[0].speak_to().get(DESCRIPTION).body
        self.events = service_path(description, CONNECTION_SERVICE, "eventSubURL")
        self.link_control = service_path(description, LINK_SERVICE, "controlURL")
        self.info_control = service_path(description, INFO_SERVICE, "controlURL")
        self.documents = [DESCRIPTION, *re.findall(r"<(?:url|SCPDURL)>(.*?)<",
                                                   description.decode())]

    # Searches.

    @kind(len(TARGETS))
    def search(self):
        target = TARGETS[self.done["search"] % len(TARGETS)]
        expect(self.lan[0].speak_to().search(target), f"nobody answers for {target}")

    @kind(8)
    def search_badly(self):
        good = search_request().decode()
        bad = self.random.choice((
            good.replace("M-SEARCH", "SEARCH"), good.replace("discover", "uncover"),
            good.replace("ST: ssdp:all", "ST: nothing"), good.replace("MX: 1", "MX: -1\r\nMX"),
            good.replace("\r\n\r\n", "\r\n"), good[:40], "\r\n\r\n", "\0", good * 50))
        self.lan[1].speak_to().search(bad.encode())

    @kind(8)
    def search_with_noise(self):
        noise = self.random.choice((mutation(search_request(), self.random)[:60000],
                                    self.random.randbytes(self.random.randrange(1, 2000))))
        self.lan[1].speak_to().search(noise)
        with self.lan[0].udp() as sock:
            sock.sendto(noise, (LAN_ADDRESS, SSDP_PORT))
            sock.sendto(noise, (SSDP_GROUP, SSDP_PORT))

    # Documents.

    @kind(10)
    def get_document(self):
        url = self.documents[self.done["get_document"] % len(self.documents)]
        reply = self.lan[0].speak_to().get(url, "ACCEPT-LANGUAGE: en")
        expect(reply.status == 200 and reply.body, f"{url}: {reply}")

    @kind(4)
    def request_badly(self):
        line, status = self.random.choice((
            ("GET /nothing HTTP/1.1", 404), ("GET /../store HTTP/1.1", 404),
            ("GET /gateway.xml?x HTTP/1.1", 404), ("HEAD / HTTP/1.1", 501),
            ("get /gateway.xml HTTP/1.1", 501), ("POST /nothing HTTP/1.1", 404),
            ("SUBSCRIBE /nothing HTTP/1.1", 404), (f"POST {self.control} HTTP/1.1", 400)))
        reply = self.lan[0].speak_to().exchange(f"{line}\r\nHOST: elsewhere\r\n\r\n".encode())
        expect(reply.startswith(f"HTTP/1.1 {status} ".encode()), f"{line}: {reply}")

    # Control.

    @kind(30)
    def invoke_on_mappings(self):
        self._mappings.next().invoke(self.random.choice(self.lan), self.control)

    @kind(8)
    def invoke_on_connection(self):
        action = self.random.choice(("GetConnectionTypeInfo", "GetStatusInfo", "GetNATRSIPStatus",
                                     "GetExternalIPAddress"))
        expect(self.lan[0].invoke(action, control=self.control), f"{action}: no answer")

    @kind(6)
    def invoke_on_link(self):
        action = self.random.choice(("GetCommonLinkProperties", "GetTotalBytesSent",
                                     "GetTotalBytesReceived", "GetTotalPacketsSent",
                                     "GetTotalPacketsReceived", "X_GetICSStatistics"))
        reply = self.lan[1].speak_to().invoke(self.link_control, LINK_SERVICE, action)
        expect(reply.status == 200, f"{action}: {reply}")

    @kind(4)
    def query_variable(self):
        url, name, status = self.random.choice((
            (self.info_control, "OSMachineName", 200), (self.info_control, "Nothing", 500),
            (self.link_control, "TotalBytesSent", 200), (self.control, "ConnectionStatus", 200),
            (self.control, "RemoteHost", 500), (self.control, "Uptime", 200)))
        reply = self.lan[0].speak_to().invoke(url, QUERY, "QueryStateVariable",
                                              [("varName", name)])
        expect(reply.status == status, f"{name}: {reply}")

    @kind(6)
    def invoke_badly(self):
        action, arguments, code = self.random.choice((
            ("Reboot", (), 401), ("SetConnectionType", [("NewConnectionType", "IP_Routed")], 501),
            ("SetConnectionType", [("NewConnectionType", "x" * 3000)], 402),
            ("DeletePortMapping", (), 402), ("GetGenericPortMappingEntry",
                                             [("NewPortMappingIndex", "x")], 402),
            ("GetGenericPortMappingEntry", [("NewPortMappingIndex", 999)], 713)))
        try:
            self.lan[0].invoke(action, arguments, control=self.control)
        except SoapError as fault:
            expect(fault.code == code, f"{action}: {fault.code}, not {code}")
        else:
            raise AssertionError(f"{action} is done")

    @kind(6)
    def post_badly(self):
        good = soap_envelope("GetStatusInfo", (), CONNECTION_SERVICE)
        body, fields = self.random.choice((
            (good, ()), (good, ("CONTENT-TYPE: text/html", "SOAPACTION: x#GetStatusInfo")),
            ("", ("CONTENT-TYPE: text/xml", "SOAPACTION: x#GetStatusInfo")),
            (good[:-9], ("CONTENT-TYPE: text/xml", "SOAPACTION: x#GetStatusInfo")),
            (good.replace("Body", "Head"), ("CONTENT-TYPE: text/xml", "SOAPACTION: x#y")),
            (good.replace("</u:", "<a>" * 100 + "</u:"),
             ("CONTENT-TYPE: text/xml", "SOAPACTION: x#GetStatusInfo"))))
        reply = self.lan[0].speak_to().post(self.control, body, *fields)
        expect(reply.status == 400, reply)

    @kind(6)
    def post_noise(self):
        good = self.lan[0].speak_to().invocation(self.control, CONNECTION_SERVICE, "GetStatusInfo")
        self._send_and_end(mutation(good, self.random))

    # Connections that make no sense.

    @kind(4)
    def send_noise(self):
        self._send_and_end(self.random.randbytes(self.random.randrange(1, 6000)))

    @kind(1)
    def send_without_end(self):
        """As much as the gateway takes, and no header's end."""
        self._send_and_end(b"GET / HTTP/1.1\r\n" + b"X: " + b"x" * 300000)

    @kind(1)
    def say_nothing(self):
        """The gateway gives it up after ten seconds, or we do."""
        self._held_connections.append(self.lan[0].speak_to().connect())
        while len(self._held_connections) > self._most:
            self._held_connections.popleft().close()

    @kind(4)
    def send_noise_to_the_platform(self):
        """As a user with rights."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.settimeout(5.0)
            client.connect(str(self.router.root / "run" / "lumen.sock"))
            with contextlib.suppress(ConnectionError):
                client.send(self.random.randbytes(self.random.randrange(1, 200)))
                client.recv(65536)

    # Ports at work.

    @kind(2)
    def carry_tcp(self):
        host = self.random.choice(self.lan)
        host.open_port(8080, "TCP", 80, control=self.control)
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 80)
        host.close_port(8080, "TCP", control=self.control)
        expect(tcp_refused(self.wan, WAN_ADDRESS, 8080, host, 80), "the port is still open")

    @kind(2)
    def carry_udp(self):
        host = self.random.choice(self.lan)
        port = 5060 + self.done["carry_udp"] % 30  # a closed one has its flows swept later
        host.open_port(port, "UDP", 5060, control=self.control)
        with self.wan.udp(to=(WAN_ADDRESS, port)) as client:
            exchange_udp(client, host, 5060)
        host.close_port(port, "UDP", control=self.control)

    # Events.

    @kind(2)
    def hear_events(self):
        host = self.random.choice(self.lan)
        name = self.random.choice((None, "player.lan"))
        with Subscriber(self.lan[1].speak_to() if name else host.speak_to()) as subscriber:
            callback = f"http://{name}:{subscriber.port}/" if name else None
            subscriber.subscribe(self.events, "TIMEOUT: Second-infinite", callback=callback)
            expect(subscriber.event().seq == 0, "not the first event")
            host.open_port(8090, "TCP", control=self.control)
            expect("PortMappingNumberOfEntries" in subscriber.event().properties, "another event")
            expect(subscriber.renew("TIMEOUT: Second-1").status == 200, "no renewal")
            host.close_port(8090, "TCP", control=self.control)
            expect(subscriber.event().seq == 2, "an event is missing")
            expect(subscriber.unsubscribe().status == 200, "still subscribed")
            expect(subscriber.renew().status == 412, "renewed after its end")
            expect(subscriber.unsubscribe().status == 412, "unsubscribed twice")

    @kind(6)
    def subscribe_badly(self):
        self._numbers += 1
        with Subscriber(self.lan[0].speak_to()) as subscriber:
            callback = self.random.choice((
                f"http://missing-{self._numbers % 50}.lan/", "http://lame.lan/", "http://a b/",
                f"http://{'x' * 64}/", f"http://{subscriber.host.address}", "ftp://1.1.1.1/", "/",
                "http://255.255.255.255/"))
            status = subscriber.ask(self.events, callback=callback).status
            expect(status == 412, f"{callback}: {status}")

    @kind(2)
    def answer_events_badly(self):
        with self._another_subscriber() as subscriber:
            subscriber.subscribe(self.events)
            with subscriber.take() as delivery:
                delivery.read()
                delivery.answer(self.random.choice((b"\xff" * 100, b"HTTP/1.1 412 No\r\n\r\n",
                                                    b"\r\n", b"x" * 5000)))
            subscriber.unsubscribe()

    @kind(1)
    def keep_an_event_waiting(self):
        with self._another_subscriber() as subscriber:
            subscriber.subscribe(self.events)
            self._held_deliveries.append(subscriber.take())
            subscriber.unsubscribe()
        while len(self._held_deliveries) > self._most:
            self._release_delivery()

    @kind(1)
    def refuse_an_event(self):
        with self._another_subscriber() as subscriber:
            subscriber.stop_listening()
            subscriber.subscribe(self.events)
            subscriber.unsubscribe()

    @kind(1)
    def subscribe_from_an_absent_host(self):
        """The callback's host does not exist."""
        if not self._one_more(self._unreachable, SEARCH_LIMIT):
            return
        with self._another_subscriber() as subscriber:
            subscriber.subscribe(self.events, callback=f"http://{ABSENT}/")
            subscriber.unsubscribe()

    @kind(1)
    def hang_up_on_an_event(self):
        """Without an answer; the gateway keeps such a delivery to its end."""
        if not self.may_linger or not self._one_more(self._unanswered, DELIVERY_LIMIT):
            return
        with self._another_subscriber() as subscriber:
            subscriber.subscribe(self.events)
            with subscriber.take() as delivery:
                delivery.read()
            subscriber.unsubscribe()

    @kind(1)
    def subscribe_as_many_as_may(self):
        with contextlib.ExitStack() as all_of_them:
            some = []
            for _ in range(SUBSCRIPTION_LIMIT + 1):
                some.append(all_of_them.enter_context(self._another_subscriber()))
                some[-1].stop_listening()
                status = some[-1].ask(self.events).status
                expect(status == (200 if len(some) <= SUBSCRIPTION_LIMIT else 500), status)
            for subscriber in some[:SUBSCRIPTION_LIMIT]:
                expect(subscriber.unsubscribe().status == 200, "still subscribed")

    # Links and addresses.

    @kind(1)
    def unplug_the_wan(self):
        cable = self.wan.namespace
        cable.ip("link", "set", "eth0", "down")
        self._wait_for_connection("Connecting", "0.0.0.0")
        cable.ip("link", "set", "eth0", "up")
        self._wait_for_connection("Connected", WAN_ADDRESS)

    @kind(1)
    def terminate_and_request(self):
        now = time.monotonic()
        try:
            self.lan[0].invoke("ForceTermination", control=self.control)
        except SoapError:
            # The last that counted may be a little younger here than it is for lumend.
            expect(len([t for t in self._terminations if now - t < 61]) >= TERMINATIONS,
                   "not terminated")
            return
        self._terminations.append(now)
        self._wait_for_connection("Disconnected", "0.0.0.0")
        self.lan[0].invoke("RequestConnection", control=self.control)
        self._wait_for_connection("Connected", WAN_ADDRESS)

    @kind(1)
    def change_the_wan_address(self):
        for old, new in ((WAN_ADDRESS, OTHER_WAN_ADDRESS), (OTHER_WAN_ADDRESS, WAN_ADDRESS)):
            self._change_address(WAN_LINK, old, new)
            self._wait_for_connection("Connected", new)

    @kind(1)
    def delete_the_wan_link(self):
        with self._another_subscriber() as subscriber:
            subscriber.subscribe(self.events)
            subscriber.event()
            self.network.disconnect_wan()
            self._wait_for_connection(None, "0.0.0.0")
            self.network.connect_wan()
            self._wait_for_connection("Connected", WAN_ADDRESS)
            self._answer_all(subscriber)
            subscriber.unsubscribe()

    @kind(1)
    def change_the_lan_address(self):
        for old, new in ((LAN_ADDRESS, OTHER_LAN_ADDRESS), (OTHER_LAN_ADDRESS, LAN_ADDRESS)):
            self._change_address(LAN_BRIDGE, old, new)
            self.router.wait_until_controllable(gateway=new)

    @kind(1, every=5)
    def take_the_lan_down(self):
        """A bridge needs a second to come up."""
        self.network.router.ip("link", "set", LAN_BRIDGE, "down")
        wait_until(lambda: self.router.interface(LAN_BRIDGE)["state"] == "down", "the LAN is down")
        self.network.router.ip("link", "set", LAN_BRIDGE, "up")
        wait_until(lambda: self.router.interface(LAN_BRIDGE)["state"] == "running", "it is up")
        self.router.wait_until_controllable()

    # The administrator.

    @kind(2)
    def look(self):
        command = self.random.choice((("status",), ("nat", "list"), ("service", "list"),
                                      ("interface", "list"), ("address", "list"), ("history",),
                                      ("nat", "policy"), ("upnp", "settings")))
        expect(self.router.ask(*command) is not None, f"{command}: nothing")

    @kind(1)
    def change_and_undo(self):
        self.router.lumenctl("upnp", "settings", "set", "show-dummy-rule=off")
        expect(not self.router.ask("upnp", "settings")["show-dummy-rule"], "not set")
        self.router.lumenctl("undo")
        expect(self.router.ask("upnp", "settings")["show-dummy-rule"], "not undone")

    @kind(1)
    def leave_in_the_middle(self):
        with self.lan[0].speak_to().connect() as client:
            client.sendall(b"POST " + self.control.encode() + b" HTTP/1.1\r\nCONTENT-LENGTH: 99\r\n")

    @kind(1)
    def close_a_port(self):
        self.lan[0].open_port(8070, "UDP", control=self.control)
        self.router.lumenctl("nat", "close", "8070/udp")
        self.lan[0].close_port(8070, "UDP", control=self.control)

    @kind(1)
    def be_refused(self):
        with contextlib.suppress(CommandFailed):
            self.router.lumenctl("nat", "close", "9/tcp")
            raise AssertionError("closed a port that is not open")

    # Helpers.

    def _another_subscriber(self):
        """One at an address that was not used recently."""
        self._numbers += 1
        number = FIRST_OF_MANY + self._numbers % (254 - FIRST_OF_MANY)
        host = self.lan[1]
        return Subscriber(LanHost(host.namespace, host.LINK, f"192.168.88.{number}", LAN_ADDRESS))

    def _one_more(self, begun, life):
        """Whether there may be one more of what lives so many seconds and began at these times; it
        begins now then."""
        now = time.monotonic()
        while begun and begun[0] < now - life:
            begun.popleft()
        if len(begun) >= self._most:
            return False
        begun.append(now)
        return True

    def _release_delivery(self):
        """Too late is still better than never: the answer ends it."""
        with self._held_deliveries.popleft() as delivery, contextlib.suppress(OSError):
            delivery.answer()

    @staticmethod
    def _answer_all(subscriber):
        """Answers the events that have come."""
        while subscriber.is_called():
            subscriber.event()

    def _send_and_end(self, data):
        """As a client that has said all it will say, until the gateway ends the connection."""
        with self.lan[0].speak_to().connect() as client, contextlib.suppress(ConnectionError):
            client.sendall(data)
            with contextlib.suppress(OSError):  # has been ended already
                client.shutdown(socket.SHUT_WR)
            read_to_end(client)

    def _change_address(self, link, old, new):
        self.network.router.ip("address", "add", f"{new}/24", "dev", link)
        self.network.router.ip("address", "delete", f"{old}/24", "dev", link)

    def _wait_for_connection(self, state, address):
        """Until control points see it so; any state will do without one."""
        def seen():
            status, where = (self.lan[0].invoke(action, control=self.control)
                             for action in ("GetStatusInfo", "GetExternalIPAddress"))
            return (state in (None, status["NewConnectionStatus"]) and
                    where["NewExternalIPAddress"] == address)

        wait_until(seen, f"the connection is {state} with {address}")

    def _no_connection_is_left(self):
        """Whether the router has no TCP connection that either side has still to end."""
        over = {"06", "0A"}  # TIME_WAIT and LISTEN (include/net/tcp_states.h)
        table = self.network.router.run("cat", "/proc/net/tcp").splitlines()[1:]
        return all(line.split()[3] in over for line in table)
