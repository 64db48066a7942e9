"""SOAP: replies and faults byte for byte, and what a port mapping asks of the platform."""

from gateway_case import EXTERNAL, HOST, SERVER, WAN, GatewayCase, undated
from scripted_platform import INTERFACES, NAT_RULES, error, interface
from support import lm
from support.lan import soap_envelope

IP_CONNECTION = "urn:schemas-upnp-org:service:WANIPConnection:1"
LINK = "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1"
OS_INFO = "urn:schemas-microsoft-com:service:OSInfo:1"
CONTROL = f"/upnp/control/wanipconn-{WAN}"
LINK_CONTROL = f"/upnp/control/wancommonifc-{WAN}"

BAD_REQUEST = b"HTTP/1.1 400 Bad Request\r\n\r\n"


def envelope(inner):
    return ('<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/">\r\n'
            f"  <s:Body>\r\n{inner}  </s:Body>\r\n</s:Envelope>\r\n")


def reply(status, inner):
    body = envelope(inner)
    return (f"HTTP/1.1 {status}\r\nCONTENT-LENGTH: {len(body)}\r\n"
            f'CONTENT-TYPE: text/xml; charset="utf-8"\r\nDATE: -\r\nEXT: \r\n'
            f"SERVER: {SERVER}\r\n\r\n{body}").encode()


def result(action, *values, service=IP_CONNECTION):
    name = f"u:{action}Response"
    if not values:
        return reply("200 OK", f'    <{name} xmlns:u="{service}"></{name}>\r\n')
    lines = "".join(f"      <{out}>{value}</{out}>\r\n" for out, value in values)
    return reply("200 OK", f'    <{name} xmlns:u="{service}">\r\n{lines}    </{name}>\r\n')


def fault(code, text):
    return reply("500 Internal Server Error", f"""\
    <s:Fault>\r
      <faultCode>s:Client</faultCode>\r
      <faultString>UPnPError</faultString>\r
      <detail>\r
        <UPnPError xmlns="urn:schemas-upnp-org:control-1-0">\r
          <errorCode>{code}</errorCode>\r
          <errorDescription>{text}</errorDescription>\r
        </UPnPError>\r
      </detail>\r
    </s:Fault>\r
""")


def mapping(port="8080", protocol="TCP", client=HOST, internal="80", enabled="1", remote="",
            description="a game", lease="0"):
    return [("NewRemoteHost", remote), ("NewExternalPort", port), ("NewProtocol", protocol),
            ("NewInternalPort", internal), ("NewInternalClient", client), ("NewEnabled", enabled),
            ("NewPortMappingDescription", description), ("NewLeaseDuration", lease)]


def add_rule(port, protocol, client, internal, external="45.45.45.2", disabled=False):
    """The add request's fields, in their order on the wire."""
    outside, inside = lm.address(external), lm.address(client)
    return [(0x00FE0007, True), (0x00FE000A, disabled), (0x20000027, "dstnat"), (0x000001A3, True),
            (0x08000034, outside), (0x08000035, outside), (0x00000196, True), (0x08000009, port),
            (0x0800000A, port), (0x00000194, True), (0x0800000B, protocol), (0x08000028, 22),
            (0x000003EE, True), (0x080003E8, inside), (0x080003E9, inside), (0x000003EF, True),
            (0x080003EA, internal), (0x080003EB, internal)]


class ControlCase(GatewayCase):
    def setUp(self):
        super().setUp()
        self.serve()

    def invoke(self, action, arguments=(), url=CONTROL, service=IP_CONNECTION):
        return undated(self.lan.invoke(url, service, action, arguments).raw)

    def open_port(self, **changes):
        self.assertEqual(self.invoke("AddPortMapping", mapping(**changes)),
                         result("AddPortMapping"))

    def entry(self, index):
        return self.invoke("GetGenericPortMappingEntry", [("NewPortMappingIndex", str(index))])

    def rules(self, command=None):
        return [(r.command, r.fields) for r in self.platform.requests(NAT_RULES, command)]


class PortMappings(ControlCase):
    # Also proves [mapping-open], [rule-fields].
    def test_a_new_mapping_asks_for_a_rule(self):
        self.open_port()
        self.assertEqual(self.rules(), [(lm.CMD_ADD, add_rule(8080, 6, HOST, 80))])

    # Also proves [rule-fields], [mapping-enabled].
    def test_a_udp_mapping_that_is_not_enabled_has_a_disabled_rule(self):
        self.open_port(port="53", protocol="UDP", internal="5353", enabled="0")
        self.assertEqual(self.rules(),
                         [(lm.CMD_ADD, add_rule(53, 17, HOST, 5353, disabled=True))])

    # Also proves [mapping-change].
    def test_the_same_mapping_again_changes_the_rule(self):
        self.open_port()
        self.open_port(internal="8081", enabled="no")
        inside = lm.address(HOST)
        self.assertEqual(self.rules(lm.CMD_SET), [(lm.CMD_SET, [
            (0x08FE0001, 101), (0x00FE000A, True), (0x080003E8, inside), (0x080003E9, inside),
            (0x080003EA, 8081), (0x080003EB, 8081)])])

    # Also proves [fault-718].
    def test_another_host_cannot_take_a_mapping_over(self):
        self.open_port()
        self.assertEqual(self.invoke("AddPortMapping", mapping(client="192.168.88.11")),
                         fault(718, "ConflictInMappingEntry"))
        self.assertEqual(len(self.rules()), 1)

    # Also proves [mapping-delete], [fault-714-delete].
    def test_a_deleted_mapping_removes_its_rule(self):
        self.open_port()
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         result("DeletePortMapping"))
        self.assertEqual(self.rules(lm.CMD_REMOVE), [(lm.CMD_REMOVE, [(0x08FE0001, 101)])])
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         fault(714, "NoSuchEntryInArray"))

    # Also proves [mapping-order], [mapping-dummy], [fault-713].
    def test_mappings_are_listed_after_the_dummy(self):
        self.open_port(protocol="UDP")
        self.open_port()
        names = ("NewRemoteHost", "NewExternalPort", "NewProtocol", "NewInternalPort",
                 "NewInternalClient", "NewEnabled", "NewPortMappingDescription",
                 "NewLeaseDuration")
        for index, values in enumerate((
                ("", "0", "TCP", "0", "0.0.0.0", "0", "Dummy inactive rule for windows to work",
                 "0"),
                ("", "8080", "TCP", "80", HOST, "1", "a game", "0"),
                ("", "8080", "UDP", "80", HOST, "1", "a game", "0"))):
            self.assertEqual(self.entry(index),
                             result("GetGenericPortMappingEntry", *zip(names, values)))
        self.assertEqual(self.entry(3), fault(713, "SpecifiedArrayIndexInvalid"))

    # Also proves [fault-714].
    def test_a_mapping_is_found_by_its_port(self):
        self.open_port()
        self.assertEqual(
            self.invoke("GetSpecificPortMappingEntry", mapping()[:3]),
            result("GetSpecificPortMappingEntry", ("NewInternalPort", "80"),
                   ("NewInternalClient", HOST), ("NewEnabled", "1"),
                   ("NewPortMappingDescription", "a game"), ("NewLeaseDuration", "0")))
        self.assertEqual(self.invoke("GetSpecificPortMappingEntry", mapping(port="8081")[:3]),
                         fault(714, "NoSuchEntryInArray"))

    # Also proves [fault-402], [fault-first], [fault-726], [fault-725], [mapping-arguments].
    def test_mappings_that_are_refused_ask_for_nothing(self):
        for changes, code, text, line in (
                ({"remote": "1.2.3.4"}, 726, "RemoteHostOnlySupportsWildcard",
                 "addPortMapping: REMOTE_ONLY_WILDCARD: '1.2.3.4'"),
                ({"remote": "0.0.0.0"}, 726, "RemoteHostOnlySupportsWildcard",
                 "addPortMapping: REMOTE_ONLY_WILDCARD: '0.0.0.0'"),
                ({"lease": "3600"}, 725, "OnlyPermanentLeasesSupported",
                 "addPortMapping: ONLY_PERM_LEASES"),
                ({"port": "65536"}, 402, "Invalid Args", "POST: action xml bad variable value"),
                ({"port": "http"}, 402, "Invalid Args", "POST: action xml bad variable value"),
                ({"protocol": "tcp"}, 402, "Invalid Args", "POST: action xml bad variable value"),
                ({"enabled": "True"}, 402, "Invalid Args",
                 "POST: action xml bad variable value")):
            with self.subTest(changes):
                since = self.log_mark()
                self.assertEqual(self.invoke("AddPortMapping", mapping(**changes)),
                                 fault(code, text))
                self.daemon.wait_for_line(line, since)
        self.assertEqual(self.rules(), [])

    # Also proves [fault-501].
    def test_what_the_platform_refuses_is_not_recorded(self):
        self.platform.answer(NAT_RULES, lm.CMD_ADD, lambda _: error("port 8080: already in use"))
        self.assertEqual(self.invoke("AddPortMapping", mapping()), fault(501, "Action Failed"))
        self.daemon.wait_for_line("add nat failed: port 8080: already in use")
        self.assertEqual(self.entry(1), fault(713, "SpecifiedArrayIndexInvalid"))

    # Also proves [fault-501-change], [fault-501-close].
    def test_what_the_platform_will_not_change_stays_as_it_was(self):
        self.open_port()
        self.platform.answer(NAT_RULES, lm.CMD_SET, lambda _: error("no"))
        self.platform.answer(NAT_RULES, lm.CMD_REMOVE, lambda _: error("never"))
        self.assertEqual(self.invoke("AddPortMapping", mapping(internal="81")),
                         fault(501, "Action Failed"))
        self.daemon.wait_for_line("set nat failed: no")
        self.assertEqual(self.invoke("DeletePortMapping", mapping()[:3]),
                         fault(501, "Action Failed"))
        self.daemon.wait_for_line("remove nat failed: never")
        self.assertIn(b"<NewInternalPort>80</NewInternalPort>", self.entry(1))

    # Also proves [mapping-interface].
    def test_the_end_removes_every_rule(self):
        for port in ("8082", "8080", "8081"):
            self.open_port(port=port)
        self.daemon.terminate()
        self.assertEqual(self.daemon.wait(), 0)
        self.assertEqual(self.rules(lm.CMD_REMOVE),
                         [(lm.CMD_REMOVE, [(0x08FE0001, id)]) for id in (102, 103, 101)])

    # Promise: The mappings of an interface that stopped are gone when it starts again.
    def test_a_wan_that_starts_again_has_no_mappings(self):
        self.open_port()
        self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        self.add_object(WAN, EXTERNAL)
        self.assertEqual(self.entry(1), fault(713, "SpecifiedArrayIndexInvalid"))

    def test_the_cleanup_goes_on_when_a_removal_fails(self):
        self.open_port(port="8080")
        self.open_port(port="8081")
        self.platform.answer(NAT_RULES, lm.CMD_REMOVE, lambda _: error("no"))
        self.platform.request(lm.CMD_REMOVE, {lm.OBJECT_ID: 2})
        self.assertEqual(len(self.rules(lm.CMD_REMOVE)), 2)
        self.log_mark()
        self.assertEqual(self.daemon.log().count("on cleanup remove nat failed: no"), 2)
        self.assert_serves()


class Connection(ControlCase):
    # Also proves [ip-type], [ip-rsip].
    def test_the_states_of_the_connection_are_read(self):
        self.assertEqual(self.invoke("GetConnectionTypeInfo"),
                         result("GetConnectionTypeInfo", ("NewConnectionType", "IP_Routed"),
                                ("NewPossibleConnectionTypes", "IP_Routed")))
        self.assertEqual(self.invoke("GetNATRSIPStatus"),
                         result("GetNATRSIPStatus", ("NewRSIPAvailable", "0"),
                                ("NewNATEnabled", "1")))
        self.assertEqual(self.invoke("GetExternalIPAddress"),
                         result("GetExternalIPAddress", ("NewExternalIPAddress", "45.45.45.2")))
        self.assertIn(b"<NewConnectionStatus>Connected</NewConnectionStatus>",
                      self.invoke("GetStatusInfo"))

    # Also proves [ip-set-type].
    def test_the_connection_type_cannot_be_set(self):
        for kind, expected in (("IP_Routed", fault(501, "Action Failed")),
                               ("Bridge", fault(402, "Invalid Args"))):
            self.assertEqual(self.invoke("SetConnectionType", [("NewConnectionType", kind)]),
                             expected)

    # Also proves [ip-request], [ip-terminate], [link-disable].
    def test_the_interface_is_switched_off_and_on(self):
        for action, disabled, status in (("ForceTermination", True, b"Disconnected"),
                                         ("RequestConnection", False, b"Connecting")):
            self.platform.forget_requests()
            self.assertEqual(self.invoke(action), result(action))
            self.assertEqual([r.fields for r in self.platform.requests(INTERFACES, lm.CMD_SET)],
                             [[(0x08FE0001, WAN), (0x00FE000A, disabled)]])
            self.assertIn(b"<NewConnectionStatus>" + status, self.invoke("GetStatusInfo"))

    # Also proves [ip-forbidden].
    def test_the_interface_is_left_alone_when_that_is_not_allowed(self):
        self.set_settings(enabled=True, allow_disable=False, show_dummy=True)
        for action in ("ForceTermination", "RequestConnection"):
            self.assertEqual(self.invoke(action), fault(501, "Action Failed"))
        self.assertEqual(self.platform.requests(INTERFACES, lm.CMD_SET), [])

    # Also proves [counter-request], [counter-fields], [common-counters], [common-modulo].
    def test_the_counters_are_fetched_at_each_read(self):
        self.platform.counters = {0x100FC: (1 << 32) + 5, 0x100FD: 6, 0x100FE: 7, 0x100FF: 8}
        for action, value in (("GetTotalBytesReceived", 5), ("GetTotalBytesSent", 6),
                              ("GetTotalPacketsReceived", 7), ("GetTotalPacketsSent", 8)):
            self.platform.forget_requests()
            self.assertEqual(self.invoke(action, (), LINK_CONTROL, LINK),
                             result(action, (f"New{action[3:]}", value), service=LINK))
            self.assertEqual([r.fields for r in self.platform.requests(INTERFACES, lm.CMD_READ)],
                             [[(0x08FE0001, WAN), (0x08FE000C, 256)]])

    # Also proves [common-refused].
    def test_counters_that_the_platform_refuses_are_zero(self):
        self.platform.answer(INTERFACES, lm.CMD_READ, lambda _: error("no such object"))
        self.assertEqual(self.invoke("GetTotalBytesSent", (), LINK_CONTROL, LINK),
                         result("GetTotalBytesSent", ("NewTotalBytesSent", 0), service=LINK))
        self.daemon.wait_for_line("get device stats: no such object")

    # Also proves [common-link].
    def test_the_link_is_described(self):
        self.assertEqual(self.invoke("GetCommonLinkProperties", (), LINK_CONTROL, LINK),
                         result("GetCommonLinkProperties", ("NewWANAccessType", "Ethernet"),
                                ("NewLayer1UpstreamMaxBitRate", "10000000"),
                                ("NewLayer1DownstreamMaxBitRate", "10000000"),
                                ("NewPhysicalLinkStatus", "Up"), service=LINK))

    # Promise: The link stays described as it was when the service started: `Up`, with the access
    # type of then.
    def test_the_description_of_the_link_does_not_change_after_its_start(self):
        before = self.invoke("GetCommonLinkProperties", (), LINK_CONTROL, LINK)
        self.notify_interface(interface(WAN, "wan0", kind=512))
        self.notify_states(interface(WAN, "wan0", running=False))
        self.assertEqual(self.invoke("GetCommonLinkProperties", (), LINK_CONTROL, LINK), before)

    # Promise: Each of the four can be queried.
    # Also proves [query], [fault-404], [query-unset].
    def test_a_variable_is_queried(self):
        def query(name, url="/upnp/control/osinfo"):
            body = soap_envelope("QueryStateVariable", [("varName", name)],
                                 "urn:schemas-upnp-org:control-1-0")
            action = "urn:schemas-upnp-org:control-1-0#QueryStateVariable"
            return undated(self.lan.post(url, body, "CONTENT-TYPE: text/xml",
                                         f'SOAPACTION: "{action}"').raw)
        self.assertEqual(query("OSBuildNumber"), reply("200 OK", """\
    <u:QueryStateVariableResponse xmlns:u="urn:schemas-upnp-org:control-1-0">\r
      <return>1234</return>\r
    </u:QueryStateVariableResponse>\r
"""))
        for name in ("OSMajorVersion", "OSMinorVersion", "OSMachineName"):
            self.assertIn(b"<return>", query(name))
        self.assertEqual(query("NoSuchThing"), fault(404, "Invalid Var"))
        self.assertEqual(query("RemoteHost", CONTROL), fault(404, "Invalid Var"))


class Requests(ControlCase):
    """What comes before an action is found."""

    TYPE = "CONTENT-TYPE: text/xml"
    ACTION = f'SOAPACTION: "{IP_CONNECTION}#GetExternalIPAddress"'

    # Also proves [soap-type], [soap-xml], [soap-envelope], [soap-encoding], [soap-body],
    # [soap-action], [soap-bare-400], [soap-element], [xml-depth-400].
    def test_a_post_that_is_no_soap_request_is_a_bad_request(self):
        good = soap_envelope("GetExternalIPAddress", (), IP_CONNECTION)
        deep = "<a>" * 100 + "</a>" * 100
        for reason, body, fields, line in (
                ("no type", good, [self.ACTION], "POST method with bad CONTENT-TYPE: "),
                ("another type", good, ["CONTENT-TYPE: text/html", self.ACTION],
                 "POST method with bad CONTENT-TYPE: text/html"),
                ("no body", "", [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("no XML", "hello", [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("half of it", good[:-9], [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("two documents", good + good, [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("no UTF-8", good.replace("Body", "B\xffdy").encode("latin-1"),
                 [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("nested too deep", good.replace("</u:", deep + "</u:"),
                 [self.TYPE, self.ACTION], "POST: with bad xml"),
                ("another root", good.replace("s:Envelope", "s:Letter"),
                 [self.TYPE, self.ACTION], "POST: XML bad node name: s:Letter"),
                ("no encoding", good.replace("encodingStyle", "style"),
                 [self.TYPE, self.ACTION], "POST: XML no encoding style"),
                ("another encoding", good.replace("soap/encoding/", "soap/encoding"),
                 [self.TYPE, self.ACTION], "POST: XML bad encoding style"),
                ("no Body", good.replace("s:Body", "s:Head"), [self.TYPE, self.ACTION],
                 "POST: XML no body"),
                ("no action", good, [self.TYPE], "POST: with no SOAPACTION"),
                ("another action in the body", good, [self.TYPE, 'SOAPACTION: "x#GetStatusInfo"'],
                 "POST: XML has no such action")):
            with self.subTest(reason):
                since = self.log_mark()
                self.assertEqual(self.lan.post(CONTROL, body, *fields).raw, BAD_REQUEST)
                self.daemon.wait_for_line(line, since)
        self.assertEqual(self.lan.post(CONTROL, good, self.TYPE, self.ACTION).status, 200)

    # Also proves [fault-401], [fault].
    def test_an_unknown_action_is_a_fault(self):
        self.assertEqual(self.invoke("Reboot"), fault(401, "Invalid Action"))
        self.daemon.wait_for_line("POST: no such action registered")

    # Also proves [fault-missing].
    def test_a_missing_argument_is_a_fault(self):
        self.assertEqual(self.invoke("AddPortMapping", mapping()[1:]), fault(402, "Invalid Args"))
        self.daemon.wait_for_line("POST: action xml doesn't have var: NewRemoteHost")

    def test_an_action_is_logged_with_its_arguments_and_results(self):
        since = self.log_mark()
        self.invoke("DeletePortMapping", mapping()[:3])
        self.invoke("GetExternalIPAddress")
        self.assert_logged(
            since,
            "action: DeletePortMapping", "arg: NewRemoteHost, val: ",
            "arg: NewExternalPort, val: 8080", "arg: NewProtocol, val: TCP",
            "deletePortMapping: NO_SUCH_ENTRY", "action: GetExternalIPAddress",
            "ret: NewExternalIPAddress, val: 45.45.45.2")

    def test_an_argument_with_line_ends_is_one_line_of_the_log(self):
        self.invoke("AddPortMapping", mapping(description="a\r\nexit"))
        self.log_mark()
        self.assertNotIn("exit", self.daemon.log())
