"""The lab itself, which all other whole-program tests need."""
import os
import subprocess
import threading

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
    listed = subprocess.run([labs.LAB, "list"], capture_output=True, text=True, check=True).stdout.split()
    assert not set(names) & set(listed)
