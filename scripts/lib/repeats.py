"""Runs ctest several times beside busy processes and tells which tests failed how often.

python3 repeats.py --repeat N --load N --logs DIR -- ctest ...
"""

import argparse
import contextlib
import os
import random
import re
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from collections import defaultdict
from pathlib import Path

# What one busy process runs: it ends with whoever has started it, however that ends.
BUSY = """
import os, sys
parent = int(sys.argv[1])
while os.getppid() == parent:
    for _ in range(200000):
        pass
"""

# What ctest keeps of a failed test's output; the seed stands at the end.
OUTPUT_BYTES = 16 * 1024 * 1024


@contextlib.contextmanager
def load(processes):
    """So many processes that do nothing but take the processor's time."""
    busy = []
    try:
        for _ in range(processes):
            busy.append(subprocess.Popen([sys.executable, "-I", "-c", BUSY, str(os.getpid())], stdin=subprocess.DEVNULL))
        yield
    finally:
        for process in busy:
            process.kill()
        for process in busy:
            process.wait()


def failed_tests(junit):
    """The names of the tests that failed in a run, and the seed that each has told of (or None)."""
    failed = {}
    for case in ElementTree.parse(junit).getroot().iter("testcase"):
        if case.get("status") in ("run", "disabled", "notrun"):
            continue
        seeds = re.findall(r"TEST_SEED=(\d+)", case.findtext("system-out") or "")
        failed[case.get("name")] = int(seeds[-1]) if seeds else None
    return failed


class Runs:
    """What the runs so far have shown."""

    def __init__(self):
        self.count = 0
        self.broken = 0  # runs that ended badly and name no test
        self.seeds = defaultdict(list)  # by test

    def add(self, failed, status, seed):
        self.count += 1
        if status != 0 and not failed:
            self.broken += 1
        for name, told in failed.items():
            self.seeds[name].append(seed if told is None else told)

    def passed(self):
        return self.count > 0 and not self.seeds and not self.broken

    def lines(self):
        if self.passed():
            return [f"no test failed in {times(self.count)}"]
        lines = [f"failed, in {times(self.count)}:"]
        for name, seeds in sorted(self.seeds.items(), key=lambda entry: (-len(entry[1]), entry[0])):
            lines.append(f"  {len(seeds):3} x  {name}   TEST_SEED={', '.join(map(str, seeds))}")
        if self.broken:
            lines.append(f"  {self.broken:3} x  ctest itself")
        return lines


def times(count):
    return "1 run" if count == 1 else f"{count} runs"


def run_once(command, logs, number, seed):
    """Runs the tests once; the failed ones and ctest's exit status."""
    junit = logs / f"run-{number}.xml"
    environment = dict(os.environ, TEST_SEED=str(seed))
    options = ["--output-junit", str(junit), "--test-output-size-failed", str(OUTPUT_BYTES)]
    with open(logs / f"run-{number}.log", "wb") as log:
        status = subprocess.run(command + options, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                                env=environment, check=False).returncode
    return (failed_tests(junit) if junit.exists() else {}), status


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeat", type=int, default=1)
    parser.add_argument("--load", type=int, default=0)
    parser.add_argument("--logs", type=Path, required=True)
    parser.add_argument("command", nargs="+")
    options = parser.parse_args(arguments)
    if options.repeat < 1 or options.load < 0:
        parser.error("--repeat needs 1 or more, --load 0 or more")
    return options


def fresh(logs):
    logs.mkdir(parents=True, exist_ok=True)
    for old in logs.glob("run-*"):
        old.unlink()


def main(arguments):
    options = parse(arguments)
    fresh(options.logs)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(128 + signal.SIGHUP))
    given = os.environ.get("TEST_SEED")
    runs = Runs()
    try:
        with load(options.load):
            for number in range(1, options.repeat + 1):
                seed = int(given) if given else random.SystemRandom().randrange(1, 2**31)
                begun = time.monotonic()
                failed, status = run_once(options.command, options.logs, number, seed)
                runs.add(failed, status, seed)
                told = f"{len(failed)} failed" if failed else "passed" if status == 0 else f"ctest ended with status {status}"
                print(f"run {number} of {options.repeat}: {told}, {time.monotonic() - begun:.0f} s, TEST_SEED={seed}, "
                      f"{options.logs}/run-{number}.log", flush=True)
    except KeyboardInterrupt:
        print("interrupted", flush=True)
        return 128 + signal.SIGINT
    finally:
        print("\n".join(runs.lines()), flush=True)
    return 0 if runs.passed() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
