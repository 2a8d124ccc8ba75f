"""Fixtures: labs with the whole system in them."""
import os

import pytest

pytest.register_assert_rewrite("bystanders")  # so that its assertions tell what they compared

import bystanders  # noqa: E402
import control_point  # noqa: E402
import labs  # noqa: E402
import sanitizer  # noqa: E402

late = []  # what the programs have reported after the last test


def pytest_configure(config):
    # What fails on a thread fails the test during which it does, as nobody else might look.
    config.addinivalue_line("filterwarnings", "error::pytest.PytestUnhandledThreadExceptionWarning")


def pytest_sessionstart(session):
    if os.geteuid() != 0:
        pytest.exit("these tests build network namespaces, which needs root", returncode=3)
    if not hasattr(session.config, "workerinput"):  # only the first process, if tests run in several
        labs.remove_leftovers()


def pytest_collection_modifyitems(items):
    # The files that take longest begin first, so that the others are done beside them.
    longest = ("test_soak.py", "test_crash.py", "test_http.py", "test_deliveries.py")
    items.sort(key=lambda item: longest.index(item.path.name) if item.path.name in longest else len(longest))


def pytest_terminal_summary(terminalreporter):
    bystanders.tell(terminalreporter)


@pytest.hookimpl(optionalhook=True)
def pytest_testnodedown(node):
    """The end of a process that has run some of the tests. What fails there is told to nobody."""
    late.extend(getattr(node, "workeroutput", {}).get("late", ()))


def pytest_sessionfinish(session):
    late.extend(sanitizer.close())
    if hasattr(session.config, "workerinput"):
        session.config.workeroutput["late"] = late
    elif late:
        pytest.exit("\n".join(late), returncode=3)


@pytest.fixture(autouse=True, scope="module")
def nothing_reported_at_the_end():
    """Of what a file's tests share."""
    yield
    sanitizer.check()


@pytest.fixture(autouse=True)
def nothing_reported(nothing_reported_at_the_end):
    yield
    sanitizer.check()


@pytest.fixture
def bare_lab(tmp_path):
    """A lab in which nothing runs yet."""
    lab = labs.Lab(tmp_path)
    yield lab
    lab.down()


@pytest.fixture
def fresh_lab(bare_lab):
    """A serving gateway for one test, which may change it at will."""
    return bare_lab.serve()


@pytest.fixture(scope="module")
def shared_lab(tmp_path_factory):
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        yield lab.serve()
    finally:
        lab.down()


@pytest.fixture
def lab(shared_lab):
    """A serving gateway that the tests of a file share: each leaves it without a mapping, and running."""
    yield shared_lab
    assert shared_lab.routerd.running(), shared_lab.routerd.log + shared_lab.routerd.errors.read_text()
    assert shared_lab.upnpd.running(), shared_lab.upnpd.log + shared_lab.upnpd.errors.read_text()
    left = shared_lab.rules()
    for rule in left:
        shared_lab.tkctl("bus", "call", "20,5", "0xFE0006", f"0xFE0001:u32={rule['id']}")
    assert left == []


@pytest.fixture
def pairs(lab):
    """What a search for everything finds, in the order of the answers."""
    return control_point.table_order(control_point.root_pairs(lab.identity()),
                                     control_point.wan_pairs(lab.identity(), lab.interface_id("wan0")))


@pytest.fixture
def searcher(lab):
    searcher = control_point.Searcher(lab.lan1)
    yield searcher
    searcher.close()
