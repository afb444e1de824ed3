#!/usr/bin/python3
"""Adds up result files (JUnit): "N tests: N passed, N failed, N skipped".

usage: count.py [--may-skip] RESULT_DIRECTORY

Reads its *.xml and the file "failed", a line for each lane or part of one that failed. A test unit.* or sweep.* of
NAME.xml is a program: its cases, in a file of its own in the folder NAME.cases, are counted in its place.
A test that was skipped has failed, unless its reason is one that no package could mend or --may-skip is given.
NAME.again.xml has tests that failed in NAME.xml and were run once more: what passed then has passed, and is named.

Exits with 0 when something passed and nothing failed. What failed without a failed test (it did not build, say)
counts as one failure.
"""
import argparse
import collections
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

SKIPPED_IN_PYTHON = re.compile(r"skipped (?:'([^']*)'|\"([^\"]*)\")")
PROGRAMS = ("unit.", "sweep.")
AGAIN = ".again.xml"
CANNOT_BE_MENDED = ("this kernel", "this system", "a test before it failed", "the scenario ended before")

Case = collections.namedtuple("Case", "name status reason")


def reason_of(case):
    """Why it was skipped."""
    texts = [text for element in case.iter() for text in (element.get("message"), element.text) if text]
    for text in texts:
        match = SKIPPED_IN_PYTHON.search(text)
        if match:
            return match[1] or match[2]
    return " ".join(" ".join(texts).split())


def read_cases(path):
    """The tests of one file; None when it was cut off in the middle."""
    try:
        suite = ElementTree.parse(path).getroot()
    except (ElementTree.ParseError, OSError):
        return None
    return [Case(case.get("name"), case.get("status"), reason_of(case)) for case in suite.iter("testcase")]


def cases_of(program, folder):
    """A program's cases in its place; itself where it left none, or failed though they passed."""
    cases = read_cases(folder / f"{program.name}.xml")
    if not cases or (program.status == "fail" and all(case.status == "run" for case in cases)):
        status = "notrun" if program.status == "notrun" else "fail"
        return (cases or []) + [Case(program.name, status, program.reason)]
    return cases


def read_with_second_try(path):
    """The tests of one file, each as it was when it was run last; None when the file was cut off."""
    cases = read_cases(path)
    again = {case.name: case for case in read_cases(path.with_suffix(AGAIN)) or []}
    for case in cases or []:
        if case.status == "fail" and case.name in again and again[case.name].status == "run":
            print(f"passed at the second try: {path.stem}: {case.name}")
    return cases and [again.get(case.name, case) if case.status == "fail" else case for case in cases]


def all_cases(results, broken):
    for path in sorted(results.glob("*.xml")):
        if path.name.endswith(AGAIN):
            continue
        cases = read_with_second_try(path)
        if cases is None:
            broken.append(path.stem)
        for case in cases or []:
            for one in cases_of(case, path.with_suffix(".cases")) if case.name.startswith(PROGRAMS) else [case]:
                yield path.stem, one


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--may-skip", action="store_true")
    parser.add_argument("results", type=pathlib.Path)
    options = parser.parse_args()
    marker = options.results / "failed"
    lanes = marker.read_text().split() if marker.exists() else []
    passed = failed = skipped = 0
    for suite, case in all_cases(options.results, lanes):
        if case.status == "run":
            passed += 1
            continue
        mended = not case.reason.startswith(CANNOT_BE_MENDED)
        if case.status == "fail" or (mended and not options.may_skip):
            failed += 1
            word = "fail" if case.status == "fail" else "skipped, and need not be"
        else:
            skipped += 1
            word = "skipped"
        print(f"{word}: {suite}: {case.name}" + (f": {case.reason}" if case.status != "fail" else ""))
    if lanes:
        print("failed: " + " ".join(sorted(set(lanes))))
    failed = max(failed, len(set(lanes)))
    print(f"{passed + failed + skipped} tests: {passed} passed, {failed} failed, {skipped} skipped")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
