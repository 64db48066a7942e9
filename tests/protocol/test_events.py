"""What subscribers receive: NOTIFY byte for byte, in which order, and how many."""

import time

from event_case import CONNECTION, INITIAL, LINK, OS_INFO, EventCase, notify
from gateway_case import WAN, WAN_ADDRESS_ID
from scripted_platform import address, interface
from support import lm
from test_control import mapping


class Contents(EventCase):
    # Also proves [event-initial].
    def test_the_initial_event_of_a_connection(self):
        subscriber = self.subscriber()
        subscriber.subscribe(CONNECTION)
        self.assertEqual(subscriber.event().raw, notify(subscriber, 0, **INITIAL))

    # Also proves [common-variables].
    def test_the_initial_event_of_the_link(self):
        subscriber = self.subscriber()
        subscriber.subscribe(LINK)
        self.assertEqual(subscriber.event().raw, notify(subscriber, 0, PhysicalLinkStatus="Up"))

    # Promise: A subscriber gets the four of them in the initial event.
    # Also proves [osinfo-name].
    def test_the_initial_event_of_the_system(self):
        subscriber = self.subscriber(path="/system")
        subscriber.subscribe(OS_INFO)
        self.assertEqual(subscriber.event().raw,
                         notify(subscriber, 0, OSBuildNumber="1234", OSMachineName="ap",
                                OSMajorVersion="2", OSMinorVersion="9"))

    def test_a_subscriber_is_notified_of_a_new_address(self):
        subscriber = self.informed()
        self.change_address("45.45.45.9")
        self.assertEqual(subscriber.event().raw,
                         notify(subscriber, 1, ExternalIPAddress="45.45.45.9"))
        self.change_address("45.45.45.9")  # no change
        self.change_address("45.45.45.10")
        self.assertEqual(subscriber.event().raw,
                         notify(subscriber, 2, ExternalIPAddress="45.45.45.10"))

    # Promise: Subscribers are notified of a change of the connection's status.
    def test_a_subscriber_is_notified_of_the_state_of_the_wan(self):
        subscriber = self.informed()
        for seq, (disabled, running, status) in enumerate(((True, False, "Disconnected"),
                                                           (False, False, "Connecting"),
                                                           (False, True, "Connected")), 1):
            self.notify_states(interface(WAN, "wan0", disabled=disabled, running=running))
            self.assertEqual(subscriber.event().raw,
                             notify(subscriber, seq, ConnectionStatus=status))

    def test_a_subscriber_is_notified_when_a_control_point_switches_the_wan(self):
        subscriber = self.informed()
        for seq, (action, status) in enumerate((("ForceTermination", "Disconnected"),
                                                ("RequestConnection", "Connecting")), 1):
            self.invoke(action)
            self.assertEqual(subscriber.event().raw,
                             notify(subscriber, seq, ConnectionStatus=status))

    # Promise: Subscribers are notified of a change of PortMappingNumberOfEntries.
    def test_a_subscriber_is_notified_of_the_number_of_mappings(self):
        subscriber = self.informed()
        self.open_port(8080)
        self.assertEqual(subscriber.event().raw,
                         notify(subscriber, 1, PortMappingNumberOfEntries="2"))
        self.open_port(8081)
        self.assertEqual(subscriber.event().properties, {"PortMappingNumberOfEntries": "3"})
        self.open_port(8081)  # the same again
        self.invoke("DeletePortMapping", mapping()[:3])
        self.assertEqual(subscriber.event().properties, {"PortMappingNumberOfEntries": "2"})
        self.set_settings(show_dummy=False)
        self.assertEqual(subscriber.event().properties, {"PortMappingNumberOfEntries": "1"})

    # Also proves [event-initial].
    def test_a_later_subscriber_gets_the_state_at_that_time(self):
        self.change_address("45.45.45.9")
        self.open_port(8080)
        subscriber = self.subscriber()
        subscriber.subscribe(CONNECTION)
        self.assertEqual(subscriber.event().raw, notify(subscriber, 0, **{
            **INITIAL, "ExternalIPAddress": "45.45.45.9", "PortMappingNumberOfEntries": "2"}))

    # Also proves [event-change].
    def test_a_service_notifies_only_its_own_subscribers(self):
        self.informed(1, OS_INFO)
        others = [self.informed(2, OS_INFO), self.informed(3, LINK)]
        subscriber = self.informed()
        self.change_address("45.45.45.9")
        subscriber.event()
        self.assertFalse(any(other.is_called() for other in others))


class LongHostName(EventCase):
    host_name = "router"

    def test_a_host_name_of_six_letters_is_left_out(self):
        subscriber = self.subscriber()
        subscriber.subscribe(OS_INFO)
        self.assertEqual(subscriber.event().raw,
                         notify(subscriber, 0, OSBuildNumber="1234", OSMachineName="",
                                OSMajorVersion="2", OSMinorVersion="9"))


class Order(EventCase):
    # Also proves [event-delay].
    def test_the_initial_event_leaves_time_to_handle_the_answer(self):
        subscriber = self.subscriber()
        before = time.monotonic()
        subscriber.subscribe(CONNECTION)
        with subscriber.take() as delivery:
            self.assertEqual(delivery.read().seq, 0)
            self.assertGreater(time.monotonic() - before, 0.045)
            delivery.answer()

    # Also proves [event-second].
    def test_a_change_right_after_the_subscription_comes_second(self):
        for attempt in range(20):
            subscriber = self.subscriber(attempt)
            subscriber.subscribe(CONNECTION)
            self.change_address(f"45.45.45.{100 + attempt}")
            # Both connections are open at once; nothing was sent on the later one.
            first, second = subscriber.take(), subscriber.take()
            with first, second:
                initial = first.read()
                self.assertEqual((initial.seq, list(initial.properties)), (0, list(INITIAL)))
                self.assertEqual(second.read().raw, notify(
                    subscriber, 1, ExternalIPAddress=f"45.45.45.{100 + attempt}"))
            subscriber.unsubscribe()

    # Promise: Changes do not wait for the answers to earlier ones.
    def test_changes_do_not_wait_for_answers(self):
        subscriber = self.informed()
        deliveries = []
        for seq in range(1, 11):
            self.change_address(f"45.45.45.{100 + seq}")
            deliveries.append(subscriber.take())
            self.assertEqual(deliveries[-1].read().raw,
                             notify(subscriber, seq, ExternalIPAddress=f"45.45.45.{100 + seq}"))
        for delivery in reversed(deliveries):
            delivery.answer()
            delivery.wait_for_end(5.0)
            delivery.close()
        self.change_address("45.45.45.200")
        self.assertEqual(subscriber.event().seq, 11)

    def test_an_answered_delivery_is_closed(self):
        subscriber = self.subscriber()
        since = self.log_mark()
        subscriber.subscribe(OS_INFO)
        with subscriber.take() as delivery:
            delivery.read()
            self.daemon.wait_for_line("notify: OSMinorVersion = '9'", since)
            since = self.log_mark()
            delivery.answer()
            delivery.wait_for_end(5.0)
        self.assert_logged(since)

    # Also proves [unsubscribe].
    def test_no_event_follows_the_end_of_a_subscription(self):
        subscriber = self.informed()
        subscriber.unsubscribe()
        self.change_address("45.45.45.9")
        self.assertFalse(subscriber.is_called())


class Crowd(EventCase):
    """A hundred subscribers, each on its own address."""

    def setUp(self):
        super().setUp()
        self.crowd = [self.subscriber(number) for number in range(100)]

    # Promise [event-seq]: The initial event has SEQ 0, the following ones 1, 2 and so on, in the
    # order in which they are written.
    # Promise [event-hundred]: A hundred subscribers on a hundred addresses all get every event, in
    # order.
    def test_a_hundred_subscribers_get_every_event_in_order(self):
        for subscriber in self.crowd:
            subscriber.subscribe(CONNECTION)
        for subscriber in self.crowd:
            self.assertEqual(subscriber.event().raw, notify(subscriber, 0, **INITIAL))
        for seq in range(1, 11):
            if seq % 2:
                self.open_port(8080 + seq)
                change = {"PortMappingNumberOfEntries": str(2 + seq // 2)}
            else:
                self.change_address(f"45.45.45.{100 + seq}")
                change = {"ExternalIPAddress": f"45.45.45.{100 + seq}"}
            for subscriber in self.crowd:
                self.assertEqual(subscriber.event().raw, notify(subscriber, seq, **change))

    # Promise [event-many]: Of 1,200 deliveries at a time some have to wait, and all arrive.
    # Also proves [event-hundred].
    def test_a_hundred_subscribers_get_every_event_of_a_burst(self):
        for subscriber in self.crowd:
            subscriber.subscribe(CONNECTION)
        for number in range(10):
            self.platform.notify(lm.CMD_CHANGED, (20, 1), {
                lm.RECORDS: [address(WAN_ADDRESS_ID, WAN, f"45.45.45.{100 + number}")]})
        self.notify_states(interface(WAN, "wan0", running=False))
        for subscriber in self.crowd:
            events = [subscriber.event() for _ in range(12)]
            self.assertEqual([event.seq for event in events], list(range(12)))
            self.assertEqual(list(events[0].properties), list(INITIAL))
            self.assertEqual([list(event.properties) for event in events[1:]],
                             [["ExternalIPAddress"]] * 10 + [["ConnectionStatus"]])
            self.assertEqual(events[10].properties["ExternalIPAddress"], "45.45.45.109")
            self.assertFalse(subscriber.is_called())
