"""Stands in for the daemon before the hotplug agent: takes messages and notes them.

usage: agent_daemon.py RECORD [UNREAD]

Each connection becomes one line of RECORD: the message in JSON, null for a connection that said
nothing. The first UNREAD messages are not read: their connection is closed, which resets it.
"""
import json
import select
import socket
import sys

ADDRESS = b"\0vyhotplugd".ljust(108, b"\0")


def main():
    record, unread = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 0
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(ADDRESS)
    with open(record, "a", encoding="utf-8") as notes:
        print(json.dumps("ready"), file=notes, flush=True)
        listener.listen(128)
        while True:
            connection = listener.accept()[0]
            select.select([connection], [], [])  # bytes, or the end
            peeked = connection.recv(1, socket.MSG_PEEK)
            if peeked and unread > 0:
                unread -= 1
                text = "unread"
            else:
                data = connection.recv(512)
                text = data.decode("utf-8", "surrogateescape") if data else None
            print(json.dumps(text), file=notes, flush=True)
            connection.close()


main()
