"""Labs with only the daemon; a test plays its router."""
import pytest

import labs
from subscribers import Subscriber
from worlds import World

pytest.register_assert_rewrite("subscriptions")  # so that its assertions tell what they compared


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


@pytest.fixture
def subscriber(scripted_lab):
    subscriber = Subscriber(scripted_lab.lan1)
    yield subscriber
    subscriber.close()


@pytest.fixture
def other(scripted_lab):
    subscriber = Subscriber(scripted_lab.lan2)
    yield subscriber
    subscriber.close()
