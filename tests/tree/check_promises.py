#!/usr/bin/env python3
"""Checks the promises above the tests: that each is made once, that its test runs, and that the
names which docs/behaviour.md cites are those of the promises.
Usage: check_promises.py registered SOURCE_DIR BUILD_DIR   before a run, against the tests of ctest
       check_promises.py passed SOURCE_DIR RESULTS         after a whole run, against its JUnit file

A promise ends the comment above its test; several follow each other. One that docs/behaviour.md
cites as [port-limit] has that name:

    // Promise [port-limit]: By default 4096 ports may be open.
    // Promise: A port that is closed may be opened again.
    TEST(Ports, HaveALimit) {

    // Also proves [port-limit], [port-reuse].
    TEST(Ports, CountWhenTheyAreClosedToo) {

Python has the same with #, above the decorators of the test if there are some."""

import json
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ET
from collections import defaultdict
from dataclasses import dataclass

DOCUMENT = "docs/behaviour.md"
MOST_WORDS = 6000
NAME = r"[a-z][a-z0-9]*(?:-[a-z0-9]+)*"
BEGIN = re.compile(r"(?:promise|also proves)\b", re.IGNORECASE)
PROMISE = re.compile(rf"Promise(?: \[({NAME})\])?: (.+)")
REFERENCE = re.compile(rf"Also proves \[{NAME}\](?:, \[{NAME}\])*\.")
CITATION = re.compile(rf"\[({NAME})\](?!\()")
CODE = re.compile(r"```.*?```|`[^`\n]*`", re.DOTALL)
CPP_TEST = re.compile(r"TEST(?:_F|_P)?\(\s*(\w+),\s*(?:DISABLED_)?(\w+)\s*\)")
PYTHON_TEST = re.compile(r"(?: *@[^\n]*\n)* *def (test_\w+)\(")
PYTHON_CLASS = re.compile(r"class (\w+)")
GOOGLE_TEST = re.compile(r"\w+\.(?:\w+/)?(\w+\.\w+)(?:/\w+)?")


@dataclass
class Comment:
    """A promise, or a reference to promises that the test proves as well."""
    place: str
    text: str
    test: str | None = None

    @property
    def promise(self):
        """Its name and its sentence, if it is one."""
        return PROMISE.fullmatch(self.text)

    @property
    def references(self):
        return re.findall(rf"\[({NAME})\]", self.text) if REFERENCE.fullmatch(self.text) else []


def test_below(path, lines, number):
    """The test that begins at the line of this number, as `Suite.Name` or by its whole name."""
    text = "\n".join(lines[number:number + 20])
    if path.suffix == ".cpp":
        test = CPP_TEST.match(text)
        return f"{test[1]}.{test[2]}" if test else None
    test = PYTHON_TEST.match(text)
    classes = [found[1] for found in map(PYTHON_CLASS.match, lines[:number]) if found]
    if not test or not classes:
        return None
    # cmake/PythonTests.cmake gives these names; the label of the tests is that of their folder.
    return f"{path.parent.name}.{path.stem}.{classes[-1]}.{test[1]}"


def read_file(top, path, found):
    """The comments of one file; what is wrong with their form is added to what was found."""
    mark = "//" if path.suffix == ".cpp" else "#"
    line_form = re.compile(rf"\s*{mark}(?: (.*))?")
    lines = [*path.read_text(encoding="utf-8").splitlines(), ""]
    comments, waiting = [], []  # waiting: those whose test has not come yet
    for number, line in enumerate(lines):
        said = line_form.fullmatch(line)
        if said and BEGIN.match(said[1] or ""):
            waiting.append(Comment(f"{path.relative_to(top)}:{number + 1}", said[1]))
        elif said and waiting:
            waiting[-1].text += f" {said[1] or ''}"
        elif waiting:
            test = test_below(path, lines, number)
            for comment in waiting:
                comment.test = test
            comments += waiting
            waiting = []
    found += [f"{c.place}: neither {mark} Promise: SENTENCE, nor {mark} Promise [name]: SENTENCE, "
              f"nor {mark} Also proves [name]."
              for c in comments if not c.promise and not c.references]
    found += [f"{c.place}: a promise above no test" for c in comments if not c.test]
    return [c for c in comments if c.test]


def read_tests(top, found):
    paths = [*(top / "tests").rglob("*.cpp"), *(top / "tests").rglob("test_*.py")]
    comments = [comment for path in sorted(paths) for comment in read_file(top, path, found)]
    if not any(comment.promise for comment in comments):
        found.append("no test has a promise")
    first = {}
    for comment in comments:
        name, sentence = comment.promise.groups() if comment.promise else (None, None)
        for what, value in (("name", name), ("promise", sentence and sentence.casefold())):
            if value and first.setdefault((what, value), comment) is not comment:
                found.append(f"{comment.place}: the same {what} as in {first[what, value].place}")
    for comment in comments:
        for name in comment.references:
            if ("name", name) not in first:
                found.append(f"{comment.place}: no promise is named [{name}]")
            elif first.setdefault((comment.test, name), comment) is not comment:
                found.append(f"{comment.place}: refers to [{name}] twice above one test")
    return comments


def out_of_step(comments, document):
    """Names that only the document has, names that only tests have, and a document too long."""
    cited = {}
    # Code is blanked, not removed, so that lines keep their numbers.
    text = CODE.sub(lambda code: re.sub(r"[^\n]", " ", code[0]), document)
    for number, line in enumerate(text.splitlines(), 1):
        for name in CITATION.findall(line):
            cited.setdefault(name, number)
    named = {comment.promise[1]: comment for comment in comments
             if comment.promise and comment.promise[1]}
    found = [f"{DOCUMENT}:{number}: no promise is named [{name}]"
             for name, number in cited.items() if name not in named]
    found += [f"{comment.place}: {DOCUMENT} does not cite [{name}]"
              for name, comment in named.items() if name not in cited]
    words = len(document.split())
    if words > MOST_WORDS:
        found.append(f"{DOCUMENT}: has {words} words, may have {MOST_WORDS}")
    return found


def by_test(results):
    """The results of a run under the names that sources give: the cases of one TEST_P together."""
    grouped = defaultdict(list)
    for name, result in results:
        google_test = GOOGLE_TEST.fullmatch(name)
        grouped[google_test[1] if google_test else name].append(result)
    return grouped


def not_registered(comments, listing):
    """Which promises have no test that would run, given `ctest --show-only=json-v1`."""
    tests = by_test((test["name"], {p["name"]: p["value"] for p in test.get("properties", [])})
                    for test in listing["tests"])
    found = []
    for comment in comments:
        if comment.test not in tests:
            found.append(f"{comment.place}: not registered: {comment.test}")
        elif any(properties.get("DISABLED") for properties in tests[comment.test]):
            found.append(f"{comment.place}: disabled: {comment.test}")
    return found


def not_passed(comments, results):
    """Which promises the JUnit text of a run does not show as proven, and why."""
    words = {"run": "passed", "fail": "failed", "notrun": "skipped or not run",
             "disabled": "disabled"}
    tests = by_test((case.get("name"), words[case.get("status")])
                    for case in ET.fromstring(results).iter("testcase"))
    return [f"{comment.place}: {why}: {comment.test}" for comment in comments
            for why in sorted(set(tests.get(comment.test, ["not in the run"])) - {"passed"})]


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("registered", "passed"):
        print(__doc__, file=sys.stderr)
        return 2
    check, top, against = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
    found = []
    comments = read_tests(top, found)
    found += out_of_step(comments, (top / DOCUMENT).read_text(encoding="utf-8"))
    if check == "registered":
        listing = subprocess.run(["ctest", "--test-dir", against, "--show-only=json-v1"],
                                 stdout=subprocess.PIPE, check=True)
        found += not_registered(comments, json.loads(listing.stdout))
    else:
        found += not_passed(comments, pathlib.Path(against).read_text(encoding="utf-8"))
    if found:
        print("not ok  the promises above the tests", *found, sep="\n", file=sys.stderr)
        return 1
    if check == "registered":
        promises = sum(1 for comment in comments if comment.promise)
        tests = {comment.test for comment in comments}
        print(f"ok  {promises} promises, proven by {len(tests)} tests")
    return 0


if __name__ == "__main__":
    sys.exit(main())
