"""HTTP: documents, files, refusals, and clients that do not behave."""

import os
import select
import socket
import time

from gateway_case import BASE, GATEWAY, HOST, SERVER, WAN, GatewayCase, undated
from scripted_platform import address, interface
from support import lm
from support.lan import Text, read_to_end

DESCRIPTION = """\
<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0">
  <specVersion>
    <major>1</major>
    <minor>0</minor>
  </specVersion>
  <device>
    <deviceType>urn:schemas-upnp-org:device:InternetGatewayDevice:1</deviceType>
    <friendlyName>Kestrava Router</friendlyName>
    <manufacturer>Kestrava</manufacturer>
    <manufacturerURL>http://www.kestrava.example/</manufacturerURL>
    <modelName>Palinode</modelName>
    <UDN>uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-TEST</UDN>
    <iconList>
      <icon>
        <mimetype>image/gif</mimetype>
        <width>16</width>
        <height>16</height>
        <depth>8</depth>
        <url>/logo16.gif</url>
      </icon>
      <icon>
        <mimetype>image/gif</mimetype>
        <width>32</width>
        <height>32</height>
        <depth>8</depth>
        <url>/logo32.gif</url>
      </icon>
      <icon>
        <mimetype>image/gif</mimetype>
        <width>48</width>
        <height>48</height>
        <depth>8</depth>
        <url>/logo48.gif</url>
      </icon>
    </iconList>
    <serviceList>
      <service>
        <serviceType>urn:schemas-microsoft-com:service:OSInfo:1</serviceType>
        <serviceId>urn:microsoft-com:serviceId:OSInfo1</serviceId>
        <SCPDURL>/osinfo.xml</SCPDURL>
        <controlURL>/upnp/control/osinfo</controlURL>
        <eventSubURL>/upnp/event/osinfo</eventSubURL>
      </service>
    </serviceList>
DEVICES    <presentationURL>http://192.168.88.1/</presentationURL>
  </device>
  <URLBase>http://192.168.88.1:2828</URLBase>
</root>
"""

WAN_DEVICE = """\
      <device>
        <deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>
        <friendlyName>WAN Device</friendlyName>
        <manufacturer>Kestrava</manufacturer>
        <manufacturerURL>http://www.kestrava.example/</manufacturerURL>
        <modelName>Palinode</modelName>
        <UDN>uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-{id}</UDN>
        <serviceList>
          <service>
            <serviceType>urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1</serviceType>
            <serviceId>urn:upnp-org:serviceId:WANCommonIFC1</serviceId>
            <SCPDURL>/wancommonifc-{id}.xml</SCPDURL>
            <controlURL>/upnp/control/wancommonifc-{id}</controlURL>
            <eventSubURL>/upnp/event/wancommonifc-{id}</eventSubURL>
          </service>
        </serviceList>
        <deviceList>
          <device>
            <deviceType>urn:schemas-upnp-org:device:WANConnectionDevice:1</deviceType>
            <friendlyName>WAN Connection Device</friendlyName>
            <manufacturer>Kestrava</manufacturer>
            <manufacturerURL>http://www.kestrava.example/</manufacturerURL>
            <modelName>Palinode</modelName>
            <UDN>uuid:UUID-KESTRAVA-WAN-CONNECTION-DEVICE-TEST-{id}</UDN>
            <serviceList>
              <service>
                <serviceType>urn:schemas-upnp-org:service:WANIPConnection:1</serviceType>
                <serviceId>urn:upnp-org:serviceId:WANIPConn1</serviceId>
                <SCPDURL>/wanipconn-{id}.xml</SCPDURL>
                <controlURL>/upnp/control/wanipconn-{id}</controlURL>
                <eventSubURL>/upnp/event/wanipconn-{id}</eventSubURL>
              </service>
            </serviceList>
          </device>
        </deviceList>
      </device>
"""


def description(*wan_ids):
    devices = "".join(WAN_DEVICE.replace("{id}", str(id)) for id in wan_ids)
    if devices:
        devices = f"    <deviceList>\n{devices}    </deviceList>\n"
    return DESCRIPTION.replace("DEVICES", devices).replace("\n", "\r\n").encode()


def document(content, kind="text/xml", language=False):
    """The whole reply that carries the content, its date cut out."""
    first = "CONTENT-LANGUAGE: en-us\r\n" if language else ""
    return (f"HTTP/1.1 200 OK\r\n{first}CONTENT-TYPE: {kind}\r\nCONTENT-LENGTH: {len(content)}\r\n"
            f"DATE: -\r\nSERVER: {SERVER}\r\nCONNECTION: close\r\n\r\n").encode() + content


NOT_FOUND = b"HTTP/1.1 404 Not Found\r\n\r\n"
BAD_REQUEST = b"HTTP/1.1 400 Bad Request\r\n\r\n"
PRECONDITION_FAILED = b"HTTP/1.1 412 Precondition Failed\r\n\r\n"
NOT_IMPLEMENTED = b"HTTP/1.1 501 Not Implemented\r\n\r\n"


class Documents(GatewayCase):
    def exchange(self, request):
        return undated(self.lan.exchange(request.encode()))

    # Promise [description-url]: `GET /gateway.xml` is answered with the description, whatever
    # `HOST` says and without one.
    # Also proves [wan-device], [common-service], [connection-device], [connection-service],
    # [server-field], [one-request], [document-fields].
    def test_the_description_shows_the_whole_tree(self):
        self.serve()
        self.assertEqual(self.exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"),
                         document(description(WAN)))

    # Promise [root-device]: The root device is a
    # `urn:schemas-upnp-org:device:InternetGatewayDevice:1` with the name `Kestrava Router` and the
    # UDN `uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-` followed by the identity.
    # Promise [icons]: The root device has three icons of type `image/gif` and depth 8, of 16, 32
    # and 48 pixels, at `/logo16.gif`, `/logo32.gif` and `/logo48.gif`, which serve the files of
    # these names.
    # Promise [root-service]: The root device offers the service
    # `urn:schemas-microsoft-com:service:OSInfo:1` as `urn:microsoft-com:serviceId:OSInfo1`, whose
    # description `/osinfo.xml` is the file `osinfo.xml`.
    # Promise [no-external]: Without an external interface the description has no list of embedded
    # devices.
    def test_the_description_without_a_wan_has_no_device_list(self):
        self.serve(wan=False)
        self.assertEqual(self.exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"),
                         document(description()))

    # Also proves [two-externals].
    def test_two_wans_are_two_devices_that_share_their_files(self):
        self.platform.interfaces[7] = interface(7, "wan1")
        self.serve()
        self.add_object(7, 1)
        self.assertEqual(self.exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"),
                         document(description(WAN, 7)))
        for name in ("wanipconn", "wancommonifc"):
            self.assertEqual(self.exchange(f"GET /{name}-3.xml HTTP/1.1\r\n\r\n"),
                             self.exchange(f"GET /{name}-7.xml HTTP/1.1\r\n\r\n"))

    # Also proves [url-base].
    def test_each_lan_gets_its_own_address(self):
        other = self.join_lan("lan1", "192.168.99.1", "192.168.99.10")
        self.platform.interfaces[7] = interface(7, "lan1", self.index("lan1"))
        self.platform.addresses[17] = address(17, 7, "192.168.99.1")
        self.serve(wan=False)
        self.add_object(7, 2)
        for lan in (self.lan, other, self.lan):
            content = description().replace(GATEWAY.encode(), lan.gateway.encode())
            self.assertEqual(undated(lan.exchange(b"GET /gateway.xml HTTP/1.1\r\n\r\n")),
                             document(content))

    def test_a_request_that_names_a_language_gets_ours_named(self):
        self.serve()
        self.assertEqual(
            self.exchange("GET /gateway.xml HTTP/1.1\r\nAccept-Language: de\r\n\r\n"),
            document(description(WAN), language=True))

    # Also proves [icons], [root-service].
    def test_files_are_served_as_they_are(self):
        self.serve()
        for url, file, kind in (("/logo16.gif", "logo16.gif", "image/gif"),
                                ("/logo32.gif", "logo32.gif", "image/gif"),
                                ("/logo48.gif", "logo48.gif", "image/gif"),
                                ("/osinfo.xml", "osinfo.xml", "text/xml"),
                                ("/wanipconn-3.xml", "wanipconn.xml", "text/xml"),
                                ("/wancommonifc-3.xml", "wancommonifcfg.xml", "text/xml")):
            with self.subTest(url), open(f"{self.folder}/etc/upnp/{file}", "rb") as content:
                self.assertEqual(self.exchange(f"GET {url} HTTP/1.1\r\n\r\n"),
                                 document(content.read(), kind))

    # Promise: The description files of an external interface stay served when it stops.
    def test_the_urls_of_a_wan_outlive_it(self):
        self.serve()
        self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        self.assertEqual(self.lan.get(f"/wanipconn-{WAN}.xml").status, 200)
        self.assertEqual(self.exchange("GET /gateway.xml HTTP/1.1\r\n\r\n"),
                         document(description()))

    def test_a_file_that_is_missing_is_not_found_and_logged(self):
        self.serve()
        os.remove(f"{self.folder}/etc/upnp/osinfo.xml")
        self.assertEqual(self.exchange("GET /osinfo.xml HTTP/1.1\r\n\r\n"), NOT_FOUND)
        self.daemon.wait_for_line(
            "open file /lumen/etc/upnp/osinfo.xml: No such file or directory")

    def test_a_file_that_cannot_be_read_is_not_found_and_logged(self):
        self.serve()
        os.remove(f"{self.folder}/etc/upnp/osinfo.xml")
        os.mkdir(f"{self.folder}/etc/upnp/osinfo.xml")
        self.assertEqual(self.exchange("GET /osinfo.xml HTTP/1.1\r\n\r\n"), NOT_FOUND)
        self.daemon.wait_for_line("read file /lumen/etc/upnp/osinfo.xml: Is a directory")

    # Also proves [file-size].
    def test_a_long_file_is_cut(self):
        self.serve()
        with open(f"{self.folder}/etc/upnp/osinfo.xml", "wb") as file:
            file.write(b"x" * 20000)
        self.assertEqual(self.exchange("GET /osinfo.xml HTTP/1.1\r\n\r\n"), document(b"x" * 16384))


class Refusals(GatewayCase):
    # Also proves [unknown-url], [url-exact].
    def test_urls_that_are_not_served_are_not_found(self):
        self.serve()
        for url in ("/", "/gateway.xml?x=1", "/Gateway.xml", "/../upnp/osinfo.xml", "osinfo.xml",
                    "/etc/passwd", f"{BASE}/gateway.xml", "", "/wanipconn-7.xml",
                    "/upnp/control/osinfo"):
            with self.subTest(url):
                self.assertEqual(self.lan.exchange(f"GET {url} HTTP/1.1\r\n\r\n".encode()),
                                 NOT_FOUND)

    # Also proves [log-line], [methods].
    def test_methods_that_are_not_ours_are_not_implemented(self):
        self.serve()
        for method in ("HEAD", "get", "Post", "OPTIONS", "M-SEARCH", "NOTIFY", "subscribe", ""):
            with self.subTest(method):
                since = self.log_mark()
                self.assertEqual(
                    self.lan.exchange(f"{method} /gateway.xml HTTP/1.1\r\n\r\n".encode()),
                    NOT_IMPLEMENTED)
                self.daemon.wait_for_line(f"what is this: '{method}'", since)

    def test_a_start_line_of_one_word_is_a_method(self):
        self.serve()
        self.assertEqual(self.lan.exchange(b"HELLO\r\n\r\n"), NOT_IMPLEMENTED)
        self.daemon.wait_for_line("what is this: 'HELLO'")

    # Also proves [log-safe].
    def test_a_method_with_control_characters_is_one_line_of_the_log(self):
        self.serve()
        self.assertEqual(self.lan.exchange(b"A\nexit\x1b[2J / HTTP/1.1\r\n\r\n"), NOT_IMPLEMENTED)
        self.daemon.wait_for_line("what is this: 'A?exit?[2J'")

    # Also proves [host-match], [host-mismatch].
    def test_requests_to_services_must_name_this_interface(self):
        self.serve()
        # The HOST check passes; then each of them lacks something else.
        for method, url, refused, logged in (
                ("POST", "/upnp/control/osinfo", BAD_REQUEST,
                 ["POST method with bad CONTENT-TYPE: "]),
                ("SUBSCRIBE", "/upnp/event/osinfo", PRECONDITION_FAILED, []),
                ("UNSUBSCRIBE", "/upnp/event/osinfo", PRECONDITION_FAILED, [])):
            for host, good in ((GATEWAY, True), (f"{GATEWAY}:2828", True), (f"{GATEWAY}:80", False),
                               (f"{GATEWAY}:2828 ", False), ("evil.example:2828", False),
                               (HOST, False), ("", False), (None, False)):
                with self.subTest(method=method, host=host):
                    since = self.log_mark()
                    field = "" if host is None else f"Host: {host}\r\n"
                    reply = self.lan.exchange(f"{method} {url} HTTP/1.1\r\n{field}\r\n".encode())
                    self.assertEqual(reply, refused if good else BAD_REQUEST)
                    mismatch = f"{method}: host mismatch '{host or ''}'"
                    self.assert_logged(since, *(logged if good else [mismatch]))

    # Also proves [service-url].
    def test_services_that_are_not_there_are_not_found_whatever_the_host(self):
        self.serve()
        for line in ("POST /upnp/control/wanipconn-7", "POST /upnp/event/osinfo",
                     "SUBSCRIBE /upnp/control/osinfo", "UNSUBSCRIBE /upnp/event/nothing"):
            with self.subTest(line):
                self.assertEqual(self.lan.exchange(f"{line} HTTP/1.1\r\n\r\n".encode()), NOT_FOUND)


class Clients(GatewayCase):
    """One request on a connection, whatever the client does with it."""

    REQUEST = b"GET /gateway.xml HTTP/1.1\r\n\r\n"

    def test_a_request_may_come_byte_by_byte(self):
        self.serve()
        with self.lan.connect() as client:
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in self.REQUEST:
                client.send(bytes([byte]))
            self.assertEqual(Text(read_to_end(client)).status, 200)

    def test_only_the_first_of_two_requests_in_one_segment_is_answered(self):
        self.serve()
        # The second one is a body to a request without a length.
        reply = Text(self.lan.exchange(self.REQUEST + b"HEAD / HTTP/1.1\r\n\r\n"))
        self.assertEqual(reply.status, 200)
        self.assertEqual(len(reply.body), int(reply["CONTENT-LENGTH"]))

    def test_a_client_that_closes_is_forgotten_silently(self):
        self.serve()
        since = self.log_mark()
        for sent in (b"", b"GET /gateway.xml"):
            self.lan.connect().close()
            with self.lan.connect() as client:
                client.sendall(sent)
                client.shutdown(socket.SHUT_WR)
                self.assertEqual(read_to_end(client), b"")
        self.assert_serves()
        self.assert_logged(since)

    # Also proves [line-end], [request-time], [request-too-long].
    def test_requests_that_never_end_time_out_after_ten_seconds(self):
        self.serve()
        since = self.log_mark()
        clients = []
        for sent in (b"", b"GET /gateway.xml HTTP/1.1\r\n", b"GET / HTTP/1.1\r\nno colon\r\n\r\n",
                     b"GET / HTTP/1.1\n\n",
                     b"POST / HTTP/1.1\r\nCONTENT-LENGTH: 3\r\n\r\nabcd"):
            before = time.monotonic()
            client = self.lan.connect(limit=20)
            self.addCleanup(client.close)
            clients.append((client, before))
            client.sendall(sent)
        self.assert_serves()
        for client, connected in clients:
            self.assertEqual(read_to_end(client), b"")
            elapsed = time.monotonic() - connected
            self.assertGreater(elapsed, 9.9)
            self.assertLess(elapsed, 11.9)
        self.assert_logged(since, *["http request timeout"] * 5)

    # Promise [request-time-fixed]: Bytes that arrive do not extend the ten seconds.
    def test_the_time_limit_runs_from_the_connection_and_is_not_extended(self):
        self.serve()
        started = time.monotonic()
        with self.lan.connect(limit=15) as client:
            client.sendall(b"GET / HTTP/1.1\r\n")
            # A byte more whenever nothing came back for a while.
            while not select.select([client], [], [], 0.25)[0]:
                self.assertLess(time.monotonic() - started, 12)
                client.sendall(b"X")
            self.assertEqual(client.recv(1), b"")
        self.assertGreater(time.monotonic() - started, 9.9)

    # Also proves [request-size], [request-too-large].
    def test_a_request_of_more_than_64_kib_is_dropped(self):
        self.serve()
        head = b"GET /gateway.xml HTTP/1.1\r\nX: "
        tail = b"\r\n\r\n"
        fits = head + b"x" * (64 * 1024 - len(head) - len(tail)) + tail
        self.assertEqual(Text(self.lan.exchange(fits)).status, 200)
        with self.lan.connect() as client:
            with self.assertRaises((ConnectionError, AssertionError)):
                client.sendall(head + b"x" * 200000)
                self.assertNotEqual(read_to_end(client), b"", "dropped in order")
        self.assert_serves()

    # Also proves [request-too-large].
    def test_a_request_of_68000_bytes_is_dropped_whatever_its_pieces(self):
        self.serve()
        since = self.log_mark()
        head = b"POST /upnp/control/nothing HTTP/1.1\r\nCONTENT-LENGTH: "
        body = 68000 - len(head) - len(b"12345\r\n\r\n")
        request = head + str(body).encode() + b"\r\n\r\n" + b"x" * body
        self.assertEqual(len(request), 68000)
        for pieces in ([68000], [65536, 2464], [1, 67999], [65000, 3000], [66000, 2000]):
            with self.subTest(pieces), self.lan.connect() as client:
                client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                sent = 0
                try:
                    for size in pieces:
                        client.sendall(request[sent:sent + size])
                        sent += size
                        self.assert_serves()  # a pause in which it is read
                    self.assertEqual(read_to_end(client), b"")
                except ConnectionError:
                    pass  # dropped with bytes unread
        self.assert_serves()
        self.assert_logged(since)

    def test_64_kib_byte_by_byte_cost_little_time(self):
        self.serve()
        before = self.daemon.processor_time()
        with self.lan.connect(limit=20) as client:
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            head = b"POST / HTTP/1.1\r\nCONTENT-LENGTH: 60000\r\n\r\n"
            for byte in head + b"x" * 60000:
                client.send(bytes([byte]))
            self.assertEqual(read_to_end(client), NOT_FOUND)
        # Parsing it all again after each read would take minutes.
        self.assertLess(self.daemon.processor_time() - before, 20.0)

    def test_a_client_that_does_not_read_delays_no_other(self):
        self.serve()
        with open(f"{self.folder}/etc/upnp/osinfo.xml", "wb") as file:
            file.write(b"x" * 16384)
        stuck = self.lan.namespace.socket()
        self.addCleanup(stuck.close)
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        stuck.connect((GATEWAY, 2828))
        started = time.monotonic()
        stuck.sendall(b"GET /osinfo.xml HTTP/1.1\r\n\r\n")
        self.assertEqual(len(self.lan.search("upnp:rootdevice")), 1)
        self.assertLess(time.monotonic() - started, 3.0)

    def test_a_client_that_resets_disturbs_no_other(self):
        self.serve()
        for _ in range(5):
            client = self.lan.connect()
            client.sendall(self.REQUEST[:10])
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                              b"\x01\x00\x00\x00\x00\x00\x00\x00")
            client.close()
        self.assert_serves()

    # Also proves [slow-client].
    def test_many_clients_at_once_are_all_served(self):
        self.serve()
        clients = [self.lan.connect() for _ in range(12)]
        for client in reversed(clients):
            client.sendall(self.REQUEST)
        for client in clients:
            self.assertEqual(Text(read_to_end(client)).status, 200)
            client.close()

    # Also proves [device-bound].
    def test_the_server_listens_only_on_the_lan(self):
        other = self.join_lan("lan1", "192.168.99.1", "192.168.99.10")
        self.serve()
        with self.assertRaises(ConnectionRefusedError):
            other.connect()
        self.assert_serves()
