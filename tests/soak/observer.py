#!/usr/bin/python3
"""A control point that does nothing but ask, one question after another, and tells how long each answer took.

    observer.py INTERFACE

Runs on lan2; INTERFACE is the number of the external interface. Asks as long as its standard input says "go", and stops at
"stop", when it holds no mapping. Prints a JSON list for each question: what it is, when it began on the monotonic clock,
how many seconds it took, and what came instead of the answer that was expected, if anything did; then "stopped".
"""
import json
import os
import pathlib
import select
import socket
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import control_point  # noqa: E402
from labs import LAN2, ROUTER_LAN  # noqa: E402

PORT = 4900
PAUSE = 0.025    # seconds between two questions
TIME_LIMIT = 5   # seconds until a question counts as unanswered


def http(request, expected):
    """What was answered instead, if the answer does not begin and go on as it must."""
    with socket.create_connection((ROUTER_LAN, control_point.PORT), timeout=TIME_LIMIT) as connection:
        connection.sendall(request.encode())
        answer = control_point.read_to_end(connection).decode()
    return "" if answer.startswith("HTTP/1.1 200 OK\r\n") and expected in answer else answer or "nothing"


def search():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asking:
        asking.settimeout(TIME_LIMIT)
        asking.bind((LAN2, 0))
        asking.sendto(control_point.search("upnp:rootdevice").encode(), control_point.GROUP)
        answer = asking.recv(65536).decode()
    return "" if answer.startswith("HTTP/1.1 200 OK\r\n") else answer


def soap(interface, action, arguments=()):
    body = control_point.envelope(control_point.action_element(action, arguments))
    return control_point.post(f"/upnp/control/wanipconn-{interface}", body, f'"{control_point.CONNECTION}#{action}"')


def questions(interface):
    """What is asked in turn; the last one takes the mapping back, and is not measured."""
    arguments = control_point.mapping(PORT, "TCP", 8000, LAN2)
    described = f"GET /gateway.xml HTTP/1.1\r\nHOST: {ROUTER_LAN}:{control_point.PORT}\r\n\r\n"
    return [
        ("search", search),
        ("description", lambda: http(described, "</root>\r\n")),
        ("GetExternalIPAddress", lambda: http(soap(interface, "GetExternalIPAddress"), "<NewExternalIPAddress>")),
        ("AddPortMapping", lambda: http(soap(interface, "AddPortMapping", arguments), "AddPortMappingResponse")),
        (None, lambda: http(soap(interface, "DeletePortMapping", arguments[:3]), "DeletePortMappingResponse"))]


def ask(kind, question):
    begun = time.monotonic()
    try:
        instead = question()
    except (OSError, ValueError) as failure:
        instead = repr(failure)
    seconds = time.monotonic() - begun
    if kind:
        print(json.dumps([kind, begun, seconds, instead]), flush=True)


def round_of(asked):
    """Asks everything once. A mapping that could not be taken back is asked for again, until there is none."""
    for kind, question in asked[:-1]:
        ask(kind, question)
        time.sleep(PAUSE)
    ask(*asked[-1])


def main():
    asked = questions(sys.argv[1])
    going = False
    while True:
        if select.select([sys.stdin], [], [], 0 if going else None)[0]:
            words = os.read(0, 100).decode().split()
            if not words:
                return
            going = words[-1] == "go"
            if not going:
                ask(*asked[-1])
                print("stopped", flush=True)
        if going:
            round_of(asked)


if __name__ == "__main__":
    main()
