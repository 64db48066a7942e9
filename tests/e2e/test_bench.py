"""scripts/bench in little: that it measures all that it promises to."""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

from support.router import PROGRAMS, TOP

REQUESTS = ("description", "GetExternalIPAddress", "AddPortMapping", "DeletePortMapping",
            "GetGenericPortMappingEntry", "NAT-PMP, address", "NAT-PMP, map", "NAT-PMP, renew",
            "NAT-PMP, end")
ROWS = {("start to first answer", ""), ("search, one target", ""), ("search, all targets", ""),
        *(("change told to", subscribers) for subscribers in (1, 10, 100)),
        *((kind, ports) for kind in REQUESTS for ports in (10, 100, 1000))}
SVG = "{http://www.w3.org/2000/svg}"


def run_bench(*arguments):
    return subprocess.run([sys.executable, "-B", TOP / "scripts" / "bench.py", *arguments],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=50,
                          check=False)


class BenchTest(unittest.TestCase):
    def test_it_measures_every_row_and_a_bare_server_beside_it(self):
        with tempfile.TemporaryDirectory(prefix="palinode-") as folder:
            folder = pathlib.Path(folder)
            figures, picture = folder / "figures", folder / "picture"
            # The same build stands for that of another commit.
            other = folder / "other"
            (other / "build").mkdir(parents=True)
            (other / "build" / "bin").symlink_to(PROGRAMS)
            (other / "etc").symlink_to(TOP / "etc")
            done = run_bench("--quick", "--json", figures, "--plot", picture, "--against", other)
            self.assertEqual(done.returncode, 0, done.stderr)
            measured = json.loads(figures.read_text())
            drawn = xml.etree.ElementTree.parse(picture)

        self.assertEqual([build["build"] for build in measured], ["this", "other"])
        for build in measured:
            rows = {(row["kind"], row["size"]): row for row in build["figures"]}
            self.assertEqual(set(rows), ROWS)
            for (kind, size), row in rows.items():
                with self.subTest(kind=kind, size=size):
                    self.assertGreater(row["requests"], 0)
                    self.assertGreater(row["gateway_us"], 0)
                    self.assertLessEqual(row["median_us"], row["p99_us"])
                    if kind == "start to first answer":
                        continue
                    self.assertGreater(row["bare_us"], 0)
                    self.assertGreater(row["bare_median_us"], 0)
                    self.assertGreater(row["ratio"], 0)
                if kind in ("AddPortMapping", "DeletePortMapping", "NAT-PMP, map",
                            "NAT-PMP, renew", "NAT-PMP, end"):
                    self.assertGreater(row["lumend_us"], 0)
            self.assertEqual({(each["program"], each["ports"]) for each in build["memory"]},
                             {(program, ports)
                              for program in ("palinode-igd", "palinode-pcp", "lumend")
                              for ports in (0, 10, 100, 1000)})
            for each in build["memory"]:
                self.assertGreater(each["resident"], each["own"])
        for kind, _ in ROWS:
            self.assertGreaterEqual(done.stdout.count(f"\n{kind} "), 3, kind)
        lines = [line.text for line in drawn.iter(f"{SVG}text")]
        self.assertLessEqual({*REQUESTS, "both programs", "bare server"}, set(lines))

    def test_a_missing_program_is_named(self):
        with tempfile.TemporaryDirectory(prefix="palinode-") as folder:
            done = subprocess.run([sys.executable, "-B", TOP / "scripts" / "bench.py", "--quick"],
                                  env={"PALINODE_BIN": f"{folder}/bin"}, capture_output=True,
                                  text=True, timeout=50, check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, f"scripts/bench: {folder}/bench/client is missing; build with "
                                      "-DPALINODE_BENCH=ON\n")


if __name__ == "__main__":
    unittest.main()
