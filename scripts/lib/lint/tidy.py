"""clang-tidy over the sources that a change touches; .clang-tidy has the checks."""

import json
import os
import re
import sys
from concurrent.futures import ThreadPoolExecutor

from lint.checks import Finding, ToolFailed, at_lines, run

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def compiled_sources(tree, build):
    """What the preset compiles, from the root of the tree; what is made while building is left out."""
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        names = {os.path.relpath(entry["file"], tree) for entry in json.load(file)}
    return sorted(name for name in names if not name.startswith(("..", "build")))


def sources_to_check(files, sources, tree):
    """The sources themselves; for a header the source of its name, or else the first that includes it."""
    known = set(sources)
    wanted = {name for name in files if name in known}
    headers = {name for name in files if name.endswith(".h") and name[:-2] + ".cpp" not in known}
    wanted |= {name[:-2] + ".cpp" for name in files if name.endswith(".h") and name not in headers}
    for source in sources if headers else ():
        with open(os.path.join(tree, source), encoding="utf-8") as file:
            included = headers & set(INCLUDE.findall(file.read()))
        if included:
            wanted.add(source)
            headers -= included
    return sorted(wanted)


def tidy(sources, tree, build, program):
    # The longest first, or one of them may be left running alone in the end.
    by_size = sorted(sources, key=lambda name: -os.path.getsize(os.path.join(tree, name)))
    if sources:
        print(f"clang-tidy: {len(sources)} source{'s' if len(sources) > 1 else ''}", file=sys.stderr, flush=True)

    def check(source):
        told = run([program, "-p", build, "--quiet", source], tree)
        found = [Finding(finding.place, re.sub(r"^(warning|error): ", "", finding.text))
                 for finding in at_lines(told.stdout, tree) if finding.text.startswith(("warning: ", "error: "))]
        if told.returncode != 0 and not found:
            raise ToolFailed(f"clang-tidy, {source}: {(told.stderr or told.stdout).strip()}")
        # Who declares what a header of the system has is told about that header.
        return [finding for finding in found if not finding.place.startswith("..")]

    with ThreadPoolExecutor(os.cpu_count()) as pool:
        return sorted({finding for found in pool.map(check, by_size) for finding in found})
