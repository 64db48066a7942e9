"""lumenctl with the real platform."""

import os
import pathlib
import socket
import subprocess
import tempfile
import time
import unittest

from support.network import LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, SoapError
from support.router import PROGRAMS, CommandFailed
from support.router_case import RouterCase


class LumenctlTest(RouterCase):
    def refused(self, *arguments):
        """The exit status and what was said on standard error."""
        with self.assertRaises(CommandFailed) as refused:
            self.router.lumenctl(*arguments)
        return refused.exception.status, refused.exception.error

    def test_it_reaches_a_root_however_long_its_path_is(self):
        folder = self.router.root
        for _ in range(4):
            folder /= 100 * "x"
        folder.mkdir(parents=True)
        (folder / "root").symlink_to(self.router.root)
        said = subprocess.run([PROGRAMS / "lumenctl", "--root", folder / "root", "identity"],
                              capture_output=True, text=True, check=True, timeout=30).stdout
        self.assertEqual(said, self.router.lumenctl("identity"))
        self.assertRegex(said, r"^\S{8,}\n$")

    # Promise [ctl-socket]: lumenctl asks `/run/lumen/lumen.sock`, then `/lumen/run/lumen.sock`;
    # when neither answers it names both with their errors: `lumend does not answer
    # (/run/lumen/lumen.sock: No such file or directory; /lumen/run/lumen.sock: No such file or
    # directory)`.
    def test_it_looks_in_two_places(self):
        identity = self.router.lumenctl("identity")
        root = self.router.root
        for folder in ("empty", "packaged/lumen", "deaf/run"):
            (root / folder).mkdir(parents=True)
        (root / "packaged/lumen/lumen.sock").symlink_to(root / "run/lumen.sock")

        def asks(run, lumen):
            process = self.network.router.popen(
                PROGRAMS / "lumenctl", "identity", private={"/run": str(run), "/lumen": str(lumen)},
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            with process:
                out, err = process.communicate(timeout=30)
            return process.returncode, out, err

        # No program answers there, so lumenctl must not ask there first.
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
            listener.bind(str(root / "deaf/run/lumen.sock"))
            listener.listen(8)
            self.assertEqual(asks(root / "packaged", root / "deaf"), (0, identity, ""))
        self.assertEqual(asks(root / "packaged", root / "empty"), (0, identity, ""))
        self.assertEqual(asks(root / "empty", root), (0, identity, ""))
        status, out, err = asks(root / "empty", root / "empty")
        self.assertEqual((status, out), (1, ""))
        error, where_its_log_is = err.splitlines()
        self.assertEqual(error, "lumenctl: lumend does not answer "
                         "(/run/lumen/lumen.sock: No such file or directory; "
                         "/lumen/run/lumen.sock: No such file or directory)")
        systemd = pathlib.Path("/proc/1/comm").read_text(encoding="utf-8") == "systemd\n"
        self.assertIn("journalctl -u lumend" if systemd else "its standard output",
                      where_its_log_is)

    # Also proves [ctl-setup].
    def test_set_up_twice_changes_nothing_and_restarts_nothing(self):
        self.lan[0].open_port(8080, "TCP")
        before = self.router.log().count("start ext")
        self.router.set_up()
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])
        self.assertEqual(self.router.log().count("start ext"), before)

    def test_set_up_removes_interfaces_that_it_does_not_name(self):
        self.router.lumenctl("upnp", "setup", "--internal", WAN_LINK, "--external", LAN_BRIDGE)
        uses = {i["name"]: i["role"] for i in self.router.status()["interfaces"]}
        self.assertEqual(uses, {WAN_LINK: "internal", LAN_BRIDGE: "external"})
        self.router.lumenctl("upnp", "setup", "--internal", "lan0", "--external", WAN_LINK)
        uses = {i["name"]: i["role"] for i in self.router.status()["interfaces"]}
        self.assertEqual(uses, {WAN_LINK: "external", "lan0": "internal"})
        self.router.set_up()
        self.lan[0].open_port(8080, "TCP")

    # Also proves [ctl-setup-missing].
    def test_set_up_with_a_mistyped_interface_leaves_a_working_gateway_alone(self):
        self.lan[0].open_port(8080, "TCP")
        before = self.router.status()["interfaces"]
        history = self.router.ask("history")
        links = ", ".join(i["name"] for i in self.router.ask("interface", "list"))
        for internal, external in (("nosuch", WAN_LINK), (LAN_BRIDGE, "nosuch")):
            self.assertEqual(
                self.refused("upnp", "setup", "--internal", internal, "--external", external),
                (1, f"lumenctl: there is no interface 'nosuch' now, only {links}. Nothing was "
                    "changed; --allow-missing sets up an interface that comes later"))
        self.assertEqual(self.router.status()["interfaces"], before)
        self.assertEqual(self.router.ask("history"), history)
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])

    def test_a_link_that_does_not_exist_yet_is_set_up(self):
        self.network.disconnect_wan()
        self.router.lumenctl("interface", "forget", WAN_LINK)
        self.router.lumenctl("upnp", "setup", "--internal", LAN_BRIDGE, "--external", WAN_LINK,
                             "--allow-missing")
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "away")
        self.network.connect_wan()
        self.wait_until(lambda: self.router.interface(WAN_LINK)["state"] == "running",
                        "the link is there")
        control = self.router.wait_until_controllable()
        self.wait_until(lambda: self.lan[0].invoke("GetExternalIPAddress", control=control)
                        ["NewExternalIPAddress"] == WAN_ADDRESS, "it has its address")
        self.lan[0].open_port(8080, "TCP")

    # Also proves [policy-set].
    def test_the_policy_is_changed_for_good(self):
        self.router.lumenctl("nat", "policy", "set", "external-ports=80, 2000-2999",
                             "max-rules-per-client=1")
        host = self.lan[0]
        with self.assertRaises(SoapError):
            host.open_port(8080, "TCP")
        host.open_port(80, "TCP")
        with self.assertRaises(SoapError):
            host.open_port(2000, "TCP")
        self.router.stop()
        self.router.start()
        self.assertEqual(self.router.ask("nat", "policy"),
                         {"external-ports": "80, 2000-2999", "internal-clients": "internal",
                          "internal-ports": "1-21, 24-134, 136, 140-444, 446-3388, 3390-5899, "
                                            "5901-65535",
                          "router-ports": "none",
                          "max-rules": 4096, "max-rules-per-client": 1})
        self.router.lumenctl("nat", "policy", "reset")
        self.assertEqual(self.router.ask("nat", "policy")["external-ports"], "1024-65535")

    # Also proves [ctl-reload], [policy-reload].
    def test_the_policy_file_is_read_again(self):
        host = self.lan[0]
        host.open_port(8080, "TCP")
        file = self.router.root / "etc" / "nat-policy"
        file.write_text("external-ports = 80\nmax-rules = many\n")
        status, said = self.refused("nat", "policy", "reload")
        self.assertEqual(status, 1)
        self.assertIn("/lumen/etc/nat-policy:2: max-rules: ", said)
        host.open_port(8081, "TCP")
        file.write_text("external-ports = 80\n")
        self.router.lumenctl("nat", "policy", "reload")
        self.assertEqual(self.router.ask("nat", "policy", "show")["external-ports"], "80")
        host.open_port(80, "TCP")
        with self.assertRaises(SoapError):
            host.open_port(8082, "TCP")
        self.assertEqual(set(self.router.ports()), {"80/tcp", "8080/tcp", "8081/tcp"})

    # Also proves [ctl-status].
    def test_it_says_why_something_is_refused(self):
        for arguments, status, said in (
                (("upnp", "interface", "add", WAN_LINK, "--role", "external"), 1,
                 "Interface already added"),
                (("upnp", "interface", "remove", "eth9"), 1, "there is no interface 'eth9'"),
                (("nat", "close", "8080/tcp"), 1, "port 8080/tcp is not open"),
                (("upnp", "interface", "add", "lo", "--role", "external"), 1,
                 "bad interface name 'lo'"),
                (("nat", "policy", "set", "external-ports=none"), 2,
                 'external-ports: "none" is neither a port'),
                (("nat", "policy", "set", "max-rules=99999999999"), 2,
                 'max-rules: "99999999999" is not a number from 0 to 65536'),
                (("nat", "close", "8080"), 2, "a port is written like 8080/tcp")):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.refused(*arguments)[0], status)
                self.assertIn(said, self.refused(*arguments)[1])

    def test_it_reports_that_the_platform_does_not_answer(self):
        self.router.stop()
        status, said = self.refused("status")
        self.assertEqual(status, 1)
        self.assertIn(f"{self.router.root}/run/lumen.sock: No such file or directory", said)
        self.router.start()
        self.router.kill()  # which leaves its socket
        self.assertIn("Connection refused", self.refused("status")[1])

    # Also proves [ctl-output].
    def test_it_reports_that_its_answer_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            done = subprocess.run([PROGRAMS / "lumenctl", "--root", self.router.root, "status"],
                                  stdout=full, stderr=subprocess.PIPE, timeout=30, check=False)
        self.assertEqual((done.returncode, done.stderr),
                         (1, b"lumenctl: standard output cannot be written\n"))

    # Also proves [identity-stays].
    def test_the_identity_stays_and_differs_between_routers(self):
        identity = self.router.lumenctl("identity")
        self.router.stop()
        self.router.start()
        self.assertEqual(self.router.lumenctl("identity"), identity)
        self.assertNotEqual(self.make_router().lumenctl("identity"), identity)


class DeafPlatformTest(unittest.TestCase):
    # Promise [ctl-wait]: lumenctl waits fifteen seconds for an answer, then says `lumenctl: no
    # answer in time` and ends with 1.
    def test_it_waits_fifteen_seconds_for_an_answer(self):
        with (tempfile.TemporaryDirectory(prefix="palinode-") as root,
              socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener):
            os.mkdir(f"{root}/run")
            listener.bind(f"{root}/run/lumen.sock")
            listener.listen(8)
            started = time.monotonic()
            done = subprocess.run([PROGRAMS / "lumenctl", "--root", root, "identity"],
                                  capture_output=True, text=True, timeout=50, check=False)
            self.assertGreaterEqual(time.monotonic() - started, 15)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (1, "", "lumenctl: no answer in time\n"
                          f"lumend --root {root} logs to its standard output.\n"))


if __name__ == "__main__":
    unittest.main()
