"""Sizes of executables without symbols."""

import glob
import os
import shutil
import sys
import tempfile

import measure

BUILD = os.path.dirname(os.path.dirname(measure.BIN))  # of everything that bench/run builds


def stripped_size(path, stripper="strip"):
    """In bytes."""
    with tempfile.NamedTemporaryFile() as copy:
        measure.output(stripper, "-o", copy.name, path)
        return os.path.getsize(copy.name)


def measure_objects(results):
    """What each source file comes to, before the linker leaves out what nobody calls."""
    objects = os.path.join(BUILD, "objects", "src", "CMakeFiles")
    for path in sorted(glob.glob(os.path.join(objects, "*.dir", "*", "*.o"))):
        source = "/".join(path.split("/")[-2:]).removesuffix(".o")
        numbers = measure.output("size", path).splitlines()[1].split()[:3]
        for kind, number in zip(("text", "data", "bss"), numbers):
            results.add(f"object.{kind}.{source}", int(number), "bytes")


def measure_own(results):
    results.add("size.x86_64", stripped_size(measure.DAEMON), "bytes")


def sizes(results, _):
    measure_own(results)
    for name, path in (("udisksd", measure.UDISKSD), ("busybox", shutil.which("busybox"))):
        if path and os.path.exists(path):
            results.add(f"size.{name}", stripped_size(path), "bytes")
        else:
            results.cannot(f"size.{name}", "not installed")
    for name, folder in (("mips_dynamic", "mips"), ("mips_static", "mips-static")):
        path = os.path.join(BUILD, folder, "bin", "vyhotplugd")
        if os.path.exists(path):
            results.add(f"size.{name}", stripped_size(path, "mipsel-linux-gnu-strip"), "bytes")
        else:
            results.cannot(f"size.{name}", "no C library for it: see cmake/build-uclibc-sysroot")
    measure_objects(results)


if __name__ == "__main__":
    sys.exit(measure.main(sizes))
