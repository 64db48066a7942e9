"""A name server (RFC 1035) on UDP port 53 of a host in a test network."""

import socket
import struct
import threading

from support.closing import Closing

_HEADER = struct.Struct("!6H")
_RESPONSE = 0x8180  # with recursion
_SERVER_FAILURE = 2
_NO_SUCH_NAME = 3
_ADDRESS = 1  # type A
_INTERNET = 1
_NAME_OF_THE_QUESTION = 0xC00C


class NameServer(Closing):
    """Knows `hosts`, from names to addresses, and that there are no others. Names in `silent` get
    no answer, those in `lame` answers that are none, and then the right one if there is one. Runs
    in a thread from its making to close."""

    def __init__(self, host):
        self.hosts = {}
        self.silent = set()
        self.lame = set()
        self.asked = []
        self._socket = host.udp(53)
        self._socket.settimeout(None)
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        while True:
            datagram, sender = self._socket.recvfrom(2048)
            if not datagram:
                return
            number, question = struct.unpack("!H", datagram[:2])[0], datagram[_HEADER.size:]
            name = _name(question)
            self.asked.append(name)
            if name in self.silent:
                continue
            for answer in self._answers(name, number, question):
                self._socket.sendto(answer, sender)

    def _answers(self, name, number, question):
        if name in self.lame:
            yield b"\xff" * 100
            yield _answer(number ^ 1, question, 0, "45.45.45.66")
            yield _answer(number, b"\x01x" + question, 0, "45.45.45.66")
        if name in self.hosts:
            yield _answer(number, question, 0, self.hosts[name])
        else:
            yield _answer(number, question, _SERVER_FAILURE if name in self.lame else _NO_SUCH_NAME)

    def close(self):
        # From itself to itself: the end.
        self._socket.sendto(b"", self._socket.getsockname())
        self._thread.join()
        self._socket.close()


def _name(question):
    labels = []
    place = 0
    while question[place]:
        end = place + 1 + question[place]
        labels.append(question[place + 1:end].decode("ascii").lower())
        place = end
    return ".".join(labels)


def _answer(number, question, code, address=None):
    head = _HEADER.pack(number, _RESPONSE | code, 1, 1 if address else 0, 0, 0)
    if not address:
        return head + question
    record = struct.pack("!3HIH", _NAME_OF_THE_QUESTION, _ADDRESS, _INTERNET, 60, 4)
    return head + question + record + socket.inet_aton(address)
