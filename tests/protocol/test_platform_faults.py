"""A platform that does not do what it should: what a LAN host sees of it, what is logged, and that
the daemon goes on."""

import os
import time

from event_case import CONNECTION
from gateway_case import EXTERNAL, HOST, INTERNAL, LAN, WAN, Daemon, GatewayCase
from scripted_platform import (ADDRESSES, HISTORY, IDENTITY, INTERFACES, NAT_RULES, address,
                               error, interface)
from support import lm
from support.small_disk import SmallDisk
from support.subscriber import Subscriber
from test_control import LINK, LINK_CONTROL, ControlCase, fault, mapping, result

RESOLVER = (14,)
RESOLVE = 3
RESOLVED = 0x08000004

# What an exchange may take, in seconds, and the same for the table of states. A test may notice the
# beginning of one a little late.
LIMIT = 6.0
STATES_LIMIT = 3.0
LATE = 0.5


class SilentOnce:
    """A platform's answer that is given from the second time on. The first request gets none until
    the second one comes: then its reply arrives, too late, in front of the right one."""

    def __init__(self, platform, path, command, late, right):
        self.asked = []
        self.at = []
        self._platform = platform
        self._late = late
        self._right = right
        platform.answer(path, command, self._answer)

    def _answer(self, request):
        self.asked.append(request[lm.SERIAL])
        self.at.append(time.monotonic())
        if len(self.asked) == 1:
            return None
        if len(self.asked) == 2:
            self._platform.reply(self.asked[0], self._late)
        return self._right


class SilentPlatform(ControlCase):
    def assert_lasted(self, since, limit):
        self.assertGreater(time.monotonic() - since, limit - LATE)

    # Promise: A reply that comes after its time is dropped, and not taken for that of the next
    # request.
    # Also proves [mapping-timeout], [exchange-late].
    def test_a_late_reply_is_not_taken_for_that_of_the_next_request(self):
        silent = SilentOnce(self.platform, NAT_RULES, lm.CMD_ADD, {lm.OBJECT_ID: 666},
                            {lm.OBJECT_ID: 102})
        self.assertEqual(self.invoke("AddPortMapping", mapping(port="8080")),
                         fault(501, "Action Failed"))
        self.assert_lasted(silent.at[0], LIMIT)
        self.daemon.wait_for_line("add nat failed: no answer in time")
        self.assertEqual(self.entry(1), fault(713, "SpecifiedArrayIndexInvalid"))
        self.open_port(port="8081")
        self.invoke("DeletePortMapping", mapping(port="8081")[:3])
        self.assertEqual(self.rules(lm.CMD_REMOVE), [(lm.CMD_REMOVE, [(lm.OBJECT_ID, 102)])])
        self.assert_serves()

    # Promise [mapping-removal-timeout]: A mapping whose removal is not answered within six seconds
    # stays listed.
    def test_a_rule_whose_removal_is_not_answered_is_kept(self):
        self.open_port()
        silent = SilentOnce(self.platform, NAT_RULES, lm.CMD_REMOVE, {}, error("never"))
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         fault(501, "Action Failed"))
        self.assert_lasted(silent.at[0], LIMIT)
        self.daemon.wait_for_line("remove nat failed: no answer in time")
        # Were the late success believed, the mapping would go with the second attempt.
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         fault(501, "Action Failed"))
        self.daemon.wait_for_line("remove nat failed: never")
        self.assertIn(b"<NewExternalPort>8080</", self.entry(1))
        self.platform.answer(NAT_RULES, lm.CMD_REMOVE, lambda _: {})
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         result("DeletePortMapping"))

    # Promise: An address that comes later is dropped, and not taken for that of the next name.
    # Also proves [subscribe-name-time].
    def test_a_name_that_is_resolved_too_late_is_refused(self):
        silent = SilentOnce(self.platform, RESOLVER, RESOLVE,
                            {RESOLVED: lm.address("192.168.88.66")}, {RESOLVED: lm.address(HOST)})
        with Subscriber(self.lan) as subscriber:
            callback = f"http://laptop.lan:{subscriber.port}/events"
            self.assertEqual(subscriber.ask(CONNECTION, callback=callback).status, 412)
            self.assert_lasted(silent.at[0], LIMIT)
            self.daemon.wait_for_line("resolving failed: no answer in time")
            subscriber.subscribe(CONNECTION, callback=callback)
            self.assertEqual(subscriber.event()["HOST"], f"{HOST}:{subscriber.port}")

    # Promise: States that are not answered within their limit stay as they were, and a later answer
    # is not taken for that to the next request.
    def test_states_that_are_not_answered_in_time_stay_as_they_were(self):
        silent = SilentOnce(self.platform, INTERFACES, lm.CMD_READ_ALL,
                            {lm.RECORDS: [interface(WAN, "wan0", disabled=True)]},
                            {lm.RECORDS: [interface(WAN, "wan0", running=False)]})
        self.platform.notify(lm.CMD_CHANGED, INTERFACES, {})
        self.daemon.wait_for_line("device::CMD_GETALL failed: no answer in time")
        self.assert_lasted(silent.at[0], STATES_LIMIT)
        self.assertIn(b"<NewConnectionStatus>Connected", self.invoke("GetStatusInfo"))
        self.notify_states()
        self.assertIn(b"<NewConnectionStatus>Connecting", self.invoke("GetStatusInfo"))
        self.log_mark()
        self.assertNotIn("dev: 3 disabled: 1 running: 1", self.daemon.log())


class Identity(GatewayCase):
    def assert_nameless(self):
        """The gateway serves, under names that end where its identity should be."""
        name = "uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-"
        self.assertEqual([found["USN"] for found in self.lan.search("upnp:rootdevice")],
                         [f"{name}::upnp:rootdevice"])
        self.assertIn(f"<UDN>{name}</UDN>".encode(), self.lan.get("/gateway.xml").body)

    # Also proves [identity-none].
    def test_a_platform_without_identity_leaves_it_out_of_the_names(self):
        for why, answer in (("refused", error("no such service")), ("nothing said", {}),
                            ("another type", {0x08000001: 1})):
            with self.subTest(why):
                self.platform.answer(IDENTITY, lm.CMD_GET_SETTINGS, lambda _, a=answer: a)
                self.start_daemon()
                if not self.platform.request(lm.CMD_GET_SETTINGS)[1]:
                    self.configure()
                self.assert_nameless()
                self.daemon.terminate()
                self.assertEqual(self.daemon.wait(), 0)

    # Promise [identity-late]: An identity that comes after six seconds is ignored.
    def test_an_identity_that_comes_too_late_is_ignored(self):
        asked = []
        self.platform.answer(IDENTITY, lm.CMD_GET_SETTINGS,
                             lambda request: asked.append((request[lm.SERIAL], time.monotonic())))
        self.start_daemon()
        self.platform.request(lm.CMD_GET_SETTINGS, limit=2 * LIMIT)
        (serial, since), = asked
        self.assertGreater(time.monotonic() - since, LIMIT - LATE)
        self.platform.reply(serial, {0x20000001: "LATE"})
        self.configure()
        self.assert_nameless()


class StrayReplies(ControlCase):
    # Promise: Replies to no pending request are dropped without a line in the log: of an unknown
    # serial, without one, or a second one to the same request.
    # Promise: A reply under a serial that no exchange waits for is dropped.
    def test_replies_to_no_pending_request_are_dropped(self):
        self.platform.reply(4711, error("never"))

        def surrounded(request):
            for serial in (0, request[lm.SERIAL] + 1, request[lm.SERIAL] - 1, lm.NONE):
                self.platform.reply(serial, error("never"))
            self.platform.send_raw(lm.encode(lm.Message({lm.IS_REPLY: True, lm.OBJECT_ID: 666})))
            return {lm.OBJECT_ID: 102}

        self.platform.answer(NAT_RULES, lm.CMD_ADD, surrounded)
        self.open_port()
        # A second reply to the same request.
        self.platform.answer(NAT_RULES, lm.CMD_SET, lambda request: self.platform.reply(
            request[lm.SERIAL], {}) or error("never"))
        self.open_port(internal="81")
        self.invoke("DeletePortMapping", mapping()[:3])
        self.assertEqual(self.rules(lm.CMD_REMOVE), [(lm.CMD_REMOVE, [(lm.OBJECT_ID, 102)])])
        self.assert_serves()
        self.log_mark()
        self.assertNotIn("never", " ".join(self.daemon.log()))


class MissingFields(ControlCase):
    def test_a_rule_without_an_id_has_the_id_zero(self):
        self.platform.answer(NAT_RULES, lm.CMD_ADD, lambda _: {})
        self.open_port()
        self.open_port(internal="81")
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         result("DeletePortMapping"))
        self.assertEqual([dict(r.fields)[lm.OBJECT_ID] for r in
                          self.platform.requests(NAT_RULES)[1:]], [0, 0])

    # Promise: An error reply without a text is an error, logged with an empty text; a text without
    # an error code is no error.
    def test_an_error_without_a_text_is_an_error(self):
        self.open_port()
        for command, action, arguments, line in (
                (lm.CMD_ADD, "AddPortMapping", mapping(port="8081"), "add nat failed: "),
                (lm.CMD_SET, "AddPortMapping", mapping(), "set nat failed: "),
                (lm.CMD_REMOVE, "DeletePortMapping", mapping()[:3], "remove nat failed: ")):
            with self.subTest(line):
                since = self.log_mark()
                self.platform.answer(NAT_RULES, command, lambda _: {lm.ERROR_CODE: lm.REFUSED})
                self.assertEqual(self.invoke(action, arguments), fault(501, "Action Failed"))
                self.daemon.wait_for_line(line, since)
        self.platform.answer(NAT_RULES, lm.CMD_REMOVE, lambda _: {})

    def test_an_error_text_without_a_code_is_no_error(self):
        self.platform.answer(NAT_RULES, lm.CMD_ADD,
                             lambda _: {lm.ERROR_TEXT: "never", lm.OBJECT_ID: 7})
        self.open_port()

    def test_counters_that_are_missing_are_zero(self):
        self.platform.answer(INTERFACES, lm.CMD_READ, lambda _: {0x100100FC: 5})
        for action, value in (("GetTotalBytesReceived", 5), ("GetTotalBytesSent", 0),
                              ("GetTotalPacketsReceived", 0), ("GetTotalPacketsSent", 0)):
            self.assertEqual(self.invoke(action, (), LINK_CONTROL, LINK),
                             result(action, (f"New{action[3:]}", value), service=LINK))

    # Promise: A missing field of a record means the value that is known, or else 0 or an empty
    # text.
    def test_missing_fields_of_records_mean_what_is_known_or_zero(self):
        since = self.log_mark()
        wan_state = interface(WAN, "wan0", running=False)
        self.notify_states({lm.OBJECT_ID: WAN}, wan_state, {lm.OBJECT_ID: LAN})
        self.notify_interface({lm.OBJECT_ID: 9})
        self.notify_addresses({}, {lm.OBJECT_ID: 50}, {lm.OBJECT_ID: 51, 0x08000005: WAN},
                              address(52, WAN, "45.45.45.7"))
        self.assert_logged(
            since, "dev: 3 disabled: 0 running: 1", "dev: 3 disabled: 0 running: 0",
            "dev: 2 disabled: 0 running: 1", "add dev: ", "dev: 0 add address: 0.0.0.0 (0)",
            "dev: 0 add address: 0.0.0.0 (50)", "dev: 3 add address: 0.0.0.0 (51)",
            "dev: 3 add address: 45.45.45.7 (52)")
        self.assertEqual(self.invoke("GetExternalIPAddress"), result(
            "GetExternalIPAddress", ("NewExternalIPAddress", "45.45.45.2")))
        self.assert_serves()


class RefusedSwitch(ControlCase):
    # Also proves [fault-501-link].
    def test_an_interface_that_is_not_switched_keeps_its_state(self):
        self.platform.answer(INTERFACES, lm.CMD_SET, lambda _: error("not permitted"))
        for action, line in (("ForceTermination", "disable device failed: not permitted"),
                             ("RequestConnection", "enable device failed: not permitted")):
            self.assertEqual(self.invoke(action), fault(501, "Action Failed"))
            self.daemon.wait_for_line(line)
            self.assertIn(b"<NewConnectionStatus>Connected</", self.invoke("GetStatusInfo"))


class Tables(GatewayCase):
    def notify_everything(self):
        """The platform notifies everything in its tables."""
        for record in self.platform.interfaces.values():
            self.notify_interface(record)
        self.notify_states(*self.platform.interfaces.values())
        self.notify_addresses(*self.platform.addresses.values())

    def assert_complete(self):
        self.assert_serves()
        wan = self.lan.invoke(f"/upnp/control/wanipconn-{WAN}",
                              "urn:schemas-upnp-org:service:WANIPConnection:1",
                              "GetExternalIPAddress")
        self.assertIn(b">45.45.45.2</NewExternalIPAddress>", wan.body)

    # Promise: When a table is refused or has no records, the notifications that follow supply its
    # contents.
    def test_notifications_supply_what_a_refused_table_lacks(self):
        tables = ((INTERFACES, lm.CMD_LIST, "device::CMD_GETDEVS failed: not now"),
                  (INTERFACES, lm.CMD_READ_ALL, "device::CMD_GETALL failed: not yet"),
                  (ADDRESSES, lm.CMD_READ_ALL, "device::CMD_GETALL failed: too early"))
        for path, command, line in tables:
            self.platform.answer(path, command, lambda _, text=line.partition(": ")[2]: error(text))
        self.serve()
        for _, _, line in tables:
            self.daemon.wait_for_line(line)
        with self.assertRaises(ConnectionRefusedError):
            self.lan.connect()
        self.notify_everything()
        self.assert_complete()

    def test_notifications_supply_what_an_empty_table_lacks(self):
        for path, command in ((INTERFACES, lm.CMD_LIST), (INTERFACES, lm.CMD_READ_ALL),
                              (ADDRESSES, lm.CMD_READ_ALL)):
            self.platform.answer(path, command, lambda _: {})
        self.serve()
        self.daemon.wait_for_line("device::CMD_GETDEVS failed: ")
        self.notify_everything()
        self.assert_complete()
        self.log_mark()
        self.assertNotIn("device::CMD_GETALL failed: ", " ".join(self.daemon.log()))

    def test_endless_pages_are_read_until_their_cursor_falls_back(self):
        tables = ((INTERFACES, lm.CMD_LIST, self.platform.interfaces, "CMD_GETDEVS"),
                  (INTERFACES, lm.CMD_READ_ALL, self.platform.interfaces, "CMD_GETALL"),
                  (ADDRESSES, lm.CMD_READ_ALL, self.platform.addresses, "CMD_GETALL"))
        for path, command, table, _ in tables:
            def page(request, table=table):
                """Round and round, a record a page."""
                ids = sorted(table)
                last = request.get(lm.CURSOR, ids[-1])
                following = ids[(ids.index(last) + 1) % len(ids)]
                return {lm.RECORDS: [table[following]], lm.CURSOR: following}

            self.platform.answer(path, command, page)
        self.start_daemon()
        self.add_object(LAN, INTERNAL)
        self.add_object(WAN, EXTERNAL)
        self.set_settings(enabled=True)
        for path, command, table, name in tables:
            with self.subTest(path=path, command=command):
                self.daemon.wait_for_line(f"device::{name} failed: cursor does not rise")
                self.assertEqual(len(self.platform.requests(path, command)), len(table) + 1)
        self.assert_complete()
        self.log_mark()
        self.assertEqual(
            self.daemon.log().count("device::CMD_GETALL failed: cursor does not rise"), 2)


class DyingPlatform(ControlCase):
    def assert_left(self, *lines):
        """The daemon has ended in order, with these lines before its farewell."""
        self.assertEqual(self.daemon.wait(), 0)
        farewell = ["platform: connection ended", "disable", "stop int: LAN", "sendAdverts",
                    "stop ext: WAN"]
        self.assertEqual(self.daemon.log()[-len(farewell) - len(lines) - 1:],
                         [*farewell, *lines, "exit"])

    # Promise: A LAN host whose request the platform dies in has its answer before the daemon
    # leaves.
    def test_a_lan_host_gets_its_answer_when_the_platform_dies_meanwhile(self):
        self.platform.answer(NAT_RULES, lm.CMD_ADD, lambda _: self.platform.hang_up())
        self.assertEqual(self.invoke("AddPortMapping", mapping()), fault(501, "Action Failed"))
        self.daemon.wait_for_line("add nat failed: connection ended")
        self.assert_left()

    # Promise [platform-back]: A platform that comes back finds the gateway as it was configured,
    # without a port that was open in its last life.
    def test_a_platform_that_comes_back_finds_the_gateway_as_it_was_configured(self):
        self.open_port()
        self.platform.close()
        self.assert_left("on cleanup remove nat failed: connection ended")
        self.platform = self.make_platform()
        self.start_daemon()
        self.daemon.wait_for_line("set external ip 45.45.45.2")
        # No port is open in a new life; what a port needs is asked for again.
        self.assertEqual(self.entry(1), fault(713, "SpecifiedArrayIndexInvalid"))
        self.open_port()
        self.assertEqual(len(self.rules(lm.CMD_ADD)), 1)
        self.assert_serves()

    # Promise: A platform that dies during the start ends the daemon in order.
    def test_a_platform_that_dies_during_the_start_ends_the_daemon(self):
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        self.platform.answer(IDENTITY, lm.CMD_GET_SETTINGS, lambda _: self.platform.hang_up())
        self.start_daemon()
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.daemon.log()[-1], "exit")
        for line in ("device::CMD_GETDEVS failed: connection ended",
                     "device::CMD_GETALL failed: connection ended", "platform: connection ended"):
            self.assertIn(line, self.daemon.log())

    # Promise [platform-late]: A platform that starts a moment after the daemon is waited for.
    # Also proves [socket-wait].
    def test_the_daemon_waits_for_a_platform_that_starts_later(self):
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        self.platform.close()
        self.daemon = Daemon(self.router, self.folder)
        self.addCleanup(self._end, self.daemon)
        self.platform = self.make_platform()
        self.platform.wait_for_connection()
        self.daemon.wait_for_line("sendAdverts")
        self.log_mark()
        self.assert_serves()


class StoreCase(GatewayCase):
    """The store of the daemon in files, to look at and to damage."""

    def path(self, store, name=""):
        return os.path.join(self.folder, "store", store, name)

    def records(self):
        """Every file of the stores with its content."""
        found = {}
        for store in ("upnp", "upnpm"):
            for name in os.listdir(self.path(store)):
                with open(self.path(store, name), "rb") as record:
                    found[store, name] = record.read()
        return found

    def tear(self, store, name):
        """Leaves of the record what is on the disk when the power goes in the middle of it."""
        os.truncate(self.path(store, name), os.path.getsize(self.path(store, name)) // 2)

    def restart(self):
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        self.start_daemon()


class FullDisk(StoreCase):
    def setUp(self):
        super().setUp()
        self.disk = SmallDisk(os.path.join(self.folder, "store"))
        self.addCleanup(self.disk.close)
        for store in ("upnp", "upnpm"):
            os.mkdir(self.path(store))
        self.serve()
        self.before = self.records()
        self.disk.fill()
        self.since = self.log_mark()

    def assert_refused(self, reply, record):
        """The change was refused with a reason, and neither made nor notified nor half written."""
        self.assertEqual(reply.error(), "could not be stored")
        self.assert_logged(self.since, f"store: /lumen/store/{record}.new: No space left on device")
        self.since = self.log_mark()
        self.assertEqual(self.platform.notifications(lm.CMD_CHANGED), [])
        self.assertEqual(self.platform.requests(HISTORY), [])
        self.assertEqual(self.records(), self.before)

    def assert_restarts_as_before(self):
        self.restart()
        self.daemon.wait_for_line("set external ip 45.45.45.2")
        self.assertEqual(self.records(), self.before)
        self.assert_serves()

    # Promise [disk-full]: A change of a configured interface that finds no room on the disk is
    # refused with `could not be stored` before anything has changed, and is taken when there is
    # room again.
    # Also proves [object-store].
    def test_a_change_that_cannot_be_stored_is_refused_before_it_is_made(self):
        self.assert_refused(self.add_object(7, EXTERNAL), "upnp/3")
        self.assert_refused(self.platform.request(
            lm.CMD_SET, {lm.OBJECT_ID: 1, lm.DISABLED: True}), "upnp/1")
        self.assertEqual([record[lm.DISABLED] for record in
                          self.platform.request(lm.CMD_READ_ALL)[lm.RECORDS]], [False, False])
        self.assert_restarts_as_before()

    # Also proves [disk-full].
    def test_a_refused_change_is_accepted_when_there_is_room_again(self):
        self.assert_refused(self.platform.request(
            lm.CMD_SET, {lm.OBJECT_ID: 2, lm.DISABLED: True}), "upnp/2")
        self.disk.free()
        self.assertEqual(self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, lm.DISABLED: True}),
                         {})
        self.daemon.wait_for_line("stop ext: WAN", self.since)
        self.assertNotEqual(self.records(), self.before)
        self.assertEqual(self.records().keys(), self.before.keys())

    # Promise: A configured interface can be removed without room on the disk.
    def test_an_object_can_be_removed_without_room_on_the_disk(self):
        self.assertEqual(self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2}), {})
        self.daemon.wait_for_line("stop ext: WAN", self.since)
        self.restart()
        self.daemon.wait_for_line("sendAdverts")
        self.assertEqual(len(self.platform.request(lm.CMD_READ_ALL)[lm.RECORDS]), 1)

    # Promise: A configured interface whose record the disk does not give up stays, serves on, and
    # is refused with `could not be removed`.
    def test_an_object_stays_when_the_disk_does_not_remove_its_record(self):
        self.disk.protect()
        reply = self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        self.assertEqual(reply.error(), "could not be removed")
        self.assert_logged(self.since, "store: /lumen/store/upnp/2: Read-only file system")
        self.assertEqual(self.platform.notifications(lm.CMD_CHANGED), [])
        self.assertEqual(self.platform.requests(HISTORY), [])
        self.assert_restarts_as_before()

    # Promise [disk-full-settings]: Settings that find no room on the disk hold until the end of the
    # daemon, which is logged.
    def test_settings_that_cannot_be_stored_last_until_the_end_of_the_daemon(self):
        self.set_settings(show_dummy=False)
        self.assert_logged(self.since, "store: /lumen/store/upnpm/0.new: No space left on device")
        self.assertFalse(self.platform.request(lm.CMD_GET_SETTINGS)[3])
        self.assertEqual(self.records(), self.before)
        self.assert_restarts_as_before()
        self.assertTrue(self.platform.request(lm.CMD_GET_SETTINGS)[3])


class TornRecord(StoreCase):
    def setUp(self):
        super().setUp()
        self.serve()
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)

    def assert_set_aside(self, store, name):
        path = f"/lumen/store/{store}/{name}"
        self.daemon.wait_for_line(f"store: {path} is broken (truncated), kept as {path}.broken")
        self.assertIn((store, f"{name}.broken"), self.records())

    # Promise: An interface whose record was broken can be configured again, and settings whose
    # record was broken are those of a fresh daemon.
    # Also proves [broken-record].
    def test_an_object_whose_record_is_torn_can_be_configured_again(self):
        self.tear("upnp", "2")
        self.start_daemon()
        self.daemon.wait_for_line("sendAdverts")
        self.assert_set_aside("upnp", "2")
        self.assertNotIn(("upnp", "2"), self.records())
        self.assert_serves()
        self.assertEqual(len(self.platform.request(lm.CMD_READ_ALL)[lm.RECORDS]), 1)
        self.assertEqual(self.add_object(WAN, EXTERNAL), {lm.OBJECT_ID: 2})
        self.daemon.wait_for_line("start ext: WAN")
        self.restart()
        self.daemon.wait_for_line("set external ip 45.45.45.2")
        self.log_mark()
        self.assertNotIn("broken", " ".join(self.daemon.log()))

    # Also proves [broken-record].
    def test_settings_whose_record_is_torn_are_those_of_a_fresh_daemon(self):
        self.tear("upnpm", "0")
        self.start_daemon()
        self.assertEqual(self.platform.request(lm.CMD_GET_SETTINGS), {1: False, 2: True, 3: True})
        self.set_settings(enabled=True)
        self.daemon.wait_for_line("set external ip 45.45.45.2")
        self.assert_set_aside("upnpm", "0")
        self.assert_serves()
