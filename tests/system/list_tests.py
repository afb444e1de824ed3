"""Prints the id of every test of this folder, one a line: what the build makes its tests of."""

import os
import sys
import unittest


def cases(suite):
    for part in suite:
        if isinstance(part, unittest.TestSuite):
            yield from cases(part)
        else:
            yield part


def main():
    folder = os.path.dirname(os.path.abspath(__file__))
    loader = unittest.TestLoader()
    found = [case.id() for case in cases(loader.discover(folder))]
    if loader.errors or not found:
        sys.exit("\n".join(loader.errors) or "no test found")
    print("\n".join(found))


main()
