"""scripts/bench: summaries, targets, comparison, the page."""

import contextlib
import io
import json
import tempfile
import unittest
from pathlib import Path

from bench import cells, compare, machine, main, report, summary, tables
from benchfixtures import MACHINE, benchmark, drawing, full_result, run


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
