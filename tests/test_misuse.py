"""What the tools for developers say to words that they do not know: the reason, and status 2."""
import ast
import subprocess

import pytest

from labs import ROOT


@pytest.mark.parametrize("words, reason", [
    ("./check nosuch", "check: no suite nosuch; see ./check --help"),
    ("fuzz/run nosuch", "run: error: no target nosuch: one of busframe, callbackurl, "),
    ("fuzz/run --seconds 0 ssdp", "run: error: argument --seconds: invalid positive value: '0'"),
    ("fuzz/run --jobs 0", "run: error: argument --jobs: invalid positive value: '0'"),
    ("fuzz/coverage nosuch", "coverage: error: no target nosuch: one of busframe, callbackurl, "),
    ("faults/uncovered", "uncovered: error: the following arguments are required: PROGRAM"),
    ("faults/uncovered nosuch", "uncovered: error: nosuch is no program: "),
    ("faults/uncovered README.md", "uncovered: error: README.md is no program: "),
    ("tests/memcheck nosuch", "memcheck: error: "),
    ("tests/memcheck --jobs 0", "memcheck: error: "),
    ("tests/mutate nosuch", "mutate: error: no mutation is of such a file"),
    ("tests/soak/run --seconds 0", "run: error: at least one second, and from 1 to 100 clients"),
    ("tests/soak/run --clients 101", "run: error: at least one second, and from 1 to 100 clients"),
    ("tests/crash/run --rounds 0", "run: error: at least one round"),
])
def test_a_wrong_word_is_named_and_nothing_is_done(words, reason):
    done = subprocess.run(words.split(), cwd=ROOT, capture_output=True, text=True, timeout=10)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.splitlines()[-1].startswith(reason)


TOOLS = ["fuzz/run", "fuzz/coverage", "faults/uncovered", "tests/memcheck", "tests/mutate", "tests/soak/run",
         "tests/crash/run"]


def helped(tool):
    done = subprocess.run([f"./{tool}", "--help"], cwd=ROOT, capture_output=True, text=True, timeout=10)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


@pytest.mark.parametrize("tool", TOOLS)
def test_help_holds_what_the_tool_says_at_its_head(tool):
    assert ast.get_docstring(ast.parse((ROOT / tool).read_text())) in helped(tool)


def test_help_of_check_is_its_head():
    head = (ROOT / "check").read_text().partition("#\n")[0].splitlines()[1]
    told = helped("check").splitlines()
    assert told[0] == head.removeprefix("# ")
    assert told[-1].startswith("The last line is the sum of all suites")
