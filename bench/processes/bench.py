#!/usr/bin/python3
"""Runs the measuring scripts, each in a private world, collects their results and tells of them.

usage: bench.py run BUILD_DIRECTORY [--quick] [GROUP]...     measures, writes results.json, prints the table
       bench.py brief BUILD_DIRECTORY RESULT_DIRECTORY       everything once, shortly; fails when a count or size is
                                                             broken, or something is not measured any more
       bench.py table BUILD_DIRECTORY                        prints the table of the last results as Markdown
BUILD_DIRECTORY holds bin/world, the folder bench with the benchmarks' programs, and release/bin.
"""

import datetime
import json
import os
import platform
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

import targets

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.realpath(os.path.join(FOLDER, "..", ".."))
# Each a script of this folder.
GROUPS = ["sizes", "functions", "refresh", "lookups", "start", "messages", "mounts", "burst",
          "resident", "box", "plug"]


# ---- running ----


def environment(build, quick):
    return {**os.environ, "VY_BIN": os.path.join(build, "release", "bin"),
            "VY_BENCH_TOOLS": os.path.join(build, "bench"), "VY_BENCH_QUICK": "1" if quick else "0",
            "LC_ALL": "C"}


def run_group(build, group, quick):
    """Its values; none where the script failed, which is told."""
    print(f"== {group}", file=sys.stderr, flush=True)
    record = os.path.join(build, f"results.{group}.json")
    if os.path.exists(record):
        os.unlink(record)
    world = [os.path.join(build, "bin", "world"), "--keep", ROOT, "--keep", build, "--"]
    done = subprocess.run([*world, "/usr/bin/python3", "-B", os.path.join(FOLDER, f"{group}.py"),
                           record], cwd=ROOT, env=environment(build, quick), check=False)
    if done.returncode != 0 or not os.path.exists(record):
        print(f"{group}: failed with {done.returncode}", file=sys.stderr)
        return None
    with open(record, encoding="utf-8") as file:
        return json.load(file)


def machine():
    model = "unknown processor"
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        for line in info:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    with open("/proc/meminfo", encoding="utf-8") as info:
        memory = int(info.readline().split()[1]) // 1024
    return {"processor": model, "processors": os.cpu_count(), "memory_mb": memory,
            "kernel": platform.release().split("-")[0], "machine": platform.machine(),
            "libc": " ".join(platform.libc_ver())}


def results_file(build):
    return os.path.join(build, "bench", "results.json")


def load_results(build):
    with open(results_file(build), encoding="utf-8") as file:
        return json.load(file)


def save_results(build, values, quick):
    data = {"machine": machine(), "quick": quick, "load": os.getloadavg()[0],
            "taken": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d"),
            "values": values, "rows": [describe(row, values) for row in targets.ROWS]}
    with open(results_file(build), "w", encoding="utf-8") as file:
        json.dump(data, file, indent=1)


# ---- telling ----


def short_name(key):
    last = key.split(".")[-1]
    return targets.NAMES.get(key) or targets.NAMES.get(last, last)


def told(entry):
    if entry is None:
        return "not measured"
    if "why" in entry:
        return f"not runnable: {entry['why']}"
    unit, factor, digits = targets.UNITS[entry["unit"]]
    value = entry["value"] * factor
    text = f"{value:,.{digits}f} {unit}" if unit else f"{value:g}"
    return "< " * entry.get("bound", False) + text


def verdict(target, values):
    """True, False, or None where a value is missing."""
    known = {key: values.get(key, {}).get("value") for key in target.keys}
    return None if None in known.values() else bool(target.met(known))


def describe(row, values):
    return {"what": row.what, "own": [told(values.get(key)) for key in row.own],
            "beside": {short_name(key): told(values.get(key)) for key in row.beside},
            "targets": [{"text": target.text, "met": verdict(target, values)}
                        for target in row.targets]}


WORDS = {True: "met", False: "**not met**", None: "not measured"}


def cells(row):
    beside = "; ".join(f"{name} {value}" for name, value in row["beside"].items())
    goals = "; ".join(f"{target['text']}: {WORDS[target['met']]}" for target in row["targets"])
    return [row["what"], ", ".join(row["own"]), beside, goals]


def print_markdown(data):
    machine = data["machine"]
    print(f"Taken on {data['taken']}: {machine['processors']} processors ({machine['processor']}), "
          f"{machine['memory_mb'] // 1024} GB of memory, Linux {machine['kernel']}, {machine['libc']}, "
          f"load {data['load']:.1f}{', short runs' if data['quick'] else ''}.\n")
    print("| What | Measured | Beside | To reach |")
    print("|---|---|---|---|")
    for row in data["rows"]:
        print("| " + " | ".join(cells(row)) + " |")


def print_objects(values):
    """The sizes of objects, the largest first."""
    sources = [key.removeprefix("object.text.") for key in values if key.startswith("object.text.")]
    print("\n| Object | Code and constants | Data | Zeroed data |")
    print("|---|---|---|---|")
    for source in sorted(sources, key=lambda name: -values[f"object.text.{name}"]["value"]):
        sizes = [f"{values[f'object.{kind}.{source}']['value']:,}" for kind in ("text", "data", "bss")]
        print(f"| `{source}` | " + " | ".join(sizes) + " |")


def print_plain(data):
    for row in data["rows"]:
        what, own, beside, goals = cells(row)
        print(f"{what}\n    {own}" + (f"   beside {beside}" if beside else ""))
        if goals:
            print(f"    {goals.replace('**', '')}")


# ---- the three uses ----


def run(build, arguments):
    quick = "--quick" in arguments
    chosen = [word for word in arguments if word != "--quick"] or GROUPS
    values = {}
    if chosen != GROUPS and os.path.exists(results_file(build)):
        values = load_results(build)["values"]  # the other groups' stay
    failed = []
    for group in chosen:
        measured = run_group(build, group, quick)
        if measured is None:
            failed.append(group)
        values.update(measured or {})
        save_results(build, values, quick)
    print_plain(load_results(build))
    return 1 if failed else 0


def add_case(suite, name, met, text):
    case = ElementTree.SubElement(suite, "testcase", name=f"bench.{name}", classname="bench",
                                  status="run" if met else "fail")
    if not met:
        ElementTree.SubElement(case, "failure", message=text)


def brief(build, arguments):
    values = run_group(build, "brief", True) or {}
    for group, key in targets.TIMED.items():
        if key not in values:
            values.update(run_group(build, group, True) or {})
    suite = ElementTree.Element("testsuite", name="bench")
    broken = 0
    for target in targets.BRIEF + [targets.is_measured(*timed) for timed in targets.TIMED.items()]:
        met = verdict(target, values) is True
        measured = ", ".join(f"{key} {told(values.get(key))}" for key in target.keys)
        print(f"{'kept  ' if met else 'BROKEN'} {target.text} ({measured})")
        add_case(suite, target.text, met, measured)
        broken += not met
    suite.set("tests", str(len(suite)))
    suite.set("failures", str(broken))
    os.makedirs(arguments[0], exist_ok=True)
    ElementTree.ElementTree(suite).write(os.path.join(arguments[0], "bench.brief.xml"),
                                         encoding="utf-8", xml_declaration=True)
    return 1 if broken else 0


def table(build, _):
    data = load_results(build)
    data["rows"] = [describe(row, data["values"]) for row in targets.ROWS]
    print_markdown(data)
    print_objects(data["values"])
    return 0


if __name__ == "__main__":
    sys.exit({"run": run, "brief": brief, "table": table}[sys.argv[1]](
        os.path.abspath(sys.argv[2]), sys.argv[3:]))
