"""What the compiler and the linker put into the programs to make an exploit of a fault hard."""
import platform
import re
import subprocess

import pytest
import sanitizer
from labs import BIN, PATIENCE, ROOT

PROGRAMS = ("upnpd", "routerd", "resolverd", "tkctl")
X86 = platform.machine() == "x86_64"

pytestmark = sanitizer.unless_sanitized("is for tests, and is not hardened")


def shown(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=6 * PATIENCE).stdout


def imports(program):
    return shown("nm", "-D", "--undefined-only", BIN / program)


def libraries(program):
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", shown("readelf", "-dW", BIN / program)))


def code_of(program):
    return shown("objdump", "-d", "--no-show-raw-insn", BIN / program)


@pytest.mark.parametrize("program", PROGRAMS)
def test_no_program_needs_the_cxx_library(program):
    assert not {name for name in libraries(program) if name.startswith(("libstdc++", "libgcc", "libc++"))}


def test_the_daemon_needs_no_library_but_those_for_xml_and_uuids_and_c():
    assert {name.split(".")[0] for name in libraries("upnpd")} - {"ld-linux-x86-64"} == {"libexpat", "libuuid", "libc"}


@pytest.mark.parametrize("program", PROGRAMS)
def test_the_version_stands_in_the_file_of_each_program(program):
    version = shown(BIN / "tkctl", "--version").strip()
    assert re.findall(rb"@\(#\)gateway ([^\0]+)\0", (BIN / program).read_bytes()) == [version.encode()]


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_is_loaded_at_a_random_address(program):
    assert re.search(r"FLAGS_1.*\bPIE\b", shown("readelf", "-dW", BIN / program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_the_table_of_imported_functions_is_read_only_from_the_start(program):
    assert "GNU_RELRO" in shown("readelf", "-lW", BIN / program)
    assert re.search(r"\(FLAGS\).*\bBIND_NOW\b", shown("readelf", "-dW", BIN / program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_no_stack_can_be_executed(program):
    stack = re.search(r"GNU_STACK.*", shown("readelf", "-lW", BIN / program)).group()
    assert " RW " in stack


@pytest.mark.parametrize("program", PROGRAMS)
def test_an_overwritten_stack_frame_ends_the_program(program):
    assert "__stack_chk_fail" in imports(program)


@pytest.mark.parametrize("program", PROGRAMS)
def test_an_index_beyond_a_container_ends_the_program(program):
    assert "__glibcxx_assert_fail" in shown("nm", BIN / program)


# resolverd has no call whose bounds are checked only at run time.
@pytest.mark.parametrize("program", sorted(set(PROGRAMS) - {"resolverd"}))
def test_an_overflow_of_a_buffer_in_the_c_library_ends_the_program(program):
    assert re.search(r"__\w+_chk\b", imports(program).replace("__stack_chk_fail", ""))


@pytest.mark.skipif(not X86, reason="the instructions are those of x86-64")
@pytest.mark.parametrize("program", PROGRAMS)
def test_functions_are_marked_for_indirect_calls(program):
    assert code_of(program).count("endbr64") > 100


# resolverd has no frame of more than a page.
@pytest.mark.skipif(not X86, reason="the instructions are those of x86-64")
@pytest.mark.parametrize("program", sorted(set(PROGRAMS) - {"resolverd"}))
def test_large_frames_touch_each_page(program):
    assert re.search(r"or[ql]\s+\$0x0,.*\(%rsp\)", code_of(program))


def test_the_build_refuses_an_expat_that_is_too_old(tmp_path):
    header = tmp_path / "expat.h"
    header.write_text("#define XML_MAJOR_VERSION 2\n#define XML_MINOR_VERSION 3\n#define XML_MICRO_VERSION 9\n")
    run = subprocess.run(["cmake", "-S", ROOT, "-B", tmp_path / "build", "-G", "Ninja", "-DGATEWAY_TESTS=OFF",
                          f"-DEXPAT_INCLUDE_DIR={tmp_path}"], capture_output=True, text=True, timeout=6 * PATIENCE)
    assert run.returncode != 0
    assert 'Found unsuitable version "2.3.9", but required is at least "2.4"' in " ".join(run.stderr.split())
