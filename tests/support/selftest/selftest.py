#!/usr/bin/python3
"""Holds what test_main.cpp and count.py make of bad cases against what they are.

usage: selftest.py BUILD_DIRECTORY SOURCE_DIRECTORY
"""
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

WANTED = {"A_ChangesEverything": "run", "B_FindsNothingOfIt": "run", "C_Fails": "fail", "D_Crashes": "fail",
          "E_Ends": "fail", "F_LeavesADescriptor": "fail", "G_MayLeaveAStream": "run", "H_IsSkipped": "notrun",
          "I_Hangs": "fail", "J_ReturnsTwice": "run", "K_Passes": "run", "L_LeavesAThread": "fail"}
COUNTED = "6 passed, 7 failed, 1 skipped"
SUITE = "<testsuite>{}</testsuite>".format
FAILED, PASSED = ('<testcase name="system.{}" status="%s"/>' % status for status in ("fail", "run"))


def run_cases(build, source, *options):
    return subprocess.run([build / "bin/world", "--keep", source, "--keep", build, "--", build / "bin/bad_cases",
                           *options], check=False, cwd="/")


def main():
    build, source = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    results = build / "selftest"
    cases = results / "self.cases"
    cases.mkdir(parents=True, exist_ok=True)
    run = run_cases(build, source, f"--results={cases}/unit.bad.xml", "--limit=2")
    found = {case.get("name").split(".")[1]: case.get("status")
             for case in ElementTree.parse(cases / "unit.bad.xml").iter("testcase")}
    (results / "self.xml").write_text(SUITE('<testcase name="unit.bad" status="fail"/>'))
    (results / "load.xml").write_text(SUITE(FAILED.format("late") + FAILED.format("wrong")))
    (results / "load.again.xml").write_text(SUITE(PASSED.format("late") + FAILED.format("wrong")))
    count = subprocess.run([sys.executable, "-B", source / "tests/support/count.py", results], check=False,
                           stdout=subprocess.PIPE, text=True)
    print(count.stdout)
    faults = [f"{name}: {found.get(name)} instead of {status}" for name, status in WANTED.items()
              if found.get(name) != status]
    if "passed at the second try: load: system.late\n" not in count.stdout:
        faults.append("the second try is not told")
    if run.returncode != 1 or count.returncode != 1 or not count.stdout.endswith(f": {COUNTED}\n"):
        faults.append(f"status {run.returncode}, counted with status {count.returncode}")
    if run_cases(build, source, "--gtest_filter=NoSuch.Case").returncode != 1:
        faults.append("a name that no case has passes")
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
