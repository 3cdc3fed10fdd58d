"""The pure parts of scripts/bench: what is measured, summaries, targets, comparison."""

import contextlib
import io
import json
import tempfile
import unittest
from pathlib import Path

from bench import cells, compare, machine, main, report, runner, summary


def run(program=cells.OURS_DEFAULT, share=0.9, cpu=1.0, ok=True, traffic=cells.ONE_WAY, rate=115200, delay=0, ber=0.0, paced=True):
    return {"program": program, "traffic": traffic, "rate": rate, "delayMs": delay, "ber": ber, "ok": ok, "why": "" if ok else "gave up",
            "share": share if ok else None, "cpuPerMegabyte": cpu if ok else None, "paced": paced}


def benchmark(name, *times, unit="ns"):
    return [{"name": name, "run_name": name, "run_type": "iteration", "cpu_time": time, "time_unit": unit} for time in times]


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
            if cells.is_main(condition):
                self.assertEqual(runs, {0, 1, 2}, f"{condition} {program}")

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
        self.assertEqual(summary.plain_table(["a", "bb"], [["10", "2"]]), " a  bb\n--  --\n10   2")
        self.assertEqual(summary.markdown_table(["a", "bb"], [["10", "2"]]), "| a | bb |\n| ---: | ---: |\n| 10 | 2 |")

    def test_targets(self):
        wanted = {(t.condition, t.program): t.least for t in summary.targets()}

        def least(program, *condition):
            return wanted[(cells.Condition(*condition), program)]

        for rate in (57600, 115200):
            self.assertEqual(least(cells.OURS_DEFAULT, cells.ONE_WAY, rate, 0, 0.0), 0.97)
            self.assertEqual(least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 0, 0.0), 0.99)
        for rate in (9600, 33600, 921600):
            self.assertEqual(least(cells.OURS_PROFILE, cells.ONE_WAY, rate, 0, 0.0), 0.97)
        self.assertEqual([least(cells.OURS_PROFILE, cells.ONE_WAY, 115200, 0, ber) for ber in (1e-5, 1e-4)], [0.94, 0.71])
        self.assertEqual([least(cells.OURS_PROFILE, cells.ONE_WAY, 115200, 100, ber) for ber in (0.0, 1e-5, 1e-4)], [0.97, 0.90, 0.55])
        self.assertEqual([least(cells.OURS_PROFILE, cells.BOTH_WAYS, 115200, 100, ber) for ber in (0.0, 1e-5, 1e-4)], [0.95, 0.88, 0.53])
        self.assertEqual([least(cells.OURS_PROFILE, cells.MESSAGES, 115200, 0, ber) for ber in (0.0, 1e-5)], [0.90, 0.80])

    def test_target_rows_compare_with_the_best_peer(self):
        summaries = summary.summarise([run(share=0.98), run(cells.OURS_PROFILE, share=0.98), run(cells.UUCP_DEFAULT, share=0.985), run(cells.KERMIT, share=0.8)])
        _, rows = summary.target_rows(summaries)
        self.assertEqual([(row[1], row[4], row[5]) for row in rows],
                         [(cells.OURS_DEFAULT, "met", "0.985 UUCP i"), (cells.OURS_PROFILE, "MISSED", "0.985 UUCP i")])

    def test_where_a_peer_leads(self):
        leads = summary.summarise([run(share=0.9, cpu=1), run(cells.OURS_PROFILE, share=0.95, cpu=2), run(cells.KERMIT, share=0.96, cpu=3), run(cells.UUCP_DEFAULT, share=0.5, cpu=1.5)])
        _, rows = summary.behind_peer_rows(leads)
        self.assertEqual([row[1:] for row in rows], [["goodput", "0.950", "0.960 Kermit"], ["CPU s/MB", "2.00", "1.50 UUCP i"]])
        follows = summary.summarise([run(share=0.97, cpu=1), run(cells.KERMIT, share=0.96, cpu=3)])
        self.assertEqual(summary.behind_peer_rows(follows)[1], [])

    def test_a_failed_transfer_of_ours_is_behind(self):
        _, rows = summary.behind_peer_rows(summary.summarise([run(ok=False), run(cells.KERMIT, share=0.1, cpu=1)]))
        self.assertEqual([row[1:] for row in rows], [["goodput", "-", "0.100 Kermit"], ["CPU s/MB", "-", "1.00 Kermit"]])


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
        self.assertEqual(self.worse(old, {"line": [run(share=0.88)]}), [])
        self.assertEqual(len(self.worse(old, {"line": [run(share=0.86)]})), 1)

    def test_more_is_better_for_goodput_and_worse_for_cpu(self):
        (share, cpu) = compare.compare({"line": [run(share=0.8, cpu=1.0)]}, {"line": [run(share=0.9, cpu=1.3)]})
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
        lines = machine.machine_lines({"cpu": "Some CPU", "cores": 2, "memoryMb": 1024, "kernel": "Linux", "loadAtStart": [0.5, 0.25, 0]})
        self.assertEqual(lines[0], "machine: Some CPU, 2 cores, 1024 MB")
        self.assertEqual(lines[2], "load at start: 0.50 0.25 0.00")

    def test_tables_escape_and_mark(self):
        text = report.html_table(["<x>"], [["failed (1 of 1 failed)"], ["0.9"]])
        self.assertIn("<th>&lt;x&gt;</th>", text)
        self.assertIn("<td class=bad>failed", text)
        self.assertIn("<td>0.9</td>", text)

    def test_parts_show_medians_of_repetitions_and_single_runs(self):
        median = {"name": "crc16_median", "run_name": "crc16", "run_type": "aggregate", "aggregate_name": "median", "cpu_time": 7.0, "time_unit": "ns", "bytes_per_second": 2e9}
        repeated = dict(benchmark("crc16", 6)[0], repetitions=5)
        _, rows = report.parts_rows({"benchmarks": [repeated, median, *benchmark("crc32", 3)]})
        self.assertEqual([row[:3] for row in rows], [["crc16", "7 ns", "2.000"], ["crc32", "3 ns", "-"]])

    def test_cells_that_match_nothing(self):
        with self.assertRaises(SystemExit):
            main.measure_line(main.parse_arguments(["--cells", "no such cell"]), {"cores": 2}, None)

    def test_cells_by_expression_and_runs(self):
        chosen = main.chosen_cells(main.parse_arguments(["--cells", "one way, 9600 bit/s, 0 ms, 0, UUCP i$", "--runs", "4"]))
        self.assertEqual([(cell.program, cell.run) for cell in chosen], [(cells.UUCP_DEFAULT, run_number) for run_number in range(4)])


if __name__ == "__main__":
    unittest.main()
