"""A healthy router, and faults of its programs, its rights and its files; what the doctor may not look at."""
import json
import os
import time

import pytest

import labs
from clinic import Clinic


def test_a_healthy_router_has_no_findings(clinic):
    def seconds():
        began = time.monotonic()
        assert clinic.examine("--json") == {}
        return time.monotonic() - began
    assert any(seconds() < 2.5 * labs.SLOWNESS for _ in range(3))  # the machine may be busy
    done = clinic.lab.tkctl("doctor", "--no-search")
    assert done.stdout == "Nothing found that would keep mappings from working.\n"


def test_a_tool_that_is_missing_is_noted(clinic):
    done = clinic.lab.router.run("unshare", "-m", "sh", "-c", f"mount --bind /dev/null $(command -v nft); "
                                 f"exec {labs.BIN}/tkctl doctor --no-search --json", check=False)
    notes = [one for one in json.loads(done.stdout) if one["code"] == "not-seen"]
    assert [one["subject"] for one in notes] == ["the rules of nftables"]
    assert done.returncode == 0


def test_programs_that_do_not_answer(bare_lab):
    clinic = Clinic(bare_lab)
    assert clinic.examine()["router-silent"][0]["severity"] == "error"
    bare_lab.start_routerd()
    found = clinic.examine()
    assert "daemon-silent" in found and "router-silent" not in found
    text = bare_lab.tkctl("doctor", "--no-search", check=False).stdout
    assert text.startswith("error: upnpd does not answer: nobody at this destination.\n") and text.endswith("1 problem, 1 warning\n")


def test_a_broken_configuration_is_told_by_line(bare_lab):
    clinic = Clinic(bare_lab)
    config = bare_lab.root / "tesk" / "etc" / "router.toml"
    good = config.read_text()
    for text, what in ((f"{good}\n[nat]\ncolour = 1\n", ": colour: "), (f"{good}\n[[program]\n", "")):
        config.write_text(text)
        line = text.count("\n")
        found = clinic.examine()
        broken, = found["config-broken"]
        assert broken["what"].startswith(f"/tesk/etc/router.toml:{line}{what}"), broken
        assert broken["mend"][1] in found["router-silent"][0]["mend"]
        assert "not-seen" not in found
    check = broken["mend"][1]
    assert bare_lab.router.run("sh", "-c", check, check=False).returncode == 1
    config.write_text(good)
    assert bare_lab.router.run("sh", "-c", check).returncode == 0
    assert "config-broken" not in clinic.examine()
    bare_lab.start_routerd()
    config.write_text(text)
    found = clinic.examine()
    assert "router-silent" not in found and found["config-broken"][0]["mend"][-1] == "tkctl reload"
    config.write_text(good)
    clinic.mend(found["config-broken"][0])
    assert "config-broken" not in clinic.examine()


@pytest.mark.parametrize("user, is_program", [(64004, False), (64002, True)], ids=["member", "upnpd"])
def test_who_is_not_root_gets_no_false_alarm(clinic, user, is_program):
    """Without root, ss tells no holders, and nft tells nothing. The daemon's own user may not ask for its settings."""
    tool = clinic.lab.root / "tesk" / "tkctl"
    labs.shutil.copy(labs.BIN / "tkctl", tool)
    command = ("setpriv", "--reuid", str(user), "--regid", str(user), "--groups", "64000", "/tesk/tkctl", "doctor",
               "--no-search")
    found = json.loads(clinic.lab.router.run(*command, "--json").stdout)
    assert {one["code"] for one in found} == {"not-seen"}, found
    unseen = {one["subject"] for one in found}
    assert "the rules of nftables" in unseen and ("the settings and roles" in unseen) == is_program
    assert not any(line.startswith("apt ") for one in found for line in one["mend"])
    assert clinic.lab.router.run(*command).stdout.endswith("\nNothing found, but not everything could be looked at.\n")


def test_root_and_disconnection(lab):
    """The usual lab of the tests: its routerd runs as root, and its hosts may disconnect."""
    clinic = Clinic(lab)
    found = clinic.examine()
    assert [one["subject"] for one in found["runs-as-root"]] == ["routerd"]
    assert [one["subject"] for one in found["lan-may-disconnect"]] == ["wan0"]
    clinic.mend(found["lan-may-disconnect"][0])
    assert "lan-may-disconnect" not in clinic.examine()
    lab.tkctl("upnp", "set", "allow-disable-external=yes")


def test_guard_versions_stores_and_clock(bare_lab):
    clinic = Clinic(bare_lab)
    tesk = bare_lab.root / "tesk"
    config = tesk / "etc" / "lab.toml"
    config.write_text(config.read_text() + "\n[guard]\nlimit-connections = false\n")
    program = tesk / "bin" / "upnpd"
    version = bare_lab.tkctl("--version").stdout.strip().encode()
    whole = program.read_bytes()
    assert b"@(#)gateway " + version in whole
    program.write_bytes(whole.replace(b"@(#)gateway " + version, b"@(#)gateway " + b"9" * len(version)))
    bare_lab.start_routerd("--config", "/tesk/etc/lab.toml")
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    found = clinic.examine()
    assert [one["subject"] for one in found["guard-off"]] == ["upnpd"]
    assert [one["subject"] for one in found["version-differs"]] == ["upnpd"]
    assert [one["subject"] for one in found["switched-off"]] == ["upnpd"]
    assert not {"store-damaged", "store-closed", "clock-wrong"} & set(found)
    damaged = [tesk / "store" / name for name in ("upnp.damaged", "upnp.damaged.2")]
    for file in damaged:
        file.write_text("x")
        os.utime(file, (time.time() + 86400,) * 2)
    os.chown(tesk / "store", 0, 0)
    found = clinic.examine()
    assert [one["subject"] for one in found["store-damaged"]] == [f"/tesk/store/{file.name}" for file in damaged]
    assert [one["subject"] for one in found["store-closed"]] == ["/tesk/store"]
    assert "clock-wrong" in found
    for one in found["store-damaged"]:
        clinic.mend(one)
    clinic.mend(found["store-closed"][0])
    assert not {"store-damaged", "store-closed", "clock-wrong"} & set(clinic.examine())
