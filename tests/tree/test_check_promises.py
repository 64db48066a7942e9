"""The check of the table of promises, with a ctest of its own."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECK = pathlib.Path(__file__).with_name("check_promises.py")
CTEST = """
add_test(good.One true)
add_test(good.Two true)
add_test(bad.Fails false)
add_test(bad.Skips sh -c "exit 77")
set_tests_properties(bad.Skips PROPERTIES SKIP_RETURN_CODE 77)
add_test(bad.Disabled true)
set_tests_properties(bad.Disabled PROPERTIES DISABLED TRUE)
add_test(bad.CannotStart no-such-program)
"""


class PromisesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="promises-")
        self.addCleanup(folder.cleanup)
        self.build = pathlib.Path(folder.name)
        self.table = self.build / "table.md"
        (self.build / "CTestTestfile.cmake").write_text(CTEST)

    def promise(self, *rows):
        lines = ["# Promises", "", "## HTTP", "", "A sentence.", "",
                 "| Promise | Proven by |", "|---|---|", *rows]
        self.table.write_text("\n".join(lines) + "\n")

    def check(self, what, against):
        return subprocess.run([sys.executable, "-B", CHECK, what, self.table, against],
                              capture_output=True, text=True, check=False)

    def before_the_run(self):
        return self.check("registered", self.build)

    def after_the_run(self, *selection):
        results = self.build / "results.xml"
        subprocess.run(["ctest", "--test-dir", self.build, "--output-junit", results, *selection],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        return self.check("passed", results)

    def assert_refused(self, done, text):
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        self.assertIn(text, done.stderr)
        self.assertEqual("", done.stdout)

    def test_rows_with_tests_are_counted_in_one_line(self):
        self.promise("| It answers. | `good.One`<br>`good.Two` |", "| It ends. | `good.One` |")
        done = self.before_the_run()
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual(f"ok  2 promises in {self.table}, proven by 2 tests\n", done.stdout)

    def test_a_run_that_passed_every_test_says_nothing(self):
        self.promise("| It answers. | `good.One`<br>`good.Two` |")
        done = self.after_the_run()
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))

    def test_a_row_without_a_test_is_refused(self):
        self.promise("| It answers. | |")
        self.assert_refused(self.before_the_run(), "line 9: no test")

    def test_a_row_without_a_promise_is_refused(self):
        self.promise("| | `good.One` |")
        self.assert_refused(self.before_the_run(), "line 9: no promise")

    def test_a_row_with_a_third_cell_is_refused(self):
        self.promise("| It | answers. | `good.One` |")
        self.assert_refused(self.before_the_run(), "line 9: a row is | promise | tests |")

    def test_a_bar_in_a_promise_is_written_with_a_backslash(self):
        self.promise(r"| It answers `a\|b`. | `good.One` |")
        self.assertEqual(0, self.before_the_run().returncode)

    def test_a_row_that_lost_its_end_is_refused(self):
        self.promise("| It answers. | `good.One`")
        self.assert_refused(self.before_the_run(), "line 9: a row is | promise | tests |")

    def test_a_section_without_a_row_is_refused(self):
        self.promise("| It answers. | `good.One` |", "", "## SSDP", "", "## XML", "",
                     "| Promise | Proven by |", "|---|---|", "| It ends. | `good.One` |")
        done = self.before_the_run()
        self.assert_refused(done, "line 11: nothing is promised under SSDP")
        self.assertEqual(2, len(done.stderr.splitlines()))

    def test_a_table_with_another_heading_is_refused(self):
        self.table.write_text("| What | Why |\n|---|---|\n| It answers. | `good.One` |\n")
        self.assert_refused(self.before_the_run(), "line 1: a table begins with")

    def test_a_test_that_does_not_exist_is_refused(self):
        self.promise("| It answers. | `good.One`<br>`good.Three` |")
        self.assert_refused(self.before_the_run(), "line 9: no such test: good.Three")

    def test_a_wildcard_is_no_test(self):
        self.promise("| It answers. | `good.*` |")
        self.assert_refused(self.before_the_run(), "line 9: no such test: good.*")

    def test_a_test_that_is_disabled_is_refused(self):
        self.promise("| It answers. | `bad.Disabled` |")
        self.assert_refused(self.before_the_run(), "line 9: disabled: bad.Disabled")
        self.assert_refused(self.after_the_run(), "line 9: disabled: bad.Disabled")

    def test_a_test_named_twice_in_a_row_is_refused(self):
        self.promise("| It answers. | `good.One`<br>`good.One` |")
        self.assert_refused(self.before_the_run(), "line 9: good.One is named twice")

    def test_a_promise_that_is_made_twice_is_refused(self):
        self.promise("| It answers. | `good.One` |", "| It answers. | `good.Two` |")
        self.assert_refused(self.before_the_run(), "line 10: the same promise as in line 9")

    def test_a_test_without_backticks_is_refused(self):
        self.promise("| It answers. | good.One |")
        self.assert_refused(self.before_the_run(), "line 9: not a test name in backticks: good.One")

    def test_everything_that_is_wrong_is_listed_at_once(self):
        self.promise("| | `good.One` |", "| It answers. | |", "| It ends. | `good.Three` |")
        lines = self.before_the_run().stderr.splitlines()
        self.assertEqual([f"not ok  the promises in {self.table}", "line 9: no promise",
                          "line 10: no test", "line 11: no such test: good.Three"], lines)

    def test_a_test_that_failed_proves_nothing(self):
        self.promise("| It answers. | `bad.Fails` |")
        self.assert_refused(self.after_the_run(), "line 9: failed: bad.Fails")

    def test_a_test_that_was_skipped_proves_nothing(self):
        self.promise("| It answers. | `bad.Skips` |")
        self.assert_refused(self.after_the_run(), "line 9: skipped or not run: bad.Skips")

    def test_a_test_that_could_not_start_proves_nothing(self):
        self.promise("| It answers. | `bad.CannotStart` |")
        self.assert_refused(self.after_the_run(), "line 9: skipped or not run: bad.CannotStart")

    def test_a_test_outside_the_run_proves_nothing(self):
        self.promise("| It answers. | `good.One`<br>`good.Two` |")
        self.assert_refused(self.after_the_run("-R", "good.Two"),
                            "line 9: not in the run: good.One")


if __name__ == "__main__":
    unittest.main()
