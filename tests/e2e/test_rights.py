"""Who may do what on the router."""

import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import unittest

from support import lm
from support.router import PROGRAMS, SERVICE_USER
from support.router_case import RouterCase
from support.users import NOBODY, as_user

class RightsTest(RouterCase):
    def answered(self, path, command, **fields):
        """Whether the platform answers the calling process at all, with the reply if it does."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as sock:
            sock.settimeout(5)
            sock.connect(str(self.router.root / "run" / "lumen.sock"))
            request = lm.Message({lm.DESTINATION: path, lm.SERIAL: 7, lm.COMMAND: command})
            try:
                sock.send(lm.encode(request))
                return bool(sock.recv(65536))
            except (BrokenPipeError, ConnectionResetError):
                return False

    # Also proves [rights-others].
    def test_a_program_of_another_user_is_refused(self):
        self.assertTrue(self.answered([20, 0], lm.CMD_LIST))
        self.assertFalse(as_user(NOBODY, lambda: self.answered([20, 0], lm.CMD_LIST)))
        self.assertTrue(self.answered([20, 0], lm.CMD_LIST))

    # Promise: A service may not keep or forget an interface, write the NAT policy or write another
    # service's settings: `not permitted`.
    # Also proves [rights-services], [rights-tables].
    def test_the_gateways_user_may_not_administer(self):
        def refused(path, command):
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as sock:
                sock.settimeout(5)
                sock.connect(str(self.router.root / "run" / "lumen.sock"))
                sock.send(lm.encode(lm.Message({lm.DESTINATION: path, lm.SERIAL: 7,
                                                lm.COMMAND: command})))
                return lm.decode(sock.recv(65536)).error() == "not permitted"

        self.assertFalse(as_user(SERVICE_USER, lambda: refused([20, 0], lm.CMD_LIST)))
        for path, command in (([20, 0], lm.CMD_ADD), ([20, 0], lm.CMD_REMOVE), ([20, 6], lm.CMD_LIST),
                              ([20, 5], lm.CMD_SET_SETTINGS), ([40, 0], lm.CMD_SET_SETTINGS)):
            with self.subTest(path=path, command=hex(command)):
                self.assertTrue(as_user(SERVICE_USER, lambda p=path, c=command: refused(p, c)))

    # Also proves [service-privileges].
    def test_the_gateway_has_no_rights(self):
        self.assert_powerless(self.router.gateway_pid(), "palinode-igd", SERVICE_USER)

    # Promise [one-thread]: The daemon and lumend are one thread each.
    def test_each_program_is_one_thread(self):
        for pid in (self.router.gateway_pid(), self.router.lumend.pid):
            self.assertEqual(os.listdir(f"/proc/{pid}/task"), [str(pid)])

    # Promise [capabilities]: lumend keeps CAP_KILL, CAP_SETGID, CAP_SETUID, CAP_NET_BIND_SERVICE
    # and CAP_NET_ADMIN and no other capability, in no set.
    def test_lumend_keeps_five_capabilities(self):
        with open(f"/proc/{self.router.lumend.pid}/status", encoding="ascii") as status:
            fields = dict(line.rstrip("\n").split(":\t", 1) for line in status)
        # CAP_KILL, CAP_SETGID, CAP_SETUID, CAP_NET_BIND_SERVICE, CAP_NET_ADMIN; see
        # linux/capability.h.
        kept = 1 << 5 | 1 << 6 | 1 << 7 | 1 << 10 | 1 << 12
        self.assertEqual(int(fields["CapEff"], 16), kept)
        self.assertEqual(int(fields["CapPrm"], 16), kept)


class AdministratorsTest(RouterCase):
    """The group `lumen`, in an /etc that only this router's lumend sees."""

    GROUP = 64900

    def setUp(self):
        folder = tempfile.mkdtemp(prefix="palinode-")
        self.addCleanup(shutil.rmtree, folder)
        etc = pathlib.Path(folder) / "etc"
        etc.mkdir()
        (etc / "group").write_text(f"root:x:0:\nlumen:x:{self.GROUP}:\n")
        self.PRIVATE = {"/etc": str(etc)}
        os.chmod(folder, 0o755)
        # Where other users can reach it.
        self.lumenctl = shutil.copy(PROGRAMS / "lumenctl", folder)
        super().setUp()

    def run_as(self, group, groups, *arguments):
        """lumenctl of an unknown user: exit status, output and errors."""
        done = subprocess.run([self.lumenctl, "--root", self.router.root, *arguments], user=NOBODY,
                              group=group, extra_groups=groups, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=30, check=False)
        return done.returncode, done.stdout, done.stderr

    # Promise [rights-admin]: Root and the members of the group `lumen`, by primary group or by any
    # other, may do everything.
    def test_members_of_the_group_do_everything(self):
        self.lan[0].open_port(8080, "TCP")
        for group, groups in ((self.GROUP, []), (NOBODY, [NOBODY, self.GROUP])):
            with self.subTest(group=group, groups=groups):
                for said, arguments in (
                        ("upnp ", ("service", "list")),
                        ("max-rules: 7\n", ("nat", "policy", "set", "max-rules=7")),
                        ("policy: reset to its file\n", ("nat", "policy", "reset")),
                        ("show-dummy-rule: off\n",
                         ("upnp", "settings", "set", "show-dummy-rule=off")),
                        ("undone: upnp config changed\n", ("undo",)),
                        ("eth7: used by the gateway as internal\n",
                         ("upnp", "interface", "add", "eth7", "--role", "internal")),
                        ("eth7: forgotten\n", ("interface", "forget", "eth7")),
                        ("8080/tcp ", ("nat", "list"))):
                    status, out, err = self.run_as(group, groups, *arguments)
                    self.assertEqual((status, err), (0, ""), arguments)
                    self.assertIn(said, out)
        self.assertEqual(self.run_as(self.GROUP, [], "nat", "close", "8080/tcp"),
                         (0, "8080/tcp: closed\n", ""))

    # Also proves [rights-others].
    def test_every_other_user_is_refused(self):
        # Neither root's group nor the number of a service's user is worth anything.
        for group, groups in ((NOBODY, []), (0, [0]), (SERVICE_USER, [SERVICE_USER])):
            with self.subTest(group=group, groups=groups):
                self.assertEqual(self.run_as(group, groups, "identity"),
                                 (1, "", "lumenctl: connection ended: lumend answers root and the "
                                         "group lumen only\n"))
        self.assertIn(f"of user {NOBODY}, which has no rights here", self.router.log())


if __name__ == "__main__":
    unittest.main()
