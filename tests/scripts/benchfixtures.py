"""What the tests of scripts/bench share: runs, results, and a library that draws nothing."""

import contextlib
from unittest import mock

from bench import cells, programs, report


def run(program=cells.OURS_DEFAULT, share=0.9, cpu=1.0, ok=True, traffic=cells.ONE_WAY, rate=115200, delay=0, ber=0.0, paced=True):
    return {"program": program, "traffic": traffic, "rate": rate, "delayMs": delay, "ber": ber, "ok": ok, "why": "" if ok else "gave up",
            "share": share if ok else None, "cpuPerMegabyte": cpu if ok else None, "paced": paced}


def benchmark(name, *times, unit="ns"):
    return [{"name": name, "run_name": name, "run_type": "iteration", "cpu_time": time, "time_unit": unit} for time in times]


MACHINE = {"cpu": "Some CPU", "cores": 2, "memoryMb": 1024, "kernel": "Linux", "loadAtStart": [0.5, 0.25, 0]}


def full_result():
    return {"machine": MACHINE, "line": [run(), run(cells.KERMIT, share=0.8), run(ok=False, rate=9600)],
            "ports": {"idle": [{"ports": 1, "cpuPercentPerPort": 0.1}], "calls": {"hangUpToFreeMs": 5000}},
            "parts": {"benchmarks": benchmark("crc16Ours/5", 7)}}


@contextlib.contextmanager
def drawing():
    """The axes of every panel that is drawn, without the library that draws."""
    axes = mock.MagicMock()

    def panels(rows, columns):
        return mock.MagicMock(), [[axes] * columns for _ in range(rows)]

    with mock.patch.multiple(report, panels=panels, legend=lambda *_: None, as_svg=lambda _: "<svg>"):
        yield axes


def transfer(seconds=2.0, cpu=1.0, done=True, why="", line=None):
    return programs.Transfer(seconds, cpu, done, why, {} if line is None else line)
