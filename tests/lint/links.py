#!/usr/bin/python3
"""Every relative link of README.md and of the pages in docs leads to a file, and to a heading of it.

usage: links.py SOURCE_DIRECTORY

Paths that are only named, as in `docs/hook.md`, must be there too. The tests of the packages follow the links of the
installed pages with it.
"""
import pathlib
import re
import sys

FENCE = re.compile(r"^ *```.*?^ *```", re.DOTALL | re.MULTILINE)
LINK = re.compile(r"\]\(([^)\s]+)\)")
NAMED = re.compile(r"`(docs/[\w./-]*\w)`")
HEADING = re.compile(r"^#+ +(.*?) *$", re.MULTILINE)


def anchors_of(page):
    """The names that a heading can be linked by: lower case, no punctuation, "-" for a blank."""
    found = set()
    for heading in HEADING.findall(FENCE.sub("", page.read_text(encoding="utf-8"))):
        words = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading)
        found.add(re.sub(r"[^\w\- ]", "", words.lower()).replace(" ", "-"))
    return found


def fault_of(page, target):
    """What is wrong with one link; None when nothing is."""
    path, _, anchor = target.partition("#")
    where = page.parent / path if path else page
    if not where.exists():
        return "there is no such file"
    if anchor and anchor not in anchors_of(where):
        return "there is no such heading"
    return None


def check(root, named=True):
    """The faults of all pages below a directory, and how many links were followed."""
    faults = []
    count = 0
    for page in [root / "README.md", *sorted((root / "docs").rglob("*.md"))]:
        text = page.read_text(encoding="utf-8")
        links = [link for link in LINK.findall(FENCE.sub("", text))
                 if not re.match(r"[a-z]+:", link)]
        names = NAMED.findall(text) if named else []
        count += len(links) + len(names)
        found = [(link, fault_of(page, link)) for link in links]
        found += [(name, None if (root / name).exists() else "there is no such file")
                  for name in names]
        faults += [f"{page.relative_to(root)}: {name}: {fault}" for name, fault in found if fault]
    return faults, count


def main():
    faults, count = check(pathlib.Path(sys.argv[1]).resolve())
    print("\n".join(faults))
    print(f"{count} links, {len(faults)} faults")
    return 1 if faults or not count else 0


if __name__ == "__main__":
    sys.exit(main())
