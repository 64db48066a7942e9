"""lumenctl upnp check of other programs' firewalls."""

import unittest

from support.check_case import CheckCase
from support.network import LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, exchange_tcp

DNAT = "-m conntrack --ctstate DNAT -j ACCEPT"
SECOND_WAN = "wan1"


class CheckFirewallTest(CheckCase):
    """Routers whose firewall drops forwarded packets."""

    def setUp(self):
        super().setUp()
        self.server = self.lan[0]
        self.server.open_port(8080, "TCP", internal_port=80)

    def assert_finds_firewall(self, chain, remedy):
        self.assert_found("The firewall drops forwarded packets, and does not let those of open "
                          f"ports pass (chain {chain}).",
                          "What arrives at an open port may not reach its host.", remedy)

    def assert_stopped(self, chain, remedy):
        """The check finds that the chain stops open ports, it does, and `remedy` fixes it."""
        self.assert_finds_firewall(chain, remedy)
        self.wan.namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries")
        with self.assertRaises(TimeoutError):
            self.reach()
        self.run_inside(remedy)
        self.assert_nothing_wrong()
        self.reach()

    def reach(self):
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.server, 80)

    # Also proves [ctl-check-firewall].
    def test_a_chain_of_nftables(self):
        for family in ("inet", "ip"):
            with self.subTest(family=family):
                self.run_inside(f"""nft '
                    table {family} guard {{
                      chain routed {{
                        type filter hook forward priority filter; policy drop;
                        ct state established,related accept
                        iifname {LAN_BRIDGE} oifname {WAN_LINK} accept
                      }}
                    }}'""")
                self.assert_stopped(f"routed of the nftables table {family} guard",
                                    f"nft insert rule {family} guard routed iifname {WAN_LINK} "
                                    "ct status dnat accept")
                self.run_inside(f"nft delete table {family} guard")

    # Also proves [ctl-check-firewall].
    def test_a_rule_that_drops_all(self):
        self.run_inside("""nft '
            table inet guard {
              chain routed {
                type filter hook forward priority filter; policy accept;
                ct state established,related accept
                counter reject with icmpx admin-prohibited
              }
            }'""")
        self.assert_found("The firewall drops forwarded packets, and does not let those of open "
                          "ports pass (chain routed of the nftables table inet guard).",
                          "What arrives at an open port may not reach its host.",
                          f"nft insert rule inet guard routed iifname {WAN_LINK} "
                          "ct status dnat accept")

    def test_a_rule_for_open_ports_in_a_chain_that_is_jumped_to(self):
        self.run_inside(f"""nft '
            table inet guard {{
              chain from_outside {{
                ct status dnat accept comment "open ports"
              }}
              chain routed {{
                type filter hook forward priority filter; policy drop;
                ct state vmap {{ established : accept, related : accept }}
                iifname vmap {{ "{WAN_LINK}" : jump from_outside, "{LAN_BRIDGE}" : accept }}
              }}
            }}'""")
        self.assert_nothing_wrong()
        self.reach()

    def test_a_chain_that_only_drops_what_it_names(self):
        self.run_inside("""nft '
            table inet guard {
              chain routed {
                type filter hook forward priority filter; policy accept;
                ct state invalid drop
                ip saddr 203.0.113.0/24 drop
              }
              chain input {
                type filter hook input priority filter; policy accept;
              }
            }'""")
        self.assert_nothing_wrong()

    # Also proves [ctl-check-firewall].
    def test_the_chain_of_iptables(self):
        self.guard_with("iptables")
        self.assert_stopped("FORWARD of iptables", f"iptables -I FORWARD -i {WAN_LINK} {DNAT}")

    # Also proves [ctl-check-firewall].
    def test_the_chain_of_legacy_iptables(self):
        self.guard_with("iptables-legacy")
        self.assert_stopped("FORWARD of iptables-legacy",
                            f"iptables-legacy -I FORWARD -i {WAN_LINK} {DNAT}")

    def test_a_rule_of_iptables_in_a_chain_that_is_jumped_to(self):
        for command in ("iptables", "iptables-legacy"):
            with self.subTest(command=command):
                self.guard_with(command)
                self.run_inside(f"{command} -N outside; {command} -A outside {DNAT}; "
                                f"{command} -A FORWARD -i {WAN_LINK} -j outside")
                self.assert_nothing_wrong()
                self.reach()

    def test_the_chains_of_ufw(self):
        """ufw keeps its rules in files, which it gives to iptables-restore: what is inserted into a
        chain by hand is gone after a restart."""
        for command in ("iptables", "iptables-legacy"):
            with self.subTest(command=command):
                rules = self.router.root / "before.rules"
                rules.write_text("*nat\n:POSTROUTING ACCEPT [0:0]\nCOMMIT\n"
                                 "*filter\n:ufw-before-forward - [0:0]\n"
                                 "-A ufw-before-forward -m conntrack --ctstate "
                                 "RELATED,ESTABLISHED -j ACCEPT\n"
                                 "# don't delete the 'COMMIT' line\nCOMMIT\n")
                reload = f"{command}-restore -n < {rules}"
                self.run_inside(f"{command} -P FORWARD DROP; {command} -N ufw-before-forward; "
                                f"{command} -A FORWARD -j ufw-before-forward; {reload}")
                edit = ("sed -i -e '/^[*]filter/,/^COMMIT/{/^COMMIT/i -A ufw-before-forward "
                        f"-i {WAN_LINK} {DNAT}' -e '}}' /etc/ufw/before.rules")
                self.assert_found("The firewall drops forwarded packets, and does not let those of "
                                  f"open ports pass (chain FORWARD of {command}).",
                                  "What arrives at an open port may not reach its host.",
                                  f"{edit} && ufw reload")
                self.run_inside(edit.replace("/etc/ufw/before.rules", str(rules)))
                for _ in range(2):
                    self.run_inside(reload)
                    self.assert_nothing_wrong()
                    self.reach()
                self.run_inside(f"{command} -P FORWARD ACCEPT; {command} -F FORWARD; "
                                f"{command} -F ufw-before-forward; "
                                f"{command} -X ufw-before-forward")

    def test_firewalld_that_is_strict(self):
        self.run_inside("""nft '
            table inet firewalld {
              chain filter_FORWARD {
                type filter hook forward priority filter + 10; policy accept;
                ct state { established, related } accept
                iifname "lo" accept
                reject with icmpx admin-prohibited
              }
            }'""")
        self.assert_found("The firewall drops forwarded packets, and does not let those of open "
                          "ports pass (chain filter_FORWARD of the nftables table inet firewalld).",
                          "What arrives at an open port may not reach its host.",
                          "set StrictForwardPorts=no in /etc/firewalld/firewalld.conf, then "
                          "firewall-cmd --reload")

    # Promise: `upnp check` takes a rule for open ports that names no interface for sufficient.
    def test_a_rule_that_names_no_interface(self):
        for command in ("iptables", "iptables-legacy"):
            self.guard_with(command)
            self.run_inside(f"{command} -I FORWARD {DNAT}")
        self.guard_with_nft("ct status dnat accept")
        self.assert_nothing_wrong()
        self.reach()

    # Promise: `upnp check` finds that the rule for open ports names another interface than the
    # external one.
    def test_a_rule_that_names_another_interface(self):
        for rule in ("iifname ppp0 ct status dnat accept",
                     "iifname { ppp0, ppp1 } ct status dnat accept",
                     f"iifname {LAN_BRIDGE} oifname {LAN_BRIDGE} ct status dnat accept"):
            with self.subTest(rule=rule):
                self.guard_with_nft(rule)
                self.assert_stopped("routed of the nftables table inet guard",
                                    f"nft insert rule inet guard routed iifname {WAN_LINK} "
                                    "ct status dnat accept")
                self.run_inside("nft delete table inet guard")
        for command in ("iptables", "iptables-legacy"):
            with self.subTest(command=command):
                self.guard_with(command)
                self.run_inside(f"{command} -I FORWARD -i ppp+ {DNAT}")
                self.assert_stopped(f"FORWARD of {command}",
                                    f"{command} -I FORWARD -i {WAN_LINK} {DNAT}")
                self.run_inside(f"{command} -P FORWARD ACCEPT; {command} -F FORWARD")

    def test_two_external_interfaces(self):
        self.network.router.link(SECOND_WAN, self.wan.namespace, "eth1")
        self.ip("address", "add", "46.46.46.1/24", "dev", SECOND_WAN)
        self.router.lumenctl("upnp", "interface", "add", SECOND_WAN, "--role", "external")
        both = f"{{ {WAN_LINK}, {SECOND_WAN} }}"
        stopped = ["routed of the nftables table inet guard",
                   "nft insert rule inet guard routed iifname {} ct status dnat accept"]
        self.guard_with_nft()
        self.assert_stopped(stopped[0], stopped[1].format(both))
        self.run_inside("nft delete table inet guard")
        self.guard_with_nft(f"iifname {WAN_LINK} ct status dnat accept")
        self.assert_finds_firewall(stopped[0], stopped[1].format(SECOND_WAN))
        self.run_inside(stopped[1].format(SECOND_WAN))
        self.assert_nothing_wrong()
        for command in ("iptables", "iptables-legacy"):
            self.guard_with(command)
            remedy = " && ".join(f"{command} -I FORWARD -i {link} {DNAT}"
                                 for link in (WAN_LINK, SECOND_WAN))
            self.assert_stopped(f"FORWARD of {command}", remedy)

    def guard_with_nft(self, *rules):
        self.run_inside(f"""nft '
            table inet guard {{
              chain routed {{
                type filter hook forward priority filter; policy drop;
                ct state established,related accept
                iifname {LAN_BRIDGE} oifname {WAN_LINK} accept
                {"; ".join(rules)}
              }}
            }}'""")

    def guard_with(self, command):
        self.run_inside(f"{command} -P FORWARD DROP; "
                        f"{command} -A FORWARD -m conntrack --ctstate ESTABLISHED -j ACCEPT; "
                        f"{command} -A FORWARD -i {LAN_BRIDGE} -o {WAN_LINK} -j ACCEPT")


if __name__ == "__main__":
    unittest.main()
