"""Counts and sizes alone: what a loaded machine does not change. Each benchmark runs once, briefly."""

import json
import sys
import time

import burst
import functions
import measure
import mounts
import refresh
import resident
import sizes
import vyworld

PARTITIONS = 10
IDLE_SECONDS = 6


def count_refreshes(results):
    program = measure.tool("refresh_once")
    for sections, mounts in ((300, 0), (3000, 0), (300, 200), (3000, 200), (1, 10), (1, 200)):
        results.add(f"refresh.instructions.{sections}.{mounts}",
                    refresh.instructions(program, str(sections), str(mounts)), "instructions")
    value = {key: entry.get("value") for key, entry in results.values.items()}
    for mounts in (0, 200):
        results.add(f"refresh.growth.{mounts}", value[f"refresh.instructions.3000.{mounts}"]
                    / value[f"refresh.instructions.300.{mounts}"], "")
    results.add("refresh.mounts_growth", value["refresh.instructions.1.200"]
                / value["refresh.instructions.1.10"], "")
    results.add("refresh.opens", refresh.opens_of_a_refresh(100, 10), "")


def run_each_once(results):
    """Every function of the table, on small inputs: all find the same."""
    found = {}
    for group, given, who in functions.operations():
        if given == "big":
            continue
        counted = json.loads(measure.output(measure.tool("once"), group, who, given))
        found.setdefault((group, given), set()).add(counted["found"])
        results.add(f"allocations.{group}.{given}.{who}", counted["allocations"], "")
        if who == "vyhotplugd":
            results.add(f"per_byte.{group}.{given}.{who}", refresh.instructions(
                measure.tool("once"), group, who, given) / counted["size"], "instructions/byte")
    results.add("found.differences", sum(len(numbers) - 1 for numbers in found.values()), "")


def time_each_once(results):
    """As the full run does, on small inputs."""
    functions.time_all(results, ["/".join(names) for names in functions.operations()
                                 if names[1] != "big"])


def look_at_idle(results, stack):
    service = measure.Service(stack)
    resident.add_other_calls(results, resident.system_calls([service.pid], IDLE_SECONDS)[0])


def brief(results, stack):
    began = time.monotonic()
    sizes.measure_own(results)
    run_each_once(results)
    time_each_once(results)
    count_refreshes(results)
    before = burst.loop_numbers()
    partitions = burst.make_partitions(stack, PARTITIONS)
    burst.burst(partitions, results, True)
    vyworld.write(vyworld.SHARE_FILE, "")
    mounts.count_calls(results)
    look_at_idle(results, stack)
    stack.callback(burst.remove_new_loops, before)
    print(f"   brief run: {time.monotonic() - began:.0f} s", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(measure.main(brief))
