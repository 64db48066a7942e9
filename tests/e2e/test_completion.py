"""What the shells offer after lumenctl, against what its --help lists and what exists."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

from support.router import PROGRAMS
from support.router_case import RouterCase

BASH = PROGRAMS.parent / "packaging" / "lumenctl.bash"
ZSH = PROGRAMS.parent / "packaging" / "lumenctl.zsh"
LIMIT = 60

# compopt works only in a shell that completes interactively.
ASK_BASH = """
compopt() { :; }
. "$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_lumenctl
printf '%s\\n' "${COMPREPLY[@]}"
"""

# compadd and its relatives work in such a shell only, too.
ASK_ZSH = """
compadd() {
  local suffix=''
  [[ $1 != -S ]] || { suffix=$2; shift 2 }
  [[ $1 != -- ]] || shift
  for word in "$@"; do print -r -- "$word$suffix"; done
}
compset() { : }
_directories() { : }
ask() { . "$file" }
file=$1
shift
words=("$@") CURRENT=$#
ask
"""

EVERYWHERE = {"--json", "--root"}


def ask(shell, script, file, words, path=PROGRAMS):
    environment = {**os.environ, "PATH": f"{path}:{os.environ['PATH']}"}
    done = subprocess.run([*shell, script, "shell", file, *words], capture_output=True, text=True,
                          check=True, timeout=LIMIT, env=environment)
    if done.stderr:
        raise AssertionError(done.stderr)
    return {word for word in done.stdout.split("\n") if word}


def bash(*words):
    """What bash offers for the last of the words, with what it adds to it."""
    return {word for word in ask(["bash", "--norc", "-c"], ASK_BASH, BASH, words)
            if word.startswith(words[-1]) or words[-1] == "="}


def zsh(*words):
    """The same of zsh, which leaves it to the shell to choose those that match."""
    return {word for word in ask(["zsh", "-f", "-c"], ASK_ZSH, ZSH, words)
            if word.startswith(words[-1]) or "=" in words[-1]}


def help_of(command):
    return subprocess.run([PROGRAMS / "lumenctl", *command, "--help"], capture_output=True,
                          text=True, check=True, timeout=LIMIT).stdout


def part(text, heading):
    match = re.search(rf"^{heading}:\n((?:.+\n)+)", text, re.M)
    return match[1] if match else ""


def commands_of(text):
    return re.findall(r"^  (\w+)", part(text, "Subcommands"), re.M)


def options_of(text):
    return set(re.findall(r"^  (?:-h,)?(--[\w-]+)", part(text, "Options"), re.M))


def settings_of(text):
    """The names that a positional argument takes."""
    match = re.search(r"settings: ([\w, -]+(?:\n {20,}[\w, -]+)*)", part(text, "Positionals"))
    return set(re.split(r",\s+", match[1].strip())) if match else set()


def every_command():
    """All commands, as lists of words, with their help."""
    found = []
    waiting = [[]]
    while waiting:
        command = waiting.pop(0)
        text = help_of(command)
        found.append((command, text))
        waiting += [[*command, name] for name in commands_of(text)]
    return found


def links():
    return {path.parent.name for path in pathlib.Path("/sys/class/net").glob("*/ifindex")} - {"lo"}


class CompletionTest(unittest.TestCase):
    """What holds for the one and the other shell."""

    def check(self, offered):
        commands = every_command()
        self.assertGreater(len(commands), 25)
        for command, text in commands:
            with self.subTest(command=command):
                words = ["lumenctl", *command]
                self.assertEqual(offered(*words, "-"), options_of(text) | EVERYWHERE)
                below = set(commands_of(text))
                if below:
                    self.assertEqual(offered(*words, ""), below)
                settings = settings_of(text)
                if settings:
                    self.assertEqual(offered(*words, ""), {f"{name}=" for name in settings})
                if "  interface IF" in text:
                    self.assertEqual(offered(*words, ""), links())

        self.assertEqual(offered("lumenctl", "status", ""), {"--watch", "--help"} | EVERYWHERE)
        self.assertEqual(offered("lumenctl", "--json", "st"), {"status"})
        self.assertEqual(offered("lumenctl", "--root", "nat", ""), offered("lumenctl", ""))
        self.assertEqual(offered("lumenctl", "nat", "policy", "re"), {"reset", "reload"})
        self.assertEqual(offered("lumenctl", "help", "st"), {"status"})
        self.assertEqual(offered("lumenctl", "help", "nat", ""), {"list", "close", "log", "policy"})
        roles = {"external", "internal"}
        for command in ("add", "set"):
            self.assertEqual(
                offered("lumenctl", "upnp", "interface", command, "wan0", "--role", ""), roles)
        setup = ("lumenctl", "upnp", "setup")
        self.assertEqual(offered(*setup, ""), options_of(help_of(setup[1:])) | EVERYWHERE)
        self.assertEqual(offered(*setup, "--internal", ""), links())
        self.assertEqual(offered(*setup, "--internal", "br-lan", ""), links())
        self.assertEqual(offered(*setup, "--external", ""), links())

    # Promise [ctl-completion]: bash and zsh complete every command, option and name of a setting
    # that `--help` lists, and the links that there are.
    def test_bash_offers_what_help_lists(self):
        self.check(bash)
        setting = ("lumenctl", "upnp", "settings", "set", "enabled")
        self.assertEqual(bash(*setting, "="), {"on", "off"})
        self.assertEqual(bash(*setting, "=", "of"), {"off"})
        self.assertEqual(bash(*setting, "=", "off", "show"), {"show-dummy-rule="})
        self.assertEqual(bash("lumenctl", "nat", "policy", "set", "max-rules", "=", ""), set())
        self.assertEqual(bash("lumenctl", "upnp", "setup", "--internal", "=", ""), links())
        self.assertEqual(bash("lumenctl", "--root", "=", "/tmp", "ident"), {"identity"})

    # Also proves [ctl-completion].
    def test_zsh_offers_what_help_lists(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        self.check(zsh)
        setting = ("lumenctl", "upnp", "settings", "set")
        self.assertEqual(zsh(*setting, "enabled=o"), {"on", "off"})
        self.assertEqual(zsh("lumenctl", "nat", "policy", "set", "max-rules="), set())
        self.assertEqual(zsh("lumenctl", "upnp", "setup", "--internal=b"), links())
        self.assertEqual(zsh("lumenctl", "--root=/tmp", "ident"), {"identity"})


class OpenPortTest(RouterCase):
    # Promise [ctl-ports]: After `nat close` the shells offer the open ports, if the platform lists
    # them within a second.
    def test_bash_offers_the_ports_that_are_open(self):
        close = ("lumenctl", "--root", str(self.router.root), "nat", "close")
        self.assertNotIn("/", "".join(bash(*close, "")))
        self.lan[0].open_port(8080, "TCP")
        self.lan[0].open_port(5060, "UDP")
        self.assertEqual(bash(*close, ""), {"8080/tcp", "5060/udp"})
        self.assertEqual(bash(*close, "80"), {"8080/tcp"})
        self.assertEqual(bash("lumenctl", "--root", "=", *close[2:], ""), {"8080/tcp", "5060/udp"})


if __name__ == "__main__":
    unittest.main()
