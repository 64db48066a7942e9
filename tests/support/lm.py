"""The platform's messages in Python: a codec of its own, strict in both directions, so that a test
never believes what the C++ one says.

A Message is a dict from whole key (type bits included) to value in insertion order. The type of a
value follows from its key: bool, int (u32, u64), str, Message, or a list of one of these. An IPv4
address is a u32, the number that its four bytes make in network order (see address, dotted).
"""

import ipaddress
import struct

MAX_DATAGRAM = 128 * 1024
MAX_NESTING = 8  # messages inside of one another, without the outermost

# The five type bits of a key.
BOOL = 0x00000000
U32 = 0x08000000
U64 = 0x10000000
STRING = 0x20000000
MESSAGE = 0x28000000
ARRAY = 0x80000000
_TYPE_MASK = 0xF8000000

# Transport fields.
DESTINATION = 0x88FF0001
SOURCE = 0x88FF0002
SERIAL = 0x08FF0003
IS_REPLY = 0x00FF0004
COMMAND = 0x08FF0007
ERROR_CODE = 0x08FF0008
ERROR_TEXT = 0x20FF0009
TRANSPORT = (DESTINATION, SOURCE, SERIAL, IS_REPLY, COMMAND)

# Objects and paged answers.
OBJECT_ID = 0x08FE0001
RECORDS = 0xA8FE0002
CURSOR = 0x08FE0003
DISABLED = 0x00FE000A
REMOVED = 0x08FE0013

# Commands of every handler.
CMD_LIST = 1
CMD_READ = 0xFE0002
CMD_SET = 0xFE0003
CMD_READ_ALL = 0xFE0004
CMD_ADD = 0xFE0005
CMD_REMOVE = 0xFE0006
CMD_CHANGED = 0xFE000B
CMD_GET_SETTINGS = 0xFE000D
CMD_SET_SETTINGS = 0xFE000E
CMD_INTERFACE = 0x10004

# Commands of the broker, path [0].
BROKER_REGISTER = 0x10
BROKER_SUBSCRIBE = 0x11
BROKER_UNSUBSCRIBE = 0x12
BROKER_UNREGISTER = 0x13

REFUSED = 0xFE0009
NONE = 0xFFFFFFFF


class MessageError(ValueError):
    """Bytes that are no message, or a value that does not fit its key."""


class Message(dict):
    """Fields by key, in insertion order; setting a key that is present keeps its place."""

    def error(self):
        """The text of an error reply, or None."""
        return self.get(ERROR_TEXT, "") if ERROR_CODE in self else None

    def fields(self):
        """What the message says, without the fields of its transport, as a list of pairs."""
        return [(key, value) for key, value in self.items() if key not in TRANSPORT]

    def __repr__(self):
        return "{" + ", ".join(f"{key:#010x}: {value!r}" for key, value in self.items()) + "}"


def address(text):
    """The field value of a dotted IPv4 address."""
    return int(ipaddress.IPv4Address(text))


def dotted(value):
    return str(ipaddress.IPv4Address(value))


def encode(message):
    """The wire form. Raises MessageError for a value of the wrong type or size."""
    return _encode_fields(message, 0)


def decode(datagram):
    """The message that the bytes are. Raises MessageError for anything else."""
    if not datagram:
        raise MessageError("empty datagram")
    if len(datagram) > MAX_DATAGRAM:
        raise MessageError("datagram too long")
    return _Reader(bytes(datagram)).message(0)


def _encode_fields(message, depth):
    if depth > MAX_NESTING:
        raise MessageError("nested too deep")
    parts = []
    for key, value in message.items():
        if not isinstance(key, int) or not 0 <= key <= 0xFFFFFFFF:
            raise MessageError(f"not a key: {key!r}")
        parts.append(struct.pack(">I", key))
        kind = key & _TYPE_MASK
        if kind & ARRAY:
            if not isinstance(value, (list, tuple)):
                raise MessageError(f"{key:#x} wants a list, not {value!r}")
            parts.append(struct.pack(">I", len(value)))
            parts.extend(_encode_value(kind & ~ARRAY, key, element, depth) for element in value)
        else:
            parts.append(_encode_value(kind, key, value, depth))
    return b"".join(parts)


def _encode_value(kind, key, value, depth):
    if kind == BOOL and isinstance(value, bool):
        return b"\1" if value else b"\0"
    if kind in (U32, U64) and isinstance(value, int) and not isinstance(value, bool):
        bits = 32 if kind == U32 else 64
        if 0 <= value < 1 << bits:
            return value.to_bytes(bits // 8, "big")
    if kind == STRING and isinstance(value, str):
        data = value.encode("utf-8", "surrogateescape")
        return struct.pack(">I", len(data)) + data
    if kind == MESSAGE and isinstance(value, dict):
        data = _encode_fields(value, depth + 1)
        return struct.pack(">I", len(data)) + data
    raise MessageError(f"{key:#x} cannot hold {value!r}")


class _Reader:
    def __init__(self, data):
        self._data = data
        self._at = 0

    def message(self, depth):
        if depth > MAX_NESTING:
            raise MessageError("nested too deep")
        result = Message()
        while self._at < len(self._data):
            key = self._number(4)
            if key in result:
                raise MessageError(f"key {key:#x} twice")
            kind = key & _TYPE_MASK
            if kind & ARRAY:
                count = self._number(4)
                result[key] = [self._value(kind & ~ARRAY, depth) for _ in range(count)]
            else:
                result[key] = self._value(kind, depth)
        return result

    def _value(self, kind, depth):
        if kind == BOOL:
            value = self._number(1)
            if value > 1:
                raise MessageError(f"a bool of {value}")
            return value == 1
        if kind == U32:
            return self._number(4)
        if kind == U64:
            return self._number(8)
        if kind == STRING:
            return self._bytes(self._number(4)).decode("utf-8", "surrogateescape")
        if kind == MESSAGE:
            return _Reader(self._bytes(self._number(4))).message(depth + 1)
        raise MessageError(f"unknown type {kind:#x}")

    def _number(self, size):
        return int.from_bytes(self._bytes(size), "big")

    def _bytes(self, size):
        taken = self._data[self._at : self._at + size]
        if len(taken) != size:
            raise MessageError("truncated")
        self._at += size
        return taken
