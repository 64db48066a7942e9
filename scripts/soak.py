"""What scripts/soak does once everything is built."""

import argparse
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from support.network import Network
from support.router import CommandFailed, Router
from support.soak import Soak

MINUTE = 60


def say(line):
    print(line, flush=True)


def soak(seconds, seed):
    """Returns what is wrong."""
    with Network() as network, Router(network) as router:
        router.set_up()
        with Soak(router, seed) as one:
            one.warm_up(MINUTE, say)
            one.work(seconds - MINUTE, say)
            say(one.report())
            return one.complaints()


def main():
    parser = argparse.ArgumentParser(prog="scripts/soak")
    parser.add_argument("--seconds", type=int, default=60 * MINUTE)
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()
    if arguments.seconds < MINUTE:
        parser.error("the first minute is what the end is compared with")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        complaints = soak(arguments.seconds, arguments.seed)
    except KeyboardInterrupt:
        sys.exit("\nended by Ctrl-C; nothing is left behind")
    except (AssertionError, CommandFailed, OSError) as error:
        sys.exit(f"scripts/soak: {error}")
    if complaints:
        sys.exit("\n".join(["not ok", *complaints]))
    say("ok: the router needs at the end what it needed after the first minute")


if __name__ == "__main__":
    main()
