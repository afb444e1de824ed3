"""Where a fault can be planted in a C++ file, and what stands there then. Text in, faults out.

The files are formatted by clang-format, so that an operator between two values has a space on both sides, and
what has none is a template's bracket, a pointer or a reference.
"""

import collections
import re

# Replaces text[begin:end].
Fault = collections.namedtuple("Fault", "operator begin end text")

OTHER = {" < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ", " == ": " != ", " != ": " == ",
         " && ": " || ", " || ": " && ", " + ": " - ", " - ": " + ", " += ": " -= ", " -= ": " += "}
NOT_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|^#[^\n]*|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'',
                      re.DOTALL | re.MULTILINE)


def code_only(text):
    """The text with blanks for comments, literals and lines of the preprocessor: each place stays where it is."""
    return NOT_CODE.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), text)


def end_of_bracket(code, begin):
    """Behind the bracket that opens at `begin`."""
    depth = 0
    for place in range(begin, len(code)):
        depth += (code[place] in "([{") - (code[place] in ")]}")
        if depth == 0:
            return place + 1
    return len(code)


def exchanged(*words):
    def find(code):
        for found in re.finditer("|".join(re.escape(word) for word in words), code):
            yield found.start(), found.end(), OTHER[found[0]]
    return find


def negated(code):
    """if and while, but for those that declare something."""
    for found in re.finditer(r"\b(?:if|while) \(", code):
        begin, end = found.end() - 1, end_of_bracket(code, found.end() - 1)
        if not re.search(r";|[^=!<>]=[^=]", code[begin:end]):
            yield begin + 1, end - 1, "!({})"


def without_not(code):
    for found in re.finditer(r"(?<=[ (])!(?=[\w(*])", code):
        yield found.start(), found.end(), ""


def next_number(code):
    for found in re.finditer(r"(?<![\w.'-])\d+(?![\w.'])", code):
        octal = len(found[0]) > 1 and found[0][0] == "0"
        yield found.start(), found.end(), f"0{int(found[0], 8) + 1:o}" if octal else str(int(found[0]) + 1)


def without_flag(code):
    """But for O_RDONLY, which is 0."""
    for found in re.finditer(r" \| (?!O_RDONLY)[A-Z_0-9]+\b|\b(?!O_RDONLY)[A-Z_0-9]+ \| ", code):
        yield found.start(), found.end(), ""


def without_statement(code):
    """Calls and assignments that stand by themselves."""
    for found in re.finditer(r"^[ \t]+((?:\(void\))?[\w:]+(?:->|\.|\w|\[\w+\])*(?:\(| [-+|&]?= ))", code, re.MULTILINE):
        begin = found.start(1)
        if re.match(r"(?:if|for|while|switch|return|sizeof|static_assert)\b", code[begin:]):
            continue
        end = begin
        while end < len(code) and code[end] not in ";{}":
            end = end_of_bracket(code, end) if code[end] in "([" else end + 1
        if code[end:end + 1] == ";":
            yield begin, end, "(void)0"


def returned(code):
    for found in re.finditer(r"\breturn (?!nullptr;)([^;{]+);", code):
        other = {"0": "-1", "-1": "0", "true": "false", "false": "true"}.get(found[1], "{{}}")
        yield found.start(1), found.end(1), other


OPERATORS = {
    "condition negated": negated,
    "not left out": without_not,
    "bound moved by one": exchanged(" < ", " <= ", " > ", " >= "),
    "equal for unequal": exchanged(" == ", " != "),
    "and for or": exchanged(" && ", " || "),
    "plus for minus": exchanged(" + ", " - ", " += ", " -= "),
    "next number": next_number,
    "flag left out": without_flag,
    "statement left out": without_statement,
    "another result": returned,
}


def faults(text):
    """All of them, by operator."""
    code = code_only(text)
    return {name: [Fault(name, begin, end, put.format(text[begin:end])) for begin, end, put in find(code)]
            for name, find in OPERATORS.items()}


def planted(text, fault):
    return text[:fault.begin] + fault.text + text[fault.end:]
