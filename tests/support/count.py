#!/usr/bin/python3
"""Adds up ctest's result files: "N passed, N failed, N skipped".

usage: count.py RESULT_DIRECTORY
Reads its *.xml and the file "failed", a line for each lane or part of one that failed. Exits with 0 when
something passed and nothing failed. What failed without a failed test (it did not build, say) counts as one
failure.
"""
import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def main():
    results = pathlib.Path(sys.argv[1])
    marker = results / "failed"
    lanes = sorted(set(marker.read_text().split())) if marker.exists() else []
    passed = failed = skipped = 0
    for path in sorted(results.glob("*.xml")):
        try:
            suite = ElementTree.parse(path).getroot()
        except ElementTree.ParseError:
            lanes.append(path.stem)  # cut off in the middle
            continue
        for case in suite.iter("testcase"):
            status = case.get("status")
            passed += status == "run"
            failed += status == "fail"
            skipped += status in ("notrun", "disabled")
            if status in ("fail", "notrun"):
                print(f"{status}: {path.stem}: {case.get('name')}")
    if lanes:
        print("failed: " + " ".join(lanes))
    failed = max(failed, len(lanes))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
