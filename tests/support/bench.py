"""What the gateway costs: how long a LAN host waits for it, how much processor time it and lumend
take, and, beside each of these figures, what a server takes that only moves as many bytes."""

import contextlib
import dataclasses
import os
import pathlib
import random
import signal
import socket
import statistics
import subprocess
import tempfile
import time

from support import lm, pcp
from support.attacks import CROWD, CROWD_NETWORK, subscription
from support.lan import HTTP_PORT, SSDP_GROUP, SSDP_PORT, search_request
from support.network import (CONNECTION_SERVICE, DESCRIPTION, LAN_ADDRESS, Network, wait_until)
from support.router import PROGRAMS, TOP, Router

# Beside the programs' folder; of this checkout, whichever build is measured.
TOOLS = PROGRAMS.parent / "bench"
BARE_PORT, BARE_DATAGRAM_PORT = 2829, 2830
SUBSCRIBERS_PORT = 4000
FIRST_PORT = 10000
GATEWAY_SERVICE = 40


@dataclasses.dataclass
class Build:
    name: str
    top: pathlib.Path = TOP
    programs: pathlib.Path = PROGRAMS


@dataclasses.dataclass
class Plan:
    """How much is measured."""

    ports: tuple = (10, 1000, 10000)
    subscribers: tuple = (1, 10, 100)
    rounds: int = 30
    requests: int = 100  # of each kind in a round
    changes: int = 10  # in a round
    starts: int = 20


QUICK = Plan(ports=(10, 100, 1000), rounds=2, requests=10, changes=2, starts=2)


class Figures:
    """Requests of one kind: how long each took, and processor time a request of each round. All in
    microseconds."""

    def __init__(self, kind, size="", unit=""):
        self.kind = kind
        self.size = size  # how many ports are open, or how many are notified
        self.unit = unit
        self.waits = []
        self.gateway = []  # or the program that answers NAT-PMP
        self.lumend = []
        self.bare_waits = []
        self.bare = []

    @property
    def median(self):
        return statistics.median(self.waits)

    @property
    def slowest_hundredth(self):
        """The 99th percentile."""
        return sorted(self.waits)[len(self.waits) * 99 // 100]

    @property
    def processor(self):
        """Of both programs."""
        return statistics.median(map(sum, zip(self.gateway, self.lumend)))

    @property
    def ratio(self):
        """How often the bare server's processor time both programs take."""
        if not self.bare:
            return None
        return statistics.median((gateway + lumend) / bare for gateway, lumend, bare
                                 in zip(self.gateway, self.lumend, self.bare))

    def record(self):
        """For JSON."""
        median = {name: statistics.median(values) if values else None for name, values in (
            ("gateway_us", self.gateway), ("lumend_us", self.lumend), ("bare_us", self.bare),
            ("bare_median_us", self.bare_waits))}
        return {"kind": self.kind, "size": self.size, "unit": self.unit,
                "requests": len(self.waits), "rounds": len(self.gateway),
                "median_us": self.median, "p99_us": self.slowest_hundredth, **median,
                "ratio": self.ratio}


@dataclasses.dataclass
class Memory:
    """Of one program, in KiB."""

    program: str
    ports: int
    resident: int
    own: int  # neither of a file nor shared


class Results:
    """What was measured of one build."""

    def __init__(self, build):
        self.build = build
        self.figures = {}
        self.memory = []

    def of(self, kind, size="", unit=""):
        return self.figures.setdefault((kind, size), Figures(kind, size, unit))

    def record(self):
        return {"build": self.build.name,
                "figures": [each.record() for each in self.figures.values()],
                "memory": [dataclasses.asdict(each) for each in self.memory]}


class Bench(contextlib.ExitStack):
    """A router of one build with a bare server beside the gateway, and the LAN host that asks both.
    To be closed."""

    def __init__(self, results, processor):
        """`processor` is the one that the programs run on."""
        super().__init__()
        self.results = results
        build = results.build
        with contextlib.ExitStack() as undo:
            self.network = undo.enter_context(Network())
            self._lift_limits_of_the_kernel()
            self.router = undo.enter_context(Router(self.network, top=build.top,
                                                    programs=build.programs))
            self.router.set_up()
            self.router.lumenctl("nat", "policy", "set", "max-rules=20000",
                                 "max-rules-per-client=20000")
            self.host = self.network.lan[0]
            self.host.namespace.ip("route", "add", "local", CROWD_NETWORK, "dev", "lo")
            self.lan = self.host.speak_to()
            self.control = self.host.connection_control()
            self.events = self.host.connection_events()
            self.gateway = self.router.gateway_pid()
            self.router.lumenctl("pcp", "on")
            self.pcp = self.router.service("pcp")["process"]
            self.lumend = self.router.lumend.pid
            self.bare = self._start_bare(undo, BARE_PORT)
            self.bare_datagrams = self._start_bare(undo, BARE_DATAGRAM_PORT, "--datagrams")
            for pid in (self.lumend, self.gateway, self.pcp, self.bare, self.bare_datagrams):
                run_undisturbed(pid, processor)
            self._meet_the_crowd()
            self.open = 0
            self._random = random.Random(1)
            self.push(undo.pop_all())

    def _lift_limits_of_the_kernel(self):
        # Thousands of connections end within the two minutes for which each is remembered.
        self.network.router.run(
            "sh", "-c", "cd /proc/sys/net/netfilter && echo 1 > nf_conntrack_tcp_timeout_time_wait")

    def _meet_the_crowd(self):
        """The router knows afterwards where each of its addresses is."""
        self._ask([f"GET {DESCRIPTION} HTTP/1.1\r\n\r\n".encode()] * len(CROWD))

    def _start_bare(self, undo, port, *options):
        server = self.network.router.popen(str(TOOLS / "bare_server"), *options, str(port))
        undo.callback(server.wait)
        undo.callback(server.kill)
        return server.pid

    # Requests.

    def _action(self, name, *arguments):
        return self.lan.invocation(self.control, CONNECTION_SERVICE, name, arguments)

    def opening(self, number):
        return self._action(
            "AddPortMapping", ("NewRemoteHost", ""), ("NewExternalPort", FIRST_PORT + number),
            ("NewProtocol", "TCP"), ("NewInternalPort", 8080),
            ("NewInternalClient", self.host.address), ("NewEnabled", "1"),
            ("NewPortMappingDescription", "bench"), ("NewLeaseDuration", "0"))

    def closing(self, number):
        return self._action("DeletePortMapping", ("NewRemoteHost", ""),
                            ("NewExternalPort", FIRST_PORT + number), ("NewProtocol", "TCP"))

    def listing(self):
        """Of any entry but the first, which is no port's."""
        return self._action("GetGenericPortMappingEntry",
                            ("NewPortMappingIndex", self._random.randint(1, self.open)))

    # What is measured.

    def open_ports(self, count):
        """Opens more ports until there are so many."""
        self._ask([self.opening(number) for number in range(self.open, count)])
        self.open = count

    def measure_requests(self, requests):
        """One round of each kind of request, with the ports that are open."""
        count = range(self.open, self.open + requests)
        for kind, texts in (
                ("description", [f"GET {DESCRIPTION} HTTP/1.1\r\n\r\n".encode()] * requests),
                ("GetExternalIPAddress", [self._action("GetExternalIPAddress")] * requests),
                ("AddPortMapping", [self.opening(number) for number in count]),
                ("DeletePortMapping", [self.closing(number) for number in count]),
                ("GetGenericPortMappingEntry", [self.listing() for _ in count])):
            self._measure(self.results.of(kind, self.open, "ports"), texts)

    def measure_natpmp(self, requests):
        """One round of each kind of request in NAT-PMP, with the ports that are open."""
        mapped = [pcp.natpmp_map(pcp.TCP, 5000 + number) for number in range(requests)]
        ended = [pcp.natpmp_map(pcp.TCP, 5000 + number, lifetime=0) for number in range(requests)]
        for kind, texts in (("NAT-PMP, address", [b"\0\0"] * requests),
                            ("NAT-PMP, map", mapped), ("NAT-PMP, renew", mapped),
                            ("NAT-PMP, end", ended)):
            self._measure(self.results.of(kind, self.open, "ports"), texts, count=1,
                          options=("--datagrams", CROWD[0], len(CROWD)),
                          where=(LAN_ADDRESS, pcp.PORT), program=self.pcp)

    def measure_searches(self, requests):
        """One round of searches for one target and for all of them."""
        replies = len(self.lan.search(search_request()))
        for kind, target, count in (("search, one target", "upnp:rootdevice", 1),
                                    ("search, all targets", "ssdp:all", replies)):
            self._measure(self.results.of(kind), [search_request(target)] * requests, count=count,
                          options=("--datagrams",), where=(SSDP_GROUP, SSDP_PORT))

    def subscribe(self, begin, end):
        """Subscribes these of the crowd."""
        requests = [subscription(self.events, address, SUBSCRIBERS_PORT)
                    for address in CROWD[begin:end]]
        # The first events arrive after the last subscription.
        counts = [0] * (len(requests) - 1) + [len(requests)]
        self._ask(requests, counts, listen_port=SUBSCRIBERS_PORT)

    def measure_changes(self, changes, subscribers):
        """One round of changes, each told to the subscribers: a port is opened or closed."""
        requests = [self.closing(0) if number % 2 else self.opening(0) for number in range(changes)]
        self._measure(self.results.of("change told to", subscribers, "subscribers"), requests,
                      count=subscribers, listen_port=SUBSCRIBERS_PORT)

    def measure_start(self):
        """Ends the gateway, asks the platform for it, and waits for its first answer."""
        os.kill(self.gateway, signal.SIGTERM)
        wait_until(lambda: self.router.gateway_pid() == 0, "the gateway has ended")
        figures = self.results.of("start to first answer")
        lumend = processor_time(self.lumend)
        request = f"GET {DESCRIPTION} HTTP/1.1\r\n\r\n".encode()
        with self._client("--until-answered", self.host.address, 1, LAN_ADDRESS,
                          HTTP_PORT) as client:
            client.stdin.write(framed([request], [0]))
            client.stdin.close()
            if client.stdout.readline() != b"refused\n":
                raise AssertionError("the gateway answers although it has ended")
            before = time.monotonic_ns()
            self._ask_gateway()
            _, answered, _, _ = map(int, client.stdout.read().split())
        self.gateway = self.router.gateway_pid()
        figures.waits.append((answered - before) / 1000)
        figures.gateway.append(processor_time(self.gateway) / 1000)
        figures.lumend.append((processor_time(self.lumend) - lumend) / 1000)

    def _ask_gateway(self):
        """Asks it for its settings over the platform, which starts it at once."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as platform:
            platform.settimeout(10)
            platform.connect(str(self.router.root / "run" / "lumen.sock"))
            platform.send(lm.encode(lm.Message({lm.DESTINATION: [GATEWAY_SERVICE, 0], lm.SERIAL: 1,
                                                lm.COMMAND: lm.CMD_GET_SETTINGS})))
            reply = lm.decode(platform.recv(lm.MAX_DATAGRAM))
            if reply.error() is not None:
                raise AssertionError(f"the gateway does not start: {reply.error()}")

    def note_memory(self):
        for program, pid in (("palinode-igd", self.gateway), ("palinode-pcp", self.pcp),
                             ("lumend", self.lumend)):
            self.results.memory.append(Memory(program, self.open, *memory(pid)))

    def _measure(self, figures, requests, count=0, options=(), where=(LAN_ADDRESS, HTTP_PORT),
                 listen_port=None, program=None):
        """One round: the requests to the gateway, or to the other `program`, then as many to the bare
        server."""
        counts = [count] * len(requests)
        program = program or self.gateway
        before = processor_time(program), processor_time(self.lumend)
        answers = self._ask(requests, counts, options, where, listen_port)
        after = processor_time(program), processor_time(self.lumend)
        figures.waits += [answer.wait for answer in answers]
        for values, begin, end in zip((figures.gateway, figures.lumend), before, after):
            values.append((end - begin) / 1000 / len(requests))

        bare, port = ((self.bare_datagrams, BARE_DATAGRAM_PORT) if options
                      else (self.bare, BARE_PORT))
        texts = [self._bare_request(*pair, count) for pair in zip(requests, answers)]
        before = processor_time(bare)
        answers = self._ask(texts, counts, options, (LAN_ADDRESS, port), listen_port)
        figures.bare.append((processor_time(bare) - before) / 1000 / len(requests))
        figures.bare_waits += [answer.wait for answer in answers]

    @staticmethod
    def _bare_request(request, answer, count):
        """As long as that request, for as long an answer; see bench/bare_server.cpp."""
        text = f"{answer.reply_bytes // (1 if answer.notify_bytes else max(count, 1))} {count} "
        if answer.notify_bytes:
            text += f"{CROWD[0]} {SUBSCRIBERS_PORT} {answer.notify_bytes} "
        return text.encode().ljust(len(request), b"x")

    def _ask(self, requests, counts=None, options=(), where=(LAN_ADDRESS, HTTP_PORT),
             listen_port=None):
        """Lets the client make the requests; returns an Answer for each."""
        last = () if listen_port is None else (listen_port,)
        sources = () if options else (CROWD[0], len(CROWD))
        with self._client(*options, *sources, *where, *last) as client:
            printed, _ = client.communicate(framed(requests, counts or [0] * len(requests)))
        if client.returncode != 0:
            raise AssertionError("not all requests were answered; the reason is above")
        return [Answer(*map(int, line.split())) for line in printed.splitlines()]

    def _client(self, *arguments):
        return self.host.namespace.popen(str(TOOLS / "client"), *map(str, arguments),
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)


@dataclasses.dataclass
class Answer:
    begin: int  # nanoseconds
    end: int
    reply_bytes: int
    notify_bytes: int

    @property
    def wait(self):
        """In microseconds."""
        return (self.end - self.begin) / 1000


def framed(requests, counts):
    """As the client reads them."""
    return b"".join(b"%d %d\n%b" % (len(request), count, request)
                    for request, count in zip(requests, counts))


def run_undisturbed(pid, processor):
    """From now on the program runs on this processor, and no usual one interrupts it."""
    with contextlib.suppress(OSError):  # what runs in a container may not be allowed to
        os.sched_setaffinity(pid, {processor})
        os.sched_setscheduler(pid, os.SCHED_FIFO, os.sched_param(1))


def processor_time(pid):
    """In nanoseconds; see the kernel's Documentation/scheduler/sched-stats.rst."""
    with open(f"/proc/{pid}/schedstat", encoding="ascii") as times:
        return int(times.read().split()[0])


def memory(pid):
    """Resident memory, and what of it is neither of a file nor shared, in KiB."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        next(rollup)
        sizes = {name: int(size) for name, size, _ in (line.split() for line in rollup)}
    return sizes["Rss:"], sizes["Anonymous:"]


def measure(results, plan, say=lambda line: None):
    """Measures all of `results` by turns, each number of open ports in a router of its own, so that
    what else the machine does meets all."""
    # What a disk costs that takes the log is not measured.
    if os.path.isdir("/dev/shm"):
        tempfile.tempdir = "/dev/shm"
    # The client has one, what is measured another.
    processors = sorted(os.sched_getaffinity(0))
    run_undisturbed(0, processors[0])
    say("start, searches and events")
    with contextlib.ExitStack() as stack:
        benches = [stack.enter_context(Bench(each, processors[-1])) for each in results]
        for _ in range(plan.starts):
            for bench in benches:
                bench.measure_start()
        for _ in range(plan.rounds):
            for bench in benches:
                bench.measure_searches(plan.requests)
        known = 0
        for subscribers in plan.subscribers:
            for bench in benches:
                bench.subscribe(known, subscribers)
            known = subscribers
            for _ in range(plan.rounds):
                for bench in benches:
                    bench.measure_changes(plan.changes, subscribers)
    say(f"requests with up to {max(plan.ports):,} open ports")
    with contextlib.ExitStack() as stack:
        benches = []
        for ports in plan.ports:
            for each in results:
                bench = stack.enter_context(Bench(each, processors[-1]))
                if ports == plan.ports[0]:
                    bench.note_memory()
                bench.open_ports(ports)
                bench.note_memory()
                benches.append(bench)
        for _ in range(plan.rounds):
            for bench in benches:
                bench.measure_requests(plan.requests)
                bench.measure_natpmp(plan.requests)
