"""Asks a gateway for its description again and again, until standard input ends.

    askagain.py ADDRESS PORT PAUSE

First it asks some times in peace, and prints the first answer as a line of JSON. Then it prints a line for each answer:
the milliseconds from the connect to the end of the answer, or what was wrong instead. The date may differ in answers.
The pause between two requests is in seconds; a host that asks without one would itself be an attack.
"""
import json
import os
import re
import select
import socket
import sys
import time

WARM_UP = 20
PATIENCE = 10  # seconds
REQUEST = b"GET /gateway.xml HTTP/1.1\r\n\r\n"


def ask(server):
    with socket.create_connection(server, PATIENCE) as connection:
        connection.sendall(REQUEST)
        pieces = []
        while piece := connection.recv(65536):
            pieces.append(piece)
    return b"".join(pieces)


def timeless(answer):
    return re.sub(rb"(?<=\r\nDATE: )[^\r]*", b"NOW", answer)


def measure(server, expected):
    began = time.monotonic()
    try:
        answer = ask(server)
    except OSError as error:
        return f"{type(error).__name__} {error} after {time.monotonic() - began:.3f} s"
    took = (time.monotonic() - began) * 1000
    return f"{took:.3f}" if timeless(answer) == expected else f"another answer: {answer!r}"


def main():
    # It stands for another machine, which does not compete with the attacker and the gateway for a processor.
    os.setpriority(os.PRIO_PROCESS, 0, -20)
    server, pause = (sys.argv[1], int(sys.argv[2])), float(sys.argv[3])
    expected = timeless(ask(server))
    for _ in range(WARM_UP):
        ask(server)
    print(json.dumps(expected.decode()), flush=True)
    while not select.select([sys.stdin], [], [], pause)[0]:
        print(measure(server, expected), flush=True)


if __name__ == "__main__":
    main()
