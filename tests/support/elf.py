"""What the compiler and the linker have put into a program against memory errors, read from its ELF
file. By hand it prints a table:

    PYTHONPATH=tests python3 -m support.elf build/bin/*
"""

import pathlib
import struct
import sys

# <elf.h>
ET_DYN = 3
EM_X86_64 = 62
PT_LOAD, PT_DYNAMIC, PT_GNU_STACK, PT_GNU_RELRO = 1, 2, 0x6474E551, 0x6474E552
PF_X = 1
DT_STRTAB, DT_SYMTAB, DT_STRSZ = 5, 6, 10
DT_RPATH, DT_BIND_NOW, DT_RUNPATH, DT_FLAGS, DT_FLAGS_1 = 15, 24, 29, 30, 0x6FFFFFFB
DF_BIND_NOW, DF_1_NOW, DF_1_PIE = 8, 1, 0x08000000
SHT_SYMTAB = 2

# What a failed check says, in a program that the C++ library is linked into.
ASSERTION = b"Assertion '%s' failed"

# Of the C++ library, by how their names begin: streams with the object that sets them up, locales,
# and what brings these in.
STREAMS = ("_ZNSt8ios_base", "_ZNSt6locale", "_ZNKSt6locale", "_ZSt4cout", "_ZSt4cerr", "_ZSt4clog",
           "_ZNSo", "_ZNSi", "_ZNSt9basic_ios", "_ZNSt13basic_filebuf", "_ZNSt10filesystem",
           "_ZNSt7__cxx1115basic_stringbuf", "_ZNSt7__cxx1112basic_format")

# Of x86: what an indirect jump must land on. Code without the option has at most the few of the
# start files and of hand-written assembly.
ENDBR64 = bytes.fromhex("f30f1efa")
FEW_LANDINGS = 20

# What each protection is for.
PROTECTIONS = {
    "pie": "the program lies at a random address",
    "relro": "tables of addresses become read-only",
    "now": "... all of them, before the program starts",
    "nx": "the stack is not executable",
    "canary": "a smashed stack ends the program",
    "fortify": "the C library checks sizes",
    "assertions": "the C++ library checks indexes",
    "landings": "indirect jumps land on marked places (x86)",
    "no path": "libraries come from the system's folders only",
}


class NotElf(Exception):
    """The file is no program."""


class Elf:
    """A program for either order and size of a machine's words."""

    def __init__(self, path):
        self._data = pathlib.Path(path).read_bytes()
        if self._data[:4] != b"\x7fELF" or len(self._data) < 64:
            raise NotElf(f"{path} is no program")
        self._wide = self._data[4] == 2
        self._order = "<" if self._data[5] == 1 else ">"
        self._type, self._machine = self._unpack("HH", 16)
        self._segments = list(self._read_segments())
        self._dynamic = list(self._read_dynamic())
        self.imports = set(self._read_symbols())
        self.names = self.imports | set(self._read_names())

    def _unpack(self, form, offset):
        return struct.unpack_from(self._order + form, self._data, offset)

    def _read_segments(self):
        """Type, flags, offset, address and size in the file of each."""
        (table,) = self._unpack("Q", 32) if self._wide else self._unpack("I", 28)
        size, count = self._unpack("HH", 54 if self._wide else 42)
        for at in range(table, table + size * count, size):
            if self._wide:
                kind, flags, offset, address, _, length = self._unpack("IIQQQQ", at)
            else:
                kind, offset, address, _, length, _, flags = self._unpack("IIIIIII", at)
            yield kind, flags, offset, address, length

    def _read_dynamic(self):
        size = 16 if self._wide else 8
        for kind, _, offset, _, length in self._segments:
            if kind == PT_DYNAMIC:
                for at in range(offset, offset + length, size):
                    yield self._unpack("QQ" if self._wide else "II", at)

    def _offset_of(self, address):
        for kind, _, offset, start, length in self._segments:
            if kind == PT_LOAD and start <= address < start + length:
                return offset + address - start
        raise NotElf(f"address {address:#x} is in no segment")

    def _read_symbols(self):
        """The names in the table for the dynamic linker, which ends where its texts begin."""
        values = dict(self._dynamic)
        if DT_SYMTAB not in values:
            return
        first, texts = self._offset_of(values[DT_SYMTAB]), self._offset_of(values[DT_STRTAB])
        for at in range(first, texts, 24 if self._wide else 16):
            (name,) = self._unpack("I", at)
            if name < values[DT_STRSZ]:
                end = self._data.index(b"\0", texts + name)
                yield self._data[texts + name:end].decode("ascii", "replace")

    def _read_names(self):
        """The names in the table for people, which a stripped program does not have."""
        (table,) = self._unpack("Q", 40) if self._wide else self._unpack("I", 32)
        size, count = self._unpack("HH", 58 if self._wide else 46)
        # Kind, offset, length and the number of the section that belongs to it, of each section.
        sections = [self._unpack("4xI16xQQI" if self._wide else "4xI8xIII", at)
                    for at in range(table, table + size * count, size)]
        for kind, offset, length, texts in sections:
            if kind == SHT_SYMTAB:
                for at in range(offset, offset + length, 24 if self._wide else 16):
                    start = sections[texts][1] + self._unpack("I", at)[0]
                    yield self._data[start:self._data.index(b"\0", start)].decode("ascii", "replace")

    def streams(self):
        """What it has of the streams and locales of the C++ library, its own or another's."""
        return sorted(name for name in self.names if name.startswith(STREAMS))

    def _flags(self, tag):
        return next((value for found, value in self._dynamic if found == tag), 0)

    def _landings(self):
        return sum(self._data.count(ENDBR64, offset, offset + length)
                   for kind, flags, offset, _, length in self._segments
                   if kind == PT_LOAD and flags & PF_X)

    def protections(self):
        """Whether it has each of PROTECTIONS; None for what the machine does not know."""
        tags = {tag for tag, _ in self._dynamic}
        stack = [flags for kind, flags, *_ in self._segments if kind == PT_GNU_STACK]
        return {
            "pie": self._type == ET_DYN and bool(self._flags(DT_FLAGS_1) & DF_1_PIE),
            "relro": any(kind == PT_GNU_RELRO for kind, *_ in self._segments),
            "now": bool(DT_BIND_NOW in tags or self._flags(DT_FLAGS) & DF_BIND_NOW or
                        self._flags(DT_FLAGS_1) & DF_1_NOW),
            "nx": bool(stack) and not any(flags & PF_X for flags in stack),
            "canary": "__stack_chk_fail" in self.imports,
            "fortify": any(name.startswith("__") and name.endswith("_chk")
                           for name in self.imports),
            "assertions": any("glibcxx_assert_fail" in name for name in self.imports) or
                          ASSERTION in self._data,
            "landings": self._landings() > FEW_LANDINGS if self._machine == EM_X86_64 else None,
            "no path": not tags & {DT_RPATH, DT_RUNPATH},
        }

    def lacks(self):
        return [name for name, there in self.protections().items() if there is False]


def table(paths):
    width = max(len(pathlib.Path(path).name) for path in paths)
    lines = [" ".join([" " * width, *PROTECTIONS])]
    for path in paths:
        words = {True: "yes", False: "NO", None: "-"}
        lines.append(" ".join([pathlib.Path(path).name.ljust(width),
                               *(words[there].ljust(len(name))
                                 for name, there in Elf(path).protections().items())]).rstrip())
    return "\n".join(lines)


def main():
    if len(sys.argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    print(table(sys.argv[1:]))
    return 1 if any(Elf(path).lacks() for path in sys.argv[1:]) else 0


if __name__ == "__main__":
    sys.exit(main())
