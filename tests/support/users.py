"""Code that runs as another user."""

import json
import os

NOBODY = 65534


def as_user(user, action):
    """Runs `action` in a process of that user; returns what it returns, which JSON can express."""
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        status = 1
        try:
            os.close(reader)
            os.setgroups([])
            os.setgid(user)
            os.setuid(user)
            # The user need not be able to load a codec: this one is built in.
            os.write(writer, json.dumps(action()).encode())
            status = 0
        finally:
            os._exit(status)
    os.close(writer)
    with open(reader, "rb") as answer:
        text = answer.read()
    _, status = os.waitpid(child, 0)
    status = os.waitstatus_to_exitcode(status)
    if status != 0:
        raise AssertionError(f"the process of user {user} ended with {status}")
    return json.loads(text)
