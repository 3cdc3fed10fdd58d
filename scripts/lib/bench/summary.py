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
    unmeasured: list = field(default_factory=list)  # why, of runs that tell nothing about the program
    amounts: set = field(default_factory=set)  # bytes each way of the measured runs
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
        if not run.get("measured", True):
            summary.unmeasured.append(run["why"])
            continue
        summary.amounts.add(run.get("bytesEachWay"))
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
    """As "0.973", "0.973 (1 of 3 failed)", "failed" or "not measured"; "~" where the machine was late."""
    if summary is None:
        return "-"
    if not summary.runs:
        return "not measured"
    mark = "~" if summary.unpaced else ""
    missing = f" ({len(summary.unmeasured)} not measured)" if summary.unmeasured else ""
    if summary.share is None:
        return "failed" + mark + missing
    failed = f" ({len(summary.failures)} of {summary.runs} failed)" if summary.failures else ""
    return f"{summary.share:.3f}{mark}{failed}{missing}"


def cpu_cell(summary):
    return "-" if summary is None or summary.cpu is None else f"{summary.cpu:.2f}"


def line_table(summaries, traffic, cell_text):
    """Rows for one kind of traffic: rate, delay, bit error rate, then a column for each program."""
    programs = [program for program in programs_of(summaries) if any(c.traffic == traffic and p == program for c, p in summaries)]
    conditions = sorted({condition for condition, _ in summaries if condition.traffic == traffic})
    header = ["bit/s", "delay ms", "bit error rate", *programs]
    rows = [[str(c.rate), str(c.delay_ms), f"{c.ber:g}", *(cell_text(summaries.get((c, program))) for program in programs)] for c in conditions]
    return header, rows


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
    return wanted + adaptive_targets()


def adaptive_targets():
    """Without any tuning: clean, with an error in 100 kbit and in 10 kbit; one way and both ways."""
    table = {(9600, 0): ((0.980, 0.970), (0.930, 0.905), (0.80, 0.77)),
             (33600, 0): ((0.990, 0.985), (0.941, 0.925), (0.81, 0.78)),
             (115200, 0): ((0.995, 0.990), (0.941, 0.925), (0.81, 0.78)),
             (921600, 0): ((0.994, 0.988), (0.938, 0.920), (0.78, 0.70)),
             (115200, 100): ((0.988, 0.982), (0.937, 0.920), (0.79, 0.74))}
    wanted = [Target(cells.Condition(traffic, rate, delay, ber), cells.OURS_ADAPTIVE, least)
              for (rate, delay), row in table.items() for ber, pair in zip(cells.BIT_ERROR_RATES, row)
              for traffic, least in zip((cells.ONE_WAY, cells.BOTH_WAYS), pair)]
    return wanted + [Target(cells.Condition(cells.MESSAGES, 115200, 0, ber), cells.OURS_ADAPTIVE, least)
                     for ber, least in zip(cells.BIT_ERROR_RATES, (0.95, 0.90, 0.78))]


def best_peer(summaries, condition):
    """The summary of the peer with the highest share there; None when every peer failed or none ran."""
    peers = [summary for (c, program), summary in summaries.items() if c == condition and program in cells.PEERS and summary.share is not None]
    return max(peers, key=lambda summary: summary.share, default=None)


def verdict(summary, least):
    """Met only if no run failed."""
    if not summary.runs:
        return "not measured"
    return "met" if not summary.failures and summary.share >= least else "MISSED"


def target_rows(summaries):
    """What was wanted, what came out, and the best peer's figure beside it."""
    rows = []
    for target in targets():
        summary = summaries.get((target.condition, target.program))
        if summary is None:
            continue
        peer = best_peer(summaries, target.condition)
        rows.append([target.condition.label(), target.program, f"{target.least:.2f}", share_cell(summary), verdict(summary, target.least),
                     f"{peer.share:.3f} {peer.program}" if peer else "-"])
    return ["condition", "program", "target", "share", "", "best peer"], rows


def peer_verdict(mine, theirs, higher_is_better):
    """Empty if mine leads. Equal is what the tables' three decimals, or two of seconds, show as equal."""
    if mine is None:
        return "ours failed"
    if theirs is None:
        return ""
    mine, theirs = (round(figure, 3 if higher_is_better else 2) for figure in (mine, theirs))
    if mine == theirs:
        return "tie"
    return "" if (mine > theirs) == higher_is_better else "behind"


def behind_peer_rows(summaries):
    """Conditions in which the better of our two settings does not lead, by goodput or by processor time."""
    rows = []
    for condition in sorted({condition for condition, _ in summaries}):
        ours = [s for p in cells.OURS if (s := summaries.get((condition, p))) and s.runs]
        if not ours:
            continue
        mine = max(ours, key=lambda summary: summary.share or 0.0)
        peer = best_peer(summaries, condition)
        cheapest = min((s for (c, p), s in summaries.items() if c == condition and p in cells.PEERS and s.cpu is not None), key=lambda s: s.cpu, default=None)
        for kind, text, figure, best, is_share in (("goodput", share_cell, mine.share, peer and peer.share, True),
                                                   ("CPU s/MB", cpu_cell, mine.cpu, cheapest and cheapest.cpu, False)):
            told = peer_verdict(figure, best, is_share)
            if told:
                theirs = peer if is_share else cheapest
                rows.append([condition.label(), kind, text(mine), f"{text(theirs)} {theirs.program}" if theirs else "failed", told])
    return ["condition", "", "ours, the better setting", "best peer", ""], rows


def failure_rows(runs):
    """Every run of ours that failed, and every run that could not be measured."""
    rows = []
    for run in runs:
        measured = run.get("measured", True)
        if not measured or (run["program"] in cells.OURS and not run["ok"]):
            condition = cells.Condition(run["traffic"], run["rate"], run["delayMs"], run["ber"])
            rows.append([condition.label(), run["program"], str(run.get("run", 0) + 1), "failed" if measured else "not measured", run["why"]])
    return ["condition", "program", "run", "", "why"], rows
