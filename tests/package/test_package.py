"""The Debian package on a fresh Debian, with systemd, as an administrator uses it."""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from machine import CommandFailed, Machine
from support.debian import kept
from support.elf import Elf, table
from support.lan import read_to_end
from support.network import (LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, Network, exchange_tcp,
                             wait_until)
from support.system_calls import has_landlock

VERSION = os.environ["PALINODE_VERSION"]
PACKAGES = pathlib.Path(os.environ["PALINODE_PACKAGES"])
BASE = kept() / "systemd.tar"

PORT = 8080
# Where the package has files, and what belongs to it nowhere else.
PLACES = ("/etc/lumen", "/var/lib/lumen", "/run/lumen", "/lumen")
USERS = ("palinode", "palinode-pcp", "lumen-resolver", "lumen-web")


def package():
    found = list(PACKAGES.glob("*.deb"))
    if len(found) != 1:
        raise AssertionError(f"{PACKAGES} holds no package; scripts/package makes it")
    return found[0]


class PackageTest(unittest.TestCase):
    # Promise: The package has no error that lintian knows.
    def test_lintian_finds_no_error(self):
        done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error", str(package())],
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False)
        print(done.stdout)
        self.assertEqual(done.returncode, 0, done.stdout)

    # Promise: The version is the same in the package's name and changelog, in `--version` and in
    # the field `SERVER`
    def test_its_version_is_that_of_the_programs(self):
        fields = subprocess.run(["dpkg-deb", "--field", package(), "Package", "Version"], text=True,
                                capture_output=True, check=True).stdout
        self.assertEqual(fields, f"Package: palinode-igd\nVersion: {VERSION}\n")

    # Promise: The packaged programs have every protection that the compiler and the linker offer.
    def test_its_programs_are_hardened(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["dpkg-deb", "--extract", package(), folder], check=True)
            paths = [path for path in pathlib.Path(folder).glob("usr/*bin/*") if path.is_file()]
            self.assertEqual(len(paths), 6, paths)
            print(table(paths))
            self.assertEqual({path.name: Elf(path).lacks() for path in paths if Elf(path).lacks()},
                             {})


class InstallationTest(unittest.TestCase):
    def setUp(self):
        self.network = Network()
        self.addCleanup(self.network.close)
        self.machine = Machine(BASE, self.network.router)
        self.addCleanup(self.machine.close)
        self.client = self.network.lan[0]

    def install(self, *options):
        """Installs the package; returns what apt-get printed."""
        self.machine.put(package(), "/root/palinode-igd.deb")
        return self.machine.apt_get("install", *options, "/root/palinode-igd.deb")

    def set_up(self):
        self.machine.run("lumenctl", "upnp", "setup", "--internal", LAN_BRIDGE,
                         "--external", WAN_LINK)

        def controllable():
            with contextlib.suppress(OSError, AssertionError):
                return self.client.connection_control()

        wait_until(controllable, "the gateway can be controlled")

    def there(self, *paths):
        """Those of the paths that exist on the machine."""
        return [path for path in paths if self.machine.run("find", path, "-maxdepth", "0",
                                                           check=False).strip() == path]

    def gateway_log(self):
        return self.machine.run("journalctl", "--no-pager", "--identifier=palinode-igd",
                                "--output=cat")

    def metrics(self):
        with self.client.connect(LAN_ADDRESS, 80) as sock:
            sock.sendall(f"GET /metrics HTTP/1.0\r\nHost: {LAN_ADDRESS}\r\n\r\n".encode())
            return read_to_end(sock).decode()

    def change_unit(self, setting):
        """Overrides a setting of the unit's service, and restarts it."""
        self.machine.run("sh", "-c", "mkdir -p /etc/systemd/system/lumend.service.d && "
                         f"printf '[Service]\\n{setting}\\n' > "
                         "/etc/systemd/system/lumend.service.d/test.conf && "
                         "systemctl daemon-reload && systemctl restart lumend")

    def unit_state(self):
        return self.machine.run("systemctl", "is-active", "lumend", check=False).strip()

    def restarts(self):
        return int(self.machine.run("systemctl", "show", "--property=NRestarts", "--value",
                                    "lumend"))

    def main_process(self):
        return self.machine.run("systemctl", "show", "--property=MainPID", "--value", "lumend")

    # Promise [install-quiet]: Installing opens no port on the network.
    def test_starts_nothing_on_the_network(self):
        said = self.install()
        self.assertIn("Nothing is open to the network yet.", said)
        self.assertEqual(self.machine.run("systemctl", "is-active", "lumend"), "active\n")
        wait_until(lambda: "exit\n" in self.gateway_log(), "the gateway is not needed")
        self.assertEqual(self.network.router.run("ss", "-Hlntu"), "")
        with self.assertRaises(ConnectionRefusedError):
            self.client.connect(LAN_ADDRESS, 2828)

    # Promise: After `lumenctl upnp setup` a client opens a port, and bytes from the WAN side pass
    # it.
    def test_serves_a_client_after_set_up(self):
        self.install()
        self.set_up()
        printed = self.client.upnpc("-a", self.client.address, str(PORT), str(PORT), "tcp")
        self.assertIn(f"external {WAN_ADDRESS}:{PORT} TCP is redirected", printed)
        exchange_tcp(self.network.wan, WAN_ADDRESS, PORT, self.client, PORT)
        ports = json.loads(self.machine.run("lumenctl", "--json", "nat", "list"))
        self.assertEqual([port["connections_so_far"] for port in ports], [1])
        status = self.machine.run("lumenctl", "status")
        self.assertIn("Gateway: on", status)
        self.assertRegex(status, rf"{PORT}/tcp +{WAN_ADDRESS} +{self.client.address}:{PORT} +open")
        description = self.client.speak_to().get("/gateway.xml")
        self.assertIn(f"Palinode/{VERSION} ", description["SERVER"])
        self.assertEqual(self.machine.run("lumenctl", "--version"), f"lumenctl {VERSION}\n")
        self.assertEqual(self.machine.run("lumend", "--version"), f"lumend {VERSION}\n")
        # Its lines bear its name in the journal, those of lumend another.
        self.assertIn(f"start int: {LAN_BRIDGE} {LAN_ADDRESS}\n", self.gateway_log())
        self.assertNotIn("upnp: started", self.gateway_log())

    # Promise [unit-rating]: `systemd-analyze security` gives the unit 2.5 at most.
    def test_the_unit_is_hardened(self):
        self.install()
        found = self.machine.run("systemd-analyze", "security", "--threshold=25", "lumend")
        print(found.splitlines()[-1])
        exposure = re.search(r"Overall exposure level for lumend.service: ([0-9.]+)", found)
        self.assertLessEqual(float(exposure.group(1)), 2.5)

    # Promise: Under systemd the gateway confines and is bounded as without it.
    def test_the_gateway_confines_itself_under_systemd_too(self):
        self.install()
        self.set_up()
        process = self.machine.run("pidof", "palinode-igd").strip()
        self.assertIn("Seccomp:\t2\n", self.machine.run("cat", f"/proc/{process}/status"))
        limits = self.machine.run("cat", f"/proc/{process}/limits")
        self.assertRegex(limits, r"Max processes +0 +0 ")
        self.assertRegex(limits, r"Max file size +131072 +131072 ")
        self.assertNotIn("system calls", self.gateway_log())
        if has_landlock():
            self.assertNotIn("Landlock", self.gateway_log())

    # Also proves [service-list].
    def test_the_memory_of_its_programs_is_known_under_systemd_too(self):
        self.install()
        self.set_up()
        self.machine.run("lumenctl", "web", "on")
        services = json.loads(self.machine.run("lumenctl", "--json", "service", "list"))
        memory = {one["program"]: one["resident_memory_bytes"] for one in services
                  if one["process"] != 0}
        self.assertLessEqual({"palinode-igd", "lumen-web"}, set(memory))
        for program, amount in memory.items():
            self.assertGreater(amount or 0, 1 << 20, program)
        metrics = self.metrics()
        for program in ("lumend", *memory):
            self.assertRegex(metrics, rf'palinode_resident_memory_bytes{{program="{program}"}} \d')

    # Promise: The unit has nothing that `systemd-analyze verify` complains about.
    def test_systemd_finds_nothing_wrong_with_the_unit(self):
        self.install()
        self.assertEqual(self.machine.run("systemd-analyze", "verify", "--man=no",
                                          "lumend.service"), "")

    # Promise [lumend-restart]: A lumend that ended in any way but by a request is started again
    # after 2 s, however often that happens.
    def test_is_started_again_however_often_it_ends(self):
        self.install()
        waits = self.machine.run("systemctl", "show", "--property=RestartUSec", "--value", "lumend")
        self.assertEqual(waits, "2s\n")
        self.change_unit("RestartSec=100ms")
        for _ in range(12):
            before = self.main_process()
            self.machine.run("sh", "-c", f"kill -KILL {before.strip()}")
            wait_until(lambda before=before: self.main_process() not in (before, "0\n"),
                       "another lumend runs")
        wait_until(lambda: self.unit_state() == "active", "lumend serves")

    # Promise [lumend-corrected]: A lumend that cannot start because of its configuration starts by
    # itself when that is corrected; until then `lumenctl` names its log, which root and the group
    # `adm` can read.
    def test_starts_by_itself_when_its_ruleset_was_broken_and_is_corrected(self):
        self.install()
        self.change_unit("RestartSec=100ms")
        ruleset = "/etc/lumen/nat-ruleset.nft"
        self.machine.run("sh", "-c", f"cp {ruleset} /root/good; echo nonsense >>{ruleset}")
        self.machine.run("systemctl", "restart", "lumend", check=False)
        wait_until(lambda: self.restarts() >= 8, "it was tried again and again")
        said = self.machine.run("lumenctl", "status", check=False)
        self.assertIn("journalctl -u lumend", said)
        self.machine.run("useradd", "--groups", "adm", "reader")
        for reader in ("root", "reader"):
            log = self.machine.run("runuser", "-u", reader, "--", "journalctl", "-u", "lumend",
                                   "--no-pager", "--output=cat")
            self.assertIn("cannot load the NAT ruleset /lumen/etc/nat-ruleset.nft", log)
        self.machine.run("cp", "/root/good", ruleset)
        wait_until(lambda: self.unit_state() == "active", "lumend serves")

    # Promise [configuration-deleted]: A configuration file that was deleted stays deleted, and
    # comes back with `--force-confmiss`
    def test_a_deleted_configuration_file_comes_back_when_dpkg_is_told_so(self):
        self.install()
        deleted = ("/etc/lumen/nat-policy", "/etc/lumen/services/upnp.ini")
        self.machine.run("rm", *deleted)
        self.install("--reinstall")
        self.assertEqual(self.there(*deleted), [])
        self.install("--reinstall", "-o", "Dpkg::Options::=--force-confmiss")
        self.assertEqual(self.there(*deleted), list(deleted))

    # Promise [watchdog-restart]: A lumend whose loop hangs is restarted.
    def test_is_restarted_when_it_no_longer_answers(self):
        self.install()
        self.change_unit("WatchdogSec=5")
        before = self.main_process()
        self.machine.run("sh", "-c", f"kill -STOP {before.strip()}")
        wait_until(lambda: self.main_process() not in (before, "0\n"), "another lumend runs",
                   limit=60)

    # Promise [upgrade]: An upgrade does not restart the gateway, keeps its ports open, and says how
    # to restart it.
    def test_an_upgrade_keeps_the_gateway_and_its_ports(self):
        self.install()
        self.set_up()
        self.client.open_port(PORT, "TCP")
        before = self.main_process()
        said = self.install("--reinstall")
        self.assertIn("The gateway goes on running", said)
        self.assertIn("systemctl restart lumend", said)
        self.assertEqual(self.main_process(), before)
        exchange_tcp(self.network.wan, WAN_ADDRESS, PORT, self.client, PORT)

    # Promise [removal]: Removing leaves no rule and no file but what was configured, which counts
    # again after the next installation; purging leaves nothing.
    def test_removal_leaves_only_what_was_configured_and_purging_nothing(self):
        self.install()
        self.set_up()
        self.client.open_port(PORT, "TCP")
        self.assertIn("lumen", self.network.router.run("nft", "list", "tables"))
        self.assertIn("systemctl start lumend", self.machine.run("lumend", check=False))
        self.machine.apt_get("remove", "palinode-igd")
        self.assertEqual(self.network.router.run("nft", "list", "tables"), "")
        self.assertEqual(self.there(*PLACES), ["/etc/lumen", "/var/lib/lumen"])
        self.assertEqual(self.network.router.run("ss", "-Hlntu"), "")
        with self.assertRaises(CommandFailed):
            self.machine.run("systemctl", "cat", "lumend")

        # What was configured counts again.
        self.install()
        wait_until(lambda: "Gateway: on" in self.machine.run("lumenctl", "status"),
                   "the gateway is on again")

        self.machine.apt_get("purge", "palinode-igd")
        left = self.machine.run("find", "/", "-xdev", "(", "-name", "*lumen*", "-o", "-name",
                                "*palinode*", ")", "-not", "-path", "/var/log/*", "-not", "-path",
                                "/root/*")
        self.assertEqual(left, "")
        for user in USERS:
            with self.assertRaises(CommandFailed):
                self.machine.run("getent", "passwd", user)


if __name__ == "__main__":
    unittest.main()
