"""The man pages: they can be read, and they name every command and every key there is."""
import re
import subprocess

import pytest

import labs

PAGES = sorted((labs.ROOT / "packaging" / "man").glob("*.[1-8]"))


def text_of(page):
    """A page as a reader sees it, without the hyphenation and the filling of its lines."""
    done = subprocess.run(["groff", "-man", "-Tascii", "-P-cbou", "-rLL=1000n", page], capture_output=True, text=True,
                          check=True)
    return re.sub(r"\s+", " ", done.stdout)


def test_there_is_a_page_for_each_program_and_for_the_configuration():
    assert [page.name for page in PAGES] == ["resolverd.8", "router.toml.5", "routerd.8", "tkctl.8", "upnpd.8"]


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_a_page_is_well_formed(page):
    done = subprocess.run(["groff", "-man", "-Tascii", "-ww", "-z", page], capture_output=True, text=True, check=True)
    assert done.stderr == ""


def test_the_page_of_tkctl_names_every_command():
    told = subprocess.run([labs.BIN / "tkctl", "--help"], capture_output=True, text=True, check=True).stdout
    commands = re.findall(r"^  ([a-z]+(?: [a-z]+)*)  +", told.split("Commands:")[1], re.MULTILINE)
    assert len(commands) > 15
    page = text_of(labs.ROOT / "packaging" / "man" / "tkctl.8")
    assert [command for command in commands if f" {command} " not in page] == []


def test_the_page_of_tkctl_names_every_option():
    told = subprocess.run([labs.BIN / "tkctl", "--help"], capture_output=True, text=True, check=True).stdout
    commands = re.findall(r"^  ([a-z]+(?: [a-z]+)*)  +", told.split("Commands:")[1], re.MULTILINE)
    page = text_of(labs.ROOT / "packaging" / "man" / "tkctl.8")
    for command in commands:
        told = subprocess.run([labs.BIN / "tkctl", *command.split(), "--help"], capture_output=True, text=True).stdout
        options = set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", told, re.MULTILINE)) - {"--help"}
        assert options >= {"--json", "--socket"}, told
        assert [option for option in sorted(options) if option not in page] == [], command


def test_the_page_of_the_configuration_names_every_key():
    keys = set(re.findall(r'key == "([a-z-]+)"', (labs.ROOT / "src" / "router" / "config.cpp").read_text()))
    assert {"limit", "terminate"} <= keys
    page = text_of(labs.ROOT / "packaging" / "man" / "router.toml.5")
    removed = {"internal-prefixes"}  # only refused, with its new name
    assert sorted(key for key in keys - removed if not re.search(rf"[ \[,]{key}[ ,\]]", page)) == []
