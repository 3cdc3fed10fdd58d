"""Which lines and branches of each room the tests reach, and which units have no test of their own.

python3 rooms.py --tree DIR SUMMARY.json    (of gcovr --json-summary)
"""

import argparse
import json
import re
import sys
from collections import Counter
from pathlib import Path

from testnames import ENDING, is_named_after

# What is installed or run; tests, benches and what they stand on measure these.
ROOMS = ("common", "plugin", "com", "sim", "host", "tools")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
COUNTS = ("line_covered", "line_total", "branch_covered", "branch_total")


def sources(tree):
    return sorted(file.relative_to(tree) for room in ROOMS for pattern in ("*.cpp", "*.h") for file in (tree / room).rglob(pattern))


def units(tree, with_code):
    """Sources, and headers alone that have code in them; a program's main() is run by tests of the program."""
    return [source for source in sources(tree)
            if source.stem != "main" and not source.stem.endswith("_main")
            and (source.suffix == ".cpp" or str(source) in with_code and not (tree / source.with_suffix(".cpp")).exists())]


def included_by_tests(tree):
    """What tests include, and what the headers of their own folder do that they include."""
    included = set()
    for test in (tree / "tests").rglob(f"*{ENDING}"):
        for target in INCLUDE.findall(test.read_text(encoding="utf-8")):
            included.add(target)
            fixture = tree / target
            if fixture.parent == test.parent and fixture.exists():
                included.update(INCLUDE.findall(fixture.read_text(encoding="utf-8")))
    return included


def units_without_tests(tree, with_code):
    """The units that no test is named after and of which no test includes the header."""
    tests = sorted((tree / "tests").rglob(f"*{ENDING}"))
    included = included_by_tests(tree)
    return [unit for unit in units(tree, with_code)
            if not any(is_named_after(test, unit) for test in tests) and str(unit.with_suffix(".h")) not in included]


def counts_of_rooms(files):
    """{folder: counts}: of each folder with sources, of each room that has folders in it, and of all."""
    rooms = {}
    for file in files:
        folder = Path(file["filename"]).parent
        for name in {str(folder), folder.parts[0], "all"}:
            rooms.setdefault(name, Counter()).update({count: file[count] for count in COUNTS})
    return rooms


def percent(covered, total):
    return f"{100 * covered / total:.1f}" if total else "-"


def table(files, untested):
    rooms = counts_of_rooms(files)
    missing = Counter(str(source.parent) for source in untested)
    for room in {source.parts[0] for source in untested}:
        missing[room] = sum(source.parts[0] == room for source in untested)
    missing["all"] = len(untested)
    order = sorted((name for name in rooms if name != "all"), key=lambda name: (ROOMS.index(name.split("/")[0]), name)) + ["all"]
    rows = [("room", "lines", "reached %", "branches", "reached %", "units without a test")]
    for name in order:
        counts = rooms[name]
        rows.append((name, str(counts["line_total"]), percent(counts["line_covered"], counts["line_total"]),
                     str(counts["branch_total"]), percent(counts["branch_covered"], counts["branch_total"]), str(missing[name])))
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["  ".join([row[0].ljust(widths[0])] + [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]) for row in rows]
    return [lines[0], "  ".join("-" * width for width in widths)] + lines[1:]


def main(words):
    parser = argparse.ArgumentParser()
    parser.add_argument("--tree", type=Path, required=True)
    parser.add_argument("summary", type=Path)
    arguments = parser.parse_args(words)
    files = json.loads(arguments.summary.read_text(encoding="utf-8"))["files"]
    if not files:
        print("error: no test has run that reaches a room", file=sys.stderr)
        return 1
    untested = units_without_tests(arguments.tree, {file["filename"] for file in files if file["line_total"]})
    print("\n".join(table(files, untested)))
    if untested:
        print("\nno test is named after these or includes their header:")
        for source in untested:
            print(f"    {source}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
