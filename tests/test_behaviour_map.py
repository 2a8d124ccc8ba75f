"""The page of behaviours names tests: each of them must exist, and each whole-program test of behaviour must be named."""
import collections
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAP = ROOT / "docs" / "behaviour.md"
NOT_OBSERVABLE = "## Not observable"
BEHAVIOUR = re.compile(r"- (?P<text>[^`]+)")
HELD_BY = re.compile(r"  - `(?P<test>[^`]+)`")


def named():
    """The tests that the page names, behaviour by behaviour, up to the list of what cannot be observed."""
    rows = []
    for line in MAP.read_text().partition(NOT_OBSERVABLE)[0].splitlines():
        if line.startswith("- "):
            behaviour = BEHAVIOUR.fullmatch(line)
            assert behaviour, line
            rows.append((behaviour["text"], []))
        elif line.startswith("  "):
            test = HELD_BY.fullmatch(line)
            assert test and rows, line
            rows[-1][1].append(test["test"])
    return rows


def unit_tests():
    found = set()
    for path in [*(ROOT / "src").rglob("*_test.cpp"), *(ROOT / "faults").glob("*_test.cpp")]:
        for suite, name in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", path.read_text(), re.M):
            found.add(f"{path.parent.name}/{path.stem}: {suite}.{name}")
    return found


def functions(folder):
    found = set()
    for path in folder.glob("test_*.py"):
        found |= {f"{path.stem}::{name}" for name in re.findall(r"^def (test_\w+)\(", path.read_text(), re.M)}
    return found


def program_tests():
    return functions(ROOT / "tests") | functions(ROOT / "tests" / "conformance")


def test_every_test_that_the_table_names_exists():
    rows = named()
    assert rows
    missing = {test for _, tests in rows for test in tests} - unit_tests() - program_tests()
    assert not missing


def test_every_behaviour_is_held_by_a_test():
    assert all(tests for _, tests in named())


def test_no_behaviour_stands_twice():
    twice = [text for text, count in collections.Counter(text for text, _ in named()).items() if count > 1]
    assert not twice


def test_every_conformance_test_is_named():
    written = {test for _, tests in named() for test in tests}
    assert not functions(ROOT / "tests" / "conformance") - written
