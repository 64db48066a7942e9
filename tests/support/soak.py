"""Whether the router's programs need after much traffic what they needed before it: as many
descriptors, as much memory."""

import time

from support.closing import Closing
from support.heap import allocated
from support.processes import descriptors, memory, wait_until_at_rest
from support.traffic import DELIVERY_LIMIT, Traffic

# How many changes can be undone: only then does one more need nothing more.
HISTORY = 100
# So much goes wrong at most before it is enough.
MOST_ERRORS = 20
# In bytes. By how much what a program has allocated may have grown: texts of other lengths, freed
# chunks that malloc has not yet put together. And half of what a leak of the least that malloc
# gives, 32 bytes, would be if there were one in each lap.
UNEVENNESS = 4096
PER_LAP = 16
# The record of ports keeps 10,000 events; most have a short reason or none.
PER_EVENT = 192
# By how much its own memory may have grown, in KiB: malloc gives the end of the heap back when there
# are 128 KiB of it, and there are pieces below it.
KEPT_BY_MALLOC = 192
# An address space that only a sanitizer reserves, in KiB. It also keeps what is freed.
SANITIZED = 1 << 30


class Program:
    """A running program and what it needs."""

    def __init__(self, name, pid):
        self.name = name
        self.pid = pid

    def figures(self):
        taken = memory(self.pid)
        return Figures(self.pid, taken["Rss"], taken["Anonymous"], len(descriptors(self.pid)))

    def figures_at_rest(self):
        figures = self.figures()
        if not self.is_sanitized():
            figures.allocated = allocated(self.pid)
        return figures

    def is_sanitized(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return any(int(line.split()[1]) > SANITIZED for line in status
                       if line.startswith("VmSize:"))


class Figures:
    """What a process needs: `resident` memory in KiB; `own`, the part of it that is no file's, since
    those the kernel reads and drops as it likes; the number of `descriptors`; and how many bytes it
    has `allocated`, which only a program at rest can be asked."""

    def __init__(self, pid, resident, own, descriptors):
        self.pid = pid
        self.resident = resident
        self.own = own
        self.descriptors = descriptors
        self.allocated = None

    def __str__(self):
        text = f"{self.resident} KiB, {self.own} KiB own, {self.descriptors} descriptors"
        return text if self.allocated is None else f"{text}, {self.allocated} bytes allocated"


class Soak(Closing):
    """Traffic on a router that is set up, with figures before and after."""

    def __init__(self, router, seed):
        self.router = router
        self.traffic = Traffic(router, seed)
        self.before = self.after = None  # figures by name of program
        self._events = []  # of ports, in the record: before and after
        self._laps = 0
        self._started = time.monotonic()

    def warm_up(self, seconds, say=lambda line: None):
        """The traffic that what comes afterwards is compared with."""
        for number in range(HISTORY):
            self.router.lumenctl("upnp", "settings", "set",
                                 f"allow-disable-external={('off', 'on')[number % 2]}")
        self.traffic.peak()
        self.before = self._work(seconds, say)
        self._laps = self.traffic.laps

    def work(self, seconds, say=lambda line: None):
        self.after = self._work(seconds, say)
        self._laps = self.traffic.laps - self._laps

    def report(self):
        lines = [f"{name:15} {when:6} {figures}" for name in self.before
                 for when, figures in (("before", self.before[name]), ("after", self.after[name]))]
        lines += [f"{count:8} {name.replace('_', ' ')}"
                  for name, count in self.traffic.done.most_common()]
        return "\n".join([*lines, f"{self.traffic.done.total():8} in {self.traffic.laps} laps"])

    def complaints(self):
        """What is not as it must be."""
        found = list(self.traffic.errors)
        if self.traffic.refused > self.traffic.done.total() // 100:
            found.append(f"{self.traffic.refused} connections were refused")
        for program in self._programs():
            before, after = self.before[program.name], self.after[program.name]
            if before.pid != after.pid:
                found.append(f"{program.name} has ended and was started again")
            if before.descriptors != after.descriptors:
                found.append(f"{program.name} has {after.descriptors} descriptors, "
                             f"not {before.descriptors}")
            if program.is_sanitized():
                continue  # it looks for leaks itself, at the program's end
            allowed = max(UNEVENNESS, PER_LAP * self._laps)
            if program.name == "lumend":
                allowed += PER_EVENT * (self._events[1] - self._events[0])
            if after.allocated - before.allocated > allowed:
                found.append(f"{program.name} has allocated {after.allocated} bytes, "
                             f"not {before.allocated}")
            if after.own - before.own > KEPT_BY_MALLOC + 4 * allowed // 1024:
                found.append(f"{program.name} has {after.own} KiB of its own, not {before.own}")
        return found

    def close(self):
        self.traffic.close()

    def _work(self, seconds, say):
        """Traffic for so long, and what the programs need when it has ended."""
        began = told = time.monotonic()
        while (now := time.monotonic()) < began + seconds:
            self.traffic.may_linger = began + seconds - now > DELIVERY_LIMIT
            self.traffic.lap()
            if now >= told + 60:
                told += 60
                say(self._line())
            if len(self.traffic.errors) >= MOST_ERRORS:
                break
        # What came last shows in what malloc keeps: let it be the same each time.
        self.traffic.may_linger = False
        for _ in range(2):
            self.traffic.settle()
            self.traffic.lap()
        self.traffic.settle()
        self._events.append(len(self.router.ask("nat", "log")))
        return self._figures_at_rest()

    def _programs(self):
        services = {s["name"]: s["process"] for s in self.router.ask("service", "list")}
        return [Program("lumend", self.router.lumend.pid),
                Program("palinode-igd", services["upnp"]),
                Program("lumen-resolver", services["resolver"])]

    def _figures_at_rest(self):
        """What the programs need when they have had nothing to do for two seconds: a second after a
        change lumend tidies up."""
        programs = self._programs()
        wait_until_at_rest((program.pid for program in programs), seconds=2.0)
        return {program.name: program.figures_at_rest() for program in programs}

    def _line(self):
        traffic = self.traffic
        parts = [f"{time.monotonic() - self._started:5.0f} s {traffic.done.total():8} operations, "
                 f"{len(traffic.errors)} errors"]
        parts += [f"{program.name}: {program.figures()}" for program in self._programs()
                  if program.pid]
        return "; ".join(parts)
