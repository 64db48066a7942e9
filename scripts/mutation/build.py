"""The scratch copy of the last commit and what is built of it. Part of scripts/mutate."""

import collections
import dataclasses
import json
import os
import pathlib
import re
import shlex
import subprocess
import tarfile

from mutation.children import Failed

TOP = pathlib.Path(__file__).resolve().parent.parent.parent


@dataclasses.dataclass
class Program:
    """A unit test program of the build."""
    name: str
    folder: str     # which it mirrors, as in tests/unit
    link: list      # the command
    objects: set    # what it contains
    seconds: float = 0

    @property
    def limit(self):
        return 40 + 5 * self.seconds


class Build:
    """The scratch copy and what was built of it."""

    def __init__(self, folder, compiler, children):
        self.tree = folder / "tree"
        self.base = folder / "base"
        self.compiler = compiler
        self.children = children
        self.folder = folder

    def prepare(self):
        self.copy()
        self.make()
        self.read()

    def copy(self):
        """Makes the copy equal to the last commit, and touches nothing that has not changed."""
        kept = set()
        archive = subprocess.Popen(["git", "-C", str(TOP), "archive", "HEAD"],
                                   stdout=subprocess.PIPE)
        with tarfile.open(fileobj=archive.stdout, mode="r|") as files:
            for entry in files:
                path = self.tree / entry.name
                kept.add(path)
                if entry.isdir():
                    path.mkdir(parents=True, exist_ok=True)
                elif entry.isfile():
                    data = files.extractfile(entry).read()
                    if not path.is_file() or path.read_bytes() != data:
                        path.write_bytes(data)
                    path.chmod(entry.mode)
        if archive.wait() != 0:
            raise Failed("git archive failed")
        for path in self.tree.rglob("*"):
            if path.is_file() and path not in kept:
                path.unlink()

    def make(self):
        log = self.folder / "build.log"
        self.command(log, "wb", "cmake", "-S", self.tree, "-B", self.base, "-G", "Ninja",
                     "-DCMAKE_BUILD_TYPE=Debug", f"-DCMAKE_CXX_COMPILER={self.compiler}",
                     "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -g0",
                     # Never an error for an unused variable; out of bounds is a failed test.
                     "-DCMAKE_CXX_FLAGS=-w -D_GLIBCXX_ASSERTIONS",
                     "-DPALINODE_CCACHE=OFF",
                     "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST")
        targets = re.findall(r"^(tests/\w+): CXX_EXECUTABLE_LINKER",
                             self.ninja("-t", "targets", "all"), re.MULTILINE)
        self.command(log, "ab", "ninja", "-C", self.base, *targets)
        self.targets = sorted(targets)

    def command(self, log, mode, *command):
        with log.open(mode) as output:
            if self.children.run([str(word) for word in command], output=output) != 0:
                raise Failed(f"{command[0]} failed, see {log}")

    def ninja(self, *arguments):
        return subprocess.run(["ninja", "-C", str(self.base), "--quiet", *arguments], text=True,
                              check=True, stdout=subprocess.PIPE).stdout

    def read(self):
        self.compile = {}  # object -> command
        for entry in json.loads((self.base / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            self.compile[words[words.index("-o") + 1]] = words
        self.users = collections.defaultdict(set)  # file of the tree -> objects made of it
        made = ""
        for line in self.ninja("-t", "deps").splitlines():
            if line.startswith("    "):
                path = pathlib.Path(line.strip())
                if path.is_relative_to(self.tree):
                    self.users[str(path.relative_to(self.tree))].add(made)
            else:
                made = line.split(":")[0]
        members = {}
        self.programs = []
        for target in self.targets:
            command = self.ninja("-t", "commands", "-s", target).strip()
            link = shlex.split(command.removeprefix(": && ").removesuffix(" && :"))
            if not any(word.endswith("libgtest_main.a") for word in link):
                continue
            own = [word for word in link if word.endswith(".o")]
            objects = set(own)
            for archive, member in self.linked(link):
                if archive not in link or os.path.isabs(archive):
                    continue
                if archive not in members:
                    parts = re.findall(r"^ {4}(\S+\.o)$", self.ninja("-t", "query", archive),
                                       re.MULTILINE)
                    members[archive] = {os.path.basename(part): part for part in parts}
                objects.add(members[archive][member])
            folder = own[0].split("/CMakeFiles/")[0].removeprefix("tests/unit/")
            self.programs.append(Program(target, folder, link, objects))
        self.contained = set().union(*(program.objects for program in self.programs))

    def linked(self, link):
        """The members of archives that the linker takes in, as archive, member."""
        told = self.folder / "link-map"
        command = [*link, f"-Wl,-Map={told}"]
        command[command.index("-o") + 1] = "/dev/null"
        subprocess.run(command, cwd=self.base, check=True)
        found = set(re.findall(r"(\S+\.a)\((\S+\.o)\)", told.read_text()))
        told.unlink()
        return found

    def code(self):
        """The files of src/, lumen/ and pcp/, as path -> text, and those that no program contains."""
        files, left_out = {}, []
        for folder in ("src", "lumen", "pcp"):
            for path in sorted((self.tree / folder).rglob("*")):
                name = str(path.relative_to(self.tree))
                if path.suffix not in (".h", ".cpp"):
                    continue
                if self.users[name] & self.contained:
                    files[name] = path.read_text()
                else:
                    left_out.append(name)
        return files, left_out
