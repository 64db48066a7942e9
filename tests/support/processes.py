"""What the kernel knows of a running process."""

import os


def processor_time(pid):
    """Seconds of processor time that it has used."""
    return sum(int(ticks) for ticks in _stat(pid)[11:13]) / os.sysconf("SC_CLK_TCK")


def is_stopped(pid):
    """Whether a signal has stopped it."""
    return _stat(pid)[0] == "T"


def descriptors(pid):
    """The numbers of its open descriptors."""
    return {int(name) for name in os.listdir(f"/proc/{pid}/fd")}


def _stat(pid):
    """The fields of proc(5)'s stat after the name, which may have blanks in it."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rpartition(")")[2].split()
