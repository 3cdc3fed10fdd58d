"""The pure parts of scripts/bench: what is measured, summaries, targets, comparison."""

import contextlib
import io
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import types
import unittest
from pathlib import Path
from unittest import mock

from bench import cells, compare, data, machine, main, processes, programs, report, runner, summary, tables


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


class CellsTest(unittest.TestCase):
    def test_capacity_counts_ten_bits_to_a_byte(self):
        self.assertEqual(cells.Condition(cells.ONE_WAY, 115200, 0, 0.0).capacity(), 11520)

    def test_amounts(self):
        condition = cells.Condition(cells.BOTH_WAYS, 9600, 0, 0.0)
        self.assertEqual(cells.Cell(condition, cells.OURS_DEFAULT, 0, 25).bytes_each_way(), 24000)
        messages = cells.Condition(cells.MESSAGES, 115200, 0, 0.0)
        self.assertEqual(cells.Cell(messages, cells.OURS_DEFAULT, 0, 25).bytes_each_way(), 102400)

    def test_full_matrix_holds_every_condition_for_every_program(self):
        matrix = cells.full_matrix()
        one_way = {(cell.condition, cell.program) for cell in matrix if cell.condition.traffic == cells.ONE_WAY}
        for rate in (9600, 33600, 115200, 921600):
            for delay in (0, 100):
                for ber in (0.0, 1e-5, 1e-4):
                    for program in cells.OURS + cells.PEERS:
                        self.assertIn((cells.Condition(cells.ONE_WAY, rate, delay, ber), program), one_way)
        self.assertIn((cells.Condition(cells.ONE_WAY, 57600, 0, 0.0), cells.UUCP_FITTED), one_way)
        self.assertEqual(len(one_way), 25 * 8)

    def test_main_conditions_run_three_times(self):
        counts = {}
        for cell in cells.full_matrix():
            counts.setdefault((cell.condition, cell.program), set()).add(cell.run)
        for (condition, program), runs in counts.items():
            self.assertEqual(runs, {0, 1, 2} if condition.rate in (57600, 115200) else {0}, f"{condition} {program}")

    def test_programs_meet_the_same_noise_and_runs_another(self):
        condition = cells.Condition(cells.ONE_WAY, 9600, 0, 1e-4)
        self.assertEqual(cells.Cell(condition, cells.OURS_DEFAULT, 1, 10).seed(), cells.Cell(condition, cells.KERMIT, 1, 10).seed())
        self.assertNotEqual(cells.Cell(condition, cells.KERMIT, 0, 10).seed(), cells.Cell(condition, cells.KERMIT, 1, 10).seed())

    def test_time_limit_follows_the_slowest_share(self):
        cell = cells.Cell(cells.Condition(cells.ONE_WAY, 9600, 0, 0.0), cells.KERMIT, 0, 20)
        self.assertEqual(cell.time_limit(0.2), 20 / 0.2 + 15)

    def test_fitted_packets_shrink_with_noise(self):
        sizes = [cells.uucp_fitted(cells.Condition(cells.ONE_WAY, 115200, 0, ber))["packet-size"] for ber in (0.0, 1e-5, 1e-4)]
        self.assertEqual(sizes, sorted(sizes, reverse=True))
        self.assertGreater(sizes[0], sizes[2])

    def test_a_slow_line_may_take_longer_to_answer(self):
        waits = [cells.uucp_fitted(cells.Condition(cells.ONE_WAY, rate, 0, 1e-4))["timeout"] for rate in (9600, 115200)]
        self.assertGreater(waits[0], 4096 / 960)
        self.assertEqual(waits[1], 1)


class QuickTest(unittest.TestCase):
    def test_the_quick_look_is_quick(self):
        matrix = cells.quick_matrix()
        self.assertLessEqual(len(matrix), 40)
        # The line's time of all, as many side by side as two cores are given.
        self.assertLess(sum(cell.seconds * cell.load() for cell in matrix) / 0.6, 60)


class RunnerTest(unittest.TestCase):
    def test_less_lateness_is_tolerated_on_a_fast_line(self):
        limits = [runner.tolerated_lateness_ms(cells.Condition(cells.ONE_WAY, rate, 0, 0.0)) for rate in (9600, 115200, 921600)]
        self.assertEqual(limits[0], 150)
        self.assertAlmostEqual(limits[1], 4096 / 11520 * 1000 / 4)
        self.assertEqual(limits[2], 20)


def transfer(seconds=2.0, cpu=1.0, done=True, why="", line=None):
    return programs.Transfer(seconds, cpu, done, why, {} if line is None else line)


class RecordTest(unittest.TestCase):
    cell = cells.Cell(cells.Condition(cells.BOTH_WAYS, 115200, 0, 0.0), cells.KERMIT, 2, 10)  # 115200 bytes each way

    def test_share_and_processor_time(self):
        kept = runner.record(self.cell, transfer(seconds=20.0, cpu=1.152), "", 3.0)
        self.assertEqual((kept["measured"], kept["ok"], kept["why"], kept["run"], kept["bytesEachWay"]), (True, True, "", 2, 115200))
        self.assertAlmostEqual(kept["share"], 0.5)
        self.assertAlmostEqual(kept["cpuPerMegabyte"], 5.0)  # of both ways together
        one_way = cells.Cell(cells.Condition(cells.ONE_WAY, 115200, 0, 0.0), cells.KERMIT, 0, 10)
        self.assertAlmostEqual(runner.record(one_way, transfer(cpu=1.152), "", 0.0)["cpuPerMegabyte"], 10.0)

    def test_a_failure_has_no_figures(self):
        kept = runner.record(self.cell, transfer(done=False, why="gave up"), "", 0.0)
        self.assertEqual((kept["measured"], kept["ok"], kept["why"], kept["share"], kept["cpuPerMegabyte"]), (True, False, "gave up", None, None))

    def test_what_is_not_measured(self):
        died = transfer()
        died.line = None
        flooded = transfer(line={"forward": {"mostWaiting": 4097}, "backward": {"mostWaiting": 1}})
        for what, problem, why in ((None, "no rz", "no rz"), (died, "", "the line failed"), (flooded, "", "a program had 4097 bytes in the driver")):
            kept = runner.record(self.cell, what, problem, 0.0)
            self.assertEqual((kept["measured"], kept["ok"], kept["why"]), (False, False, why))
        self.assertTrue(runner.record(self.cell, transfer(line={"forward": {"mostWaiting": 4096}}), "", 0.0)["measured"])

    def test_a_late_run_is_not_paced(self):
        self.assertTrue(runner.record(self.cell, transfer(), "", 88.0)["paced"])
        self.assertFalse(runner.record(self.cell, transfer(), "", 89.0)["paced"])


class AttemptsTest(unittest.TestCase):
    def attempts(self, *results):
        waiting = [{"measured": measured, "paced": lateness < 50, "latenessMs": lateness} for measured, lateness in results]
        tried = runner.Runner(None, [], 1.0, None, None)
        tried._attempt = lambda cell: waiting.pop(0)
        kept = tried._attempts(RecordTest.cell)
        return kept["measured"], kept["latenessMs"], kept["attempts"]

    def test_the_first_paced_one_is_kept(self):
        self.assertEqual(self.attempts((True, 10), (True, 1)), (True, 10, 1))
        self.assertEqual(self.attempts((True, 90), (True, 10)), (True, 10, 2))

    def test_the_least_late_of_three(self):
        self.assertEqual(self.attempts((True, 90), (True, 60), (True, 80)), (True, 60, 3))

    def test_what_was_measured_goes_before(self):
        self.assertEqual(self.attempts((False, 0), (True, 60), (False, 0)), (True, 60, 3))
        self.assertEqual(self.attempts((False, 0), (False, 0), (False, 0)), (False, 0, 3))


class KeepingTest(unittest.TestCase):
    """What becomes of a cell's result."""

    def measured(self, save):
        kept = runner.Runner(None, [RecordTest.cell], 1.0, lambda text: None, save)
        kept.load = RecordTest.cell.load()
        kept._attempts = lambda cell: dict(runner.record(cell, transfer(), "", 0.0))
        kept._measure(RecordTest.cell)
        return kept

    def test_it_is_saved(self):
        saved = []
        kept = self.measured(saved.append)
        self.assertEqual([len(runs) for runs in saved], [1])
        self.assertIsNone(kept.problem)

    def test_a_full_disk_ends_the_run(self):
        def save(runs):
            raise OSError("no space left")

        kept = self.measured(save)
        self.assertEqual((str(kept.problem), kept.load), ("no space left", 0.0))
        kept._start_all([])  # returns, though a cell waits

    def test_a_full_disk_ends_the_cells_that_run(self):
        quick, endless = cells.Cell(RecordTest.cell.condition, cells.KERMIT, 0, 1), cells.Cell(RecordTest.cell.condition, cells.OURS_DEFAULT, 0, 2)
        sleeping, programs_of_endless = threading.Event(), []

        def run_cell(cell, setup, directory):
            if cell is quick:
                self.assertTrue(sleeping.wait(10))
                return transfer()
            programs_of_endless.append(processes.start(["sleep", "600"]))
            sleeping.set()
            programs_of_endless[0].wait(10)
            raise processes.CellError("its program was ended")

        saved = []

        def save(runs):
            saved.append([run["program"] for run in runs])
            raise OSError("no space left")

        setup = types.SimpleNamespace(build=None, directory=Path("/nonexistent"))
        running = runner.Runner(setup, [endless, quick], 1.0, lambda text: None, save)
        watch = mock.Mock()
        watch.worst.return_value = 0.0
        try:
            with mock.patch.multiple(runner, LatenessWatch=lambda build: watch, run_cell=run_cell), self.assertRaisesRegex(OSError, "no space left"):
                running.run()
            self.assertEqual(len(programs_of_endless), 1)
            self.assertIn(programs_of_endless[0].returncode, (-signal.SIGINT, -signal.SIGKILL))
            self.assertEqual(saved, [[cells.KERMIT]])
            watch.end.assert_called_once_with()
        finally:
            processes._is_over.clear()
            for process in programs_of_endless:
                process.kill()

    def test_what_an_early_end_did_is_no_result(self):
        processes._is_over.set()
        try:
            self.assertEqual(self.measured(self.fail).done, [])
            with self.assertRaises(processes.CellError):
                processes.start(["true"])
        finally:
            processes._is_over.clear()

    def test_a_result_is_replaced_as_a_whole(self):
        with tempfile.TemporaryDirectory() as directory:
            path = Path(directory) / "result.json"
            main.write_whole(path, "old")
            main.write_whole(path, "new")
            self.assertEqual(path.read_text(), "new")
            path.with_name("result.json.part").mkdir()
            with self.assertRaises(OSError):
                main.write_whole(path, "newer")
            self.assertEqual(path.read_text(), "new")


class ProgramsTest(unittest.TestCase):
    """Programs started, waited for, and ended; the programs are the shell's."""

    def test_time_ends_when_the_last_byte_was_written(self):
        with tempfile.TemporaryDirectory() as directory:
            there = Path(directory) / "there"
            there.write_bytes(b"1234")
            os.utime(there, (0, 0))  # as programs do that keep the sender's time
            arrivals, group = processes.Arrivals({there: 4}), processes.Group()
            seconds, why = processes.wait_for(arrivals, group, 5)
            self.assertEqual((why, arrivals.last_ns), ("", there.stat().st_ctime_ns))
            self.assertLessEqual(seconds, 0)  # it was there before

    def test_programs_that_end_early(self):
        group = processes.Group()
        group.add(processes.start(["true"]))
        seconds, why = processes.wait_for(processes.Arrivals({"/nonexistent": 1}), group, 5)
        self.assertIsNone(seconds)
        self.assertIn("gave up", why)

    def test_programs_that_take_too_long(self):
        group = processes.Group()
        group.add(processes.start(["sleep", "60"]))
        self.assertEqual(processes.wait_for(processes.Arrivals({"/nonexistent": 1}), group, 0), (None, "not done after 0 s"))
        group.end(0)
        self.assertEqual([process.returncode for process in group.started], [-signal.SIGKILL])

    def test_the_end_of_the_run_leaves_no_program(self):
        stubborn = processes.start(["sh", "-c", "trap '' INT; echo ready; sleep 60 & wait"], stdout=subprocess.PIPE)
        try:
            self.assertEqual(stubborn.stdout.readline(), b"ready\n")
            before, processes.ENDING_SECONDS = processes.ENDING_SECONDS, 0.05
            processes.end_all()
            self.assertEqual(stubborn.wait(), -signal.SIGKILL)
            self.assertEqual(stubborn.stdout.read(), b"")  # its child, too, has gone
        finally:
            processes.ENDING_SECONDS = before
            processes._is_over.clear()
            stubborn.stdout.close()

    def test_a_process_at_rest_is_told_from_one_at_work(self):
        with processes.start(["cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as cat:
            while programs.sleep_of(cat) is None:
                pass
            while (rest := programs.sleep_of(cat)) != programs.sleep_of(cat):
                pass
            cat.stdin.write(b"x")
            cat.stdin.flush()
            while programs.sleep_of(cat) in (rest, None):
                pass
            cat.stdin.close()

    def test_a_command_that_fails_is_told(self):
        with self.assertRaisesRegex(processes.CellError, "sh ended with status 3: so it is"):
            programs.run_checked(["sh", "-c", "echo so it is; exit 3"])

    def test_a_watch_that_died_is_no_calm_machine(self):
        watch = runner.LatenessWatch.__new__(runner.LatenessWatch)
        watch.late, watch.thread = [], threading.Thread()
        with self.assertRaises(processes.CellError):
            watch.worst(0, 1)


class OurTransferTest(unittest.TestCase):
    def transfer(self, *statuses, stored=(3.0, 4.5), exact=True):
        begun = {"event": "callBegun", "monotonic": 2.0}
        arrived = [{"event": "stored", "direction": "in", "monotonic": moment} for moment in stored]
        sides = [types.SimpleNamespace(events=lambda: [begun], has_exactly=lambda files: exact),
                 types.SimpleNamespace(events=lambda: [dict(begun, monotonic=2.5), *arrived], has_exactly=lambda files: exact)]
        group = types.SimpleNamespace(cpu_seconds=1.5, started=[types.SimpleNamespace(returncode=status) for status in statuses])
        return programs.our_transfer(sides, [{"a": b"", "b": b""}, {}], group, {})

    def test_time_is_from_the_first_session_to_the_last_file(self):
        result = self.transfer(0, 0)
        self.assertEqual((result.seconds, result.cpu_seconds, result.done, result.why), (2.5, 1.5, True, ""))

    def test_a_host_that_failed_after_all_had_arrived(self):
        result = self.transfer(0, -11)
        self.assertEqual((result.done, result.why), (False, "everything arrived, but the hosts ended with status 0 and -11"))

    def test_what_is_missing_or_differs(self):
        self.assertEqual(self.transfer(0, 0, stored=(3.0,)).why, "not everything arrived in time")
        self.assertEqual(self.transfer(0, 0, exact=False).why, "what arrived differs")


class DataTest(unittest.TestCase):
    pool = bytes(range(256)) * 2400

    def test_every_program_sends_the_same_and_every_run_another(self):
        condition = cells.Condition(cells.BOTH_WAYS, 9600, 0, 0.0)
        there, back = data.files_of(cells.Cell(condition, cells.KERMIT, 0, 60), self.pool)
        self.assertEqual((len(there["there.bin"]), len(back["back.bin"])), (57600, 57600))
        self.assertEqual([there, back], data.files_of(cells.Cell(condition, cells.OURS_DEFAULT, 0, 60), self.pool))
        self.assertNotEqual([there, back], data.files_of(cells.Cell(condition, cells.KERMIT, 1, 60), self.pool))

    def test_messages(self):
        north, south = data.files_of(cells.Cell(cells.Condition(cells.MESSAGES, 115200, 0, 0.0), cells.OURS_DEFAULT, 0, 1), self.pool)
        self.assertEqual({len(content) for content in (*north.values(), *south.values())}, {2048})
        self.assertEqual((len(north), len(south)), (50, 50))

    def test_the_pool_is_enough_deterministic_and_compressed(self):
        with tempfile.TemporaryDirectory() as directory:
            for i in range(4):
                path = Path(directory) / "docs" / f"{i}.md"
                path.parent.mkdir(exist_ok=True)
                path.write_text(f"{i} some words " * 500)
            pool = data.make_pool(Path(directory), 2000)
            self.assertGreaterEqual(len(pool), 2000)
            self.assertEqual(pool, data.make_pool(Path(directory), 2000))
            self.assertTrue(pool.startswith(b"\xfd7zXZ"))

    def test_the_largest_cell_never_meets_the_same_bytes_twice(self):
        cell = cells.Cell(cells.Condition(cells.BOTH_WAYS, 921600, 0, 0.0), cells.OURS_DEFAULT, 0, 20)
        self.assertEqual(data.pool_bytes([cell, RecordTest.cell]), 2 * 1843200)


class StatusTest(unittest.TestCase):
    def status(self, *runs):
        with contextlib.redirect_stderr(io.StringIO()) as told:
            return main.exit_status([dict({"measured": True}, **one) for one in runs]), told.getvalue()

    def test_status(self):
        self.assertEqual(self.status(run(), run(cells.OURS_PROFILE), run(cells.KERMIT, ok=False), run(ok=False)), (0, ""))
        status, told = self.status(run(cells.OURS_PROFILE, ok=False))
        self.assertEqual(status, 1)
        self.assertIn("transportCom, profile failed at 115200", told)
        status, told = self.status(dict(run(cells.KERMIT, ok=False), measured=False))
        self.assertEqual(status, 1)
        self.assertIn("Kermit was not measured at 115200", told)

    def test_a_missing_peer_is_told_before_anything_runs(self):
        arguments = main.parse_arguments(["--uucp", "/nonexistent", "--cells", "UUCP i$"])
        with self.assertRaises(SystemExit) as raised:
            main.check_tools(arguments)
        self.assertIn("/nonexistent/usr/lib/uucp/uucico", str(raised.exception))

    def test_a_program_that_fails(self):
        with tempfile.TemporaryDirectory() as directory:
            program = Path(directory) / "bin" / "bench-parts"
            program.parent.mkdir()
            arguments = main.parse_arguments(["--build", directory])
            for script, wanted in (("echo '{\"a\": 1}'", {"a": 1}), ("exit 4", None)):
                program.write_text("#!/bin/sh\n" + script)
                program.chmod(0o755)
                with contextlib.redirect_stderr(io.StringIO()):
                    if wanted:
                        self.assertEqual(main.measure_parts(arguments), wanted)
                    else:
                        with self.assertRaisesRegex(SystemExit, "bench-parts ended with status 4"):
                            main.measure_parts(arguments)

    def test_signals_end_the_run(self):
        script = ("import signal, sys\nfrom bench import main\nfor number in main.ENDING_SIGNALS: signal.signal(number, main.end_by_signal)\n"
                  "try:\n    print('ready', flush=True)\n    signal.pause()\nfinally:\n    print('cleaned', flush=True)")
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE) as python:
                self.assertEqual(python.stdout.readline(), b"ready\n")
                python.send_signal(number)
                self.assertEqual(python.stdout.readline(), b"cleaned\n")
                self.assertEqual(python.wait(), 128 + number)


class SummaryTest(unittest.TestCase):
    def test_median_of_the_runs(self):
        summaries = summary.summarise([run(share=0.5, cpu=3), run(share=0.9, cpu=1), run(share=0.8, cpu=2)])
        (only,) = summaries.values()
        self.assertEqual((only.share, only.cpu, only.runs), (0.8, 2, 3))
        self.assertEqual(summary.share_cell(only), "0.800")
        self.assertEqual(summary.cpu_cell(only), "2.00")

    def test_failures_are_told(self):
        (one_failed,) = summary.summarise([run(share=0.5), run(share=0.7), run(ok=False)]).values()
        self.assertEqual(summary.share_cell(one_failed), "0.600 (1 of 3 failed)")
        (failed,) = summary.summarise([run(ok=False), run(ok=False), run(share=0.7)]).values()
        self.assertIsNone(failed.share)
        self.assertEqual(summary.share_cell(failed), "failed")
        self.assertEqual(summary.cpu_cell(failed), "-")

    def test_late_runs_are_marked(self):
        (late,) = summary.summarise([run(share=0.5, paced=False)]).values()
        self.assertEqual(summary.share_cell(late), "0.500~")

    def test_line_table(self):
        summaries = summary.summarise([run(rate=9600), run(cells.KERMIT, share=0.8), run(traffic=cells.MESSAGES)])
        header, rows = summary.line_table(summaries, cells.ONE_WAY, summary.share_cell)
        self.assertEqual(header, ["bit/s", "delay ms", "bit error rate", cells.OURS_DEFAULT, cells.KERMIT])
        self.assertEqual(rows, [["9600", "0", "0", "0.900", "-"], ["115200", "0", "0", "-", "0.800"]])

    def test_tables_as_text(self):
        self.assertEqual(tables.plain(["a", "bb"], [["10", "2"]]), " a  bb\n--  --\n10   2")
        self.assertEqual(tables.markdown(["a", "bb"], [["10", "2"]]), "| a | bb |\n| ---: | ---: |\n| 10 | 2 |")

    def test_targets(self):
        wanted = {(t.condition, t.program): t.least for t in summary.targets()}

        def least(program, *condition):
            return wanted[(cells.Condition(*condition), program)]

        for rate in (57600, 115200):
            self.assertEqual(least(cells.OURS_DEFAULT, cells.ONE_WAY, rate, 0, 0.0), 0.97)
            self.assertEqual(least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 0, 0.0), 0.99)
        for rate in (9600, 33600, 921600):
            self.assertEqual(least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 0, 0.0), 0.97)
        for rate in (9600, 33600, 115200, 921600):
            self.assertEqual([least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 0, ber) for ber in (1e-5, 1e-4)], [0.94, 0.71])
            self.assertEqual([least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 100, ber) for ber in (0.0, 1e-5, 1e-4)], [0.97, 0.90, 0.55])
            self.assertEqual([least(cells.OURS_PROFILE, cells.BOTH_WAYS, rate, 0, ber) for ber in (1e-5, 1e-4)], [0.92, 0.69])
            self.assertEqual([least(cells.OURS_PROFILE, cells.BOTH_WAYS, rate, 100, ber) for ber in (0.0, 1e-5, 1e-4)], [0.95, 0.88, 0.53])
        self.assertEqual([least(cells.OURS_PROFILE, cells.MESSAGES, 115200, 0, ber) for ber in (0.0, 1e-5)], [0.90, 0.80])

    def test_target_rows_compare_with_the_best_peer(self):
        summaries = summary.summarise([run(share=0.98), run(cells.OURS_PROFILE, share=0.98), run(cells.UUCP_DEFAULT, share=0.985), run(cells.KERMIT, share=0.8)])
        _, rows = summary.target_rows(summaries)
        self.assertEqual([(row[1], row[4], row[5]) for row in rows],
                         [(cells.OURS_DEFAULT, "met", "0.985 UUCP i"), (cells.OURS_PROFILE, "MISSED", "0.985 UUCP i")])

    def test_where_a_peer_leads(self):
        leads = summary.summarise([run(share=0.9, cpu=1), run(cells.OURS_PROFILE, share=0.95, cpu=2), run(cells.KERMIT, share=0.96, cpu=3), run(cells.UUCP_DEFAULT, share=0.5, cpu=1.5)])
        _, rows = summary.behind_peer_rows(leads)
        self.assertEqual([row[1:] for row in rows], [["goodput", "0.950", "0.960 Kermit", "behind"], ["CPU s/MB", "2.00", "1.50 UUCP i", "behind"]])
        follows = summary.summarise([run(share=0.97, cpu=1), run(cells.KERMIT, share=0.96, cpu=3)])
        self.assertEqual(summary.behind_peer_rows(follows)[1], [])

    def test_a_failed_transfer_of_ours_is_behind(self):
        _, rows = summary.behind_peer_rows(summary.summarise([run(ok=False), run(cells.KERMIT, share=0.1, cpu=1)]))
        self.assertEqual([row[1:] for row in rows], [["goodput", "failed", "0.100 Kermit", "ours failed"], ["CPU s/MB", "-", "1.00 Kermit", "ours failed"]])

    def test_ours_failed_where_every_peer_did(self):
        _, rows = summary.behind_peer_rows(summary.summarise([run(ok=False), run(cells.KERMIT, ok=False)]))
        self.assertEqual([row[1:] for row in rows], [["goodput", "failed", "failed", "ours failed"], ["CPU s/MB", "-", "failed", "ours failed"]])

    def test_a_tie_is_no_lead(self):
        _, rows = summary.behind_peer_rows(summary.summarise([run(share=0.9502, cpu=1.004), run(cells.KERMIT, share=0.9504, cpu=1.0)]))
        self.assertEqual([row[-1] for row in rows], ["tie", "tie"])

    def test_a_failed_run_misses_the_target(self):
        _, rows = summary.target_rows(summary.summarise([run(cells.OURS_PROFILE, share=1.0), run(cells.OURS_PROFILE, share=1.0), run(cells.OURS_PROFILE, ok=False)]))
        self.assertEqual([row[3:5] for row in rows], [["1.000 (1 of 3 failed)", "MISSED"]])

    def test_what_was_not_measured_is_no_failure(self):
        (only,) = summary.summarise([run(share=0.9), dict(run(ok=False), measured=False)]).values()
        self.assertEqual((only.runs, only.share, summary.share_cell(only)), (1, 0.9, "0.900 (1 not measured)"))
        (none,) = summary.summarise([dict(run(cells.OURS_PROFILE, ok=False), measured=False)]).values()
        self.assertEqual(summary.share_cell(none), "not measured")
        self.assertEqual(summary.verdict(none, 0.9), "not measured")

    def test_failed_runs_of_ours_are_listed(self):
        runs = [run(), run(ok=False), run(cells.KERMIT, ok=False), dict(run(cells.KERMIT, ok=False), measured=False)]
        _, rows = summary.failure_rows(runs)
        self.assertEqual([(row[1], row[3]) for row in rows], [(cells.OURS_DEFAULT, "failed"), (cells.KERMIT, "not measured")])


class CompareTest(unittest.TestCase):
    def worse(self, old, new):
        return [change.what for change in compare.compare(old, new) if change.worse]

    def test_same_is_no_change(self):
        result = {"line": [run(share=0.9), run(share=0.92)], "parts": {"benchmarks": benchmark("crc16", 10, 11)}, "ports": {"idle": [{"ports": 16, "cpu": 0.2}]}}
        changes = compare.compare(result, result)
        self.assertEqual(len(changes), 4)
        self.assertFalse([change for change in changes if change.worse or change.better])

    def test_within_the_spread_of_the_runs(self):
        old = {"line": [run(share=0.90), run(share=0.94), run(share=0.92)]}
        self.assertEqual(self.worse(old, {"line": [run(share=0.885)] * 3}), [])
        self.assertEqual(self.worse(old, {"line": [run(share=0.87)] * 3}), ["one way, 115200 bit/s, 0 ms, 0, transportCom: share of the line"])

    def test_steady_runs_have_a_floor(self):
        old = {"line": [run(share=0.90)] * 3}
        self.assertEqual(self.worse(old, {"line": [run(share=0.893)] * 3}), [])
        self.assertEqual(len(self.worse(old, {"line": [run(share=0.88)] * 3})), 1)

    def test_single_runs_have_a_wider_one(self):
        old = {"line": [run(share=0.90)]}
        for runs in (1, 3):  # few on one side are few
            self.assertEqual(self.worse(old, {"line": [run(share=0.88)] * runs}), [])
            self.assertEqual(len(self.worse(old, {"line": [run(share=0.86)] * runs})), 1)

    def test_single_runs_with_noise_have_the_widest(self):
        old = {"line": [run(share=0.90, ber=1e-5)]}
        self.assertEqual(self.worse(old, {"line": [run(share=0.81, ber=1e-5)]}), [])
        self.assertEqual(len(self.worse(old, {"line": [run(share=0.79, ber=1e-5)]})), 1)

    def test_processor_time_of_few_and_of_many_runs(self):
        for runs, same, more in ((1, 1.29, 1.31), (3, 1.14, 1.16)):
            old = {"line": [run(cpu=1.0)] * runs}
            self.assertEqual(self.worse(old, {"line": [run(cpu=same)] * runs}), [])
            self.assertEqual(len(self.worse(old, {"line": [run(cpu=more)] * runs})), 1)

    def test_a_figure_that_is_gone_is_worse(self):
        old = {"line": [run(), run(cells.OURS_PROFILE)], "parts": {"benchmarks": benchmark("crc16", 1) + benchmark("log", 1)}}
        new = {"line": [run()], "parts": {"benchmarks": benchmark("crc16", 1)}}
        self.assertEqual(self.worse(old, new), ["one way, 115200 bit/s, 0 ms, 0, transportCom, profile", "log: CPU ns"])
        self.assertEqual(self.worse(old, dict(new, command="scripts/bench --cells x")), [])
        unmeasured = dict(run(cells.OURS_PROFILE, ok=False), measured=False)
        self.assertEqual(len(self.worse({"line": old["line"]}, {"line": [run(), unmeasured]})), 1)

    def test_late_runs_and_other_amounts_are_left_out(self):
        for other in (run(share=0.1, paced=False), dict(run(share=0.1), bytesEachWay=7)):
            (change,) = compare.compare({"line": [run()]}, {"line": [other]})
            self.assertFalse(change.worse)
            self.assertIn("left out", change.row()[-1])

    def test_yardsticks_tell_of_the_machine(self):
        (change,) = compare.compare({"parts": {"benchmarks": benchmark("crc32Zlib/16", 1)}}, {"parts": {"benchmarks": benchmark("crc32Zlib/16", 2)}})
        self.assertEqual((change.worse, change.row()[-1]), (False, "the machine: a yardstick slower"))
        (change,) = compare.compare({"ports": {"idle": [{"bareThreadCpuPercent": 0.1}]}}, {"ports": {"idle": [{"bareThreadCpuPercent": 0.5}]}})
        self.assertFalse(change.worse)

    def test_allocations_are_compared(self):
        results = [{"parts": {"benchmarks": [dict(benchmark("makePacket", 1)[0], allocations=n)]}} for n in (1, 2)]
        self.assertEqual(self.worse(*results), ["makePacket: allocations"])
        self.assertEqual(self.worse(*results[::-1]), [])

    def test_more_is_better_for_goodput_and_worse_for_cpu(self):
        (share, cpu) = compare.compare({"line": [run(share=0.8, cpu=1.0)]}, {"line": [run(share=0.9, cpu=1.4)]})
        self.assertEqual((share.better, share.worse, cpu.better, cpu.worse), (True, False, False, True))

    def test_a_new_failure_is_worse(self):
        self.assertEqual(self.worse({"line": [run(), run()]}, {"line": [run(), run(ok=False)]}), ["one way, 115200 bit/s, 0 ms, 0, transportCom: failed runs"])

    def test_peers_are_no_regression_of_ours(self):
        self.assertEqual(self.worse({"line": [run(cells.KERMIT, share=0.9)]}, {"line": [run(cells.KERMIT, share=0.5)]}), [])

    def test_parts_by_their_repetitions(self):
        old = {"parts": {"benchmarks": benchmark("crc16", 100, 103, 99) + benchmark("crc32", 100, 100, 100)}}
        new = {"parts": {"benchmarks": benchmark("crc16", 104, 104, 104) + benchmark("crc32", 0.12, 0.12, 0.12, unit="us")}}
        self.assertEqual(self.worse(old, new), ["crc32: CPU ns"])

    def test_parts_leave_aggregates_out(self):
        aggregate = {"name": "crc16_mean", "run_name": "crc16", "run_type": "aggregate", "cpu_time": 1, "time_unit": "ns"}
        self.assertEqual(compare.part_times({"benchmarks": benchmark("crc16", 5) + [aggregate]}), {"crc16": [5]})

    def test_ports_by_their_number(self):
        old = {"ports": {"idle": [{"ports": 1, "cpu": 0.2}, {"ports": 256, "cpu": 0.2}]}}
        new = {"ports": {"idle": [{"ports": 256, "cpu": 0.3}, {"ports": 1, "cpu": 0.21}]}}
        self.assertEqual(self.worse(old, new), ["idle[256 ports].cpu"])

    def test_ports_have_a_floor_of_processor_time(self):
        def ports(cpu):
            return {"ports": {"idle": [{"ports": 1, "cpuPercentPerPort": cpu}]}}

        self.assertEqual(self.worse(ports(0.12), ports(0.149)), [])
        self.assertEqual(self.worse(ports(0.0), ports(0.04)), [])
        self.assertEqual(len(self.worse(ports(0.12), ports(0.18))), 1)

    def test_kinds_that_one_lacks_are_left_out(self):
        self.assertEqual(compare.compare({"line": [run()]}, {"ports": {"idle": 1}}), [])


class ComparingFilesTest(unittest.TestCase):
    def compare_files(self, old, new):
        with tempfile.TemporaryDirectory() as directory:
            paths = []
            for name, value in (("old.json", old), ("new.json", new)):
                paths.append(Path(directory) / name)
                paths[-1].write_text(value if isinstance(value, str) else json.dumps(value))
            output = io.StringIO()
            with contextlib.redirect_stdout(output):
                return main.main(["--compare", *map(str, paths)]), output.getvalue()

    def result(self, share):
        return {"machine": {"cpu": "x", "loadAtStart": [0, 0, 0]}, "line": [run(share=share)]}

    def test_exit_status_and_mark(self):
        status, text = self.compare_files(self.result(0.9), self.result(0.8))
        self.assertEqual(status, 1)
        self.assertIn("WORSE", text)
        status, text = self.compare_files(self.result(0.9), self.result(0.9))
        self.assertEqual(status, 0)
        self.assertNotIn("WORSE", text)
        status, text = self.compare_files(self.result(0.8), self.result(0.9))
        self.assertEqual(status, 0)
        self.assertIn("better", text)

    def test_another_machine_is_told(self):
        other = dict(self.result(0.9), machine={"cpu": "y", "loadAtStart": [9, 9, 9]})
        self.assertIn("machines differ", self.compare_files(self.result(0.9), other)[1])
        busier = dict(self.result(0.9), machine={"cpu": "x", "loadAtStart": [9, 9, 9]})
        self.assertNotIn("machines differ", self.compare_files(self.result(0.9), busier)[1])

    def test_what_is_no_result(self):
        for text in ("", "[]", "{}", "not JSON"):
            with self.assertRaises(SystemExit) as raised:
                self.compare_files(text, self.result(0.9))
            self.assertIn("is no result of scripts/bench", str(raised.exception))

    def test_nothing_in_common(self):
        with self.assertRaises(SystemExit):
            self.compare_files(self.result(0.9), dict(self.result(0.9), line=[]))


class ReportTest(unittest.TestCase):
    def test_markdown_tables(self):
        text = main.markdown_tables({"line": [run(), run(cells.KERMIT, share=0.95, cpu=0.5)]})
        self.assertIn("One way, share of the line:\n\n| bit/s | delay ms | bit error rate | transportCom | Kermit |\n", text)
        self.assertIn("| 115200 | 0 | 0 | 0.900 | 0.950 |", text)
        self.assertIn("| one way, 115200 bit/s, 0 ms, 0 | transportCom | 0.97 | 0.900 | MISSED | 0.950 Kermit |", text)

    def test_the_page_holds_every_table_and_plot(self):
        result = dict(full_result(), when="today", command="scripts/bench")
        with drawing():
            page = report.page(result)
        for table in tables.tables_of(result):
            self.assertIn(f"<h3>{table.title}</h3>", page)
        self.assertIn("docs/performance.md", page)
        for caption in ("Goodput against rate, one way", "Goodput against bit error rate, one way", "Goodput against delay, one way", "Processor time", "Idle ports"):
            self.assertIn(f"<figcaption>{caption}</figcaption><svg>", page)
        self.assertEqual(page.count("<svg>"), 5)

    def test_points_of_the_plots(self):
        summaries = summary.summarise(full_result()["line"])
        with drawing() as axes:
            report.goodput_against_rate(summaries, cells.ONE_WAY)
        # Clean and without delay is the first panel; the others are empty. What failed stands at 0.
        drawn = {call.kwargs["label"]: call.args for call in axes.plot.call_args_list}
        self.assertEqual(drawn, {cells.OURS_DEFAULT: ((9600, 115200), (0.0, 0.9)), cells.KERMIT: ((115200,), (0.8,))})
        self.assertEqual(axes.plot.call_count, 2)
        with drawing() as axes:
            report.cpu_bars(summaries)
        self.assertEqual([call.args[1] for call in axes.bar.call_args_list], [[1.0], [1.0]])
        with drawing() as axes:
            report.ports_plot(full_result()["ports"])
        self.assertEqual(axes.plot.call_args.args, ((1,), (0.1,)))

    def test_verdicts_of_the_parts(self):
        def part(name, time, **more):
            return dict(benchmark(name, time)[0], **more)

        runs = [part("crc32Ours/16", 2), part("crc32Zlib/16", 3), part("crc32Ours/5", 2), part("crc32Zlib/5", 1), part("debugLine", 10), part("bareOpenAppendClose", 8),
                part("bareSystemCalls", 7), part("makePacket/1", 1, allocations=1.0), part("makePacket/2", 1, allocations=1.5),
                part("cutGarbage", 1, bytes_per_second=1e9), part("cutRandomGarbage", 1, bytes_per_second=0.9e9), part("settingsGetter", 1)]
        _, rows = tables.parts_rows({"benchmarks": runs})
        verdicts = {row[0]: row[-1] for row in rows}
        self.assertEqual(verdicts, {
            "crc32Ours/16": "1.50 of zlib's speed, wanted 1: met", "crc32Zlib/16": "", "crc32Ours/5": "0.50 of zlib's speed, wanted 1: MISSED", "crc32Zlib/5": "",
            "debugLine": "0.80 of bareOpenAppendClose, wanted 0.8: met; 0.70 of bareSystemCalls, wanted 0.8: MISSED", "bareOpenAppendClose": "", "bareSystemCalls": "",
            "makePacket/1": "wanted 1 allocation: met", "makePacket/2": "wanted 1 allocation: MISSED",
            "cutGarbage": "wanted 1 GB/s: met", "cutRandomGarbage": "wanted 1 GB/s: MISSED", "settingsGetter": ""})
        self.assertEqual([row[4] for row in rows if row[0].startswith("makePacket")], ["1", "1.5"])

    def test_verdicts_of_idle_ports(self):
        header, rows = tables.idle_rows({"idle": [{"ports": 1, "cpuPercentPerPort": 0.25}, {"ports": 16, "cpuPercentPerPort": 0.26}]})
        self.assertEqual(header[:2], ["ports", "% of a core, each"])
        self.assertEqual([(row[0], row[-1]) for row in rows], [("1", "wanted 0.25 %: met"), ("16", "wanted 0.25 %: MISSED")])

    def test_a_program_that_is_not_built(self):
        for only in ([], ["--only", "parts"]):
            arguments = main.parse_arguments(["--build", "/nonexistent", *only])
            with contextlib.redirect_stderr(io.StringIO()):
                if only:
                    with self.assertRaises(SystemExit):
                        main.measure_parts(arguments)
                else:
                    self.assertIsNone(main.measure_parts(arguments))

    def test_machine(self):
        self.assertEqual(machine.cpu_model("processor : 0\nmodel name\t: Some CPU\nmodel name\t: Other\n"), "Some CPU")
        result = {"machine": MACHINE}
        self.assertEqual(machine.machine_lines(result), ["machine: Some CPU, 2 cores, 1024 MB", "kernel:  Linux", "load at start: 0.50 0.25 0.00"])
        self.assertEqual(machine.machine_lines(dict(result, versions={"commit": "abc", "lrzsz": "1"}))[3], "versions: commit abc, lrzsz 1")

    def test_tables_escape_and_mark(self):
        text = report.html_table(["<x>"], [["failed (1 of 1 failed)"], ["0.9"]])
        self.assertIn("<th>&lt;x&gt;</th>", text)
        self.assertIn("<td class=bad>failed", text)
        self.assertIn("<td>0.9</td>", text)

    def test_parts_show_medians_of_repetitions_and_single_runs(self):
        median = {"name": "crc16_median", "run_name": "crc16", "run_type": "aggregate", "aggregate_name": "median", "cpu_time": 7.0, "time_unit": "ns", "bytes_per_second": 2e9}
        repeated = dict(benchmark("crc16", 6)[0], repetitions=5)
        _, rows = tables.parts_rows({"benchmarks": [repeated, median, *benchmark("crc32", 3)]})
        self.assertEqual([row[:3] for row in rows], [["crc16", "7 ns", "2"], ["crc32", "3 ns", "-"]])

    def test_cells_that_match_nothing(self):
        for words in (["--cells", "no such cell"], ["--cells", "("], ["--runs", "0"], ["--runs", "-1"], ["--load", "0"]):
            with self.assertRaises(SystemExit) as raised, contextlib.redirect_stderr(io.StringIO()):
                main.parse_arguments(words)
            self.assertEqual(raised.exception.code, 2, words)

    def test_cells_by_expression_and_runs(self):
        chosen = main.chosen_cells(main.parse_arguments(["--cells", "one way, 9600 bit/s, 0 ms, 0, UUCP i$", "--runs", "4"]))
        self.assertEqual([(cell.program, cell.run) for cell in chosen], [(cells.UUCP_DEFAULT, run_number) for run_number in range(4)])


if __name__ == "__main__":
    unittest.main()
