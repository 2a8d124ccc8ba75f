"""What systemd says about the units, and which of their lines the tests know."""
import re
import shutil
import subprocess

import pytest

from labs import PATIENCE
from unitfile import UNITS, Unit

SERVICES = {"routerd": 2.5, "upnpd": 1.5, "resolverd": 1.5}  # and the most that each may be exposed, of 10
FILES = sorted(path.name for path in UNITS.iterdir())


def test_every_program_that_the_router_starts_has_a_service_and_a_path():
    assert FILES == ["resolverd.path", "resolverd.service", "routerd.service", "upnpd.path", "upnpd.service"]


@pytest.mark.parametrize("service", SERVICES)
def test_a_service_is_exposed_to_little(service):
    done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--no-pager", UNITS / f"{service}.service"],
                          capture_output=True, text=True, timeout=PATIENCE)
    exposure = float(re.search(r"Overall exposure level for \S+: (\d+\.\d+)", done.stdout).group(1))
    print(f"{service}: {exposure}")
    assert exposure <= SERVICES[service], done.stdout


@pytest.mark.parametrize("name", FILES)
def test_the_tests_know_every_line_of_a_unit(name):
    assert Unit(UNITS / name).unknown() == set()


# What systemd alone heeds, and no program here would miss.
BOUNDED = {"Restart": "on-failure", "RestartSec": "1", "LogRateLimitIntervalSec": "30s", "LogRateLimitBurst": "1000",
           "DevicePolicy": "closed", "RemoveIPC": "yes"}
OF_THE_ROUTER = {"Requires": "routerd.service", "PartOf": "routerd.service", "After": "routerd.service",
                 "StartLimitIntervalSec": "0", "TimeoutStopSec": "10"}
ITS_TRIGGER = {"PartOf": "routerd.service", "Before": "routerd.service", "WantedBy": "routerd.service"}
HEEDED_BY_SYSTEMD = {
    "routerd.service": BOUNDED | {
        "After": "network-pre.target nss-user-lookup.target", "NotifyAccess": "main", "TimeoutStopSec": "15",
        "RuntimeDirectoryPreserve": "restart", "IPAddressDeny": "any", "MemoryMax": "256M", "TasksMax": "64",
        "WantedBy": "multi-user.target", "Also": "upnpd.path resolverd.path"},
    "upnpd.service": BOUNDED | OF_THE_ROUTER | {"MemoryMax": "256M", "TasksMax": "4"},
    "resolverd.service": BOUNDED | OF_THE_ROUTER | {"MemoryMax": "128M", "TasksMax": "4"},
    "upnpd.path": ITS_TRIGGER,
    "resolverd.path": ITS_TRIGGER,
}


@pytest.mark.parametrize("name", FILES)
def test_a_unit_says_when_it_starts_and_ends_and_how_much_it_may_take(name):
    assert Unit(UNITS / name).untried() == HEEDED_BY_SYSTEMD[name]


def test_the_router_tells_when_it_is_ready_and_is_watched():
    unit = Unit(UNITS / "routerd.service")
    assert (unit.get("Type"), unit.get("WatchdogSec")) == ("notify", "30")


def test_who_enables_the_router_enables_what_starts_the_others(tmp_path):
    shutil.copytree(UNITS, tmp_path / "usr" / "lib" / "systemd" / "system")
    subprocess.run(["systemctl", f"--root={tmp_path}", "enable", "routerd.service"], check=True, timeout=PATIENCE)
    links = (tmp_path / "etc" / "systemd" / "system").rglob("*.*.wants/*")
    assert sorted(f"{link.parent.name}/{link.name}" for link in links) == [
        "multi-user.target.wants/routerd.service", "routerd.service.wants/resolverd.path",
        "routerd.service.wants/upnpd.path"]


def test_systemd_finds_no_fault_with_the_units(installed):
    done = installed.lab.router.run("systemd-analyze", "verify", "--man=no",
                                    *(f"/usr/lib/systemd/system/{name}" for name in FILES), check=False)
    faults = [line for line in done.stderr.splitlines() if re.search(r"routerd|upnpd|resolverd|gateway", line)]
    assert (faults, done.returncode) == ([], 0), done.stderr
