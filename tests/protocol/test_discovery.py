"""SSDP: what the gateway announces and what it answers, byte for byte."""

from gateway_case import (BASE, GATEWAY, LAN, LAN_ADDRESS_ID, ROOT, SERVER, WAN, GatewayCase,
                          all_targets, root_targets, wan_targets)
from scripted_platform import address, interface
from support.lan import pending_texts, receive_texts, search_request


def alive(target, usn, base=BASE):
    return (f"NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=3600\r\n"
            f"LOCATION: {base}/gateway.xml\r\nNT: {target}\r\nNTS: ssdp:alive\r\n"
            f"SERVER: {SERVER}\r\nUSN: {usn}\r\n\r\n").encode()


def byebye(target, usn):
    return (f"NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: {target}\r\n"
            f"NTS: ssdp:byebye\r\nUSN: {usn}\r\n\r\n").encode()


def found(target, usn):
    return (f"HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=3600\r\nEXT: \r\n"
            f"LOCATION: {BASE}/gateway.xml\r\nSERVER: {SERVER}\r\nST: {target}\r\n"
            f"USN: {usn}\r\n\r\n").encode()


class Adverts(GatewayCase):
    def setUp(self):
        super().setUp()
        self.group = self.lan.hear_adverts()
        self.addCleanup(self.group.close)

    def hear(self, expected):
        """Exactly these datagrams come next."""
        texts = receive_texts(self.group, len(expected))
        self.assertEqual([text.raw for text in texts], expected)

    def hear_nothing_more(self):
        """Whatever was sent before a search is answered has arrived before the answer."""
        self.lan.search("upnp:rootdevice")
        sent = [text for text in pending_texts(self.group) if text.start_line.startswith("NOTIFY")]
        self.assertEqual(sent, [])

    # Also proves [server-field], [advert-fields], [advert-burst].
    def test_a_start_announces_each_target_once_in_order(self):
        self.serve()
        self.hear([alive(*entry) for entry in all_targets()])
        self.hear_nothing_more()

    def test_a_gateway_without_a_wan_announces_the_four_targets_of_its_root(self):
        self.serve(wan=False)
        self.hear([alive(*entry) for entry in root_targets()])
        self.hear_nothing_more()

    # Also proves [goodbye-rules], [goodbye-end].
    def test_the_end_withdraws_every_target_once(self):
        self.serve()
        self.hear([alive(*entry) for entry in all_targets()])
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        # The LAN side was configured first, so it is stopped first, with everything that is known.
        self.hear([byebye(*entry) for entry in all_targets()])
        self.assertEqual(pending_texts(self.group), [])

    # Promise [advert-external]: An external interface that starts or stops is announced or
    # withdrawn alone: its own targets on every LAN that is served.
    # Also proves [targets-external].
    def test_a_wan_that_comes_and_goes_is_announced_alone(self):
        self.serve(wan=False)
        self.hear([alive(*entry) for entry in root_targets()])
        self.add_object(WAN, 1)
        expected = sorted(wan_targets(), key=lambda entry: entry[0])
        self.hear([alive(*entry) for entry in expected])
        self.platform.request(0xFE0006, {0x08FE0001: 2})
        self.hear([byebye(*entry) for entry in expected])
        self.hear_nothing_more()

    # Promise [goodbye-address]: A LAN interface whose address changes says goodbye with everything
    # and announces everything again with the new address in LOCATION.
    def test_a_new_address_withdraws_the_old_one(self):
        self.serve(wan=False)
        self.hear([alive(*entry) for entry in root_targets()])
        self.router.ip("addr", "add", "192.168.88.2/24", "dev", "lan0")
        self.notify_addresses(address(LAN_ADDRESS_ID, LAN, "192.168.88.2"))
        self.hear([byebye(*entry) for entry in root_targets()])
        self.hear([alive(*entry, base="http://192.168.88.2:2828") for entry in root_targets()])
        self.hear_nothing_more()

    # Promise: A LAN interface that loses its last address says goodbye and refuses connections
    # until it has one again.
    # Also proves [address-last], [goodbye].
    def test_the_lan_side_stops_when_its_address_goes(self):
        self.serve(wan=False)
        self.hear([alive(*entry) for entry in root_targets()])
        self.notify_addresses(address(LAN_ADDRESS_ID, LAN, GATEWAY, disabled=True))
        self.hear([byebye(*entry) for entry in root_targets()])
        with self.assertRaises(ConnectionRefusedError):
            self.lan.connect()

    # Promise [advert-address]: Each LAN gets the address of its own interface, and no announcement
    # of the other LANs.
    def test_each_lan_gets_only_its_own_address(self):
        other = self.join_lan("lan1", "192.168.99.1", "192.168.99.10")
        group = other.hear_adverts()
        self.addCleanup(group.close)
        self.platform.interfaces[7] = interface(7, "lan1", self.index("lan1"))
        self.platform.addresses[17] = address(17, 7, "192.168.99.1")
        self.serve(wan=False)
        self.hear([alive(*entry) for entry in root_targets()])
        self.add_object(7, 2)
        texts = receive_texts(group, 4)
        self.assertEqual([text.raw for text in texts],
                         [alive(*entry, base="http://192.168.99.1:2828")
                          for entry in root_targets()])
        self.hear_nothing_more()


class Searches(GatewayCase):
    # Also proves [search-reply], [search-all].
    def test_a_search_for_all_gets_every_target_in_order(self):
        self.serve()
        replies = self.lan.search("ssdp:all")
        self.assertEqual([reply.raw for reply in replies],
                         [found(*entry) for entry in all_targets()])

    def test_a_search_gets_the_target_that_it_names(self):
        self.serve()
        for target, usn in all_targets():
            with self.subTest(target=target):
                self.assertEqual([reply.raw for reply in self.lan.search(target)],
                                 [found(target, usn)])

    # Promise: Two external interfaces are both found under their common device and service types.
    def test_two_wans_are_both_found_under_one_type(self):
        self.platform.interfaces[7] = interface(7, "wan1")
        self.serve()
        self.add_object(7, 1)
        kind = "urn:schemas-upnp-org:service:WANIPConnection:1"
        expected = [entry for entry in all_targets(WAN, 7) if entry[0] == kind]
        self.assertEqual(len(expected), 2)
        self.assertEqual([reply.raw for reply in self.lan.search(kind)],
                         [found(*entry) for entry in expected])

    def test_a_wan_that_was_withdrawn_is_found_until_the_targets_are_rebuilt(self):
        self.platform.interfaces[7] = interface(7, "wan1")
        self.serve()
        wan = f"uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-{WAN}"
        self.platform.request(0xFE0006, {0x08FE0001: 2})
        self.assertEqual([reply.raw for reply in self.lan.search(wan)], [found(wan, wan)])
        self.add_object(7, 1)
        self.assertEqual(self.lan.search(wan), [])

    # Also proves [search-target], [search-line], [search-host], [search-man], [search-required].
    def test_a_datagram_that_is_no_search_is_ignored(self):
        self.serve()
        good = search_request("ssdp:all").decode()
        for reason, datagram in (
                ("another method", good.replace("M-SEARCH", "NOTIFY")),
                ("another version", good.replace("HTTP/1.1", "HTTP/1.0")),
                ("a blank behind the start line", good.replace("HTTP/1.1", "HTTP/1.1 ")),
                ("no port in HOST", good.replace(":1900", "")),
                ("another port in HOST", good.replace(":1900", ":1901")),
                ("the address spelt otherwise", good.replace("255.250", "255.0250")),
                ("no HOST", good.replace("HOST: 239.255.255.250:1900\r\n", "")),
                ("MAN without quotes", good.replace('"', "")),
                ("MAN in upper case", good.replace("ssdp:discover", "SSDP:DISCOVER")),
                ("no MAN", good.replace('MAN: "ssdp:discover"\r\n', "")),
                ("no MX", good.replace("MX: 1\r\n", "")),
                ("no ST", good.replace("ST: ssdp:all\r\n", "")),
                ("an ST of nothing known", good.replace("ssdp:all", "urn:none")),
                ("an ST in upper case", good.replace("ssdp:all", "UPNP:ROOTDEVICE")),
                ("bare line feeds", good.replace("\r\n", "\n")),
                ("one line", "M-SEARCH * HTTP/1.1"),
                ("no text at all", "\x00\xff" * 700)):
            with self.subTest(reason):
                self.assertEqual(self.lan.search(datagram.encode("latin-1")), [])
        self.assert_serves()

    # Also proves [search-mx].
    def test_a_search_may_be_written_loosely(self):
        self.serve()
        good = search_request("upnp:rootdevice").decode()
        for reason, datagram in (
                ("MX is zero", good.replace("MX: 1", "MX: 0")),
                ("MX is no number", good.replace("MX: 1", "MX: soon")),
                ("MX is empty", good.replace("MX: 1", "MX:")),
                ("field names in lower case", good.replace("HOST", "host").replace("ST:", "st:")),
                ("many blanks", good.replace("ST: ", "ST:     ")),
                ("no end of the header", good[:-2])):
            with self.subTest(reason):
                replies = self.lan.search(datagram.encode())
                self.assertEqual([reply.raw for reply in replies],
                                 [found("upnp:rootdevice", f"{ROOT}::upnp:rootdevice")])

    def test_an_empty_datagram_is_logged_and_the_next_search_answered(self):
        self.serve()
        self.lan.send_search(b"").close()
        self.daemon.wait_for_line("search recvfrom failed")
        self.assert_serves()

    # Also proves [search-size].
    def test_a_datagram_longer_than_the_buffer_is_cut_there(self):
        self.serve()
        good = search_request("upnp:rootdevice")
        padded = good[:-2] + b"X: " + b"x" * 4096 + b"\r\n\r\n"
        cut_in_a_field = self.lan.search(padded)
        self.assertEqual(len(cut_in_a_field), 1)
        self.assert_serves()
