#!/usr/bin/env python3
"""Checks the table of promises: that every row names tests, that these exist, and that they ran.
Usage: check_promises.py registered TABLE BUILD_DIR   before a run, against the tests that ctest has
       check_promises.py passed TABLE RESULTS         after a whole run, against its JUnit file"""

import json
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ET
from dataclasses import dataclass, field

HEADER = ["Promise", "Proven by"]


@dataclass
class Row:
    line: int
    promise: str
    tests: list = field(default_factory=list)


def cells_of(line):
    """The cells of a table row; a bar inside a cell is written as \\|."""
    return [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip())[1:-1]]


def read_row(number, line, found):
    cells = cells_of(line)
    if len(cells) != 2 or not line.rstrip().endswith("|"):
        found.append(f"line {number}: a row is | promise | tests |")
        return None
    row = Row(number, cells[0])
    if not row.promise:
        found.append(f"line {number}: no promise")
    for text in cells[1].split("<br>") if cells[1] else []:
        name = re.fullmatch(r"`([^`]+)`", text.strip())
        if not name:
            found.append(f"line {number}: not a test name in backticks: {text.strip()}")
        elif name[1] in row.tests:
            found.append(f"line {number}: {name[1]} is named twice")
        else:
            row.tests.append(name[1])
    if not cells[1]:
        found.append(f"line {number}: no test")
    return row


def read_table(text):
    """The rows of every section, and what is wrong with their form."""
    rows, found, seen, sections = [], [], {}, []
    in_table = False
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("## "):
            sections.append((number, line[3:]))
        if not line.lstrip().startswith("|"):
            in_table = False
        elif not in_table:
            in_table = True
            if cells_of(line) != HEADER:
                found.append(f"line {number}: a table begins with | {' | '.join(HEADER)} |")
        elif not re.fullmatch(r"\|-+\|-+\|", line.strip()):
            row = read_row(number, line, found)
            if row is None:
                continue
            if row.promise and row.promise in seen:
                found.append(f"line {number}: the same promise as in line {seen[row.promise]}")
            seen.setdefault(row.promise, number)
            rows.append(row)
    ends = [number for number, _ in sections[1:]] + [sys.maxsize]
    found += [f"line {begin}: nothing is promised under {name}"
              for (begin, name), end in zip(sections, ends)
              if not any(begin < row.line < end for row in rows)]
    return rows, found


def not_registered(rows, listing):
    """What is wrong with the tests of the rows, given `ctest --show-only=json-v1`."""
    disabled = {}
    for test in listing["tests"]:
        values = {p["name"]: p["value"] for p in test.get("properties", [])}
        disabled[test["name"]] = bool(values.get("DISABLED", False))
    return [f"line {row.line}: {'disabled' if name in disabled else 'no such test'}: {name}"
            for row in rows for name in row.tests if disabled.get(name, True)]


def not_passed(rows, results):
    """Which tests of the rows the JUnit text of a run does not show as passed, and why."""
    words = {"run": "passed", "fail": "failed", "notrun": "skipped or not run",
             "disabled": "disabled"}
    said = {case.get("name"): words[case.get("status")]
            for case in ET.fromstring(results).iter("testcase")}
    return [f"line {row.line}: {said.get(name, 'not in the run')}: {name}"
            for row in rows for name in row.tests if said.get(name) != "passed"]


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("registered", "passed"):
        print(__doc__, file=sys.stderr)
        return 2
    check, table, against = sys.argv[1:]
    rows, found = read_table(pathlib.Path(table).read_text(encoding="utf-8"))
    if check == "registered":
        listing = subprocess.run(["ctest", "--test-dir", against, "--show-only=json-v1"],
                                 stdout=subprocess.PIPE, check=True)
        found += not_registered(rows, json.loads(listing.stdout))
    else:
        found += not_passed(rows, pathlib.Path(against).read_text(encoding="utf-8"))
    if found:
        print(f"not ok  the promises in {table}", *found, sep="\n", file=sys.stderr)
        return 1
    if check == "registered":
        tests = {name for row in rows for name in row.tests}
        print(f"ok  {len(rows)} promises in {table}, proven by {len(tests)} tests")
    return 0


if __name__ == "__main__":
    sys.exit(main())
