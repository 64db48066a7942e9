"""The programs that scripts/mutate starts, and ends with itself."""

import os
import signal
import subprocess
import threading


class Failed(Exception):
    """Why the whole run cannot go on."""


class Children:
    """What this program has started, so that it can be ended with it."""

    def __init__(self):
        self.lock = threading.Lock()
        self.running = set()
        self.ended = False

    def run(self, command, limit=None, output=None, **options):
        """The exit status; None when the time limit passed."""
        with self.lock:
            if self.ended:
                raise Failed("interrupted")
            child = subprocess.Popen(command, start_new_session=True, stdin=subprocess.DEVNULL,
                                     stdout=output, stderr=subprocess.STDOUT, **options)
            self.running.add(child)
        try:
            status = child.wait(limit)
            if self.ended:
                raise Failed("interrupted")
            return status
        except subprocess.TimeoutExpired:
            self.kill(child)
            return None
        finally:
            with self.lock:
                self.running.discard(child)

    @staticmethod
    def kill(child):
        try:
            os.killpg(child.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        child.wait()

    def end(self):
        with self.lock:
            self.ended = True
            for child in self.running:
                try:
                    os.killpg(child.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
