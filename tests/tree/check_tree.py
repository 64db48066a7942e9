#!/usr/bin/env python3
"""Checks what compilers do not: that every source is built, that includes run one way, that the
code is formatted, that every package which the scripts install is needed, that documents name files
that exist, that keys of ordered containers are in order on every machine, that the lists of tests which
no emulator can run name existing ones. Usage: check_tree.py CHECK SOURCE_DIR BUILD_DIR"""

import json
import pathlib
import re
import subprocess
import sys

import ordered_keys

# What each layer may include besides itself, by the beginning of the path. The daemon knows its
# platform by src/platform only; what parses or changes the kernel knows nothing of the services.
LAYERS = {
    "src/base": (),
    "src/platform": (),
    "src/net": ("base", "platform"),
    "src/xml": ("base", "platform"),
    "src/http": ("xml", "net", "base", "platform"),
    "src/description": ("http", "xml", "base", "platform"),
    "src/upnp": ("http", "xml", "net", "base", "platform"),
    "src/ssdp": ("description", "http", "xml", "net", "base", "platform"),
    "src/igd": ("upnp", "http", "xml", "net", "base", "platform"),
    "src/core": ("ssdp", "igd", "upnp", "description", "http", "xml", "net", "base", "platform"),
    "lumen/values": (),
    "lumen/runtime": ("lumen/values", "base", "platform"),
    "lumen/services/system/processes": ("lumen/runtime", "lumen/values", "base", "platform"),
    "lumen/services/system/netlink": ("lumen/runtime", "lumen/values", "base", "platform"),
    "lumen/services/system/netfilter": ("lumen/runtime", "lumen/values", "base", "platform"),
    "lumen/services": ("lumen/runtime", "lumen/values", "base", "platform"),
    "lumen/web": ("lumen/ctl/router", "lumen/ctl/status", "lumen/ctl/check", "lumen/ctl/text",
                  "lumen/runtime", "lumen/values", "net", "base", "platform"),
    "pcp/codec": ("lumen/values",),
    "pcp/table": ("pcp/codec", "lumen/runtime", "lumen/values"),
    "pcp/server": ("pcp/table", "pcp/codec", "lumen/runtime", "lumen/values", "base", "platform"),
    "lumen/ctl": ("lumen/services", "lumen/runtime", "lumen/values", "base", "platform"),
}

# What needs a package that scripts/lib.sh lists for tests alone: a file, and the word in it. What it
# lists for the programs, the demonstration and the unit tests is tried on a fresh machine.
USERS_OF_PACKAGES = {
    "bison": ("scripts/crossing/sources", "nftables"),
    "ccache": ("scripts/lib.sh", "command -v ccache"),
    "chromium": ("tests/support/browser.py", '"chromium"'),
    "chromium-driver": ("tests/support/browser.py", '"chromedriver"'),
    "clang": ("CMakePresets.json", "clang++"),
    "clang-format": ("tests/tree/check_tree.py", '"clang-format", "--dry-run"'),
    "cpio": ("scripts/crossing/machine_files.sh", "cpio -o"),
    "debian-archive-keyring": ("scripts/crossing/archive.sh", "debian-archive-keyring.gpg"),
    "debootstrap": ("tests/support/debian.py", '"debootstrap"'),
    "dpkg-dev": ("packaging/CMakeLists.txt", "CPACK_DEBIAN_PACKAGE_SHLIBDEPS"),
    "file": ("packaging/CMakeLists.txt", "CPACK_DEBIAN_PACKAGE_SHLIBDEPS"),
    "flex": ("scripts/crossing/sources", "nftables"),
    "gir1.2-gupnp-1.6": ("tests/e2e/clients/gupnp_subscriber.py", "GUPnP"),
    "gperf": ("scripts/crossing/sources", "libseccomp"),
    "iptables": ("tests/e2e/test_check_firewall.py", '"iptables"'),
    "libclang-rt-dev": ("cmake/Palinode.cmake", "-fsanitize=address"),
    "libupnp-dev": ("tests/e2e/clients/libupnp_subscriber.py", "libupnp"),
    "lintian": ("tests/package/test_package.py", '"lintian"'),
    "lld": ("tests/tree/test_linkers.py", '"lld"'),
    "mold": ("tests/tree/test_linkers.py", '"mold"'),
    "nmap": ("tests/e2e/test_ports.py", '"nmap"'),
    "procps": ("tests/e2e/test_check_network.py", "sysctl -w"),
    "python3-gi": ("tests/e2e/clients/gupnp_subscriber.py", "import gi"),
    "python3-libtorrent": ("tests/e2e/clients/libtorrent_client.py", "import libtorrent"),
    "qbittorrent-nox": ("tests/e2e/test_pcp_clients.py", '"qbittorrent-nox"'),
    "qemu-system-mips": ("scripts/crossing/machine.sh", "qemu-system-mipsel"),
    "qemu-system-misc": ("scripts/crossing/machine.sh", "qemu-system-s390x"),
    "qemu-user-static": ("scripts/cross", "qemu-mips-static"),
    "syncthing": ("tests/e2e/test_pcp_clients.py", '"syncthing"'),
    "transmission-cli": ("tests/e2e/test_pcp_clients.py", '"transmission-cli"'),
    "zsh": ("tests/e2e/test_completion.py", '"zsh"'),
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
# A path from the top of the tree in `code` of a document; /lumen/etc is one of the router.
CODE = re.compile(r"`([^`\n]+)`")
PATH = re.compile(r"(?<![\w/.-])(?:src|lumen|pcp|tests|fuzz|scripts|packaging|cmake|docs)/[\w./-]*\w")


def sources(top, *suffixes):
    for folder in ("src", "lumen", "pcp", "tests", "bench", "fuzz"):
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
    for path in sorted(sources(top, ".h", ".cpp")):
        name = str(path.relative_to(top))
        if not name.startswith(("src/", "lumen/", "pcp/")):
            continue
        layer = max((layer for layer in LAYERS if name.startswith(layer + "/")), key=len,
                    default=None)
        if layer is None:
            if path.parent not in (top / "src", top / "lumen", top / "pcp"):
                found.append(f"{name}: no layer is known for its folder")
            continue
        allowed = (layer.removeprefix("src/"), *LAYERS[layer])
        for included in INCLUDE.findall(path.read_text()):
            if not included.startswith(tuple(folder + "/" for folder in allowed)):
                found.append(f"{name}: {layer} must not include {included}")
    return found


def code_is_formatted(top, _build):
    files = [str(p) for p in sources(top, ".h", ".cpp")]
    done = subprocess.run(["clang-format", "--dry-run", "-Werror", *files],
                          capture_output=True, text=True, check=False)
    return [] if done.returncode == 0 else done.stderr.splitlines()


def every_package_is_used(top, _build):
    def listed(*names):
        lists = " ".join(f'"${{{name}[@]}}"' for name in names)
        done = subprocess.run(["bash", "-c", f". scripts/lib.sh; echo {lists}"], cwd=top,
                              capture_output=True, text=True, check=True)
        return set(done.stdout.split())

    tried = listed("build_packages", "run_packages", "unit_packages")
    found = []
    for package in sorted(listed("test_packages", "user_packages", "crossing_packages",
                                 "emulation_packages", "machine_packages") - tried):
        file, word = USERS_OF_PACKAGES.get(package, ("scripts/lib.sh", None))
        if word is None or word not in (top / file).read_text():
            found.append(f"{file}: nothing there uses the package {package}")
    return found


def documents_name_existing_files(top, _build):
    found = []
    for document in (*sorted((top / "docs").glob("*.md")), *sorted(top.glob("*.md"))):
        for number, line in enumerate(document.read_text().splitlines(), 1):
            for path in PATH.findall(" ".join(CODE.findall(line))):
                if not (top / path).exists():
                    found.append(f"{document.relative_to(top)}:{number}: there is no {path}")
    return found


def keys_are_ordered_alike_everywhere(top, _build):
    texts, wanted = {}, []
    for path in sources(top, ".h", ".cpp"):
        name = str(path.relative_to(top))
        wanted.append(name)
        texts[name] = text = path.read_text()
        # As others include it.
        texts.setdefault(name.removeprefix("src/").removeprefix("tests/unit/"), text)
    return ordered_keys.findings(texts, wanted)


def tests_left_out_of_emulators_exist(top, build):
    done = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, capture_output=True, text=True,
                          check=True)
    existing = {test["name"] for test in json.loads(done.stdout)["tests"]}
    return [f"{path.relative_to(top)}:{number}: there is no test {name}"
            for path in sorted((top / "tests").glob("needs-*.txt"))
            for number, name in enumerate(path.read_text().splitlines(), 1)
            if name and not name.startswith("#") and name not in existing]


CHECKS = {check.__name__: check
          for check in (every_source_is_built, includes_run_one_way, code_is_formatted,
                        every_package_is_used, documents_name_existing_files,
                        keys_are_ordered_alike_everywhere, tests_left_out_of_emulators_exist)}


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
