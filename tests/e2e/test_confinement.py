"""What the programs of a running router may still do."""

import multiprocessing
import os
import pathlib
import unittest

from support.router_case import RouterCase
from support.subscriber import Subscriber
from support.system_calls import has_landlock

FILTERED = "2"  # SECCOMP_MODE_FILTER of linux/seccomp.h


def status(pid):
    """The fields of proc(5)'s status."""
    lines = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines()
    return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


def limits(pid):
    """The hard limits of proc(5)'s limits."""
    lines = pathlib.Path(f"/proc/{pid}/limits").read_text(encoding="ascii").splitlines()
    return {line[:26].strip(): line[47:68].strip() for line in lines[1:]}


class ConfinementTest(RouterCase):
    def programs(self):
        """The processes by name; that of the resolver exists once something was asked."""
        return {"lumend": self.router.lumend.pid,
                **{record["name"]: record["process"] for record in self.router.ask("service", "list")
                   if record["process"]}}

    # Promise: Each program runs with `no_new_privs` and with a list of system calls; services have
    # lumend's list besides their own.
    def test_every_program_has_its_list_of_system_calls(self):
        self.router.ask_name_server("127.0.0.1")
        subscriber = Subscriber(self.lan[0].speak_to())
        self.addCleanup(subscriber.close)
        reply = subscriber.ask(self.lan[0].connection_events(), callback="http://nowhere.lan/")
        self.assertEqual(reply.status, 412)
        self.router.lumenctl("web", "on")
        self.router.lumenctl("pcp", "on")
        seen = {}
        for name, pid in self.programs().items():
            fields = status(pid)
            self.assertEqual((fields["NoNewPrivs"], fields["Seccomp"]), ("1", FILTERED), name)
            seen[name] = fields["Seccomp_filters"]
        self.assertEqual(seen, {"lumend": "1", "upnp": "2", "resolver": "2", "web": "2",
                                "pcp": "2"})

    def test_every_service_has_its_limits(self):
        found = limits(self.router.gateway_pid())
        self.assertEqual((found["Max processes"], found["Max core file size"],
                          found["Max open files"], found["Max address space"]),
                         ("0", "0", "1024", str(256 << 20)))

    # Also proves [store-limit].
    def test_a_service_that_fills_its_store_is_killed(self):
        store = self.router.root / "store" / "upnp"
        gateway = self.router.gateway_pid()
        user = store.stat().st_uid

        def fill():
            os.setgroups([])
            os.setresgid(user, user, user)
            os.setresuid(user, user, user)
            store.chmod(0)  # does not hide it
            store.chmod(0o700)
            for number in range(200):
                (store / f"waste-{number}").touch()

        filler = multiprocessing.get_context("fork").Process(target=fill)
        filler.start()
        filler.join()
        self.assertEqual(filler.exitcode, 0)
        self.wait_until(lambda: self.router.gateway_pid() not in (0, gateway),
                        "another process of the gateway")
        self.assertIn("upnp: is killed: /lumen/store/upnp holds more than 128 files",
                      self.router.log())
        for waste in store.glob("waste-*"):
            waste.unlink()
        self.wait_until(self.answers, "an answer")

    def answers(self):
        """Whether the gateway serves its description."""
        try:
            return self.lan[0].speak_to().get("/gateway.xml").status == 200
        except OSError:
            return False

    # Promise: Where the kernel has Landlock, the gateway serves no file that its folder only links to.
    def test_a_link_out_of_the_served_files_is_not_followed(self):
        if not has_landlock():
            self.skipTest("this kernel has no Landlock")
        icon = self.router.root / "etc" / "upnp" / "logo16.gif"
        client = self.lan[0].speak_to()
        self.assertEqual(client.get("/logo16.gif").status, 200)
        icon.unlink()
        icon.symlink_to("/lumen/etc/nat-policy")
        self.assertEqual(client.get("/logo16.gif").status, 404)
        self.assertIn("open file /lumen/etc/upnp/logo16.gif: Permission denied", self.router.log())


if __name__ == "__main__":
    unittest.main()
