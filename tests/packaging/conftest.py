"""The package, built once for each process that runs tests."""
import pytest

import installation
import labs
import sanitizer


@pytest.fixture(scope="session")
def package(tmp_path_factory):
    if sanitizer.SANITIZED:
        pytest.skip("the sanitized build is for tests, and is not packaged")
    return installation.build_package(tmp_path_factory.mktemp("package"))


@pytest.fixture(scope="module")
def installed(package, tmp_path_factory):
    """A router on which the package is installed, and nothing runs."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        made = installation.Installation(lab, package)
        made.install()
        yield made
        made.manager.stop()
    finally:
        lab.down()
