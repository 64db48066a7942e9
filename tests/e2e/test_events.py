"""The events that a LAN host gets when the router's links, addresses and ports change."""

import unittest

from support.network import WAN_ADDRESS, WAN_LINK, exchange_tcp
from support.router_case import RouterCase
from support.subscriber import Subscriber


class EventTest(RouterCase):
    SET_UP_OPTIONS = ("--allow-disconnect",)

    def setUp(self):
        super().setUp()
        self.ip = self.network.router.ip
        self.wait_until(lambda: self.lan[0].invoke("GetStatusInfo")["NewConnectionStatus"] ==
                        "Connected", "the WAN side is connected")
        self.subscriber = Subscriber(self.lan[1].speak_to())
        self.addCleanup(self.subscriber.close)
        self.addCleanup(self.assert_nothing_was_missed)
        self.subscriber.subscribe(self.lan[1].connection_events())
        self.events = [self.subscriber.event()]

    def assert_nothing_was_missed(self):
        """Each delivery has a connection of its own, so one may overtake another."""
        while max(event.seq for event in self.events) >= len(self.events):
            self.events.append(self.subscriber.event())
        self.assertEqual(sorted(event.seq for event in self.events),
                         list(range(len(self.events))))

    def assert_notified(self, **changes):
        """The subscriber gets all these values."""
        while changes:
            event = self.subscriber.event(limit=10.0)
            self.events.append(event)
            for variable, value in event.properties.items():
                if changes.get(variable) == value:
                    del changes[variable]

    def test_the_first_event_has_the_state(self):
        self.assertEqual(self.events[0].properties, {
            "ConnectionStatus": "Connected", "ExternalIPAddress": WAN_ADDRESS,
            "PortMappingNumberOfEntries": "0", "PossibleConnectionTypes": "IP_Routed"})

    # Promise: A subscriber sees the external address change, the link go down and up and the number
    # of mappings change, because the kernel changed.
    def test_the_external_address_changes(self):
        self.ip("address", "delete", f"{WAN_ADDRESS}/24", "dev", WAN_LINK)
        self.assert_notified(ExternalIPAddress="0.0.0.0")
        self.ip("address", "add", "45.45.45.9/24", "dev", WAN_LINK)
        self.assert_notified(ExternalIPAddress="45.45.45.9")

    def test_the_link_goes_down_and_up(self):
        for _ in range(2):
            self.wan.namespace.ip("link", "set", "eth0", "down")
            self.assert_notified(ConnectionStatus="Connecting", ExternalIPAddress="0.0.0.0")
            self.wan.namespace.ip("link", "set", "eth0", "up")
            self.assert_notified(ConnectionStatus="Connected", ExternalIPAddress=WAN_ADDRESS)

    # Promise: After RequestConnection the status becomes `Connected` when the platform reports that
    # the interface runs.
    def test_a_control_point_takes_the_wan_side_down_and_up(self):
        self.lan[0].invoke("ForceTermination")
        self.assert_notified(ConnectionStatus="Disconnected")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "down")
        self.lan[0].invoke("RequestConnection")
        self.assert_notified(ConnectionStatus="Connected")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "running")

    def test_a_control_point_requests_a_connection_that_is_up(self):
        self.lan[0].invoke("RequestConnection")
        self.assert_notified(ConnectionStatus="Connected")

    def test_ports_are_opened_and_closed(self):
        host = self.lan[0]
        host.upnpc("-a", host.address, "80", "8080", "tcp")
        self.assert_notified(PortMappingNumberOfEntries="2")  # with the dummy
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 80)
        host.upnpc("-a", host.address, "81", "8081", "tcp")
        self.assert_notified(PortMappingNumberOfEntries="3")
        host.upnpc("-d", "8080", "tcp")
        self.assert_notified(PortMappingNumberOfEntries="2")

    def test_a_subscriber_that_leaves_gets_no_more_events(self):
        self.subscriber.unsubscribe()
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].close_port(8080, "TCP")
        self.assertFalse(self.subscriber.is_called())


if __name__ == "__main__":
    unittest.main()
