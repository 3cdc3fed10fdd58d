"""Programs on a line: started with its modem lines, waited for, their processor time taken."""

import json
import os
import signal
import subprocess
import threading
import time
from pathlib import Path

POLL_SECONDS = 0.02
DRIVER_WAKE_UP_BYTES = 256  # as Linux's serial drivers: a program that waits for room is woken when fewer wait


ENDING_SECONDS = 2.0  # for programs to clean up behind themselves when the whole run ends


class CellError(Exception):
    """The cell could not be measured, in a sentence."""


_started = set()  # every program, so that none outlives an interrupted run
_gate = threading.Lock()
_is_over = threading.Event()


def start(command, **options):
    """A session of its own keeps the terminal's signals away: end_all() alone ends it early."""
    with _gate:
        if _is_over.is_set():
            raise CellError("the run is over")
        process = subprocess.Popen([str(part) for part in command], start_new_session=True, **options)
        _started.add(process)
        return process


def output_of(command, **options):
    """(exit status, standard output) of a program that ends by itself. An exception of a signal does
    not wait for that: end_all() ends it."""
    process = start(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, **options)
    output = process.stdout.read()
    process.stdout.close()
    return process.wait(), output


def is_over():
    return _is_over.is_set()


def end_all():
    """Ends every program and lets none start any more."""
    with _gate:
        _is_over.set()
    _signal_running(signal.SIGINT)
    deadline = time.monotonic() + ENDING_SECONDS
    while _signal_running(0) and time.monotonic() < deadline:
        time.sleep(POLL_SECONDS)
    _signal_running(signal.SIGKILL)


def _signal_running(number):
    """To each program and what it started; True if there was one."""
    running = [process for process in list(_started) if _is_running(process)]
    for process in running:
        try:
            os.killpg(process.pid, number)
        except (ProcessLookupError, PermissionError):
            pass  # gone since, or gone to a user of its own: then the end of its port ends it
    return bool(running)


def _is_running(process):
    """Does not reap: whoever waits for a program takes its processor time."""
    try:
        return process.returncode is None and os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is None
    except ChildProcessError:
        return False


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
            self.end()
            raise CellError("bench-line did not start")
        self.ports = json.loads(first)["ports"]
        for path in (*self.ports, self.table):
            os.chmod(path, 0o666)  # a peer started by root may drop to a user of its own

    def end(self):
        """What the line carried; None if it had failed."""
        self.process.terminate()
        last = self.process.stdout.read()
        self.process.stdout.close()
        return json.loads(last) if self.process.wait() == 0 and last else None


def preload(build, table, *libraries):
    """The environment of a program on a simulated port."""
    return dict(os.environ, LD_PRELOAD=":".join(str(build / "lib" / f"lib{name}.so") for name in ("ptylines", *libraries)),
                PTYLINES_TABLE=str(table), PTYLINES_WAKEUP=str(DRIVER_WAKE_UP_BYTES))


def on_port(command, port, directory, environment):
    """A program whose standard input and output are the port."""
    descriptor = os.open(port, os.O_RDWR | os.O_NOCTTY)
    try:
        with open(directory / "errors.txt", "ab") as errors:
            return start(command, stdin=descriptor, stdout=descriptor, stderr=errors, cwd=directory, env=environment)
    finally:
        os.close(descriptor)


def off_port(command, directory, environment):
    """A program that opens its port by itself."""
    with open(directory / "output.txt", "ab") as output:
        return start(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, cwd=directory, env=environment)


class Group:
    """The programs of one cell, and the processor time that they took."""

    def __init__(self):
        self.started = []
        self.cpu_seconds = 0.0

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


class Arrivals:
    """Files that are to arrive, looked at until each is there with its whole size."""

    def __init__(self, files):
        self.missing = dict(files)  # path: size
        self.last_ns = 0  # of the wall clock: when the last of those that are there was written

    def all_there(self):
        for path in list(self.missing):
            try:
                status = os.stat(path)
            except OSError:
                return False
            if status.st_size < self.missing[path]:
                return False
            # Not the time of modification, which some programs set to the sender's.
            self.last_ns = max(self.last_ns, status.st_ctime_ns)
            del self.missing[path]
        return True


def wait_for(arrivals, group, limit_seconds):
    """(seconds until everything was written, "") or (None, why it was not)."""
    begun, begun_ns = time.monotonic(), time.time_ns()
    while True:
        programs_ended = not group.running()
        if arrivals.all_there():
            return (arrivals.last_ns - begun_ns) / 1e9, ""
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
