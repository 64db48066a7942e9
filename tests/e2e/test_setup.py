"""lumenctl upnp setup without the roles of the interfaces."""

import unittest

from support.administrator import run_at_terminal, run_inside
from support.network import LAN_ADDRESS, WAN_HOST, WAN_LINK, SoapError
from support.router_case import RouterCase

PROPOSAL = f"""As this router's routes and addresses look:

INTERFACE  ROLE      WHY
br-lan     internal  bridge, private network ({LAN_ADDRESS})
wan0       external  default route

"""
QUESTION = "Set the gateway up like that? [y/N] "
DONE = """allow-disable-external: off; no program on the LAN can take wan0 down (--allow-disconnect permits it)
br-lan: kept as internal
wan0: kept as external
br-lan: used by the gateway as internal
wan0: used by the gateway as external
gateway: switched on
The gateway is set up. See it work: lumenctl status
"""


class SetupTest(RouterCase):
    SET_UP = False

    def setUp(self):
        super().setUp()
        self.network.router.ip("route", "add", "default", "via", WAN_HOST)

    def at_terminal(self, answer, *arguments):
        return run_at_terminal(self.router, "upnp", "setup", *arguments, question=QUESTION,
                               answer=answer)

    def assert_not_set_up(self):
        self.assertEqual(self.router.status()["interfaces"], [])

    # Also proves [ctl-ask].
    def test_the_user_of_a_terminal_agrees(self):
        # The other answers, which take what is proposed, are typed ahead.
        self.assertEqual(self.at_terminal("y\n\n\n"),
                         (0, f"{PROPOSAL}{QUESTION}y\n\n\n{DONE}Let programs that ask by NAT-PMP or "
                             "PCP open ports, too? [Y/n] NAT-PMP and PCP: switched on\n"
                             "Show a status page to browsers at home? "
                             "[Y/n] status page: http://192.168.88.1/\n"))
        self.router.wait_until_controllable()
        self.lan[0].open_port(8080, "TCP")

    # Also proves [ctl-ask].
    def test_the_user_of_a_terminal_does_not_agree(self):
        for answer in ("n\n", "\n"):
            with self.subTest(answer=answer):
                self.assertEqual(
                    self.at_terminal(answer),
                    (1, f"{PROPOSAL}{QUESTION}{answer}lumenctl: nothing was changed\n"))
        self.assert_not_set_up()

    # Also proves [ctl-ask].
    def test_the_input_ends_at_the_question(self):
        self.assertEqual(self.at_terminal("\x04"),
                         (1, f"{PROPOSAL}{QUESTION}\nlumenctl: nothing was changed\n"))
        self.assert_not_set_up()

    # Also proves [ctl-yes].
    def test_it_asks_nothing_without_a_terminal(self):
        line = (f"lumenctl --root {self.router.root} upnp setup --internal br-lan --external wan0")
        self.assertEqual(
            run_inside(self.router, "upnp", "setup"),
            (1, "", "lumenctl: roles are missing, and without a terminal there is no way to ask. "
                    f"The proposal: {line}\n"))
        self.assert_not_set_up()
        self.assertEqual(run_inside(self.router, *line.split()[3:]), (0, DONE, ""))

    # Also proves [ctl-yes].
    def test_it_asks_nothing_when_the_command_says_yes(self):
        self.assertEqual(run_inside(self.router, "upnp", "setup", "--yes"),
                         (0, PROPOSAL + DONE, ""))

    # Promise: On a new gateway no LAN host can take the external interface down, until the
    # administrator allows it.
    # Also proves [ctl-disconnect].
    def test_no_host_disconnects_a_new_gateway(self):
        run_inside(self.router, "upnp", "setup", "--yes")
        self.router.wait_until_controllable()
        for action in ("ForceTermination", "RequestConnection"):
            with self.subTest(action=action), self.assertRaises(SoapError) as refused:
                self.lan[0].invoke(action)
            self.assertEqual(refused.exception.code, 501)
        self.assertEqual(self.router.interface(WAN_LINK)["state"], "running")
        self.router.set_up("--allow-disconnect")
        self.lan[0].invoke("ForceTermination")
        self.wait_until(lambda: self.router.interface(WAN_LINK)["state"] == "down",
                        "the link is down")

    # Also proves [ctl-disconnect].
    def test_a_gateway_that_is_set_up_already_keeps_what_it_allows(self):
        for setting in ("on", "off"):
            with self.subTest(setting=setting):
                self.router.set_up()
                self.router.lumenctl("upnp", "settings", "set",
                                     f"allow-disable-external={setting}")
                self.router.set_up()
                self.assertEqual(self.router.ask("upnp", "settings")["allow-disable-external"],
                                 setting == "on")

    def test_it_proposes_what_the_command_does_not_name(self):
        status, shown = self.at_terminal("y\nn\nn\n", "--internal", "lan0")
        self.assertEqual(status, 0)
        self.assertFalse(self.router.ask("pcp", "status")["enabled"])
        self.assertFalse(self.router.ask("web", "status")["enabled"])
        self.assertIn("lan0       internal  as given\n"
                      "wan0       external  default route\n", shown)

    # Also proves [ctl-nothing-proposed].
    def test_it_says_why_it_proposes_nothing(self):
        self.network.router.ip("route", "delete", "default")
        self.assertEqual(
            run_inside(self.router, "upnp", "setup", "--yes"),
            (1, "", "lumenctl: no interface looks like the external one: there is no default "
                    "route. Say which one it is: --external IF\n"))


if __name__ == "__main__":
    unittest.main()
