"""Programs that people run, which open their ports by NAT-PMP or PCP where UPnP is off."""

import hashlib
import os
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
import xml.etree.ElementTree

from support.network import WAN_ADDRESS
from support.router_case import RouterCase

HANDSHAKE = b"\x13BitTorrent protocol"


def bencoded(value):
    """As BitTorrent writes numbers, texts and dictionaries (BEP 3)."""
    if isinstance(value, int):
        return b"i%de" % value
    if isinstance(value, bytes):
        return b"%d:%s" % (len(value), value)
    return b"d" + b"".join(bencoded(key) + bencoded(value[key]) for key in sorted(value)) + b"e"


class ClientCase(RouterCase):
    PROGRAM = None
    PACKAGE = None

    def setUp(self):
        if shutil.which(self.PROGRAM) is None:
            self.skipTest(f"{self.PROGRAM} is not installed; Debian's package is {self.PACKAGE}")
        super().setUp()
        # The programs have one switch for both languages.
        self.router.lumenctl("upnp", "settings", "set", "enabled=off")
        self.router.lumenctl("pcp", "on")
        self.host = self.lan[0]
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def start(self, *arguments):
        """Starts the program on the LAN host, until the end of the test."""
        # Syncthing is one process then, and not another one that starts it again.
        environment = {**os.environ, "HOME": self.folder, "STMONITORED": "yes"}
        process = self.host.namespace.popen(self.PROGRAM, *arguments, env=environment,
                                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                            stderr=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def port(self):
        """The only open port and its rule, or nothing."""
        ports = self.router.ports()
        self.assertLessEqual(len(ports), 1)
        return next(iter(ports.items()), None)

    def wait_for_port(self):
        self.wait_until(self.port, "the program opens its port", 60)
        return self.port()


class BitTorrentCase(ClientCase):
    INFO = {b"length": 16384, b"name": b"file", b"piece length": 16384,
            b"pieces": hashlib.sha1(bytes(16384)).digest()}

    def torrent(self):
        """The path of a file that tells the program what to share."""
        path = os.path.join(self.folder, "file.torrent")
        with open(path, "wb") as file:
            file.write(bencoded({b"announce": b"http://127.0.0.1:1/", b"info": self.INFO}))
        return path

    def answers_at(self, port):
        """Whether a host on the Internet that asks for the shared file is answered. A program that
        does not share it yet resets the connection."""
        ours = HANDSHAKE + bytes(8) + hashlib.sha1(bencoded(self.INFO)).digest()
        with self.wan.connect(WAN_ADDRESS, port) as peer:
            peer.send(ours + b"-TS0000-0123456789ab")
            try:
                answer = peer.recv(len(ours), socket.MSG_WAITALL)
            except ConnectionResetError:
                return False
        return (answer[:20], answer[28:]) == (HANDSHAKE, ours[28:])


class TransmissionTest(BitTorrentCase):
    PROGRAM, PACKAGE = "transmission-cli", "transmission-cli"

    # Promise [pcp-transmission]: Transmission opens its port by NAT-PMP where UPnP is off, is
    # reached from the Internet, and closes it when it ends.
    def test_transmission_opens_its_port_is_reached_and_closes_it(self):
        program = self.start("-m", "-p", "6891", "-w", self.folder, "-g", self.folder,
                             self.torrent())
        key, rule = self.wait_for_port()
        self.assertEqual((key, rule["owner"], rule["client"], rule["client_port"]),
                         ("6891/tcp", "pcp", self.host.address, 6891))
        self.assertGreater(rule["seconds_left"], 0)

        self.assertTrue(self.answers_at(6891))

        # It asks nothing within 8 seconds of what it asked before, even when it ends.
        self.wait_until(lambda: self.port()[1]["seconds"] > 8, "the port gets older", 30)
        program.send_signal(signal.SIGINT)
        self.wait_until(lambda: self.port() is None, "the port is closed", 60)


class QBittorrentTest(BitTorrentCase):
    PROGRAM, PACKAGE = "qbittorrent-nox", "qbittorrent-nox"
    SETTINGS = """\
[LegalNotice]
Accepted=true

[BitTorrent]
Session\\Port=6892
Session\\DHTEnabled=false
Session\\LSDEnabled=false

[Network]
PortForwardingEnabled=true

[Preferences]
WebUI\\Address=127.0.0.1
"""

    def configure(self):
        folder = os.path.join(self.folder, "qBittorrent", "config")
        os.makedirs(folder)
        with open(os.path.join(folder, "qBittorrent.conf"), "w", encoding="utf-8") as file:
            file.write(self.SETTINGS)

    # Promise [pcp-qbittorrent]: qBittorrent opens its ports where UPnP is off, is reached from the
    # Internet, and closes them when it ends.
    def test_qbittorrent_opens_its_ports_is_reached_and_closes_them(self):
        self.configure()
        program = self.start(f"--profile={self.folder}", f"--save-path={self.folder}",
                             "--skip-dialog=true", self.torrent())
        expected = {"6892/tcp", "6892/udp"}
        self.wait_until(lambda: set(self.router.ports()) == expected, "its ports are open", 60)
        for rule in self.router.ports().values():
            self.assertEqual((rule["owner"], rule["client"], rule["client_port"]),
                             ("pcp", self.host.address, 6892))
            self.assertGreater(rule["seconds_left"], 0)
        self.wait_until(lambda: self.answers_at(6892), "the file is shared", 30)
        program.send_signal(signal.SIGTERM)
        self.wait_until(lambda: not self.router.ports(), "the ports are closed", 60)


class SyncthingTest(ClientCase):
    PROGRAM, PACKAGE = "syncthing", "syncthing"
    # The shortest that it can be told.
    OPTIONS = {"natEnabled": "true", "natLeaseMinutes": "2", "natRenewalMinutes": "1",
               "globalAnnounceEnabled": "false", "localAnnounceEnabled": "false",
               "relaysEnabled": "false", "crashReportingEnabled": "false", "urAccepted": "-1",
               "autoUpgradeIntervalH": "0", "startBrowser": "false"}

    def configure(self):
        self.host.namespace.run(self.PROGRAM, "generate", f"--home={self.folder}",
                                "--no-default-folder", "--skip-port-probing")
        path = os.path.join(self.folder, "config.xml")
        tree = xml.etree.ElementTree.parse(path)
        options = tree.getroot().find("options")
        for name in ("listenAddress", *self.OPTIONS):
            for element in options.findall(name):
                options.remove(element)
        for name, text in {"listenAddress": "tcp://0.0.0.0:22000", **self.OPTIONS}.items():
            xml.etree.ElementTree.SubElement(options, name).text = text
        tree.write(path)

    # Promise [pcp-syncthing]: Syncthing opens its port by NAT-PMP where UPnP is off, is reached
    # from the Internet and renews its lease before it ends; when its host vanishes, the port closes
    # with the lease.
    def test_syncthing_opens_and_renews_its_port_which_ends_with_its_lease(self):
        self.configure()
        self.host.namespace.ip("link", "set", "lo", "up")
        program = self.start("serve", f"--home={self.folder}", "--no-browser",
                             "--gui-address=127.0.0.1:8384")
        key, rule = self.wait_for_port()
        self.assertEqual((rule["owner"], rule["client"], rule["client_port"]),
                         ("pcp", self.host.address, 22000))
        self.assertLessEqual(rule["seconds_left"], 120)

        context = ssl.create_default_context()
        context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
        with self.wan.connect(WAN_ADDRESS, int(key.split("/")[0])) as peer:
            with context.wrap_socket(peer) as secured:
                self.assertIn(b"syncthing", secured.getpeercert(binary_form=True))

        self.wait_until(lambda: self.port()[1]["seconds_left"] < 90, "the lease gets older", 60)
        self.wait_until(lambda: self.port()[1]["seconds_left"] > 110, "the lease is renewed", 90)
        self.assertEqual(self.port()[0], key)

        program.kill()
        self.wait_until(lambda: self.port() is None, "the lease ends", 125)
        self.assertNotIn(WAN_ADDRESS, self.router.kernel_map())
