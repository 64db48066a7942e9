#!/usr/bin/env python3
"""Reads what clang's coverage mapping and a merged profile say about src/ and lumen/.

    coverage.py BUILD PROFILE                    a line per folder; fails below the limits
    coverage.py BUILD PROFILE --missing [PATH...]  the lines and branches that did not run
"""

import collections
import json
import os
import pathlib
import re
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
FOLDERS = ("src", "lumen", "pcp")
LINES, BRANCHES = 95.0, 85.0  # percent


def export(build, profile):
    """Counts by file. The mapping is read from every object file, so that code which no test links
    counts as well, and from those of the tests, which have the templates that only they use."""
    commands = json.loads((build / "compile_commands.json").read_text())
    outputs = [build / re.search(r" -o (\S+)", entry["command"])[1] for entry in commands]
    objects = [str(path) for path in outputs if path.suffix == ".o" and path.exists()]
    if any(os.path.getmtime(p) > os.path.getmtime(profile) for p in objects):
        print("The build is newer than the measurement: what has changed since is left out.",
              file=sys.stderr)
    command = ["llvm-cov", "export", "-format=text", "-skip-expansions", "-skip-functions",
               f"-instr-profile={profile}", objects[0]]
    for each in objects[1:]:
        command += ["-object", each]
    # It warns of inline functions that one object file has and another has not.
    done = subprocess.run(command, capture_output=True, check=False)
    if done.returncode != 0:
        sys.exit(done.stderr.decode())
    for file in json.loads(done.stdout)["data"][0]["files"]:
        path = pathlib.Path(os.path.relpath(file["filename"], TOP))
        if path.parts[0] in FOLDERS:
            source = (TOP / path).read_text().splitlines()
            yield path, line_counts(file["segments"]), branch_counts(file["branches"], source)


def line_counts(segments):
    """How often each line ran that has code. A segment counts from its place to the next one; a
    line's count is the highest of the regions that begin on it, or of the one that covers it."""
    by_line = collections.defaultdict(list)
    for line, _column, count, has_count, is_entry, is_gap in segments:
        by_line[line].append((count, has_count, is_entry and not is_gap))
    counts, wrapping = {}, (0, False, False)
    if not by_line:
        return counts
    for line in range(min(by_line), max(by_line) + 1):
        here = by_line.get(line, [])
        entries = [count for count, has_count, is_entry in here if is_entry and has_count]
        skipped = bool(here) and not here[0][1] and here[0][2]
        if not skipped and (wrapping[1] or entries):
            counts[line] = max(entries + ([wrapping[0]] if wrapping[1] else []))
        if here:
            wrapping = here[-1]
    return counts


def branch_counts(branches, source):
    """How often each condition was true and false, by its place. An instance of a template counts
    with the others of that place. What the compiler decides is no branch."""
    counts = collections.Counter()
    for line, column, end_line, end_column, taken, not_taken, *_ in branches:
        text = source[line - 1]
        if text[column - 1:end_column - 1] == "true" or "if constexpr" in text[:column - 1]:
            continue
        place = (line, column, end_line, end_column)
        counts[place, True] += taken
        counts[place, False] += not_taken
    return counts


class Share:
    """Of so many so many ran."""

    def __init__(self):
        self.ran, self.all = 0, 0

    def add(self, counts):
        self.ran += sum(1 for count in counts if count)
        self.all += len(counts)

    @property
    def percent(self):
        return 100.0 * self.ran / self.all if self.all else 100.0

    def __str__(self):
        return f"{self.percent:6.1f} % of {self.all:5}"


def table(files):
    shares = collections.defaultdict(lambda: (Share(), Share()))
    totals = [f"{folder}/" for folder in FOLDERS] + ["all"]
    for path, lines, branches in files:
        for name in (f"{path.parent}", f"{path.parts[0]}/", "all"):
            shares[name][0].add(lines.values())
            shares[name][1].add(branches.values())
    print(f"{'':30}{'lines':>10}{'branches':>22}")
    for name in sorted(set(shares) - set(totals)) + totals:
        lines, branches = shares[name]
        print(f"{name:30}{lines}   {branches}")
    lines, branches = shares["all"]
    return lines.percent >= LINES and branches.percent >= BRANCHES


def missing(files, wanted):
    for path, lines, branches in files:
        if wanted and not any(path.is_relative_to(each) for each in wanted):
            continue
        source = (TOP / path).read_text().splitlines()
        found = [(line, f"not run: {source[line - 1].strip()}")
                 for line, count in lines.items() if not count]
        for (place, outcome), count in branches.items():
            line, column, end_line, end_column = place
            if not count and lines.get(line):
                condition = source[line - 1][column - 1:end_column - 1 if end_line == line else None]
                found.append((line, f"never {str(outcome).lower()}: {condition}"))
        for line, text in sorted(found):
            print(f"{path}:{line}: {text}")


def main():
    if len(sys.argv) < 3 or sys.argv[3:4] not in ([], ["--missing"]):
        print(__doc__, file=sys.stderr)
        return 2
    files = sorted(export(pathlib.Path(sys.argv[1]), sys.argv[2]))
    if len(sys.argv) == 3:
        return 0 if table(files) else 1
    for wanted in sys.argv[4:]:
        if not (TOP / wanted).exists():
            sys.exit(f"there is no {wanted}")
    missing(files, sys.argv[4:])
    return 0


if __name__ == "__main__":
    sys.exit(main())
