"""The messages on the bus, as `tkctl bus trace` shows them."""
import json
import queue
import subprocess
import threading

import labs

ROUTING = (0xFF0002, 0xFF0003, 0xFF0005, 0xFF0007)


class Trace:
    """A running `tkctl bus trace`, with its lines as they come."""

    def __init__(self, lab, *options):
        self.lab = lab
        self.process = subprocess.Popen(lab.router.command(labs.BIN / "tkctl", "bus", "trace", *options),
                                        stdout=subprocess.PIPE, text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

        def listens():  # calls that bear our mark are made until the first of them is seen
            lab.tkctl("bus", "call", "65", "0xFE000D", "7:string=mark")
            return not self.lines.empty()
        labs.eventually(listens, "the trace shows nothing")

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line)

    def next(self, wanted):
        """The next traced message for which wanted(message) holds."""
        while True:
            message = json.loads(self.lines.get(timeout=labs.PATIENCE))
            if wanted(message):
                return message

    def until_now(self, wanted=lambda message: True):
        """All messages traced before a call that is made now, of those for which wanted(message) holds."""
        self.lab.tkctl("bus", "call", "65", "0xFE000D", "7:string=end")
        found = []
        while True:
            message = json.loads(self.lines.get(timeout=labs.PATIENCE))
            if ("0x7", "string", "end") in fields(message):
                return [message for message in found if wanted(message)]
            found.append(message)

    def close(self):
        self.process.terminate()
        self.process.wait(10)


def fields(message):
    """A message's own fields, without those of the platform."""
    own = []
    for field in message["fields"]:
        if int(field["id"], 16) in ROUTING:
            break
        own.append((field["id"], field["type"], field["value"]))
    return own


def routing(message):
    """The fields that the platform appends to a message's own."""
    return [(field["id"], field["type"]) for field in message["fields"][len(fields(message)):]]


def by_daemon(message):
    """True for a request of the daemon."""
    return message["kind"] == "request" and message["from"] == [80, 0]


def asked(message):
    """A request as path, command and fields; a message[] as lists of ids, types and values."""
    return message["to"], message["command"], fields(message)
