"""The platform as the daemon sees it, scripted: it listens on the real socket, answers what the
daemon asks, and keeps every request and notification for the test to read."""

import contextlib
import os
import selectors
import socket
import threading
import time

from support import lm
from support.lm import Message

DAEMON = [40, 0]
IDENTITY = (65,)
INTERFACES = (20, 0)
ADDRESSES = (20, 1)
NAT_RULES = (20, 5)
HISTORY = (66,)
BROKER = (0,)


class Request:
    """A request or notification of the daemon."""

    def __init__(self, message):
        self.path = tuple(message.get(lm.DESTINATION, ()))
        self.source = tuple(message.get(lm.SOURCE, ()))
        self.command = message.get(lm.COMMAND)
        self.fields = message.fields()

    def __repr__(self):
        return f"{self.command:#x} to {self.path}: {Message(self.fields)}"


def interface(id, name, index=0, display=None, flags=0, disabled=False, running=True, kind=1,
              role=None):
    """A record of the interface table; `role` as a service that may read sees it."""
    told = {} if role is None else {0x08010010: role}
    return Message({lm.OBJECT_ID: id, 0x08010001: kind, 0x08010003: flags, 0x08010004: index,
                    0x20010005: name, 0x20010006: display or name, lm.DISABLED: disabled,
                    0x0001000E: running, **told})


def address(id, interface_id, text, disabled=False):
    """A record of the address table."""
    return Message({lm.OBJECT_ID: id, 0x08000005: interface_id, 0x08000001: lm.address(text),
                    lm.DISABLED: disabled})


def error(text):
    return Message({lm.ERROR_CODE: lm.REFUSED, lm.ERROR_TEXT: text})


def encode_reply(serial, fields):
    return lm.encode(Message({**fields, lm.SERIAL: serial, lm.IS_REPLY: True}))


class ScriptedPlatform:
    """Its tables answer the reads of the daemon; `answer` scripts anything else."""

    def __init__(self, folder, program=DAEMON):
        """Listens at run/lumen.sock in `folder`, which exists; what an earlier platform has left
        there goes. `program` is the path of the handler under test."""
        self._program = program
        self.identity = "TEST"
        self.interfaces = {}
        self.addresses = {}
        self.counters = {0x100FC: 0, 0x100FD: 0, 0x100FE: 0, 0x100FF: 0}
        self._next_rule = 100
        self._answers = {}
        self._requests = []
        self._replies = {}
        self._serial = 0
        self._connections = []
        self._problem = None
        self._changed = threading.Condition()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        path = os.path.join(folder, "run", "lumen.sock")
        with contextlib.suppress(FileNotFoundError):
            os.remove(path)
        self._listener.bind(path)
        os.chmod(path, 0o666)
        self._listener.listen(8)
        self._wake, self._woken = socket.socketpair()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def answer(self, path, command, answer):
        """From now on `answer(message)` makes the reply of that path and command. It runs on the
        platform's thread. None: there is no reply."""
        with self._changed:
            self._answers[tuple(path), command] = answer

    def requests(self, path=None, command=None):
        """The daemon's requests and notifications in order, without those to the broker."""
        with self._changed:
            return [r for r in self._requests
                    if (r.path != BROKER if path is None else r.path == tuple(path))
                    and (command is None or r.command == command)]

    def notifications(self, command=None):
        return [r for r in self.requests((), command) if not r.path]

    def forget_requests(self):
        with self._changed:
            self._requests.clear()

    def wait_for(self, condition, limit=5.0, what="the daemon"):
        """Waits until `condition()` gives something true, and returns it."""
        end = time.monotonic() + limit
        with self._changed:
            while True:
                if self._problem:
                    raise AssertionError(self._problem)
                result = condition()
                if result:
                    return result
                if not self._changed.wait(max(0, end - time.monotonic())):
                    raise AssertionError(f"waited {limit} s in vain for {what}: {self._requests}")

    def request(self, command, fields=(), limit=5.0):
        """Sends the daemon a request and returns the fields of its reply."""
        with self._changed:
            self._serial += 1
            serial = self._serial
            connection = self._connections[-1]
        message = Message(fields)
        message.update({lm.DESTINATION: self._program, lm.SOURCE: [0x10001, 0], lm.SERIAL: serial,
                        lm.COMMAND: command})
        connection.send(lm.encode(message))
        reply = self.wait_for(lambda: self._replies.pop(serial, None), limit,
                              f"the reply to {command:#x}")
        return Message(reply.fields())

    def notify(self, command, source, fields):
        """Sends the daemon a notification from that path."""
        message = Message(fields)
        message.update({lm.SOURCE: list(source), lm.COMMAND: command})
        self.send_raw(lm.encode(message))

    def reply(self, serial, fields):
        """Sends the daemon a reply, even to an old request or to none at all."""
        self.send_raw(encode_reply(serial, fields))

    def send_raw(self, datagram):
        self._connections[-1].send(datagram)

    def wait_for_connection(self, number=1, limit=10.0):
        """Waits until the daemon has registered on the `number`-th connection of this platform."""
        self.wait_for(lambda: sum(r.command == lm.BROKER_REGISTER and r.path == BROKER
                                  for r in self._requests) >= number, limit, "a registration")

    def hang_up(self):
        """Ends the daemon's connection, as a platform that dies does."""
        self._connections[-1].shutdown(socket.SHUT_RDWR)

    def close(self):
        self._wake.close()
        self._thread.join()
        self._listener.close()
        self._woken.close()
        for connection in self._connections:
            connection.close()

    def _serve(self):
        with selectors.DefaultSelector() as selector:
            selector.register(self._listener, selectors.EVENT_READ)
            selector.register(self._woken, selectors.EVENT_READ)
            while True:
                for key, _ in selector.select():
                    if key.fileobj is self._woken:
                        return
                    if key.fileobj is self._listener:
                        connection, _ = self._listener.accept()
                        selector.register(connection, selectors.EVENT_READ)
                        with self._changed:
                            self._connections.append(connection)
                            self._changed.notify_all()
                    elif not self._receive(key.fileobj):
                        selector.unregister(key.fileobj)

    def _receive(self, connection):
        try:
            datagram = connection.recv(lm.MAX_DATAGRAM + 1)
        except ConnectionError:
            return False
        if not datagram:
            return False
        with self._changed:
            try:
                message = lm.decode(datagram)
            except lm.MessageError as problem:
                self._problem = f"the daemon sent no message ({problem}): {datagram!r}"
                self._changed.notify_all()
                return False
            if message.get(lm.IS_REPLY):
                self._replies[message[lm.SERIAL]] = message
                self._changed.notify_all()
                return True
            request = Request(message)
            self._requests.append(request)
            answer = self._answers.get((request.path, request.command))
            self._changed.notify_all()
        if request.path:
            reply = answer(message) if answer else self._usual_answer(request)
            if reply is not None:
                try:
                    connection.send(encode_reply(message[lm.SERIAL], reply))
                except ConnectionError:
                    return False
        return True

    def _usual_answer(self, request):
        if request.path == IDENTITY and request.command == lm.CMD_GET_SETTINGS:
            return {0x20000001: self.identity}
        if request.path == INTERFACES and request.command in (lm.CMD_LIST, lm.CMD_READ_ALL):
            return {lm.RECORDS: [self.interfaces[id] for id in sorted(self.interfaces)]}
        if request.path == INTERFACES and request.command == lm.CMD_READ:
            return {0x10000000 | key: value for key, value in self.counters.items()}
        if request.path == ADDRESSES and request.command == lm.CMD_READ_ALL:
            return {lm.RECORDS: [self.addresses[id] for id in sorted(self.addresses)]}
        if request.path == NAT_RULES and request.command == lm.CMD_ADD:
            self._next_rule += 1
            return {lm.OBJECT_ID: self._next_rule}
        if request.path in (INTERFACES, NAT_RULES, HISTORY, BROKER):
            return {}
        return error("no such service")
