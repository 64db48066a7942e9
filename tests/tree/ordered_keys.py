"""Finds keys of ordered containers, and types with a derived order, that hold a vector of integers
wider than a byte: the order of such vectors is wrong on big-endian machines with many libraries
(lumen/values/ElementOrder.h)."""

import re

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
WIDE_VECTOR = re.compile(
    r"\bstd::vector<\s*(?:const\s+)?(?:std::)?"
    r"(?:u?int(?:16|32|64|ptr|max)_t|size_t|[ug]id_t|in_(?:addr|port)_t|wchar_t|char(?:16|32)_t|"
    r"(?:unsigned|signed|short|int|long)\b(?!\s+char)[\w ]*)\s*>")
ALIAS = re.compile(r"\busing\s+(\w+)\s*=\s*([^;]+);")
# A container and the number of its parameters when the last one is an order of its own.
CONTAINER = re.compile(r"\bstd::(?:(?:multi)?map|(?:multi)?set|priority_queue)<")
ORDER_AT = {"map": 3, "multimap": 3, "set": 2, "multiset": 2, "priority_queue": 3}
TYPE = re.compile(r"\b(?:struct|class)\s+(\w+)[^;{}()]*\{")
DERIVED = re.compile(r"\boperator<=>\s*\([^)]*\)[\w\s]*=\s*default")


def parameters(text, start):
    """The template parameters that begin at `start`, after the "<"."""
    depth, found, begin = 0, [], start
    for at in range(start, len(text)):
        character = text[at]
        if character in "<(":
            depth += 1
        elif character in ")>":
            if depth == 0:
                return [*found, text[begin:at].strip()]
            depth -= 1
        elif character == "," and depth == 0:
            found.append(text[begin:at].strip())
            begin = at + 1
    return found


def body(text, start):
    """The text from `start`, after a "{", to the "}" that ends it."""
    depth = 1
    for at in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[at], 0)
        if depth == 0:
            return text[start:at]
    return text[start:]


class Tree:
    """`texts`: each source's text by the name that others include it by, and by its path."""

    def __init__(self, texts):
        self.texts = {name: COMMENT.sub("", text) for name, text in texts.items()}
        self.known = {}

    def visible(self, name):
        """The aliases that a file sees, its own before those of what it includes."""
        if name not in self.known:
            self.known[name] = {}  # headers that include each other end here
            text, aliases = self.texts.get(name, ""), {}
            for included in INCLUDE.findall(text):
                aliases.update(self.visible(included))
            aliases.update(ALIAS.findall(text))
            self.known[name] = aliases
        return self.known[name]

    def holds_vector(self, text, aliases, seen=frozenset()):
        if WIDE_VECTOR.search(text):
            return True
        return any(word in aliases and self.holds_vector(aliases[word], aliases, seen | {word})
                   for word in set(re.findall(r"\w+", text)) - seen)

    def findings(self, name):
        text, aliases = self.texts[name], self.visible(name)

        def place(at):
            return f"{name}:{text.count(chr(10), 0, at) + 1}"

        for match in CONTAINER.finditer(text):
            given = parameters(text, match.end())
            container = match.group()[len("std::"):-1]
            if len(given) < ORDER_AT[container] and self.holds_vector(given[0], aliases):
                yield f"{place(match.start())}: std::{container} needs an order of its own"
        for match in TYPE.finditer(text):
            inside = body(text, match.end())
            members = re.sub(r"\([^()]*\)", "", inside)  # without the parameters of functions
            if DERIVED.search(inside) and any(
                    self.holds_vector(member, aliases)
                    for member in re.findall(r"[^;{}]+\s\w+(?:\s*=[^;]*|\s*\{[^;]*\})?;", members)):
                yield f"{place(match.start())}: {match.group(1)} must not derive its order"


def findings(texts, wanted):
    """One line for each finding in the files of `texts` named in `wanted`."""
    tree = Tree(texts)
    return [line for name in wanted for line in tree.findings(name)]
