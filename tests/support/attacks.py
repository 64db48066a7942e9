"""What one hostile host on the LAN can do to keep the others out, each attack in a process of its
own, and another host that asks the gateway all the while and notes how long it waits."""

import contextlib
import dataclasses
import errno
import multiprocessing
import os
import resource
import select
import signal
import socket
import time

from support.closing import Closing
from support.lan import HTTP_PORT, LanHost, read_to_end
from support.network import CONNECTION_SERVICE, LAN_ADDRESS
from support.system_calls import PR_SET_PDEATHSIG, check, libc

# Between two requests of a bystander, in seconds.
PAUSE = 0.002

# The hostile host has these addresses besides its own.
CROWD_NETWORK = "192.168.88.128/25"
CROWD = [f"192.168.88.{last}" for last in range(128, 228)]

_GATEWAY = (LAN_ADDRESS, HTTP_PORT)
_PROCESSES = multiprocessing.get_context("fork")


class Worker(Closing):
    """A function that runs in a process of its own, in the host's namespace, until close. It is
    given a pipe to this process and a function that says whether it shall go on."""

    def __init__(self, host, work, *arguments):
        self.pipe, theirs = _PROCESSES.Pipe()
        self._end = _PROCESSES.Event()
        self._process = _PROCESSES.Process(target=self._run, args=(host, work, theirs, arguments))
        self._process.start()
        theirs.close()

    def _run(self, host, work, pipe, arguments):
        check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0), "prctl")
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        with host.namespace.entered():
            work(pipe, lambda: not self._end.is_set(), *arguments)

    def close(self):
        self._end.set()
        self._process.join(15)
        if self._process.is_alive():
            self._process.kill()
            self._process.join()
        self.pipe.close()


@dataclasses.dataclass
class Wait:
    seconds: float
    answered: bool  # by a proper reply


def question(host, control):
    """The request of this host for the external address."""
    return LanHost(host.namespace, host.LINK, host.address, LAN_ADDRESS).invocation(
        control, CONNECTION_SERVICE, "GetExternalIPAddress")


class Bystander(Worker):
    """A host that asks for the external address all the while."""

    def __init__(self, host, control):
        super().__init__(host, self._ask, question(host, control))

    @staticmethod
    def _ask(pipe, goes_on, request):
        waits = []
        while goes_on():
            before = time.monotonic()
            reply = b""
            with socket.socket() as sock, contextlib.suppress(OSError):
                sock.settimeout(30)
                sock.connect(_GATEWAY)
                sock.sendall(request)
                reply = read_to_end(sock)
            waits.append(Wait(time.monotonic() - before, reply.startswith(b"HTTP/1.1 200 ")))
            time.sleep(PAUSE)
        pipe.send(waits)

    def waits(self):
        """Ends it; returns the Wait for each of its requests."""
        self._end.set()
        return self.pipe.recv()


class Connections(Closing):
    """Connections to the gateway that send what they are given and read nothing."""

    def __init__(self):
        self._open = {}  # by descriptor: the socket, and what it has yet to send
        self._poller = select.poll()

    def __len__(self):
        return len(self._open)

    def add(self, request=b"", small_window=False):
        """Opens one. With a small window little of the reply leaves the gateway."""
        one = socket.socket()
        if small_window:
            one.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        one.setblocking(False)
        if one.connect_ex(_GATEWAY) not in (0, errno.EINPROGRESS):
            raise OSError("no connection")
        self._open[one.fileno()] = (one, memoryview(request))
        self._poller.register(one, select.POLLOUT if request else select.POLLIN)

    def go_on(self, seconds):
        """Sends what can be sent, and forgets those that the gateway has closed."""
        for fd, met in self._poller.poll(seconds * 1000):
            one, request = self._open[fd]
            try:
                if not request:
                    raise ConnectionError
                request = request[one.send(request):]
                self._open[fd] = one, request
                if not request:
                    # A reply that comes says as little as an end does: a poll for nothing.
                    self._poller.modify(fd, select.POLLRDHUP)
            except BlockingIOError:
                pass
            except ConnectionError:
                self._poller.unregister(fd)
                self._open.pop(fd)
                one.close()

    def close(self):
        for one, _ in self._open.values():
            one.close()


class Pace:
    """So many times a second."""

    def __init__(self, rate):
        self._rate = rate
        self._started = time.monotonic()
        self._count = 0

    def is_due(self):
        if self._count >= (time.monotonic() - self._started) * self._rate:
            return False
        self._count += 1
        return True


def connecting(source="0.0.0.0"):
    """A socket of that address that connects to the gateway, and may be connected already."""
    one = socket.socket()
    one.bind((source, 0))
    one.setblocking(False)
    one.connect_ex(_GATEWAY)
    return one


# The attacks. Each goes on until it is told to end.


def hold_idle_connections(_, goes_on, rate=300):
    """Opens so many connections a second and says nothing on them."""
    pace = Pace(rate)
    with Connections() as connections:
        while goes_on():
            while pace.is_due():
                connections.add()
            connections.go_on(0.002)


def connect_again_and_again(_, goes_on, source="0.0.0.0", rate=2000):
    """Opens so many connections a second, one after the other, and closes each at once: one that
    the gateway's queue has no place for is given up, since waiting would end the attack for a
    second."""
    due = time.monotonic()
    while goes_on():
        if (early := due - time.monotonic()) > 0:
            time.sleep(early)
        due = max(due + 1 / rate, time.monotonic() - 1 / rate)
        with connecting(source):
            pass


def take_no_event(_, goes_on, events, change, changes=10):
    """A hundred subscribers that take no delivery; then so many changes, made by the requests
    `change(number)`, and a connection that takes the last descriptor if there is one left."""
    with socket.socket() as listener, Connections() as connections:
        listener.bind(("0.0.0.0", 0))
        listener.listen(1)
        for address in CROWD:
            _exchange(subscription(events, address, listener.getsockname()[1]))
        number = 0
        while goes_on():
            if number < changes:
                _exchange(change(number))
                number += 1
            elif len(connections) == 0:
                connections.add()
            connections.go_on(0.02)


def subscribe_by_silent_names(_, goes_on, events, count=100):
    """So many subscriptions at once, each by a new name that no name server answers."""
    _ask_at_once([subscription(events, f"host{number}-{os.getpid()}.silent.lan")
                  for number in range(count)], goes_on)


def hold_large_requests(_, goes_on, count=200):
    """Keeps so many requests open, each a little short of 64 KiB; replaces those that end."""
    request = b"POST / HTTP/1.1\r\nCONTENT-LENGTH: 65400\r\n\r\n" + b"x" * 65300
    pace = Pace(500)
    with Connections() as connections:
        while goes_on():
            while len(connections) < count and pace.is_due():
                connections.add(request)
            connections.go_on(0.002)


def leave_replies_unread(_, goes_on, url, count=200):
    """Asks so many times for a document and reads nothing of it."""
    _ask_at_once([f"GET {url} HTTP/1.1\r\n\r\n".encode()] * count, goes_on, small_window=True)


def subscription(events, host, port=80):
    """The request for a new subscription with a callback on that host."""
    return (f"SUBSCRIBE {events} HTTP/1.1\r\nHOST: {LAN_ADDRESS}:{HTTP_PORT}\r\n"
            f"CALLBACK: <http://{host}:{port}/>\r\nNT: upnp:event\r\n\r\n").encode()


def _ask_at_once(requests, goes_on, small_window=False):
    pace = Pace(500)
    with Connections() as connections:
        while goes_on():
            while requests and pace.is_due():
                connections.add(requests.pop(), small_window)
            connections.go_on(0.002)


def _exchange(request):
    with socket.socket() as one, contextlib.suppress(OSError):
        one.settimeout(30)
        one.connect(_GATEWAY)
        one.sendall(request)
        return read_to_end(one)
