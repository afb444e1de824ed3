"""Messages through the socket, beside the least that taking them could be."""

import sys

import measure


def flood(name, clients, messages):
    """Messages per second, and how many of them could not be sent."""
    took, failed = measure.output(measure.tool("flood"), name, str(clients), str(messages)).split()
    return messages * 1e9 / int(took), int(failed)


def messages(results, stack):
    count = measure.rounds(15, 3)
    number = measure.rounds(20000, 8000)
    measure.Service(stack, told=False)
    measure.start_peer(stack, measure.tool("bare_listener"), "bare")
    for clients in (1, 8):
        own, bare = [], []
        closed = 0
        for _ in range(count):
            speed, failed = flood("vyhotplugd", clients, number)
            own.append(speed)
            closed += failed
            bare.append(flood("bare", clients, number)[0])
        # The number of a closed connection is closed once more, by then perhaps another's.
        results.add(f"messages.{clients}.closed", closed * 1e6 / number / count, "/million")
        results.add(f"messages.{clients}.vyhotplugd", own, "/s")
        results.add(f"messages.{clients}.bare", bare, "/s")


if __name__ == "__main__":
    sys.exit(measure.main(messages))
