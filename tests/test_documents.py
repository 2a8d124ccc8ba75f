"""What the documents say is done as it stands there: each command runs, and prints what is shown."""
import os
import re

import pytest

import documents
import labs

DOCUMENTS = [labs.ROOT / "README.md", labs.ROOT / "CONTRIBUTING.md", *sorted((labs.ROOT / "docs").glob("*.md"))]
PATH = f"{labs.BIN}:{os.environ['PATH']}"


def blocks_of(document):
    return documents.blocks_of(document.read_text())


@pytest.fixture
def packaged_lab(bare_lab):
    """A router as the lab configures it: routerd runs, and starts the others when they are needed."""
    etc = bare_lab.root / "tesk" / "etc"
    (etc / "lab.toml").rename(etc / "router.toml")
    bare_lab.start_routerd()
    return bare_lab


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_every_block_of_commands_says_where_it_runs_or_why_it_does_not(document):
    unmarked = [block.line for block in blocks_of(document)
                if block.has_commands() and not block.host and not block.reason]
    assert unmarked == []


def run(lab, host, command):
    done = getattr(lab, host).run("sh", "-c", command.text, check=False, cwd=labs.ROOT,
                                  env={**os.environ, "PATH": PATH, "COLUMNS": "200"})
    printed = (done.stdout + done.stderr).rstrip("\n").splitlines()
    fails = bool(command.output) and re.match(r"tkctl: ", command.output[-1]) is not None
    assert (done.returncode != 0) == fails, f"{command.text}: status {done.returncode}\n{done.stdout}{done.stderr}"
    if command.output is not None:
        expected = "\n".join(command.output).rstrip("\n").splitlines()
        assert documents.matches(expected, printed), f"{command.text} prints\n" + "\n".join(printed)


@pytest.mark.parametrize("document", [path for path in DOCUMENTS if any(block.host for block in blocks_of(path))],
                         ids=lambda path: path.name)
def test_what_a_document_shows_happens(document, packaged_lab):
    for block in blocks_of(document):
        if block.host:
            for command in block.commands():
                run(packaged_lab, block.host, command)


def test_a_block_is_read_with_its_commands_and_what_they_print():
    text = "Text\n\n<!-- on router -->\n\n    $ one\n    prints\n    $ two\n\n<!-- not run: it lasts -->\n\n    three  # why\n"
    first, second = documents.blocks_of(text)
    assert (first.host, first.line) == ("router", 5)
    assert [(command.text, command.output) for command in first.commands()] == [("one", ["prints"]), ("two", [])]
    assert (second.reason, [command.text for command in second.commands()]) == ("it lasts", ["three"])


@pytest.mark.parametrize("line, is_command", [
    ("$ true", True),
    ("kill 7", True),
    ("setsid routerd &", True),
    ("usermod -aG tk USER", True),
    ("apt-get install x", True),
    ("iptables -S", True),
    ("firewall-cmd --state", True),
    ("curl http://192.0.2.1/", True),
    ("lan1$ true", False),
    ("killed", False),
    ("[router]", False),
])
def test_a_block_of_commands_is_known_by_a_line(line, is_command):
    block, = documents.blocks_of(f"Text\n\n    prints\n    {line}\n")
    assert block.has_commands() is is_command


@pytest.mark.parametrize("expected, printed, same", [
    (["a", "b"], ["a", "b"], True),
    (["a"], ["a", "b"], False),
    (["a", "...", "z"], ["a", "b", "c", "z"], True),
    (["2026-01-02T03:04:05Z x"], ["2030-11-12T13:14:15Z x"], True),
    (['[{"id":1,', '  "b":2}]'], ['[{"id":1,"b":2}]'], True),
    (['[{"id":1}]'], ['[{"id":2}]'], False),
])
def test_output_is_compared_line_by_line(expected, printed, same):
    assert documents.matches(expected, printed) is same
