"""What scripts/run does once everything is built.

    demo.py                                  one port's life in a network of namespaces
    demo.py --internal IF... --external IF   serves real interfaces until Ctrl-C
"""

import argparse
import contextlib
import os
import pathlib
import signal
import sys
import textwrap
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from support import pcp
from support.network import (ANSWER_LIMIT, LAN_ADDRESS, LAN_BRIDGE, WAN_ADDRESS, WAN_LINK, Network,
                             exchange_tcp, exchange_udp, tcp_refused, udp_refused, wait_until)
from support.netns import Namespace
from support.router import CommandFailed, Router
from support.subscriber import Subscriber

TCP_PORT = 8080
UDP_PORT = 27015
UDP_SOURCE = 40001
NAT_PMP_PORT = 6881
PCP_PORT = 6882
LEASE = 600  # seconds
PORT_COUNT = "PortMappingNumberOfEntries"


@contextlib.contextmanager
def step(text):
    """Says in one line what was done and how long it took."""
    if sys.stdout.isatty():
        print(f"   {text} ...", end="\r", flush=True)
    started = time.monotonic()
    try:
        yield
    except BaseException:
        print(f"not ok  {text} ({time.monotonic() - started:.1f} s)", flush=True)
        raise
    print(f"ok  {text} ({time.monotonic() - started:.1f} s)", flush=True)


def expect(true, what):
    if not true:
        raise AssertionError(what)


@contextlib.contextmanager
def log_on_failure(router):
    try:
        yield
    except BaseException:
        show("what the router logged", router.log())
        raise


def show(title, text):
    print(f"\n{title}\n{textwrap.indent(text.strip(), '    ')}\n", flush=True)


def demonstrate():
    with contextlib.ExitStack() as undo:
        with step("made a LAN host, a router and a WAN host in namespaces"):
            network = undo.enter_context(Network())
        host, wan = network.lan[0], network.wan
        with step("started the platform on the router"):
            router = undo.enter_context(Router(network))
            undo.enter_context(log_on_failure(router))
        with step(f"lumenctl upnp setup --internal {LAN_BRIDGE} --external {WAN_LINK}"):
            router.set_up()
        with Subscriber(network.lan[1].speak_to()) as subscriber:
            with step("another LAN host subscribed to the gateway's events"):
                subscriber.subscribe(network.lan[1].connection_events())
                subscriber.event()
            port_life(router, host, wan, subscriber)
        with step("ended the gateway and the platform"):
            expect(router.stop() == 0, "lumend failed at its end")
        expect(not router.kernel_map(), "the NAT table is still there")


def leases(router, host, wan):
    """Ports that the host opens to itself in the two other languages, for ten minutes each."""
    with step("lumenctl pcp on"):
        router.lumenctl("pcp", "on")
    with step(f"natpmpc opened TCP port {NAT_PMP_PORT} for {LEASE} s by NAT-PMP"):
        host.namespace.run("natpmpc", "-g", LAN_ADDRESS, "-a", str(NAT_PMP_PORT), "80", "tcp",
                           str(LEASE))
    with step(f"a PCP request opened TCP port {PCP_PORT} for {LEASE} s"):
        with host.udp(to=(LAN_ADDRESS, pcp.PORT)) as sock:
            sock.send(pcp.pcp_map(pcp.TCP, 81, PCP_PORT, host=host.address, lifetime=LEASE))
            answer = sock.recv(1100)
        expect(answer[3] == 0, f"PCP's result is {answer[3]}")
    for port, to in ((NAT_PMP_PORT, 80), (PCP_PORT, 81)):
        with step(f"bytes from the WAN host came through TCP {WAN_ADDRESS}:{port} and back"):
            exchange_tcp(wan, WAN_ADDRESS, port, host, to)


def port_life(router, host, wan, subscriber):
    with step("upnpc on the LAN host discovered the gateway"):
        found = host.upnpc("-s", discover=True)
        expect(f"ExternalIPAddress = {WAN_ADDRESS}" in found, found)
    with step(f"upnpc opened TCP port {TCP_PORT} and UDP port {UDP_PORT}"):
        host.upnpc("-a", host.address, "80", str(TCP_PORT), "tcp")
        host.upnpc("-a", host.address, str(UDP_PORT), str(UDP_PORT), "udp")
    with step("the subscriber was told of both"):
        events = []
        while not events or events[-1].properties[PORT_COUNT] != "3":  # with the list's dummy
            event = subscriber.event()
            events += [event] if PORT_COUNT in event.properties else []
    show("what the subscriber got first", events[0].raw.decode())
    udp = wan.udp(UDP_SOURCE, to=(WAN_ADDRESS, UDP_PORT))
    with step(f"bytes from the WAN host came through TCP {WAN_ADDRESS}:{TCP_PORT} and back"):
        exchange_tcp(wan, WAN_ADDRESS, TCP_PORT, host, 80)
    with udp, step(f"bytes from the WAN host came through UDP {WAN_ADDRESS}:{UDP_PORT} and back"):
        exchange_udp(udp, host, UDP_PORT)
    leases(router, host, wan)
    show("lumenctl status", router.lumenctl("status"))
    show("nft list table ip lumen", router.kernel_map())
    with step("lumenctl web on"):
        router.lumenctl("web", "on")
    with step(f"the LAN host fetched http://{LAN_ADDRESS}/metrics"):
        metrics = fetch(host, "/metrics")
        expect("palinode_gateway_up 1\n" in metrics, metrics)
    show(f"http://{LAN_ADDRESS}/metrics; in the LAN host's namespace a browser shows "
         f"http://{LAN_ADDRESS}/", metrics)
    with step("upnpc closed its ports, and lumenctl pcp off the others"):
        host.upnpc("-d", str(TCP_PORT), "tcp")
        host.upnpc("-d", str(UDP_PORT), "udp")
        router.lumenctl("pcp", "off")
        expect(not router.ports(), "a port is still open")
    with step(f"the WAN host is refused on TCP port {TCP_PORT}"):
        expect(tcp_refused(wan, WAN_ADDRESS, TCP_PORT, host, 80), "it was let through")
    with step(f"the WAN host is refused on UDP port {UDP_PORT}, from the same source port too"):
        for source in (UDP_SOURCE, UDP_SOURCE + 1):
            with wan.udp(source, to=(WAN_ADDRESS, UDP_PORT)) as late:
                wait_until(lambda: udp_refused(late, host, UDP_PORT),
                           f"the WAN host is refused from port {source}")


def fetch(host, path):
    """What the status page serves the host there."""
    with host.namespace.socket() as sock:
        sock.settimeout(ANSWER_LIMIT)
        sock.connect((LAN_ADDRESS, 80))
        sock.sendall(f"GET {path} HTTP/1.0\r\nHost: {LAN_ADDRESS}\r\n\r\n".encode())
        text = b""
        while part := sock.recv(65536):
            text += part
    head, _, body = text.partition(b"\r\n\r\n")
    expect(head.startswith(b"HTTP/1.") and b" 200 " in head.split(b"\r\n")[0], head.decode())
    return body.decode()


class RealNetwork:
    """The network that this machine is the router of."""

    def __init__(self):
        self.router = Namespace.current()


def serve(internal, external):
    """Serves the interfaces of this machine in the foreground, with the log on standard output."""
    with contextlib.ExitStack() as undo:
        with step("started the platform"):
            router = undo.enter_context(Router(RealNetwork(), verbose=True))
        with step("set up the gateway"):
            arguments = [word for name in internal for word in ("--internal", name)]
            router.lumenctl("upnp", "setup", *arguments, "--external", external)
        with step("switched the status page on"):
            page = router.lumenctl("web", "on").strip()
        show("lumenctl status", router.lumenctl("status"))
        print(f"Open in a browser on the LAN: {page.removeprefix('status page: ')}", flush=True)
        print(f"Serving. lumenctl --root {router.root} speaks to it; Ctrl-C ends it.", flush=True)
        router.lumend.wait()
        raise AssertionError(f"lumend ended with {router.lumend.returncode}")


def main():
    parser = argparse.ArgumentParser(
        prog="scripts/run",
        description="Without arguments: shows one port's life in a network of namespaces. With "
                    "interfaces: serves them in the foreground until Ctrl-C.")
    parser.add_argument("--internal", metavar="IF", nargs="+", action="extend", default=[],
                        help="a LAN interface; several are allowed")
    parser.add_argument("--external", metavar="IF", help="the WAN interface")
    arguments = parser.parse_args()
    if bool(arguments.internal) != bool(arguments.external):
        parser.error("--internal and --external go together")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        if arguments.external:
            serve(arguments.internal, arguments.external)
        else:
            demonstrate()
            print("All steps done; nothing is left behind.")
    except KeyboardInterrupt:
        print("\nended by Ctrl-C; nothing is left behind")
    except (AssertionError, CommandFailed, OSError) as error:
        sys.exit(f"scripts/run: {error}")


if __name__ == "__main__":
    main()
