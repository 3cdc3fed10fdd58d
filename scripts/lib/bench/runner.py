"""Runs cells side by side, as many as the machine bears, and repeats those it could not pace."""

import shutil
import subprocess
import sys
import threading
import time
import traceback

from . import cells
from .processes import CellError, end_all, is_over, start
from .programs import run_cell

DRIVER_DEPTH_BYTES = 4096
ATTEMPTS = 3


class LatenessWatch:
    """When this machine woke a sleeping process late: (seconds of the monotonic clock, ms)."""

    def __init__(self, build):
        self.late = []
        self.process = start([build / "bin/bench-line", "--watch"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.process.stdout:
            moment, lateness = line.split()
            self.late.append((float(moment), float(lateness)))

    def worst(self, begun, ended):
        if not self.thread.is_alive():
            raise CellError("nothing watched the machine's lateness any more")
        return max((lateness for moment, lateness in self.late if begun <= moment <= ended + 0.1), default=0.0)

    def end(self):
        self.process.stdin.close()
        self.process.wait()
        self.thread.join()


def tolerated_lateness_ms(condition):
    """A sender that is woken late leaves the line idle once the driver has run empty: a fourth of
    that time is tolerated, and no less than machines do now and then."""
    drained_ms = DRIVER_DEPTH_BYTES / condition.capacity() * 1000
    return min(max(drained_ms / 4, 20.0), 150.0)


class Runner:
    """save: called with the results so far after each cell, so that a broken run is not lost."""

    def __init__(self, setup, matrix, load_limit, tell, save, attempts=ATTEMPTS):
        self.setup, self.load_limit, self.tell, self.save, self.attempts = setup, load_limit, tell, save, attempts
        # The longest first, so that none is left over at the end; whole cores are left to the fast ones.
        self.waiting = sorted(matrix, key=lambda cell: (-cell.seconds / (cell.condition.ber < 1e-4 or 0.3), cell.label()))
        self.total = len(matrix)
        self.done = []
        self.load = 0.0
        self.changed = threading.Condition()
        self.problem = None  # that ends the whole run
        self.count = 0

    def run(self):
        threads = []
        self.watch = LatenessWatch(self.setup.build)
        try:
            self._start_all(threads)
            if self.problem:
                end_all()  # the cells that run have minutes before them, and are not kept
        except BaseException:
            end_all()
            raise
        finally:
            for thread in threads:
                thread.join()
            self.watch.end()
        if self.problem:
            raise self.problem
        return self.sorted_results()

    def _start_all(self, threads):
        """Returns when all cells are done, or the run has a problem."""
        with self.changed:
            while (self.waiting or self.load > 0.001) and not self.problem:
                cell = next((cell for cell in self.waiting if self.load + cell.load() <= self.load_limit or self.load < 0.001), None)
                if cell is None:
                    self.changed.wait()
                    continue
                self.waiting.remove(cell)
                self.load += cell.load()
                threads.append(threading.Thread(target=self._measure, args=[cell], daemon=True))
                threads[-1].start()
                self.changed.wait(0.1)  # starting a program costs more than running it

    def sorted_results(self):
        return sorted(self.done, key=lambda run: (run["traffic"], run["rate"], run["delayMs"], run["ber"], run["program"], run["run"]))

    def _measure(self, cell):
        try:
            result = self._attempts(cell)
        except Exception:  # whatever it is, the other cells go on
            result = record(cell, None, "the runner failed: " + traceback.format_exc(limit=3), 0.0)
        with self.changed:
            try:
                if not is_over():  # what an early end did to the programs is no result
                    self._keep(cell, result)
            except Exception as error:
                self.problem = error
            finally:
                self.load -= cell.load()
                self.changed.notify_all()

    def _keep(self, cell, result):
        self.done.append(result)
        self.save(self.sorted_results())
        failed = "FAILED" if result["measured"] else "NOT MEASURED"
        share = f"{result['share']:.3f} of the line" if result["ok"] else f"{failed}: {result['why']}"
        self.tell(f"{len(self.done)}/{self.total}  {cell.label()}: {share}")

    def _attempts(self, cell):
        """The first result of a line that kept its pace, or the least late one."""
        results = []
        while len(results) < self.attempts and not is_over():
            results.append(self._attempt(cell))
            # A failure is a failure of the program only where the line kept its pace.
            if results[-1]["measured"] and results[-1]["paced"]:
                break
        best = min(results, key=lambda result: (not result["measured"], result["latenessMs"]))
        return dict(best, attempts=len(results))

    def _attempt(self, cell):
        with self.changed:
            self.count += 1
            directory = self.setup.directory / f"cell{self.count}"
        begun, lateness, transfer, problem = time.monotonic(), 0.0, None, ""
        try:
            transfer = run_cell(cell, self.setup, directory)
            lateness = self.watch.worst(begun, time.monotonic())
        except (CellError, OSError, KeyError) as error:
            transfer, problem = None, str(error)
        shutil.rmtree(directory, ignore_errors=True)
        return record(cell, transfer, problem, lateness)


def line_problem(transfer):
    """Why the line was none to measure on; empty if it was."""
    if transfer.line is None:
        return "the line failed"
    waiting = max((transfer.line.get(way, {}).get("mostWaiting", 0) for way in ("forward", "backward")))
    return f"a program had {waiting} bytes in the driver" if waiting > DRIVER_DEPTH_BYTES else ""


def record(cell, transfer, problem, lateness):
    """A run as result.json holds it. transfer: None if problem kept the cell from being measured."""
    condition = cell.condition
    size = cell.bytes_each_way()
    directions = 1 if condition.traffic == cells.ONE_WAY else 2
    problem = problem or (line_problem(transfer) if transfer else "")
    measured = transfer is not None and not problem
    done = measured and transfer.done
    return {
        "program": cell.program, "traffic": condition.traffic, "rate": condition.rate, "delayMs": condition.delay_ms,
        "ber": condition.ber, "run": cell.run, "seed": cell.seed(), "bytesEachWay": size,
        "measured": measured, "ok": done, "why": problem or transfer.why,
        "seconds": transfer.seconds if done else None,
        "share": size / transfer.seconds / condition.capacity() if done else None,
        "cpuPerMegabyte": transfer.cpu_seconds / (size * directions / 1e6) if done else None,
        "latenessMs": lateness, "paced": lateness <= tolerated_lateness_ms(condition), "attempts": 1,
        "line": transfer.line if transfer else None,
    }


def tell_on_stderr(text):
    print(f"{time.strftime('%H:%M:%S')}  {text}", file=sys.stderr, flush=True)
