"""Which users the programs become when root starts them."""
import os
import pathlib

import pytest

import bus
import labs
from labs import ROUTER_LAN, eventually

GROUP, DAEMON, RESOLVER = bus.GROUP, 64002, 64003
NONE = ["0" * 16]

# Runs a program on a router that knows none of the users.
WITHOUT_USERS = ("unshare", "--mount", "sh", "-euc",
                 r'grep -vE "^(upnpd|resolverd):" /etc/passwd >/run/passwd; mount --bind /run/passwd /etc/passwd; exec "$@"',
                 "sh")


def status(name, lab):
    """What the kernel says about the router's only process of that name."""
    def found():
        for pid in lab.router.run("sh", "-c", f"grep -lx {name} /proc/[0-9]*/comm || true").stdout.split():
            process = pathlib.Path(pid).parent
            try:
                if os.path.samefile(process / "ns/net", f"/run/netns/gw-{lab.name}-router"):
                    return labs.status(process.name)
            except FileNotFoundError:  # one of another router has just ended
                continue
        return None
    return eventually(found, f"{name} runs")


def is_user(told, user):
    assert told["Uid"] == [str(user)] * 4 and told["Gid"] == [str(user)] * 4
    assert set(told["Groups"]) == {str(user), str(GROUP)}
    has_no_rights(told)


def has_no_rights(told):
    assert [told[key] for key in ("CapInh", "CapPrm", "CapEff", "CapAmb")] == [NONE] * 4 and told["NoNewPrivs"] == ["1"]


def test_the_daemon_that_root_starts_becomes_its_user(fresh_lab):
    is_user(status("upnpd", fresh_lab), DAEMON)
    store = fresh_lab.root / "tesk" / "store"
    assert {entry.name: entry.stat().st_uid for entry in store.iterdir()} == {"upnp": DAEMON, "upnpm": DAEMON}


def test_a_daemon_finds_what_one_of_root_has_stored(bare_lab):
    store = bare_lab.root / "tesk" / "store"
    os.chown(store, 0, 0)
    bare_lab.start_routerd()
    bare_lab.upnpd = labs.Program(bare_lab, "upnpd", wrapper=WITHOUT_USERS)
    eventually(bare_lab.settings_answer, "the daemon of root serves its settings")
    told = status("upnpd", bare_lab)
    assert told["Uid"] == ["0"] * 4
    has_no_rights(told)
    bare_lab.tkctl("upnp", "interface", "add", "lan0", "internal")
    bare_lab.enable()
    assert {entry.stat().st_uid for entry in store.iterdir()} == {0}
    assert bare_lab.upnpd.stop() == 0

    bare_lab.start_upnpd()
    bare_lab.upnpd.wait_for(f"start int: lan0 {ROUTER_LAN}")
    is_user(status("upnpd", bare_lab), DAEMON)
    assert {entry.stat().st_uid for entry in [store, *store.iterdir()]} == {DAEMON}
    bare_lab.tkctl("upnp", "set", "show-dummy-rule=no")  # and can be changed


def test_the_folder_is_made_where_there_is_none(bare_lab):
    (bare_lab.root / "tesk" / "store").rmdir()
    bare_lab.serve()
    assert (bare_lab.root / "tesk" / "store" / "upnp").stat().st_uid == DAEMON


def test_a_store_that_cannot_be_given_away_is_told(bare_lab):
    bare_lab.router.run("mount", "-t", "tmpfs", "-o", "ro", "store", "/tesk/store")
    daemon = labs.Program(bare_lab, "upnpd")
    assert daemon.wait() == 1
    assert daemon.lines == ["cannot give up root's rights: folder /tesk/store: Read-only file system"]


@pytest.mark.parametrize("wrapper, user", [((), RESOLVER), (WITHOUT_USERS, 0)], ids=["itself", "without-users"])
def test_the_resolver_that_root_starts_becomes_its_user(bare_lab, wrapper, user):
    bare_lab.start_routerd()
    resolver = labs.Program(bare_lab, "resolverd", wrapper=wrapper)
    told = eventually(lambda: bare_lab.tkctl("bus", "call", "14", "3", "3:string=localhost", check=False).stdout)
    assert "127.0.0.1" in told
    if user:
        is_user(status("resolverd", bare_lab), user)
    else:
        has_no_rights(status("resolverd", bare_lab))
    assert resolver.stop() == 0
