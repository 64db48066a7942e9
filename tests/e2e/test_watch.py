"""lumenctl at a terminal: colours, and the live screen of status --watch."""

import json
import signal
import subprocess
import unittest

from support.network import WAN_ADDRESS, exchange_tcp
from support.router import PROGRAMS
from support.router_case import RouterCase
from support.terminal import Terminal

ENTER = r"\x1b\[\?1049h"
LEAVE = "\x1b[?7h\x1b[?25h\x1b[?1049l"
HOME = r"\x1b\[H"


class TerminalCase(RouterCase):
    def at_terminal(self, *arguments, **how):
        terminal = Terminal(PROGRAMS / "lumenctl", "--root", self.router.root, *arguments, **how)
        self.addCleanup(terminal.close)
        return terminal


class ColourTest(TerminalCase):
    def test_colours_are_for_terminals_that_want_them(self):
        terminal = self.at_terminal("status")
        terminal.see("Gateway: \x1b\\[32mon\x1b\\[0m ")
        for variables in ({"NO_COLOR": "1"}, {"TERM": "dumb"}, {"TERM": ""}):
            with self.subTest(variables=variables):
                plain = self.at_terminal("status", **variables)
                self.assertEqual(plain.end(), 0)
                self.assertIn("Gateway: on ", plain.shown)
                self.assertNotIn("\x1b", plain.shown)
        self.assertNotIn("\x1b", self.router.lumenctl("status"))
        programs = self.at_terminal("status", "--json")
        self.assertEqual(programs.end(), 0)
        self.assertNotIn("\x1b", programs.shown)


class WatchTest(TerminalCase):
    def watch(self, **how):
        terminal = self.at_terminal("status", "--watch", **how)
        terminal.see(ENTER + ".*Gateway: ")
        return terminal

    def assert_restored(self, terminal):
        """The other screen is left, nothing is drawn on this one, and keys are echoed again."""
        self.assertTrue(terminal.shown.rstrip("\r\n").endswith(LEAVE) or
                        LEAVE + "lumenctl: " in terminal.shown, terminal.shown[-200:])
        self.assertEqual(terminal.shown.count(LEAVE), 1)
        self.assertEqual(terminal.settings(), terminal.before)

    # Also proves [ctl-watch].
    def test_it_updates_the_screen_in_place(self):
        terminal = self.watch()
        terminal.see(HOME + r".*wan0 .*No port is open\.\x1b\[K\x1b\[J")
        self.lan[0].open_port(8080, "TCP")
        terminal.see(r"8080/tcp")
        before = len(terminal.shown)
        terminal.see(HOME + ".*" + HOME, before)
        self.assertNotIn("\x1b[2J", terminal.shown, "clearing the screen makes it flicker")
        self.assertEqual(terminal.shown.count("\x1b[?1049h"), 1)
        self.lan[0].close_port(8080, "TCP")
        terminal.see(r"No port is open\.", before)

    # Also proves [ctl-watch].
    def test_it_shows_traffic_as_graphs(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        terminal = self.watch(width=110)
        terminal.see("RECEIVED/S")

        def is_seen():
            exchange_tcp(self.wan, WAN_ADDRESS, 8080, host, 8080)
            before = len(terminal.shown)
            terminal.see(HOME + ".*" + HOME, before)
            return any(block in terminal.shown for block in "▁▂▃▄▅▆▇█")

        self.wait_until(is_seen, "traffic is seen", limit=30.0)

    def test_it_uses_ascii_where_the_locale_does(self):
        terminal = self.watch(LC_ALL="C")
        terminal.see("(" + HOME + ".*){3}")
        self.assertTrue(terminal.shown.isascii())

    def test_it_follows_the_size_of_the_terminal(self):
        terminal = self.watch(width=100, height=30)
        terminal.see("q ends")
        before = len(terminal.shown)
        terminal.resize(20, 3)
        terminal.see(HOME + r"Gateway: on \(process\x1b\[K\r+\n\x1b\[K\r+\n"
                     r"and \d+ more lines\x1b\[K\x1b\[J", before)

    # Promise [ctl-watch-end]: q, Ctrl-C, `SIGTERM`, `SIGHUP` and `SIGQUIT` end `status --watch`
    # with status 0 at once, also while the gateway does not answer, and leave the terminal as it
    # was; Ctrl-Z does nothing.
    def test_q_ends_it(self):
        terminal = self.watch()
        terminal.type("xyz")
        terminal.type("q")
        self.assertEqual(terminal.end(), 0)
        self.assert_restored(terminal)

    # Also proves [ctl-watch-end].
    def test_ctrl_c_ends_it(self):
        terminal = self.watch()
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)
        self.assert_restored(terminal)

    # Also proves [ctl-watch-end].
    def test_signals_end_it(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            with self.subTest(number=number):
                terminal = self.watch()
                terminal.program.send_signal(number)
                self.assertEqual(terminal.end(), 0)
                self.assert_restored(terminal)

    # Also proves [ctl-watch-end].
    def test_ctrl_z_does_not_stop_it(self):
        terminal = self.watch()
        terminal.type("\x1a")
        terminal.see(HOME + ".*" + HOME, len(terminal.shown))
        terminal.type("q")
        self.assertEqual(terminal.end(), 0)

    # Also proves [ctl-silent].
    def test_it_shows_that_the_gateway_hangs_and_works_again(self):
        terminal = self.watch()
        gateway = str(self.router.gateway_pid())
        subprocess.run(["kill", "-STOP", gateway], check=True)
        self.addCleanup(subprocess.run, ["kill", "-CONT", gateway], check=False)
        before = terminal.see("Gateway: \x1b\\[31mnot answering").end()
        subprocess.run(["kill", "-CONT", gateway], check=True)
        terminal.see("Gateway: \x1b\\[32mon", before)

    # Also proves [ctl-watch-end].
    def test_ctrl_c_ends_it_while_the_gateway_does_not_answer(self):
        terminal = self.watch()
        gateway = self.router.gateway_pid()
        subprocess.run(["kill", "-STOP", str(gateway)], check=True)
        self.addCleanup(subprocess.run, ["kill", "-CONT", str(gateway)], check=False)
        terminal.type("\x03")
        self.assertEqual(terminal.end(), 0)
        self.assert_restored(terminal)

    # Also proves [ctl-watch-lost].
    def test_it_ends_with_the_platform_and_says_so(self):
        terminal = self.watch()
        self.router.stop()
        self.assertEqual(terminal.end(), 1)
        self.assert_restored(terminal)
        self.assertRegex(terminal.shown, r"1049llumenctl: .+\r\n(lumend --root .+\r\n)?$")

    # Also proves [ctl-watch-plain].
    def test_without_a_terminal_it_prints_one_status_after_another(self):
        command = [PROGRAMS / "lumenctl", "--root", self.router.root, "status", "--watch"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as plain:
            lines = [plain.stdout.readline() for _ in range(12)]
            plain.send_signal(signal.SIGTERM)
            plain.stdout.read()
            self.assertEqual(plain.wait(timeout=30), 0)
        self.assertGreaterEqual(sum(line.startswith("Gateway: on") for line in lines), 2)
        self.assertNotIn("\x1b", "".join(lines))
        with subprocess.Popen([*command, "--json"], stdout=subprocess.PIPE, text=True) as program:
            for _ in range(2):
                self.assertEqual(json.loads(program.stdout.readline())["gateway"], "on")
            program.stdout.close()  # its reader has gone
            self.assertIn(program.wait(timeout=30), (0, 1))

    # Also proves [ctl-watch-lost].
    def test_a_missing_platform_is_reported_on_the_normal_screen(self):
        self.router.stop()
        terminal = self.at_terminal("status", "--watch")
        self.assertEqual(terminal.end(), 1)
        self.assertNotIn("\x1b", terminal.shown)


if __name__ == "__main__":
    unittest.main()
