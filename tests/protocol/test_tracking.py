"""What the platform notifies about its interfaces and addresses."""

from gateway_case import (GATEWAY, LAN, LAN_ADDRESS_ID, WAN, WAN_ADDRESS_ID, GatewayCase,
                          all_targets, root_targets)
from scripted_platform import INTERFACES, NAT_RULES, address, error, interface
from support import lm
from test_control import CONTROL, IP_CONNECTION, mapping


class TrackingCase(GatewayCase):
    def invoke(self, action, arguments=()):
        return self.lan.invoke(CONTROL, IP_CONNECTION, action, arguments)

    def assert_status(self, status):
        self.assertIn(f"<NewConnectionStatus>{status}</".encode(),
                      self.invoke("GetStatusInfo").body)

    def assert_external(self, text):
        self.assertIn(f"<NewExternalIPAddress>{text}</".encode(),
                      self.invoke("GetExternalIPAddress").body)


class Interfaces(TrackingCase):
    # Also proves [ip-status].
    def test_the_state_of_the_wan_is_followed(self):
        self.serve()
        for disabled, running, status in ((True, False, "Disconnected"),
                                          (False, False, "Connecting"),
                                          (False, True, "Connected")):
            since = self.log_mark()
            self.notify_states(interface(WAN, "wan0", disabled=disabled, running=running))
            self.daemon.wait_for_line(
                f"dev: 3 disabled: {int(disabled)} running: {int(running)}", since)
            self.assert_status(status)

    # Also proves [interface-early].
    def test_an_interface_that_appears_is_started(self):
        del self.platform.interfaces[WAN]
        self.serve()
        self.assertEqual(len(self.lan.search("ssdp:all")), len(root_targets()))
        self.notify_interface(interface(WAN, "wan0", display="WAN"))
        self.notify_states(interface(WAN, "wan0"))
        self.daemon.wait_for_line("dev: 3 disabled: 0 running: 1")
        self.assertEqual(len(self.lan.search("ssdp:all")), len(all_targets()))
        self.assert_external("45.45.45.2")
        self.assert_status("Connected")

    # Also proves [external-gone].
    def test_a_wan_that_is_gone_for_a_while_keeps_its_ports_until_it_is_back(self):
        self.serve()
        self.invoke("AddPortMapping", mapping())
        self.notify_addresses({**address(WAN_ADDRESS_ID, WAN, "45.45.45.2"), lm.REMOVED: 1})
        self.notify_interface(interface(WAN, "wan0", display="WAN", flags=0x80))
        self.daemon.wait_for_line("rem dev: WAN")
        self.assert_external("0.0.0.0")
        self.assertEqual(len(self.platform.requests(NAT_RULES)), 1)
        # Back under another index and with another address.
        self.notify_interface(interface(WAN, "wan0", index=77, display="WAN"))
        self.notify_addresses(address(99, WAN, "45.45.45.9"))
        self.daemon.wait_for_line("set external ip 45.45.45.9")
        self.assert_external("45.45.45.9")
        self.assertEqual([r.fields for r in self.platform.requests(NAT_RULES, lm.CMD_REMOVE)],
                         [[(0x08FE0001, 101)]])
        self.assertEqual(len(self.lan.search("ssdp:all")), len(all_targets()))
        self.assertEqual(self.lan.get("/gateway.xml").body.count(b"WANDevice:1"), 1)

    def test_a_lan_that_is_deleted_and_created_again_is_served_again(self):
        self.serve()
        self.router.ip("link", "del", "lan0")
        self.notify_interface(interface(LAN, "lan0", display="LAN", flags=0x80))
        self.daemon.wait_for_line("rem dev: LAN")
        self.lan = self.join_lan("lan0", GATEWAY, "192.168.88.10")
        self.notify_interface(interface(LAN, "lan0", self.index("lan0"), display="LAN"))
        self.notify_states(interface(LAN, "lan0"))
        self.assert_serves()

    # Also proves [page-field].
    def test_the_list_may_come_in_pages(self):
        pages = {None: ({LAN: interface(LAN, "lan0", self.index("lan0"), display="LAN")}, LAN),
                 LAN: ({WAN: interface(WAN, "wan0", display="WAN")}, lm.NONE)}

        def page(request):
            records, cursor = pages[request.get(lm.CURSOR)]
            return {lm.RECORDS: list(records.values()), lm.CURSOR: cursor}

        self.platform.answer(INTERFACES, lm.CMD_LIST, page)
        self.serve()
        self.assertEqual(len(self.lan.search("ssdp:all")), len(all_targets()))

    def test_a_list_that_fails_is_logged(self):
        self.platform.answer(INTERFACES, lm.CMD_LIST, lambda _: error("not now"))
        self.serve()
        self.daemon.wait_for_line("device::CMD_GETDEVS failed: not now")
        self.notify_interface(self.platform.interfaces[LAN])
        self.notify_states(self.platform.interfaces[LAN])
        self.daemon.wait_for_line("dev: 2 disabled: 0 running: 1")
        self.assert_serves()

    def test_a_cursor_that_does_not_rise_ends_the_list(self):
        self.platform.answer(INTERFACES, lm.CMD_LIST,
                             lambda _: {lm.RECORDS: [self.platform.interfaces[LAN]],
                                        lm.CURSOR: LAN})
        self.serve()
        self.daemon.wait_for_line("enable")
        self.assert_serves()


class Addresses(TrackingCase):
    def test_a_new_external_address_is_reported(self):
        self.serve()
        self.invoke("AddPortMapping", mapping())
        self.notify_addresses(address(WAN_ADDRESS_ID, WAN, "45.45.45.7"))
        self.daemon.wait_for_line("set external ip 45.45.45.7")
        self.assert_external("45.45.45.7")
        # The rule of the open port is left alone, a new one has the new address.
        self.assertEqual(len(self.platform.requests(NAT_RULES)), 1)
        self.invoke("AddPortMapping", mapping(port="8081"))
        self.assertEqual(dict(self.platform.requests(NAT_RULES)[1].fields)[0x08000034],
                         lm.address("45.45.45.7"))

    # Also proves [address-smallest].
    def test_the_smaller_of_two_addresses_serves(self):
        self.platform.addresses[10] = address(10, LAN, "192.168.88.200")
        self.platform.addresses[13] = address(13, LAN, "9.255.255.255")
        self.serve()
        self.log_mark()
        self.assertEqual([line for line in self.daemon.log() if line.startswith("start int")],
                         ["start int: LAN 192.168.88.200"])
        # The current one stays as long as it is there, then the smallest takes over.
        self.notify_addresses({**address(10, LAN, "192.168.88.200"), lm.REMOVED: 1})
        self.daemon.wait_for_line("start int: LAN 9.255.255.255")

    def test_a_removal_that_says_disabled_is_ignored(self):
        self.serve()
        since = self.log_mark()
        self.notify_addresses({**address(LAN_ADDRESS_ID, LAN, GATEWAY, disabled=True),
                               lm.REMOVED: 1})
        self.assert_serves()
        self.assert_logged(since)

    def test_records_of_unknown_objects_are_ignored(self):
        self.serve()
        self.notify_addresses(address(50, 4711, "10.9.9.9"))
        self.notify_addresses({lm.REMOVED: 1, lm.OBJECT_ID: 51})
        self.notify_states(interface(4711, "x"))
        self.notify_interface({lm.OBJECT_ID: 4712, 0x08010003: 0x80})
        self.notify_addresses({})
        self.notify_states({})
        self.assert_serves()
