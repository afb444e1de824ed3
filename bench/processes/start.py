"""From exec to ready: the service's socket, the bus name of udisksd."""

import os
import sys

import measure
import vyworld


def start(results, stack):
    count = measure.rounds(31, 5)
    os.makedirs(vyworld.CONFIG_DIR)
    os.makedirs("/tmp/places")
    vyworld.write(vyworld.CONFIG, f"smbconfigpath = {vyworld.SHARE_FILE}\n"
                  f"deviceconfigpath = {vyworld.DEVICE_FILE}\nmountpath = /tmp/places\n"
                  "devicepath = /tmp/places\n")
    why = measure.start_bus(stack) or measure.prepare_udisks()
    if not why and not os.path.exists(measure.tool("start_to_name")):
        why = "GIO was not there when the benchmarks were built"
    own, other = [], []
    for _ in range(count):
        own.append(int(measure.output(measure.tool("start_to_socket"), "vyhotplugd", measure.DAEMON,
                                      "-d", "-f", vyworld.CONFIG)) / 1e9)
        if not why:
            other.append(int(measure.output(measure.tool("start_to_name"),
                                            "org.freedesktop.UDisks2", measure.UDISKSD)) / 1e9)
    results.add("start.vyhotplugd", own, "s")
    if why:
        results.cannot("start.udisksd", why)
    else:
        results.add("start.udisksd", other, "s")


if __name__ == "__main__":
    sys.exit(measure.main(start))
