"""A router as it is installed: no program is root, and the guard holds the daemon."""
import contextlib
import pathlib
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "router"))
import labs  # noqa: E402
from routerusers import DAEMON, OTHER, ROUTER, configure  # noqa: E402
from services import PROGRAMS, as_user  # noqa: E402

CONFIGURATION = f"""
[router]
user = "{ROUTER}"

[lan]
interfaces = ["lan0"]

[[program]]
number = 14
command = ["/tesk/bin/resolverd", "--idle", "3600"]
user = "{OTHER}"
"""


@contextlib.contextmanager
def serving(directory, prepare=lambda lab: None, more=""):
    """A lab whose gateway serves the LAN. It is prepared before the programs start; more ends its configuration."""
    lab = labs.Lab(directory)
    try:
        prepare(lab)
        lab.start_routerd(*configure(lab, CONFIGURATION + more))
        lab.upnpd = labs.Program(lab, "upnpd", wrapper=as_user(DAEMON), folder=PROGRAMS)
        labs.eventually(lab.settings_answer, "upnpd does not serve its settings")
        lab.tkctl("upnp", "interface", "add", "lan0", "internal")
        lab.tkctl("upnp", "interface", "add", "wan0", "external")
        lab.enable()
        lab.tkctl("bus", "call", "14", "3", "3:string=localhost")  # which starts it
        yield lab
    finally:
        lab.down()
