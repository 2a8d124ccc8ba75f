"""A program that gets no more memory ends, and what it leaves behind is whole."""
import contextlib
import signal
import sys

import pytest

import bus
import labs
import sanitizer
from control_point import call, mapping, result
from labs import LAN1, ROUTER_WAN

sys.path.append(str(labs.ROOT / "tests" / "router"))
from routerusers import DAEMON, DAEMON_AS_ITSELF, configure, connection_path, processes, run_as  # noqa: E402

pytestmark = sanitizer.unless_sanitized("maps its shadow in terabytes, and ends in its own way without memory")

WHY = "terminate called after throwing an instance of 'std::bad_alloc'"
MOST_RULES = 2000  # many times what fits into the memory that a program holds in reserve


def give_no_more_memory(run, pid):
    """From now on the process has only what it holds already. run() runs a command as its user."""
    run("prlimit", "--pid", pid, "--data=1:", check=True)


def arrives(lab, port):
    """True when a connection from outside to the port comes to the first host's 8080."""
    with lab.lan1.listen(8080) as server, lab.wan.connect(ROUTER_WAN, port):
        accepted, _ = server.accept()
        accepted.close()
    return True


def map_until_it_ends(lab, path):
    """Maps one port after the other, each with a longer text than the one before; returns how many were mapped. The parser of
    XML has memory of its own kind: where that is short, the request is refused."""
    mapped = 0
    for number in range(MOST_RULES):
        wanted = mapping(external=10000 + number, description="x" * (50 * number))
        try:
            answer = call(lab.lan1, path, "AddPortMapping", wanted)
        except OSError:
            return mapped
        if not answer:
            return mapped
        mapped += answer == result("AddPortMapping")
        assert answer == result("AddPortMapping") or answer.startswith("HTTP/1.1 400 Bad Request\r\n")
    pytest.fail("there was memory enough")


def store_until_it_ends(root, lab):
    """Makes one lasting rule after the other, the first while there is memory; returns what was answered."""
    made = []
    with contextlib.suppress(OSError, EOFError):
        for port in range(10000, 10000 + MOST_RULES):
            made.append((root.add_rule(port, dynamic=False), port))
            if len(made) == 1:
                give_no_more_memory(lab.router.run, lab.routerd.process.pid)
        pytest.fail("there was memory enough")
    return made


def test_a_daemon_without_memory_is_started_again_and_maps_again(bare_lab):
    bare_lab.start_routerd(*configure(bare_lab, labs.SIDES + DAEMON_AS_ITSELF))
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.tkctl("upnp", "interface", "add", "wan0", "external")
    bare_lab.tkctl("upnp", "set", "enabled=yes")
    path = connection_path(bare_lab)
    assert call(bare_lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    assert arrives(bare_lab, 80)
    daemon, = processes(bare_lab, "upnpd")
    mark = bare_lab.routerd.mark()

    give_no_more_memory(lambda *words, **kind: run_as(bare_lab, DAEMON, *words, **kind), daemon)
    assert map_until_it_ends(bare_lab, path) > 0  # so it was in the middle of its work

    bare_lab.routerd.wait_for(f"program 80 ended by signal {int(signal.SIGABRT)}", mark)
    assert bare_lab.rules() == [] and f"{LAN1} . 8080" not in bare_lab.table()
    bare_lab.routerd.wait_for("program 80 started: ", mark)
    assert WHY in bare_lab.routerd.errors.read_text()
    connection_path(bare_lab)
    assert processes(bare_lab, "upnpd") != [daemon]
    assert call(bare_lab.lan1, path, "AddPortMapping", mapping(external=81)) == result("AddPortMapping")
    assert len(bare_lab.rules()) == 1 and arrives(bare_lab, 81)


def test_a_router_without_memory_leaves_no_rule_and_its_stores_whole(bare_lab):
    bare_lab.start_routerd()
    with bus.Client(bare_lab) as root:
        made = store_until_it_ends(root, bare_lab)
    assert bare_lab.routerd.wait() == -signal.SIGABRT
    assert WHY in bare_lab.routerd.errors.read_text()
    assert bare_lab.table() == ""

    bare_lab.start_routerd()
    rules = [(rule["id"], rule["dstPort"]) for rule in bare_lab.rules()]
    assert rules[:len(made)] == made and len(made) <= len(rules) <= len(made) + 1
    assert arrives(bare_lab, 10000)
    with bus.Client(bare_lab) as root:
        root.add_rule(80)
        assert arrives(bare_lab, 80)
