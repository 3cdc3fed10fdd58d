"""Measures the line, the parts and the ports; see scripts/bench --help."""

import argparse
import json
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from . import cells, compare, report, summary
from .machine import describe_machine, machine_lines
from .processes import end_all
from .programs import Setup
from .runner import ATTEMPTS, Runner, tell_on_stderr

KINDS = ("line", "parts", "ports")
SLOWEST_SHARE = 0.15  # a transfer slower than this counts as failed


def parse_arguments(words):
    parser = argparse.ArgumentParser(prog="scripts/bench", add_help=False)
    parser.add_argument("--build", type=Path)
    parser.add_argument("--uucp", type=Path)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--cells", metavar="REGEX")
    parser.add_argument("--runs", type=int, default=0)
    parser.add_argument("--load", type=float, default=0.0)
    parser.add_argument("--out", type=Path)
    parser.add_argument("--compare", nargs=2, type=Path, metavar=("OLD", "NEW"))
    parser.add_argument("--report", type=Path, metavar="JSON")
    parser.add_argument("--tables", type=Path, metavar="JSON")
    return parser.parse_args(words)


def chosen_cells(arguments):
    matrix = cells.quick_matrix() if arguments.quick else cells.full_matrix()
    if arguments.cells:
        matrix = [cell for cell in matrix if re.search(arguments.cells, cell.label())]
    if arguments.runs:
        single = {cell.label(): cell for cell in matrix}.values()
        matrix = [cells.Cell(cell.condition, cell.program, run, cell.seconds) for cell in single for run in range(arguments.runs)]
    return matrix


def measure_line(arguments, machine, save):
    matrix = chosen_cells(arguments)
    if not matrix:
        raise SystemExit("error: --cells matches no cell; labels look like: " + cells.full_matrix()[0].label())
    load = arguments.load or 0.5 * machine["cores"]
    directory = Path(tempfile.mkdtemp(prefix="transportCom-bench-"))
    directory.chmod(0o755)  # a peer started by root may drop to a user of its own
    try:
        setup = Setup(arguments.build, arguments.uucp, directory, 0.25 if arguments.quick else SLOWEST_SHARE)
        setup.lay_out()
        return Runner(setup, matrix, load, tell_on_stderr, save, 1 if arguments.quick else ATTEMPTS).run()
    finally:
        end_all()
        shutil.rmtree(directory, ignore_errors=True)


def built_program(arguments, name):
    """Its path; None, and a word about it, where this tree does not build it."""
    path = arguments.build / "bin" / name
    if path.exists():
        return str(path)
    if arguments.only:
        raise SystemExit(f"error: {path} is not built")
    tell_on_stderr(f"{name} is not built; left out")
    return None


def json_of(command):
    done = subprocess.run(command, stdout=subprocess.PIPE)
    if done.returncode != 0:
        raise SystemExit(f"error: {Path(command[0]).name} ended with status {done.returncode}")
    return json.loads(done.stdout)


def measure_parts(arguments):
    program = built_program(arguments, "bench-parts")
    if program is None:
        return None
    command = [program, "--benchmark_format=json", "--benchmark_repetitions=" + ("1" if arguments.quick else "5")]
    if arguments.quick:
        command.append("--benchmark_min_time=0.05")
    tell_on_stderr("the parts")
    return json_of(command)


def measure_ports(arguments):
    program = built_program(arguments, "bench-ports")
    if program is None:
        return None
    command = [program] + (["--quick"] if arguments.quick else [])
    tell_on_stderr("the ports")
    return json_of(command)


def print_result(result):
    print("\n".join(machine_lines(result["machine"])))
    if result.get("line"):
        summaries = summary.summarise(result["line"])
        for traffic in (cells.ONE_WAY, cells.BOTH_WAYS, cells.MESSAGES):
            for title, text in (("share of the line", summary.share_cell), ("CPU seconds per megabyte", summary.cpu_cell)):
                header, rows = summary.line_table(summaries, traffic, text)
                if rows:
                    print(f"\n{traffic}: {title}\n{summary.plain_table(header, rows)}")
        print("\ntargets\n" + summary.plain_table(*summary.target_rows(summaries)))
        print("\nwhere a peer leads\n" + summary.plain_table(*summary.behind_peer_rows(summaries)))
    if result.get("ports"):
        print("\nports\n" + summary.plain_table(*report.ports_rows(result["ports"])))
    if result.get("parts"):
        print("\nparts\n" + summary.plain_table(*report.parts_rows(result["parts"])))


def markdown_tables(result):
    """The line's tables as docs/performance.md holds them."""
    texts = []
    summaries = summary.summarise(result.get("line") or [])
    for traffic in (cells.ONE_WAY, cells.BOTH_WAYS, cells.MESSAGES):
        for title, text in (("share of the line", summary.share_cell), ("CPU seconds per megabyte", summary.cpu_cell)):
            header, rows = summary.line_table(summaries, traffic, text)
            if rows:
                texts.append(f"{traffic.capitalize()}, {title}:\n\n{summary.markdown_table(header, rows)}")
    texts.append("Targets:\n\n" + summary.markdown_table(*summary.target_rows(summaries)))
    texts.append("Where a peer leads:\n\n" + summary.markdown_table(*summary.behind_peer_rows(summaries)))
    return "\n\n".join(texts)


def load_result(path):
    try:
        result = json.loads(path.read_text())
    except OSError as error:
        raise SystemExit(f"error: {path}: {error.strerror}")
    except ValueError:
        raise SystemExit(f"error: {path} is no result of scripts/bench (it writes result.json into its --out directory)")
    if not isinstance(result, dict) or "machine" not in result:
        raise SystemExit(f"error: {path} is no result of scripts/bench (it writes result.json into its --out directory)")
    return result


def run_compare(old_path, new_path):
    old, new = load_result(old_path), load_result(new_path)
    if {k: v for k, v in old["machine"].items() if k != "loadAtStart"} != {k: v for k, v in new["machine"].items() if k != "loadAtStart"}:
        print("The machines differ; figures of processor time say little.")
    changes = compare.compare(old, new)
    if not changes:
        raise SystemExit("error: the two results have nothing in common to compare")
    print(summary.plain_table(["what", "old", "new", "noise", ""], [change.row() for change in changes if change.worse or change.better]))
    worse = [change for change in changes if change.worse]
    print(f"\n{len(changes)} figures compared: {len(worse)} worse, {sum(change.better for change in changes)} better, the rest within the noise")
    return 1 if worse else 0


def main(words):
    arguments = parse_arguments(words)
    if arguments.compare:
        return run_compare(*arguments.compare)
    if arguments.tables:
        print(markdown_tables(load_result(arguments.tables)))
        return 0
    if arguments.report:
        print(report.page(load_result(arguments.report)))
        return 0
    out = (arguments.out or Path(arguments.build) / "bench" / time.strftime("%Y%m%d-%H%M%S")).resolve()
    out.mkdir(parents=True, exist_ok=True)
    begun = time.monotonic()
    shown = [word for pair in (["--quick"] if arguments.quick else [], ["--only", arguments.only] if arguments.only else [],
                               ["--cells", arguments.cells] if arguments.cells else [], ["--runs", str(arguments.runs)] if arguments.runs else []) for word in pair]
    result = {"version": 1, "when": time.strftime("%Y-%m-%d %H:%M:%S"), "command": shlex.join(["scripts/bench", *shown]), "machine": describe_machine()}

    def save(kind, measured):
        result[kind] = measured
        (out / "result.json").write_text(json.dumps(result, indent=1))

    for kind, measure in (("parts", measure_parts), ("ports", measure_ports),
                          ("line", lambda a: measure_line(a, result["machine"], lambda runs: save("line", runs)))):
        if arguments.only in (None, kind):
            save(kind, measure(arguments))
    result["tookSeconds"] = round(time.monotonic() - begun)
    (out / "result.json").write_text(json.dumps(result, indent=1))
    (out / "report.html").write_text(report.page(result), encoding="utf-8")
    print_result(result)
    print(f"\nwritten: {out}/result.json, {out}/report.html")
    # With default settings a line far from 56 to 115 kbit/s may well be too slow.
    failed = [run for run in result.get("line") or [] if run["program"] == cells.OURS_PROFILE and not run["ok"]]
    for run in failed:
        print(f"error: {run['program']} failed at {run['rate']} bit/s, {run['delayMs']} ms, {run['ber']:g} ({run['traffic']}): {run['why']}", file=sys.stderr)
    return 1 if failed else 0
