#!/usr/bin/python3
"""Every test that a page names is there.

usage: named_tests.py SOURCE_DIRECTORY

Pages name tests as ctest does: `system.strict.Files.a_hook_of_roots_is_run`, `vm.hostile`, `unit.mount`.
"""
import pathlib
import re
import sys

NAMED = re.compile(r"`((?:system|vm|unit)\.\w+(?:\.\w+)*)`")


def is_there(root, name):
    kind, topic, *rest = name.split(".")
    if kind == "unit":
        return (root / "tests/unit" / topic).is_dir() or any((root / "tests/unit").glob(f"*/{topic}_test.cpp"))
    script = root / "tests" / kind / f"test_{topic}.py"
    if not script.is_file():
        return False
    text = script.read_text(encoding="utf-8")
    if not rest:
        return True
    found = re.search(rf"^class {rest[0]}\(.*?(?=^class |\Z)", text, re.DOTALL | re.MULTILINE)
    return found is not None and all(f"    def test_{test}(self)" in found.group(0) for test in rest[1:])


def main():
    root = pathlib.Path(sys.argv[1])
    pages = sorted(root.glob("docs/**/*.md"))
    named = [(page, name) for page in pages for name in NAMED.findall(page.read_text(encoding="utf-8"))]
    faults = [f"{page}: there is no test {name}" for page, name in named if not is_there(root, name)]
    print("\n".join(faults + [f"{len(named)} names, {len(faults)} faults"]))
    return 1 if faults or len(named) < 10 else 0


if __name__ == "__main__":
    sys.exit(main())
