"""The layering check itself: it must see each kind of offence."""
import pathlib
import subprocess

import pytest

CHECK = pathlib.Path(__file__).resolve().parent / "layering"


@pytest.fixture
def sources(tmp_path):
    for name in ("tk/fd.h", "tk/testing/fakebus.h", "net/sockets.h", "http/httpmessage.h", "xml/xmlnode.h",
                 "core/gateway.h"):
        path = tmp_path / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("#pragma once\n")
    return tmp_path


def check(sources, name, text):
    path = sources / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    done = subprocess.run([CHECK, sources], capture_output=True, text=True)
    return done.returncode, done.stdout.replace(f"{sources}/", "").splitlines()


@pytest.mark.parametrize("name, include", [
    ("http/httpconn.cpp", '"net/sockets.h"'),
    ("core/main.cpp", '"http/httpmessage.h"'),
    ("router/routerd.cpp", '"tk/fd.h"'),
    ("net/sockets_test.cpp", '"tk/testing/fakebus.h"'),
    ("net/testing/fixture.h", '"tk/testing/fakebus.h"'),
    ("net/sockets.cpp", "<sys/socket.h>"),
])
def test_accepts_an_include_along_the_order(sources, name, include):
    assert check(sources, name, f"#include {include}\n") == (0, ["7 passed, 0 failed"])


@pytest.mark.parametrize("name, include, reason", [
    ("tk/bus.cpp", '"net/sockets.h"', 'tk may not use "net/sockets.h"'),
    ("net/sockets_test.cpp", '"http/httpmessage.h"', 'net may not use "http/httpmessage.h"'),
    ("http/httpconn.cpp", '"xml/xmlnode.h"', 'http may not use "xml/xmlnode.h"'),
    ("router/nat.cpp", '"http/httpmessage.h"', 'router may not use "http/httpmessage.h"'),
    ("tracking/device.cpp", '"core/gateway.h"', 'tracking may not use "core/gateway.h"'),
    ("net/sockets.cpp", '"tk/testing/fakebus.h"', '"tk/testing/fakebus.h" is for tests alone'),
    ("net/sockets.cpp", '"sockets.h"', '"sockets.h" is no file of ours by its full path'),
    ("net/sockets.cpp", "<tk/fd.h>", "<tk/fd.h> is ours and wants quotes"),
])
def test_refuses_an_include_against_the_order(sources, name, include, reason):
    assert check(sources, name, f"#pragma once\n#include {include}\n") == (
        1, [f"{name}:2: {reason}", "6 passed, 1 failed"])


def test_refuses_a_folder_without_a_place(sources):
    assert check(sources, "utils/misc.h", "#pragma once\n") == (
        1, ["utils/misc.h:0: utils has no place in the order of the folders", "6 passed, 1 failed"])
