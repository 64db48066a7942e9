"""What the kernel knows of a running process."""

import os
import time

from support.network import wait_until


def processor_time(pid):
    """Seconds of processor time that it has used."""
    return sum(int(ticks) for ticks in _stat(pid)[11:13]) / os.sysconf("SC_CLK_TCK")


def is_stopped(pid):
    """Whether a signal has stopped it."""
    return _stat(pid)[0] == "T"


def is_asleep(pid):
    """Whether it waits for something, and a signal could wake it."""
    return _stat(pid)[0] == "S"


def memory(pid):
    """The fields of its /proc/PID/smaps_rollup, in KiB. They are counted page by page, where
    /proc/PID/status gives estimates."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        next(rollup)
        lines = [line.split() for line in rollup]
    return {line[0].removesuffix(":"): int(line[1]) for line in lines}


def wait_until_at_rest(pids, seconds=1.0):
    """Waits until these processes have had nothing to do for so long, and have opened and closed
    nothing."""
    pids = list(pids)
    seen, since = None, 0.0

    def at_rest():
        nonlocal seen, since
        now = [(processor_time(pid), descriptors(pid)) for pid in pids]
        if now != seen:
            seen, since = now, time.monotonic()
        return time.monotonic() > since + seconds

    wait_until(at_rest, "the router is at rest", 30.0)


def descriptors(pid):
    """The numbers of its open descriptors."""
    return {int(name) for name in os.listdir(f"/proc/{pid}/fd")}


def _stat(pid):
    """The fields of proc(5)'s stat after the name, which may have blanks in it."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rpartition(")")[2].split()
