#!/usr/bin/python3
"""docs/log-lines.md tells every line that the programs log, and none that they do not.

usage: log_lines.py SOURCE_DIRECTORY

On the page a line is a row of a table: its module, its text with a word in angle brackets for each value,
and its level (or levels), as in | `daemon` | `mount <node> <directory>` | 3 |. In the sources it is a VY_LOG,
or a call of a function that hands its text on to one.
"""
import pathlib
import re
import sys

PAGE = "docs/log-lines.md"
LEVELS = {"LOG_EMERG": 0, "LOG_ALERT": 1, "LOG_CRIT": 2, "LOG_ERR": 3, "LOG_WARNING": 4,
          "LOG_NOTICE": 5, "LOG_INFO": 6, "LOG_DEBUG": 7}

# Folders where texts are handed on: the function, and the place of the level among its arguments. The module
# is that of the file where the VY_LOG is.
HANDED_ON = {"companions/prepare": ("tell", 0), "companions/ksmbd": ("notes_add", 1, "bridge"),
              "companions/samba": ("notes_add", 1, "bridge"),
              "companions/share": ("notes_add", 1)}

STRING = r'"(?:[^"\\]|\\.)*"'
COMMENT_OR_STRING = re.compile(rf"//[^\n]*|/\*.*?\*/|({STRING}|'(?:[^'\\]|\\.)*')", re.DOTALL)
TAG = re.compile(rf"\blog_tag\[\]\s*=\s*({STRING})")
CONVERSION = re.compile(r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t)?[diouxXcspm]")
ROW = re.compile(r"^\| `([^`]+)` \| `([^`]+)` \| (\d(?:, \d)*) \|", re.MULTILINE)


def without_comments(text):
    return COMMENT_OR_STRING.sub(lambda match: match.group(1) or " ", text)


def arguments_at(text, at):
    """The arguments of the call whose parenthesis was opened before `at`."""
    arguments = [""]
    depth = 0
    token = re.compile(rf"{STRING}|'(?:[^'\\]|\\.)*'|.", re.DOTALL)
    for match in token.finditer(text, at):
        word = match.group()
        if word in ")]}" and depth == 0:
            return [argument.strip() for argument in arguments]
        depth += {"(": 1, "[": 1, "{": 1, ")": -1, "]": -1, "}": -1}.get(word, 0)
        if word == "," and depth == 0:
            arguments.append("")
        else:
            arguments[-1] += word
    raise ValueError("a call does not end")


def text_of(argument):
    """The text of string literals that stand side by side; None for anything else."""
    if re.sub(rf"{STRING}|\s", "", argument):
        return None
    return "".join(part[1:-1] for part in re.findall(STRING, argument))


def values_blanked(text, value):
    """The text with <> for each value, or row of values; without the line feed some lines end in."""
    text = value.sub("<>", text.removesuffix("\\n")).replace("%%", "%")
    return re.sub(r"(<>)+", "<>", text)


def calls_of(text, function):
    """The arguments of each call; definitions of functions and macros are none."""
    for call in re.finditer(rf"\b{function}\s*\(", text):
        before = text[:call.start()].rsplit("\n", 1)[-1]
        if not re.search(r"#|\bvoid\s*$", before):
            yield arguments_at(text, call.end())


def lines_of(module, level, text):
    """The lines of one call: (module, text, level) for each level it may have; none if unreadable."""
    text = text_of(text)
    if module is None or text is None:
        return []
    return [(module, values_blanked(text, CONVERSION), LEVELS[name])
            for name in re.findall(r"\bLOG_[A-Z]+\b", level)]


def logged_in(folder, paths):
    """Every line of the files of a folder, as (line, path); (None, fault) for what cannot be read."""
    texts = {path: without_comments(path.read_text()) for path in paths}
    function, place, hander = (*HANDED_ON.get(folder, (None, 0)), None)[:3]

    for path, text in texts.items():
        tag = TAG.search(text)
        module = tag and tag.group(1)[1:-1]
        for name, first in (("VY_LOG", 1), ("VY_LOG_AT", 2)):
            for arguments in calls_of(text, name):
                lines = lines_of(module, arguments[0], arguments[first])
                if function and arguments[:2] == ["priority", '"%s"']:
                    hander = module
                elif not lines:
                    yield None, f"{path}: cannot be read: {name}({', '.join(arguments)})"
                yield from ((line, path) for line in lines)
    if function is None:
        return
    for path, text in texts.items():
        for arguments in calls_of(text, function):
            lines = lines_of(hander, arguments[place], arguments[place + 1])
            if not lines:
                yield None, f"{path}: cannot be read: {function}({', '.join(arguments)})"
            yield from ((line, path) for line in lines)


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    folders = {}
    for top in ("src", "companions"):
        for path in sorted((root / top).rglob("*")):
            if path.suffix in (".h", ".cpp") and path.name != "log.h":
                folders.setdefault(str(path.parent.relative_to(root)), []).append(path)
    logged = {}
    faults = []
    for folder, paths in folders.items():
        for line, where in logged_in(folder, paths):
            if line is None:
                faults.append(where)
            else:
                logged.setdefault(line, where.relative_to(root))
    value = re.compile(r"<[^<>]+>")
    told = {(module, values_blanked(text, value), int(level))
            for module, text, levels in ROW.findall((root / PAGE).read_text())
            for level in levels.split(", ")}
    faults += [f"{where}: not in {PAGE}: {line}" for line, where in logged.items()
               if line not in told]
    faults += [f"{PAGE}: nobody logs: {line}" for line in sorted(told - set(logged))]
    print("\n".join(faults))
    print(f"{len(logged)} lines logged, {len(told)} told, {len(faults)} faults")
    return 1 if faults or not logged else 0


if __name__ == "__main__":
    sys.exit(main())
