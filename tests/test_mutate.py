"""The table of mutations fits the sources: a row that does not would be no test of the suites."""
import importlib.machinery
import importlib.util
import pathlib

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent


def mutations():
    loader = importlib.machinery.SourceFileLoader("mutate", str(ROOT / "tests" / "mutate"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
    loader.exec_module(module)
    return [row for rows in module.MUTATIONS.values() for row in rows]


@pytest.mark.parametrize("path, old, new", mutations())
def test_what_a_mutation_replaces_stands_once_in_its_source(path, old, new):
    assert (ROOT / "src" / path).read_text().count(old) == 1
    assert new != old
