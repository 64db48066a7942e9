"""The link lines of the programs, with every linker that GCC knows: they must not depend on how one
of these searches libraries."""

import os
import pathlib
import shlex
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["PALINODE_BIN"]).parent
PROGRAMS = ("palinode-igd", "palinode-pcp", "lumend", "lumen-resolver", "lumen-web", "lumenctl")


class LinkerTest(unittest.TestCase):
    def links(self, linker):
        for program in PROGRAMS:
            with self.subTest(program), tempfile.TemporaryDirectory() as folder:
                commands = subprocess.run(["ninja", "-C", BUILD, "-t", "commands",
                                           f"bin/{program}"], capture_output=True, text=True,
                                          check=True).stdout
                # ": && COMMAND && :", as CMake writes it.
                command = commands.splitlines()[-1].removeprefix(": && ").removesuffix(" && :")
                words = [word for word in shlex.split(command)
                         if not word.startswith("-fuse-ld=")]
                words[words.index("-o") + 1] = f"{folder}/{program}"
                # lld knows no link-time optimisation of GCC's, and for what is asked it does not matter.
                done = subprocess.run([*words, f"-fuse-ld={linker}", "-fno-lto"], cwd=BUILD, text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
                self.assertEqual(done.returncode, 0, done.stdout)
                self.assertTrue(os.access(f"{folder}/{program}", os.X_OK))

    def test_bfd_links_every_program(self):
        self.links("bfd")

    def test_gold_links_every_program(self):
        self.links("gold")

    def test_lld_links_every_program(self):
        self.links("lld")

    def test_mold_links_every_program(self):
        self.links("mold")


if __name__ == "__main__":
    unittest.main()
