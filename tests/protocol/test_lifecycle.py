"""From the start of the process to its end: settings, configured interfaces, the platform."""

import os
import time

from gateway_case import (ALLOW_DISABLE, ENABLED, EXTERNAL, INTERNAL, LAN, SHOW_DUMMY, WAN,
                          Daemon, GatewayCase, all_targets)
from scripted_platform import BROKER, HISTORY, IDENTITY
from support import lm

# The last lines of a daemon that serves one internal and one external interface.
FAREWELL = ["disable", "stop int: LAN", "sendAdverts", "stop ext: WAN", "exit"]


class Start(GatewayCase):
    # Also proves [settings], [disabled-exit].
    def test_a_fresh_daemon_is_disabled_and_leaves_by_itself(self):
        self.start_daemon()
        self.assertEqual(self.platform.request(lm.CMD_GET_SETTINGS),
                         {ENABLED: False, ALLOW_DISABLE: True, SHOW_DUMMY: True})
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.daemon.log(), ["exit"])
        self.assertEqual([(r.path, r.command) for r in self.platform.requests(BROKER)],
                         [(BROKER, lm.BROKER_REGISTER), (BROKER, lm.BROKER_UNREGISTER)])

    # Promise [socket-path]: The daemon finds the platform's socket at `/lumen/run/lumen.sock`,
    # whether lumend or another program serves it.
    # Also proves [identity-wait].
    def test_the_identity_is_asked_for(self):
        self.start_daemon()
        request, = self.platform.wait_for(lambda: self.platform.requests(IDENTITY))
        self.assertEqual((request.command, request.fields), (lm.CMD_GET_SETTINGS, []))

    # Promise: Starting an interface that serves already logs `intr: 1 <address as a number>` only.
    def test_a_start_is_logged_line_by_line(self):
        self.serve()
        self.assert_logged(
            0,
            "add dev: LAN", "set type: 2 2", "intr: 0 0",
            "add dev: WAN", "set type: 1 3", "start ext: WAN", "initial external addr: 0.0.0.0",
            "enable",
            "dev: 2 disabled: 0 running: 1", "dev: 3 disabled: 0 running: 1",
            "dev: 2 add address: 192.168.88.1 (11)", "dev: 2 ip: 192.168.88.1",
            "intr: 0 3232258049", "start int: LAN 192.168.88.1", "sendAdverts",
            "dev: 3 add address: 45.45.45.2 (12)", "dev: 3 ip: 45.45.45.2",
            "set external ip 45.45.45.2",
            "intr: 1 3232258049")

    # Promise [settings-kept]: The configured interfaces and the settings outlive the process.
    # Also proves [goodbye-rules].
    def test_what_was_configured_is_served_by_the_next_process(self):
        self.serve()
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.daemon.log()[-5:], FAREWELL)
        self.start_daemon()
        self.daemon.wait_for_line("sendAdverts")
        self.assertEqual(len(self.lan.search("ssdp:all")), len(all_targets()))

    # Promise [broken-record]: A saved record that cannot be decoded is kept as `NAME.broken`, which
    # is logged, and does not stop the start.
    def test_a_record_that_does_not_decode_does_not_stop_the_start(self):
        self.serve()
        self.daemon.terminate()
        self.daemon.wait()
        records = os.path.join(self.folder, "store", "upnp")
        for name in os.listdir(records):
            path = os.path.join(records, name)
            with open(path, "r+b") as record:
                record.truncate(os.path.getsize(path) - 1)
        self.start_daemon()
        self.daemon.wait_for_line("enable")
        self.assertEqual(self.platform.request(lm.CMD_READ_ALL).get(lm.RECORDS, []), [])
        self.add_object(LAN, INTERNAL)
        self.assert_serves()

    # Promise [platform-none]: A daemon that finds no platform says so in one line and ends with
    # status 1.
    # Promise [socket-wait]: A program waits five seconds for the platform's socket, then says
    # `platform: /lumen/run/lumen.sock: No such file or directory` and ends with 1.
    def test_without_a_platform_it_gives_up_after_five_seconds_and_says_why(self):
        os.remove(os.path.join(self.folder, "run", "lumen.sock"))
        started = time.monotonic()
        daemon = Daemon(self.router, self.folder)
        self.addCleanup(lambda: daemon.running and daemon.kill())
        self.assertEqual(daemon.wait(), 1)
        self.assertGreaterEqual(time.monotonic() - started, 5)
        self.assertEqual(daemon.log(),
                         ["platform: /lumen/run/lumen.sock: No such file or directory"])


class Settings(GatewayCase):
    # Also proves [switch-off].
    def test_the_daemon_stays_when_switched_on_and_leaves_when_switched_off(self):
        self.serve()
        self.set_settings(enabled=False)
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.daemon.log()[-5:], FAREWELL)

    # Also proves [commands].
    def test_a_write_is_notified_and_can_be_undone(self):
        self.serve()
        self.set_settings(enabled=True, allow_disable=False, show_dummy=False)
        undo = self.platform.wait_for(lambda: self.platform.requests(HISTORY))
        self.assertEqual([(r.command, r.fields) for r in undo], [(lm.CMD_ADD, [
            (0x20000001, "upnp config changed"),
            (0x28000002, {lm.COMMAND: lm.CMD_SET_SETTINGS, ENABLED: True, ALLOW_DISABLE: True,
                          SHOW_DUMMY: True})])])
        told = self.platform.notifications(lm.CMD_CHANGED)
        self.assertEqual([r.fields for r in told],
                         [[(ENABLED, True), (ALLOW_DISABLE, False), (SHOW_DUMMY, False)]])
        self.assertEqual(self.platform.request(lm.CMD_GET_SETTINGS),
                         {ENABLED: True, ALLOW_DISABLE: False, SHOW_DUMMY: False})

    def test_a_write_of_one_setting_keeps_the_others(self):
        self.serve()
        self.set_settings(show_dummy=False)
        self.assertEqual(self.platform.request(lm.CMD_GET_SETTINGS),
                         {ENABLED: True, ALLOW_DISABLE: True, SHOW_DUMMY: False})

    # Also proves [switch-off], [commands].
    def test_switching_subscribes_and_unsubscribes(self):
        self.start_daemon()
        self.set_settings(enabled=True)
        self.set_settings(enabled=False)
        topics = [[(0x08000001, 0x10004), (0x88000002, [20, 0])],
                  [(0x08000001, 0xFE000B), (0x88000002, [20, 0])],
                  [(0x08000001, 0xFE000B), (0x88000002, [20, 1])]]
        for command in (lm.BROKER_SUBSCRIBE, lm.BROKER_UNSUBSCRIBE):
            self.assertEqual([r.fields for r in self.platform.requests(BROKER, command)], topics)


class Objects(GatewayCase):
    # Promise [commands]: The commands are 1 list, `0xfe0002` read, `0xfe0003` set, `0xfe0004` read
    # all, `0xfe0005` add and `0xfe0006` remove an object, `0xfe000b` change notification,
    # `0xfe000d` read and `0xfe000e` write settings, `0x10004` interface notification.
    # Also proves [gateway-interface], [gateway-numbers].
    def test_an_object_is_added_read_set_and_removed(self):
        self.serve(wan=False)
        self.assertEqual(self.add_object(WAN, EXTERNAL), {lm.OBJECT_ID: 2})
        record = {lm.OBJECT_ID: 2, lm.DISABLED: False, 0x08000001: WAN, 0x08000002: EXTERNAL}
        self.assertEqual(self.platform.request(lm.CMD_READ, {lm.OBJECT_ID: 2}), record)
        self.assertEqual(self.platform.request(lm.CMD_READ_ALL)[lm.RECORDS][1], record)
        self.assertEqual(self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, lm.DISABLED: True}),
                         {})
        self.daemon.wait_for_line("stop ext: WAN")
        self.assertEqual(self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2}), {})
        self.assertEqual(self.platform.request(lm.CMD_READ, {lm.OBJECT_ID: 2}).error(),
                         "no such object")

    # Also proves [interface-once].
    def test_an_interface_is_configured_once(self):
        self.serve()
        self.assertEqual(self.add_object(LAN, EXTERNAL).error(), "Interface already added")
        reply = self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, 0x08000001: LAN})
        self.assertEqual(reply, {lm.ERROR_CODE: 0xFE0009, lm.ERROR_TEXT: "Interface already set"})
        self.assert_serves()

    def test_every_set_restarts_the_interface(self):
        self.serve(wan=False)
        since = self.log_mark()
        self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 1})
        self.assert_logged(since, "stop int: LAN", "sendAdverts", "intr: 0 3232258049",
                           "start int: LAN 192.168.88.1", "sendAdverts")

    # Promise: Additions, changes and removals of configured interfaces can be undone: `upnp
    # interface added`, `upnp interface changed`, `upnp interface removed`.
    # Promise: The texts of changes to the gateway's interfaces are `upnp interface added`, `upnp
    # interface changed`, `upnp interface removed`.
    def test_changes_can_be_undone(self):
        self.serve(wan=False)
        self.add_object(WAN, EXTERNAL)
        self.platform.request(lm.CMD_SET, {lm.OBJECT_ID: 2, lm.DISABLED: True})
        self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        undo = self.platform.wait_for(
            lambda: len(self.platform.requests(HISTORY)) == 3 and self.platform.requests(HISTORY))
        texts = [dict(r.fields)[0x20000001] for r in undo]
        self.assertEqual(texts, ["upnp interface added", "upnp interface changed",
                                 "upnp interface removed"])
        # Sent back from the newest to the oldest, as they are.
        for entry in reversed(undo):
            inverse = dict(dict(entry.fields)[0x28000002])
            command = inverse.pop(lm.COMMAND)
            self.assertIsNone(self.platform.request(command, inverse).error())
        self.assertEqual(len(self.platform.request(lm.CMD_READ_ALL)[lm.RECORDS]), 1)

    def test_an_unknown_command_is_refused(self):
        self.serve()
        self.assertEqual(self.platform.request(0x4711).error(), "unknown command")
        self.assert_serves()


class End(GatewayCase):
    def test_it_leaves_when_the_platform_is_gone(self):
        self.serve()
        self.platform.hang_up()
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.daemon.log()[-5:], FAREWELL)

    def test_it_leaves_when_the_platform_sends_garbage(self):
        self.serve()
        self.platform.send_raw(b"\x00\xff\x00\x04\x02")
        self.assertEqual(self.daemon.wait(), 0)
        self.assertIn("platform: invalid message: ", " ".join(self.daemon.log()))

    def test_it_leaves_with_open_connections(self):
        self.serve()
        with self.lan.connect() as idle, self.lan.connect() as half:
            half.sendall(b"GET /gateway.xml HTTP/1.1\r\n")
            self.assert_serves()
            self.daemon.terminate()
            self.assertEqual(self.daemon.wait(), 0)
            self.assertEqual(idle.recv(1), b"")
