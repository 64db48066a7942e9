"""The stage of every protocol test: a router and a LAN host, each in its own namespace, the
scripted platform, and the real daemon between them."""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from scripted_platform import ScriptedPlatform, address, interface
from support import lm, netns, processes
from support.lan import LanHost

BIN = os.environ["PALINODE_BIN"]
SERVER = f"Palinode/{os.environ['PALINODE_VERSION']} UPnP/1.0 Kestrava UPnP/1.0"
ETC = os.path.join(os.path.dirname(__file__), "..", "..", "etc")

GATEWAY = "192.168.88.1"
HOST = "192.168.88.10"
WAN_ADDRESS = "45.45.45.2"
BASE = f"http://{GATEWAY}:2828"

# Interface ids of the platform, and the two address objects.
LAN, WAN = 2, 3
LAN_ADDRESS_ID, WAN_ADDRESS_ID = 11, 12
EXTERNAL, INTERNAL = 1, 2

# Settings.
ENABLED, ALLOW_DISABLE, SHOW_DUMMY = 1, 2, 3

ROOT = "uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-TEST"


def root_targets():
    """What a gateway without an external interface is found under, in order: target and USN."""
    types = ["upnp:rootdevice", "urn:schemas-microsoft-com:service:OSInfo:1",
             "urn:schemas-upnp-org:device:InternetGatewayDevice:1"]
    return [(kind, f"{ROOT}::{kind}") for kind in types] + [(ROOT, ROOT)]


def wan_targets(interface_id=WAN):
    """What the sub-tree of an external interface is found under, in order."""
    wan = f"uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-{interface_id}"
    connection = f"uuid:UUID-KESTRAVA-WAN-CONNECTION-DEVICE-TEST-{interface_id}"
    kinds = [("device:WANConnectionDevice:1", connection), ("device:WANDevice:1", wan),
             ("service:WANCommonInterfaceConfig:1", wan), ("service:WANIPConnection:1", connection)]
    targets = [(f"urn:schemas-upnp-org:{kind}", f"{udn}::urn:schemas-upnp-org:{kind}")
               for kind, udn in kinds]
    return targets + [(connection, connection), (wan, wan)]


def all_targets(*interface_ids):
    """The whole tree's: equal targets keep the order of the tree."""
    targets = root_targets()
    for interface_id in interface_ids or (WAN,):
        targets += wan_targets(interface_id)
    return sorted(targets, key=lambda entry: entry[0])


def undated(data):
    """The bytes with the date of a DATE field, which must be well-formed, cut out."""
    days, months = "Mon|Tue|Wed|Thu|Fri|Sat|Sun", "Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec"
    date = rf"DATE: (?:{days}), \d\d (?:{months}) \d{{4}} \d\d:\d\d:\d\d GMT\r\n"
    return re.sub(date.encode(), b"DATE: -\r\n", data, count=1)


class Daemon:
    """A running palinode-igd, or another program, and what it has logged."""

    def __init__(self, namespace, folder, host_name=None, program="palinode-igd"):
        self._lines = []
        self._changed = threading.Condition()
        self._ended = False
        self._process = namespace.popen(os.path.join(BIN, program),
                                        private={"/lumen": folder}, host_name=host_name,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            with self._changed:
                self._lines.append(line.decode("latin-1").rstrip("\n"))
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    @property
    def pid(self):
        return self._process.pid

    @property
    def running(self):
        return self._process.poll() is None

    def log(self):
        with self._changed:
            return list(self._lines)

    def wait_for_line(self, line, since=0, limit=5.0):
        """Waits until the log has the line, at index `since` or later; returns the next index."""
        end = time.monotonic() + limit
        with self._changed:
            while line not in self._lines[since:]:
                left = end - time.monotonic()
                if self._ended or left <= 0:
                    raise AssertionError(f"no line {line!r} in {self._lines[since:]}")
                self._changed.wait(left)
            return self._lines.index(line, since) + 1

    def terminate(self):
        self._process.send_signal(signal.SIGTERM)

    def processor_time(self):
        """Seconds of processor time that the daemon has used."""
        return processes.processor_time(self.pid)

    def wait(self, limit=15.0):
        """Waits for the end; returns the exit status."""
        try:
            status = self._process.wait(limit)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"the daemon did not end within {limit} s: {self.log()}") from None
        self._reader.join()
        self._process.stdout.close()
        return status

    def kill(self):
        self._process.kill()
        self._process.wait()
        self._reader.join()
        self._process.stdout.close()


class GatewayCase(unittest.TestCase):
    """`serve` starts a daemon with a LAN side and a WAN side. At its end a test's daemon must leave
    in order when it is told to, which is also when the sanitizers speak."""

    maxDiff = None
    host_name = "ap"

    def setUp(self):
        self.router = self.make_namespace()
        self.lan = self.join_lan("lan0", GATEWAY, HOST)
        # In memory where there is such a place: a daemon that is not told what to do within a second
        # leaves, and a disk that others write to can be that slow.
        memory = "/dev/shm" if os.path.isdir("/dev/shm") else None
        self.folder = tempfile.mkdtemp(prefix="palinode-", dir=memory)
        self.addCleanup(shutil.rmtree, self.folder)
        for name in ("run", "store/upnp", "store/upnpm"):
            os.makedirs(os.path.join(self.folder, name))
        shutil.copytree(os.path.join(ETC, "upnp"), os.path.join(self.folder, "etc", "upnp"))
        self.platform = self.make_platform()
        self.daemon = None
        self._mark = 0

    def make_namespace(self):
        namespace = netns.Namespace()
        self.addCleanup(namespace.close)
        return namespace

    def make_platform(self):
        platform = ScriptedPlatform(self.folder)
        self.addCleanup(platform.close)
        platform.interfaces = {LAN: interface(LAN, "lan0", self.index("lan0"), display="LAN"),
                               WAN: interface(WAN, "wan0", display="WAN")}
        platform.addresses = {LAN_ADDRESS_ID: address(LAN_ADDRESS_ID, LAN, GATEWAY),
                              WAN_ADDRESS_ID: address(WAN_ADDRESS_ID, WAN, WAN_ADDRESS)}
        return platform

    def join_lan(self, link, gateway, host):
        """Connects a host in its own namespace to the router's link `link`."""
        namespace = self.make_namespace()
        self.router.link(link, namespace, "eth0")
        self.router.ip("addr", "add", f"{gateway}/24", "dev", link)
        namespace.ip("addr", "add", f"{host}/24", "dev", "eth0")
        return LanHost(namespace, "eth0", host, gateway)

    def index(self, link):
        with self.router.entered():
            return socket.if_nametoindex(link)

    def start_daemon(self):
        """Starts a daemon on the store as it is, and waits until it is connected."""
        registrations = len([r for r in self.platform.requests((0,), lm.BROKER_REGISTER)])
        self.daemon = Daemon(self.router, self.folder, self.host_name)
        self._mark = 0
        self.addCleanup(self._end, self.daemon)
        self.platform.wait_for_connection(registrations + 1)
        return self.daemon

    def _end(self, daemon):
        if daemon.running:
            daemon.terminate()
            self.assertEqual(daemon.wait(), 0, daemon.log())

    def add_object(self, interface_id, kind, disabled=False):
        return self.platform.request(lm.CMD_ADD, {lm.DISABLED: disabled, 0x08000001: interface_id,
                                                  0x08000002: kind})

    def set_settings(self, **settings):
        keys = {"enabled": ENABLED, "allow_disable": ALLOW_DISABLE, "show_dummy": SHOW_DUMMY}
        reply = self.platform.request(lm.CMD_SET_SETTINGS,
                                      {keys[name]: value for name, value in settings.items()})
        self.assertEqual(reply, {})

    def serve(self, wan=True):
        """Starts a daemon that serves the LAN, and the WAN if asked to."""
        self.start_daemon()
        self.configure(wan)

    def configure(self, wan=True):
        self.add_object(LAN, INTERNAL)
        if wan:
            self.add_object(WAN, EXTERNAL)
        self.set_settings(enabled=True, allow_disable=True, show_dummy=True)
        self.platform.forget_requests()

    def notify(self, command, source, fields):
        """Notifies the daemon, and returns when it has handled that."""
        self.platform.notify(command, source, fields)
        self.platform.request(lm.CMD_GET_SETTINGS)

    def notify_addresses(self, *records):
        self.notify(lm.CMD_CHANGED, (20, 1), {lm.RECORDS: list(records)})

    def notify_states(self, *records):
        self.notify(lm.CMD_CHANGED, (20, 0), {lm.RECORDS: list(records)})

    def notify_interface(self, record):
        self.notify(lm.CMD_INTERFACE, (20, 0), record)

    def log_mark(self):
        """The index in the log after everything that the daemon has done. Needs a LAN side that
        serves: it is an empty datagram that makes the mark."""
        self.lan.send_search(b"").close()
        self._mark = self.daemon.wait_for_line("search recvfrom failed", self._mark)
        return self._mark

    def assert_logged(self, since, *lines):
        """Exactly these lines were logged since that mark."""
        end = self.log_mark() - 1
        self.assertEqual(self.daemon.log()[since:end], list(lines))

    def assert_serves(self):
        """The gateway answers a search and a request as if nothing had been."""
        self.assertEqual(len(self.lan.search("upnp:rootdevice")), 1)
        self.assertEqual(self.lan.get("/gateway.xml").status, 200)

