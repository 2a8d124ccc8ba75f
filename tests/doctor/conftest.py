"""A healthy router for the doctor, and a mapping on it."""
import pytest

import labs
from control_point import call, mapping, result

pytest.register_assert_rewrite("clinic")  # so that its assertions tell what they compared
from clinic import Clinic


@pytest.fixture(scope="module")
def healthy_lab(tmp_path_factory):
    """A router as it should be: each program has a user of its own, and hosts in the LAN may not disconnect."""
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    try:
        lab.start_routerd("--config", "/tesk/etc/lab.toml")
        lab.tkctl("upnp", "interface", "add", "lan0", "internal")
        lab.tkctl("upnp", "interface", "add", "wan0", "external")
        lab.tkctl("upnp", "set", "enabled=yes")
        yield lab
    finally:
        lab.down()


@pytest.fixture
def clinic(healthy_lab):
    """The healthy lab, with a mapping of TCP 80. Each test leaves it healthy."""
    path = f"/upnp/control/wanipconn-{healthy_lab.interface_id('wan0')}"
    assert call(healthy_lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    made = Clinic(healthy_lab)
    yield made
    assert made.examine() == {}


@pytest.fixture
def server(healthy_lab):
    with healthy_lab.lan1.listen(8080) as listening:
        yield listening
