"""The counting of test results: no failure may be lost."""
import pathlib
import subprocess

TALLY = pathlib.Path(__file__).resolve().parent / "tally"


def lines(*paths):
    return subprocess.run([TALLY, *paths], capture_output=True, text=True).stdout.splitlines()


def tally(*paths):
    return lines(*paths)[-1]


def write(path, text):
    path.write_text(text)
    return path


def program(name, status):
    return f'<testcase name="{name}" classname="{name}" status="{status}"/>'


def test_counts_single_tests(tmp_path):
    results = write(tmp_path / "r.xml", '<testsuites><testsuite tests="5" failures="1" errors="1" skipped="1"/></testsuites>')
    assert lines(results) == ["1 skipped", "2 passed, 2 failed"]


def test_a_missing_or_broken_file_is_a_failed_test(tmp_path):
    assert tally(tmp_path / "none.xml") == "0 passed, 1 failed"
    assert tally(write(tmp_path / "r.xml", "<testsuites><testsuite")) == "0 passed, 1 failed"


def test_counts_the_single_tests_of_programs(tmp_path):
    results = write(tmp_path / "r.xml", "<testsuite>" + program("tk", "run") + program("net", "fail")
                    + program("order", "run") + "</testsuite>")
    write(tmp_path / "tk_test.xml", '<testsuites><testsuite tests="7" failures="0"/><testsuite tests="2"/></testsuites>')
    write(tmp_path / "net_test.xml", '<testsuites><testsuite tests="3" failures="2"/></testsuites>')
    assert tally(results, tmp_path) == "11 passed, 2 failed"


def test_a_program_that_crashed_or_leaked_is_a_failed_test(tmp_path):
    results = write(tmp_path / "r.xml", "<testsuite>" + program("tk", "fail") + program("net", "fail") + "</testsuite>")
    write(tmp_path / "tk_test.xml", '<testsuites><testsuite tests="7" failures="0"/></testsuites>')
    assert tally(results, tmp_path) == "7 passed, 2 failed"


def test_a_skipped_test_of_a_program_has_failed(tmp_path):
    results = write(tmp_path / "r.xml", "<testsuite>" + program("tk", "run") + "</testsuite>")
    write(tmp_path / "tk_test.xml", '<testsuites><testsuite tests="7" failures="0" skipped="2"/></testsuites>')
    assert tally(results, tmp_path) == "5 passed, 2 failed"


def test_a_program_that_ran_no_test_has_failed(tmp_path):
    results = write(tmp_path / "r.xml", "<testsuite>" + program("tk", "run") + "</testsuite>")
    write(tmp_path / "tk_test.xml", '<testsuites tests="0"/>')
    assert tally(results, tmp_path) == "0 passed, 1 failed"
