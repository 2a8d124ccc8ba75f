"""tkctl doctor in a lab: each fault is made, named, and mended by the lines that are printed."""
import contextlib
import json
import os

import labs
from labs import ROUTER_WAN


class Clinic:
    """A lab with the doctor at hand."""

    def __init__(self, lab):
        self.lab = lab

    def examine(self, *options):
        """The findings by their codes, as lists."""
        done = self.lab.tkctl("doctor", "--json", *(options or ("--no-search",)), check=False)
        assert done.stderr == ""
        findings = json.loads(done.stdout)
        assert done.returncode == any(one["severity"] == "error" for one in findings)
        codes = {}
        for one in findings:
            assert set(one) == {"code", "severity", "subject", "what", "why", "mend"}
            codes.setdefault(one["code"], []).append(one)
        return codes

    def mend(self, finding, tools="/nowhere", wrapper=()):
        """Runs the lines as they stand; `tools` is a folder of programs that come first."""
        script = "\n".join(finding["mend"])
        path = f"PATH={tools}:{labs.BIN}:{os.environ['PATH']}"
        self.lab.router.run(*wrapper, "env", path, "sh", "-ec", script)

    def run(self, *lines):
        for line in lines:
            self.lab.router.run("sh", "-ec", line)


def arrives(host, address=ROUTER_WAN, source=None, seconds=0.3):
    """True when the mapped port accepts a connection."""
    with host.socket(seconds=seconds) as made:
        if source:
            made.bind((source, 0))
        try:
            made.connect((address, 80))
        except OSError:
            return False
        return True


@contextlib.contextmanager
def role(lab, name, kind, *options):
    identifier = lab.tkctl("upnp", "interface", "add", name, kind, *options).stdout.strip()
    try:
        yield identifier
    finally:
        lab.tkctl("upnp", "interface", "remove", identifier)
