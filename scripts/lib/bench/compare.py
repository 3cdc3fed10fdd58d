"""Two results: what became worse beyond the noise."""

import math
import statistics
from dataclasses import dataclass

from . import cells
from .summary import summarise
from .tables import medians

# Below these differences nothing is called a change, however little the runs spread.
SHARE_FLOOR = 0.01          # of the line's capacity
FEW_RUNS_CLEAN = 0.03       # the same where a side has too few runs to show their spread
FEW_RUNS_NOISY = 0.10       # there one loss at the end costs as much
ENOUGH_RUNS = 3
CPU_FLOOR = 0.15            # of the old figure
FEW_RUNS_CPU = 0.30         # of the old figure, for what runs beside it matters
PARTS_FLOOR = 0.05
PORTS_FLOOR = 0.20
PORTS_CPU_FLOOR = 0.05      # % of a core: what the scheduler's account differs by between runs

# Measured beside ours to tell what the machine can do: no regression of ours.
YARDSTICKS = ("crc32Zlib", "bareOpenAppendClose", "bareSystemCalls", "bareTwoLooksAtAFilesTime", "bareThreadCpuPercent")


@dataclass
class Change:
    what: str
    old: float
    new: float
    noise: float
    worse: bool
    better: bool
    remark: str = ""

    def row(self):
        mark = self.remark or ("WORSE" if self.worse else "better" if self.better else "")
        return [self.what, f"{self.old:.4g}", f"{self.new:.4g}", f"{self.noise:.2g}", mark]


MISSING = "WORSE: missing in the new result"


def lost(what):
    return Change(what, math.nan, math.nan, 0.0, True, False, MISSING)


def left_out(what, why):
    return Change(what, math.nan, math.nan, 0.0, False, False, "left out: " + why)


def spread(values):
    return max(values) - min(values) if len(values) > 1 else 0.0


def judge(what, old, new, floor, higher_is_better):
    """old, new: lists of repeated figures. Worse is a median that moved by more than either side's
    repeated runs spread, and than floor."""
    noise = max(spread(old), spread(new), floor)
    moved = statistics.median(new) - statistics.median(old)
    if not higher_is_better:
        moved = -moved
    change = Change(what, statistics.median(old), statistics.median(new), noise, moved < -noise, moved > noise)
    if (change.worse or change.better) and any(name in what for name in YARDSTICKS):
        change.remark = "the machine: a yardstick " + ("slower" if change.worse else "faster")
        change.worse = change.better = False
    return change


def floors(condition, *sides):
    """Of the share, and of processor time as a part of the old figure."""
    if min(len(side.shares) for side in sides) >= ENOUGH_RUNS:
        return SHARE_FLOOR, CPU_FLOOR
    return (FEW_RUNS_NOISY if condition.ber else FEW_RUNS_CLEAN), FEW_RUNS_CPU


def comparable(runs):
    """Runs of ours on a line that kept its pace: the peers tell only whether the machine changed."""
    return [run for run in runs if run["program"] in cells.OURS and run["paced"] and run.get("measured", True)]


def cell_changes(what, before, after):
    """before, after: Summaries."""
    changes = []
    fail_rate = [len(s.failures) / s.runs for s in (before, after)]
    if fail_rate[0] != fail_rate[1]:
        changes.append(Change(what + ": failed runs", *fail_rate, 0.0, fail_rate[1] > fail_rate[0], fail_rate[1] < fail_rate[0]))
    if before.shares and after.shares:
        share_floor, cpu_floor = floors(before.condition, before, after)
        changes.append(judge(what + ": share of the line", before.shares, after.shares, share_floor, True))
        changes.append(judge(what + ": CPU s/MB", before.cpus, after.cpus, cpu_floor * statistics.median(before.cpus), False))
    return changes


def compare_line(old_runs, new_runs):
    old, new = summarise(comparable(old_runs)), summarise(comparable(new_runs))
    late = summarise(run for run in new_runs if not run["paced"] and run.get("measured", True))
    changes = []
    for key in sorted(old, key=str):
        what = f"{key[0].label()}, {key[1]}"
        if key not in new:
            changes.append(left_out(what, "the machine was late") if key in late else lost(what))
        elif old[key].amounts != new[key].amounts:
            changes.append(left_out(what, "other amounts were sent"))
        else:
            changes += cell_changes(what, old[key], new[key])
    return changes


def part_times(result):
    """{name: [CPU nanoseconds of each repetition]} of a Google Benchmark result."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    times = {}
    for run in result.get("benchmarks", []):
        if run.get("run_type", "iteration") == "iteration" and not run.get("error_occurred"):
            times.setdefault(run.get("run_name", run["name"]), []).append(run["cpu_time"] * scale[run.get("time_unit", "ns")])
    return times


def part_allocations(result):
    return {name: [run["allocations"]] for name, run in medians(result).items() if "allocations" in run}


def compare_figures(old, new, floor_of, suffix=""):
    """old, new: {name: [repeated figures]}, less is better; floor_of(name, old median)."""
    return [judge(name + suffix, old[name], new[name], floor_of(name, statistics.median(old[name])), False) if name in new else lost(name + suffix)
            for name in sorted(old)]


def compare_parts(old, new):
    return (compare_figures(part_times(old), part_times(new), lambda _, figure: PARTS_FLOOR * figure, ": CPU ns") +
            compare_figures(part_allocations(old), part_allocations(new), lambda *_: 0.0, ": allocations"))


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


def ports_floor(name, figure):
    return max(PORTS_FLOOR * abs(figure), PORTS_CPU_FLOOR if "cpuPercent" in name else 0.0)


def compare_ports(old, new):
    """Shares of a core, bytes and times: less is better in all of them."""
    before, after = ({name: [value] for name, value in numbers_of(ports) if not name.endswith(".ports")} for ports in (old, new))
    return compare_figures(before, after, ports_floor)


def compare(old, new):
    changes = []
    if old.get("line") and new.get("line"):
        changes += compare_line(old["line"], new["line"])
    if old.get("parts") and new.get("parts"):
        changes += compare_parts(old["parts"], new["parts"])
    if old.get("ports") and new.get("ports"):
        changes += compare_ports(old["ports"], new["ports"])
    # What the new run was not asked for is not missing.
    is_part = any(option in new.get("command", "") for option in ("--cells", "--quick"))
    return [change for change in changes if not (is_part and change.remark == MISSING)]
