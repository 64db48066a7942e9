#!/usr/bin/env python3
"""Checks what compilers do not: that every source is built, that includes run one way, that the
code is formatted. Usage: check_tree.py CHECK SOURCE_DIR BUILD_DIR"""

import json
import pathlib
import re
import subprocess
import sys

# What each layer of the daemon may include besides itself.
LAYERS = {
    "platform": set(),
    "xml": {"platform"},
    "http": {"xml", "platform"},
    "description": {"http", "xml", "platform"},
    "upnp": {"http", "xml", "platform"},
    "ssdp": {"description", "http", "xml", "platform"},
    "igd": {"upnp", "http", "xml", "platform"},
    "core": {"ssdp", "igd", "upnp", "description", "http", "xml", "platform"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def sources(top, *suffixes):
    for folder in ("src", "lumen", "tests", "bench", "fuzz"):
        for path in sorted((top / folder).rglob("*")):
            if path.suffix in suffixes:
                yield path


def every_source_is_built(top, build):
    commands = json.loads((build / "compile_commands.json").read_text())
    built = {pathlib.Path(entry["directory"], entry["file"]).resolve() for entry in commands}
    return [f"{p.relative_to(top)}: built by no target" for p in sources(top, ".cpp")
            if p.resolve() not in built]


def includes_run_one_way(top, _build):
    found = []
    for path in sorted((top / "src").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        layer = path.relative_to(top / "src").parts[0]
        for included in INCLUDE.findall(path.read_text()):
            other = included.split("/")[0]
            if other != layer and other not in LAYERS[layer]:
                found.append(f"{path.relative_to(top)}: {layer} must not include {included}")
    return found


def code_is_formatted(top, _build):
    files = [str(p) for p in sources(top, ".h", ".cpp")]
    done = subprocess.run(["clang-format", "--dry-run", "-Werror", *files],
                          capture_output=True, text=True, check=False)
    return [] if done.returncode == 0 else done.stderr.splitlines()


CHECKS = {check.__name__: check
          for check in (every_source_is_built, includes_run_one_way, code_is_formatted)}


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in CHECKS:
        print(__doc__, "Checks:", *CHECKS, file=sys.stderr)
        return 2
    top, build = (pathlib.Path(argument).resolve() for argument in sys.argv[2:])
    found = CHECKS[sys.argv[1]](top, build)
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
