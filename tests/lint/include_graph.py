#!/usr/bin/python3
"""Holds the includes of src and companions against the directions of the house (docs/ARCHITECTURE.md).

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
# The same for companions/, whose folders see these of src besides.
COMPANIONS_MAY_INCLUDE = {
    "common": set(),
    "agent": {"common"},
    "ctl": {"common", "records"},
    "ksmbd": {"common", "share"},
    "label": {"common"},
    "prepare": {"common"},
    "samba": {"common", "share"},
    "share": {"common"},
}
COMPANIONS_SEE = {"lib", "config", "device"}
# Of these folders, only these headers may be seen from there.
ONLY = {("mount", "config"): {"config/conf_hotplug.h", "config/filesystems.h", "config/mount_flags.h"},
        **{(folder, "device"): {"device/kinds.h"} for folder in COMPANIONS_MAY_INCLUDE}}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def faults_of(root, path):
    source, folder = path.relative_to(root).parts[:2]
    allowed = MAY_INCLUDE[folder] if source == "src" else COMPANIONS_MAY_INCLUDE[folder] | COMPANIONS_SEE
    for number, line in enumerate(path.read_text().splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        name = match.group(1)
        where = f"{path.relative_to(root)}:{number}: "
        other = name.split("/")[0]
        if not any((root / top / name).is_file() for top in {source, "src"}):
            yield where + f"{name} is not written from src/ or companions/"
        elif other != folder and other not in allowed:
            yield where + f"{folder} must not look at {other}"
        elif name not in ONLY.get((folder, other), {name}):
            yield where + f"{folder} sees nothing of {other} but {', '.join(ONLY[folder, other])}"


def modules_of(root, folder):
    """What each module of a folder (a header and its source) includes of the same folder."""
    seen = {}
    for path in sorted((root / folder).iterdir()):
        if path.suffix in (".h", ".cpp"):
            names = [match.group(1) for match in map(INCLUDE.match, path.read_text().splitlines()) if match]
            inside = {pathlib.Path(name).stem for name in names if name.split("/")[0] == path.parent.name}
            seen.setdefault(path.stem, set()).update(inside - {path.stem})
    return seen


def circles_of(root, folder):
    """Arrows inside a folder lead down: what is left when all that looks at nothing is taken away."""
    left = modules_of(root, folder)
    while ends := [name for name, seen in left.items() if not seen & left.keys()]:
        for name in ends:
            del left[name]
    if left:
        yield f"{folder}: these look at each other: {', '.join(sorted(left))}"


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    files = [path for top in ("src", "companions") for path in sorted((root / top).rglob("*"))
             if path.suffix in (".h", ".cpp")]
    faults = [fault for path in files for fault in faults_of(root, path)]
    folders = sorted({path.parent.relative_to(root) for path in files})
    faults += [fault for folder in folders for fault in circles_of(root, folder)]
    print("\n".join(faults))
    print(f"{len(files)} files, {len(faults)} faults")
    return 1 if faults or not files else 0


if __name__ == "__main__":
    sys.exit(main())
