"""What everything in Python among the tests, the demo and the benchmarks shares: waiting, finding tests, results."""

import time
import unittest
import xml.etree.ElementTree as ElementTree


def wait_until(what, condition, limit, pause=0.02, tell=str):
    """Returns the condition's first true value. No fixed time is waited for anywhere: this looks again and again.

    An AssertionError, which is a test's failure, when the limit is over; `tell` may add words to it.
    """
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"still not true after {limit} s: {what}{tell()}")
        time.sleep(pause)


def cases_in(folder):
    """Every test of a folder's test_*.py. Ends the process where one cannot be read."""
    loader = unittest.TestLoader()
    found = list(_cases(loader.discover(folder)))
    if loader.errors or not found:
        raise SystemExit("\n".join(loader.errors) or "no test found")
    return found


def _cases(suite):
    for part in suite:
        if isinstance(part, unittest.TestSuite):
            yield from _cases(part)
        else:
            yield part


def printable(text):
    return "".join(c if c in "\n\t" or c.isprintable() else "?" for c in text)


def write_results(path, suite, results):
    """As ctest writes them, for count.py: (name, "run" for passed, "fail" or "notrun" for skipped, seconds, words)."""
    top = ElementTree.Element("testsuite", name=suite)
    for name, status, seconds, words in results:
        case = ElementTree.SubElement(top, "testcase", name=name, status=status, time=f"{seconds:.2f}")
        if status != "run":
            ElementTree.SubElement(case, "system-out").text = printable(words)
    ElementTree.ElementTree(top).write(path, encoding="utf-8", xml_declaration=True)
