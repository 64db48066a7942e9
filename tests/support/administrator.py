"""lumenctl inside the router's network namespace, where an administrator runs it, with or without a
terminal."""

import os
import pty
import select
import subprocess
import time

from support.router import PROGRAMS

ANSWER_LIMIT = 30.0


def _command(router, arguments):
    return [str(PROGRAMS / "lumenctl"), "--root", str(router.root), *arguments]


def run_inside(router, *arguments):
    """Runs lumenctl without a terminal; returns its exit status, what it printed and what it said
    on standard error."""
    with router.namespace.popen(*_command(router, arguments), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as done:
        printed, said = done.communicate(timeout=ANSWER_LIMIT)
    return done.returncode, printed, said


def run_at_terminal(router, *arguments, question, answer):
    """Runs lumenctl at a terminal where its user types `answer` when it has printed `question`.
    Returns its exit status and all that the terminal then shows, which has no colours."""
    here, there = pty.openpty()
    try:
        with router.namespace.popen(*_command(router, arguments), stdin=there, stdout=there,
                                    stderr=there, env={**os.environ, "NO_COLOR": "1"}) as program:
            os.close(there)
            shown = _read(here, until=question)
            os.write(here, answer.encode())
            shown += _read(here)
            return program.wait(timeout=ANSWER_LIMIT), shown
    finally:
        os.close(here)


def _read(terminal, until=None):
    """What the terminal shows, as far as `until` or to the end of the program."""
    shown = b""
    end = time.monotonic() + ANSWER_LIMIT
    while until is None or until.encode() not in shown:
        if not select.select([terminal], [], [], max(0, end - time.monotonic()))[0]:
            raise AssertionError(f"waited in vain for {until or 'the end'}: {shown}")
        try:
            part = os.read(terminal, 65536)
        except OSError:  # EIO: the other side is closed everywhere
            part = b""
        if not part:
            if until is None:
                break
            raise AssertionError(f"ended without {until}: {shown}")
        shown += part
    return shown.decode().replace("\r\n", "\n")
