"""What scripts/footprint does once everything is built."""

import argparse
import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from support import pcp
from support.name_server import NameServer
from support.network import LAN_ADDRESS, Network, SoapError, wait_until
from support.processes import is_asleep, memory, wait_until_at_rest
from support.router import CommandFailed, Router
from support.subscriber import Subscriber

# $PALINODE_BIN also has what this folder lacks and a router needs.
MEASURED = pathlib.Path(os.environ["PALINODE_MEASURED"]).resolve()
NAMES = ("palinode-igd", "palinode-pcp", "lumend", "lumen-resolver", "lumen-web", "lumenctl")
PORTS = range(20000, 21000)
# By NAT-PMP a host has at most 64.
PORTS_PER_HOST = 60
KB, KIB = 1000, 1024

WAITS = "#include <unistd.h>\nint main(void) { return pause(); }\n"
REFERENCES = {"C, waits": (), "C, waits, static": ("-static",)}

STATES = ("idle", "1,000 ports", "closed again")
# What the columns have, by the kernel's names.
FIGURES = {"resident": ("Rss",), "own": ("Private_Clean", "Private_Dirty"),
           "dirty": ("Private_Dirty",)}
COLUMN = 9
MEANING = ("In kB of 1,000 bytes, without symbols.",
           "In kB of 1,000 bytes. On disk: without symbols. Resident: the memory in use; own: what of"
           "\nit no other process shares; dirty: what of that is in no file, and so cannot be dropped."
           "\nThe ports of palinode-pcp are opened by NAT-PMP, those of the others by UPnP.")


def stripped_size(program, strip):
    """In bytes, of the file that an installation has."""
    with tempfile.NamedTemporaryFile() as copy:
        subprocess.run([strip, "-o", copy.name, program], check=True)
        return os.path.getsize(copy.name)


def strip_of_build():
    """The strip that belongs to the compiler of the programs."""
    with contextlib.suppress(OSError):
        cache = (MEASURED.parent / "CMakeCache.txt").read_text(encoding="utf-8")
        if found := re.search(r"^CMAKE_STRIP:FILEPATH=(.+)$", cache, re.MULTILINE):
            return found[1]
    return "strip"


def figures(pid):
    """The memory of a process in kB of 1,000 bytes, as the sizes of files are told."""
    counted = memory(pid)
    return {figure: sum(counted[name] for name in names) * KIB // KB
            for figure, names in FIGURES.items()}


def measure_references():
    """Programs in C that do nothing but wait, as rows."""
    rows = {}
    with tempfile.TemporaryDirectory(prefix="palinode-") as folder:
        source, program = pathlib.Path(folder, "waits.c"), pathlib.Path(folder, "waits")
        source.write_text(WAITS, encoding="ascii")
        for name, options in REFERENCES.items():
            subprocess.run(["gcc", "-O2", *options, "-o", program, source], check=True)
            with subprocess.Popen([program]) as process:
                try:
                    wait_until(lambda: is_asleep(process.pid), f"'{name}' waits")
                    rows[name] = {"size": stripped_size(program, "strip"),
                                  STATES[0]: figures(process.pid)}
                finally:
                    process.kill()
    return rows


def ask_natpmp(host, lifetime):
    """Lets hosts map all ports by NAT-PMP, or end them with lifetime 0."""
    for number, port in enumerate(PORTS):
        if number % PORTS_PER_HOST == 0:
            address = f"192.168.88.{128 + number // PORTS_PER_HOST}"
            if lifetime:
                host.namespace.ip("address", "add", f"{address}/24", "dev", host.LINK)
            sock = host.namespace.socket(socket.SOCK_DGRAM)
            sock.settimeout(10)
            sock.bind((address, 0))
            sock.connect((LAN_ADDRESS, pcp.PORT))
        sock.send(pcp.natpmp_map(pcp.TCP, port, port, lifetime))
        if (answer := sock.recv(100))[2:4] != b"\0\0":
            raise AssertionError(f"NAT-PMP: result {answer[3]}")


def measure_router(rows):
    """Adds the memory of a router's programs to their rows."""
    with Network() as network, Router(network) as router, NameServer(network.wan) as server, \
            Subscriber(network.lan[1].speak_to()) as subscriber:
        router.ask_name_server(network.wan.address)
        router.set_up()
        router.lumenctl("pcp", "on")
        host = network.lan[0]
        control = host.connection_control()
        # A subscriber's name starts the resolver.
        server.hosts["player.lan"] = network.lan[1].address
        subscriber.subscribe(host.connection_events(),
                             callback=f"http://player.lan:{subscriber.port}/")
        subscriber.event()
        subscriber.unsubscribe()

        pids = {"lumend": router.lumend.pid, "palinode-igd": router.gateway_pid(),
                "palinode-pcp": router.service("pcp")["process"],
                "lumen-resolver": router.service("resolver")["process"]}

        def look(state, names):
            # A second after a change lumend tidies up.
            wait_until_at_rest(pids.values(), seconds=2.0)
            for name in names & rows.keys():
                rows[name][state] = figures(pids[name])

        router.lumenctl("nat", "policy", "set", f"max-rules-per-client={len(PORTS)}")
        look(STATES[0], pids.keys())
        by_natpmp = {"palinode-pcp"}
        for port in PORTS:
            host.open_port(port, "TCP", control=control)
        look(STATES[1], pids.keys() - by_natpmp)
        for port in PORTS:
            host.close_port(port, "TCP", control=control)
        look(STATES[2], pids.keys() - by_natpmp)
        ask_natpmp(host, 3600)
        look(STATES[1], by_natpmp)
        ask_natpmp(host, 0)
        look(STATES[2], by_natpmp)


def table(rows):
    """The rows as lines of text."""
    width = max(map(len, rows))
    states = [state for state in STATES if any(state in row for row in rows.values())]
    heads = [" " * (width + COLUMN), " " * width + "on disk".rjust(COLUMN)]
    for state in states:
        heads[0] += f" | {state:{len(FIGURES) * COLUMN}}"
        heads[1] += " | " + "".join(figure.rjust(COLUMN) for figure in FIGURES)
    lines = [head.rstrip() for head in heads if head.strip()]
    for name, row in rows.items():
        line = name.ljust(width) + str(row["size"] // KB).rjust(COLUMN)
        for state in states:
            line += " | " + "".join(str(row[state][figure] if state in row else "-").rjust(COLUMN)
                                    for figure in FIGURES)
        lines.append(line)
    return "\n".join([*lines, "", MEANING[bool(states)]])


def measure(sizes_only):
    strip = strip_of_build()
    rows = {name: {"size": stripped_size(MEASURED / name, strip)} for name in NAMES
            if (MEASURED / name).exists()}
    if not sizes_only:
        measure_router(rows)
        rows.update(measure_references())
    return rows


def report(measuring, in_json, show):
    """Prints what `measuring` returns: in JSON, or as `show` puts it."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    os.sync()  # what a program has of a file that was just written counts as dirty
    try:
        rows = measuring()
    except KeyboardInterrupt:
        sys.exit("\nended by Ctrl-C; nothing is left behind")
    except (AssertionError, CommandFailed, SoapError, OSError) as error:
        sys.exit(f"scripts/footprint: {error}")
    print(json.dumps(rows, indent=2) if in_json else show(rows))


def main():
    parser = argparse.ArgumentParser(prog="scripts/footprint")
    parser.add_argument("--sizes", action="store_true")
    parser.add_argument("--json", action="store_true")
    arguments = parser.parse_args()
    report(lambda: measure(arguments.sizes), arguments.json, table)


if __name__ == "__main__":
    main()
