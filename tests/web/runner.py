"""Runs the tests of the page: what checks its sources, then each test in a browser in a world of its own."""

import argparse
import concurrent.futures
import os
import shutil
import subprocess
import sys
import time

from web_world import FOLDER, ROOT, vyworld

BUILD = os.path.join(ROOT, "build", "web")
LOGS = os.path.join(BUILD, "logs")
TOOLS = os.path.join(BUILD, "node_modules", ".bin")
WORLD = os.path.join(ROOT, "build", "dev", "bin", "world")
PICTURES = os.path.join(ROOT, "docs", "pictures")
LIMIT = 600  # seconds for one test
AT_ONCE = os.cpu_count() or 1  # a test waits half of the time

CHECKS = {
    "lint": [TOOLS + "/eslint", "--config", "tests/web/eslint.config.js", "web", "tests/web/unit",
             "tests/web/eslint.config.js"],
    "types": [TOOLS + "/tsc", "-p", "tests/web"],
    "unit": ["node", "--test", "tests/web/unit/"],
}


def run(name, command, environment=None):
    """Returns what testkit.write_results takes."""
    start = time.monotonic()
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=False, timeout=LIMIT, cwd=ROOT, env={**os.environ, **(environment or {})})
        output, status = done.stdout.decode(errors="replace"), "run" if done.returncode == 0 else "fail"
    except subprocess.TimeoutExpired as late:
        output, status = (late.stdout or b"").decode(errors="replace") + "\nran too long", "fail"
    if "OK (skipped=" in output:
        status = "notrun"
    seconds = time.monotonic() - start
    print(f"{'passed' if status == 'run' else status}: {name}, {seconds:.0f} s", flush=True)
    with open(os.path.join(LOGS, name + ".log"), "w", encoding="utf-8") as log:
        log.write(output)
    if status == "fail":
        print(vyworld.testkit.printable(output[-3000:]), flush=True)
    return f"web.{name}", status, seconds, output[-4000:]


def run_in_browser(test, pictures):
    """A method of a test class; its picture stays when it has failed."""
    folder = os.path.join(LOGS, test)
    os.makedirs(folder)
    command = [WORLD, "--keep", ROOT, "--", sys.executable, "-B", "-m", "unittest", "-v", test]
    result = run(test.removeprefix("test_").replace(".test_", "."), ["env", "-C", FOLDER, *command], {
        "VY_BIN": os.path.dirname(WORLD), "VY_WEB_LOGS": folder, "VY_PICTURES": PICTURES if pictures else ""})
    if result[1] != "fail":
        shutil.rmtree(folder)
    return result


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--core", action="store_true")
    parser.add_argument("--pictures", action="store_true")
    parser.add_argument("--results", default=os.path.join(BUILD, "results"))
    parser.add_argument("test", nargs="*")
    options = parser.parse_args()
    shutil.rmtree(LOGS, ignore_errors=True)
    for folder in (LOGS, options.results, PICTURES):
        os.makedirs(folder, exist_ok=True)
    results = [run(name, command) for name, command in CHECKS.items() if name == "unit" or not options.core]
    if options.core:
        options.test = ["test_story"]
    tests = [case.id() for case in vyworld.testkit.cases_in(FOLDER)]
    tests = [test for test in tests if not options.test or any(part in test for part in options.test)]
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        results += pool.map(lambda test: run_in_browser(test, options.pictures), tests)
    vyworld.testkit.write_results(os.path.join(options.results, "web.xml"), "web", results)
    states = [status for _, status, _, _ in results]
    print(f"{states.count('run')} passed, {states.count('fail')} failed, {states.count('notrun')} skipped")
    return 0 if tests and "fail" not in states else 1


if __name__ == "__main__":
    sys.exit(main())
