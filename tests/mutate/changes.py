# SPDX-License-Identifier: LGPL-2.1-or-later
"""The small changes that can be made in a C++ source as clang-format leaves it.

A change is known by what a reader sees of it: file, function (or table) around it, the line before
and the line after. Where several changes of a function look alike they are numbered. Line numbers
are not part of it, so that a listed change is found again after the file has moved on.
"""

import hashlib
import re
from dataclasses import dataclass

DROPPED = "(dropped)"
A_LINE = 4

OPERATORS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&",
    "^": "|", "+=": "-=", "-=": "+=", "^=": "|=", "|=": "&=", ">>=": "<<=",
}
KEYWORDS = {"if", "for", "while", "switch", "return", "static_assert", "else", "do", "case", "sizeof"}
COMMUTATIVE = {"min", "max", "memcmp", "calloc"}
SIMPLE = r"[\w.:\[\]&*>-]+(?:\([^(),]*\))?"  # an argument without operators


@dataclass(frozen=True)
class Mutant:
    file: str
    place: str  # name of the function or table
    number: int  # of those in this place that look alike, from 1
    old: str
    new: str
    line: int
    text: str  # the whole file with the change

    @property
    def key(self):
        return (self.file, self.place, self.number, self.old, self.new)

    @property
    def id(self):
        return hashlib.sha1("\n".join(map(str, self.key)).encode()).hexdigest()[:8]


def blank(text, pattern, filler=" "):
    """Overwrites what the pattern matches, line ends apart, keeping every position."""
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", filler, m[0]), text)


def without_comments(text, hide_strings=False):
    token = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S)
    def hide(match):
        word = match[0]
        if word[0] == "/":
            return blank(word, r"(?s).+")
        return '"' + "_" * (len(word) - 2) + '"' if hide_strings else word
    return token.sub(hide, text)


def code_only(text):
    """The text with all that is not to be changed blanked out. Strings become quoted underscores."""
    text = without_comments(text, hide_strings=True)
    text = blank(text, r"(?m)^#(?:.*\\\n)*.*$")
    text = blank(text, r"(?s)\bstatic_assert\(.*?;")
    return blank(text, r"(?m)^.*= (?:delete|default);$|^using .*;$|^ *template <.*>$")


def closing(code, at):
    """Where the bracket that opens at `at` is closed."""
    depth = 0
    for i in range(at, len(code)):
        depth += (code[i] in "([{") - (code[i] in ")]}")
        if depth == 0:
            return i
    return len(code)


def places(code):
    """Name of the function or table that each line belongs to."""
    names, name = [], "-"
    for line in code.split("\n"):
        if re.match(r"[\w~\[]", line):
            found = (re.search(r"([\w~]+)\((?!\()", line.replace("[[maybe_unused]]", ""))
                     or re.search(r"(\w+)(?:\[\]|\{\})? =", line)
                     or re.search(r"\b(?:class|struct|enum class|enum) (?:\[\[.*?\]\] )?(\w+)", line))
            name = found[1] if found else "-"
        elif line[:1] == "}":
            names.append(name)
            name = "-"
            continue
        names.append(name)
    return names


def operator_changes(code):
    for m in re.finditer(r"(?<= )(?:[=!<>]=|<<|>>|&&|\|\||[-+*/%&|^<>])(?=[ \n])", code):
        yield m.start(), m.end(), OPERATORS[m[0]]
    for m in re.finditer(r"(?<= )(?:\+=|-=|\^=|\|=|>>=)(?= )", code):
        yield m.start(), m.end(), OPERATORS[m[0]]
    for m in re.finditer(r"!(?=[\w(])", code):
        yield m.start(), m.end(), ""
    for m in re.finditer(r"\+\+(?=[\w(])", code):
        line = code[code.rfind("\n", 0, m.start()) + 1:m.start()]
        if "for (" not in line:  # a loop that never ends shows nothing that its bounds do not
            yield m.start(), m.end(), "--"


def condition_changes(code):
    """Negates conditions that no other change turns."""
    for m in re.finditer(r"\b(?:if|while) \(", code):
        end = closing(code, m.end() - 1)
        condition = code[m.end():end]
        if not re.search(r"[!<>=]=| [<>] |!|&&|\|\||;", condition):
            yield m.end(), end, ("!(", ")")


def value_changes(code):
    for m in re.finditer(r"\breturn (-1|0);", code):
        yield m.start(1), m.end(1), "0" if m[1] == "-1" else "-1"
    for m in re.finditer(r"\b(true|false)\b", code):
        yield m.start(), m.end(), "false" if m[0] == "true" else "true"
    for m in re.finditer(r"(?<![\w.])(0x[0-9A-Fa-f]+|\d+)(?=U?\b(?!\.))", code):
        if re.search(r"return -?$", code[:m.start()][-9:]) and code[m.end()] == ";":
            continue
        value = int(m[0], 0)
        line = code[code.rfind("\n", 0, m.start()) + 1:code.find("\n", m.start())].strip()
        up = value == 0 or hashlib.sha1((line + m[0]).encode()).digest()[0] % 2 == 0
        value += 1 if up else -1
        yield m.start(), m.end(), f"0x{value:0{m.end() - m.start() - 2}x}" if m[0][1:2] == "x" else str(value)


def statements(code):
    """Simple statements: (start, end behind the semicolon, whether a call). Alone on their lines or
    behind the condition of an if."""
    starts = [m.end() for m in re.finditer(r"(?m)^ +(?=[\w*+(])", code)]
    for m in re.finditer(r"\bif \(", code):
        end = closing(code, m.end() - 1)
        if code[end + 1:end + 2] == " ":
            starts.append(end + 2)
    for start in sorted(starts):
        before = code[:start].rstrip()[-1:]
        if before not in ("{", "}", ";", ":", ")") or re.match(r"(\w+)\b", code[start:]) and re.match(
                r"\w+", code[start:])[0] in KEYWORDS:
            continue
        end = start
        while end < len(code) and code[end] not in ";{":
            end = closing(code, end) + 1 if code[end] in "([" else end + 1
        body = code[start:end]
        if code[end:end + 1] != ";":
            # The only braces of a statement are those of what is assigned.
            end = code.find(";", end) if re.match(r"[\w.\[\]>*-]+ = ", body) else -1
            if end < 0:
                continue
            body = code[start:end]
        call = re.match(r"(?:\w+(?:::|\.|->))*\w+\(", body) is not None
        assignment = re.match(r"[\w.:\[\]>*()-]+(?: - 1\])? (?:[-+|^&]|>>)?= ", body) is not None
        if call or assignment or re.match(r"(?:\+\+[\w.>-]+|break|continue)$", body):
            yield start, end + 1, call


def drop_changes(code):
    for start, end, _ in statements(code):
        yield start, end, DROPPED


def meet(one, other):
    """Whether two statements could see each other: both are calls, or they name something alike."""
    (first, is_call), (second, is_other_call) = one, other
    return is_call and is_other_call or (is_call or is_other_call) and bool(
        set(re.findall(r"[A-Za-z]\w+", first)) & set(re.findall(r"[A-Za-z]\w+", second)))


def statement_swaps(code):
    """Two neighbours that could see each other change places."""
    previous = None
    for start, end, call in statements(code):
        if previous is not None:
            gap = code[previous[1]:start]
            if meet((code[start:end], call), (code[previous[0]:previous[1]], previous[2])) and re.fullmatch(r"\n *", gap) and code[previous[0] - 1] in " \n" \
                    and code[:previous[0]].rstrip(" ")[-1:] == "\n":
                yield previous[0], end, (code[start:end], gap, code[previous[0]:previous[1]])
                previous = None
                continue
        previous = (start, end, call)


def argument_swaps(code):
    """The first two neighbours among the arguments of a call that could be mistaken."""
    pair = re.compile(rf"({SIMPLE}), +({SIMPLE})(?=[,)}}])")
    for m in re.finditer(r"(\w+)?(?:<[\w:]+>)?([({])(?=[^\n]*,)", code):
        if m[1] in KEYWORDS | COMMUTATIVE:
            continue
        end = closing(code, m.end() - 1)
        at = m.end()
        while at < end:
            found = pair.match(code, at)
            if found and found.end() <= end and "here" not in found[0] and found[1] != found[2] \
                    and not (found[1] + found[2]).isdigit() and '"' not in found[0]:
                yield at, found.end(), f"{found[2]}, {found[1]}"
                break
            while at < end and code[at] != ",":
                at = closing(code, at) + 1 if code[at] in "([{" else at + 1
            at += 1
            while code[at:at + 1] in (" ", "\n"):
                at += 1


def squeezed(text):
    return re.sub(r"\s+", " ", text).strip()


def mutants(name, text):
    """The changes of the file `name` with content `text`, in order, at most A_LINE from a line."""
    lines = {}
    for mutant in all_mutants(name, text):
        lines.setdefault(mutant.line, []).append(mutant)
    return [mutant for line in lines.values()
            for mutant in sorted(sorted(line, key=lambda m: m.id)[:A_LINE], key=lambda m: m.key)]


def all_mutants(name, text):
    code = code_only(text)
    visible = without_comments(text)
    names = places(code)
    changes = [change for family in (operator_changes, condition_changes, value_changes, drop_changes,
                                     statement_swaps, argument_swaps) for change in family(code)]
    seen = {}
    for start, end, new in sorted(changes, key=lambda c: (c[0], c[1], str(c[2]))):
        first = text.rfind("\n", 0, start) + 1
        last = (text + "\n").find("\n", end)
        if new == DROPPED:
            changed = text[:start] + ";" + text[end:]
            old_line, new_line = squeezed(visible[start:end]), DROPPED
        else:
            if isinstance(new, tuple) and len(new) == 2:
                new = new[0] + text[start:end] + new[1]
            elif isinstance(new, tuple):
                middle = len(new[0])
                one = text[start:end - middle - len(new[1])]
                new = text[end - middle:end] + new[1] + one
            changed = text[:start] + new + text[end:]
            old_line = squeezed(visible[first:last])
            new_line = squeezed(visible[first:start] + new + visible[end:last])
        line = text.count("\n", 0, start)
        key = (names[line], old_line, new_line)
        seen[key] = seen.get(key, 0) + 1
        yield Mutant(name, names[line], seen[key], old_line, new_line, line + 1, changed)
