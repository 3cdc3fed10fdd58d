"""Which test programs can see a change of a file, the nearest first: from CMake's file API and the include lines."""

import json
import os
import re
from collections import deque, namedtuple
from pathlib import Path

from testnames import is_named_after

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
# A program that is started or loaded is farther than what the test links.
STARTED_STEPS = 3
# So much farther are the tests of another room, tests/host being the tests of host/ and of what is in it.
OTHER_ROOM_STEPS = 1
# Linked, but nothing that the test's own sources lead to.
LINKED_STEPS = 100
LIKENESS_LETTERS = 4
LINKED_IN = {"STATIC_LIBRARY", "OBJECT_LIBRARY", "INTERFACE_LIBRARY"}

# program: where it is built, from the build folder, or None. sources: from the root of the tree. needs: names of targets.
Target = namedtuple("Target", "name kind program sources needs")


def ask_for_targets(build):
    """Before configuring: CMake is to tell its targets."""
    query = build / ".cmake/api/v1/query/codemodel-v2"
    query.parent.mkdir(parents=True, exist_ok=True)
    query.touch()


def read_targets(build):
    """What CMake has told of the build folder: {name: Target}."""
    replies = build / ".cmake/api/v1/reply"
    index = json.loads(max(replies.glob("index-*.json")).read_text(encoding="utf-8"))
    model = json.loads((replies / index["reply"]["codemodel-v2"]["jsonFile"]).read_text(encoding="utf-8"))
    described = [json.loads((replies / target["jsonFile"]).read_text(encoding="utf-8"))
                 for target in model["configurations"][0]["targets"]]
    names = {target["id"]: target["name"] for target in described}
    targets = {}
    for target in described:
        program = target["artifacts"][0]["path"] if target["type"] == "EXECUTABLE" else None
        sources = [source["path"] for source in target.get("sources", []) if source["path"].endswith((".cpp", ".h"))]
        needs = [names[need["id"]] for need in target.get("dependencies", []) if need["id"] in names]
        targets[target["name"]] = Target(target["name"], target["type"], program, sources, needs)
    return targets


def alike(file, other):
    """How many letters their names begin with in common; a few are chance."""
    # Classes have a C before their name, and so have their files.
    letters = len(os.path.commonprefix([Path(name).stem.removeprefix("c") for name in (file, other)]))
    return letters if letters >= LIKENESS_LETTERS else 0


def of_its_room(target, file):
    """Whether the test's own sources are in the folder of tests for the file's room."""
    rooms = {"tests", *(f"tests/{room}" for room in Path(file).parts[:-1])}
    return any(str(Path(source).parent) in rooms for source in target.sources)


def first_of(nearest, least):
    """The nearest, and with the last of them all that are as near: which of those sees a fault is not known."""
    names = [name for name, _ in nearest]
    farthest = nearest[:least][-1][1] if nearest else 0
    if farthest >= LINKED_STEPS:
        return names[:least]
    return [name for name, steps in nearest if steps <= farthest]


class Graph:
    """Targets, and which file includes which."""

    def __init__(self, targets, read_file):
        """read_file(name): the text of a file of the tree, or None where there is none."""
        self._targets = targets
        self._read_file = read_file
        self._includes = {}

    def includes(self, file):
        if file not in self._includes:
            self._includes[file] = INCLUDE.findall(self._read_file(file) or "")
        return self._includes[file]

    def _next(self, file):
        """What it includes; and behind a header the source that keeps its promises."""
        source = str(Path(file).with_suffix(".cpp"))
        return self.includes(file) + ([source] if file.endswith(".h") and self._read_file(source) is not None else [])

    def _steps_from(self, starts, follows_sources):
        """{file: steps} from {file: steps at the start}; an include line is one, from a header to its source is one."""
        steps = dict(starts)
        queue = deque(sorted(starts, key=starts.get))
        while queue:
            file = queue.popleft()
            for reached in self._next(file) if follows_sources else self.includes(file):
                if steps[file] + 1 < steps.get(reached, LINKED_STEPS):
                    steps[reached] = steps[file] + 1
                    queue.append(reached)
        return steps

    def _needed(self, name):
        """{target: 0 if it is linked, more if it is started or loaded} of all that a target needs."""
        started = {name: 0}
        queue = deque([name])
        while queue:
            target = self._targets[queue.popleft()]
            for need in target.needs:
                further = started[target.name] + (0 if self._targets[need].kind in LINKED_IN else STARTED_STEPS)
                if further < started.get(need, LINKED_STEPS):
                    started[need] = further
                    queue.append(need)
        return started

    def nearest(self, file):
        """[(test program's target, steps)] of those that a change of the file reaches, the nearest first."""
        changed = {target.name for target in self._targets.values()
                   if file in self._steps_from(dict.fromkeys(target.sources, 0), False)}
        found = []
        for target in self._targets.values():
            if not (target.program and target.program.startswith("tests/")):
                continue
            needed = self._needed(target.name)
            if changed & set(needed):
                steps = self._steps(target, needed, file) + (0 if of_its_room(target, file) else OTHER_ROOM_STEPS)
                found.append((steps, -max(alike(source, file) for source in target.sources), target.name))
        return [(name, steps) for steps, _, name in sorted(found)]

    def _steps(self, target, needed, file):
        if any(is_named_after(source, file) for source in target.sources):
            return 0
        starts = dict.fromkeys(target.sources, 0)
        for name, started in needed.items():
            if started and self._targets[name].kind not in LINKED_IN:
                starts.update({source: started for source in self._targets[name].sources if source not in starts})
        read = self._steps_from(starts, True)
        return min(read.get(unit, LINKED_STEPS) for unit in self._unit(file))

    def _unit(self, file):
        """The file, and the header that declares what is in it: of its name, or the most alike that it includes."""
        header = str(Path(file).with_suffix(".h"))
        if self._read_file(header) is not None:
            return {file, header}
        return {file, max(self.includes(file), key=lambda included: alike(included, file), default=file)}
