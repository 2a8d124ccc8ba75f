"""What becomes of measured values: the spread, the ratio to the floor, the limit, and the table."""
import math
import sys

import labs

sys.path.insert(0, str(labs.ROOT / "bench"))

from samples import Sample, summarise, table  # noqa: E402


def rounds(ours, floor=None, **options):
    """One figure, measured once for each value."""
    floors = floor or [None] * len(ours)
    return summarise([Sample("figure", "us", value, least, **options) for value, least in zip(ours, floors)])[0]


def spread(found):
    return found.median, found.least, found.most


def test_the_median_and_the_extremes_of_the_rounds_are_kept():
    assert spread(rounds([30, 10, 20]).ours) == (20, 10, 30)


def test_the_ratio_is_that_of_one_round():
    assert spread(rounds([20, 60, 30], floor=[10, 20, 30]).ratio) == (2, 1, 3)


def test_where_more_is_better_the_ratio_is_turned_round():
    assert spread(rounds([10], floor=[20], more_is_better=True).ratio) == (2, 2, 2)


def test_nothing_over_nothing_is_as_good_as_the_floor():
    assert Sample("lost", "", 0, 0).ratio == 1
    assert Sample("lost", "", 3, 0).ratio == math.inf


def test_a_limit_holds_for_the_median_of_the_ratio():
    assert not rounds([11, 12, 30], floor=[10, 10, 10], limit=1.2).is_over
    assert rounds([11, 13, 13], floor=[10, 10, 10], limit=1.2).is_over


def test_without_a_floor_or_where_it_says_so_a_limit_holds_for_ours():
    assert rounds([8], limit=7).is_over and not rounds([7], limit=7).is_over
    assert rounds([3], floor=[3], limit=2, absolute=True).is_over
    assert not rounds([2], floor=[1], limit=2, absolute=True).is_over


def test_figures_stay_in_the_order_in_which_they_came():
    found = summarise([Sample(name, "us", 1) for name in ("second", "first", "second")])
    assert [figure.name for figure in found] == ["second", "first"]


def test_the_table_shows_each_figure_whole():
    samples = [Sample("rate, 1 in flight", "requests/s", ours, floor, "minimal server", 1.15, more_is_better=True)
               for ours, floor in ((5000, 10000), (8000, 12000), (10000, 10000))]
    samples += [Sample("calls", "calls", 9, limit=7), Sample("size", "MiB", 1.234), Sample("time", "s", 0.0123, 0, "none")]
    assert table(summarise(samples)) == [
        "| figure | measured | floor | ratio | at most |",
        "|---|---|---|---|---|",
        "| rate, 1 in flight | 8,000 (5,000 to 10,000) requests/s | 10,000 (10,000 to 12,000), minimal server | 1.5 (1 to 2) "
        "| 1.15 x **over** |",
        "| calls | 9 calls |  |  | 7 calls **over** |",
        "| size | 1.23 MiB |  |  |  |",
        "| time | 0.0123 s | 0, none | - |  |",
    ]
