"""Subscribers that name the host of their callback, and name servers of every kind."""

import contextlib
import os
import signal
import statistics
import time
import unittest

from support.name_server import NameServer
from support.network import wait_until
from support.router import RESOLVER_USER
from support.router_case import RouterCase
from support.subscriber import Subscriber


class NameTest(RouterCase):
    def setUp(self):
        super().setUp()
        self.server = NameServer(self.wan)
        self.addCleanup(self.server.close)
        self.router.ask_name_server(self.wan.address)
        self.events = self.lan[0].connection_events()
        self.subscriber = Subscriber(self.lan[1].speak_to())
        self.addCleanup(self.subscriber.close)

    def ask(self, name):
        """Subscribes with a callback on the host of this name; returns the reply's status and how
        many seconds it took."""
        if self.subscriber.sid:
            self.subscriber.unsubscribe()
            self.subscriber.sid = None
        started = time.monotonic()
        reply = self.subscriber.ask(self.events, callback=f"http://{name}:{self.subscriber.port}/")
        return reply.status, time.monotonic() - started

    def resolver(self):
        return self.router.service("resolver")

    # Also proves [service-start], [resolver-command], [resolver-file].
    def test_a_subscriber_is_found_by_its_name(self):
        self.assertEqual(self.resolver()["state"], "stopped", "it starts when it is first asked")
        self.server.hosts["player.lan"] = self.lan[1].address
        self.assertEqual(self.ask("player.lan")[0], 200)
        event = self.subscriber.event()
        self.assertEqual(event.seq, 0)
        self.assertEqual(event["HOST"], f"{self.lan[1].address}:{self.subscriber.port}")
        self.assertEqual(self.server.asked, ["player.lan"])
        self.assertEqual(self.resolver()["state"], "running")

    # Also proves [resolver-failed].
    def test_an_unknown_name_is_refused(self):
        self.assertEqual(self.ask("nowhere.lan")[0], 412)
        self.assertEqual(self.ask("nowhere.lan")[0], 412)
        self.assertEqual(self.server.asked, ["nowhere.lan"])
        self.assertIn("resolving failed: no such host", self.router.log())

    # Also proves [resolver-names].
    def test_an_invalid_name_is_refused_without_a_query(self):
        for name in ("a b", "-x", "a..b", "x" * 64, "b\u00fccher", "255.255.255.255"):
            with self.subTest(name=name):
                self.assertEqual(self.ask(name)[0], 412)
        self.assertEqual(self.server.asked, [])

    # Promise [subscribe-name-failed]: A name server that never answers costs a host that subscribes
    # by name a second once, and nothing for the minute after it.
    # Also proves [resolver-wait], [resolver-budget], [resolver-late].
    def test_a_silent_name_server_costs_a_second_only_once(self):
        self.server.hosts["player.lan"] = self.lan[1].address
        self.server.silent.add("silent.lan")
        self.assertEqual(self.ask("player.lan")[0], 200)  # the resolver has started
        status, taken = self.ask("silent.lan")
        self.assertEqual(status, 412)
        self.assertGreater(taken, 0.5)
        self.assertLess(taken, 3.0)
        questions = len(self.server.asked)
        again = [self.ask("silent.lan") for _ in range(5)]
        self.assertEqual({status for status, _ in again}, {412})
        self.assertLess(min(taken for _, taken in again), 0.5)
        self.assertEqual(len(self.server.asked), questions)
        # Other names cost nothing, until the minute is over.
        others = [f"other{number}.lan" for number in range(20)]
        self.server.silent.update(others)
        refused = [self.ask(name) for name in others]
        self.assertEqual({status for status, _ in refused}, {412})
        self.assertLess(statistics.median(taken for _, taken in refused), 0.05)
        # A name that the name server knows is found when it is asked for again.
        wait_until(lambda: self.ask("player.lan")[0] == 200, "the address has come")

    def test_a_lame_name_server_is_not_believed(self):
        self.server.lame.update(("player.lan", "nowhere.lan"))
        self.server.hosts["player.lan"] = self.lan[1].address
        self.assertEqual(self.ask("player.lan")[0], 200)
        self.assertEqual(self.subscriber.event().seq, 0)
        self.assertEqual(self.ask("nowhere.lan")[0], 412)
        self.assertIn("resolving failed: no name server can tell", self.router.log())

    # Promise: The resolver runs as its own user, without a capability and without a right to ask
    # others for anything.
    # Also proves [service-privileges].
    def test_the_resolver_has_no_rights(self):
        self.ask("nowhere.lan")
        self.assert_powerless(self.resolver()["process"], "lumen-resolver", RESOLVER_USER)

    # Promise: A resolver that was killed is started again.
    def test_a_resolver_that_was_killed_comes_back(self):
        self.server.hosts["player.lan"] = self.lan[1].address
        self.assertEqual(self.ask("player.lan")[0], 200)

        def is_refused():
            # Each crash doubles the time until the next start.
            if pid := self.resolver()["process"]:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            return self.ask("player.lan")[0] == 412

        wait_until(is_refused, "it is missed", limit=30)
        self.assertIn("resolving failed: service unavailable", self.router.log())
        wait_until(lambda: self.ask("player.lan")[0] == 200, "it resolves again")


if __name__ == "__main__":
    unittest.main()
