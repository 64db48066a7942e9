"""The status page of a router at work: who gets it, what it shows, and what it withstands."""

import http.client
import json
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time
import unittest

from support import promtool
from support.network import LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, exchange_tcp
from support.router import PROGRAMS, WEB_USER, CommandFailed
from support.router_case import RouterCase

CLOSED = (ConnectionRefusedError, ConnectionResetError, TimeoutError)


class Reply:
    def __init__(self, text):
        head, _, self.body = text.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split(" ", 2)[1])
        self.headers = {name.lower(): value.strip() for name, _, value in
                        (line.partition(":") for line in lines[1:])}


class Events:
    """A stream of events as a browser reads it."""

    def __init__(self, sock):
        self.sock = sock
        sock.sendall(f"GET /events HTTP/1.0\r\nHost: {LAN_ADDRESS}\r\n\r\n".encode())
        self.file = sock.makefile("rb")
        self.status = int(self.file.readline().split()[1])
        while self.file.readline().strip():
            pass

    def next(self):
        """The name and the data of the next event."""
        name = data = None
        while True:
            line = self.file.readline()
            if not line:
                raise ConnectionResetError("the stream has ended")
            line = line.decode().rstrip("\n")
            if line.startswith("event: "):
                name = line[7:]
            elif line.startswith("data: "):
                data = json.loads(line[6:])
            elif not line and name:
                return name, data

    def until(self, wanted, fits=lambda data: True):
        """The data of the next event of that name that fits."""
        end = time.monotonic() + 30
        while time.monotonic() < end:
            name, data = self.next()
            if name == wanted and fits(data):
                return data
        raise AssertionError(f"no such event in 30 s: {wanted}")

    def close(self):
        self.file.close()
        self.sock.close()


class WebCase(RouterCase):
    OPTIONS = ()

    def setUp(self):
        super().setUp()
        self.router.lumenctl("web", "on", *self.OPTIONS)

    def connect(self, host=None, address=LAN_ADDRESS, port=80):
        host = host or self.lan[0]
        sock = host.namespace.socket()
        sock.settimeout(10)
        self.addCleanup(sock.close)
        sock.connect((address, port))
        return sock

    def ask(self, request, host=None, address=LAN_ADDRESS, port=80):
        """The reply to these bytes; None when the connection ends without one."""
        with self.connect(host, address, port) as sock:
            sock.sendall(request)
            text = b""
            try:
                while part := sock.recv(65536):
                    text += part
            except ConnectionResetError:
                pass
        return Reply(text) if text else None

    def get(self, path, host=None, method="GET", name=LAN_ADDRESS, **where):
        return self.ask(f"{method} {path} HTTP/1.1\r\nHost: {name}\r\nConnection: close\r\n\r\n"
                        .encode(), host, **where)

    def events(self, host=None):
        stream = Events(self.connect(host))
        self.addCleanup(stream.close)
        return stream


class PageTest(WebCase):
    # Promise: The status page is served at the addresses of internal interfaces, to their hosts only.
    def test_the_page_is_for_the_lan_only(self):
        page = self.get("/")
        self.assertEqual(page.status, 200)
        self.assertIn(f"works under the external address {WAN_ADDRESS}.".encode(), page.body)
        self.assertTrue(page.headers["content-security-policy"].startswith("default-src 'self';"))
        self.assertEqual(page.headers["x-content-type-options"], "nosniff")
        self.assertNotIn("set-cookie", page.headers)
        for path, kind in (("/style.css", "text/css"), ("/script.js", "text/javascript")):
            reply = self.get(path)
            self.assertEqual(reply.status, 200)
            self.assertTrue(reply.headers["content-type"].startswith(kind))
        for address in (WAN_ADDRESS, LAN_ADDRESS):
            with self.assertRaises((*CLOSED, OSError)):
                self.get("/", self.wan, address=address)
        with self.assertRaises((*CLOSED, OSError)):
            self.get("/", address=WAN_ADDRESS)

    # Promise: The status page answers GET and HEAD of at most 8 KiB, under its own names; it refuses
    # every other request.
    def test_requests_that_are_refused(self):
        def line(text, more=""):
            return f"{text}\r\nHost: {LAN_ADDRESS}\r\n{more}Connection: close\r\n\r\n".encode()

        for why, request, statuses in (
                ("another method", line("POST / HTTP/1.1"), {405}),
                ("a method that none has", line("BREW / HTTP/1.1"), {405}),
                ("a body", line("GET / HTTP/1.1", "Content-Length: 3\r\n") + b"abc", {400}),
                ("no such page", line("GET /../etc/passwd HTTP/1.1"), {404}),
                ("another path", line("GET /index.html HTTP/1.1"), {404}),
                ("a long line", line("GET /" + "a" * 9000 + " HTTP/1.1"), {414, 431, 413}),
                ("many headers", line("GET / HTTP/1.1", "A: b\r\n" * 2000), {431, 413})):
            with self.subTest(why=why):
                reply = self.ask(request)
                self.assertIn(reply.status if reply else None, statuses | {None})
                if statuses & {405, 404}:
                    self.assertIsNotNone(reply)
        for name in ("evil.example", "192.168.88.2", "router.lan"):
            self.assertEqual(self.get("/", name=name).status, 421, name)
            self.assertEqual(self.get("/events", name=name).status, 421, name)
        self.assertEqual(self.ask(b"GET / HTTP/1.0\r\n\r\n").status, 421)
        head = self.get("/status.json", method="HEAD")
        self.assertEqual((head.status, head.body), (200, b""))
        self.router.lumenctl("web", "on", "--name", "Router.lan")
        self.assertEqual(self.get("/", name="router.LAN:80").status, 200)

    # Promise: /status.json is what `lumenctl status --json` prints.
    def test_status_json_is_lumenctls(self):
        self.lan[0].open_port(8080, "TCP")

        def served_and_said():
            both = (json.loads(self.get("/status.json").body), self.router.status())
            for status in both:
                for port in status["ports"]:
                    del port["seconds"]
            return both

        # It may be a second old.
        self.wait_until(lambda: len({json.dumps(s) for s in served_and_said()}) == 1, "they agree")
        status = served_and_said()[0]
        self.assertEqual(status["version"], 1)
        self.assertEqual([port["port"] for port in status["ports"]], [8080])

    # Promise: The address that every description gives for presentation is that of the page.
    def test_the_presentation_address_answers(self):
        description = self.lan[0].speak_to().get("/gateway.xml").body.decode()
        url = re.search(r"<presentationURL>http://([^/<]+)(/[^<]*)</presentationURL>", description)
        self.assertEqual(self.get(url[2], address=url[1], name=url[1]).status, 200)

    # No promise, since promtool may not be there.
    def test_prometheus_accepts_the_metrics(self):
        self.lan[0].open_port(8080, "TCP")
        opened = 'palinode_ports_open{protocol="tcp",service="upnp"} 1\n'
        metrics = self.wait_until(
            lambda: (text := self.get("/metrics").body.decode()) and opened in text and text,
            "the port is counted")
        self.assertIn(f'palinode_interface_receive_bytes_total{{interface="{WAN_LINK}"}} ', metrics)
        self.assertIn('palinode_service_up{service="upnp"} 1\n', metrics)
        self.assert_has_memory(metrics, self.router.lumend.pid, "lumend")
        for service in ("upnp", "web"):
            listed = self.router.service(service)
            self.assert_has_memory(metrics, listed["process"], listed["program"])
            self.assertGreater(listed["resident_memory_bytes"], 1 << 20)
        try:
            wrong = promtool.check(metrics)
        except promtool.Missing as why:
            self.skipTest(str(why))
        self.assertEqual(wrong, "")

    def assert_has_memory(self, metrics, pid, program):
        """It may have changed a little since."""
        found = re.search(rf'^palinode_resident_memory_bytes{{program="{program}"}} (\d+)$',
                          metrics, re.MULTILINE)
        self.assertIsNotNone(found, program)
        pages = int(pathlib.Path(f"/proc/{pid}/statm").read_text(encoding="ascii").split()[1])
        self.assertAlmostEqual(int(found.group(1)), pages * resource.getpagesize(), delta=1 << 20)

    # Promise: The program of the status page runs as its own user, with CAP_NET_BIND_SERVICE alone,
    # and with no capability when its port needs none.
    def test_the_program_has_one_capability_at_most(self):
        def capabilities():
            pid = self.router.service("web")["process"]
            status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
            fields = dict(line.split(":\t", 1) for line in status.splitlines())
            self.assertEqual(fields["Uid"].split(), [str(WEB_USER)] * 4)
            self.assertEqual(fields["Seccomp"], "2")
            self.assertEqual(int(fields["CapBnd"], 16), 0)
            return {int(fields[s], 16) for s in ("CapInh", "CapPrm", "CapEff", "CapAmb")}

        self.assertEqual(capabilities(), {1 << 10})
        self.router.lumenctl("web", "on", "--port", "8081")
        self.assertEqual(self.get("/", name=f"{LAN_ADDRESS}:8081", port=8081).status, 200)
        os.kill(self.router.service("web")["process"], signal.SIGKILL)
        self.wait_until(lambda: self.router.service("web")["state"] == "running", "it is back")
        self.assertEqual(capabilities(), {0})
        # Port 80 takes another life of the program.
        self.router.lumenctl("web", "on", "--port", "80")
        self.assertEqual(self.get("/").status, 200)
        self.assertEqual(capabilities(), {1 << 10})


class LiveTest(WebCase):
    # Promise: A browser is sent a port that is opened, changed or closed at once, without asking.
    def test_events_tell_of_a_port(self):
        events = self.events()
        state = events.until("state")
        self.assertEqual(state["colour"], "good")
        events.until("complete")
        self.lan[1].open_port(8080, "TCP")
        started = time.monotonic()
        port = events.until("ports")[0]
        self.assertEqual((port["port"], port["protocol"], port["state"], port["owner"]),
                         (8080, "tcp", "open", "upnp"))
        text = events.until("happened")[0]["text"]
        self.assertIn("tcp port 8080 opened", text)
        self.router.lumenctl("nat", "close", "8080/tcp")
        events.until("ports", lambda ports: ports[0]["state"] == "closed")
        self.lan[1].close_port(8080, "TCP")
        self.assertEqual(events.until("closed"), {"id": port["id"]})
        self.assertLess(time.monotonic() - started, 5)

    # Promise: What a browser is shown first has the traffic of the last ten minutes, whether or not
    # another one looked.
    def test_traffic_is_known_before_a_browser_looks(self):
        started = time.time()
        self.wait_until(lambda: self.traffic_was_read(3), "the traffic was read", limit=30)
        looked = time.time()
        events = self.events()
        traffic = events.until("traffic")
        self.assertGreaterEqual(len(traffic), 1)
        for sample in traffic:
            self.assertEqual(sample["interface"], WAN_LINK)
            self.assertTrue(started - 20 < sample["time"] / 1000 < looked, traffic)

    def traffic_was_read(self, times):
        """Whether the page's program has asked for counters so often since the first call."""
        printed = self.router.root / "monitor"
        if not printed.exists():
            with open(printed, "wb") as out:
                monitor = subprocess.Popen([PROGRAMS / "lumenctl", "--root", self.router.root,
                                            "monitor", "--json"], stdin=subprocess.DEVNULL,
                                           stdout=out)
            self.addCleanup(monitor.wait)
            self.addCleanup(monitor.kill)
        seen = [json.loads(line) for line in printed.read_text().split("\n")[:-1]]
        return sum((m["from"], m["to"], m["kind"], m["command"]) ==
                   ("web", "interfaces", "request", "read") for m in seen) >= times

    # Promise: A browser is sent how many connections go through a port, and how many have gone.
    def test_connections_are_counted(self):
        events = self.events()
        events.until("complete")
        self.lan[1].open_port(8080, "TCP")
        exchange_tcp(self.wan, WAN_ADDRESS, 8080, self.lan[1], 8080)
        port = events.until("ports", lambda ports: ports[0]["uses"] == 1)[0]
        self.assertEqual(port["port"], 8080)
        self.assertIn(port["connections"], (0, 1))

    # Promise: What happened lately are the newest hundred: ports that opened and closed, links that
    # changed, and changes of the configuration.
    def test_the_newest_hundred_events_are_shown(self):
        events = self.events()
        events.until("complete")
        self.router.namespace.run("ip", "link", "set", WAN_LINK, "down")
        events.until("happened", lambda news: news[0]["text"].startswith(f"{WAN_LINK}: "))
        self.router.namespace.run("ip", "link", "set", WAN_LINK, "up")
        self.router.lumenctl("upnp", "settings", "set", "show-dummy-rule=on")
        events.until("happened", lambda news: news[0]["text"] == "upnp config changed")
        self.router.wait_until_controllable()
        for port in range(8000, 8051):
            self.lan[0].open_port(port, "TCP")
            self.lan[0].close_port(port, "TCP")
        happened = self.wait_until(lambda: self.happened_with("tcp port 8050 closed"), "it is there")
        self.assertEqual(len(happened), 100)
        self.assertEqual([one["time"] for one in happened], sorted(one["time"] for one in happened))
        self.assertEqual(self.get("/").body.count(b"<li>"), 100)

    def happened_with(self, text):
        """What a browser is shown first, when its newest event has the text."""
        stream = Events(self.connect())
        try:
            happened = stream.until("happened")
        finally:
            stream.close()
        return happened if text in happened[-1]["text"] else None

    # Promise: The status page follows links and addresses, and says when the external link is down.
    def test_it_follows_links_and_addresses(self):
        events = self.events()
        events.until("complete")
        self.router.namespace.run("ip", "link", "set", WAN_LINK, "down")
        state = events.until("state", lambda s: s["colour"] == "bad")
        self.assertIn("interface-down", [finding["id"] for finding in state["findings"]])
        self.router.namespace.run("ip", "link", "set", WAN_LINK, "up")
        events.until("state", lambda s: s["colour"] == "good")
        self.router.namespace.run("ip", "address", "add", "192.168.88.77/24", "dev", LAN_BRIDGE)
        self.wait_until(lambda: self.served("192.168.88.77"), "the new address is served")
        self.router.namespace.run("ip", "address", "del", "192.168.88.77/24", "dev", LAN_BRIDGE)
        self.assertTrue(self.served(LAN_ADDRESS))

    def served(self, address):
        try:
            return self.get("/", name=address, address=address).status == 200
        except OSError:
            return False

    # Promise: At most 4 streams of events are open for a host, and 32 in all.
    def test_streams_are_bounded_in_all(self):
        addresses = [f"192.168.88.{number}" for number in range(100, 109)]
        for address in addresses:
            self.lan[0].namespace.ip("address", "add", f"{address}/24", "dev", self.lan[0].LINK)
        streams = [self.events_of(address) for address in addresses for _ in range(4)]
        self.assertEqual([stream.status for stream in streams], 32 * [200] + 4 * [503])

    def events_of(self, address):
        sock = self.lan[0].namespace.socket()
        self.addCleanup(sock.close)
        sock.settimeout(10)
        sock.bind((address, 0))
        sock.connect((LAN_ADDRESS, 80))
        stream = Events(sock)
        self.addCleanup(stream.close)
        return stream

    def test_streams_of_a_host_are_bounded(self):
        streams = [self.events() for _ in range(4)]
        self.assertEqual({stream.status for stream in streams}, {200})
        self.assertEqual(self.events().status, 503)
        self.assertEqual(self.events(self.lan[1]).status, 200)
        streams[0].close()
        # What is sent to it shows that it has gone.
        self.lan[0].open_port(8080, "TCP")
        self.wait_until(lambda: self.events().status == 200, "there is room again", limit=30)


class HostileTest(WebCase):
    # Promise: A thousand idle connections do not keep another host from the status page for more
    # than a second.
    def test_idle_connections_delay_no_other_host(self):
        idle = []
        for _ in range(1000):
            sock = self.lan[0].namespace.socket()
            self.addCleanup(sock.close)
            sock.setblocking(False)
            sock.connect_ex((LAN_ADDRESS, 80))
            idle.append(sock)
        for _ in range(5):
            started = time.monotonic()
            self.assertEqual(self.get("/", self.lan[1]).status, 200)
            self.assertLess(time.monotonic() - started, 1.0)

    # Promise: The program of the status page dies alone.
    def test_it_dies_alone(self):
        self.lan[0].open_port(8080, "TCP")
        gateway = self.router.gateway_pid()
        os.kill(self.router.service("web")["process"], signal.SIGKILL)
        self.assertIn("8080/tcp", self.router.ports())
        self.lan[0].open_port(8081, "TCP")
        self.wait_until(lambda: self.router.service("web")["state"] == "running", "it is back")
        self.assertEqual(self.router.gateway_pid(), gateway)
        self.assertIn(b"8081", self.get("/").body)

    # Promise: It may not send a packet of its own to any host.
    def test_the_fence_lets_it_answer_only(self):
        rules = self.router.namespace.run("nft", "list", "chain", "ip", "lumen_fence", "output")
        self.assertIn(f"meta skuid {WEB_USER} jump answers", rules)
        answers = self.router.namespace.run("nft", "list", "chain", "ip", "lumen_fence", "answers")
        self.assertIn(f'oifname "{LAN_BRIDGE}" ct state established accept', answers)
        self.assertEqual(answers.count("accept"), 1)


class SwitchTest(RouterCase):
    def status(self):
        return self.router.ask("web", "status")

    # Promise: The status page is off until `lumenctl web on`, also after a restart, and `web off`
    # ends it.
    def test_it_is_off_until_it_is_switched_on(self):
        self.assertEqual(self.status()["enabled"], False)
        self.wait_until(lambda: self.router.service("web")["state"] == "stopped", "it ends")
        self.assertEqual(self.router.lumenctl("web", "on"), "status page: http://192.168.88.1/\n")
        self.assertEqual(self.status()["urls"], ["http://192.168.88.1/"])
        self.assertIn("Status page: http://192.168.88.1/\n", self.router.lumenctl("status"))
        self.router.stop()
        self.router.start()
        self.wait_until(lambda: self.router.service("web")["state"] == "running", "it runs again")
        self.assertEqual(self.status()["urls"], ["http://192.168.88.1/"])
        self.router.lumenctl("web", "off")
        self.wait_until(lambda: self.router.service("web")["state"] == "stopped", "it has ended")

    # Promise: A port that another program has is a clear line in `status` and `check`; when it is
    # free the page is served.
    def test_a_taken_port_is_named_and_tried_again(self):
        other = self.router.namespace.socket()
        other.bind(("0.0.0.0", 80))
        other.listen()
        taken = "192.168.88.1:80 on br-lan: the port is taken by another program"
        self.assertEqual(self.router.lumenctl("web", "on"), f"status page: {taken}\n")
        self.assertIn(f"Status page: {taken}\n", self.router.lumenctl("status"))
        with self.assertRaises(CommandFailed):
            self.router.lumenctl("upnp", "check")
        other.close()
        self.wait_until(lambda: self.status()["problem"] == "", "it is served")
        self.assertEqual(self.status()["urls"], ["http://192.168.88.1/"])


if __name__ == "__main__":
    unittest.main()
