"""Ports that end in time, on a real router."""

import socket

from support import lm
from support.network import LAN_HOSTS, WAN_ADDRESS
from support.router import SERVICE_USER
from support.router_case import RouterCase
from support.users import as_user

RULES = [20, 5]
PORT_FIRST, PORT_LAST = 0x08000009, 0x0800000A
LEASE, ANY_PORT, ENDED = 0x08010050, 0x00010051, 0x08010056
LEASE_OVER, BY_ADMINISTRATOR = 1, 2
TOPIC_COMMAND, TOPIC_SOURCE = 0x08000001, 0x88000002


def leased_rule(port, seconds):
    """An add request of UDP `port`, or another one when that is taken, to a port of a LAN host."""
    external, client = lm.address(WAN_ADDRESS), lm.address(LAN_HOSTS[0])
    return {0x00FE0007: True, lm.DISABLED: False, 0x20000027: "dstnat",
            0x000001A3: True, 0x08000034: external, 0x08000035: external,
            0x00000196: True, PORT_FIRST: port, PORT_LAST: port,
            0x00000194: True, 0x0800000B: 17, 0x08000028: 22,
            0x000003EE: True, 0x080003E8: client, 0x080003E9: client,
            0x000003EF: True, 0x080003EA: 5000, 0x080003EB: 5000,
            LEASE: seconds, ANY_PORT: True}


class LeaseTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.service = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(self.service.close)
        self.service.settimeout(10)
        path = str(self.router.root / "run" / "lumen.sock")
        as_user(SERVICE_USER, lambda: self.service.connect(path))
        self.asks([0], lm.BROKER_SUBSCRIBE,
                  {TOPIC_COMMAND: lm.CMD_CHANGED, TOPIC_SOURCE: RULES})

    def asks(self, path, command, fields):
        request = lm.Message({lm.DESTINATION: path, lm.SERIAL: 7, lm.COMMAND: command})
        request.update(fields)
        self.service.send(lm.encode(request))
        reply = lm.decode(self.service.recv(65536))
        self.assertIsNone(reply.error())
        return reply

    def is_told(self):
        """The record of the next notification."""
        news = lm.decode(self.service.recv(65536))
        self.assertEqual((news[lm.COMMAND], news[lm.SOURCE]), (lm.CMD_CHANGED, RULES))
        return news[lm.RECORDS][0]

    # Also proves [rule-lease], [any-port].
    def test_a_lease_ends_in_the_kernel_and_its_owner_is_told(self):
        first = self.asks(RULES, lm.CMD_ADD, leased_rule(6881, 3600))
        self.assertEqual(first[PORT_FIRST], 6881)
        second = self.asks(RULES, lm.CMD_ADD, leased_rule(6881, 1))
        port = second[PORT_FIRST]
        self.assertNotEqual(port, 6881)
        told = self.is_told()
        self.assertEqual((told[lm.OBJECT_ID], told[lm.REMOVED], told[ENDED]),
                         (second[lm.OBJECT_ID], 1, LEASE_OVER))
        self.assertNotIn(f". {port} ", self.router.kernel_map())
        self.assertIn("45.45.45.1 . udp . 6881 ", self.router.kernel_map())
        self.assertEqual(list(self.router.ports()), ["6881/udp"])
        self.assertLess(self.router.ports()["6881/udp"]["seconds_left"], 3601)
        self.assertIn("the lease ended", self.router.lumenctl("nat", "log"))

    def test_the_owner_is_told_that_the_administrator_closed_its_port(self):
        added = self.asks(RULES, lm.CMD_ADD, leased_rule(6881, 3600))
        self.router.lumenctl("nat", "close", "6881/udp")
        told = self.is_told()
        self.assertEqual((told[lm.OBJECT_ID], told[ENDED]),
                         (added[lm.OBJECT_ID], BY_ADMINISTRATOR))
        self.assertNotIn(lm.REMOVED, told)
