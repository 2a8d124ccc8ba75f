"""Measured values, what becomes of those of several rounds, and the table of them."""
import dataclasses
import math
import statistics


@dataclasses.dataclass(frozen=True)
class Sample:
    """One figure, measured once."""
    figure: str                   # "description, 1 in flight"
    unit: str                     # "requests/s", "us", "calls", "bytes", "MiB", "s"
    ours: float
    floor: float | None = None    # measured in the same round
    against: str = ""             # what the floor is: "minimal server"
    limit: float | None = None    # the most that the ratio may be; without a floor, the most that `ours` may be
    more_is_better: bool = False  # the ratio is floor / ours then, else ours / floor
    absolute: bool = False        # the limit is one of `ours`, though there is a floor

    @property
    def ratio(self):
        """How many times worse ours is than the floor; None without a floor."""
        if self.floor is None:
            return None
        over, under = (self.floor, self.ours) if self.more_is_better else (self.ours, self.floor)
        if under == 0:
            return 1.0 if over == 0 else math.inf
        return over / under


@dataclasses.dataclass(frozen=True)
class Spread:
    """What one value was over the rounds."""
    median: float
    least: float
    most: float

    @staticmethod
    def of(values):
        return Spread(statistics.median(values), min(values), max(values))


@dataclasses.dataclass(frozen=True)
class Figure:
    """One figure over all rounds."""
    name: str
    unit: str
    ours: Spread
    floor: Spread | None
    against: str
    ratio: Spread | None
    limit: float | None
    absolute: bool

    @property
    def is_limited_by_ratio(self):
        return self.ratio is not None and not self.absolute

    @property
    def is_over(self):
        """True when the median is over the limit."""
        judged = self.ratio if self.is_limited_by_ratio else self.ours
        return self.limit is not None and judged.median > self.limit


def summarise(samples):
    """The figures of all rounds' samples, in the order in which they first came."""
    groups = {}
    for sample in samples:
        groups.setdefault(sample.figure, []).append(sample)
    return [figure_of(group) for group in groups.values()]


def figure_of(group):
    first = group[0]
    has_floor = first.floor is not None
    return Figure(first.figure, first.unit, Spread.of([sample.ours for sample in group]),
                  Spread.of([sample.floor for sample in group]) if has_floor else None, first.against,
                  Spread.of([sample.ratio for sample in group]) if has_floor else None, first.limit, first.absolute)


def in_words(value):
    """Three digits that count, and no exponent."""
    if value == 0 or math.isinf(value):
        return "0" if value == 0 else "-"
    decimals = max(0, 2 - math.floor(math.log10(abs(value))))
    text = f"{value:,.{decimals}f}"
    return text.rstrip("0").rstrip(".") if decimals else text


def spread_in_words(spread, unit=""):
    text = in_words(spread.median)
    if spread.least != spread.most:
        text += f" ({in_words(spread.least)} to {in_words(spread.most)})"
    return f"{text} {unit}".strip()


def limit_in_words(figure):
    if figure.limit is None:
        return ""
    limit = in_words(figure.limit)
    return f"{limit} x" if figure.is_limited_by_ratio else f"{limit} {figure.unit}".strip()


def row(figure):
    floor = f"{spread_in_words(figure.floor)}, {figure.against}" if figure.floor else ""
    ratio = spread_in_words(figure.ratio) if figure.ratio and not figure.absolute else ""
    limit = limit_in_words(figure) + (" **over**" if figure.is_over else "")
    return f"| {figure.name} | {spread_in_words(figure.ours, figure.unit)} | {floor} | {ratio} | {limit} |"


def table(figures):
    """The figures as lines of Markdown."""
    return ["| figure | measured | floor | ratio | at most |", "|---|---|---|---|---|", *map(row, figures)]
