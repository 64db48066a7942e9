"""Bytes that are nearly right."""

import random


def mutations(good, count, seed):
    """Cut, doubled, overwritten and padded versions of the bytes; the same ones in each run."""
    choose = random.Random(seed)
    for _ in range(count):
        yield mutation(good, choose)


def mutation(good, choose):
    """One of them, chosen by a random.Random."""
    data = bytearray(good)
    for _ in range(choose.randint(1, 4)):
        start = choose.randrange(len(data) + 1)
        end = min(len(data), start + choose.randint(0, 30))
        match choose.randrange(5):
            case 0:
                del data[start:end]
            case 1:
                data[start:start] = data[start:end] * choose.randint(1, 20)
            case 2:
                data[start:end] = choose.randbytes(end - start)
            case 3:
                data[start:start] = choose.choice(
                    (b"\r\n", b"\r", b"\0", b":", b"<", b"&", b'"', b"\xff\xfe", b"-1",
                     b"99999999999999999999", b" HTTP/1.1", b"\r\n\r\n"))
            case 4:
                data = data[:start]
    return bytes(data)
