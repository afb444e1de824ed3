#!/usr/bin/python3
"""Each word for why a device is not mounted has its row in docs/not-mounted.md and its heading in
docs/troubleshooting.md, where each command stands too that checks a filesystem; and neither page has others.

usage: trouble_words.py SOURCE_DIRECTORY
"""
import pathlib
import re
import sys

SOURCE = "companions/agent/diagnosis.cpp"
TABLE = "docs/not-mounted.md"
PAGE = "docs/troubleshooting.md"

STRING = r'"([^"]*)"'
ROW = re.compile(r"^\| `([\w-]+)` \|", re.MULTILINE)
HEADING = re.compile(r"^#### (.+)$", re.MULTILINE)
COMMAND = re.compile(r"`([^`]+) /dev/sda1`")
COMMANDS = "| Filesystem | To type |"


def part(text, begin, end):
    """What stands from one text up to the next other one."""
    return text[text.index(begin):].split(end)[0]


def differences(where, are, should):
    for word in sorted(should - are):
        yield f"{where}: {word} is missing"
    for word in sorted(are - should):
        yield f"{where}: nobody says {word}"


def main():
    root = pathlib.Path(sys.argv[1])
    source, table, page = ((root / name).read_text(encoding="utf-8") for name in (SOURCE, TABLE, PAGE))
    words = set(re.findall(STRING, part(source, "words[TROUBLE_COUNT]", "};"))) - {"none"}
    rows = re.findall(rf"\{{{STRING},\s+(?:{STRING}|nullptr),\s+(?:{STRING}|nullptr)\}}",
                      part(source, "known_filesystems[] =", "};"))
    commands = {command for _, _, command in rows} - {""}
    faults = [*differences(TABLE, set(ROW.findall(table)), words),
              *differences(PAGE, set(HEADING.findall(page)), words),
              *differences(PAGE, set(COMMAND.findall(part(page, COMMANDS, "\n\n"))), commands)]
    print("\n".join(faults))
    print(f"{len(words)} words, {len(commands)} commands, {len(faults)} faults")
    return 1 if faults or not words or not commands else 0


if __name__ == "__main__":
    sys.exit(main())
