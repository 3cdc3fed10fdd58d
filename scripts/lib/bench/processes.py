"""Programs on a line: started with its modem lines, waited for, their processor time taken."""

import json
import os
import subprocess
import time
from pathlib import Path

POLL_SECONDS = 0.02
DRIVER_WAKE_UP_BYTES = 256  # as Linux's serial drivers: a program that waits for room is woken when fewer wait


class CellError(Exception):
    """The cell could not be measured, in a sentence."""


_started = set()  # every program of every cell, so that none outlives an interrupted run


def start(command, **options):
    process = subprocess.Popen([str(part) for part in command], **options)
    _started.add(process)
    return process


def end_all():
    for process in list(_started):
        if process.returncode is None:
            process.kill()


class Line:
    """A connected line between two ports."""

    def __init__(self, build, directory, cell):
        condition = cell.condition
        self.table = directory / "lines"
        text = f"rate={condition.rate},delay={condition.delay_ms},ber={condition.ber:g},seed={cell.seed()}"
        self.process = start([build / "bin/bench-line", "--table", self.table, "--line", text],
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        first = self.process.stdout.readline()
        if not first:
            raise CellError("bench-line did not start")
        self.ports = json.loads(first)["ports"]
        for path in (*self.ports, self.table):
            os.chmod(path, 0o666)  # a peer started by root may drop to a user of its own

    def end(self):
        """What the line carried; None if it had failed."""
        self.process.terminate()
        last = self.process.stdout.read()
        self.process.stdout.close()
        self.process.wait()
        return json.loads(last) if last else None


def preload(build, table, *libraries):
    """The environment of a program on a simulated port."""
    return dict(os.environ, LD_PRELOAD=":".join(str(build / "lib" / f"lib{name}.so") for name in ("ptylines", *libraries)),
                PTYLINES_TABLE=str(table), PTYLINES_WAKEUP=str(DRIVER_WAKE_UP_BYTES))


def on_port(command, port, directory, environment):
    """A program whose standard input and output are the port."""
    descriptor = os.open(port, os.O_RDWR | os.O_NOCTTY)
    try:
        with open(directory / "errors.txt", "ab") as errors:
            return start(command, stdin=descriptor, stdout=descriptor, stderr=errors, cwd=directory, env=environment,
                         start_new_session=True)
    finally:
        os.close(descriptor)


def off_port(command, directory, environment):
    """A program that opens its port by itself."""
    with open(directory / "output.txt", "ab") as output:
        return start(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, cwd=directory, env=environment,
                     start_new_session=True)


class Group:
    """The programs of one cell, and the processor time that they took."""

    def __init__(self):
        self.started = []
        self.cpu_seconds = 0.0
        self.failed = 0

    def add(self, process):
        self.started.append(process)
        return process

    def running(self):
        for process in self.started:
            if process.returncode is None:
                self._reap(process, os.WNOHANG)
        return [process for process in self.started if process.returncode is None]

    def end(self, grace_seconds):
        """Waits so long, then kills what still runs."""
        deadline = time.monotonic() + grace_seconds
        while self.running() and time.monotonic() < deadline:
            time.sleep(POLL_SECONDS)
        for process in self.running():
            process.kill()
            self._reap(process, 0)

    def _reap(self, process, options):
        pid, status, usage = os.wait4(process.pid, options)
        if pid == 0:
            return
        process.returncode = os.waitstatus_to_exitcode(status)
        self.cpu_seconds += usage.ru_utime + usage.ru_stime
        if process.returncode != 0:
            self.failed += 1


class Arrivals:
    """Files that are to arrive, looked at until each is there with its whole size."""

    def __init__(self, files):
        self.missing = dict(files)  # path: size

    def all_there(self):
        for path in list(self.missing):
            try:
                if os.stat(path).st_size < self.missing[path]:
                    return False
            except OSError:
                return False
            del self.missing[path]
        return True


def wait_for(arrivals, group, limit_seconds):
    """(seconds until everything arrived, "") or (None, why it did not)."""
    begun = time.monotonic()
    while True:
        programs_ended = not group.running()
        if arrivals.all_there():
            return time.monotonic() - begun, ""
        if programs_ended:
            return None, f"the programs gave up after {time.monotonic() - begun:.0f} s"
        if time.monotonic() - begun > limit_seconds:
            return None, f"not done after {limit_seconds:.0f} s"
        time.sleep(POLL_SECONDS)


def same_bytes(path, data):
    try:
        return Path(path).read_bytes() == data
    except OSError:
        return False
