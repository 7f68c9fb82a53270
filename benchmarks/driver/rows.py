"""What is measured, beside what, and what is to be reached: every line of the table, in its order."""
import dataclasses
import statistics

FEWEST_ROUNDS = 5
ROUNDS = {1_000: 25, 10_000: 15}    # up to so many records: what is short is also what is easily disturbed
MEBIBYTE = 1 << 20


@dataclasses.dataclass(frozen=True)
class Run:
    """One run of lq_bench."""
    row: str
    size: int

    @property
    def rounds(self):
        if self.row == 'peak':  # which hardly differs
            return FEWEST_ROUNDS
        return next((rounds for size, rounds in ROUNDS.items() if self.size <= size), FEWEST_ROUNDS)


RUNS = ([Run('pass', size) for size in (100, 1_000, 10_000, 100_000)]
        + [Run('peak', size) for size in (10_000, 100_000)]
        + [Run('sync', size) for size in (1_000, 10_000, 100_000)]
        + [Run('upload', 100_000), Run('values', 10_000), Run('callbacks', 1_000), Run('start', 100),
           Run('xml', 10_000), Run('log', 10_000_000), Run('counts', 1_000), Run('counts', 5_000)])


@dataclasses.dataclass(frozen=True)
class Line:
    """One line of the table: the same figure of two sides, or of one side and a bound."""
    row: str
    case: str
    size: int
    work: str
    figure: str = 'ms'
    other: str = 'floor'
    target: float | None = None   # of the ratio
    bound: float | None = None    # in place of another side; of the figure, in its unit


PASS_TARGETS = {'new': 1.2, 'changed': 1.2, 'unchanged': 1.0}


def lines():
    for run in (run for run in RUNS if run.row == 'pass'):
        for case, target in PASS_TARGETS.items():
            yield Line('pass', case, run.size, f'pass of {run.size:,}, {case}',
                       target=1.2 if run.size == 100 else target)
    for run in (run for run in RUNS if run.row == 'peak'):
        for case in PASS_TARGETS:
            yield Line('peak', case, run.size, f'peak memory, pass of {run.size:,}, {case}', 'mib', target=1.0)
    for run in (run for run in RUNS if run.row == 'sync'):
        for case in ('changed', 'unchanged'):
            work = f'`lqhost sync` of {run.size:,}, {case}'
            yield Line('sync', case, run.size, work, other='peer', target=1.0)
            yield Line('sync', case, run.size, work + ', CPU', 'cpu_ms', 'peer', target=1.5)
    yield Line('upload', '', 100_000, 'upload of 100,000 values', target=1.0)
    yield Line('peak', 'upload', 100_000, 'peak memory, upload of 100,000', 'mib', target=1.0, bound=85)
    yield Line('values', 'read', 10_000, 'in a batch, read one value', 'us', target=1.2)
    yield Line('values', 'write', 10_000, 'in a batch, write one value', 'us', target=1.2)
    yield Line('callbacks', 'changed', 1_000, 'pass of 1,000 changed, a callback each', other='unwatched', target=1.3)
    yield Line('start', 'unchanged', 100, 'process start to acknowledgement', other='loading', target=2.0)
    yield Line('xml', 'read', 10_000, 'XML of 10,000 read', target=2.5)
    yield Line('xml', 'write', 10_000, 'XML of 10,000 written', target=0.5)
    yield Line('log', '', 10_000_000, 'log line below the threshold', 'ns')


@dataclasses.dataclass(frozen=True)
class Spread:
    """A figure of several rounds."""
    middle: float
    least: float
    most: float

    @classmethod
    def of(cls, samples):
        return cls(statistics.median(samples), min(samples), max(samples))


@dataclasses.dataclass(frozen=True)
class Result:
    line: Line
    ours: Spread
    other: Spread

    @property
    def ratio(self):
        return self.ours.middle / self.other.middle

    @property
    def is_met(self):
        return self.line.target is None or self.ratio <= self.line.target

    def as_json(self):
        return {'work': self.line.work, 'figure': self.line.figure, 'ours': self.ours.middle,
                'other': self.other.middle, 'ratio': round(self.ratio, 3), 'target': self.line.target,
                'met': self.is_met}


def memory_bound(measurement):
    """What a pass may take: four times the text, and 20 MiB for what a process is anyway."""
    return 4 * measurement['facts']['text_bytes'] / MEBIBYTE + 20


def results(measurements):
    """Those lines of the table whose rows were run."""
    found = {(m['row'], m['case'], m['size']): m for m in measurements}
    for line in lines():
        measurement = found.get((line.row, line.case, line.size))
        if measurement is None:
            continue
        sides = measurement['sides']
        bound = line.bound or (memory_bound(measurement) if line.row == 'peak' else None)
        other = Spread(bound, bound, bound) if bound else Spread.of(sides[line.other][line.figure])
        yield Result(line, Spread.of(sides['ours'][line.figure]), other)
