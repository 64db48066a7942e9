"""palinode-pcp over real sockets: NAT-PMP and PCP from hosts on the LAN, byte for byte."""

import os
import socket
import struct
import threading
import time
import unittest

from gateway_case import EXTERNAL, GATEWAY, HOST, INTERNAL, LAN, WAN, WAN_ADDRESS, Daemon, GatewayCase
from gateway_case import LAN_ADDRESS_ID, WAN_ADDRESS_ID
from scripted_platform import NAT_RULES, ScriptedPlatform, address, error, interface
from support import lm, pcp
from support.lm import Message
from support.pcp import NONCE, PORT, TCP, UDP, mapped, natpmp_map

ENABLED, AGENTS = 0x00000001, 0x20000002
SERVED, PROBLEM, MAPPINGS = 0x20000010, 0x20000011, 0x08000012

# Of a rule.
PROTOCOL, ADDRESS, RULE_PORT = 0x0800000B, 0x08000034, 0x08000009
CLIENT, CLIENT_PORT = 0x080003E8, 0x080003EA
LEASE, ANY_PORT, CLOSED = 0x08010050, 0x00010051, 0x00010024
REMOTE_NETWORKS, REMOTE_PREFIXES = 0x88010052, 0x88010053
REFUSAL = 0x08010054
FIND_OTHER = 0x10006
CONFLICT, POLICY, FULL, RIGHTS, PORT_POLICY = 2, 3, 4, 5, 6

NEW_WAN_ADDRESS = "46.46.46.2"


def pcp_map(protocol, internal, external=0, lifetime=3600, host=HOST, options=b""):
    return pcp.pcp_map(protocol, internal, external, lifetime=lifetime, host=host, options=options)


class PcpCase(GatewayCase):
    program = "palinode-pcp"

    def make_platform(self):
        os.makedirs(os.path.join(self.folder, "store", "pcp"))
        platform = ScriptedPlatform(self.folder, [41, 0])
        self.addCleanup(platform.close)
        platform.interfaces = {
            LAN: interface(LAN, "lan0", self.index("lan0"), role=INTERNAL),
            WAN: interface(WAN, "wan0", 99, role=EXTERNAL)}
        platform.addresses = {LAN_ADDRESS_ID: address(LAN_ADDRESS_ID, LAN, GATEWAY),
                              WAN_ADDRESS_ID: address(WAN_ADDRESS_ID, WAN, WAN_ADDRESS)}
        return platform

    def start_daemon(self):
        registrations = len(self.platform.requests((0,), lm.BROKER_REGISTER))
        self.daemon = Daemon(self.router, self.folder, self.host_name, self.program)
        self.addCleanup(self._end, self.daemon)
        self.platform.wait_for_connection(registrations + 1)
        return self.daemon

    def serve(self, agents=""):
        self.start_daemon()
        reply = self.platform.request(lm.CMD_SET_SETTINGS, {ENABLED: True, AGENTS: agents})
        self.assertEqual(reply, {})
        self.assertEqual(self.settings()[SERVED], "lan0")
        self.platform.forget_requests()

    def settings(self):
        return self.platform.request(lm.CMD_GET_SETTINGS)

    def socket(self, at=("", 0), host=None):
        with (host or self.lan).namespace.entered():
            sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.bind(at)
        sock.settimeout(5)
        return sock

    def ask(self, request, sock=None, gateway=GATEWAY):
        """The answer, which must come from where it was asked."""
        sock = sock or self.socket()
        sock.sendto(request, (gateway, PORT))
        answer, source = sock.recvfrom(2000)
        self.assertEqual(source, (gateway, PORT))
        return answer

    def code(self, request, sock=None):
        """The result code of a PCP answer."""
        return self.ask(request, sock)[3]

    def rules(self, command=lm.CMD_ADD):
        return [dict(request.fields) for request in self.platform.requests(NAT_RULES, command)]

    def refuse(self, why):
        self.platform.answer(NAT_RULES, lm.CMD_ADD,
                             lambda _: Message({**error("no"), REFUSAL: why}))


class NatPmpTest(PcpCase):
    # Promise [natpmp-ports]: A program on the LAN opens, renews and closes ports with NAT-PMP.
    def test_a_port_is_opened_renewed_and_closed(self):
        self.serve()
        # Version 0, opcode 128 + 0, success, epoch below 5 seconds, the external address.
        answer = self.ask(b"\0\0")
        self.assertEqual(answer[:4], b"\0\x80\0\0")
        self.assertLess(struct.unpack("!I", answer[4:8])[0], 5)
        self.assertEqual(answer[8:], socket.inet_aton(WAN_ADDRESS))

        answer = self.ask(natpmp_map(TCP, 80, 8080, 7200))
        self.assertEqual(answer[:4], b"\0\x82\0\0")
        self.assertEqual(struct.unpack("!HHI", answer[8:]), (80, 8080, 7200))
        (rule,) = self.rules()
        self.assertEqual(
            {key: rule[key] for key in (PROTOCOL, ADDRESS, RULE_PORT, CLIENT, CLIENT_PORT, LEASE,
                                        ANY_PORT)},
            {PROTOCOL: TCP, ADDRESS: lm.address(WAN_ADDRESS), RULE_PORT: 8080,
             CLIENT: lm.address(HOST), CLIENT_PORT: 80, LEASE: 7200, ANY_PORT: True})
        self.assertNotIn(REMOTE_NETWORKS, rule)
        self.assertEqual(self.settings()[MAPPINGS], 1)

        self.ask(natpmp_map(TCP, 80, 8080, 3600))
        self.assertEqual(len(self.rules()), 1)
        self.assertEqual(self.rules(lm.CMD_SET), [{lm.OBJECT_ID: 101, LEASE: 3600}])

        answer = self.ask(natpmp_map(TCP, 80, 0, 0))
        self.assertEqual(struct.unpack("!HHHI", answer[2:4] + answer[8:]), (0, 80, 0, 0))
        self.assertEqual(self.rules(lm.CMD_REMOVE), [{lm.OBJECT_ID: 101}])
        self.assertEqual(self.settings()[MAPPINGS], 0)

    def test_the_answer_says_which_port_it_became(self):
        self.serve()
        self.platform.answer(NAT_RULES, lm.CMD_ADD,
                             lambda _: Message({lm.OBJECT_ID: 7, RULE_PORT: 40000}))
        self.assertEqual(struct.unpack("!HHI", self.ask(natpmp_map(UDP, 80, 8080))[8:]),
                         (80, 40000, 3600))

    def test_each_refusal_of_the_platform_has_its_result(self):
        self.serve()
        for why, result in ((CONFLICT, 4), (POLICY, 2), (FULL, 4), (RIGHTS, 2), (1, 4)):
            self.refuse(why)
            self.assertEqual(self.ask(natpmp_map(TCP, 80, 8080))[3], result, why)
        self.assertEqual(self.settings()[MAPPINGS], 0)


class PcpTest(PcpCase):
    # Promise [pcp-ports]: A program on the LAN opens and closes ports with PCP.
    def test_a_port_is_opened_and_closed(self):
        self.serve()
        answer = self.ask(pcp_map(UDP, 5000, 5001))
        # Version 2, response to MAP, success, an hour; the nonce; the port and the address.
        self.assertEqual(answer[:8], struct.pack("!BBBBI", 2, 0x81, 0, 0, 3600))
        self.assertEqual(answer[24:36], NONCE)
        self.assertEqual(answer[36:], struct.pack("!B3xHH", UDP, 5000, 5001) + mapped(WAN_ADDRESS))
        self.assertEqual(self.code(pcp_map(UDP, 5000, lifetime=0)), 0)
        self.assertEqual(self.rules(lm.CMD_REMOVE), [{lm.OBJECT_ID: 101}])

    def test_what_must_be_that_port_is_no_wish(self):
        self.serve()
        self.assertEqual(self.code(pcp_map(TCP, 80, 8080, options=b"\2\0\0\0")), 0)
        self.assertNotIn(ANY_PORT, self.rules()[0])
        for why, code in ((CONFLICT, 11), (PORT_POLICY, 11), (POLICY, 2)):
            self.refuse(why)
            self.assertEqual(self.code(pcp_map(TCP, 81, 8080, options=b"\2\0\0\0")), code)

    # Promise: A PCP client whose port another service has opened is told that port.
    def test_a_port_that_is_open_by_other_means_is_the_answer(self):
        self.serve()
        self.platform.answer(NAT_RULES, FIND_OTHER, lambda _: Message({RULE_PORT: 9090}))
        answer = self.ask(pcp_map(TCP, 80, 8080))
        self.assertEqual(answer[3], 0)
        self.assertEqual(answer[36:], struct.pack("!B3xHH", TCP, 80, 9090) + mapped(WAN_ADDRESS))
        (asked,) = self.rules(FIND_OTHER)
        self.assertEqual(
            {key: asked[key] for key in (PROTOCOL, ADDRESS, CLIENT, CLIENT_PORT)},
            {PROTOCOL: TCP, ADDRESS: lm.address(WAN_ADDRESS), CLIENT: lm.address(HOST),
             CLIENT_PORT: 80})
        self.assertEqual(self.code(pcp_map(TCP, 80, lifetime=0)), 2)
        self.assertEqual(self.rules(), [])

    def test_a_filter_is_the_network_of_the_rule(self):
        self.serve()
        option = struct.pack("!BBHBBH", 3, 0, 20, 0, 120, 0) + mapped("198.51.100.0")
        self.assertEqual(self.code(pcp_map(TCP, 80, 8080, options=option)), 0)
        (rule,) = self.rules()
        self.assertEqual((rule[REMOTE_NETWORKS], rule[REMOTE_PREFIXES]),
                         ([lm.address("198.51.100.0")], [24]))

    def test_only_an_agent_asks_for_others(self):
        self.serve()
        option = struct.pack("!BBH", 1, 0, 16) + mapped("192.168.88.77")
        self.assertEqual(self.code(pcp_map(TCP, 80, options=option)), 5)
        self.assertEqual(self.platform.request(lm.CMD_SET_SETTINGS, {AGENTS: HOST}), {})
        self.assertEqual(self.code(pcp_map(TCP, 80, options=option)), 0)
        self.assertEqual(self.rules()[0][CLIENT], lm.address("192.168.88.77"))

    def test_another_address_than_that_of_the_packet_is_a_mismatch(self):
        self.serve()
        self.assertEqual(self.code(pcp_map(TCP, 80, host="192.168.88.77")), 12)
        self.assertEqual(self.rules(), [])

    def test_what_is_too_long_is_malformed(self):
        self.serve()
        answer = self.ask(pcp_map(TCP, 80) + bytes(1200))
        self.assertEqual((len(answer), answer[3]), (1100, 3))


class ServingTest(PcpCase):
    def test_the_answer_comes_from_the_address_that_was_asked(self):
        self.router.ip("addr", "add", "192.168.88.2/24", "dev", "lan0")
        self.serve()
        self.platform.addresses[20] = address(20, LAN, "192.168.88.2")
        self.notify_addresses(self.platform.addresses[20])
        sock = self.socket()
        sock.settimeout(0.2)
        for _ in range(20):
            try:
                self.ask(b"\0\0", sock, "192.168.88.2")
                break
            except socket.timeout:
                pass
        else:
            self.fail("the second address is not served")
        self.ask(b"\0\0")

    # Promise [pcp-addresses]: NAT-PMP and PCP are answered at addresses of internal interfaces
    # only.
    def test_an_address_that_is_not_of_the_interface_is_not_answered(self):
        self.router.link("wan0", self.make_namespace(), "eth0")
        self.router.ip("addr", "add", f"{WAN_ADDRESS}/24", "dev", "wan0")
        self.lan.namespace.ip("route", "add", "default", "via", GATEWAY)
        self.serve()
        sock = self.socket()
        sock.sendto(b"\0\0", (WAN_ADDRESS, PORT))
        # The answer to the second question comes first.
        self.ask(b"\0\0", sock)

    def test_off_closes_everything_and_ends_the_program(self):
        self.serve()
        self.ask(natpmp_map(TCP, 80, 8080))
        self.assertEqual(self.platform.request(lm.CMD_SET_SETTINGS, {ENABLED: False}), {})
        self.assertEqual(self.rules(lm.CMD_REMOVE), [{lm.OBJECT_ID: 101}])
        self.assertEqual(self.settings()[SERVED], "")
        self.assertEqual(self.daemon.wait(), 0)
        # It stays off, and leaves at once.
        self.start_daemon()
        self.assertEqual(self.daemon.wait(), 0)

    def test_on_is_kept_for_the_next_start(self):
        self.serve()
        self.daemon.kill()
        self.start_daemon()
        self.assertEqual(self.settings()[SERVED], "lan0")
        self.ask(b"\0\0")

    def test_bad_settings_change_nothing(self):
        self.serve(agents="192.168.88.5 192.168.88.6")
        for agents in ("192.168.88", "host", " ".join(f"10.0.0.{i}" for i in range(17))):
            reply = self.platform.request(lm.CMD_SET_SETTINGS, {ENABLED: False, AGENTS: agents})
            self.assertIn(lm.ERROR_TEXT, reply)
        self.assertEqual(self.settings()[AGENTS], "192.168.88.5 192.168.88.6")
        self.ask(b"\0\0")

    def test_a_taken_port_is_a_problem_that_passes(self):
        with self.router.entered():
            other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        other.bind(("", PORT))
        self.start_daemon()
        self.platform.request(lm.CMD_SET_SETTINGS, {ENABLED: True})
        self.assertIn("UDP port 5351 on lan0: taken by another program",
                      self.settings()[PROBLEM])
        other.close()
        end = time.monotonic() + 10
        while self.settings()[PROBLEM] and time.monotonic() < end:
            time.sleep(0.1)
        self.assertEqual((self.settings()[PROBLEM], self.settings()[SERVED]), ("", "lan0"))
        self.ask(b"\0\0")

    def test_what_the_platform_ended_is_no_mapping(self):
        self.serve()
        self.ask(natpmp_map(TCP, 80, 8080))
        self.notify(lm.CMD_CHANGED, NAT_RULES,
                    {lm.RECORDS: [Message({lm.OBJECT_ID: 101, lm.REMOVED: 1})]})
        self.assertEqual(self.settings()[MAPPINGS], 0)

    def test_what_the_administrator_closed_is_not_opened_again(self):
        self.serve()
        self.ask(natpmp_map(TCP, 80, 8080))
        self.notify(lm.CMD_CHANGED, NAT_RULES,
                    {lm.RECORDS: [Message({lm.OBJECT_ID: 101, CLOSED: True})]})
        self.assertEqual(self.ask(natpmp_map(TCP, 80, 8080))[3], 2)
        self.assertEqual(len(self.rules()), 1)


class AnnouncementTest(PcpCase):
    def listen(self):
        """A socket of the LAN host that hears announcements."""
        sock = self.socket(("", 5350))
        group = struct.pack("4s4si", socket.inet_aton("224.0.0.1"), bytes(4),
                            self.lan_index())
        sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
        return sock

    def lan_index(self):
        with self.lan.namespace.entered():
            return socket.if_nametoindex("eth0")

    def wait_for_epoch(self, least):
        end = time.monotonic() + 5
        while struct.unpack("!I", self.ask(b"\0\0")[4:8])[0] < least:
            self.assertLess(time.monotonic(), end, "the epoch counts seconds")
            time.sleep(0.05)

    def heard(self, sock, source=GATEWAY, result=0):
        """The next announcements of both languages: their epochs and the external address."""
        natpmp, sender = sock.recvfrom(2000)
        self.assertEqual(sender, (source, PORT))
        self.assertEqual(natpmp[:4], struct.pack("!BBH", 0, 128, result))
        pcp, sender = sock.recvfrom(2000)
        self.assertEqual(sender, (source, PORT))
        self.assertEqual((pcp[:8], len(pcp)), (b"\2\x80\0\0\0\0\0\0", 24))
        self.assertEqual(pcp[8:12], natpmp[4:8])
        return struct.unpack("!I", natpmp[4:8])[0], socket.inet_ntoa(natpmp[8:])

    # Promise [pcp-announced]: The start of the program and each change of the external address are
    # announced to the LAN in both languages, with the new epoch.
    def test_the_start_and_a_change_of_the_address_are_announced(self):
        sock = self.listen()
        begin = time.monotonic()
        self.serve()
        for pause in (0, 0.25, 0.75):
            self.assertEqual(self.heard(sock)[1], WAN_ADDRESS)
            self.assertGreaterEqual(time.monotonic() - begin, pause)
        self.ask(natpmp_map(TCP, 80, 8080))
        self.wait_for_epoch(1)

        self.platform.addresses[WAN_ADDRESS_ID] = address(WAN_ADDRESS_ID, WAN, NEW_WAN_ADDRESS)
        self.notify_addresses(self.platform.addresses[WAN_ADDRESS_ID])
        while True:
            epoch, external = self.heard(sock)
            if external == NEW_WAN_ADDRESS:
                break
        self.assertEqual(epoch, 0)
        self.assertEqual(self.rules(lm.CMD_REMOVE), [{lm.OBJECT_ID: 101}])
        self.assertEqual(self.ask(b"\0\0")[8:], socket.inet_aton(NEW_WAN_ADDRESS))

    def move_wan_address(self, new, removed=False):
        fields = address(WAN_ADDRESS_ID, WAN, new)
        if removed:
            self.platform.addresses.pop(WAN_ADDRESS_ID)
            fields[lm.REMOVED] = 1
        else:
            self.platform.addresses[WAN_ADDRESS_ID] = fields
        self.notify_addresses(fields)

    def hears_next(self, sock, external, result=0):
        """Leaves out what repeats the announcement before; returns the epoch."""
        for _ in range(10):
            natpmp, _ = sock.recvfrom(2000), sock.recvfrom(2000)
            found = struct.unpack("!HI", natpmp[0][2:8])
            if natpmp[0][8:] == socket.inet_aton(external):
                self.assertEqual(found[0], result)
                return found[1]
        self.fail(f"{external} is not announced")

    # Promise [pcp-no-address]: A router without an external address says so: NAT-PMP's result is 3,
    # PCP's code 7, and its announcements are NETWORK FAILURE.
    def test_without_an_external_address_the_start_is_announced_and_nothing_opened(self):
        self.platform.addresses.pop(WAN_ADDRESS_ID)
        sock = self.listen()
        self.serve()
        self.assertEqual(self.heard(sock, result=3), (0, "0.0.0.0"))
        self.assertEqual(self.ask(b"\0\0")[2:4], b"\0\3")
        self.assertEqual(self.ask(natpmp_map(TCP, 80))[2:4], b"\0\3")
        self.assertEqual(self.code(pcp_map(TCP, 80)), 7)

    # Promise [pcp-no-link]: When the external address goes, its mappings are lost and a new epoch
    # begins, which is announced; when an address comes, another epoch begins.
    def test_the_loss_and_the_return_of_the_address_begin_an_epoch_each(self):
        sock = self.listen()
        self.serve()
        self.ask(natpmp_map(TCP, 80, 8080))
        self.wait_for_epoch(1)
        self.move_wan_address(WAN_ADDRESS, removed=True)
        self.assertEqual(self.hears_next(sock, "0.0.0.0", result=3), 0)
        self.assertEqual(self.settings()[MAPPINGS], 0)
        self.wait_for_epoch(1)
        self.move_wan_address(WAN_ADDRESS)
        self.assertEqual(self.hears_next(sock, WAN_ADDRESS), 0)

    # Promise [pcp-announcers]: A router that has several addresses on the LAN announces from each
    # of them.
    def test_each_address_of_the_router_announces(self):
        self.router.ip("addr", "add", "192.168.88.2/24", "dev", "lan0")
        self.platform.addresses[20] = address(20, LAN, "192.168.88.2")
        sock = self.listen()
        self.serve()
        senders = [sock.recvfrom(2000)[1] for _ in range(4)]
        self.assertEqual(sorted(set(senders)), [(GATEWAY, PORT), ("192.168.88.2", PORT)])


class FloodTest(PcpCase):
    # Promise [pcp-flood]: A host that floods the router with requests does not keep another one
    # from its answer for more than 50 ms.
    def test_a_flood_of_one_host_delays_no_other(self):
        other = "192.168.88.11"
        self.lan.namespace.ip("addr", "add", f"{other}/24", "dev", "eth0")
        self.serve()
        flooding = self.socket((HOST, 0))
        flooding.setblocking(False)
        stop = threading.Event()
        sent = 0

        def flood():
            nonlocal sent
            request = natpmp_map(TCP, 80, 8080)
            while not stop.is_set():
                try:
                    flooding.sendto(request, (GATEWAY, PORT))
                    sent += 1
                except BlockingIOError:
                    pass

        thread = threading.Thread(target=flood)
        thread.start()
        try:
            asking = self.socket((other, 0))
            waits = []
            for _ in range(100):
                stop.wait(0.005)
                begin = time.monotonic()
                self.ask(b"\0\0", asking)
                waits.append(time.monotonic() - begin)
        finally:
            stop.set()
            thread.join()
        self.assertGreater(sent, 1000)
        self.assertLess(sorted(waits)[len(waits) // 2], 0.05, waits)
        # What it asked for beyond its limit cost the platform nothing.
        self.assertLess(len(self.rules(lm.CMD_SET)), 128 + 64 * (sum(waits) + 2))


if __name__ == "__main__":
    unittest.main()
