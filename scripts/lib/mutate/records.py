"""What has been judged, on disk as soon as it is known, and the report made of it."""

import difflib
import json
import random
from collections import Counter

from mutate import equivalents
from mutate.judge import Judgement


class Records:
    """The judgements of one commit, in a file of a line each; those of other commits and options stay unread."""

    def __init__(self, file, commit, options):
        """options: whatever else changes a judgement."""
        self._file = file
        self._under = f"{commit} {options}"
        self._known = {}
        try:
            lines = file.read_text(encoding="utf-8").splitlines()
        except FileNotFoundError:
            lines = []
        for line in lines:
            try:
                record = json.loads(line)
            except ValueError:
                continue  # cut off when the machine went down
            if record["under"] == self._under:
                self._known[record["fault"]] = Judgement(*record["judgement"])

    def get(self, fault):
        return self._known.get(fault.identity())

    def add(self, fault, judgement):
        self._known[fault.identity()] = judgement
        with open(self._file, "a", encoding="utf-8") as file:
            file.write(json.dumps({"under": self._under, "fault": fault.identity(), "judgement": list(judgement)}) + "\n")


class Seed:
    """Drawn anew, but for a run of the same commit and options that was interrupted."""

    def __init__(self, file, what, given):
        self._file = file
        self._what = what
        self.was_interrupted = False
        if given is None:
            try:
                kept = json.loads(file.read_text(encoding="utf-8"))
            except (FileNotFoundError, ValueError):
                kept = {}
            self.was_interrupted = kept.get("what") == what
            given = kept["seed"] if self.was_interrupted else random.SystemRandom().randrange(1, 2**31)
        self.number = given
        file.write_text(json.dumps({"what": what, "seed": given}), encoding="utf-8")

    def is_done(self):
        self._file.unlink(missing_ok=True)


def diff(fault, text):
    lines = difflib.unified_diff(text.splitlines(), fault.applied(text).splitlines(), f"a/{fault.file}", f"b/{fault.file}",
                                 n=2, lineterm="")
    return "\n".join(lines)


def in_line(fault):
    function = f" in {fault.function}" if fault.function else ""
    return f"{fault.file}:{fault.line}: {fault.kind}{function}"


class Report:
    def __init__(self):
        self._judged = []  # (fault, judgement, text)
        self._accepted = []  # (fault, reason)

    def add(self, fault, judgement, text):
        self._judged.append((fault, judgement, text))

    def accept(self, fault, reason):
        self._accepted.append((fault, reason))

    def survivors(self):
        return [entry for entry in self._judged if entry[1].outcome == "survived"]

    def counted(self):
        """How many have been found or have survived."""
        return sum(judgement.outcome != "not built" for _, judgement, _ in self._judged)

    def table(self):
        rooms = {}
        for fault, judgement, _ in self._judged:
            rooms.setdefault(fault.file.rpartition("/")[0], Counter())[judgement.outcome] += 1
        for fault, _ in self._accepted:
            rooms.setdefault(fault.file.rpartition("/")[0], Counter())["accepted"] += 1
        lines = []
        for room, counts in sorted(rooms.items()):
            tried = counts["found"] + counts["survived"]
            share = f", {100 * counts['found'] / tried:.0f} %" if tried else ""
            lines.append(f"{room}: {counts['found']} of {tried} found{share}; {counts['accepted']} accepted, "
                         f"{counts['not built']} not built")
        return lines

    def text(self, head):
        parts = [head + "\n" + "\n".join(self.table())]
        for outcome in ("survived", "found", "not built"):
            for fault, judgement, text in self._judged:
                if judgement.outcome == outcome:
                    parts.append(self._one(fault, judgement, text))
        parts += [f"ACCEPTED {in_line(fault)}\n{reason}" for fault, reason in self._accepted]
        return "\n\n".join(parts) + "\n"

    @staticmethod
    def _one(fault, judgement, text):
        lines = [f"{judgement.outcome.upper()} {in_line(fault)}", diff(fault, text), f"ran: {', '.join(judgement.ran) or 'nothing'}"]
        if judgement.told:
            lines.append(f"{'by' if judgement.outcome == 'found' else 'because'}: {judgement.told}")
        lines += [f"unsteady: {told}" for told in judgement.unsteady]
        if judgement.outcome == "survived":
            lines.append("if no test can tell the two apart, for tests/mutants/equivalent.txt:\n" + equivalents.as_entry(fault))
        return "\n".join(lines)
