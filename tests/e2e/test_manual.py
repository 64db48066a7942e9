"""lumenctl(1) against what lumenctl --help says."""

import re
import unittest

from support.router import TOP
from test_completion import every_command, options_of, part, settings_of

PAGE = TOP / "packaging" / "man" / "lumenctl.1.in"
# They stand in a list of their own.
OF_ALL = {"--help", "--json", "--root", "--version"}


class ManualTest(unittest.TestCase):
    def setUp(self):
        self.page = PAGE.read_text()
        # "nat policy show" to what follows it, of lines like ".It Cm nat list , nat show".
        self.items = {}
        for line in re.findall(r"^\.It Cm (.+)$", self.page, re.M):
            for item in line.split(" , "):
                command = re.match(r"[a-z ]*[a-z]\b", item)[0]
                self.items[command] = item[len(command):]

    # Promise: lumenctl(1) has every command and option that `--help` lists, and no other command.
    def test_it_has_every_command_and_option_and_no_others(self):
        commands = every_command()
        for command, text in commands:
            name = " ".join(command)
            options = options_of(text) - OF_ALL
            with self.subTest(command=name):
                works_alone = "Subcommands:" not in text or "[SUBCOMMAND]" in text
                if command and works_alone:
                    self.assertIn(name, self.items)
                    said = set(re.findall(r"(?:Fl|\|) (-[\w-]+)", self.items[name]))
                    self.assertEqual({f"-{option}" for option in said}, options)
                    self.assertEqual("Ar" in self.items[name].split(),
                                     bool(part(text, "Positionals") or
                                          options & {"--internal", "--port", "--agent"}))
                for setting in settings_of(text):
                    self.assertIn(f".Li {setting}\n", self.page.replace(" .\n", "\n")
                                  .replace(" ,\n", "\n"))
        self.assertLessEqual(set(self.items), {" ".join(command) for command, _ in commands})
        for option in OF_ALL:
            self.assertRegex(self.page, rf"(?m)^\.It Fl {option[1:]}")


if __name__ == "__main__":
    unittest.main()
