"""lumenctl upnp check of the policy for open ports."""

import unittest

from support.check_case import CheckCase
from support.network import LAN_ADDRESS, LAN_BRIDGE, SoapError


class CheckPolicyTest(CheckCase):
    def assert_refused(self):
        with self.assertRaises(SoapError) as refused:
            self.lan[0].open_port(8080, "TCP")
        self.assertEqual(refused.exception.code, 501)

    def assert_remedied(self, command):
        self.router.lumenctl(*command.split()[1:])
        self.assert_nothing_wrong()
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].close_port(8080, "TCP")

    def test_the_policy_allows_no_port(self):
        for limit, usual in (("max-rules", 4096), ("max-rules-per-client", 128)):
            with self.subTest(limit=limit):
                self.router.lumenctl("nat", "policy", "set", f"{limit}=0")
                self.assert_refused()
                remedy = f"lumenctl nat policy set {limit}={usual}"
                self.assert_found(f"The policy allows no open port: {limit} is 0.",
                                  "Every program that asks for a port is refused.", remedy)
                self.assert_remedied(remedy)

    def test_the_policy_reaches_every_network(self):
        self.router.lumenctl("nat", "policy", "set", "internal-clients=connected")
        remedy = "lumenctl nat policy set internal-clients=internal"
        self.assert_found("The policy lets ports lead into every network of this router: "
                          "internal-clients is connected.",
                          "A host can open a port into a network that the firewall keeps it out "
                          "of.", remedy)
        self.assert_remedied(remedy)

    def test_the_policy_excludes_the_lan(self):
        for clients in ("10.0.0.0/8,10.1.2.3", LAN_ADDRESS):
            with self.subTest(clients=clients):
                self.router.lumenctl("nat", "policy", "set", f"internal-clients={clients}")
                self.assert_refused()
                remedy = f"lumenctl nat policy set internal-clients={clients},{LAN_BRIDGE}"
                self.assert_found(f"The policy allows no port to the hosts of {LAN_BRIDGE}: "
                                  f"internal-clients is {clients.replace(',', ', ')}.",
                                  "Every program there that asks for a port is refused.", remedy)
                self.assert_remedied(remedy)


if __name__ == "__main__":
    unittest.main()
