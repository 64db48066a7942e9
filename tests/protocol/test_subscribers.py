"""Subscribers that fail in every way they can, while all others are served."""

import itertools
import time

from event_case import CONNECTION, INITIAL, OS_INFO, EventCase
from support.subscriber import OK

# On the LAN, but no host has the address.
ABSENT = "http://192.168.88.99:5000/"


def initial_lines():
    return [f"notify: {name} = '{value}'" for name, value in INITIAL.items()]


class SubscriberCase(EventCase):
    """A well-behaved subscriber beside each one that fails."""

    def setUp(self):
        super().setUp()
        self.good = self.informed(100)
        self._last = itertools.count(10)

    def change(self):
        """Changes the external address; returns it."""
        text = f"45.45.45.{next(self._last)}"
        self.change_address(text)
        return text

    def assert_all_are_served(self):
        self.assert_serves()
        text = self.change()
        self.assertEqual(self.good.event().properties, {"ExternalIPAddress": text})

    def lines_since(self, since):
        """The log since that mark without the lines about the change itself."""
        end = self.log_mark() - 1
        return [line for line in self.daemon.log()[since:end]
                if not line.startswith(("dev: ", "set external ip "))]


class Failures(SubscriberCase):
    # Promise [event-once]: Nothing that failed is sent again.
    # Also proves [subscription-failures].
    def test_a_subscriber_that_refuses_an_event_misses_only_that_one(self):
        subscriber = self.informed(1)
        port = subscriber.port
        subscriber.stop_listening()
        for _ in range(3):
            since = self.log_mark()
            text = self.change()
            self.assertEqual(self.good.event().properties, {"ExternalIPAddress": text})
            self.daemon.wait_for_line("notify timeout", since)
            self.assertCountEqual(self.lines_since(since),
                                  [f"notify: ExternalIPAddress = '{text}'"] * 2 +
                                  ["write failed", "notify timeout"])
        again = self.subscriber(1, port=port)
        text = self.change()
        event = again.event()
        self.assertEqual(event.properties, {"ExternalIPAddress": text})
        self.assertEqual(event.seq, 4)  # those that could not be written are counted

    def test_a_subscriber_that_refuses_the_initial_event_gets_the_next(self):
        subscriber = self.subscriber(1)
        port = subscriber.port
        subscriber.stop_listening()
        since = self.log_mark()
        subscriber.subscribe(OS_INFO)
        subscriber.subscribe(CONNECTION)
        self.daemon.wait_for_line("notify timeout", since)
        self.daemon.wait_for_line("notify timeout",
                                  self.daemon.wait_for_line("notify timeout", since))
        again = self.subscriber(1, port=port)
        text = self.change()
        event = again.event()
        self.assertEqual((event.seq, event.properties), (1, {"ExternalIPAddress": text}))

    def test_a_subscriber_without_a_route_delays_no_other(self):
        subscriber = self.subscriber()
        since = self.log_mark()
        subscriber.subscribe(CONNECTION, callback="http://203.0.113.1:5000/")
        lines = self.lines_since(since)
        self.assertEqual(lines, [
            "callback addr: 203.0.113.1, port: 5000, path: /",
            "subscribe: urn:schemas-upnp-org:service:WANIPConnection:1",
            lines[-1]])
        # The words of the GNU C library, and musl's.
        self.assertIn(lines[-1], ("tcp connect: Network is unreachable",
                                  "tcp connect: Network unreachable"))
        self.assertEqual(subscriber.renew().status, 200)
        since = self.log_mark()
        self.assert_all_are_served()
        self.assertEqual(self.lines_since(since)[0], lines[-1])

    # Promise [event-status]: The status is read at characters 10 to 12 of the start line, whatever
    # the rest of it is.
    # Also proves [event-answer].
    def test_an_answer_other_than_200_is_logged(self):
        answers = {
            b"HTTP/1.1 412 Precondition Failed\r\n\r\n": "HTTP/1.1 412 Precondition Failed",
            b"HTTP/1.1 2000\r\n\r\n": None, b"HTTP/1.0 200 OK\r\n\r\n": None,
            b"\x00\x01\x02": "", b"\r\n": "", b"\n" * 10000: "", b"200\r\n": "200",
            b"HTTP/1.1 20\r\n": "HTTP/1.1 20",
            b"GET / HTTP/1.1 200\r\n\r\n": "GET / HTTP/1.1 200",
            b"H\x1b[2J\nexit\r\n": "H?[2J?exit",
        }
        subscriber = self.informed(1)
        for answer, shown in answers.items():
            with self.subTest(answer[:40]):
                text = self.change()
                self.good.event()
                with subscriber.take() as delivery:
                    self.assertEqual(delivery.read().properties, {"ExternalIPAddress": text})
                    since = self.log_mark()
                    delivery.answer(answer)
                    delivery.wait_for_end(5.0)
                self.assertEqual(self.lines_since(since),
                                 [] if shown is None else [f"bad notify reply: {shown}"])

    # Also proves [event-answer].
    def test_an_answer_byte_by_byte_is_judged_by_its_first_piece(self):
        subscriber = self.informed(1)
        self.change()
        self.good.event()
        with subscriber.take() as delivery:
            delivery.read()
            since = self.log_mark()
            delivery.answer(OK[:1])
            delivery.wait_for_end(5.0)
        self.assertEqual(self.lines_since(since), ["bad notify reply: "])
        self.change()
        self.assertEqual(subscriber.event().seq, 2)

    # Promise: An answer that comes before the NOTIFY counts.
    def test_an_answer_before_the_notify_counts(self):
        subscriber = self.subscriber(1)
        subscriber.subscribe(CONNECTION)
        with subscriber.take() as delivery:
            delivery.answer()
            self.assertEqual(delivery.read().seq, 0)
            delivery.wait_for_end(5.0)

    # Promise: A subscriber that reads byte by byte gets its whole event.
    def test_a_subscriber_that_reads_byte_by_byte_gets_its_whole_event(self):
        subscriber = self.subscriber(1)
        subscriber.make_window_small()
        subscriber.subscribe(CONNECTION)
        since = self.log_mark()
        with subscriber.take() as delivery:
            self.assert_all_are_served()
            self.assertEqual(delivery.read(at_once=1).seq, 0)
            delivery.answer()
            delivery.wait_for_end(5.0)
        self.assertNotIn("notify timeout", self.lines_since(since))
        self.assertEqual(subscriber.event().seq, 1)

    # Promise [event-slow]: A subscriber that does not read delays no other: a NOTIFY is written
    # into a send buffer that is made large enough for it.
    def test_subscribers_that_do_not_read_delay_no_other(self):
        sleepers = [self.subscriber(number, path="/" + "x" * 60000) for number in range(1, 21)]
        since = self.log_mark()
        for sleeper in sleepers:
            sleeper.make_window_small()
            sleeper.subscribe(CONNECTION)
        taken = []
        for _ in range(5):
            before = time.monotonic()
            text = self.change()
            self.assertEqual(self.good.event().properties, {"ExternalIPAddress": text})
            self.assert_serves()
            taken.append(time.monotonic() - before)
        self.assertNotIn("write failed", self.lines_since(since))
        self.assertLess(min(taken), 1.0)
        for sleeper in sleepers:
            self.assertEqual(sleeper.renew().status, 200)


class Patience(SubscriberCase):
    """Deliveries that last their thirty seconds."""

    FAILED = "notify reply read failed"

    # Also proves [event-timeout].
    def test_subscribers_that_never_answer_time_out(self):
        reader, sleeper = self.subscriber(1), self.subscriber(2)
        started = time.monotonic()
        reader.subscribe(CONNECTION)
        with reader.take() as delivery:
            delivery.read()
            since = self.log_mark()
            sleeper.subscribe(CONNECTION)
            delivery.wait_for_end(40)
        self.assert_lasted_thirty_seconds(started)
        with sleeper.take() as delivery:
            delivery.read()
            delivery.wait_for_end(10)
        self.assertEqual(self.lines_since(since)[2:],
                         [*initial_lines(), *["notify timeout"] * 2])
        self.assert_all_are_served()
        self.assertEqual(reader.event().seq, 1)
        self.assertEqual(sleeper.event().seq, 1)

    def subscribe_absent_host(self):
        """A subscriber whose callback nothing answers, and the log's mark before its request."""
        subscriber = self.subscriber()
        since = self.log_mark()
        subscriber.subscribe(CONNECTION, callback=ABSENT)
        return subscriber, since

    def test_an_absent_subscriber_times_out(self):
        subscriber, since = self.subscribe_absent_host()
        self.assert_all_are_served()
        self.daemon.wait_for_line("notify timeout", since, limit=40)
        self.assertIn("write failed", self.lines_since(since))
        self.assertEqual(subscriber.renew().status, 200)

    def test_a_delivery_to_an_absent_subscriber_outlives_its_subscription(self):
        subscriber, since = self.subscribe_absent_host()
        subscriber.unsubscribe()
        self.daemon.wait_for_line("notify timeout", since, limit=40)
        self.assertEqual(self.lines_since(since)[2:], ["unsubscribe", "notify timeout"])

    # Also proves [event-reset].
    def test_a_subscriber_that_closes_without_an_answer_is_reported(self):
        self.check_pace(lambda delivery: delivery.close())

    # Also proves [event-reset].
    def test_a_subscriber_that_resets_is_reported(self):
        self.check_pace(lambda delivery: delivery.reset())

    def check_pace(self, end):
        """Logged at once, then at most ten times a second, until the delivery times out."""
        subscriber = self.subscriber(1)
        since = self.log_mark()
        started = time.monotonic()
        subscriber.subscribe(CONNECTION)
        delivery = subscriber.take()
        delivery.read()
        before = self.daemon.processor_time()
        ended = time.monotonic()
        end(delivery)
        following = self.daemon.wait_for_line(self.FAILED, since)
        self.assertLess(time.monotonic() - ended, 5.0)
        for _ in range(25):
            following = self.daemon.wait_for_line(self.FAILED, following)
        self.assertGreater(time.monotonic() - ended, 2.3)
        for _ in range(10):
            self.assert_all_are_served()
        self.daemon.wait_for_line("notify timeout", following, limit=40)
        self.assert_lasted_thirty_seconds(started)
        self.assertLess(self.daemon.processor_time() - before, 2.0)
        told = self.lines_since(since).count(self.FAILED)
        self.assertIn(told, range(100, 303))
        self.assertTrue(subscriber.is_called())  # the changes went on

    def assert_lasted_thirty_seconds(self, started):
        self.assertGreater(time.monotonic() - started, 29.9)
        self.assertLess(time.monotonic() - started, 35)
