"""Labs with only the daemon; a test plays its router."""
import pytest

import labs
from worlds import World


@pytest.fixture(scope="module")
def scripted_lab(tmp_path_factory):
    lab = labs.Lab(tmp_path_factory.mktemp("lab"))
    yield lab
    lab.down()


@pytest.fixture
def world(scripted_lab):
    world = World(scripted_lab)
    yield world
    world.close()
