"""SUBSCRIBE, renewal and UNSUBSCRIBE: replies byte for byte, limits, and refusals."""

from event_case import CONNECTION, INITIAL, LINK, OS_INFO, EventCase
from gateway_case import BASE, EXTERNAL, GATEWAY, HOST, SERVER, WAN, undated
from scripted_platform import error
from support import lm

OK = b"HTTP/1.1 200 OK\r\n\r\n"
BAD_REQUEST = b"HTTP/1.1 400 Bad Request\r\n\r\n"
NOT_FOUND = b"HTTP/1.1 404 Not Found\r\n\r\n"
PRECONDITION_FAILED = b"HTTP/1.1 412 Precondition Failed\r\n\r\n"
SERVER_ERROR = b"HTTP/1.1 500 Internal Server Error\r\n\r\n"

SID = "uuid:[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}"


def granted(sid, time=1800):
    return (f"HTTP/1.1 200 OK\r\nDATE: -\r\nSERVER: {SERVER}\r\nSID: {sid}\r\n"
            f"TIMEOUT: Second-{time}\r\n\r\n").encode()


class Replies(EventCase):
    # Also proves [unsubscribe].
    def test_a_subscription_from_its_beginning_to_its_end(self):
        subscriber = self.subscriber()
        since = self.log_mark()
        self.assertEqual(undated(subscriber.subscribe(CONNECTION).raw), granted(subscriber.sid))
        self.assertRegex(subscriber.sid, f"^{SID}$")
        self.assertEqual(subscriber.event().seq, 0)
        self.assertEqual(undated(subscriber.renew("TIMEOUT: Second-3600").raw),
                         granted(subscriber.sid, 3600))
        self.assertEqual(subscriber.unsubscribe().raw, OK)
        self.assertEqual(subscriber.unsubscribe().raw, PRECONDITION_FAILED)
        self.assertEqual(subscriber.renew().raw, PRECONDITION_FAILED)
        self.assert_logged(
            since, f"callback addr: {HOST}, port: {subscriber.port}, path: /events",
            "subscribe: urn:schemas-upnp-org:service:WANIPConnection:1",
            *(f"notify: {name} = '{value}'" for name, value in INITIAL.items()),
            "resubscribe: urn:schemas-upnp-org:service:WANIPConnection:1", "unsubscribe")

    def test_no_two_subscriptions_have_the_same_id(self):
        subscriber = self.subscriber()
        ids = set()
        for url in (CONNECTION, LINK, OS_INFO, CONNECTION):
            ids.add(subscriber.subscribe(url)["SID"])
            subscriber.unsubscribe()
        self.assertEqual(len(ids), 4)

    # Also proves [subscribe-time], [subscribe-short], [subscribe-long], [subscribe-digits].
    def test_the_granted_time_lies_between_the_limits(self):
        subscriber = self.subscriber()
        subscriber.subscribe(CONNECTION)
        for field, time in ((None, 1800), ("", 1800), ("Second-0", 1800), ("Second-300", 1800),
                            ("Second-1800", 1800), ("Second-1801", 1801), ("Second-3600", 3600),
                            ("Second-86400", 86400), ("Second-86401", 86400),
                            ("Second-100000", 86400), ("Second-infinite", 86400),
                            ("Second--5", 86400), ("Second-99999999999999999999", 86400),
                            ("Second-3600x", 3600), ("Second-", 1800), ("Second-Infinite", 1800),
                            ("second-3600", 1800), ("3600", 1800), ("infinite", 1800)):
            fields = [] if field is None else [f"TIMEOUT: {field}"]
            with self.subTest(field):
                self.assertEqual(undated(subscriber.renew(*fields).raw),
                                 granted(subscriber.sid, time))
                other = self.subscriber(1)
                self.assertEqual(undated(other.subscribe(OS_INFO, *fields).raw),
                                 granted(other.sid, time))
                other.unsubscribe()

    # Also proves [renewal].
    def test_a_renewal_sends_no_event(self):
        subscriber = self.informed()
        subscriber.renew()
        self.change_address("45.45.45.9")
        self.assertEqual(subscriber.event().properties, {"ExternalIPAddress": "45.45.45.9"})

    def test_a_request_with_nt_and_sid_is_a_new_subscription(self):
        subscriber = self.informed()
        first = subscriber.sid
        self.assertEqual(subscriber.ask(OS_INFO, f"SID: {first}").status, 200)
        self.assertNotEqual(subscriber.sid, first)

    # Promise: A SID is known to its own service only.
    def test_an_id_is_known_only_to_its_service(self):
        subscriber = self.subscriber()
        subscriber.subscribe(CONNECTION)
        subscriber.url = OS_INFO
        self.assertEqual(subscriber.renew().raw, PRECONDITION_FAILED)
        self.assertEqual(subscriber.unsubscribe().raw, PRECONDITION_FAILED)


class Refusals(EventCase):
    # Also proves [subscribe-nt], [subscribe-callback], [subscribe-url], [renewal-unknown],
    # [unsubscribe-unknown].
    def test_invalid_requests_are_refused(self):
        subscriber = self.subscriber()
        good = subscriber.callback
        cases = {
            "nothing": [],
            "no callback": ["NT: upnp:event"],
            "callback without brackets": ["NT: upnp:event", f"CALLBACK: {good}"],
            "callback that is not closed": ["NT: upnp:event", f"CALLBACK: <{good}"],
            "callback without a path": ["NT: upnp:event", f"CALLBACK: <http://{HOST}:5000>"],
            "callback by https": ["NT: upnp:event", f"CALLBACK: <https://{HOST}:5000/>"],
            "callback in capitals": ["NT: upnp:event", f"CALLBACK: <HTTP://{HOST}:5000/>"],
            "empty callback": ["NT: upnp:event", "CALLBACK: <>"],
            "empty nt": ["NT: ", f"CALLBACK: <{good}>"],
            "another nt": ["NT: upnp:propchange", f"CALLBACK: <{good}>"],
            "no nt": [f"CALLBACK: <{good}>"],
            "unknown sid": ["SID: uuid:00000000-0000-0000-0000-000000000000"],
            "empty sid": ["SID: "],
        }
        for why, fields in cases.items():
            with self.subTest(why):
                self.assertEqual(subscriber.request("SUBSCRIBE", CONNECTION, *fields).raw,
                                 PRECONDITION_FAILED)
        self.assertEqual(subscriber.request("UNSUBSCRIBE", CONNECTION).raw, PRECONDITION_FAILED)
        subscriber.subscribe(CONNECTION)

    # Promise [subscribe-host]: SUBSCRIBE and UNSUBSCRIBE whose HOST is not this interface get 400
    # and change nothing.
    def test_a_request_to_another_host_is_bad(self):
        subscriber = self.informed()
        for method in ("SUBSCRIBE", "UNSUBSCRIBE"):
            for host in (f"{GATEWAY}:80", "gateway.example:2828", HOST, ""):
                with self.subTest(method=method, host=host):
                    since = self.log_mark()
                    self.assertEqual(self.lan.exchange(
                        f"{method} {CONNECTION} HTTP/1.1\r\nHOST: {host}\r\n"
                        f"SID: {subscriber.sid}\r\n\r\n".encode()), BAD_REQUEST)
                    self.assert_logged(since, f"{method}: host mismatch '{host}'")
        self.assertEqual(subscriber.renew().status, 200)

    # Promise: SUBSCRIBE at a URL that is no event URL gets 404.
    def test_a_url_that_no_service_has_is_not_found(self):
        subscriber = self.subscriber()
        for url in ("/upnp/event/wanipconn-7", f"/upnp/control/wanipconn-{WAN}", f"{CONNECTION}/",
                    f"{BASE}{CONNECTION}"):
            with self.subTest(url):
                self.assertEqual(subscriber.ask(url).raw, NOT_FOUND)

    # Also proves [subscription-address].
    def test_an_address_has_one_subscription_to_a_service(self):
        first, second = self.subscriber(), self.subscriber(path="/other")
        first.subscribe(CONNECTION)
        self.assertEqual(second.ask(CONNECTION).raw, PRECONDITION_FAILED)
        second.subscribe(OS_INFO)
        self.subscriber(1).subscribe(CONNECTION)
        first.unsubscribe()
        second.subscribe(CONNECTION)

    # Promise [subscription-limit-first]: The number of subscriptions is checked before the address:
    # with 100 subscriptions a second one of the same address gets 500 too.
    # Also proves [subscription-limit].
    def test_the_hundred_and_first_subscription_is_refused(self):
        subscribers = [self.subscriber(number) for number in range(100)]
        for subscriber in subscribers:
            subscriber.subscribe(CONNECTION)
        last = self.subscriber(100)
        self.assertEqual(last.ask(CONNECTION).raw, SERVER_ERROR)
        # It is counted first.
        self.assertEqual(subscribers[0].ask(CONNECTION).raw, SERVER_ERROR)
        last.subscribe(OS_INFO)
        self.assertEqual(subscribers[50].renew().status, 200)
        subscribers[50].unsubscribe()
        last.subscribe(CONNECTION)
        self.assertEqual(subscribers[50].ask(CONNECTION).raw, SERVER_ERROR)

    # Promise: The end of an external interface ends the subscriptions to its services.
    # Also proves [targets-withdrawn].
    def test_the_end_of_an_interface_ends_its_subscriptions(self):
        subscriber = self.informed()
        self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        self.assertEqual(subscriber.renew().raw, NOT_FOUND)
        self.add_object(WAN, EXTERNAL)
        self.assertEqual(subscriber.renew().raw, PRECONDITION_FAILED)
        subscriber.subscribe(CONNECTION)
        self.assertEqual(subscriber.event().seq, 0)


class Callbacks(EventCase):
    RESOLVER, RESOLVE = (14,), 3

    def test_the_first_of_several_callbacks_is_used(self):
        first, second = self.subscriber(1, path="/first"), self.subscriber(2)
        first.subscribe(CONNECTION, callback=f"{first.callback}><{second.callback}")
        self.assertEqual(first.event().start_line, "NOTIFY /first HTTP/1.1")
        self.assertFalse(second.is_called())

    # Also proves [subscribe-port].
    def test_a_callback_without_a_port_means_port_80(self):
        subscriber = self.subscriber(port=80, path="/")
        subscriber.subscribe(CONNECTION, callback=f"http://{HOST}/")
        self.assertEqual(subscriber.event()["HOST"], f"{HOST}:80")

    def test_a_callback_keeps_its_query(self):
        subscriber = self.subscriber(path="/a/b?c=http://d:1/e&f#g")
        subscriber.subscribe(CONNECTION)
        self.assertEqual(subscriber.event().start_line,
                         "NOTIFY /a/b?c=http://d:1/e&f#g HTTP/1.1")

    # Also proves [subscribe-name].
    def test_a_callback_by_name_is_resolved(self):
        self.platform.answer(self.RESOLVER, self.RESOLVE,
                             lambda _: {0x08000004: lm.address(HOST)})
        subscriber = self.subscriber(path="/named")
        subscriber.subscribe(CONNECTION, callback=f"http://laptop.lan:{subscriber.port}/named")
        event = subscriber.event()
        self.assertEqual(event.start_line, "NOTIFY /named HTTP/1.1")
        self.assertEqual(event["HOST"], f"{HOST}:{subscriber.port}")
        self.assertEqual([r.fields for r in self.platform.requests(self.RESOLVER, self.RESOLVE)],
                         [[(0x20000003, "laptop.lan")]])

    # Also proves [subscribe-address].
    def test_a_callback_at_the_address_zero_is_accepted(self):
        subscriber = self.subscriber()
        since = self.log_mark()
        self.assertEqual(subscriber.ask(CONNECTION, callback="http://0.0.0.0:80/e").status, 200)
        self.daemon.wait_for_line("callback addr: 0.0.0.0, port: 80, path: /e", since)
        self.assertEqual(self.platform.requests(self.RESOLVER, self.RESOLVE), [])

    # Also proves [subscribe-name-unknown], [subscribe-name-zero].
    def test_a_callback_whose_name_cannot_be_resolved_is_refused(self):
        subscriber = self.subscriber()
        for why, answer, logged in (
                ("refused", error("no such host"), ["resolving failed: no such host"]),
                ("no address", {}, []), ("nowhere", {0x08000004: 0}, [])):
            with self.subTest(why):
                self.platform.answer(self.RESOLVER, self.RESOLVE, lambda _, reply=answer: reply)
                since = self.log_mark()
                self.assertEqual(subscriber.ask(CONNECTION, callback="http://laptop.lan/").raw,
                                 PRECONDITION_FAILED)
                self.assert_logged(since, *logged)
