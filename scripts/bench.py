"""What scripts/bench does once everything is built."""

import argparse
import json
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests"))

from support import bench, plot
from support.router import CommandFailed

HEAD = (
    "                                              waits, µs          processor time, µs",
    "                                            median      99%  program   lumend     bare  ratio")


def row(figures):
    record = figures.record()

    def number(name, digits):
        value = record[name]
        return "-" if value is None else f"{value:.{digits}f}"

    size = f"{figures.size:,} {figures.unit}" if figures.unit else ""
    return (f"{figures.kind:26} {size:>16} {number('median_us', 0):>6} {number('p99_us', 0):>8} "
            f"{number('gateway_us', 1):>8} {number('lumend_us', 1):>8} {number('bare_us', 1):>8} "
            f"{number('ratio', 2):>6}")


def table(results):
    yield from HEAD
    yield from map(row, results.figures.values())
    yield ""
    yield "memory, KiB                      ports resident      own"
    for each in results.memory:
        yield f"{each.program:28} {each.ports:9,} {each.resident:8,} {each.own:8,}"


def comparison(this, other):
    """How the build of the other commit compares."""
    yield f"processor time, µs: {this.build.name:>15}  {other.build.name:>10}  change"
    for key, figures in this.figures.items():
        mine, theirs = figures.processor, other.figures[key].processor
        size = f"{figures.size:,}" if figures.unit else ""
        yield (f"{figures.kind:26} {size:>7} {mine:>10.1f}  {theirs:>10.1f} "
               f"{(mine / theirs - 1) * 100:>+6.0f}%")


def charts(results):
    """Of one build."""
    def rows(kind):
        return [each for each in results.figures.values() if each.kind == kind]

    requests = {each.kind: [row.processor for row in rows(each.kind)]
                for each in results.figures.values() if each.unit == "ports"}
    changes = rows("change told to")
    return [
        plot.Chart("A request", ports_of(results), "open ports", requests),
        plot.Chart("A change", tuple(each.size for each in changes), "subscribers that are told", {
            "both programs": [each.processor for each in changes],
            "bare server": [each.record()["bare_us"] for each in changes]}, linear=True)]


def ports_of(results):
    return tuple(sorted({each.size for each in results.figures.values() if each.unit == "ports"}))


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench")
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path,
                        help="write the figures to this file as well")
    parser.add_argument("--plot", metavar="FILE", type=pathlib.Path,
                        help="draw the cost against the number of ports and of subscribers, SVG")
    parser.add_argument("--against", metavar="COMMIT", type=pathlib.Path,
                        help="measure the build of that commit too, by turns")
    parser.add_argument("--quick", action="store_true",
                        help="measure little, with fewer ports: shows only that it works")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    for tool in ("client", "bare_server"):
        if not (bench.TOOLS / tool).exists():
            sys.exit(f"scripts/bench: {bench.TOOLS / tool} is missing; build with "
                     "-DPALINODE_BENCH=ON")
    builds = [bench.Build("this")]
    if arguments.against:
        top = arguments.against.resolve()
        builds.append(bench.Build(top.name, top, top / "build" / "bin"))
    results = [bench.Results(build) for build in builds]
    try:
        bench.measure(results, bench.QUICK if arguments.quick else bench.Plan(),
                      lambda line: print(f"   measuring: {line}", file=sys.stderr, flush=True))
    except KeyboardInterrupt:
        sys.exit("\nended by Ctrl-C; nothing is left behind")
    except (AssertionError, CommandFailed, OSError) as error:
        sys.exit(f"scripts/bench: {error}")
    for each in results:
        print(f"\nbuild: {each.build.name}", *table(each), sep="\n")
    for other in results[1:]:
        print("", *comparison(results[0], other), sep="\n")
    if arguments.json:
        arguments.json.write_text(json.dumps([each.record() for each in results], indent=1) + "\n")
    if arguments.plot:
        arguments.plot.write_text(plot.draw(charts(results[0]), "processor time, µs"))


if __name__ == "__main__":
    main()
