#!/usr/bin/python3
"""Adds up ctest's result files: "N passed, N failed, N skipped".

usage: count.py FAILED_LANES RESULT.xml...
Exits with 0 when something passed and nothing failed. A lane that failed without a failed test (it did
not build, say) counts as one failure.
"""
import sys
import xml.etree.ElementTree as ElementTree


def main():
    failed_lanes = sys.argv[1].split()
    passed = failed = skipped = 0
    for path in sys.argv[2:]:
        try:
            suite = ElementTree.parse(path).getroot()
        except (OSError, ElementTree.ParseError):
            continue  # the lane has failed before its tests
        for case in suite.iter("testcase"):
            status = case.get("status")
            passed += status == "run"
            failed += status == "fail"
            skipped += status in ("notrun", "disabled")
            if status in ("fail", "notrun"):
                print(f"{status}: {path.split('/')[-1]}: {case.get('name')}")
    failed = max(failed, len(failed_lanes))
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
