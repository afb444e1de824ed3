"""Sizes of executables without symbols."""

import glob
import os
import shutil
import subprocess
import sys
import tempfile

import measure

ROOT = os.path.realpath(os.path.join(measure.FOLDER, "..", ".."))


def stripped_size(path, *strippers):
    """In bytes; raises RuntimeError when no stripper knows the machine."""
    with tempfile.TemporaryDirectory() as folder:
        for stripper in strippers:
            if shutil.which(stripper) is None:
                continue
            copy = os.path.join(folder, "copy")
            done = subprocess.run([stripper, "-o", copy, path], check=False,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            if done.returncode == 0:
                return os.path.getsize(copy)
    raise RuntimeError(f"cannot strip {path}")


def is_static(path):
    return b"/ld-" not in open(path, "rb").read()


def mips_builds():
    """The executables of the MIPS presets, as far as they were built."""
    found = {}
    for path in glob.glob(os.path.join(ROOT, "build", "mips-uclibc*", "bin", "vyhotplugd")):
        found["mips_static" if is_static(path) else "mips_dynamic"] = path
    return found


def measure_own(results):
    results.add("size.x86_64", stripped_size(measure.DAEMON, "strip"), "bytes")


def sizes(results, _):
    measure_own(results)
    for name, path in (("udisksd", measure.UDISKSD), ("busybox", shutil.which("busybox"))):
        if path and os.path.exists(path):
            results.add(f"size.{name}", stripped_size(path, "strip"), "bytes")
        else:
            results.cannot(f"size.{name}", "not installed")
    builds = mips_builds()
    for name in ("mips_dynamic", "mips_static"):
        try:
            if name not in builds:
                raise RuntimeError("not built: see the preset mips-uclibc")
            results.add(f"size.{name}", stripped_size(
                builds[name], "mips-linux-gnu-strip", "mipsel-linux-gnu-strip", "llvm-strip",
                "llvm-strip-14"), "bytes")
        except RuntimeError as error:
            results.cannot(f"size.{name}", str(error))


if __name__ == "__main__":
    sys.exit(measure.main(sizes))
