"""What the sanitizers say about the programs, when those are of the sanitized build: a test that makes them speak fails."""
import os
import pathlib
import tempfile

import pytest

import labs

ANYBODY = 0o1777  # each program writes its report as the user that it runs as


def is_sanitized(program):
    return program.exists() and b"__asan_init" in program.read_bytes()


def unless_sanitized(reason):
    """Marks tests of what a sanitized program cannot have."""
    return pytest.mark.skipif(SANITIZED, reason=f"the sanitized build {reason}")


def within(value, limit):
    """True when a time or an amount of memory is below its limit, or nobody can say so: the sanitized build needs more of
    both."""
    return SANITIZED or value < limit


def listen():
    """From now on the programs that this process starts, and those that they start, write their reports to a folder."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="reports-"))
    folder.chmod(ANYBODY)
    given = os.environ.get("ASAN_OPTIONS")
    os.environ["ASAN_OPTIONS"] = f"{given + ':' if given else ''}log_path={folder}/report"
    os.environ["UBSAN_OPTIONS"] = "print_stacktrace=1"
    return folder


def reports():
    """All that has been reported since the last time; none of it is told again."""
    told = []
    for path in sorted(FOLDER.iterdir()) if FOLDER else []:
        told.append(path.read_text(errors="replace"))
        path.unlink()
    return told


def check():
    told = reports()
    assert not told, "\n".join(told)


def close():
    """Returns what has been reported after the last test."""
    told = reports()
    if FOLDER:
        FOLDER.rmdir()
    return told


SANITIZED = is_sanitized(labs.BIN / "upnpd")
FOLDER = listen() if SANITIZED else None
