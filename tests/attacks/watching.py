"""Tests that are one attack from their first line to their last."""
import functools


def watched(attack):
    """Makes the test's function run while the bystander looks, and again until it has seen enough."""
    @functools.wraps(attack)
    def test(bystander, **fixtures):
        bystander.during(lambda: attack(bystander=bystander, **fixtures))
    return test
