"""One hostile host on the LAN, and another that asks the gateway all the while. scripts/siege
measures the same for longer."""

import contextlib
import errno
import os
import resource
import select
import signal
import socket
import time
import unittest

from support import attacks
from support.lan import HTTP_PORT
from support.network import LAN_ADDRESS
from support.processes import descriptors
from support.router_case import RouterCase
from support.siege import DESCRIPTORS, Siege

MOST = 32  # connections of one address
BURST = 1000  # that it may make beyond
OPEN = 64  # of all hosts
# What else the machine does makes a wait longer, so the best of some rounds counts.
ROUNDS, SECONDS = 4, 3
# In seconds. Less than a SYN that was dropped costs, and more than a busy machine does.
LONG = 0.7


class KernelTest(RouterCase):
    def begin(self, host, count):
        """Begins so many connections together, which stay until the end of the test; returns their
        sockets."""
        clients = [host.namespace.socket() for _ in range(count)]
        for client in clients:
            self.addCleanup(client.close)
            client.setblocking(False)
        for client in clients:
            client.connect_ex((LAN_ADDRESS, HTTP_PORT))
        return clients

    def outcome(self, client):
        """What came of it within 0.1 s: 0 when it is open, and None when it was dropped, to be tried
        again later."""
        begun = select.poll()
        begun.register(client, select.POLLOUT)
        return client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) if begun.poll(100) else None

    def outcomes(self, host, count):
        """Of so many connections one after the other, a little slower than what is a crowd."""
        outcomes = []
        for _ in range(count):
            time.sleep(0.0005)
            outcomes.append(self.outcome(*self.begin(host, 1)))
        return outcomes

    def open_most(self, host):
        """Opens 32 connections, of which the gateway may drop one while it is busy."""
        opened = 0
        while opened < MOST:
            [outcome] = self.outcomes(host, 1)
            self.assertIn(outcome, (0, None))
            opened += outcome == 0

    # Promise [connections-of-host]: The kernel refuses a host that has 32 connections to the
    # gateway already, at once and alone, when it has made a thousand more; then it may make ten each
    # second.
    def test_a_host_with_32_connections_is_refused_others(self):
        hostile, other = self.lan
        self.open_most(hostile)
        more = 0
        while self.outcomes(hostile, 1) != [errno.ECONNREFUSED]:
            more += 1
            self.assertLess(more, 2 * BURST)
        self.assertGreaterEqual(more, BURST // 2)  # those that were dropped count again
        self.assertGreater(self.outcomes(hostile, 50).count(errno.ECONNREFUSED), 30)
        self.assertEqual(self.outcomes(other, 1), [0])

    # Promise: A host that has 32 connections gets others one by one only; of those that it begins
    # together the kernel drops most, which the host tries again after a second.
    def test_a_host_with_32_connections_does_not_crowd_the_others_out(self):
        hostile, other = self.lan
        self.open_most(hostile)
        begun = self.begin(hostile, 10)
        # A gateway that is busy leaves even the first of them waiting.
        self.assertGreater([self.outcome(client) for client in begun].count(None), 3)
        self.assertEqual(self.outcomes(other, 1), [0])

    # Promise: The kernel drops what a host connects without pause, when it has connected a thousand
    # times, and lets 500 each second through.
    def test_a_host_that_connects_without_pause_is_slowed(self):
        hostile, other = self.lan
        with Siege(self.router) as siege:
            before, began = siege.accepted(), time.monotonic()
            with attacks.Worker(hostile, attacks.connect_again_and_again):
                time.sleep(3)
            passed = time.monotonic() - began
            accepted = siege.accepted() - before
        self.assertGreater(accepted, BURST)
        self.assertLess(accepted, BURST + 500 * passed + 50)
        self.assertEqual(self.outcomes(other, 1), [0])

    # Also proves [connections-of-host].
    def test_a_host_that_asks_a_thousand_times_is_never_refused(self):
        control = self.router.wait_until_controllable()
        for _ in range(1000):
            self.lan[0].invoke("GetExternalIPAddress", control=control)

    # Also proves [kernel-gone].
    def test_the_limit_ends_with_lumend(self):
        table = ("nft", "list", "table", "ip", "lumen_clients")
        self.network.router.run(*table)
        self.router.kill()
        with self.assertRaises(AssertionError):
            self.network.router.run(*table)


class BystanderTest(RouterCase):
    """The gateway has as many descriptors as a service usually has."""

    def make_router(self):
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (DESCRIPTORS, usual[1]))
        try:
            return super().make_router()
        finally:
            resource.setrlimit(resource.RLIMIT_NOFILE, usual)

    def setUp(self):
        super().setUp()
        self.siege = Siege(self.router)
        self.addCleanup(self.siege.close)

    def assert_not_kept_out(self, attack, *arguments, settle=4, once=0):
        """In one of the rounds beside the attack, which has settled, the other host always has a
        proper reply soon, with `once` exceptions of about a second in the first round."""
        seen = []
        for number in range(ROUNDS):
            figures = self.siege.measure(SECONDS, attack, *arguments, settle=settle)
            seen.append(str(figures))
            long = [wait.seconds for wait in figures.waits if wait.seconds > LONG]
            allowed = once if number == 0 else 0
            if figures.lost == 0 and len(long) <= allowed and max(long, default=0) < 1.6:
                return figures
        self.fail(f"the other host was kept out in each round: {seen}")

    # Promise: Idle connections of one host delay no other.
    def test_idle_connections_delay_no_other_host(self):
        figures = self.assert_not_kept_out(attacks.hold_idle_connections)
        self.assertLess(figures.descriptors, OPEN + 20)
        self.assertNotIn("accept failed", self.router.log())

    # Promise: Subscribers that take no event delay no other host.
    def test_subscribers_that_take_no_event_delay_no_other_host(self):
        figures = self.assert_not_kept_out(attacks.take_no_event, self.siege.events,
                                           self.siege.change)
        self.assertLess(figures.descriptors, DESCRIPTORS // 2)
        self.assertNotIn("accept failed", self.router.log())

    # Promise: Subscriptions by names that no name server answers delay other hosts by a second
    # once.
    def test_subscriptions_by_silent_names_delay_others_once(self):
        self.siege.silence_name_servers()
        before = time.monotonic()
        self.assert_not_kept_out(attacks.subscribe_by_silent_names, self.siege.events,
                                 settle=0, once=2)
        self.assertLess(time.monotonic() - before, 3 * SECONDS)

    # Promise: Connections of one host that come and go one after the other, 2,000 a second, delay no
    # other host: of a hundred requests one waits longer than 5 ms, and of a thousand one a second.
    def test_connections_one_after_the_other_delay_no_other_host(self):
        self.let_the_machine_do_nothing_else()
        seen = []
        # Each round from another address: the kernel counts ended connections for a while.
        for address in attacks.CROWD[:ROUNDS]:
            before, began = self.siege.accepted(), time.monotonic()
            figures = self.siege.measure(SECONDS, attacks.connect_again_and_again, address)
            asked = len(figures.waits)
            rate = (self.siege.accepted() - before - asked) / (time.monotonic() - began)
            seen.append(f"{figures} {rate:8.0f} connections a second")
            long = [wait.seconds for wait in figures.waits if wait.seconds > LONG]
            # More than the kernel lets through for long, since the first thousand are among them.
            if (rate > 500 and figures.lost == 0 and figures.percentile(99) <= 0.005
                    and len(long) <= 1 + asked // 1000 and max(long, default=0) < 1.6):
                return
        self.fail(f"the other host was kept out in each round: {seen}")

    # Promise: A client that connects while the gateway answers many others needs no second SYN,
    # although only one client can wait to be accepted: the gateway accepts between two replies.
    def test_a_client_that_connects_while_many_are_answered_is_accepted_at_once(self):
        self.let_the_machine_do_nothing_else()
        late = [self.count_late_clients(*attacks.CROWD[2 * number:2 * number + 2])
                for number in range(9)]
        self.assertGreater(late.count(0), len(late) // 2, f"so many of ten were late: {late}")

    def count_late_clients(self, busy, other):
        """How many of ten clients of the address `other` need more than one SYN when they connect
        one after the other, while the gateway answers many requests of the address `busy`."""
        request = attacks.question(self.siege.hostile, self.siege.control)
        before = len(descriptors(self.siege.gateway))
        with self.siege.hostile.namespace.entered(), contextlib.ExitStack() as stack:
            asking = []
            for number in range(1, MOST):
                asking.append(stack.enter_context(attacks.connecting(busy)))
                self.wait_until(lambda: len(descriptors(self.siege.gateway)) >= before + number,
                                "it is accepted")
            os.kill(self.siege.gateway, signal.SIGSTOP)
            try:
                for one in asking:
                    one.sendall(request)
            finally:
                os.kill(self.siege.gateway, signal.SIGCONT)
            clients = []
            for _ in range(10):
                clients.append(stack.enter_context(attacks.connecting(other)))
                time.sleep(0.0001)
            # The second SYN comes a second after the first.
            end = time.monotonic() + 0.5
            waiting = clients
            while waiting and time.monotonic() < end:
                _, connected, _ = select.select([], waiting, [], 0.05)
                waiting = [client for client in waiting if client not in connected]
            refused = [client for client in clients
                       if client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) != 0]
            self.assertEqual(refused, [])
            return len(waiting)

    def let_the_machine_do_nothing_else(self):
        """Gives the gateway, and then this test, the processor whenever they want it."""
        for process, priority in ((self.siege.gateway, 20), (0, 10)):
            try:
                os.sched_setscheduler(process, os.SCHED_FIFO, os.sched_param(priority))
            except PermissionError:
                print("this machine grants no real-time priority")

    # Promise: Large requests that do not end take 4 MB of the gateway's memory at most, and delay
    # no other host.
    def test_large_requests_take_little_memory_and_delay_no_other_host(self):
        figures = self.assert_not_kept_out(attacks.hold_large_requests)
        self.assertLess(figures.memory, 4096)  # KiB


if __name__ == "__main__":
    unittest.main()
