"""Single changes of C++ code, found by rule. Part of scripts/mutate.

The rules lean on the formatting of this project: a binary operator has blanks on both sides, the
brackets of a template have not.
"""

import dataclasses
import re

RULES = {
    "comparison": "== and !=, < and <=, > and >= change places",
    "logic": "&& and || change places",
    "condition": "the condition of an if is negated",
    "constant": "an integer constant grows by one",
    "boolean": "true and false change places",
    "arithmetic": "+ and - change places",
    "text": "one byte of a string or character constant changes",
    "return": "a function returns the empty value of its type",
    "drop": "a call or an assignment is left out",
    "swap": "two neighbouring calls change places",
}

OPERATORS = {
    "==": ("comparison", "!="), "!=": ("comparison", "=="),
    "<": ("comparison", "<="), "<=": ("comparison", "<"),
    ">": ("comparison", ">="), ">=": ("comparison", ">"),
    "&&": ("logic", "||"), "||": ("logic", "&&"),
    "+": ("arithmetic", "-"), "-": ("arithmetic", "+"),
    "+=": ("arithmetic", "-="), "-=": ("arithmetic", "+="),
}
ASSIGNMENTS = {"=", "+=", "-=", "|=", "&="}
# What begins no call and no assignment.
KEYWORDS = {
    "alignas", "auto", "break", "case", "class", "const", "constexpr", "continue", "default",
    "delete", "do", "else", "enum", "explicit", "extern", "for", "friend", "goto", "if", "inline",
    "namespace", "new", "operator", "private", "protected", "public", "return", "static",
    "static_assert", "struct", "switch", "template", "throw", "try", "typedef", "typename", "union",
    "using", "virtual", "volatile", "while",
}
CONTROL = {"if", "for", "while", "switch"}

# What no behaviour depends on is spared: the words of lumen's log and of lumenctl's help, room that
# is reserved, the zero that a member begins with (a constructor writes over it), and the order of
# fields in a message, of names in a map, of elements of different containers and of the set-up of
# commands.
LOG_CALLS = {"logLine", "fatal", "log"}
HELP_CALLS = {"add_option", "add_flag", "add_subcommand", "addExamples", "command", "type_name",
              "footer"}
ELEMENT_CALLS = {"add", "clear", "emplace", "emplace_back", "erase", "insert", "push_back"}
UNORDERED_CALLS = re.compile(r"insert_\w+|addVar|addAct|sigaddset")
COMMAND_SET_UP = re.compile(r"callback|fallthrough|require_subcommand|set_version_flag"
                            r"|(?:add|set)[A-Z_]\w*")

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:\\\n|[^\n])*)
  | (?P<text>(?:u8)?R"(?P<delimiter>[^()\\\s]*)\(.*?\)(?P=delimiter)"
      | (?:u8)?"(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])+')
  | (?P<number>\d(?:'?[\w.])*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<mark>->\*?|::|\+\+|--|<=>|<<=|>>=|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|<<|.)
    """, re.VERBOSE | re.MULTILINE | re.DOTALL)
INTEGER = re.compile(r"(0[xX])?([0-9a-fA-F]+(?:'[0-9a-fA-F]+)*)([uUlLzZ]*)")
TEXT_BYTE = re.compile(r"\\(?:x[0-9a-fA-F]+|[0-7]{1,3}|.)|(.)", re.DOTALL)


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclasses.dataclass(frozen=True)
class Mutant:
    path: str
    line: int
    column: int
    rule: str
    start: int
    end: int
    before: str
    after: str

    @property
    def id(self):
        return f"{self.path}:{self.line}:{self.column}:{self.rule}"

    def apply(self, code):
        return code[:self.start] + self.after + code[self.end:]


class Code:
    """One file as tokens, with the bracket that each of them stands in."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = [Token(match.lastgroup, match.group(), match.start(), match.end())
                       for match in TOKEN.finditer(text)
                       if match.lastgroup not in ("comment", "directive")
                       and not match.group().isspace()]
        self.partner = {}  # of each bracket
        self.inside = []   # the innermost bracket that is open before the token; -1: none
        open_brackets = [-1]
        for at, token in enumerate(self.tokens):
            if token.text in (")", "]", "}") and len(open_brackets) > 1:
                opened = open_brackets.pop()
                self.partner[opened], self.partner[at] = at, opened
            self.inside.append(open_brackets[-1])
            if token.text in ("(", "[", "{"):
                open_brackets.append(at)
        self.blocks = {at for at, token in enumerate(self.tokens)
                       if token.text == "{" and self.holds_statements(at)}

    def word(self, at):
        return self.tokens[at].text if 0 <= at < len(self.tokens) else ""

    def holds_statements(self, brace):
        """Whether the brace opens a block, not a class, a namespace or a list of values."""
        head = brace
        while head > 0 and self.word(head - 1) not in (";", "{", "}") \
                and not (self.word(head - 1) == "(" and head - 1 in self.partner
                         and self.partner[head - 1] > brace):
            head -= 1
        words = [self.word(at) for at in range(head, brace)]
        if not {"namespace", "class", "struct", "enum", "union"}.isdisjoint(words):
            return False
        before = self.word(brace - 1)
        if before in (")", "{", "}", ";", ":", "]", "else", "do", "const", "override", "final",
                      "noexcept", "mutable"):
            return True
        return "->" in words and ")" in words  # a return type

    def spaced(self, at):
        token = self.tokens[at]
        return self.text[token.start - 1].isspace() and self.text[token.end:token.end + 1].isspace()

    def call_around(self, at):
        """The name of the call whose arguments the token stands among, "" if of none."""
        around = self.inside[at]
        while self.word(around) == "{" and around not in self.blocks:
            around = self.inside[around]
        return self.word(around - 1) if around > 0 and self.word(around) == "(" else ""

    def is_first_zero(self, at):
        """Whether it is the zero that a member of a class begins with."""
        around = self.inside[at]
        if self.word(at) != "0" or self.word(around) != "{" or around in self.blocks:
            return False
        if self.word(at - 1) != "=" or self.word(at + 1) != ";":
            return False
        while self.word(at) not in (";", "{", "}", ""):
            at -= 1
            if self.word(at) in ("constexpr", "static"):
                return False
        return True

    def first_call(self, begin):
        """What the statement calls first, as written: "list.push_back"."""
        end = next(at for at in range(begin, len(self.tokens)) if self.word(at) == "(")
        return self.text[self.tokens[begin].start:self.tokens[end].start]

    def is_unordered(self, one, other):
        """Whether neighbouring statements that call these first go in any order."""
        names = [re.split(r"\.|->", call)[-1] for call in (one, other)]
        if ELEMENT_CALLS.issuperset(names):
            return one.removesuffix(names[0]) != other.removesuffix(names[1])
        meant = [UNORDERED_CALLS] + [COMMAND_SET_UP] * self.path.startswith("lumen/ctl/")
        return any(all(map(each.fullmatch, names)) for each in meant)

    def calls(self, begin, end):
        """The names of the calls from one place to another, nested ones left out."""
        return [self.word(at) for at in range(begin, end)
                if self.word(at + 1) == "(" and self.inside[at] == self.inside[begin]]

    def is_told(self, at):
        """Whether the text is for people to read, in a place where its words are free."""
        call = self.call_around(at)
        names_it = call != "type_name" and self.word(at - 1) == "("
        return (self.path.startswith("lumen/") and call in LOG_CALLS
                or self.path.startswith("lumen/ctl/") and call in HELP_CALLS and not names_it)

    def text_beside(self, at):
        return any(token.kind == "text" for token in self.tokens[at - 1:at + 2])

    def statement_starts(self):
        for at, token in enumerate(self.tokens):
            around = self.inside[at]
            if around not in self.blocks or token.kind not in ("name", "mark"):
                continue
            before = self.word(at - 1)
            after_control = (before == ")" and at - 1 in self.partner
                             and (self.word(self.partner[at - 1] - 1) in CONTROL))
            if before in (";", "{", "}", "else", "do") or after_control:
                yield at

    def simple_statement(self, at):
        """(end, is a call) of the call or assignment that begins here; None if it is neither."""
        begin, last = at, ""
        if self.word(at) == "::":
            at += 1
        while True:
            token = self.tokens[at] if at < len(self.tokens) else None
            if token is None:
                return None
            if token.kind == "name":
                if last == "name" or (at == begin and token.text in KEYWORDS):
                    return None
                last = "name"
            elif token.text in ("(", "["):
                if not last:
                    return None
                at, last = self.partner.get(at, len(self.tokens)), token.text
            elif token.text == "<" and last == "name" and not self.spaced(at):
                at = self.template_end(at)
                if at is None:
                    return None
                last = "name"
            elif token.text in (".", "->", "::"):
                last = token.text
            elif token.text == ";":
                return (at, True) if last == "(" else None
            elif token.text in ASSIGNMENTS and last in ("name", "["):
                while self.word(at) not in (";", ""):
                    at = self.partner[at] + 1 if self.word(at) in ("(", "[", "{") else at + 1
                return at, False
            else:
                return None
            at += 1

    def template_end(self, at):
        depth = 0
        for end in range(at, min(at + 40, len(self.tokens))):
            depth += {"<": 1, ">": -1}.get(self.word(end), 0)
            if depth == 0:
                return end
        return None

    def mutant(self, rule, first, last, after):
        start, end = self.tokens[first].start, self.tokens[last].end
        line = self.text.count("\n", 0, start) + 1
        column = start - self.text.rfind("\n", 0, start)
        return Mutant(self.path, line, column, rule, start, end, self.text[start:end], after)


def changed_text(literal):
    """The literal with the last letter or digit of its text changed; None when it is empty."""
    opening = literal.index(literal[-1]) + 1
    if "R" in literal[:opening]:
        opening = literal.index("(") + 1
    for match in reversed(list(TEXT_BYTE.finditer(literal, opening, len(literal) - 1))):
        if match.group(1) and (match.group(1).isalnum() or len(literal) - opening == 2):
            other = "y" if match.group() == "x" else "x"
            return literal[:match.start()] + other + literal[match.end():]
    return None


def token_mutants(code):
    for at, token in enumerate(code.tokens):
        before = code.word(at - 1)
        if token.kind == "text":
            after = changed_text(token.text)
            if after and not code.is_told(at) and before != "extern":
                yield code.mutant("text", at, at, after)
        elif code.is_first_zero(at):
            continue
        elif token.kind == "number":
            match = INTEGER.fullmatch(token.text)
            pure = before == "=" and code.word(at - 2) in (")", "const", "override")
            if match and not pure:
                prefix, digits, suffix = match.group(1) or "", match.group(2), match.group(3)
                value = int(digits.replace("'", ""), 16 if prefix else 10) + 1
                digits = f"{value:0{len(digits)}x}" if prefix else str(value)
                yield code.mutant("constant", at, at, prefix + digits + suffix)
        elif token.text in ("true", "false"):
            yield code.mutant("boolean", at, at, "false" if token.text == "true" else "true")
        elif token.text in OPERATORS and code.spaced(at) and before != "operator":
            rule, after = OPERATORS[token.text]
            if rule == "arithmetic" and code.text_beside(at):
                continue
            yield code.mutant(rule, at, at, after)
        elif token.text == "if" and code.word(at + 1) == "(":
            yield from negated(code, at + 1)
        elif token.text == "return":
            yield from emptied_return(code, at)


def negated(code, opened):
    closed = code.partner[opened]
    inner = [at for at in range(opened + 1, closed) if code.inside[at] == opened]
    first = max([at + 1 for at in inner if code.word(at) == ";"], default=opened + 1)
    if any(code.word(at) == "=" and at >= first for at in inner):
        return  # declares what it tests
    condition = code.text[code.tokens[first].start:code.tokens[closed - 1].end]
    yield code.mutant("condition", first, closed - 1, f"!({condition})")


def emptied_return(code, at):
    end = at + 1
    while code.word(end) not in (";", ""):
        end = code.partner[end] + 1 if code.word(end) in ("(", "[", "{") else end + 1
    value = code.text[code.tokens[at].end:code.tokens[end].start].strip()
    if value not in ("", "{}", "0", "false", "true", "nullptr", "std::nullopt", '""',
                     "*this"):
        yield code.mutant("return", at, end, "return {};")


def statement_mutants(code):
    calls = {}  # begin -> end
    for begin in code.statement_starts():
        statement = code.simple_statement(begin)
        if statement is None:
            continue
        end, is_call = statement
        called = code.calls(begin, end)
        if is_call and code.path.startswith("lumen/") and called[0] in LOG_CALLS - {"fatal"}:
            continue
        if is_call and called[0] == "reserve":
            continue
        yield code.mutant("drop", begin, end, ";")
        if is_call:
            calls[begin] = end
    for begin, end in calls.items():
        if end + 1 not in calls or code.inside[begin] != code.inside[end + 1]:
            continue
        if code.word(begin - 1) == ")":
            continue  # only the first of them is conditional
        middle, last = end + 1, calls[end + 1]
        if code.is_unordered(code.first_call(begin), code.first_call(middle)):
            continue
        one = code.text[code.tokens[begin].start:code.tokens[end].end]
        between = code.text[code.tokens[end].end:code.tokens[middle].start]
        other = code.text[code.tokens[middle].start:code.tokens[last].end]
        if one != other:
            yield code.mutant("swap", begin, last, other + between + one)


def spared_places(code):
    """Where nothing is to be changed: in what the compiler checks, and where room is reserved."""
    return [(code.tokens[at].start, code.tokens[code.partner[at + 1]].end)
            for at, token in enumerate(code.tokens)
            if token.text in ("static_assert", "reserve") and code.word(at + 1) == "("]


def mutants_of(path, text):
    """Every mutant of the file, in the order of their places."""
    code = Code(path, text)
    spared = spared_places(code)
    found = [mutant for mutants in (token_mutants(code), statement_mutants(code))
             for mutant in mutants
             if not any(start <= mutant.start < end for start, end in spared)]
    return sorted(found, key=lambda mutant: (mutant.start, mutant.rule))


def draw(files, count, random):
    """Draws `count` places, spread over the files by their size and over the rules.

    `files` maps each path to its mutants. Each place is a list of mutants of one file: the first
    one, and those that stand in for it when it does not compile. No mutant is in two of them.
    """
    paths = sorted(path for path in files if files[path])
    sizes = [len({mutant.line for mutant in files[path]}) for path in paths]
    if not paths:
        return []
    step = sum(sizes) / count
    ends, total = [], 0
    for size in sizes:
        total += size
        ends.append(total)
    offset = random.random() * step
    hits, at = dict.fromkeys(paths, 0), 0
    for number in range(count):
        place = offset + number * step
        while ends[at] <= place and at + 1 < len(ends):
            at += 1
        hits[paths[at]] += 1
    used = dict.fromkeys(RULES, 0)
    places = []
    for path in random.sample(paths, len(paths)):
        left = random.sample(files[path], len(files[path]))
        firsts = []
        for _ in range(min(hits[path], len(left))):
            chosen = min(left, key=lambda mutant: used[mutant.rule])
            used[chosen.rule] += 1
            left.remove(chosen)
            firsts.append(chosen)
        for number, first in enumerate(firsts):
            places.append([first, *left[number::len(firsts)]])
    return sorted(places, key=lambda place: (place[0].path, place[0].start))
