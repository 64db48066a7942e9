"""How much a program has allocated, seen from outside: its resident memory also has what malloc
keeps of what was freed, which is another amount each time (up to 128 KiB at the heap's end alone).

Reads the heap of a single-threaded program of the GNU C library, malloc/malloc.c."""

import struct

# Of a chunk: the size of the one before, its own size with flags in the low bits.
_HEADER = struct.Struct("@NN")
_FLAGS = 7
_PREVIOUS_IN_USE = 1
_LEAST_CHUNK = 4 * struct.calcsize("@N")
_ALIGNMENT = 2 * struct.calcsize("@N")
# The heap's first chunk: how many freed chunks of each size are kept for the next request.
_CACHED = struct.Struct("@64H")


def allocated(pid):
    """In bytes, as the chunks are. The program must be at rest."""
    heap = _read_heap(pid)
    sizes = _CACHED.unpack_from(heap, _HEADER.size)
    total = -sum(count * (_LEAST_CHUNK + number * _ALIGNMENT)
                 for number, count in enumerate(sizes))
    at = 0
    while True:
        size = _HEADER.unpack_from(heap, at)[1] & ~_FLAGS
        if size < _LEAST_CHUNK:
            raise AssertionError(f"not a heap of the GNU C library: a chunk of {size} bytes")
        following = at + size
        if following + _HEADER.size > len(heap):
            return total  # the last one is what is free at the heap's end
        if _HEADER.unpack_from(heap, following)[1] & _PREVIOUS_IN_USE:
            total += size
        at = following


def _read_heap(pid):
    with open(f"/proc/{pid}/maps", encoding="ascii") as maps:
        span = next(line.split()[0] for line in maps if line.endswith("[heap]\n"))
    begin, end = (int(address, 16) for address in span.split("-"))
    with open(f"/proc/{pid}/mem", "rb") as memory:
        memory.seek(begin)
        return memory.read(end - begin)
