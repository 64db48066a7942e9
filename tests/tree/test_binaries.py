"""What protects the built programs against memory errors."""

import json
import os
import pathlib
import unittest

from support.elf import Elf, table

BUILD = pathlib.Path(os.environ["PALINODE_BIN"]).parent
RESIDENT = ("palinode-igd", "lumend", "lumen-resolver", "lumen-web",
            "palinode-pcp")
PROGRAMS = (*RESIDENT, "lumenctl")

# What leaves no trace in a program that can be read back.
UNSEEN = {"-fstack-clash-protection": "a large array cannot jump over the guard page of the stack"}


def compiled_sources():
    """Each source of the programs with the words of its command."""
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        source = pathlib.Path(entry["file"]).relative_to(pathlib.Path(__file__).parents[2])
        if source.parts[0] in ("src", "lumen", "pcp"):
            yield source, entry["command"].split()


class BinariesTest(unittest.TestCase):
    # Promise: Every program is position-independent, with immediate binding, read-only
    # tables, stack protectors and the checks of both libraries.
    def test_every_program_has_every_protection(self):
        paths = [BUILD / "bin" / program for program in PROGRAMS]
        print(table(paths))
        lacking = {path.name: Elf(path).lacks() for path in paths}
        self.assertEqual({name: lacks for name, lacks in lacking.items() if lacks}, {})

    # Promise: What stays in memory has nothing of the C++ library's streams and locales.
    def test_no_resident_program_has_streams_or_locales(self):
        resident = {name: Elf(BUILD / "bin" / name).streams() for name in RESIDENT}
        self.assertEqual(resident, {name: [] for name in RESIDENT})
        self.assertIn("_ZSt4cout", Elf(BUILD / "bin" / "lumenctl").streams(), "they are recognised")

    def test_every_source_is_compiled_with_what_leaves_no_trace(self):
        lacking = [f"{source}: {flag}" for source, words in compiled_sources() for flag in UNSEEN
                   if flag not in words]
        self.assertEqual(lacking, [])


if __name__ == "__main__":
    unittest.main()
