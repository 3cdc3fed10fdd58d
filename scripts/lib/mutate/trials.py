"""Runs the tests of a program, each in a process and a folder of its own, until one has failed twice."""

import json
import os
import shutil
import signal
import subprocess
import tempfile
import threading
import time
from collections import namedtuple
from concurrent.futures import ThreadPoolExecutor

from mutate.workplace import CouldNotRun, end_group, run

# A test may take so many times as long as without a fault, and at least that long; then it hangs.
TIMES_AS_LONG = 10
LEAST_SECONDS = 20
# And so many times longer when it is asked again: on a machine that has become busy meanwhile it may only be slow.
PATIENCE = 4
# What a fault that never ends may take of the machine.
FILE_BYTES = 1 << 30
MEMORY_BYTES = 4 << 30

Test = namedtuple("Test", "name command environment folder seconds")
# found: what failed twice, or None. unsteady: what failed once and passed then. count: tests that ran.
Verdict = namedtuple("Verdict", "found unsteady count")


def tests_of(build, program):
    """The tests that CTest knows of a program that is built."""
    told = run(["ctest", "--show-only=json-v1"], build)
    if told.returncode != 0:
        raise CouldNotRun(f"ctest: {told.stderr.strip()}")
    return read_tests(json.loads(told.stdout)["tests"], str(build / program))


def read_tests(described, program):
    found = []
    for test in described:
        if test.get("command", [None])[0] != program:
            continue
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        if not properties.get("DISABLED"):
            found.append(Test(test["name"], test["command"], dict(line.split("=", 1) for line in properties.get("ENVIRONMENT", [])),
                              properties.get("WORKING_DIRECTORY"), float(properties.get("TIMEOUT", 120))))
    return found


class Runner:
    def __init__(self, preset, jobs):
        self._jobs = jobs
        # The thread sanitizer's memory map does not fit the kernel's widest address randomisation.
        fixed = preset == "tsan" and shutil.which("setarch") and run(["setarch", "-R", "true"], "/").returncode == 0
        self._before = ["setarch", "-R"] if fixed else []
        self._before += ["prlimit", "--core=0", f"--fsize={FILE_BYTES}"]
        # Sanitizers reserve far more than they use.
        if preset not in ("tsan", "asan"):
            self._before.append(f"--as={MEMORY_BYTES}")

    def run(self, test, seconds):
        """(how it ended, "" if well; seconds it took)"""
        folder = tempfile.mkdtemp(prefix="mutate-")
        # A fault that writes or deletes where it should not finds nothing of the user's there.
        environment = dict(os.environ, **test.environment, TMPDIR=folder, HOME=folder)
        begun = time.monotonic()
        try:
            process = subprocess.Popen(self._before + test.command, cwd=test.folder or folder, env=environment,
                                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                       start_new_session=True)
            try:
                status = process.wait(seconds)
                ended = "" if status == 0 else f"exit status {status}" if status > 0 else f"killed by signal {-status}"
            except subprocess.TimeoutExpired:
                ended = f"not over after {seconds:.0f} s"
            finally:
                end_group(process)
            if ended:
                end_all_of(folder)
        finally:
            shutil.rmtree(folder, ignore_errors=True)
        return ended, time.monotonic() - begun

    def baseline(self, tests):
        """{name: seconds, or None of a test that fails without a fault}."""
        with ThreadPoolExecutor(self._jobs) as pool:
            first = list(pool.map(lambda test: self.run(test, test.seconds), tests))
        taken = {}
        for test, (ended, seconds) in zip(tests, first):
            if ended:
                ended, seconds = self.run(test, test.seconds)
            taken[test.name] = None if ended else seconds
        return taken

    def judge(self, tests, taken):
        """Runs what passes without a fault, the quickest first."""
        waiting = sorted((test for test in tests if taken.get(test.name) is not None), key=lambda test: taken[test.name])
        unsteady = []
        count = 0
        while waiting:
            failed, waiting, ran = self._until_failure(waiting, taken)
            count += ran
            for test, ended in failed:
                again, _ = self.run(test, min(test.seconds, PATIENCE * longest(test, taken)))
                if again:
                    return Verdict(f"{test.name}: {ended}, then {again}", unsteady, count)
                unsteady.append(f"{test.name}: {ended}, then passed")
        return Verdict(None, unsteady, count)

    def _until_failure(self, tests, taken):
        """([(test, how it ended)] that failed, tests that did not run, how many ran)"""
        stop = threading.Event()

        def one(test):
            if stop.is_set():
                return None
            ended, _ = self.run(test, longest(test, taken))
            if ended:
                stop.set()
            return ended

        with ThreadPoolExecutor(self._jobs) as pool:
            try:
                ends = list(pool.map(one, tests))
            except BaseException:
                stop.set()
                raise
        failed = [(test, ended) for test, ended in zip(tests, ends) if ended]
        left = [test for test, ended in zip(tests, ends) if ended is None]
        return failed, left, len(tests) - len(left)


def longest(test, taken):
    return min(test.seconds, max(LEAST_SECONDS, TIMES_AS_LONG * taken[test.name]))


def end_all_of(folder):
    """What the test has started in groups of its own, and not ended; it has the test's folder in its environment."""
    mark = f"TMPDIR={folder}".encode()
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{process}/environ", "rb") as environment:
                is_of_test = mark in environment.read().split(b"\0")
            if is_of_test:
                os.kill(int(process), signal.SIGKILL)
        except OSError:
            pass  # it is gone, or somebody else's
