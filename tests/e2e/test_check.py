"""lumenctl upnp check of the platform and of the gateway itself."""

import contextlib
import json
import os
import signal
import unittest

from support.administrator import run_inside
from support.check_case import CheckCase, finding
from support.network import LAN_BRIDGE, WAN_LINK
from support.router import PROGRAMS, SERVICE_USER
from support.users import NOBODY


class CheckTest(CheckCase):
    # Also proves [ctl-check].
    def test_nothing_is_wrong(self):
        self.assert_nothing_wrong()
        status, printed, _ = run_inside(self.router, "--json", "upnp", "check")
        self.assertEqual((status, json.loads(printed)), (0, {"findings": [], "not_checked": []}))

    # Also proves [ctl-check].
    def test_findings_in_json(self):
        self.ip("route", "delete", "default")
        status, printed, _ = run_inside(self.router, "--json", "upnp", "check")
        self.assertEqual(status, 1)
        self.assertEqual(json.loads(printed), {"findings": [{
            "id": "no-default-route",
            "what": "The main routing table has no default route.",
            "why": "Answers to the Internet may not leave this router.",
            "remedy": "ip route add default via GATEWAY dev wan0"}], "not_checked": []})

    def test_lumend_does_not_run(self):
        self.router.stop()
        self.assert_found(
            f"lumend does not answer ({self.router.root}/run/lumen.sock: No such file or "
            "directory).",
            "Without it no port is open, and what depends on it was not checked. lumend --root "
            f"{self.router.root} logs to its standard output.",
            "start lumend")

    def test_the_gateway_is_switched_off(self):
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        remedy = "lumenctl upnp settings set enabled=on"
        self.assert_found("The gateway is switched off.",
                          "No host finds a gateway, and no port can be opened.", remedy)
        self.router.lumenctl(*remedy.split()[1:])
        self.assert_nothing_wrong()

    def test_the_gateway_has_crashed(self):
        crashed = finding("The gateway has crashed; lumend will start it again.",
                          "No host finds a gateway, and no port can be opened.",
                          "journalctl -u lumend, which shows why")

        def is_seen():
            # Each crash doubles the time until the next start.
            if pid := self.router.gateway_pid():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            return self.check() == crashed

        self.wait_until(is_seen, "it is seen as crashed", limit=30)
        self.router.lumenctl("upnp", "settings")  # which starts it at once
        self.assert_nothing_wrong()

    def test_the_gateway_is_not_installed(self):
        self.router.stop()
        (self.router.root / "etc" / "services" / "upnp.ini").unlink()
        self.router.start()
        place = self.router.root / "etc" / "services" / "upnp.ini"
        self.assert_found(f"lumend knows no gateway: its service file {place} is missing.",
                          "No host finds a gateway, and no port can be opened.",
                          "where Palinode was built: cp build/etc/services/upnp.ini "
                          f"{place}, then start lumend again")

    def test_the_service_file_lets_the_gateway_send_nothing(self):
        place = self.router.root / "etc" / "services" / "upnp.ini"
        text = place.read_text()
        self.router.stop()
        place.write_text(text.replace("network = internal\n", ""))
        self.router.start()
        self.assert_found(f"The service file {place} does not let the gateway send to hosts.",
                          "No host finds a gateway, and no port can be opened.",
                          "add the line \"network = internal\" to it, then start lumend again")
        self.router.stop()
        place.write_text(text)
        self.router.start()
        self.router.wait_until_controllable()
        self.assert_nothing_wrong()

    def test_the_service_file_lets_the_gateway_open_no_port(self):
        place = self.router.root / "etc" / "services" / "upnp.ini"
        text = place.read_text()
        self.router.stop()
        place.write_text(text.replace("ports = yes\n", ""))
        self.router.start()
        self.assert_found(f"The service file {place} does not let the gateway open ports.",
                          "Every program that asks for a port is refused.",
                          "add the line \"ports = yes\" to it, then start lumend again")
        self.router.stop()
        place.write_text(text)
        self.router.start()
        self.router.wait_until_controllable()
        self.assert_nothing_wrong()

    def test_the_user_of_the_gateway_is_missing(self):
        place = self.router.root / "etc" / "services" / "upnp.ini"
        right = place.read_text()
        self.router.stop()
        # No machine that runs these tests has the gateway installed.
        place.write_text(right.replace(f"user = {SERVICE_USER}", "user = palinode"))
        self.router.start()
        self.assert_found("lumend knows no gateway: its user palinode does not exist.",
                          "No host finds a gateway, and no port can be opened.",
                          "systemd-sysusers palinode.conf && chown -R palinode: /lumen/store/upnp "
                          "/lumen/store/upnpm, then start lumend again")
        place.write_text(right)
        self.assert_found(f"lumend knows no gateway: it has not read the service file {place}, "
                          "which is correct now.",
                          "No host finds a gateway, and no port can be opened.",
                          "start lumend again; when that does not help, journalctl -u lumend shows "
                          "why lumend rejects it")
        self.router.stop()
        self.router.start()
        self.assert_nothing_wrong()

    def test_the_gateway_does_not_answer(self):
        pid = self.router.gateway_pid()
        self.network.router.run("kill", "-STOP", str(pid))
        try:
            status, printed, _ = run_inside(self.router, "upnp", "check")
        finally:
            self.network.router.run("kill", "-CONT", str(pid))
        self.assertEqual((status, printed), (1, finding(
            "The gateway does not answer: no answer in time.",
            "No host finds a gateway, and no port can be opened.",
            "systemctl restart lumend, which closes the open ports")))

    def test_there_is_no_internal_interface(self):
        self.router.lumenctl("upnp", "interface", "remove", LAN_BRIDGE)
        self.assert_found("The gateway has no internal interface.", "No host finds it.",
                          "lumenctl upnp setup")

    def test_there_is_no_external_interface(self):
        self.router.lumenctl("upnp", "interface", "set", WAN_LINK, "--disable")
        self.assert_found("The gateway has no external interface.",
                          "There is no address that ports can be opened on.",
                          "lumenctl upnp setup")

    def test_a_user_without_rights_is_refused(self):
        # Opened before the rights are gone: the program may lie where other users may not look.
        printed = self.run_inside(
            f"exec 3< {PROGRAMS / 'lumenctl'}; setpriv --reuid={NOBODY} --regid={NOBODY} "
            f"--clear-groups /proc/self/fd/3 --root {self.router.root} upnp check; true")
        self.assertEqual(printed, finding(
            "lumend does not answer: connection ended: lumend answers root and the group lumen only.",
            "What depends on it was not checked.",
            "sudo lumenctl upnp check") + "Not checked: the firewall, which takes root to read.\n")


class FreshRouterTest(CheckCase):
    SET_UP = False

    def test_the_gateway_is_not_set_up(self):
        self.assert_found("The gateway is not set up: it uses no interface.",
                          "No host finds a gateway, and no port can be opened.",
                          "lumenctl upnp setup")


if __name__ == "__main__":
    unittest.main()
