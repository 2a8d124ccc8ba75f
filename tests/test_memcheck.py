"""The judge of tests/memcheck bites: it finds what real programs do wrong under memcheck, and nothing else."""
import importlib.machinery
import importlib.util
import os
import pathlib
import shutil
import subprocess

import pytest

TESTS = pathlib.Path(__file__).resolve().parent
pytestmark = pytest.mark.skipif(not shutil.which("valgrind"), reason="valgrind is not installed")

SOURCE = """
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>
static void* kept;
int main(int, char** arguments) {
    kept = std::malloc(9);
    const char* deed = arguments[1];
    char* volatile bytes = static_cast<char*>(std::malloc(77));
    if (!std::strcmp(deed, "uninitialised")) {
        if (bytes[3] == 7) (void)!write(2, "7", 1);
    }
    if (!std::strcmp(deed, "in-a-child")) {
        if (fork() == 0) { bytes[78] = 1; _exit(0); }
        wait(nullptr);
    }
    if (void* library = std::strncmp(deed, "lib", 3) ? nullptr : dlopen(arguments[1], RTLD_NOW)) {
        reinterpret_cast<void (*)()>(dlsym(library, "lose"))();
    }
    if (!std::strcmp(deed, "then-killed")) { bytes[79] = 1; std::abort(); }
    if (!std::strcmp(deed, "ended")) { std::free(bytes); (void)!alarm(1); pause(); }
    if (std::strcmp(deed, "leak")) std::free(bytes);
    bytes = nullptr;
}
"""


LIBRARY = """
#include <cstdlib>
extern "C" void lose() {
    char* volatile bytes = static_cast<char*>(std::malloc(78));
    bytes = nullptr;
    (void)bytes;
}
"""
LIBRARIES = ("libnss_made.so.2", "libmade.so.2")


@pytest.fixture(scope="module")
def memcheck():
    loader = importlib.machinery.SourceFileLoader("memcheck", str(TESTS / "memcheck"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("memcheck", loader))
    loader.exec_module(module)
    return module


@pytest.fixture(scope="module")
def wrapped(memcheck, tmp_path_factory):
    """A folder in which each program is the one above, under memcheck."""
    folder = tmp_path_factory.mktemp("memcheck")
    (folder / "source.cpp").write_text(SOURCE)
    made = folder / "bin"
    made.mkdir()
    subprocess.run(["g++", "-O0", "-w", "-o", made / "upnpd", folder / "source.cpp"], check=True, timeout=60)
    (folder / "library.cpp").write_text(LIBRARY)
    for name in LIBRARIES:
        subprocess.run(["g++", "-O0", "-shared", "-fPIC", "-o", folder / name, folder / "library.cpp"], check=True, timeout=60)
    for name in memcheck.PROGRAMS[1:]:
        shutil.copy(made / "upnpd", made / name)
    wrapper = folder / "wrapper"
    wrapper.mkdir()
    memcheck.BIN = made
    memcheck.wrap(wrapper)
    return wrapper


def judged(memcheck, wrapped, deed):
    """The status of the program under memcheck, and the judgements of its processes."""
    for old in (wrapped / "logs").iterdir():
        old.unlink()
    libraries = {"LD_LIBRARY_PATH": str(wrapped.parent)} if deed in LIBRARIES else {}
    status = subprocess.run([wrapped / "upnpd", deed], capture_output=True, timeout=60,
                            env={**os.environ, **libraries}).returncode
    return status, [memcheck.judge(log.read_text()) for log in (wrapped / "logs").iterdir()]


@pytest.mark.parametrize("deed, told", [
    ("uninitialised", "Conditional jump or move depends on uninitialised"),
    ("in-a-child", "Invalid write of size 1"),
    ("leak", "77 bytes in 1 blocks are definitely lost"), ("libmade.so.2", "78 bytes in 1 blocks are definitely lost"),
    ("then-killed", "Invalid write of size 1")])
def test_what_a_program_does_wrong_is_found(memcheck, wrapped, deed, told):
    status, judgements = judged(memcheck, wrapped, deed)
    assert any(told in finding for one in judgements for finding in one.findings), judgements
    assert all(one.program == "upnpd" for one in judgements)
    assert memcheck.report(judgements) == sum(bool(one.findings) for one in judgements) + len(memcheck.PROGRAMS) - 1
    assert status == {"in-a-child": 0, "then-killed": -6}.get(deed, memcheck.STATUS_OF_AN_ERROR)


@pytest.mark.parametrize("deed", ["nothing", "ended"])
def test_a_good_program_has_no_findings_whether_it_ends_or_is_ended(memcheck, wrapped, deed):
    _, judgements = judged(memcheck, wrapped, deed)
    assert [one.findings for one in judgements] == [[]]


def test_what_a_library_that_looks_for_users_loses_is_no_finding(memcheck, wrapped):
    status, judgements = judged(memcheck, wrapped, "libnss_made.so.2")
    assert (status, [one.findings for one in judgements]) == (0, [[]])


def test_a_program_of_which_no_process_came_to_its_end_is_a_failure(memcheck):
    good = [memcheck.Judgement(name, True, []) for name in memcheck.PROGRAMS]
    assert memcheck.report(good) == 0
    assert memcheck.report(good[1:]) == 1
    assert memcheck.report([*good[1:], memcheck.Judgement("upnpd", False, [])]) == 1
    assert memcheck.report([*good, memcheck.Judgement("upnpd", True, ["Invalid read"])]) == 1
