"""Builds mutants and runs the unit tests on them. Part of scripts/mutate."""

import dataclasses
import os
import re
import shutil
import time

from mutation.children import Failed

NO_SANDBOX = 125
MEMORY = 4 << 20  # of a test program, in KiB
OUTPUT = 1 << 19  # of each file that it writes, in blocks of 512 bytes

# A process id namespace, since a broken program may send a signal to everybody; a network, so that
# it cannot change this machine's; and a file system that it cannot harm. The shell stays the first
# process, since that one ignores signals.
SANDBOX = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--net", "--ipc",
           "--mount-proc", "sh", "-c", f"""
{{ mount -t tmpfs none /run && mount -t tmpfs none /var/tmp && mount -t tmpfs none /tmp &&
  mount -o remount,bind,ro / && ip link set lo up &&
  ulimit -c 0 && ulimit -f {OUTPUT} && ulimit -v {MEMORY}; }} || exit {NO_SANDBOX}
"$@"
exit $?
""", "sh"]


@dataclasses.dataclass
class Verdict:
    by: str  # the test that failed; empty: the mutant has survived
    seconds: float


class Laboratory:
    """Tries one mutant at a time, in a folder of its own."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        self.text = folder / "output"

    def measure(self):
        """Runs every test program as it is; they must pass."""
        self.folder.mkdir(parents=True, exist_ok=True)
        for program in self.build.programs:
            started = time.monotonic()
            failure = self.test(program, self.build.base / program.name, 600)
            program.seconds = time.monotonic() - started
            if failure:
                raise Failed(f"without any change {program.name} fails: {failure}\n"
                             + self.text.read_text(errors="replace")[-2000:])

    def judge(self, mutant, code):
        """The verdict; None when the mutant does not compile."""
        started = time.monotonic()
        shutil.rmtree(self.folder, ignore_errors=True)
        changed = self.folder / "tree" / mutant.path
        changed.parent.mkdir(parents=True)
        changed.write_text(mutant.apply(code))
        users = self.build.users[mutant.path]
        made = {}  # object -> the one with the mutant in it
        for program in self.in_order(mutant, users):
            for name in sorted(program.objects & users - made.keys()):
                made[name] = self.compile(name, mutant.path, changed)
                if made[name] is None:
                    return None
            path = self.link(program, made)
            failure = self.test(program, path, program.limit)
            path.unlink()
            if failure:
                return Verdict(f"{os.path.basename(program.name)}: {failure}",
                               time.monotonic() - started)
        return Verdict("", time.monotonic() - started)

    def in_order(self, mutant, users):
        """The programs that contain the mutant, those of the mirrored folder first."""
        folder = os.path.dirname(mutant.path).removeprefix("src/").removeprefix("lumen/")
        folder = folder.replace("platform", "runtime")
        programs = [program for program in self.build.programs if program.objects & users]
        return sorted(programs, key=lambda p: (p.folder != folder, p.seconds))

    def compile(self, name, path, changed):
        command = list(self.build.compile[name])
        made = self.folder / "objects" / name
        made.parent.mkdir(parents=True, exist_ok=True)
        command[command.index("-o") + 1] = str(made)
        source = command.index("-c") + 1
        if command[source] == str(self.build.tree / path):
            command[source] = str(changed)
        folders = [f"-I{self.folder / 'tree' / folder}" for folder in ("src", "")]
        with self.text.open("wb") as output:
            status = self.build.children.run([command[0], *folders, *command[1:]], output=output,
                                             cwd=self.build.base)
        return made if status == 0 else None

    def link(self, program, made):
        path = self.folder / os.path.basename(program.name)
        command = [str(made.get(word, word)) for word in program.link]
        out = command.index("-o")
        command[out + 1] = str(path)
        # Before the libraries: the linker then leaves their versions alone.
        command[out:out] = [str(made[name]) for name in sorted(program.objects & made.keys())
                            if name not in program.link]
        with self.text.open("wb") as output:
            status = self.build.children.run(command, output=output, cwd=self.build.base)
        if status != 0:
            raise Failed(f"{program.name} does not link:\n" + self.text.read_text())
        return path

    def test(self, program, path, limit):
        """Which test failed; empty when all passed."""
        environment = {**os.environ, "GTEST_FAIL_FAST": "1", "GTEST_COLOR": "no", "TMPDIR": "/tmp",
                       "MALLOC_PERTURB_": "165"}
        with self.text.open("wb") as output:
            status = self.build.children.run([*SANDBOX, str(path)], limit, output,
                                             env=environment, cwd=self.build.base)
        if status == 0:
            return ""
        told = self.text.read_text(errors="replace")
        if status == NO_SANDBOX:
            raise Failed("no namespaces to run the tests in:\n" + told)
        failed = re.findall(r"^\[  FAILED  \] (\w+\.\w+|\w+/\w+\.\w+/\w+)", told, re.MULTILINE)
        begun = re.findall(r"^\[ RUN      \] (\S+)", told, re.MULTILINE)
        if status is None:
            return f"time limit in {begun[-1] if begun else program.name}"
        if failed:
            return failed[0]
        return f"status {status} in {begun[-1] if begun else 'its start'}"
