"""A router at work: lumend and what it starts, in the router's namespace of a Network, with a
folder of its own as /lumen. The built programs are found in $PALINODE_BIN. Needs root."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from support.closing import Closing
from support.network import LAN_BRIDGE, WAN_LINK, wait_until

TOP = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = pathlib.Path(os.environ.get("PALINODE_BIN", TOP / "build" / "bin")).resolve()

# Services run as users that need not exist, and that no other program on a machine is.
SERVICE_USER = 64040
RESOLVER_USER = 64014
WEB_USER = 64042
PCP_USER = 64043

GATEWAY = "upnp"


class CommandFailed(Exception):
    """lumenctl ended with another status than 0."""

    def __init__(self, status, error):
        super().__init__(f"lumenctl ended with {status}: {error}")
        self.status = status
        self.error = error


class Router(Closing):
    """lumend in a network's router; starts at once, ends with close or with the process."""

    def __init__(self, network, service_user=SERVICE_USER, verbose=False, private=None, top=TOP,
                 programs=PROGRAMS):
        """With `verbose` the programs' log goes to this process's standard output. `private` are
        folders that lumend finds in place of the system's; see Namespace.popen. Another checkout's
        `top` and `programs` make a router of that."""
        self.network = network
        self.programs = programs
        self.namespace = network.router
        self.private = private
        self.lumend = None
        self._log = None
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="palinode-"))
        try:
            make_root(self.root, service_user, top, programs)
            if not verbose:
                self._log = open(self.root / "log", "ab", buffering=0)
            self.start()
        except BaseException:
            self.close()
            raise

    def start(self):
        """Starts lumend, which must not run, and waits until it answers."""
        self.launch()
        wait_until(self._answers, "lumend answers")

    def launch(self):
        """Starts lumend and does not wait for it."""
        self.lumend = self.namespace.popen(str(self.programs / "lumend"), "--root", str(self.root),
                                           private=self.private, host_name="router",
                                           stdin=subprocess.DEVNULL, stdout=self._log,
                                           stderr=subprocess.STDOUT if self._log else None)

    def _answers(self):
        if self.lumend.poll() is not None:
            said = f": {self.log()}" if self._log else "; what it said is above"
            raise AssertionError(f"lumend ended with {self.lumend.returncode}{said}")
        with contextlib.suppress(CommandFailed):
            return self.lumenctl("identity")

    # The administrator.

    def lumenctl(self, *arguments):
        """Runs lumenctl; returns what it printed. Raises CommandFailed."""
        done = subprocess.run([self.programs / "lumenctl", "--root", self.root, *arguments],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=30,
                              check=False)
        if done.returncode != 0:
            raise CommandFailed(done.returncode, done.stderr.strip())
        return done.stdout

    def ask(self, *arguments):
        """What lumenctl answers in JSON."""
        return json.loads(self.lumenctl("--json", *arguments))

    def set_up(self, *options):
        """Makes the router a gateway and waits until a LAN host can control it."""
        self.lumenctl("upnp", "setup", "--internal", LAN_BRIDGE, "--external", WAN_LINK, *options)
        self.wait_until_controllable()

    def wait_until_controllable(self, **where):
        """Waits until the gateway serves the LAN with a WAN side; returns its control path."""
        def control():
            with contextlib.suppress(OSError, AssertionError):
                return self.network.lan[0].connection_control(**where)

        return wait_until(control, "the gateway can be controlled")

    def ask_name_server(self, address):
        """From now on the resolver asks that name server instead of those of this machine."""
        (self.root / "etc" / "resolv.conf").write_text(f"nameserver {address}\n")

    # What there is.

    def status(self):
        return self.ask("status")

    def ports(self):
        """The open ports as "8080/tcp", with their records."""
        return {f"{p['port']}/{p['protocol']}": p for p in self.ask("nat", "list")}

    def interface(self, name):
        return next((i for i in self.status()["interfaces"] if i["name"] == name), None)

    def service(self, name=GATEWAY):
        """The record of a service."""
        return next(s for s in self.ask("service", "list") if s["name"] == name)

    def gateway_pid(self):
        """The gateway's process; 0 when it does not run."""
        return self.service()["process"]

    def kernel_map(self):
        """The ruleset of the platform's table as nft prints it; empty when there is no table."""
        try:
            return self.namespace.run("nft", "list", "table", "ip", "lumen")
        except AssertionError:
            return ""

    def log(self):
        """All that lumend and its services have printed."""
        path = self.root / "log"
        return path.read_text(errors="replace") if path.exists() else ""

    # The end.

    def stop(self):
        """Ends lumend the orderly way; returns its exit status."""
        self.lumend.send_signal(signal.SIGTERM)
        return self.lumend.wait(timeout=10)

    def kill(self):
        """Ends lumend with SIGKILL."""
        self.lumend.kill()
        self.lumend.wait(timeout=10)

    def close(self):
        if self.lumend and self.lumend.poll() is None:
            try:
                self.stop()
            except subprocess.TimeoutExpired:
                self.kill()
        if self._log:
            self._log.close()
        shutil.rmtree(self.root)


def make_root(root, service_user, top=TOP, programs=PROGRAMS):
    """Fills `root` with what an installation has as /lumen, its services run as `service_user`."""
    root.chmod(0o755)
    shutil.copytree(top / "etc", root / "etc", ignore=shutil.ignore_patterns("CMakeLists.txt"))
    services = root / "etc" / "services"
    shutil.rmtree(services, ignore_errors=True)
    services.mkdir()
    (services / f"{GATEWAY}.ini").write_text(f"""[service]
name = {GATEWAY}
number = 40
executable = {programs / "palinode-igd"}
user = {service_user}
boot = yes
stores = upnp upnpm
network = internal
ports = yes
""")
    (services / "resolver.ini").write_text(f"""[service]
name = resolver
number = 14
executable = {programs / "lumen-resolver"}
user = {RESOLVER_USER}
answers-only = yes
network = name-servers
""")
    (services / "web.ini").write_text(f"""[service]
name = web
number = 42
executable = {PROGRAMS / "lumen-web"}
user = {WEB_USER}
boot = yes
reads = yes
stores = web
network = answers
capabilities = net-bind-service
""")
    (services / "pcp.ini").write_text(f"""[service]
name = pcp
number = 41
executable = {PROGRAMS / "palinode-pcp"}
user = {PCP_USER}
boot = yes
ports = yes
longest-lease = 86400
stores = pcp
network = internal
""")
    for name in ("run", "store"):
        (root / name).mkdir()
