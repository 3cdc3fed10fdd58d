"""Puts one fault after the other into the copy, and finds out which tests see it."""

import json
import math
import time
from collections import namedtuple

from mutate import programs, trials
from mutate.workplace import CouldNotRun, did_not_start

LOCKER_PRESET = "tsan"

# outcome: "found", "survived" or "not built". ran: the programs whose tests ran. told: by what, or why.
Judgement = namedtuple("Judgement", "outcome told ran unsteady seconds")


class Judge:
    def __init__(self, place, commit, preset, least, jobs, say):
        """least: how many programs are asked, the nearest first; more where several are equally near."""
        self._place = place
        self._commit = commit
        self._preset = preset
        self._least = least
        self._jobs = jobs
        self._say = say
        self._graphs = {}
        self._runners = {}
        self._baselines = {}  # (preset, program): (tests, seconds of each)

    def judge(self, fault):
        """A judgement; the copy is as before in the end."""
        begun = time.monotonic()
        original = self._place.read(fault.file)
        preset = LOCKER_PRESET if fault.kind == "locker" else self._preset
        try:
            outcome, told, ran, unsteady = self._try(fault, original, preset)
        finally:
            self._place.write(fault.file, original)
        return Judgement(outcome, told, ran, unsteady, round(time.monotonic() - begun))

    def programs(self, file, preset):
        if preset not in self._graphs:
            self._graphs[preset] = self._place.graph(preset)
        nearest = self._graphs[preset].nearest(file)
        steps = dict(nearest)
        # Of those that are equally near the quickest first, as far as that is known.
        return sorted(programs.first_of(nearest, self._least), key=lambda name: (steps[name], self._seconds(preset, name)))

    def _seconds(self, preset, program):
        _, taken = self._baselines.get((preset, program), (None, {}))
        return sum(seconds or 0 for seconds in taken.values()) if taken else math.inf

    def _try(self, fault, original, preset):
        ran, unsteady = [], []
        programs = self.programs(fault.file, preset)
        for program in programs:
            # Without the fault first: what passes, and how long it takes.
            tests, taken = self._baseline(preset, program, fault.file, original)
            self._place.write(fault.file, fault.applied(original))
            built, said = self._place.build(preset, program, self._jobs)
            if not built and did_not_start(said):
                built, said = self._place.build(preset, program, self._jobs)
                if did_not_start(said):
                    return "found", f"{program}: does not start", ran + [program], unsteady
            if not built:
                return "not built", first_error(said), ran, unsteady
            verdict = self._runners[preset].judge(tests, taken)
            ran.append(f"{program} ({verdict.count} tests{', ' + preset if preset != self._preset else ''})")
            unsteady += verdict.unsteady
            if verdict.found:
                return "found", verdict.found, ran, unsteady
        return "survived", "" if programs else "no test program reaches the file", ran, unsteady

    def _baseline(self, preset, program, file, original):
        if (preset, program) not in self._baselines:
            self._runners.setdefault(preset, trials.Runner(preset, self._jobs))
            self._place.write(file, original)
            self._say(f"    {program} without a fault ({preset})")
            built, said = self._place.build(preset, program, self._jobs)
            if not built:
                raise CouldNotRun(f"{program} cannot be built as it is:\n{said[-3000:]}")
            build = self._place.build_folder(preset)
            tests = trials.tests_of(build, f"tests/{program}")
            taken = self._kept(preset, program)
            if taken is None or {test.name for test in tests} - set(taken):
                taken = self._runners[preset].baseline(tests)
                self._keep(preset, program, taken)
            failing = [name for name, seconds in taken.items() if seconds is None]
            if failing:
                self._say(f"    without these, which fail as it is: {', '.join(failing)}")
            self._baselines[preset, program] = tests, taken
        return self._baselines[preset, program]

    # Beside what is built, so that the two are thrown away together.
    def _file(self, preset):
        return self._place.build_folder(preset) / "mutate-seconds.json"

    def _kept(self, preset, program):
        try:
            kept = json.loads(self._file(preset).read_text(encoding="utf-8"))
        except (FileNotFoundError, ValueError):
            return None
        return kept["programs"].get(program) if kept["commit"] == self._commit else None

    def _keep(self, preset, program, taken):
        programs = {name: self._baselines[of, name][1] for of, name in self._baselines if of == preset}
        try:
            kept = json.loads(self._file(preset).read_text(encoding="utf-8"))
            if kept["commit"] == self._commit:
                programs = {**kept["programs"], **programs}
        except (FileNotFoundError, ValueError):
            pass
        programs[program] = taken
        self._file(preset).write_text(json.dumps({"commit": self._commit, "programs": programs}), encoding="utf-8")


def first_error(said):
    errors = [line for line in said.splitlines() if "error:" in line or "undefined reference" in line]
    return errors[0].strip() if errors else (said.strip().splitlines() or ["no reason given"])[-1]
