"""Input of every kind that no well-behaved peer sends. What follows it is served as usual, and the
sanitizers, where they are built in, have nothing to say."""

import random
import socket

from gateway_case import ENABLED, LAN, WAN, GatewayCase
from support import lm
from support.lan import search_request, soap_envelope
from support.mutations import mutations
from test_control import CONTROL, IP_CONNECTION, mapping


class BadInput(GatewayCase):
    def setUp(self):
        super().setUp()
        self.serve()

    # Promise: Datagrams of noise and mutilated searches change nothing: the next search is
    # answered.
    def test_mutilated_searches_change_nothing(self):
        group = ("239.255.255.250", 1900)
        with self.lan.namespace.socket(socket.SOCK_DGRAM) as sender:
            sender.bind((self.lan.address, 0))
            sender.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                              socket.inet_aton(self.lan.address))
            for number, datagram in enumerate(mutations(search_request("ssdp:all"), 1000, 1)):
                sender.sendto(datagram[:60000], group)
                if number % 50 == 0:
                    self.lan.search("upnp:rootdevice")  # the socket's buffer is not the subject
        self.assert_serves()

    def test_datagrams_of_noise_change_nothing(self):
        choose = random.Random(2)
        for size in (1, 2, 3, 10, 100, 1472, 4096, 4097, 60000):
            self.lan.send_search(choose.randbytes(size)).close()
        self.assert_serves()

    def exchange(self, data):
        """As a client that has said all it will say."""
        with self.lan.connect() as client:
            try:
                client.sendall(data)
                client.shutdown(socket.SHUT_WR)
                return client.recv(65536)
            except ConnectionError:
                return b""

    # Promise: SUBSCRIBE requests that are cut, changed or made of random bytes are refused or
    # dropped, and the next good request is answered.
    def test_mutilated_requests_change_nothing(self):
        good = (b"SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHost: 192.168.88.1:2828\r\n"
                b"Accept-Language: en\r\nContent-Length: 4\r\n\r\nbody")
        for data in mutations(good, 150, 3):
            reply = self.exchange(data)
            if reply:
                self.assertRegex(reply, rb"^HTTP/1\.1 (400|404|412|501) ", data)
        self.assert_serves()

    def test_mutilated_control_requests_are_answered(self):
        body = soap_envelope("AddPortMapping", mapping(), IP_CONNECTION).encode()
        head = (f"POST {CONTROL} HTTP/1.1\r\nHOST: 192.168.88.1:2828\r\nCONTENT-TYPE: text/xml\r\n"
                f'SOAPACTION: "{IP_CONNECTION}#AddPortMapping"\r\n').encode()
        for changed in mutations(body, 150, 4):
            length = f"CONTENT-LENGTH: {len(changed)}\r\n\r\n".encode()
            reply = self.exchange(head + length + changed)
            self.assertRegex(reply, rb"^HTTP/1\.1 (200|400|500) ", changed)
        self.assertEqual(self.lan.invoke(CONTROL, IP_CONNECTION, "GetStatusInfo").status, 200)
        self.assert_serves()

    # Also proves [xml-entities], [xml-entities-400].
    def test_documents_that_expand_cost_little_time(self):
        entities = '<!ENTITY a0 "lol">' + "".join(
            f'<!ENTITY a{n} "{f"&a{n - 1};" * 10}">' for n in range(1, 10))
        bomb = f"<!DOCTYPE x [{entities}]>" + soap_envelope(
            "GetStatusInfo", [("x", "&a9;")], IP_CONNECTION).partition("\r\n")[2]
        deep = "<a>" * 20000
        wide = soap_envelope("GetStatusInfo", [("x", "")] * 3000, IP_CONNECTION)
        before = self.daemon.processor_time()
        for body, status in ((bomb, 400), (deep, 400), (wide, 200)):
            reply = self.lan.post(CONTROL, body, "CONTENT-TYPE: text/xml",
                                  f'SOAPACTION: "{IP_CONNECTION}#GetStatusInfo"')
            self.assertEqual(reply.status, status)
        self.assertLess(self.daemon.processor_time() - before, 20.0)
        self.assert_serves()

    # Promise: Platform messages that make no sense change nothing and end nothing.
    def test_meaningless_platform_messages_change_nothing(self):
        records = [{}, {lm.OBJECT_ID: 0}, {lm.OBJECT_ID: lm.NONE, 0x08000002: 9},
                   {0x20000001: "x" * 1000, 0x90000005: [1] * 100}]
        for command in (lm.CMD_ADD, lm.CMD_SET, lm.CMD_REMOVE, lm.CMD_READ, lm.CMD_READ_ALL,
                        lm.CMD_LIST, 0, lm.NONE):
            for fields in records:
                self.platform.request(command, fields)
        for fields in records:
            self.notify_interface(fields)
            self.notify_states(fields)
            self.notify_addresses(fields)
        self.platform.notify(lm.CMD_CHANGED, (), {})
        self.platform.notify(lm.CMD_CHANGED, (20, 1), {lm.RECORDS: [{}] * 3})
        self.platform.notify(0x4711, (20, 0), {})
        self.assert_serves()

    # Promise: A message that is nested as deep as messages may be is answered.
    def test_a_message_of_the_greatest_depth_is_answered(self):
        fields = {}
        for _ in range(lm.MAX_NESTING):
            fields = {0x28000007: fields}
        self.assertTrue(self.platform.request(lm.CMD_GET_SETTINGS, fields)[ENABLED])
        self.assert_serves()

    def test_objects_of_unknown_types_start_nothing(self):
        for kind in (0, 3, lm.NONE):
            self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, 0x08000002: kind})
            self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, 0x08000002: kind,
                                               0x08000001: 4711})
            self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, 0x08000001: WAN})
        self.assertEqual(len(self.lan.search(f"uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-{LAN}")), 0)
        self.assert_serves()
