"""A program at a pseudo terminal, and what its user sees and types."""

import contextlib
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time

LIMIT = 30.0


class Terminal:
    """Runs a program at a terminal of that size; ends it with close."""

    def __init__(self, *command, width=100, height=30, **environment):
        self._here, self._there = pty.openpty()
        self.resize(width, height)
        self.before = termios.tcgetattr(self._there)
        self.shown = ""
        variables = {"PATH": os.environ["PATH"], "TERM": "xterm", "LC_ALL": "C.UTF-8",
                     **environment}
        self.program = subprocess.Popen([str(word) for word in command], stdin=self._there,
                                        stdout=self._there, stderr=self._there,
                                        start_new_session=True, env=variables,
                                        preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def resize(self, width, height):
        fcntl.ioctl(self._there, termios.TIOCSWINSZ, struct.pack("HHHH", height, width, 0, 0))

    def type(self, keys):
        os.write(self._here, keys.encode())

    def settings(self):
        """What stty shows, as lists and numbers."""
        return termios.tcgetattr(self._there)

    def see(self, pattern, since=0):
        """Waits until what was shown since that position matches; returns the match."""
        end = time.monotonic() + LIMIT
        while True:
            match = re.compile(pattern, re.S).search(self.shown, since)
            if match:
                return match
            if not self._take(end - time.monotonic()):
                raise AssertionError(f"waited in vain for {pattern}: {self.shown!r}")

    def end(self):
        """Waits for the end of the program; returns its exit status."""
        status = self.program.wait(timeout=LIMIT)
        while self._take(0):
            pass
        return status

    def _take(self, limit):
        """Takes in what the program has printed. False when there was nothing in time."""
        if not select.select([self._here], [], [], max(0, limit))[0]:
            return False
        self.shown += os.read(self._here, 65536).decode(errors="replace")
        return True

    def close(self):
        if self.program.poll() is None:
            self.program.kill()
            self.program.wait()
        for descriptor in (self._here, self._there):
            with contextlib.suppress(OSError):
                os.close(descriptor)
