"""scripts/mutate: puts deliberate faults into a copy of the tree and tells which of them no test finds."""

import argparse
import contextlib
import fcntl
import os
import random
import signal
import sys
from pathlib import Path

from mutate import equivalents, faults, records, workplace
from mutate.judge import Judge
from mutate.workplace import CouldNotRun

SURVIVED = 1
COULD_NOT_RUN = 2
# What is installed or run; tests and what they stand on are what is measured with.
ROOMS = ("common", "plugin", "com", "sim", "host", "tools")
EQUIVALENT = "tests/mutants/equivalent.txt"
NICENESS = 10


def say(text):
    print(text, flush=True)


def parse(words):
    parser = argparse.ArgumentParser(prog="scripts/mutate", add_help=False)
    parser.add_argument("--tree", type=Path, required=True)
    parser.add_argument("--since")
    parser.add_argument("--seed", type=int)
    parser.add_argument("--count", type=int, default=20)
    parser.add_argument("--programs", type=int, default=3)
    parser.add_argument("--preset", default="dev")
    parser.add_argument("--jobs", type=int, default=workplace.processors())
    parser.add_argument("--kind", action="append", choices=faults.KINDS)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("folder", nargs="?")
    arguments = parser.parse_args(words)
    if arguments.since and arguments.folder:
        parser.error("--since or a folder, not both")
    if min(arguments.count, arguments.programs, arguments.jobs) < 1:
        parser.error("--count, --programs and --jobs need 1 or more")
    return arguments


def wanted_files(arguments, commit):
    """{file: lines, or None for all of them}."""
    tree = arguments.tree
    if arguments.since:
        try:
            since = workplace.commit_of(tree, arguments.since)
        except CouldNotRun:
            raise CouldNotRun(f"there is no commit {arguments.since}") from None
        named = workplace.changed_lines(tree, since, commit)
    else:
        named = dict.fromkeys(workplace.files_of(tree, commit, (arguments.folder or "").strip("/")))
    found = {file: lines for file, lines in named.items() if file.split("/")[0] in ROOMS and file.endswith((".cpp", ".h"))}
    if not found and not arguments.since:
        raise CouldNotRun(f"no sources in {arguments.folder}: a folder or a file of {', '.join(ROOMS)}, from the root of the tree")
    return found


def touches(fault, text, lines):
    if lines is None:
        return True
    last = fault.line + text.count("\n", *fault.span)
    return not lines.isdisjoint(range(fault.line, last + 1))


def draw(arguments, place, commit, entries, seed):
    """The faults in the order in which they are tried."""
    drawn = []
    for file, lines in sorted(wanted_files(arguments, commit).items()):
        text = place.read(file)
        of_file = faults.faults_of(file, text)
        for entry in equivalents.stale(entries, of_file):
            say(f"{EQUIVALENT}:{entry.line}: there is no such fault of {entry.file} any more: {entry.old}")
        drawn += [fault for fault in of_file
                  if touches(fault, text, lines) and (not arguments.kind or fault.kind in arguments.kind)]
    return faults.in_turns(drawn, random.Random(seed))


def print_list(order, entries):
    for fault in order:
        accepted = " (accepted)" if equivalents.reason(entries, fault) else ""
        say(f"{records.in_line(fault)}{accepted}\n    - {faults.one_line(fault.old)}\n    + {faults.one_line(fault.new)}")


def try_all(arguments, order, entries, judge, known, place):
    report = records.Report()
    for fault in order:
        if report.counted() == arguments.count:
            break
        reason = equivalents.reason(entries, fault)
        if reason:
            report.accept(fault, reason)
            continue
        text = place.read(fault.file)
        judgement = known.get(fault)
        again = " (known)" if judgement else ""
        if not judgement:
            say(f"[{report.counted() + 1}/{arguments.count}] {records.in_line(fault)}: {faults.one_line(fault.new)}")
            judgement = judge.judge(fault)
            known.add(fault, judgement)
        report.add(fault, judgement, text)
        told = f": {judgement.told}" if judgement.told else ""
        say(f"    {records.in_line(fault)}: {judgement.outcome}{told}, {judgement.seconds} s{again}")
    return report


@contextlib.contextmanager
def alone(folder):
    """Two runs would change each other's copy."""
    with open(folder / "lock", "w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise CouldNotRun("another scripts/mutate is running in this tree") from None
        yield


def mutate(arguments):
    folder = arguments.tree / "build" / "mutate"
    folder.mkdir(parents=True, exist_ok=True)
    os.nice(NICENESS)
    commit = workplace.commit_of(arguments.tree, "HEAD")
    if workplace.uncommitted(arguments.tree):
        say("note: what is not committed is not looked at")
    with alone(folder):
        place = workplace.Workplace(arguments.tree, folder)
        place.stand_at(commit)
        entries = equivalents.read(place.read(EQUIVALENT) or "")
        what = [commit, arguments.since, arguments.folder, arguments.kind, arguments.count, arguments.programs, arguments.preset]
        if arguments.list:
            print_list(draw(arguments, place, commit, entries, arguments.seed or 0), entries)
            return 0
        seed = records.Seed(folder / "seed.json", what, arguments.seed)
        order = draw(arguments, place, commit, entries, seed.number)
        say(f"{len(order)} faults can be put in, {min(len(order), arguments.count)} of them now, "
            f"{'going on with ' if seed.was_interrupted else ''}--seed {seed.number}")
        judge = Judge(place, commit, arguments.preset, arguments.programs, arguments.jobs, say)
        known = records.Records(folder / "results.jsonl", commit, f"{arguments.preset} {arguments.programs}")
        report = try_all(arguments, order, entries, judge, known, place)
        file = folder / "report.txt"
        file.write_text(report.text(f"commit {commit}, seed {seed.number}, {arguments.preset}"), encoding="utf-8")
        seed.is_done()
    for fault, judgement, text in report.survivors():
        say(f"\nSURVIVED {records.in_line(fault)}\n{records.diff(fault, text)}\nran: {', '.join(judgement.ran) or 'nothing'}")
    say("\n" + "\n".join(report.table()))
    say(f"the report: {file.relative_to(arguments.tree)}")
    return SURVIVED if report.survivors() else 0


def main(words):
    arguments = parse(words)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        return mutate(arguments)
    except (CouldNotRun, equivalents.Unreadable) as error:
        print(f"error: {error}", file=sys.stderr)
        return COULD_NOT_RUN
    except KeyboardInterrupt:
        say("interrupted; the same command goes on")
        return 128 + signal.SIGINT
