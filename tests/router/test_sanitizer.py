"""The sanitizers are heard: what they report about any of the programs fails the test that is running."""
import os
import signal

import pytest

import labs
import sanitizer
from routerusers import processes

pytestmark = pytest.mark.skipif(not sanitizer.SANITIZED, reason="only the sanitized build reports anything")


@pytest.mark.parametrize("name", ["routerd", "upnpd"])
def test_a_program_that_crashes_is_reported_whoever_it_runs_as(bare_lab, name):
    bare_lab.serve()
    program = getattr(bare_lab, name)
    os.kill(program.process.pid, signal.SIGSEGV)
    program.wait()
    with pytest.raises(AssertionError, match="AddressSanitizer: SEGV"):
        sanitizer.check()
    assert sanitizer.reports() == []


def test_a_program_that_another_one_started_is_reported(bare_lab):
    (bare_lab.root / "tesk" / "etc" / "router.toml").write_text((bare_lab.root / "tesk" / "etc" / "lab.toml").read_text())
    bare_lab.start_routerd()
    bare_lab.tkctl("upnp", "get")
    daemon, = processes(bare_lab, "upnpd")
    os.kill(daemon, signal.SIGSEGV)
    told = []
    labs.eventually(lambda: told.extend(sanitizer.reports()) or told, "the report is written")
    assert "AddressSanitizer: SEGV" in told[0]
