"""The router of the tests of flows; the others have one of their own."""
import pytest

import bus
import uplink

pytest.register_assert_rewrite("flows")  # so that its assertions tell what they compared


@pytest.fixture
def router(bare_lab):
    uplink.masquerade(bare_lab)
    bare_lab.start_routerd()
    return bare_lab


@pytest.fixture
def client(router):
    with bus.Client(router) as connected:
        yield connected
