#!/usr/bin/python3
"""What the shells complete of vyhotplugctl, and its man page, are what the program knows.

usage: completions.py SOURCE_DIRECTORY

The calls, their options and the settings are those of the program's own tables. Bash is asked by running its functions;
what fish and zsh complete is read.
"""
import pathlib
import re
import subprocess
import sys

# A row of call_rows: name, synopsis, help, options.
ROW = re.compile(r'\{"(\w+)",\s*((?:"[^"]*"\s*)+),\s*(?:"[^"]*"\s*)+,\s*([\w|\s]+?),\s*\w+,\s*\w+,\s*(?:true|false),')
OPTION = re.compile(r'\{"(\w+)", \w+, nullptr, (TAKES_\w+)\}')
SETTING = re.compile(r'\{"([a-z-]+)",\s*"[A-Z]')

faults = []


def check(right, what):
    if not right:
        faults.append(what)


def compare(where, what, found, known):
    check(found == known, f"{where}: {what} are {' '.join(sorted(found))}, and not {' '.join(sorted(known))}")


def part(text, begin, end):
    """What stands between two words; the end of the text is one, too."""
    return text.split(begin, 1)[1].split(end, 1)[0] if begin in text else ""


# ---- the program ----


def read_program(root):
    """The options of each call, and the settings."""
    text = (root / "companions/ctl/program.cpp").read_text(encoding="utf-8")
    names = {code: name for name, code in OPTION.findall(text)}
    calls = {}
    for name, synopsis, codes in ROW.findall(part(text, "call_rows[] = {", "\n};")):
        calls[name] = {names[code] for code in re.findall(r"TAKES_\w+", codes)}
        named = set(re.findall(r"--(\w+)", synopsis)) | ({"json"} & calls[name])
        compare("program.cpp", f"the options in the words on {name}", named, calls[name])
    table = part((root / "companions/ctl/settings.cpp").read_text(encoding="utf-8"), "setting_rows[", "\n};")
    return calls, set(SETTING.findall(table))


# ---- bash ----


def ask_bash(path, *words):
    """What the last of the words is completed to."""
    script = (". \"$1\"; shift; vyhotplugctl() { echo 'PARTITION'; echo 'sda1 x'; }; compopt() { :; }; COMP_WORDS=(\"$@\");"
              " COMP_CWORD=$(($# - 1)); _vyhotplugctl; printf '%s\\n' \"${COMPREPLY[@]}\"")
    return set(subprocess.run(["bash", "-c", script, "bash", path, "vyhotplugctl", *words], check=True, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True).stdout.split())


def check_bash(path, calls, settings):
    compare(path.name, "the calls", ask_bash(path, ""), set(calls))
    for call, options in calls.items():
        compare(path.name, f"the options of {call}", ask_bash(path, call, "-"), {"--" + option for option in options})
    compare(path.name, "the settings to set", ask_bash(path, "set", "sda1", ""), {word + "=" for word in settings})
    compare(path.name, "the settings to unset", ask_bash(path, "unset", "sda1", ""), settings)


# ---- fish, zsh ----


def check_fish(path, calls, settings):
    text = path.read_text(encoding="utf-8")
    listed = re.search(r"-n __fish_use_subcommand -a '([^']*)'", text)
    compare(path.name, "the calls", set(listed[1].split()) if listed else set(), set(calls))
    found = {call: set() for call in calls}
    for seen, option in re.findall(r"-n '__fish_seen_subcommand_from ([^']*)' -l (\w+)", text):
        for call in seen.split():
            found.setdefault(call, set()).add(option)
    for call, options in found.items():
        compare(path.name, f"the options of {call}", options, calls.get(call, set()))
    words = {call: set(words.split()) for call, words in
             re.findall(r"-n '__fish_seen_subcommand_from (\w+)' -a '([^']*)'", text)}
    compare(path.name, "the settings to set", words.get("set", set()), {word + "=" for word in settings})
    compare(path.name, "the settings to unset", words.get("unset", set()), settings)


def check_zsh(path, calls, settings):
    text = path.read_text(encoding="utf-8")
    listed = re.findall(r"(?m)^    '(\w+):", part(text, "calls=(", "\n)"))
    compare(path.name, "the calls", set(listed), set(calls))
    found = dict(re.findall(r"(?m)^    (\w+) '([^']*)'$", part(text, "options=(", "\n)")))
    for call in calls | found.keys():
        compare(path.name, f"the options of {call}", set(found.get(call, "").split()),
                {"--" + option for option in calls.get(call, set())})
    words = part(text, "settings=(", ")").split()
    compare(path.name, "the settings", set(words), settings)


# ---- the man page ----


def check_page(path, calls, settings):
    text = path.read_text(encoding="utf-8").replace("\\-", "-")
    found = {}
    for line in re.findall(r"(?m)^\.TP\n\.BR? (.*)", part(text, ".SH CALLS", "\n.SH")):
        found[line.split()[0]] = set(re.findall(r"--(\w+)", line))
    compare(path.name, "the calls", set(found), set(calls))
    for call, options in found.items():
        compare(path.name, f"the options of {call}", options, calls.get(call, set()))
    told = re.findall(r"(?m)^\.TP\n\.BR? (.*)", part(text, ".SH SETTINGS", "\n.SH"))
    compare(path.name, "the settings", set(re.findall(r"[a-z][a-z-]+", re.sub(r'"[^"]*"', " ", " ".join(told)))), settings)


def main():
    root = pathlib.Path(sys.argv[1])
    calls, settings = read_program(root)
    check(len(calls) >= 14 and len(settings) >= 12, f"{len(calls)} calls and {len(settings)} settings are read")
    folder = root / "packaging/completion"
    check_bash(folder / "vyhotplugctl", calls, settings)
    check_fish(folder / "vyhotplugctl.fish", calls, settings)
    check_zsh(folder / "_vyhotplugctl", calls, settings)
    check_page(root / "docs/man/vyhotplugctl.1", calls, settings)
    print("\n".join([*faults, f"{len(calls)} calls, {len(settings)} settings, {len(faults)} faults"]))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
