"""The readers: INI-style files and messages, beside libraries that do the same."""

import json
import subprocess
import sys

import measure
from refresh import instructions

BIG = 10_000_000  # bytes of the big file
PATIENCE = 60  # seconds for one operation; who takes longer is not measured further


def operations():
    """Group, input and name of each, as the program that times them lists them."""
    listing = measure.output(measure.tool("functions_bench"), "--benchmark_list_tests=true")
    return [line.split("/") for line in listing.split()]


def too_slow(group, given, who):
    """Whether one run (the program makes two) needs more than the patience."""
    try:
        measure.output(measure.tool("once"), group, who, given,
                       timeout=measure.rounds(PATIENCE, 10))
    except subprocess.TimeoutExpired:
        return True
    return False


def count(results, group, given, who):
    key = f"{group}.{given}.{who}"
    counted = json.loads(measure.output(measure.tool("once"), group, who, given))
    results.add(f"allocations.{key}", counted["allocations"], "")
    results.add(f"found.{key}", counted["found"], "")
    if given != "big":  # under callgrind that takes minutes
        number = instructions(measure.tool("once"), group, who, given)
        results.add(f"per_byte.{key}", number / counted["size"], "instructions/byte")


def time_all(results, names):
    repetitions = measure.rounds(15, 3)
    measure.output(measure.tool("functions_bench"), "--benchmark_enable_random_interleaving=true",
                   f"--benchmark_repetitions={repetitions}",
                   f"--benchmark_min_time={measure.rounds(0.2, 0.02)}",
                   "--benchmark_filter=^(" + "|".join(names) + ")$",
                   "--benchmark_out=/tmp/functions.json", "--benchmark_out_format=json",
                   timeout=1800)
    with open("/tmp/functions.json", encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    for name in names:
        own = [run["bytes_per_second"] / 1e6 for run in runs
               if run["run_name"].startswith(name + "/") or run["run_name"] == name
               if run["run_type"] == "iteration"]
        results.add("speed." + name.replace("/", "."), own, "MB/s")


def functions(results, _):
    names = []
    slow = set()
    for group, given, who in operations():
        if given == "big" and ((who in slow) or too_slow(group, given, who)):
            slow.add(who)
            # The program runs it twice within the patience.
            results.add_bound(f"speed.{group}.{given}.{who}",
                              2 * BIG / 1e6 / measure.rounds(PATIENCE, 10), "MB/s")
            continue
        names.append(f"{group}/{given}/{who}")
        count(results, group, given, who)
    time_all(results, names)


if __name__ == "__main__":
    sys.exit(measure.main(functions))
