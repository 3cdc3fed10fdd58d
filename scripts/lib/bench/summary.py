"""From single runs to medians, tables and targets. No program is started here."""

import statistics
from dataclasses import dataclass, field

from . import cells


@dataclass
class Summary:
    """All runs of one program in one condition."""

    condition: cells.Condition
    program: str
    shares: list = field(default_factory=list)  # of the runs that delivered everything
    cpus: list = field(default_factory=list)    # seconds per megabyte, of the same
    failures: list = field(default_factory=list)  # why, of the others
    unpaced: int = 0  # runs during which the machine could not keep the line's pace

    @property
    def share(self):
        """None when more runs failed than delivered."""
        return statistics.median(self.shares) if len(self.shares) > len(self.failures) else None

    @property
    def cpu(self):
        return statistics.median(self.cpus) if len(self.cpus) > len(self.failures) else None

    @property
    def runs(self):
        return len(self.shares) + len(self.failures)


def summarise(runs):
    """{(condition, program): Summary} of a result's list of line runs."""
    summaries = {}
    for run in runs:
        condition = cells.Condition(run["traffic"], run["rate"], run["delayMs"], run["ber"])
        key = (condition, run["program"])
        summary = summaries.setdefault(key, Summary(condition, run["program"]))
        if run["ok"]:
            summary.shares.append(run["share"])
            summary.cpus.append(run["cpuPerMegabyte"])
        else:
            summary.failures.append(run["why"])
        summary.unpaced += not run["paced"]
    return summaries


def programs_of(summaries):
    present = {program for _, program in summaries}
    return [program for program in cells.OURS + cells.PEERS if program in present]


def share_cell(summary):
    """As "0.973", "0.973 (1 of 3 failed)" or "failed"; "~" where the machine was late."""
    if summary is None:
        return "-"
    mark = "~" if summary.unpaced else ""
    if summary.share is None:
        return "failed" + mark
    failed = f" ({len(summary.failures)} of {summary.runs} failed)" if summary.failures else ""
    return f"{summary.share:.3f}{mark}{failed}"


def cpu_cell(summary):
    return "-" if summary is None or summary.cpu is None else f"{summary.cpu:.2f}"


def line_table(summaries, traffic, cell_text):
    """Rows for one kind of traffic: rate, delay, bit error rate, then a column for each program."""
    programs = [program for program in programs_of(summaries) if any(c.traffic == traffic and p == program for c, p in summaries)]
    conditions = sorted({condition for condition, _ in summaries if condition.traffic == traffic})
    header = ["bit/s", "delay ms", "bit error rate", *programs]
    rows = [[str(c.rate), str(c.delay_ms), f"{c.ber:g}", *(cell_text(summaries.get((c, program))) for program in programs)] for c in conditions]
    return header, rows


def plain_table(header, rows):
    widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
    lines = ["  ".join(text.rjust(width) for text, width in zip(row, widths)) for row in [header, ["-" * width for width in widths], *rows]]
    return "\n".join(line.rstrip() for line in lines)


def markdown_table(header, rows):
    return "\n".join("| " + " | ".join(row) + " |" for row in [header, ["---:"] * len(header), *rows])


@dataclass
class Target:
    """A figure to reach in one condition."""

    condition: cells.Condition
    program: str
    least: float


def targets():
    """What the channel is to get out of the line, one way and both ways at once."""
    one = cells.ONE_WAY
    wanted = [Target(cells.Condition(one, rate, 0, 0.0), program, least)
              for rate in (57600, 115200) for program, least in ((cells.OURS_DEFAULT, 0.97), (cells.OURS_PROFILE, 0.99))]
    wanted += [Target(cells.Condition(one, rate, 0, 0.0), cells.OURS_PROFILE, 0.97) for rate in (9600, 33600, 921600)]
    for rate in cells.RATES:
        wanted += [Target(cells.Condition(one, rate, 0, ber), cells.OURS_PROFILE, least) for ber, least in ((1e-5, 0.94), (1e-4, 0.71))]
        wanted += [Target(cells.Condition(one, rate, 100, ber), cells.OURS_PROFILE, least)
                   for ber, least in ((0.0, 0.97), (1e-5, 0.90), (1e-4, 0.55))]
    wanted += [Target(cells.Condition(cells.BOTH_WAYS, t.condition.rate, t.condition.delay_ms, t.condition.ber), t.program, round(t.least - 0.02, 4))
               for t in list(wanted)]
    wanted += [Target(cells.Condition(cells.MESSAGES, 115200, 0, ber), cells.OURS_PROFILE, least) for ber, least in ((0.0, 0.90), (1e-5, 0.80))]
    return wanted


def best_peer(summaries, condition):
    """The summary of the peer with the highest share there; None when every peer failed or none ran."""
    peers = [summary for (c, program), summary in summaries.items() if c == condition and program in cells.PEERS and summary.share is not None]
    return max(peers, key=lambda summary: summary.share, default=None)


def target_rows(summaries):
    """What was wanted, what came out, and the best peer's figure beside it."""
    rows = []
    for target in targets():
        summary = summaries.get((target.condition, target.program))
        if summary is None:
            continue
        met = summary.share is not None and summary.share >= target.least
        peer = best_peer(summaries, target.condition)
        rows.append([target.condition.label(), target.program, f"{target.least:.2f}", share_cell(summary), "met" if met else "MISSED",
                     f"{peer.share:.3f} {peer.program}" if peer else "-"])
    return ["condition", "program", "target", "share", "", "best peer"], rows


def behind_peer_rows(summaries):
    """Conditions in which the better of our two settings does not lead, by goodput or by processor time."""
    rows = []
    for condition in sorted({condition for condition, _ in summaries}):
        ours = [s for p in cells.OURS if (s := summaries.get((condition, p))) and s.share is not None]
        peer = best_peer(summaries, condition)
        mine = max(ours, key=lambda summary: summary.share, default=None)
        if peer and (mine is None or mine.share < peer.share):
            rows.append([condition.label(), "goodput", share_cell(mine), f"{peer.share:.3f} {peer.program}"])
        cheapest = min((s for (c, p), s in summaries.items() if c == condition and p in cells.PEERS and s.cpu is not None), key=lambda s: s.cpu, default=None)
        if cheapest and (mine is None or mine.cpu > cheapest.cpu):
            rows.append([condition.label(), "CPU s/MB", cpu_cell(mine), f"{cheapest.cpu:.2f} {cheapest.program}"])
    return ["condition", "", "ours", "best peer"], rows
