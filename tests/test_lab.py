"""The lab itself, which all other whole-program tests need."""
import os
import pathlib
import subprocess
import sys
import threading

import pytest

import labs


def come_and_go(name, outcomes):
    for command in ("up", "down") * 3:
        outcomes.append(subprocess.run([labs.LAB, command, name], capture_output=True, text=True, timeout=60))


def test_labs_come_and_go_side_by_side():
    outcomes = []
    names = [f"test-{os.getpid()}-side{number}" for number in range(4)]
    threads = [threading.Thread(target=come_and_go, args=(name, outcomes)) for name in names]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert [(outcome.returncode, outcome.stderr) for outcome in outcomes] == [(0, "")] * (4 * 6)
    assert not set(names) & set(listed())


def listed():
    return subprocess.run([labs.LAB, "list"], capture_output=True, text=True, check=True).stdout.split()


def test_what_is_left_of_a_half_built_lab_is_removed_by_runs_that_begin_together():
    gone = subprocess.Popen("true")
    gone.wait()  # so nobody has its number
    name = f"test-{gone.pid}-half"
    namespaces = [pathlib.Path(f"/run/netns/gw-{name}-{host}") for host in ("router", "lan1")]
    for namespace in namespaces:
        subprocess.run(["ip", "netns", "add", namespace.name], check=True, timeout=10)
    pathlib.Path(f"/run/gateway-lab-{name}/root").mkdir(parents=True)
    assert name in listed()
    runs = [subprocess.Popen([sys.executable, "-c", "import labs; labs.remove_leftovers()"], cwd=labs.ROOT / "tests",
                             stderr=subprocess.PIPE, text=True) for _ in range(2)]
    assert [(*run.communicate(timeout=60), run.returncode) for run in runs] == [(None, "", 0)] * 2
    assert name not in listed() and not any(namespace.exists() for namespace in namespaces)


def test_of_a_lab_that_does_not_come_up_nothing_is_left(tmp_path, monkeypatch):
    script = tmp_path / "lab"
    script.write_text(f'#!/bin/sh\n"{labs.LAB}" "$@" && [ "$1" != up ]\n')
    script.chmod(0o755)
    monkeypatch.setattr(labs, "LAB", script)
    with pytest.raises(subprocess.CalledProcessError):
        labs.Lab(tmp_path)
    assert not [name for name in listed() if name.startswith(f"test-{os.getpid()}-")]
