"""scripts/bench: what is measured, how a run goes, and what of it is kept."""

import contextlib
import io
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

from bench import cells, data, main, processes, programs, runner
from benchfixtures import run, transfer


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
        self.assertEqual(len(one_way), 25 * 9)

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


if __name__ == "__main__":
    unittest.main()
