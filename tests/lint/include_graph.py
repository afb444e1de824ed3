#!/usr/bin/python3
"""Holds the includes of src against the directions of the house (docs/ARCHITECTURE.md).

usage: include_graph.py SOURCE_DIRECTORY
"""
import pathlib
import re
import sys

# A folder may include itself and these.
MAY_INCLUDE = {
    "lib": set(),
    "device": {"lib"},
    "config": {"lib"},
    "records": {"config", "lib", "device"},
    "mount": {"config", "lib", "device"},
    "tools": {"config", "lib"},
    "core": {"config", "records", "mount", "tools", "lib", "device"},
}
# Of these folders, only these headers may be seen from there.
ONLY = {("mount", "config"): {"config/conf_hotplug.h"}}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def faults_of(source, path):
    folder = path.relative_to(source).parts[0]
    for number, line in enumerate(path.read_text().splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        name = match.group(1)
        where = f"{path.relative_to(source.parent)}:{number}: "
        other = name.split("/")[0]
        if not (source / name).is_file():
            yield where + f"{name} is not written from src/"
        elif other != folder and other not in MAY_INCLUDE[folder]:
            yield where + f"{folder} must not look at {other}"
        elif name not in ONLY.get((folder, other), {name}):
            yield where + f"{folder} sees nothing of {other} but {', '.join(ONLY[folder, other])}"


def main():
    source = pathlib.Path(sys.argv[1]).resolve() / "src"
    files = [path for path in sorted(source.rglob("*")) if path.suffix in (".h", ".cpp")]
    faults = [fault for path in files for fault in faults_of(source, path)]
    print("\n".join(faults))
    print(f"{len(files)} files, {len(faults)} faults")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
