"""Measures the line, the parts and the ports; see scripts/bench --help."""

import argparse
import importlib.util
import json
import os
import re
import shlex
import shutil
import signal
import sys
import tempfile
import time
from pathlib import Path

from . import cells, compare, report, tables
from .data import make_pool, pool_bytes
from .machine import describe_machine, describe_versions, machine_lines
from .processes import CellError, end_all, output_of
from .programs import Setup
from .runner import ATTEMPTS, Runner, tell_on_stderr

KINDS = ("line", "parts", "ports")
SLOWEST_SHARE, QUICK_SLOWEST_SHARE = 0.15, 0.25  # a transfer slower than this counts as failed
TREE = Path(__file__).resolve().parents[3]
NEEDED = {cells.ZMODEM_DEFAULT: ("sz", "rz"), cells.ZMODEM_8K: ("sz", "rz"), cells.ZMODEM_WINDOW: ("sz", "rz"), cells.KERMIT: ("kermit",)}


def positive(kind):
    def read(word):
        value = kind(word)
        if value <= 0:
            raise ValueError
        return value
    read.__name__ = f"number above 0 ({kind.__name__})"
    return read


def expression(word):
    try:
        return re.compile(word)
    except re.error as error:
        raise argparse.ArgumentTypeError(f"{word}: {error}")


def parse_arguments(words):
    parser = argparse.ArgumentParser(prog="scripts/bench", add_help=False)
    parser.add_argument("--build", type=Path)
    parser.add_argument("--uucp", type=Path)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", choices=KINDS)
    parser.add_argument("--cells", metavar="REGEX", type=expression)
    parser.add_argument("--runs", type=positive(int))
    parser.add_argument("--load", type=positive(float))
    parser.add_argument("--out", type=Path)
    parser.add_argument("--compare", nargs=2, type=Path, metavar=("OLD", "NEW"))
    parser.add_argument("--report", type=Path, metavar="JSON")
    parser.add_argument("--tables", type=Path, metavar="JSON")
    arguments = parser.parse_args(words)
    arguments.matrix = chosen_cells(arguments) if arguments.only in (None, "line") else []
    if arguments.only in (None, "line") and not arguments.matrix:
        parser.error("--cells matches no cell; labels look like: " + cells.full_matrix()[0].label())
    return arguments


def chosen_cells(arguments):
    matrix = cells.quick_matrix() if arguments.quick else cells.full_matrix()
    if arguments.cells:
        matrix = [cell for cell in matrix if arguments.cells.search(cell.label())]
    if arguments.runs:
        single = {cell.label(): cell for cell in matrix}.values()
        matrix = [cells.Cell(cell.condition, cell.program, run, cell.seconds) for cell in single for run in range(arguments.runs)]
    return matrix


def check_tools(arguments):
    """Before hours are spent: whatever would be missing at the end."""
    needed = {program for cell in arguments.matrix for program in NEEDED.get(cell.program, ())}
    if any(cell.program.startswith("UUCP") for cell in arguments.matrix):
        needed.add(str(arguments.uucp / "usr/lib/uucp/uucico"))
    missing = sorted(program for program in needed if not shutil.which(program))
    if not importlib.util.find_spec("matplotlib"):
        missing.append("python3-matplotlib")
    if missing:
        raise SystemExit(f"error: missing: {', '.join(missing)}; run scripts/bench without --no-install")


def measure_line(arguments, machine, save):
    load = arguments.load or 0.55 * machine["cores"]
    directory = Path(tempfile.mkdtemp(prefix="transportCom-bench-"))
    directory.chmod(0o755)  # a peer started by root may drop to a user of its own
    try:
        setup = Setup(arguments.build, arguments.uucp, directory, QUICK_SLOWEST_SHARE if arguments.quick else SLOWEST_SHARE,
                      make_pool(TREE, pool_bytes(arguments.matrix)))
        setup.lay_out()
        return Runner(setup, arguments.matrix, load, tell_on_stderr, save, 1 if arguments.quick else ATTEMPTS).run()
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def measure_program(arguments, name, options):
    """The JSON that it prints; None, and a word about it, where this tree does not build it."""
    path = arguments.build / "bin" / name
    if not path.exists():
        if arguments.only:
            raise SystemExit(f"error: {path} is not built")
        tell_on_stderr(f"{name} is not built; left out")
        return None
    tell_on_stderr(name)
    status, output = output_of([path, *options])
    if status != 0:
        raise SystemExit(f"error: {name} ended with status {status}")
    return json.loads(output)


def measure_parts(arguments):
    options = ["--benchmark_repetitions=1", "--benchmark_min_time=0.05"] if arguments.quick else ["--benchmark_repetitions=5"]
    return measure_program(arguments, "bench-parts", ["--benchmark_format=json", *options])


def measure_ports(arguments):
    return measure_program(arguments, "bench-ports", ["--quick"] if arguments.quick else [])


def print_result(result):
    print("\n".join(machine_lines(result)))
    for table in tables.tables_of(result):
        print(f"\n{table.title}\n{tables.plain(table.header, table.rows)}")


def markdown_tables(result):
    """All tables as docs/performance-measurements.md holds them."""
    return "\n\n".join(f"{table.title}:\n\n{tables.markdown(table.header, table.rows)}" for table in tables.tables_of(result))


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
    shown = [change.row() for change in changes if change.worse or change.better or change.remark]
    print(tables.plain(["what", "old", "new", "noise", ""], shown))
    worse = [change for change in changes if change.worse]
    print(f"\n{len(changes)} figures compared: {len(worse)} worse, {sum(change.better for change in changes)} better, the rest within the noise")
    return 1 if worse else 0


def write_whole(path, text):
    """An interrupt or a full disk leaves what was there."""
    part = path.with_name(path.name + ".part")
    part.write_text(text, encoding="utf-8")
    os.replace(part, path)


def command_words(arguments):
    words = ["scripts/bench", *(["--quick"] if arguments.quick else [])]
    for name in ("only", "cells", "runs", "load"):
        value = getattr(arguments, name)
        if value is not None:
            words += ["--" + name, value.pattern if name == "cells" else str(value)]
    return shlex.join(words)


def end_by_signal(number, _):
    """The first one ends the run; what is cleaned up then is not to be interrupted."""
    for other in ENDING_SIGNALS:
        signal.signal(other, signal.SIG_IGN)
    raise SystemExit(128 + number)


ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def measure(arguments, out):
    """Measures what was asked for; result.json is there at any time."""
    begun = time.monotonic()
    result = {"version": 1, "when": time.strftime("%Y-%m-%d %H:%M:%S"), "command": command_words(arguments),
              "machine": describe_machine(), "versions": describe_versions(TREE, arguments.uucp)}

    def save(kind, measured):
        result[kind] = measured
        write_whole(out / "result.json", json.dumps(result))

    for kind, measure_kind in (("parts", measure_parts), ("ports", measure_ports),
                               ("line", lambda a: measure_line(a, result["machine"], lambda runs: save("line", runs)))):
        if arguments.only in (None, kind):
            save(kind, measure_kind(arguments))
    result["tookSeconds"] = round(time.monotonic() - begun)
    write_whole(out / "result.json", json.dumps(result, indent=1))
    write_whole(out / "report.html", report.page(result))
    return result


def exit_status(runs):
    """1 if a run could not be measured or failed with our recommended settings, with a word on each."""
    # With default settings a line far from 56 to 115 kbit/s may well be too slow.
    bad = [run for run in runs if not run["measured"] or (run["program"] in (cells.OURS_PROFILE, cells.OURS_ADAPTIVE) and not run["ok"])]
    for run in bad:
        what = "failed" if run["measured"] else "was not measured"
        print(f"error: {run['program']} {what} at {run['rate']} bit/s, {run['delayMs']} ms, {run['ber']:g} ({run['traffic']}): {run['why']}", file=sys.stderr)
    return 1 if bad else 0


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
    for number in ENDING_SIGNALS:
        signal.signal(number, end_by_signal)
    check_tools(arguments)
    out = (arguments.out or Path(arguments.build) / "bench" / time.strftime("%Y%m%d-%H%M%S")).resolve()
    out.mkdir(parents=True, exist_ok=True)
    try:
        result = measure(arguments, out)
    except (OSError, CellError) as error:
        raise SystemExit(f"error: {error}")
    finally:
        end_all()
    print_result(result)
    print(f"\nwritten: {out}/result.json, {out}/report.html")
    return exit_status(result.get("line") or [])
