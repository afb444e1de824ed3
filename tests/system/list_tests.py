"""Prints the id of every test of this folder, one a line: what the build makes its tests of."""

import os

from vyworld import testkit

for case in testkit.cases_in(os.path.dirname(os.path.abspath(__file__))):
    print(case.id())
