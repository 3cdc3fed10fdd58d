"""Two results: what became worse beyond the noise."""

import statistics
from dataclasses import dataclass

from . import cells
from .summary import summarise

# Below these differences nothing is called a change, however little the runs spread.
SHARE_FLOOR = 0.01          # of the line's capacity
CPU_FLOOR = 0.15            # of the old figure
PARTS_FLOOR = 0.05
PORTS_FLOOR = 0.20
SINGLE_RUN_SHARE = 0.03     # where neither side has several runs to show their spread


@dataclass
class Change:
    what: str
    old: float
    new: float
    noise: float
    worse: bool
    better: bool

    def row(self):
        return [self.what, f"{self.old:.4g}", f"{self.new:.4g}", f"{self.noise:.2g}", "WORSE" if self.worse else "better" if self.better else ""]


def spread(values):
    return max(values) - min(values) if len(values) > 1 else 0.0


def judge(what, old, new, floor, higher_is_better):
    """old, new: lists of repeated figures. Worse is a median that moved by more than either side's
    repeated runs spread, and than floor."""
    noise = max(spread(old), spread(new), floor)
    moved = statistics.median(new) - statistics.median(old)
    if not higher_is_better:
        moved = -moved
    return Change(what, statistics.median(old), statistics.median(new), noise, moved < -noise, moved > noise)


def compare_line(old_runs, new_runs):
    """Of our programs only: the peers are the yardstick, and tell whether the machine changed."""
    old, new = summarise(old_runs), summarise(new_runs)
    changes = []
    for key in sorted(old.keys() & new.keys(), key=str):
        condition, program = key
        if program not in cells.OURS:
            continue
        before, after, what = old[key], new[key], f"{condition.label()}, {program}"
        fail_rate = [len(s.failures) / s.runs for s in (before, after)]
        if fail_rate[0] != fail_rate[1]:
            changes.append(Change(what + ": failed runs", *fail_rate, 0.0, fail_rate[1] > fail_rate[0], fail_rate[1] < fail_rate[0]))
        if before.shares and after.shares:
            several = len(before.shares) > 1 or len(after.shares) > 1
            changes.append(judge(what + ": share of the line", before.shares, after.shares, SHARE_FLOOR if several else SINGLE_RUN_SHARE, True))
            changes.append(judge(what + ": CPU s/MB", before.cpus, after.cpus, CPU_FLOOR * statistics.median(before.cpus), False))
    return changes


def part_times(result):
    """{name: [CPU nanoseconds of each repetition]} of a Google Benchmark result."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    times = {}
    for run in result.get("benchmarks", []):
        if run.get("run_type", "iteration") == "iteration" and not run.get("error_occurred"):
            times.setdefault(run.get("run_name", run["name"]), []).append(run["cpu_time"] * scale[run.get("time_unit", "ns")])
    return times


def compare_parts(old, new):
    before, after = part_times(old), part_times(new)
    return [judge(f"{name}: CPU ns", before[name], after[name], PARTS_FLOOR * statistics.median(before[name]), False)
            for name in sorted(before.keys() & after.keys())]


def numbers_of(value, name=""):
    """Every number of a JSON value with the path to it. Items of a list that name their count of ports go by it."""
    if isinstance(value, bool):
        return
    if isinstance(value, (int, float)):
        yield name, float(value)
    elif isinstance(value, dict):
        for key, item in value.items():
            yield from numbers_of(item, f"{name}.{key}" if name else key)
    elif isinstance(value, list):
        for i, item in enumerate(value):
            label = f"{item['ports']} ports" if isinstance(item, dict) and "ports" in item else str(i)
            yield from numbers_of(item, f"{name}[{label}]")


def compare_ports(old, new):
    """Shares of a core, bytes and times: less is better in all of them."""
    before, after = dict(numbers_of(old)), dict(numbers_of(new))
    return [judge(name, [before[name]], [after[name]], PORTS_FLOOR * abs(before[name]), False)
            for name in sorted(before.keys() & after.keys()) if not name.endswith(".ports")]


def compare(old, new):
    changes = []
    if old.get("line") and new.get("line"):
        changes += compare_line(old["line"], new["line"])
    if old.get("parts") and new.get("parts"):
        changes += compare_parts(old["parts"], new["parts"])
    if old.get("ports") and new.get("ports"):
        changes += compare_ports(old["ports"], new["ports"])
    return changes
