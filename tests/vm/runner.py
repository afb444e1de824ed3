"""Runs the tests in virtual machines: each in a process and a machine of its own, several at once."""

import argparse
import concurrent.futures
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import kit
from kit import testkit

LIMIT = 600  # seconds for one test; a long one has ten times as much
FEW = 3  # of one run: as many may fail because this machine is busy, and are run once more, alone
FAREWELL = 30  # seconds for one that ran too long to leave its traces
LOGS = os.path.join(kit.PROJECT, "build", "vm-logs")


class Test:
    """A test method on a machine."""

    def __init__(self, machine, case):
        self.machine = machine
        self.id = case.id()
        method = getattr(case, case.id().rsplit(".", 1)[1])
        self.long = machine in getattr(method, "long", case.long)
        self.name = f"{machine}.{self.id.removeprefix('test_').replace('.test_', '.')}"
        self.folder = os.path.join(LOGS, self.name)

    def run(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.folder)
        start = time.monotonic()
        environment = {**os.environ, "VY_VM_MACHINE": self.machine, "VY_VM_FOLDER": self.folder}
        with open(os.path.join(self.folder, "test.log"), "wb") as out:
            process = subprocess.Popen([sys.executable, "-B", "-m", "unittest", "-v", self.id], cwd=kit.FOLDER,
                                       env=environment, stdin=subprocess.DEVNULL, stdout=out, stderr=out)
            try:
                status = process.wait(LIMIT * 10 if self.long else LIMIT)
            except subprocess.TimeoutExpired:
                end(process)
                status = -1
                out.write(b"\nran too long\n")
        self.seconds = time.monotonic() - start
        self.passed = status == 0
        with open(os.path.join(self.folder, "test.log"), encoding="utf-8", errors="replace") as file:
            self.output = file.read()
        if self.passed:
            shutil.rmtree(self.folder)
        return self


def end(process):
    """Interrupts a test, which keeps its traces then, and kills it if it does not end."""
    process.send_signal(signal.SIGINT)
    try:
        process.wait(FAREWELL)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def find_tests(options):
    found = testkit.cases_in(kit.FOLDER)
    tests = [Test(machine, case) for machine in options.machines for case in found if machine in case.machines]
    tests = [test for test in tests if (any(part in test.id for part in options.tests) if options.tests
                                        else options.long or not test.long)]
    return sorted(tests, key=lambda test: not test.long)  # the longest first, so that they do not run alone


def run_all(tests, at_once):
    with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        for number, done in enumerate(concurrent.futures.as_completed([pool.submit(test.run) for test in tests]), 1):
            test = done.result()
            kit.say(f"{number}/{len(tests)} {'passed' if test.passed else 'FAILED'} {test.seconds:6.1f} s  {test.name}")
            if not test.passed:
                kit.say(testkit.printable("\n".join(test.output.splitlines()[-25:])))
                kit.say(f"its traces are in {os.path.relpath(test.folder, kit.PROJECT)}")


def write_results(tests, options, suffix):
    """A file for each machine; those of a second try have names that tests/support/count.py knows."""
    for machine in {test.machine for test in tests}:
        testkit.write_results(f"{options.results}/vm-{machine}{suffix}.xml", f"vm-{machine}",
                              [(test.name, "run" if test.passed else "fail", test.seconds, test.output)
                               for test in tests if test.machine == machine])


def run_again(failed, tests, options):
    """Where they are few, and others have passed."""
    if not 0 < len(failed) <= FEW or len(failed) == len(tests):
        return
    kit.say("once more, alone:")
    for test in failed:
        os.rename(test.folder, f"{test.folder}.first")
    run_all(failed, 1)
    write_results(failed, options, ".again")


def main():
    parser = argparse.ArgumentParser(prog="tests/vm/run")
    parser.add_argument("--long", action="store_true")
    parser.add_argument("--machine", dest="machines", action="append", choices=list(kit.KINDS))
    parser.add_argument("--no-build", dest="build", action="store_false")
    parser.add_argument("--only-build", action="store_true")
    parser.add_argument("--only-fetch", action="store_true")
    parser.add_argument("--jobs", type=int, default=2 * os.cpu_count())
    parser.add_argument("--results", default=os.path.join(kit.PROJECT, "build", "vm-results"))
    parser.add_argument("tests", nargs="*", metavar="TEST")
    options = parser.parse_args()
    options.machines = options.machines or list(kit.KINDS)
    tests = find_tests(options)
    if not tests:
        sys.exit("no such test")
    if options.only_fetch:
        for machine in options.machines:
            kit.fetch(kit.KINDS[machine])
        return 0
    os.makedirs(options.results, exist_ok=True)
    for machine in options.machines:
        kit.prepare(machine, options.build)
    if options.only_build:
        return 0
    with tempfile.TemporaryDirectory(prefix="vm-booted-", dir=os.path.join(kit.PROJECT, "build")) as booted:
        os.environ["VY_VM_BOOTED"] = booted  # machines behind their boot, of this run alone
        for test in tests:
            shutil.rmtree(f"{test.folder}.first", ignore_errors=True)
        run_all(tests, options.jobs)
        write_results(tests, options, "")
        run_again([test for test in tests if not test.passed], tests, options)
    count = sum(not test.passed for test in tests)
    kit.say(f"{len(tests) - count} passed, {count} failed, 0 skipped")
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
