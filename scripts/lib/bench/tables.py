"""Everything measured as tables, in the order in which a result is told; and tables as text."""

from dataclasses import dataclass

from . import cells, summary

GARBAGE_BYTES_PER_SECOND = 1e9
LOG_LINE_SHARE = 0.8       # of a bare loop's lines a second
MOST_ALLOCATIONS = 1       # a packet made
MOST_IDLE_PERCENT = 0.25   # of a core, for one port

IDLE_COLUMNS = {"ports": "ports", "cpuPercentPerPort": "% of a core, each", "bareThreadCpuPercent": "a bare thread, %", "heapKiBPerPort": "heap KiB, each",
                "residentKiBPerPort": "resident KiB, each", "threadsPerPort": "threads, each", "descriptorsPerPort": "descriptors, each",
                "startMs": "start ms", "stopMs": "stop ms"}
CALL_ROWS = {"callToDialCommandMs": "the host's call, ATD at the modem", "connectToFirstByteMs": "CONNECT, the first byte of the peer's session",
             "hangUpToFreeMs": "the host's hang-up, both ports free again"}


@dataclass
class Table:
    kind: str  # line, parts or ports
    title: str
    header: list
    rows: list


def tables_of(result):
    """Those of a result that have rows."""
    found = []
    if result.get("line"):
        found += line_tables(result["line"])
    if result.get("ports"):
        found += [Table("ports", "Idle ports", *idle_rows(result["ports"])), Table("ports", "Calls", *call_rows(result["ports"]))]
    if result.get("parts"):
        found += [Table("parts", "Parts", *parts_rows(result["parts"]))]
    return [table for table in found if table.rows]


def line_tables(runs):
    summaries = summary.summarise(runs)
    found = []
    for traffic in (cells.ONE_WAY, cells.BOTH_WAYS, cells.MESSAGES):
        for title, text in (("share of the line", summary.share_cell), ("CPU seconds per megabyte", summary.cpu_cell)):
            found.append(Table("line", f"{traffic.capitalize()}, {title}", *summary.line_table(summaries, traffic, text)))
    return found + [Table("line", "Targets", *summary.target_rows(summaries)),
                    Table("line", "Where a peer leads or is as good", *summary.behind_peer_rows(summaries)),
                    Table("line", "Runs of ours that failed, and what could not be measured", *summary.failure_rows(runs))]


def judged(text, met):
    return f"{text}: {'met' if met else 'MISSED'}"


def medians(parts):
    """{name: run} of a Google Benchmark result: medians of repetitions, or single runs."""
    runs = {}
    for run in parts.get("benchmarks", []):
        is_aggregate = run.get("run_type") == "aggregate"
        if run.get("error_occurred") or (run.get("aggregate_name") != "median" if is_aggregate else run.get("repetitions", 1) > 1):
            continue
        runs[run.get("run_name", run["name"])] = run
    return runs


def part_verdict(name, runs):
    """What was wanted of a part and whether it came; empty where nothing was."""
    run = runs[name]
    zlib = runs.get(name.replace("crc32Ours", "crc32Zlib"))
    if name.startswith("crc32Ours") and zlib:
        ratio = zlib["cpu_time"] / run["cpu_time"]
        return judged(f"{ratio:.2f} of zlib's speed, wanted 1", ratio >= 1)
    # Not those that take it in pieces: what a piece costs is not the search.
    if "Garbage" in name and not name.split("/")[0].endswith(("InPieces", "AtOnce")) and "bytes_per_second" in run:
        return judged("wanted 1 GB/s", run["bytes_per_second"] >= GARBAGE_BYTES_PER_SECOND)
    if "allocations" in run:
        return judged(f"wanted {MOST_ALLOCATIONS} allocation", run["allocations"] <= MOST_ALLOCATIONS)
    if name in ("debugLine", "debugLineOfACategoryThatIsOn"):
        ratios = [(runs[bare]["cpu_time"] / run["cpu_time"], bare) for bare in ("bareOpenAppendClose", "bareSystemCalls") if bare in runs]
        return "; ".join(judged(f"{ratio:.2f} of {bare}, wanted {LOG_LINE_SHARE:g}", ratio >= LOG_LINE_SHARE) for ratio, bare in ratios)
    return ""


def parts_rows(parts):
    runs = medians(parts)
    rows = []
    for name, run in runs.items():
        figures = [f"{run[key] / unit:.4g}" if key in run else "-" for key, unit in (("bytes_per_second", 1e9), ("items_per_second", 1), ("allocations", 1))]
        rows.append([name, f"{run['cpu_time']:.4g} {run.get('time_unit', 'ns')}", *figures, str(run.get("label", "")), part_verdict(name, runs)])
    return ["part", "CPU time", "GB/s", "items/s", "allocations", "", "target"], rows


def idle_rows(ports):
    table = []
    for row in ports.get("idle", []):
        cpu = row["cpuPercentPerPort"]
        table.append([f"{row[key]:.4g}" if key in row else "-" for key in IDLE_COLUMNS] + [judged(f"wanted {MOST_IDLE_PERCENT:g} %", cpu <= MOST_IDLE_PERCENT)])
    return [*IDLE_COLUMNS.values(), "target"], table


def call_rows(ports):
    calls = ports.get("calls", {})
    return ["from, to", "median ms"], [[text, f"{calls[key]:.4g}"] for key, text in CALL_ROWS.items() if key in calls]


def plain(header, rows):
    widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
    lines = ["  ".join(text.rjust(width) for text, width in zip(row, widths)) for row in [header, ["-" * width for width in widths], *rows]]
    return "\n".join(line.rstrip() for line in lines)


def markdown(header, rows):
    return "\n".join("| " + " | ".join(row) + " |" for row in [header, ["---:"] * len(header), *rows])
