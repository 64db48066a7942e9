"""What scripts/siege does once everything is built."""

import argparse
import contextlib
import os
import pathlib
import resource
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from support import attacks
from support.network import Network
from support.router import CommandFailed, Router
from support.siege import DESCRIPTORS, Figures, Siege

SECONDS = 10
# Ten for the kernel to give unread replies up, and some to see it.
SECONDS_UNREAD = 14


def by_names(siege):
    siege.silence_name_servers()
    return siege.measure(SECONDS, attacks.subscribe_by_silent_names, siege.events)


ROWS = {
    "no attack": lambda siege: siege.measure(SECONDS),
    "300 idle connections a second": lambda siege: siege.measure(
        SECONDS, attacks.hold_idle_connections),
    "100 subscribers take no event": lambda siege: siege.measure(
        SECONDS, attacks.take_no_event, siege.events, siege.change),
    "100 SUBSCRIBEs by silent names": by_names,
    "2,000 connections a second": lambda siege: siege.measure(
        SECONDS, attacks.connect_again_and_again),
    "200 requests of 64 KiB held open": lambda siege: siege.measure(
        SECONDS, attacks.hold_large_requests),
    "200 replies are not read": lambda siege: siege.measure(
        SECONDS_UNREAD, attacks.leave_replies_unread, siege.largest_file()),
}


@contextlib.contextmanager
def siege_of_a_router():
    with Network() as network:
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (DESCRIPTORS, usual[1]))
        with Router(network) as router:
            resource.setrlimit(resource.RLIMIT_NOFILE, usual)
            router.set_up()
            with Siege(router) as siege:
                yield siege


def main():
    parser = argparse.ArgumentParser(prog="scripts/siege")
    parser.add_argument("--only", metavar="WORD", default="",
                        help="the attacks with this word in their name, beside none")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    # What else the machine does is not what is measured.
    with contextlib.suppress(OSError):
        os.nice(-20)
    for line in Figures.HEAD:
        print(f"{'':32}{line}", flush=True)
    try:
        for name, measure in ROWS.items():
            if arguments.only in name or name == "no attack":
                with siege_of_a_router() as siege:
                    print(f"{name:32}{measure(siege)}", flush=True)
    except KeyboardInterrupt:
        sys.exit("\nended by Ctrl-C; nothing is left behind")
    except (AssertionError, CommandFailed, OSError) as error:
        sys.exit(f"scripts/siege: {error}")


if __name__ == "__main__":
    main()
