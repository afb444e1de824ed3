#!/usr/bin/python3
"""The Debian packages in a fresh Debian: installed, run, removed.

usage: chain.py DEBIAN PACKAGES RESULT [SCENARIO]...
           DEBIAN is what debian_root.sh has made, PACKAGES the folder with the packages, RESULT the file to
           write. Without a name, all scenarios; with names those and Install, which comes before them.
       chain.py --scenario NAME ORDER     used by itself, in new namespaces
"""
import json
import os
import pathlib
import shutil
import sys
import time

import debian_world
from debian_world import testkit
from test_busybox import BusyboxInit, BusyboxScript
from test_chain import Chain, Names
from test_command import Command
from test_completion import Completion
from test_install import Install, Removal, RemovalElsewhere
from test_other_bridge import OtherBridge
from test_units import Systemd, UnitLines

# The first one alone, for the others begin with what it leaves; of the others those first that take longest.
SCENARIOS = (Install, Systemd, Chain, Names, Removal, BusyboxScript, UnitLines, BusyboxInit, Command,
             Completion, RemovalElsewhere, OtherBridge)
AT_ONCE = 4  # they wait most of the time


class Order:
    """Where things are, for all scenarios."""

    def __init__(self, debian, packages):
        self.folder = packages + "/worlds"
        self.debian = debian + "/root"
        self.installed = self.folder + "/installed"
        self.exchange = self.folder + "/exchange"
        shutil.rmtree(self.folder, ignore_errors=True)
        os.makedirs(self.exchange + "/other")
        for path in pathlib.Path(packages).glob("*.deb"):
            if "dbgsym" not in path.name:  # one bridge at a time: the second lies beside
                shutil.copy(path, self.exchange + ("/other" if "ksmbd" in path.name else ""))

    def start(self, scenario):
        first = scenario is Install
        order = {"exchange": self.exchange, "upper": self.installed if first else None,
                 "layers": [self.debian] if first else [self.installed, self.debian]}
        return debian_world.Running(os.path.abspath(__file__), scenario, order, self.folder)


def tell(scenario, results, seconds):
    passed = sum(result["status"] == "run" for result in results)
    print(f"   {scenario.__name__}: {passed} of {len(results)} tests passed, {seconds:.0f} s", flush=True)
    return passed == len(results)


def run_all(order, scenarios):
    """Runs them, several at once; returns the results by scenario. Without the packages, no others."""
    results = {}
    waiting = list(scenarios)
    running = []
    while waiting or running:
        while waiting and len(running) < AT_ONCE and Install not in [one.scenario for one in running]:
            running.append(order.start(waiting.pop(0)))
        for one in [one for one in running if one.is_over()]:
            running.remove(one)
            results[one.scenario] = one.results()
            if not tell(one.scenario, results[one.scenario], one.seconds()) and one.scenario is Install:
                return results
        time.sleep(0.1)
    return results


def report(scenario, results):
    """The scenario's tests, for the results; tells of those that did not pass."""
    for result in results:
        words = result["name"].removeprefix("test_").replace("_", " ")
        if result["status"] != "run":
            print(f"{result['status']}: {scenario.__name__}: {words}\n{result['message'][-1500:]}")
        yield f"packages.{scenario.__name__}.{words}", result["status"], result["time"], result["message"]


def keep_logs(order, packages, results):
    """Of scenarios with a failure, in a folder that is there only then."""
    logs = packages + "/test-logs"
    shutil.rmtree(logs, ignore_errors=True)
    for scenario, found in results.items():
        if any(result["status"] == "fail" for result in found):
            os.makedirs(logs, exist_ok=True)
            shutil.copy(f"{order.folder}/{scenario.__name__}.log", logs)
    if os.path.isdir(logs):
        print(f"logs: {logs}")


def choose(names):
    """The scenarios that are named, in the table's order, each once; the first, with which the others begin, always."""
    unknown = set(names) - {scenario.__name__ for scenario in SCENARIOS}
    if unknown:
        sys.exit(f"no scenario {', '.join(sorted(unknown))}")
    return [scenario for scenario in SCENARIOS
            if not names or scenario is SCENARIOS[0] or scenario.__name__ in names]


def main():
    by_name = {scenario.__name__: scenario for scenario in SCENARIOS}
    if sys.argv[1] == "--scenario":
        debian_world.run_scenario(by_name[sys.argv[2]], json.loads(sys.argv[3]))
    debian, packages, path = sys.argv[1:4]
    chosen = choose(sys.argv[4:])
    order = Order(debian, packages)
    results = run_all(order, chosen)
    told = [test for scenario in chosen for test in
            report(scenario, results.get(scenario) or debian_world.missing_results(scenario, set()))]
    testkit.write_results(path, "packages", told)
    keep_logs(order, packages, results)
    shutil.rmtree(order.installed, ignore_errors=True)  # large
    states = [status for _, status, _, _ in told]
    print(f"{states.count('run')} passed, {states.count('fail')} failed, {states.count('notrun')} skipped")
    return 0 if "run" in states and "fail" not in states else 1


if __name__ == "__main__":
    sys.exit(main())
