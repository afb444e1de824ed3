#!/usr/bin/python3
"""One version everywhere, from the file VERSION, and no two builds with the same package version.

usage: version.py SOURCE_DIRECTORY

cmake/build-version is run in repositories made for it; Debian's dpkg says which version is the newer one.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "GIT_CONFIG_NOSYSTEM": "1", "LC_ALL": "C",
               "GIT_AUTHOR_NAME": "x", "GIT_AUTHOR_EMAIL": "x@example.org",
               "GIT_COMMITTER_NAME": "x", "GIT_COMMITTER_EMAIL": "x@example.org"}
DAY = 86400
NOON = 1700000000  # some second of the past
NUMBER = r"\d+\.\d+\.\d+(~[a-z]+\d+)?"

faults = []


def check(right, what):
    if not right:
        faults.append(what)


def run(folder, *command, **environment):
    return subprocess.run(command, cwd=folder, check=True, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, env={**ENVIRONMENT, **environment}).stdout.strip()


def make_source(root, folder):
    (folder / "cmake").mkdir(parents=True)
    shutil.copy(root / "VERSION", folder)
    shutil.copy(root / "cmake/build-version", folder / "cmake")
    (folder / ".gitignore").write_text("/build/\n")


def commit(folder, seconds):
    run(folder, "git", "add", "-A")
    run(folder, "git", "commit", "-q", "--allow-empty", "-m", "x", GIT_COMMITTER_DATE=f"@{seconds} +0000")


def version(folder, *arguments, **environment):
    return run(folder, "cmake/build-version", *arguments, **environment)


def is_newer(one, other):
    return subprocess.run(["dpkg", "--compare-versions", one, "gt", other], check=False).returncode == 0


def check_order(versions, what):
    for older, newer in zip(versions, versions[1:]):
        check(is_newer(newer, older), f"{what}: {newer} is not newer than {older}")


def check_repository(root, folder):
    make_source(root, folder)
    run(folder, "git", "init", "-q")
    made = []
    for seconds in (NOON, NOON + 1, NOON + DAY, NOON + 365 * DAY):
        commit(folder, seconds)
        made.append(version(folder))
        check(re.fullmatch(NUMBER + r"\+\d{14}\.g[0-9a-f]{7,}", made[-1]), f"of a commit: {made[-1]}")
        check(version(folder, "--package") == made[-1], "a package of a commit has its version")
        check(version(folder, SOURCE_DATE_EPOCH="5") == made[-1], "a commit's time is its own")
    (folder / "build").mkdir()
    check(version(folder) == made[-1], "what git ignores is no difference")
    (folder / "new").write_text("")
    check(version(folder) == made[-1] + ".dirty", f"a new file: {version(folder)}")
    for _ in range(2):
        made.append(version(folder, "--package", SOURCE_DATE_EPOCH="5"))
        check(made[-1].endswith(".dirty"), f"a package of changed files: {made[-1]}")
        time.sleep(1.1)
    check_order(made, "in a repository")
    check(is_newer(root_number(folder), made[-1]), "what is released is newer than its betas")


def root_number(folder):
    return re.match(r"\d+\.\d+\.\d+", (folder / "VERSION").read_text())[0]


def check_without(root, folder):
    make_source(root, folder)
    run(folder.parent, "git", "init", "-q")  # somebody else's
    commit(folder.parent, NOON)
    check(re.fullmatch(NUMBER, version(folder)), f"without a repository: {version(folder)}")
    dated = [version(folder, SOURCE_DATE_EPOCH=str(NOON + days * DAY)) for days in (0, 1)]
    check(dated == [version(folder, "--package", SOURCE_DATE_EPOCH=str(NOON + days * DAY)) for days in (0, 1)],
          "a package with a date has that date's version")
    made = [version(folder), *dated, version(folder, "--package")]
    time.sleep(1.1)
    made.append(version(folder, "--package"))
    check_order(made, "without a repository")


def check_places(root):
    """Nobody else knows the version."""
    number = root_number(root)
    paths = [path for top in ("src", "companions", "docs/man", "packaging") for path in (root / top).rglob("*")
             if path.is_file() and path.suffix != ".h"]
    for path in [*paths, root / "CMakeLists.txt"]:
        check(number not in path.read_text(), f"{path.relative_to(root)} holds {number}")
    for page in (root / "docs/man").iterdir():
        check(' "vyhotplugd @VERSION@" ' in page.read_text(), f"{page.relative_to(root)} tells no version")
    return len(paths)


def main():
    root = pathlib.Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory() as folder:
        check_repository(root, pathlib.Path(folder) / "one")
        check_without(root, pathlib.Path(folder) / "outer" / "two")
    count = check_places(root)
    print("\n".join(faults))
    print(f"{count} files, {len(faults)} faults")
    return 1 if faults or not count else 0


if __name__ == "__main__":
    sys.exit(main())
