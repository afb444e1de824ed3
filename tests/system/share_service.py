"""Stand-in for the file-sharing service: notes every SIGHUP, with the share file as it then is.

Usage: share_service.py PID_FILE SHARE_FILE RECORD_FILE
One line of JSON for each signal: the time and the file's text (null when there is none).
"""

import json
import os
import signal
import sys
import time


def read_text(path):
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            return file.read()
    except OSError:
        return None


def main():
    pid_file, share_file, record_file = sys.argv[1:]
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGHUP})
    with open(record_file, "w", encoding="utf-8") as record:
        with open(pid_file + ".new", "w", encoding="utf-8") as file:
            file.write(f"{os.getpid()}\n")
        os.rename(pid_file + ".new", pid_file)
        while True:
            signal.sigwait({signal.SIGHUP})
            note = {"time": time.monotonic(), "shares": read_text(share_file)}
            record.write(json.dumps(note) + "\n")
            record.flush()


main()
