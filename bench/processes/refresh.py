"""The refresh with many device sections and many mounts: instructions and times."""

import glob
import json
import os
import re
import sys

import measure
import vyworld

SECTIONS = (10, 100, 1000, 10000)
MOUNTS = (0, 10, 200)


def instructions(*command):
    """Instructions between the program's marks, as callgrind counts them."""
    for path in glob.glob("/tmp/callgrind.*"):
        os.unlink(path)
    measure.output("valgrind", "--tool=callgrind", "--instr-atstart=no",
                   "--callgrind-out-file=/tmp/callgrind.out", *command, timeout=900)
    return int(re.search(r"^totals: (\d+)", vyworld.read("/tmp/callgrind.out"),
                         re.MULTILINE)[1])


def opens_of_a_refresh(sections, mounts):
    """How often one more refresh opens something: the difference of two traced runs."""
    counts = []
    for times in (1, 2):
        measure.output("strace", "-f", "-qq", "-e", "trace=open,openat,creat", "-o", "/tmp/opens",
                       measure.tool("refresh_once"), str(sections), str(mounts), str(times))
        counts.append(len(vyworld.read_lines("/tmp/opens")))
    return counts[1] - counts[0]


def refresh(results, _):
    program = measure.tool("refresh_once")
    for mounts in MOUNTS:
        for sections in SECTIONS:
            name = f"{sections}.{mounts}"
            times = json.loads(measure.output(program, str(sections), str(mounts),
                                              str(measure.rounds(21, 5))))["ns"]
            results.add(f"refresh.time.{name}", [ns / 1e9 for ns in times], "s")
            results.add(f"refresh.instructions.{name}",
                        instructions(program, str(sections), str(mounts)), "instructions")
    values = results.values
    for mounts in MOUNTS:
        ratio = (values[f"refresh.instructions.10000.{mounts}"]["value"]
                 / values[f"refresh.instructions.1000.{mounts}"]["value"])
        results.add(f"refresh.growth.{mounts}", ratio, "")
    more = (values["refresh.instructions.10000.0"]["value"]
            - values["refresh.instructions.1000.0"]["value"])
    results.add("refresh.per_section", more / 9000, "instructions")
    results.add("refresh.opens", opens_of_a_refresh(100, 10), "")


if __name__ == "__main__":
    sys.exit(measure.main(refresh))
