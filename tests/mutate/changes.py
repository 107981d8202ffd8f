# SPDX-License-Identifier: LGPL-2.1-or-later
"""The small changes that can be made in a C++ source as clang-format leaves it: another operator,
another constant, a condition turned, a statement dropped.

A change is known by what a reader sees of it: name of the file, function (or table) around it, the
line before and the line after. Where several of a function look alike they are numbered. Neither the
folder nor the number of the line is part of it, so that it is found again after the file has moved.
"""

import hashlib
import re
from collections import Counter, namedtuple

DROPPED = "(dropped)"
A_LINE = 4  # changes, at most
OPERATORS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&", "!": "",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "|",
    "+=": "-=", "-=": "+=", "^=": "|=", "|=": "&=", ">>=": "<<=", "++": "--",
    "true": "false", "false": "true",
}
NO_STATEMENT = re.compile(r"(?:if|for|while|switch|return|else|do|case|sizeof)\b")
CALL_ASSIGNMENT_OR_JUMP = re.compile(
    r"(?:\w+(?:::|\.|->))*\w+\(|[\w.:\[\]>*()-]+(?: - 1\])? (?:[-+|^&]|>>)?= "
    r"|(?:\+\+[\w.>-]+|break|continue)$")


# The key is what a change is known by: file, place, number, line before, line after; the id is short for
# it. The text is the whole file with the change.
Mutant = namedtuple("Mutant", "id path line key text")


def digest(text):
    return hashlib.sha1(text.encode()).hexdigest()


def blank(text, pattern):
    """Overwrites what the pattern matches, line ends apart, keeping every position."""
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", " ", m[0]), text)


def without_comments(text, string=lambda word: word):
    """The text with its comments blanked out and its strings, quotes included, as `string` says."""
    token = r'(?s)//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|(?<!\d)\'(?:\\.|[^\'\\\n])+\''
    return re.sub(token, lambda m: blank(m[0], "(?s).+") if m[0][0] == "/" else string(m[0]), text)


def code_only(text):
    """The text with all that is not to be changed blanked out."""
    text = without_comments(text, lambda word: '"' + "_" * (len(word) - 2) + '"')
    text = blank(text, r"(?s)\bstatic_assert\(.*?;")
    return blank(text, r"(?m)^#(?:.*\\\n)*.*$|^.*= (?:delete|default);$|^using .*;$|^ *template <.*>$")


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
        names.append(name)
        name = "-" if line[:1] == "}" else name
    return names


def neighbour(number, above):
    """The number above or below, written alike. Zero has none below."""
    value = int(number.replace("'", ""), 0)
    value += 1 if above or value == 0 else -1
    return f"0x{value:0{len(number) - 2}x}" if number[:2] == "0x" else str(value)


def changed_words(code):
    """Operators and constants. Yields where each begins and ends, and what comes there."""
    binary = r"(?<= )(?:[=!<>]=|<<|>>|&&|\|\||[-+*/%&|^<>]|[-+^|]=|>>=)(?=[ \n])"
    for m in re.finditer(binary + r"|!(?=[\w(])|(?<!; )\+\+(?=[\w(])|\b(?:true|false)\b", code):
        yield m.start(), m.end(), OPERATORS[m[0]]
    for m in re.finditer(r"\breturn (-1|0);", code):
        yield m.start(1), m.end(1), "0" if m[1] == "-1" else "-1"
    number = r"(?<![\w.])(?<!return )(?<!return -)(?:0x[0-9A-Fa-f]+|0|[1-9][\d']*)(?=U?\b(?!\.))"
    for m in re.finditer(number, code):
        line = code[code.rfind("\n", 0, m.start()) + 1:code.find("\n", m.start())].strip()
        yield m.start(), m.end(), neighbour(m[0], int(digest(line + m[0])[:2], 16) % 2 == 0)


def turned_conditions(code):
    """Negates conditions that no other change turns."""
    for m in re.finditer(r"\b(?:if|while) \(", code):
        condition = code[m.end():closing(code, m.end() - 1)]
        if not re.search(r"[!<>=]=| [<>] |!|&&|\|\||;", condition):
            yield m.end(), m.end() + len(condition), f"!({condition})"


def dropped_statements(code):
    """Drops what stands alone on its lines or behind the condition of an if."""
    starts = [m.end() for m in re.finditer(r"(?m)^ +(?=[\w*+(])", code)]
    starts += [closing(code, m.end() - 1) + 2 for m in re.finditer(r"\bif \(", code)]
    for start in starts:
        end = start
        while end < len(code) and code[end] not in ";{":
            end = closing(code, end) + 1 if code[end] in "([" else end + 1
        if (code[:start].rstrip()[-1:] in ("{", "}", ";", ":", ")") and code[end:end + 1] == ";"
                and not NO_STATEMENT.match(code, start)
                and CALL_ASSIGNMENT_OR_JUMP.match(code[start:end])):
            yield start, end, DROPPED


def mutants(path, text):
    """The changes of the file `path` with content `text`, at most A_LINE from a line."""
    def squeezed(*parts):
        return re.sub(r"\s+", " ", "".join(parts)).strip()

    code, visible = code_only(text), without_comments(text)
    names, seen, lines = places(code), Counter(), {}
    changes = {*changed_words(code), *turned_conditions(code), *dropped_statements(code)}
    for start, end, new in sorted(changes):
        first, last = text.rfind("\n", 0, start) + 1, (text + "\n").find("\n", end)
        shown = squeezed(visible[first:last]), squeezed(visible[first:start], new, visible[end:last])
        if new == DROPPED:
            new, shown = "", (squeezed(visible[start:end + 1]), DROPPED)
        line = text.count("\n", 0, start)
        seen[names[line], shown] += 1
        key = (path.split("/")[-1], names[line], seen[names[line], shown], *shown)
        name = digest("\n".join(map(str, key)))[:8]
        lines.setdefault(line, []).append(Mutant(name, path, line + 1, key, text[:start] + new + text[end:]))
    return [mutant for line in lines.values() for mutant in sorted(line)[:A_LINE]]
