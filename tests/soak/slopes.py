"""The judgement of a soak: what grows, what answers late, and the tables of both."""
import dataclasses
import itertools
import math
import re
import statistics

from bystanders import percentile

WARM_UP = 2  # cycles in which everything may still come to its usual size
FEWEST = 4   # samples that a slope needs

# What a gauge may grow by over all samples, and what it may be at most; the first expression that matches counts. Memory is
# given out in pages, and a heap keeps its gaps. What is told apart by single objects may not gain one that stays.
TOLERANCES = [
    (r"memory of .*, KiB", 192, 16 * 1024),
    (r"heap of .*, bytes", 4096, 16 << 20),
    (r"store of .*, bytes", 1024, 2 << 20),
    (r"kernel: connections known", 20, 20000),
    (r"kernel: neighbours", 4, 64),
    (r"kernel: elements of (searches|requests|connections)", 40, 128),  # a source each, which is forgotten later
    (r"kernel: TCP sockets that are nobody's", 10, 1000),  # a client each that has vanished, for a minute
    (r"log lines a busy second", math.inf, 2000),
    (r"timers of routerd", 2.5, 1000),  # some run for a minute, longer than a rest does
    (r"descriptors of .*", 0.9, 1024),
    (r".*", 0.9, 1000),
]

LATEST = 0.25  # seconds: the 99th percentile of each kind of answer


@dataclasses.dataclass(frozen=True)
class Trend:
    """What became of one gauge."""
    name: str
    first: float
    last: float
    most: float
    slope: float  # per hour
    growth: float  # by the slope, from the first sample to the last one
    tolerance: float
    limit: float
    samples: int

    @property
    def is_wrong(self):
        return self.samples < FEWEST or self.growth > self.tolerance or self.most > self.limit


def slope(samples):
    """How steep a line through the samples is: the median of the lines through two of them, which a single odd sample does
    not bend. Units: of the gauge, per second."""
    return statistics.median((later[1] - earlier[1]) / (later[0] - earlier[0])
                             for earlier, later in itertools.combinations(samples, 2))


def trend(name, samples, most):
    """The samples are pairs of a time and a value."""
    tolerance, limit = next((growth, limit) for text, growth, limit in TOLERANCES if re.fullmatch(text, name))
    steep = slope(samples) if len(samples) > 1 else 0
    values = [value for _, value in samples] or [0]
    length = samples[-1][0] - samples[0][0] if samples else 0
    return Trend(name, values[0], values[-1], max(most, *values, 0), steep * 3600, steep * length, tolerance, limit,
                 len(samples))


@dataclasses.dataclass
class Series:
    """All samples of a soak. A process that was started anew begins its gauges again; the longest of its lives counts."""
    quiet: list = dataclasses.field(default_factory=list)  # time, number of each process, gauges
    busy: list = dataclasses.field(default_factory=list)   # gauges alone

    def trends(self):
        kept = self.quiet[WARM_UP:]
        names = sorted({name for _, _, found in self.quiet for name in found})
        return [trend(name, self.samples(name, kept), max((found[name] for found in self.busy if found.get(name)), default=0))
                for name in names]

    def samples(self, name, kept):
        owner = re.match(r"(?:memory|heap|timers|descriptors) of (\w+)", name)
        lives = {}
        for time, processes, found in kept:
            life = processes.get(owner[1]) if owner else None
            # What is not there is none: a kind of descriptor that only some samples have.
            value = found.get(name, 0)
            if value is not None and (owner is None or life is not None):
                lives.setdefault(life, []).append((time, value))
        return max(lives.values(), key=len, default=[])


@dataclasses.dataclass(frozen=True)
class Lateness:
    """How long one kind of answer took."""
    kind: str
    count: int
    median: float
    late: float  # the 99th percentile
    longest: float
    limit: float

    @property
    def is_wrong(self):
        return self.late > self.limit


def lateness(kind, seconds, limit=LATEST):
    return Lateness(kind, len(seconds), statistics.median(seconds), percentile(seconds, 0.99), max(seconds), limit)


def number(value):
    return f"{value:,.0f}" if abs(value) >= 100 or value == int(value) else f"{value:.1f}"


def table(trends, answers):
    """The lines for people; what is wrong says so."""
    lines = [f"{'gauge':44}{'first':>10}{'last':>10}{'most':>10}{'an hour':>10}{'grew':>9}{'may':>7}"]
    for one in trends:
        wrong = "  WRONG" if one.is_wrong else ""
        lines.append(f"{one.name:44}{number(one.first):>10}{number(one.last):>10}{number(one.most):>10}"
                     f"{number(one.slope):>10}{number(one.growth):>9}"
                     f"{'-' if math.isinf(one.tolerance) else number(one.tolerance):>7}{wrong}")
    lines += ["", f"{'answer':24}{'count':>8}{'median':>12}{'99 %':>12}{'longest':>12}{'99 % may':>12}"]
    for one in answers:
        wrong = "  WRONG" if one.is_wrong else ""
        lines.append(f"{one.kind:24}{one.count:>8}{one.median * 1000:>9.1f} ms{one.late * 1000:>9.1f} ms"
                     f"{one.longest * 1000:>9.1f} ms{one.limit * 1000:>9.0f} ms{wrong}")
    return lines
