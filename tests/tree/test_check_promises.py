"""The check of the promises, on a small source tree with its own ctest."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECK = pathlib.Path(__file__).with_name("check_promises.py")
CTEST = """
add_test(good_test.Door.Opens true)
add_test(good_test.Door.Closes true)
add_test(good_test.Every/Lock.Turns/Left true)
add_test(good_test.Every/Lock.Turns/Right true)
add_test(protocol.test_bell.Bell.test_it_rings true)
add_test(bad_test.Door.Fails false)
add_test(bad_test.Every/Lock.Fails/Left true)
add_test(bad_test.Every/Lock.Fails/Right false)
add_test(bad_test.Door.Skips sh -c "exit 77")
set_tests_properties(bad_test.Door.Skips PROPERTIES SKIP_RETURN_CODE 77)
add_test(bad_test.Door.Disabled true)
set_tests_properties(bad_test.Door.Disabled PROPERTIES DISABLED TRUE)
add_test(bad_test.Door.CannotStart no-such-program)
"""
OPENS = ["// Promise: It opens.", "TEST(Door, Opens) {"]


class PromisesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="promises-")
        self.addCleanup(folder.cleanup)
        self.top = pathlib.Path(folder.name)
        (self.top / "CTestTestfile.cmake").write_text(CTEST)
        self.source("tests/unit/DoorTest.cpp")
        self.document()

    def source(self, name, *lines):
        path = self.top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("".join(f"{line}\n" for line in lines))

    def door(self, *lines):
        self.source("tests/unit/DoorTest.cpp", *lines)

    def bell(self, *lines):
        self.source("tests/protocol/test_bell.py", "class Bell(unittest.TestCase):",
                    *(f"    {line}" for line in lines))

    def document(self, *lines):
        self.source("docs/behaviour.md", "# What you can rely on", *lines)

    def check(self, what, against):
        return subprocess.run([sys.executable, "-B", CHECK, what, self.top, against],
                              capture_output=True, text=True, check=False)

    def before_the_run(self):
        return self.check("registered", self.top)

    def after_the_run(self, *selection):
        results = self.top / "results.xml"
        subprocess.run(["ctest", "--test-dir", self.top, "--output-junit", results, *selection],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        return self.check("passed", results)

    def assert_counted(self, promises, tests):
        done = self.before_the_run()
        self.assertEqual((0, f"ok  {promises} promises, proven by {tests} tests\n", ""),
                         (done.returncode, done.stdout, done.stderr))

    def assert_refused(self, done, *lines):
        self.assertEqual(["not ok  the promises above the tests", *lines],
                         done.stderr.splitlines())
        self.assertEqual((1, ""), (done.returncode, done.stdout))

    def test_promises_and_their_tests_are_counted_in_one_line(self):
        self.door(*OPENS, "}", "", "// Promise: It closes.", "// Promise: It locks.",
                  "TEST_F(Door, Closes) {")
        self.assert_counted(3, 2)

    def test_a_run_that_passed_every_test_says_nothing(self):
        self.door(*OPENS)
        done = self.after_the_run()
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))

    def test_a_test_without_a_promise_is_no_error(self):
        self.door(*OPENS, "}", "TEST(Door, IsRed) {")
        self.assert_counted(1, 1)

    def test_a_promise_may_follow_another_comment(self):
        self.door("// The bolt is new.", *OPENS)
        self.assert_counted(1, 1)

    def test_a_sentence_goes_on_in_the_next_line(self):
        self.door("// Promise: It", "// opens.", "TEST(Door, Opens) {", "}",
                  "// Promise: It opens.", "TEST(Door, Closes) {")
        self.assert_refused(self.before_the_run(), "tests/unit/DoorTest.cpp:5: the same promise as "
                            "in tests/unit/DoorTest.cpp:1")

    def test_the_name_of_a_test_may_stand_on_two_lines(self):
        self.door("// Promise: It opens.", "TEST_F(Door,", "       Opens) {")
        self.assert_counted(1, 1)

    def test_a_promise_stands_above_a_python_test_and_its_decorators(self):
        self.bell("# Promise: It rings.", "@unittest.skipIf(False, 'no')",
                  "def test_it_rings(self):")
        self.assert_counted(1, 1)

    def test_a_promise_above_a_parameterised_test_needs_every_case(self):
        self.door("// Promise: It turns.", "TEST_P(Lock, Turns) {")
        self.assert_counted(1, 1)
        self.assertEqual("", self.after_the_run().stderr)
        self.door("// Promise: It turns.", "TEST_P(Lock, Fails) {")
        self.assert_refused(self.after_the_run(), "tests/unit/DoorTest.cpp:1: failed: Lock.Fails")

    def test_tests_without_any_promise_are_refused(self):
        self.door("TEST(Door, Opens) {")
        self.assert_refused(self.before_the_run(), "no test has a promise")

    def test_a_promise_above_no_test_is_refused(self):
        for below in ("void open() {", "", "// Promise: It closes."):
            with self.subTest(below=below):
                self.door("// Promise: It opens.", below)
                self.assertIn("tests/unit/DoorTest.cpp:1: a promise above no test",
                              self.before_the_run().stderr.splitlines())
        self.door(*OPENS)
        self.bell("# Promise: It rings.", "def ring(self):")
        self.assert_refused(self.before_the_run(),
                            "tests/protocol/test_bell.py:2: a promise above no test")

    def test_a_promise_apart_from_its_test_is_refused(self):
        self.door("// Promise: It opens.", "", "TEST(Door, Opens) {")
        self.bell("# Promise: It rings.", "", "def test_it_rings(self):")
        self.assert_refused(self.before_the_run(),
                            "tests/protocol/test_bell.py:2: a promise above no test",
                            "tests/unit/DoorTest.cpp:1: a promise above no test",
                            "no test has a promise")

    def test_a_promise_in_another_form_is_refused(self):
        for line in ("Promise", "Promise:", "promise: It opens.", "Promise[door]: It opens.",
                     "Promise [The door]: It opens.", "Promise [door] It opens.", "Also proves.",
                     "Also proves door.", "Also proves [door]", "Also proves [door] [bell]."):
            with self.subTest(line=line):
                self.door(f"// {line}", *OPENS)
                self.assert_refused(self.before_the_run(),
                                    "tests/unit/DoorTest.cpp:1: neither // Promise: SENTENCE, nor "
                                    "// Promise [name]: SENTENCE, nor // Also proves [name].")

    def test_a_promise_that_is_made_twice_is_refused(self):
        self.door(*OPENS)
        self.bell("# Promise: It opens.", "def test_it_rings(self):")
        self.assert_refused(self.before_the_run(), "tests/unit/DoorTest.cpp:1: the same promise as "
                            "in tests/protocol/test_bell.py:2")

    def test_a_name_that_is_given_twice_is_refused(self):
        self.document("It opens [door].")
        self.door("// Promise [door]: It opens.", "// Promise [door]: It is red.",
                  "TEST(Door, Opens) {")
        self.assert_refused(self.before_the_run(), "tests/unit/DoorTest.cpp:2: the same name as "
                            "in tests/unit/DoorTest.cpp:1")

    def test_a_test_may_also_prove_what_is_promised_elsewhere(self):
        self.document("It opens [door] and rings [bell].")
        self.bell("# Promise [bell]: It rings.", "def test_it_rings(self):")
        self.door("// Promise [door]: It opens.", "TEST(Door, Opens) {", "}",
                  "// Also proves [door],", "// [bell].", "TEST(Door, Closes) {")
        self.assert_counted(2, 3)
        self.assertEqual("", self.after_the_run().stderr)

    def test_a_test_that_also_proves_a_promise_must_pass(self):
        self.document("It opens [door].")
        door = ["// Promise [door]: It opens.", "TEST(Door, Opens) {", "}",
                "// Also proves [door]."]
        self.door(*door, "TEST(Door, Fails) {")
        self.assert_refused(self.after_the_run(), "tests/unit/DoorTest.cpp:4: failed: Door.Fails")
        self.door(*door, "TEST(Door, IsForgotten) {")
        self.assert_refused(self.before_the_run(),
                            "tests/unit/DoorTest.cpp:4: not registered: Door.IsForgotten")

    def test_a_reference_to_a_name_that_no_promise_has_is_refused(self):
        self.door("// Also proves [door].", *OPENS)
        self.assert_refused(self.before_the_run(),
                            "tests/unit/DoorTest.cpp:1: no promise is named [door]")

    def test_a_reference_that_stands_twice_above_a_test_is_refused(self):
        self.document("It opens [door].")
        self.door("// Promise [door]: It opens.", "TEST(Door, Opens) {", "}",
                  "// Also proves [door].", "// Also proves [door].", "TEST(Door, Closes) {")
        self.assert_refused(self.before_the_run(),
                            "tests/unit/DoorTest.cpp:5: refers to [door] twice above one test")

    def test_a_name_stands_in_the_document_and_above_a_test(self):
        self.document("It opens [front-door2], and it", "does so twice [front-door2].")
        self.door("// Promise [front-door2]: It opens.", "TEST(Door, Opens) {")
        self.assert_counted(1, 1)

    def test_a_name_that_no_promise_has_is_refused(self):
        self.document("", "It opens [door].")
        self.door(*OPENS)
        line = "docs/behaviour.md:3: no promise is named [door]"
        self.assert_refused(self.before_the_run(), line)
        self.assert_refused(self.after_the_run(), line)

    def test_a_name_that_the_document_does_not_cite_is_refused(self):
        self.document("It opens door.")
        self.door("// Promise [door]: It opens.", "TEST(Door, Opens) {")
        self.assert_refused(self.before_the_run(),
                            "tests/unit/DoorTest.cpp:1: docs/behaviour.md does not cite [door]")

    def test_code_and_links_cite_nothing(self):
        self.document("`[door]`, [door](https://example.org/), [2]", "```", "[door]", "```",
                      "It [bell].")
        self.door(*OPENS)
        self.assert_refused(self.before_the_run(),
                            "docs/behaviour.md:6: no promise is named [bell]")

    def test_a_document_that_is_too_long_is_refused(self):
        self.door(*OPENS)
        self.document(*["word"] * 5994)
        self.assert_counted(1, 1)
        self.document(*["word"] * 5995)
        self.assert_refused(self.before_the_run(),
                            "docs/behaviour.md: has 6001 words, may have 6000")

    def test_a_promise_above_a_test_that_is_not_registered_is_refused(self):
        self.door("// Promise: It opens.", "TEST(Door, IsForgotten) {")
        self.bell("# Promise: It rings.", "def test_it_is_forgotten(self):")
        self.assert_refused(
            self.before_the_run(),
            "tests/protocol/test_bell.py:2: not registered: "
            "protocol.test_bell.Bell.test_it_is_forgotten",
            "tests/unit/DoorTest.cpp:1: not registered: Door.IsForgotten")

    def test_a_promise_above_a_test_that_is_disabled_is_refused(self):
        self.door("// Promise: It opens.", "TEST(Door, DISABLED_Disabled) {")
        line = "tests/unit/DoorTest.cpp:1: disabled: Door.Disabled"
        self.assert_refused(self.before_the_run(), line)
        self.assert_refused(self.after_the_run(), line)

    def test_a_promise_above_a_test_that_did_not_pass_is_refused(self):
        for test, why in (("Fails", "failed"), ("Skips", "skipped or not run"),
                          ("CannotStart", "skipped or not run")):
            with self.subTest(test=test):
                self.door("// Promise: It opens.", f"TEST(Door, {test}) {{")
                self.assertEqual(0, self.before_the_run().returncode)
                self.assert_refused(self.after_the_run(),
                                    f"tests/unit/DoorTest.cpp:1: {why}: Door.{test}")

    def test_a_promise_above_a_test_outside_the_run_is_refused(self):
        self.door(*OPENS)
        self.assert_refused(self.after_the_run("-R", "Door.Closes"),
                            "tests/unit/DoorTest.cpp:1: not in the run: Door.Opens")

    def test_everything_that_is_wrong_is_listed_at_once(self):
        self.document("It [bell].")
        self.door("// Promise [door]: It opens.", "TEST(Door, IsForgotten) {")
        self.assert_refused(self.before_the_run(),
                            "docs/behaviour.md:2: no promise is named [bell]",
                            "tests/unit/DoorTest.cpp:1: docs/behaviour.md does not cite [door]",
                            "tests/unit/DoorTest.cpp:1: not registered: Door.IsForgotten")


if __name__ == "__main__":
    unittest.main()
