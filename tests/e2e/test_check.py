"""lumenctl upnp check: each thing that it finds is done to a router, and undone by what it says."""

import contextlib
import json
import os
import signal
import socket
import time
import unittest

from support.administrator import run_inside
from support.network import (BRIDGE_FILTER, LAN_ADDRESS, LAN_BRIDGE, SoapError, WAN_ADDRESS,
                             WAN_HOST, WAN_LINK, exchange_tcp)
from support.router import PROGRAMS, SERVICE_USER
from support.router_case import RouterCase

NOBODY = 65534
ALL_IS_WELL = "Nothing is wrong.\n"
DNAT = "-m conntrack --ctstate DNAT -j ACCEPT"

NOT_LISTENING = (
    f"The gateway does not listen at 2828/tcp on {LAN_BRIDGE}.",
    "Its hosts cannot reach the gateway, which tries to listen only when it starts there "
    "(journalctl -t palinode-igd shows why it failed).",
    f"lumenctl upnp interface set {LAN_BRIDGE} --enable")


def finding(what, why, remedy, number=1):
    return f"{number}. {what}\n   {why}\n   Fix it: {remedy}\n\n"


class CheckCase(RouterCase):
    def setUp(self):
        super().setUp()
        self.network.let_bridge_alone()
        self.ip = self.network.router.ip
        self.ip("route", "add", "default", "via", WAN_HOST)

    def check(self):
        """What the check prints; its exit status says whether that is a finding."""
        status, printed, said = run_inside(self.router, "upnp", "check")
        self.assertEqual(said, "")
        self.assertEqual(status, 0 if printed.startswith(ALL_IS_WELL) else 1, printed)
        return printed

    def assert_found(self, *words):
        """The check finds that and nothing else, as soon as the platform has heard of it."""
        expected = finding(*words)
        self.assertEqual(self.last_of_checks(expected), expected)

    def assert_well(self):
        self.assertEqual(self.last_of_checks(ALL_IS_WELL), ALL_IS_WELL)

    def last_of_checks(self, expected, limit=10.0):
        """Checks until `expected` is printed, or for some time; returns what was printed last."""
        end = time.monotonic() + limit
        while (printed := self.check()) != expected and time.monotonic() < end:
            time.sleep(0.05)
        return printed

    def run_inside(self, command):
        """Runs a command line in the router."""
        return self.network.router.run("sh", "-c", command)


class CheckTest(CheckCase):
    # Also proves [ctl-check].
    def test_nothing_is_wrong(self):
        self.assert_well()
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

    # The platform and the gateway.

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
        self.assert_well()

    def test_the_gateway_has_crashed(self):
        crashed = finding("The gateway has crashed; lumend starts it again in a while.",
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
        self.assert_well()

    def test_the_gateway_is_not_installed(self):
        self.router.stop()
        (self.router.root / "etc" / "services" / "upnp.ini").unlink()
        self.router.start()
        place = self.router.root / "etc" / "services" / "upnp.ini"
        self.assert_found(f"lumend knows no gateway: its service file {place} is missing.",
                          "No host finds a gateway, and no port can be opened.",
                          "where Palinode was built: cp build/etc/services/upnp.ini "
                          f"{place}, then start lumend again")

    def test_the_user_of_the_gateway_is_missing(self):
        place = self.router.root / "etc" / "services" / "upnp.ini"
        right = place.read_text()
        self.router.stop()
        # No machine that runs these tests has the gateway installed.
        place.write_text(right.replace(f"user = {SERVICE_USER}", "user = palinode"))
        self.router.start()
        self.assert_found("lumend knows no gateway: the user palinode, as whom it runs, is missing.",
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
        self.assert_well()

    # The policy.

    def assert_refused(self):
        with self.assertRaises(SoapError) as refused:
            self.lan[0].open_port(8080, "TCP")
        self.assertEqual(refused.exception.code, 501)

    def assert_remedied(self, command):
        self.router.lumenctl(*command.split()[1:])
        self.assert_well()
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].close_port(8080, "TCP")

    def test_the_policy_allows_no_port(self):
        for limit, usual in (("max-rules", 4096), ("max-rules-per-client", 1024)):
            with self.subTest(limit=limit):
                self.router.lumenctl("nat", "policy", "set", f"{limit}=0")
                self.assert_refused()
                remedy = f"lumenctl nat policy set {limit}={usual}"
                self.assert_found(f"The policy allows no open port: {limit} is 0.",
                                  "Every program that asks for a port is refused.", remedy)
                self.assert_remedied(remedy)

    def test_the_policy_excludes_the_lan(self):
        for clients in ("10.0.0.0/8,10.1.2.3", LAN_ADDRESS):
            with self.subTest(clients=clients):
                self.router.lumenctl("nat", "policy", "set", f"internal-clients={clients}")
                self.assert_refused()
                remedy = f"lumenctl nat policy set internal-clients={clients},192.168.88.0/24"
                self.assert_found(f"The policy allows no port to the hosts of {LAN_BRIDGE}: "
                                  f"internal-clients is {clients.replace(',', ', ')}.",
                                  "Every program there that asks for a port is refused.", remedy)
                self.assert_remedied(remedy)

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

    # Links and addresses.

    def test_an_interface_is_away(self):
        self.network.disconnect_wan()
        self.assert_found(
            "wan0, the external interface, is away: there is no link of that name.",
            "No port can be opened on it.",
            "see why it is not there, or give another one its role: lumenctl upnp setup")

    def test_an_interface_is_switched_off(self):
        self.ip("link", "set", LAN_BRIDGE, "down")
        remedy = "ip link set br-lan up"
        self.assert_found("br-lan, an internal interface, is switched off.",
                          "Its hosts find no gateway.", remedy)
        self.run_inside(remedy)
        self.assert_well()

    def test_an_interface_has_no_link(self):
        self.wan.namespace.ip("link", "set", "eth0", "down")
        self.assert_found("wan0, the external interface, has no link.",
                          "No port can be opened on it.",
                          "see whether its cable is plugged in at both ends")

    def test_a_bridge_has_no_link(self):
        for host in self.lan:
            host.namespace.ip("link", "set", "eth0", "down")
        self.assert_found("br-lan, an internal interface, has no link.",
                          "Its hosts find no gateway.",
                          "connect one of the bridge's ports: bridge link")

    def test_an_internal_interface_has_no_address(self):
        self.ip("address", "flush", "dev", LAN_BRIDGE)
        self.assert_found("br-lan, an internal interface, has no IPv4 address.",
                          "Its hosts find no gateway.", "ip address add ADDRESS/24 dev br-lan")

    def test_a_link_is_marked_as_one_without_multicast(self):
        self.ip("link", "set", LAN_BRIDGE, "multicast", "off")
        remedy = "ip link set br-lan multicast on"
        self.assert_found("br-lan, an internal interface, is marked as one without multicast.",
                          "Its hosts may not find the gateway, which they search by multicast.",
                          remedy)
        self.run_inside(remedy)
        self.assert_well()

    # Also proves [ctl-check-address].
    def test_there_is_no_external_address(self):
        self.ip("address", "flush", "dev", WAN_LINK)
        self.assert_found(
            "wan0, the external interface, has no IPv4 address.",
            "There is no address that ports can be opened on.",
            "see whether what gives it one is at work (a DHCP client, PPP): ip address show wan0")

    # Also proves [ctl-check-address].
    def test_hosts_on_the_internet_cannot_reach_the_external_address(self):
        nobody = "No host on the Internet reaches a port that is opened here"
        subject = "The external address {} of wan0"
        for address, what, why, remedy in (
                ("192.168.1.2", "is private: another router stands between this one and the "
                 "Internet.", f"{nobody}, and many programs do not even try to open one.",
                 "on that router, forward all ports to 192.168.1.2, or let it pass its public "
                 "address on (bridge mode)"),
                ("100.64.0.9", "belongs to the provider's own address translation.", f"{nobody}.",
                 "ask the provider for a public IPv4 address"),
                ("169.254.7.7", "is one that wan0 gave itself, since no DHCP server gave it one.",
                 f"{nobody}.", "see why no DHCP server answers on wan0")):
            with self.subTest(address=address):
                self.ip("address", "flush", "dev", WAN_LINK)
                self.ip("address", "add", f"{address}/24", "dev", WAN_LINK)
                self.ip("route", "add", "default", "dev", WAN_LINK)
                self.assert_found(f"{subject.format(address)} {what}", why, remedy)

    def test_ports_are_stale(self):
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].open_port(8081, "UDP")
        self.ip("address", "flush", "dev", WAN_LINK)
        self.ip("address", "add", "45.45.45.9/24", "dev", WAN_LINK)
        self.ip("route", "add", "default", "via", WAN_HOST)
        why = ("No host reaches them until the programs that opened them close and open them again, "
               "or the address is back.")
        what = "This router no longer has the address of some open ports (45.45.45.1): "
        remedy = ("restart these programs; for ports that stay, lumenctl upnp settings set "
                "enabled=off, then enabled=on, closes all")
        self.assert_found(f"{what}8080/tcp, 8081/udp.", why, remedy)
        self.lan[0].close_port(8080, "TCP")
        self.assert_found(f"{what}8081/udp.", why, remedy)
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.router.lumenctl("upnp", "settings", "set", "enabled=on")
        self.wait_until(lambda: self.router.gateway_pid() != 0, "the gateway is back")
        self.assert_well()

    # What the kernel does.

    def test_packets_are_not_forwarded(self):
        self.run_inside("echo 0 > /proc/sys/net/ipv4/ip_forward")
        remedy = "sysctl -w net.ipv4.ip_forward=1"
        self.assert_found("This router forwards no packets: net.ipv4.ip_forward is 0.",
                          "What arrives at an open port does not reach its host.",
                          f"{remedy} (a file in /etc/sysctl.d sets it at the next start)")
        self.run_inside(remedy)
        self.assert_well()

    def test_packets_of_one_interface_are_not_forwarded(self):
        for link, why in ((WAN_LINK, "What arrives there for an open port does not reach its "
                           "host."), (LAN_BRIDGE, "The answers of its hosts do not leave this "
                           "router.")):
            with self.subTest(link=link):
                variable = f"net/ipv4/conf/{link}/forwarding"
                self.run_inside(f"echo 0 > /proc/sys/{variable}")
                remedy = f"sysctl -w {variable}=1"
                self.assert_found(f"Packets that arrive on {link} are not forwarded: {variable} "
                                  "is 0.", why, remedy)
                self.run_inside(remedy)
                self.assert_well()

    def test_there_is_no_default_route(self):
        self.ip("route", "delete", "default")
        remedy = "ip route add default via GATEWAY dev wan0"
        self.assert_found("The main routing table has no default route.",
                          "Answers to the Internet may not leave this router.", remedy)
        self.run_inside(remedy.replace("GATEWAY", WAN_HOST))
        self.assert_well()

    def test_the_packet_filter_takes_bridged_packets_for_forwarded(self):
        if not os.path.exists(BRIDGE_FILTER):
            self.skipTest("br_netfilter is not loaded, and to load it would change this machine")
        self.run_inside(f"echo 1 > {BRIDGE_FILTER}")
        remedy = "sysctl -w net.bridge.bridge-nf-call-iptables=0"
        self.assert_found("The packet filter takes what only crosses the bridge br-lan for "
                          "forwarded: net.bridge.bridge-nf-call-iptables is 1.",
                          "A host there does not reach its own open port by the external address.",
                          remedy)
        self.run_inside(remedy)
        self.assert_well()

    # Other programs.

    def listen(self, kind, port):
        """A program of the router, this one, at that port, until the end of the test."""
        sock = self.network.router.socket(kind)
        self.addCleanup(sock.close)
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(("", port))
        if kind == socket.SOCK_STREAM:
            sock.listen()
        return sock

    # Also proves [ctl-check-ports].
    def test_another_program_uses_the_gateways_ports(self):
        with open("/proc/self/comm", encoding="utf-8") as comm:
            this = f"{comm.read().strip()} (process {os.getpid()})"
        for kind, port, why in (
                (socket.SOCK_DGRAM, "1900/udp",
                 "The gateway may not hear the programs that search for it."),
                (socket.SOCK_STREAM, "2828/tcp",
                 "The gateway may not be able to serve the description that programs read "
                 "first.")):
            with self.subTest(port=port):
                self.router.lumenctl("upnp", "settings", "set", "enabled=off")
                self.wait_until(lambda: self.router.gateway_pid() == 0, "the gateway has ended")
                sock = self.listen(kind, int(port.split("/")[0]))
                self.router.lumenctl("upnp", "settings", "set", "enabled=on")
                expected = finding(f"{this} uses port {port}, which the gateway needs.", why,
                                   f"stop it: systemctl status {os.getpid()} shows what started "
                                   "it")
                if kind == socket.SOCK_STREAM:
                    expected += finding(*NOT_LISTENING, number=2)
                self.assertEqual(self.last_of_checks(expected), expected)
                sock.close()
                if kind == socket.SOCK_STREAM:
                    self.assert_found(*NOT_LISTENING)
                    self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
                self.assert_well()

    # Also proves [ctl-check-listens].
    def test_a_gateway_that_found_its_port_taken_listens_again_by_the_command_that_is_named(self):
        self.lan[0].open_port(8080, "TCP")
        self.router.stop()
        sock = self.listen(socket.SOCK_STREAM, 2828)
        self.router.start()
        self.wait_until(lambda: "tcp bind: Address already in use" in self.router.log(),
                        "the gateway misses its port")
        sock.close()
        self.assert_found(*NOT_LISTENING)
        for where in ("outside", "inside"):
            printed = (self.router.lumenctl("status") if where == "outside" else
                       run_inside(self.router, "status")[1])
            self.assertRegex(printed, r"\AGateway: not reachable \(process \d+; lumenctl upnp check "
                             r"shows why\)\n")
        self.assertEqual(self.router.status()["gateway"], "not reachable")
        with self.assertRaises(ConnectionRefusedError):
            self.lan[0].connect(LAN_ADDRESS, 2828)
        self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
        self.assert_well()
        self.assertEqual(self.router.status()["gateway"], "on")
        self.lan[0].open_port(8081, "TCP")

    # Also proves [ctl-check-listens].
    def test_the_command_that_makes_the_gateway_listen_leaves_ports_open(self):
        self.lan[0].open_port(8080, "TCP")
        self.router.lumenctl(*NOT_LISTENING[2].split()[1:])
        self.assertEqual(list(self.router.ports()), ["8080/tcp"])
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[0], 8080)

    # Also proves [ctl-check-listens].
    def test_a_gateway_that_listens_on_one_of_two_networks(self):
        self.ip("link", "add", "br-guest", "type", "bridge")
        self.ip("link", "add", "guest0", "type", "veth", "peer", "name", "guest1")
        self.ip("link", "set", "guest0", "master", "br-guest", "up")
        self.ip("link", "set", "guest1", "up")
        self.ip("link", "set", "br-guest", "up")
        self.ip("address", "add", "192.168.99.1/24", "dev", "br-guest")
        taken = self.network.router.socket(socket.SOCK_STREAM)
        self.addCleanup(taken.close)
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"br-guest\0")
        taken.bind(("", 2828))
        taken.listen()
        self.router.lumenctl("upnp", "interface", "add", "br-guest", "--role", "internal")
        self.wait_until(lambda: "tcp bind: Address already in use" in self.router.log(),
                        "the gateway misses its port")
        taken.close()
        remedy = "lumenctl upnp interface set br-guest --enable"
        self.assert_found(NOT_LISTENING[0].replace(LAN_BRIDGE, "br-guest"), NOT_LISTENING[1], remedy)
        self.assertRegex(run_inside(self.router, "status")[1],
                         r"\AGateway: on \(process \d+; not reachable on br-guest, lumenctl upnp "
                         r"check shows why\)\n")
        self.router.lumenctl(*remedy.split()[1:])
        self.assert_well()

    def test_somebody_without_rights_is_told_so(self):
        # Opened before the rights are gone: the program may lie where nobody else may look.
        printed = self.run_inside(
            f"exec 3< {PROGRAMS / 'lumenctl'}; setpriv --reuid={NOBODY} --regid={NOBODY} "
            f"--clear-groups /proc/self/fd/3 --root {self.router.root} upnp check; true")
        self.assertEqual(printed, finding(
            "lumend does not answer: connection ended: lumend answers root and the group lumen only.",
            "What depends on it was not checked.",
            "sudo lumenctl upnp check") + "Not checked: the firewall, which takes root to read.\n")


class FirewallTest(CheckCase):
    """Routers whose firewall drops what nobody asked for."""

    def setUp(self):
        super().setUp()
        self.server = self.lan[0]
        self.server.open_port(8080, "TCP", internal_port=80)

    def assert_stopped(self, chain, remedy):
        """The check finds that the chain stops open ports, it does, and `remedy` fixes it."""
        self.assert_found("The firewall drops forwarded packets, and does not let those of open "
                          f"ports pass (chain {chain}).",
                          "What arrives at an open port may not reach its host.", remedy)
        self.wan.namespace.run("sh", "-c", "echo 1 > /proc/sys/net/ipv4/tcp_syn_retries")
        with self.assertRaises(TimeoutError):
            self.reach()
        self.run_inside(remedy)
        self.assert_well()
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
                                    f"nft insert rule {family} guard routed ct status dnat accept")
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
                          "nft insert rule inet guard routed ct status dnat accept")

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
        self.assert_well()
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
        self.assert_well()

    # Also proves [ctl-check-firewall].
    def test_the_chain_of_iptables(self):
        self.guard_with("iptables")
        self.assert_stopped("FORWARD of iptables", f"iptables -I FORWARD {DNAT}")

    # Also proves [ctl-check-firewall].
    def test_the_chain_of_legacy_iptables(self):
        self.guard_with("iptables-legacy")
        self.assert_stopped("FORWARD of iptables-legacy", f"iptables-legacy -I FORWARD {DNAT}")

    def test_a_rule_of_iptables_in_a_chain_that_is_jumped_to(self):
        for command in ("iptables", "iptables-legacy"):
            with self.subTest(command=command):
                self.guard_with(command)
                self.run_inside(f"{command} -N outside; {command} -A outside {DNAT}; "
                                f"{command} -A FORWARD -i {WAN_LINK} -j outside")
                self.assert_well()
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
                edit = ("sed -i -e '/^[*]filter/,/^COMMIT/{/^COMMIT/i -A ufw-before-forward -m "
                        "conntrack --ctstate DNAT -j ACCEPT' -e '}' /etc/ufw/before.rules")
                self.assert_found("The firewall drops forwarded packets, and does not let those of "
                                  f"open ports pass (chain FORWARD of {command}).",
                                  "What arrives at an open port may not reach its host.",
                                  f"{edit} && ufw reload")
                self.run_inside(edit.replace("/etc/ufw/before.rules", str(rules)))
                for _ in range(2):
                    self.run_inside(reload)
                    self.assert_well()
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

    def guard_with(self, command):
        self.run_inside(f"{command} -P FORWARD DROP; "
                        f"{command} -A FORWARD -m conntrack --ctstate ESTABLISHED -j ACCEPT; "
                        f"{command} -A FORWARD -i {LAN_BRIDGE} -o {WAN_LINK} -j ACCEPT")


class FreshRouterTest(CheckCase):
    SET_UP = False

    def test_the_gateway_is_not_set_up(self):
        self.assert_found("The gateway is not set up: it uses no interface.",
                          "No host finds a gateway, and no port can be opened.",
                          "lumenctl upnp setup")


if __name__ == "__main__":
    unittest.main()
