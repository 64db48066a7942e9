"""lumenctl nat log: who had which port opened, changed, closed or refused."""

import json
import pwd
import signal
import subprocess
import unittest

from support.network import WAN_ADDRESS, SoapError
from support.router import PROGRAMS, SERVICE_USER
from support.router_case import RouterCase

ENDED = "lumenctl: the platform has ended the connection\n"


class PortLogTest(RouterCase):
    def events(self):
        """What happened, as (event, port, client, client's port, who, reason)."""
        return [(e["event"], f"{e['port']}/{e['protocol']}", e["client"], e["client_port"], e["who"],
                 e["reason"]) for e in self.router.ask("nat", "log")]

    def refuse(self, port):
        with self.assertRaises(SoapError):
            self.lan[0].open_port(port, "TCP")

    # Also proves [port-record].
    def test_what_a_host_does_is_recorded(self):
        self.assertEqual(self.router.lumenctl("nat", "log"),
                         "Nothing has happened to ports since lumend started.\n")
        host = self.lan[0]
        host.open_port(8080, "TCP", 80)
        self.refuse(443)
        host.open_port(8080, "TCP", 81)
        self.router.lumenctl("nat", "close", "8080/tcp")
        host.close_port(8080, "TCP")
        host.open_port(8081, "UDP")
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.wait_until(lambda: self.router.ports() == {}, "the ports are closed")
        opened = (f"{port}/{protocol}" for port, protocol in ((8080, "tcp"), (8081, "udp")))
        tcp, udp = opened
        self.assertEqual(self.events()[:6], [
            ("opened", tcp, host.address, 80, "upnp", ""),
            ("refused", "443/tcp", host.address, 443, "upnp",
             "external port 443 is not allowed by the policy"),
            ("changed", tcp, host.address, 81, "upnp", f"was to {host.address}:80"),
            ("closed", tcp, host.address, 81, "administrator", ""),
            ("closed", tcp, host.address, 81, "upnp", ""),
            ("opened", udp, host.address, 8081, "upnp", "")])
        self.assertEqual(self.events()[6][:2], ("closed", udp))
        events = self.router.ask("nat", "log")
        self.assertEqual([e["address"] for e in events], 7 * [WAN_ADDRESS])
        self.assertEqual([events[0]["user"], events[3]["user"]],
                         [str(SERVICE_USER), pwd.getpwuid(0).pw_name])
        self.assertEqual([e["time"] for e in events], sorted(e["time"] for e in events))

    # Promise: However many requests are refused, what was opened before and after them is recorded.
    # Also proves [port-record-size].
    def test_a_flood_of_refused_requests_hides_no_open_port(self):
        self.lan[0].open_port(8080, "TCP")
        for _ in range(1200):
            self.refuse(443)
        self.lan[0].open_port(8081, "TCP")
        opened = [event[1] for event in self.events() if event[0] == "opened"]
        self.assertEqual(opened, ["8080/tcp", "8081/tcp"])
        self.assertEqual(len(self.events()), 1202)

    def follow(self, *arguments):
        """`nat log --follow` at work; what it prints goes to files in the router's folder."""
        self.printed = self.router.root / "events"
        self.said = self.router.root / "events-errors"
        command = [PROGRAMS / "lumenctl", "--root", self.router.root, "nat", "log", "--follow",
                   *arguments]
        with open(self.printed, "wb") as out, open(self.said, "wb") as err:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=err)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def followed(self):
        """The whole lines so far, as (event, port)."""
        lines = map(json.loads, self.printed.read_text().split("\n")[:-1])
        return [(line["event"], line["port"]) for line in lines]

    # Also proves [ctl-log-follow].
    def test_it_is_followed_until_it_is_asked_to_end(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        process = self.follow("--json")
        self.wait_until(lambda: self.followed() == [("opened", 8080)], "it has shown the past")
        host.close_port(8080, "TCP")
        self.refuse(443)
        self.wait_until(lambda: self.followed() == [("opened", 8080), ("closed", 8080),
                                                    ("refused", 443)], "it shows what happens")
        process.send_signal(signal.SIGINT)
        self.assertEqual((process.wait(timeout=10), self.said.read_text()), (0, ""))

    # Also proves [ctl-log-follow].
    def test_it_ends_with_the_platform_and_works_again_after_its_restart(self):
        self.lan[0].open_port(8080, "TCP")
        process = self.follow("--json")
        self.wait_until(lambda: self.followed() == [("opened", 8080)], "it has shown the past")
        self.router.kill()
        self.assertEqual((process.wait(timeout=10), self.said.read_text()), (1, ENDED))
        self.router.start()
        self.assertEqual(self.events(), [], "the record is that of this life")
        self.router.wait_until_controllable()
        self.lan[0].open_port(8081, "TCP")
        self.assertEqual([event[:2] for event in self.events()], [("opened", "8081/tcp")])


if __name__ == "__main__":
    unittest.main()
