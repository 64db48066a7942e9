"""What was changed on the router, and how it is undone."""

import socket
import time
import unittest

from support import lm
from support.network import LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, SoapError, exchange_tcp
from support.router import CommandFailed
from support.router_case import RouterCase

CONFIG_CHANGED = "upnp config changed"


class HistoryTest(RouterCase):
    def history(self):
        """The texts, the newest first."""
        return [change["text"] for change in self.router.ask("history")]

    def settings(self):
        return self.router.ask("upnp", "settings")

    def interfaces(self):
        return {i["interface"]: (i["role"], i["used"])
                for i in self.router.ask("upnp", "interface", "list")}

    def objects(self):
        """The records of the gateway's interfaces, numbers and all."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as sock:
            sock.settimeout(10)
            sock.connect(str(self.router.root / "run" / "lumen.sock"))
            sock.send(lm.encode(lm.Message({lm.DESTINATION: [40, 0], lm.SERIAL: 1,
                                            lm.COMMAND: lm.CMD_READ_ALL})))
            return lm.decode(sock.recv(lm.MAX_DATAGRAM))[lm.RECORDS]

    def undo(self):
        return self.router.lumenctl("undo")

    def lists_dummy_rule(self):
        """Whether a control point that asks for the first open port of none is given one."""
        try:
            self.lan[0].invoke("GetGenericPortMappingEntry", [("NewPortMappingIndex", "0")])
            return True
        except SoapError as error:
            self.assertEqual(error.code, 713)
            return False

    # Also proves [history-entry].
    def test_it_lists_the_steps_of_a_setup(self):
        self.assertEqual(self.history(), [CONFIG_CHANGED, *2 * ["upnp interface added"],
                                          CONFIG_CHANGED])
        for change in self.router.ask("history"):
            self.assertEqual(change["service"], "upnp")
            self.assertLess(abs(change["time"] - time.time()), 60)
        lines = self.router.lumenctl("history").splitlines()
        self.assertRegex(lines[0], r"^ID +WHEN +WHO +CHANGE +INTERFACE +SETTING +BEFORE +AFTER$")
        self.assertRegex(lines[1], r"^ *\d+  \d{4}-\d\d-\d\d \d\d:\d\d:\d\d  upnp +upnp config cha")

    # Promise: Settings, added, changed and removed interfaces are restored by an undo, including
    # their numbers.
    def test_a_change_of_the_settings_is_undone(self):
        before = self.settings()
        self.assertTrue(self.lists_dummy_rule())
        self.router.lumenctl("upnp", "settings", "set", "show-dummy-rule=off",
                             "allow-disable-external=on")
        self.assertEqual(self.history()[0], CONFIG_CHANGED)
        self.assertFalse(self.lists_dummy_rule())
        self.assertEqual(self.undo(), f"undone: {CONFIG_CHANGED}\n")
        self.assertEqual(self.settings(), before)
        self.assertTrue(self.lists_dummy_rule())

    def changed(self):
        """What the changes changed, the newest first."""
        return [[(d["interface"], d["setting"], d["before"], d["after"]) for d in change["changed"]]
                for change in self.router.ask("history")]

    def test_it_shows_what_an_undo_would_change(self):
        def added(name, role):
            return [(name, "role", "none", role), (name, "used", False, True)]

        set_up = [[(None, "enabled", False, True)], added(WAN_LINK, "external"),
                  added(LAN_BRIDGE, "internal"),
                  [(None, "allow-disable-external", True, False)]]
        self.assertEqual(self.changed(), set_up)
        self.router.lumenctl("upnp", "interface", "set", LAN_BRIDGE, "--disable")
        disabled = [(LAN_BRIDGE, "used", True, False)]
        self.assertEqual(self.changed(), [disabled, *set_up])
        for _ in range(2):
            self.undo()
            self.assertEqual(self.changed(), [[(LAN_BRIDGE, "used", False, True)], *set_up])
            self.undo()
            self.assertEqual(self.changed(), [disabled, *set_up])
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway has ended")
        off = [(None, "enabled", True, False)]
        self.assertEqual(self.changed(), [off, disabled, *set_up])
        lines = self.router.lumenctl("history").splitlines()
        self.assertRegex(lines[1], r"upnp config changed {6,}enabled +on +off$")
        self.assertRegex(lines[2], rf"upnp interface changed +{LAN_BRIDGE} +used +yes +no$")
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        self.assertEqual(self.changed()[0],
                         [(WAN_LINK, "role", "external", "none"), (WAN_LINK, "used", True, False)])

    # Promise: A gateway that was switched off serves again when that is undone.
    def test_a_gateway_that_was_switched_off_serves_again(self):
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway has ended")
        self.undo()
        self.router.wait_until_controllable()
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)

    def test_a_changed_interface_serves_again(self):
        before = self.interfaces()
        self.router.lumenctl("upnp", "interface", "set", LAN_BRIDGE, "--disable")
        self.assertEqual(self.history()[0], "upnp interface changed")
        with self.assertRaises(OSError):
            self.lan[0].connection_control()
        self.assertEqual(self.undo(), "undone: upnp interface changed\n")
        self.assertEqual(self.interfaces(), before)
        self.router.wait_until_controllable()

    def test_a_removed_interface_comes_back_as_it_was(self):
        before = self.interfaces()
        control = self.lan[0].connection_control()
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        self.assertEqual(self.history()[0], "upnp interface removed")
        self.assertIsNone(self.lan[0].connection_control())
        self.undo()
        self.assertEqual(self.interfaces(), before)
        self.assertEqual(self.router.wait_until_controllable(), control)
        self.lan[0].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)

    def test_a_removed_interface_comes_back_under_its_number(self):
        before = self.objects()
        self.router.lumenctl("upnp", "interface", "remove", LAN_BRIDGE)
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        self.undo()
        # Not under the lowest free one, which its neighbour had.
        self.assertEqual(self.objects(), before[1:])
        self.undo()
        self.assertEqual(self.objects(), [])

    def test_an_added_interface_is_removed_again(self):
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        before = self.interfaces()
        self.router.lumenctl("upnp", "interface", "add", WAN_LINK, "--role", "external")
        self.assertEqual(self.history()[0], "upnp interface added")
        self.router.wait_until_controllable()
        self.undo()
        self.assertEqual(self.interfaces(), before)
        self.assertIsNone(self.lan[0].connection_control())

    # Promise [history-redo]: Undoing an undo does the change again, as one change of the history.
    def test_undoing_an_undo_redoes(self):
        self.router.lumenctl("upnp", "interface", "remove", WAN_LINK)
        older = self.router.ask("history")[1:]
        for used in (True, False, True, False):
            self.undo()
            self.assertEqual(WAN_LINK in self.interfaces(), used)
            self.assertEqual(self.router.ask("history")[1:], older, "one change, not two")
        self.undo()
        self.router.wait_until_controllable()

        changed = {**self.settings(), "show-dummy-rule": False}
        self.router.lumenctl("upnp", "settings", "set", "show-dummy-rule=off")
        self.undo()
        self.assertNotEqual(self.settings(), changed)
        self.undo()
        self.assertEqual(self.settings(), changed)
        self.assertFalse(self.lists_dummy_rule())

    # Also proves [history-size].
    def test_it_survives_every_end_of_lumend(self):
        before = self.settings()
        for end in (self.router.stop, self.router.kill):
            with self.subTest(end=end.__name__):
                self.router.lumenctl("upnp", "settings", "set", "show-dummy-rule=off")
                history = self.router.ask("history")
                end()
                self.router.start()
                self.assertEqual(self.router.ask("history"), history)
                self.undo()
                self.assertEqual(self.settings(), before)
                self.router.wait_until_controllable()
                self.assertTrue(self.lists_dummy_rule())


class FreshHistoryTest(RouterCase):
    SET_UP = False

    def test_there_is_nothing_to_undo(self):
        self.assertEqual(self.router.lumenctl("history"), "Nothing was changed.\n")
        with self.assertRaises(CommandFailed) as refused:
            self.router.lumenctl("undo")
        self.assertEqual(refused.exception.status, 1)
        self.assertEqual(refused.exception.error, "lumenctl: there is nothing to undo")


if __name__ == "__main__":
    unittest.main()
