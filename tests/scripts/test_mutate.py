"""scripts/mutate: which faults are put into a source, and what counts as found."""

import contextlib
import io
import os
import random
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest
import unittest.mock
from pathlib import Path

from mutate import equivalents, faults, judge, main, records, trials, workplace

TREE = Path(__file__).resolve().parents[2]

SAMPLE = textwrap.dedent('''\
    // if (a == 1) in a comment: "text"
    #include "room/unit.h"
    #define LIMIT(x) if ((x) == 7) \\
        fail("macro")

    static_assert(sizeof(int) == 4, "four bytes");

    namespace {

    constexpr int limit = 1'000; /* 5 == 5 */
    constexpr char quote = '"'; // no text begins here
    const char* const raw = R"(if (x < 1) "raw")";

    } // namespace

    Unit::Unit(int size) : m_size(size)
    {
        m_list = QList<int>{1, 2};
    }

    bool Unit::take(const QVector<int> &list, int size)
    {
        QMutexLocker locker(&m_mutex);
        const int count = list.size();
        if (size <= limit && count > 2)
            m_taken = true;
        if (const int left = rest(size); left != 0) {
            debug(QStringLiteral("left %1"), 3,
                  DebugAlways);
            emit taken(left);
        }
        for (int i = 0; i < count; ++i)
            add(list.at(i),
                "one");
        ::fsync(m_descriptor);
        return ::fsync(m_other) == 0;
    }

    void Unit::empty() {}
''')


def changes(text, kind=None):
    """(line, what stands there then) of each fault."""
    return [(fault.line, faults.one_line(fault.new)) for fault in faults.faults_of("room/unit.cpp", text)
            if kind in (None, fault.kind)]


class FaultsTest(unittest.TestCase):
    def test_conditions_are_negated_unless_a_comparison_is_turned_anyway(self):
        self.assertEqual(changes(SAMPLE, "condition"), [(25, "if (!(size <= limit && count > 2))")])

    def test_comparisons_are_shifted_and_angle_brackets_are_left(self):
        self.assertEqual(changes(SAMPLE, "comparison"), [
            (25, "if (size < limit && count > 2)"),
            (25, "if (size <= limit || count > 2)"),
            (25, "if (size <= limit && count >= 2)"),
            (27, "if (const int left = rest(size); left == 0) {"),
            (32, "for (int i = 0; i <= count; ++i)"),
            (36, "return ::fsync(m_other) != 0;")])

    def test_constants_are_changed(self):
        self.assertEqual(changes(SAMPLE, "constant"), [
            (10, "constexpr int limit = 1001; /* 5 == 5 */"),
            (10, "constexpr int limit = 2000; /* 5 == 5 */"),
            (18, "m_list = QList<int>{2, 2};"),
            (18, "m_list = QList<int>{1, 3};"),
            (25, "if (size <= limit && count > 3)"),
            (26, "m_taken = false;"),
            (27, "if (const int left = rest(size); left != 1) {"),
            (32, "for (int i = 1; i < count; ++i)"),
            (36, "return ::fsync(m_other) == 1;")])

    def test_statements_are_taken_out_whole_and_declarations_and_logging_stay(self):
        self.assertEqual(changes(SAMPLE, "statement"), [(18, ";"), (26, ";"), (33, ";")])
        self.assertEqual(changes(SAMPLE, "emit"), [(30, ";")])
        self.assertEqual(changes(SAMPLE, "locker"), [(23, ";")])

    def test_sync_calls_are_taken_out_or_succeed(self):
        self.assertEqual(changes(SAMPLE, "sync"), [(35, ";"), (36, "return 0 == 0;")])
        self.assertEqual(changes("void f()\n{\n    Base::sync();\n    g = x.sync();\n}\n", "sync"), [(3, ";")])

    def test_functions_return_at_once_but_for_constructors_and_empty_ones(self):
        self.assertEqual(changes(SAMPLE, "return"), [
            (21, "bool Unit::take(const QVector<int> &list, int size) { return false;"),
            (21, "bool Unit::take(const QVector<int> &list, int size) { return true;")])
        self.assertEqual(changes("void f()\n{\n    g();\n}\n", "return"), [(1, "void f() { return;")])
        self.assertEqual(changes("Unit::~Unit()\n{\n    g();\n}\n", "return"), [])
        self.assertEqual(changes("QString f(int)\n{\n    return g();\n}\n", "return"), [(1, "QString f(int) { return {};")])

    def test_texts_are_changed_and_comments_macros_raw_texts_and_logging_are_left(self):
        self.assertEqual(changes(SAMPLE, "text"), [(34, '"one#");')])

    def test_nothing_is_found_where_nothing_runs(self):
        self.assertEqual(changes('// a == 1\n/* if (x)\n   y(2); */\n#if A == 1\n#endif\nstatic_assert(1 == 1, "x");\n'), [])

    def test_pure_functions_stay_pure(self):
        self.assertEqual(changes("class A\n{\n    virtual void f() = 0;\n    virtual int g() const = 0;\n};\n"), [])

    def test_numbers(self):
        self.assertEqual(faults.changed_numbers("0"), ["1"])
        self.assertEqual(faults.changed_numbers("0x10"), ["17"])
        self.assertEqual(faults.changed_numbers("17"), ["18", "34"])
        self.assertEqual(faults.changed_numbers("0.9"), ["1.8"])
        self.assertEqual(faults.changed_numbers("0666"), ["0667"])

    def test_a_fault_changes_its_span_and_nothing_else(self):
        for fault in faults.faults_of("room/unit.cpp", SAMPLE):
            changed = fault.applied(SAMPLE)
            self.assertNotEqual(changed, SAMPLE)
            self.assertEqual(changed[:fault.span.start], SAMPLE[:fault.span.start])
            self.assertTrue(changed.endswith(SAMPLE[fault.span.end:]))

    def test_faults_know_their_function(self):
        functions = {fault.function for fault in faults.faults_of("room/unit.cpp", SAMPLE)}
        self.assertEqual(functions, {"", "Unit::Unit", "Unit::take"})

    def test_identities_differ(self):
        found = faults.faults_of("room/unit.cpp", SAMPLE)
        self.assertEqual(len({fault.identity() for fault in found}), len(found))

    def test_every_kind_has_its_turn_and_a_seed_draws_the_same(self):
        found = faults.faults_of("room/unit.cpp", SAMPLE)
        order = faults.in_turns(found, random.Random(3))
        self.assertEqual({fault.kind for fault in order[:len(faults.KINDS)]}, set(faults.KINDS))
        self.assertEqual(sorted(order), sorted(found))
        self.assertEqual(order, faults.in_turns(found, random.Random(3)))
        self.assertNotEqual(order, faults.in_turns(found, random.Random(4)))

    def test_every_source_of_the_tree_can_be_read(self):
        for room in main.ROOMS:
            for file in sorted((TREE / room).rglob("*.cpp")):
                text = file.read_text(encoding="utf-8")
                source = faults.Source(text)
                self.assertEqual(len(source.code), len(text), file)
                self.assertEqual(source.code.count("{"), source.code.count("}"), file)


ENTRY = textwrap.dedent("""\
    # for people

    room/unit.cpp Unit::take
    - if (size <= limit && count > 2)
    + if (size <   limit && count > 2)
    because: a size of exactly the limit
      goes either way
    """)


class EquivalentsTest(unittest.TestCase):
    def fault(self, new):
        return next(fault for fault in faults.faults_of("room/unit.cpp", SAMPLE) if faults.one_line(fault.new) == new)

    def test_an_entry_is_its_fault_and_no_other(self):
        entries = equivalents.read(ENTRY)
        self.assertEqual(equivalents.reason(entries, self.fault("if (size < limit && count > 2)")),
                         "a size of exactly the limit goes either way")
        self.assertIsNone(equivalents.reason(entries, self.fault("if (size <= limit || count > 2)")))
        elsewhere = equivalents.read(ENTRY.replace("Unit::take", "Unit::give"))
        self.assertIsNone(equivalents.reason(elsewhere, self.fault("if (size < limit && count > 2)")))

    def test_an_entry_needs_its_parts(self):
        for part in ("- if", "+ if", "because:"):
            with self.assertRaises(equivalents.Unreadable):
                equivalents.read("\n".join(line for line in ENTRY.splitlines() if not line.startswith((part, "  "))))

    def test_what_the_report_offers_can_be_put_into_the_list(self):
        for fault in faults.faults_of("room/unit.cpp", SAMPLE):
            entries = equivalents.read(equivalents.as_entry(fault) + "it is so")
            self.assertEqual(equivalents.reason(entries, fault), "it is so")

    def test_entries_whose_source_has_changed_are_told(self):
        found = faults.faults_of("room/unit.cpp", SAMPLE)
        self.assertEqual(equivalents.stale(equivalents.read(ENTRY), found), [])
        changed = faults.faults_of("room/unit.cpp", SAMPLE.replace("size <= limit", "size + 1 <= limit"))
        self.assertEqual([entry.line for entry in equivalents.stale(equivalents.read(ENTRY), changed)], [3])

    def test_the_tree_s_own_list_can_be_read(self):
        for entry in equivalents.read((TREE / main.EQUIVALENT).read_text(encoding="utf-8")):
            self.assertTrue(entry.reason, entry)


class TrialsTest(unittest.TestCase):
    """Real processes of /bin/sh stand for the tests."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.folder = Path(directory.name)
        self.runner = trials.Runner("dev", 2)

    def shell(self, name, script, seconds=60.0):
        return trials.Test(name, ["/bin/sh", "-c", script, "sh", str(self.folder / name)], {}, None, seconds)

    def judge(self, *tests):
        return self.runner.judge(list(tests), {test.name: 0.1 for test in tests})

    def test_a_test_that_fails_twice_has_found_it(self):
        verdict = self.judge(self.shell("passes", "exit 0"), self.shell("fails", "exit 3"))
        self.assertEqual(verdict.found, "fails: exit status 3, then exit status 3")

    def test_a_test_that_fails_once_has_not(self):
        once = self.shell("once", '[ -e "$1" ] || { : >"$1"; exit 1; }')
        later = self.shell("later", 'echo x >>"$1"')
        verdict = self.judge(once, later)
        self.assertIsNone(verdict.found)
        self.assertEqual(verdict.unsteady, ["once: exit status 1, then passed"])
        self.assertEqual((self.folder / "later").read_text(), "x\n")

    def test_a_test_that_hangs_is_ended_with_all_that_it_started(self):
        with unittest.mock.patch.object(trials, "LEAST_SECONDS", 0.2):
            verdict = self.judge(self.shell("hangs", 'setsid sleep 1000 & echo $! >>"$1"; sleep 1000 & echo $! >>"$1"; wait'))
        self.assertIn("not over after", verdict.found)
        for process in map(int, (self.folder / "hangs").read_text().split()):
            self.assertTrue(ends(process), process)

    def test_a_test_that_was_only_slow_is_given_more_time_and_has_not_found_it(self):
        given = []

        def run(_, __, seconds):
            given.append(seconds)
            return ("" if seconds > 50 else f"not over after {seconds} s"), seconds

        with unittest.mock.patch.object(trials.Runner, "run", run):
            verdict = self.judge(self.shell("slow", "", 1000.0))
            self.assertIsNone(verdict.found)
            self.assertEqual(verdict.unsteady, ["slow: not over after 20 s, then passed"])
            self.judge(self.shell("bounded", "", 30.0))
        self.assertEqual(given, [20, 80, 20, 30.0])

    def test_a_crash_is_a_failure(self):
        self.assertIn("killed by signal 9", self.judge(self.shell("crashes", "kill -KILL $$")).found)

    def test_what_fails_without_a_fault_is_not_asked(self):
        tests = [self.shell("fails", "exit 1"), self.shell("passes", "exit 0")]
        taken = self.runner.baseline(tests)
        self.assertIsNone(taken["fails"])
        self.assertIsNone(self.runner.judge(tests, taken).found)

    def test_a_test_has_a_folder_of_its_own_that_is_gone_afterwards(self):
        self.assertIsNone(self.judge(self.shell("writes", 'echo "$HOME" >"$1"; [ "$HOME" = "$TMPDIR" ] && : >"$TMPDIR/file"')).found)
        self.assertFalse(Path((self.folder / "writes").read_text().strip()).exists())

    def test_tests_of_one_program_are_read_with_their_time_and_environment(self):
        described = [
            {"name": "A.one", "command": ["/b/tests/a_test", "--gtest_filter=A.one"],
             "properties": [{"name": "TIMEOUT", "value": 30.0}, {"name": "WORKING_DIRECTORY", "value": "/b"},
                            {"name": "ENVIRONMENT", "value": ["X=1=2"]}]},
            {"name": "B.one", "command": ["/b/tests/b_test"]},
            {"name": "A.off", "command": ["/b/tests/a_test"], "properties": [{"name": "DISABLED", "value": True}]},
            {"name": "b_test_NOT_BUILT"}]
        self.assertEqual(trials.read_tests(described, "/b/tests/a_test"), [
            trials.Test("A.one", ["/b/tests/a_test", "--gtest_filter=A.one"], {"X": "1=2"}, "/b", 30.0)])


def ends(process):
    """Whether it is gone, or will be soon: who kills a process need not be the one to wait for it."""
    until = time.monotonic() + 30
    while alive(process) and time.monotonic() < until:
        time.sleep(0.01)
    return not alive(process)


def alive(process):
    """A process that has ended and is not waited for is not alive."""
    try:
        return Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


class FakePlace:
    """A copy in memory; whether a program can be built is told by what stands in the source."""

    def __init__(self, folder):
        self.folder = Path(folder)
        self.text = SAMPLE
        self.built = []

    def read(self, _):
        return self.text

    def write(self, _, text):
        self.text = text

    def graph(self, _):
        return unittest.mock.Mock(nearest=lambda _: [("near_test", 0), ("far_test", 2), ("farthest_test", 9)])

    def build_folder(self, _):
        return self.folder

    def build(self, preset, program, _):
        self.built.append((preset, program, self.text != SAMPLE))
        if "!(" in self.text:
            return False, "unit.cpp:1: error: no such thing"
        if "<= count" in self.text:
            return False, "Error running test executable."
        return True, ""


class JudgeTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.place = FakePlace(directory.name)
        self.found_by = None
        patches = [unittest.mock.patch.object(trials, "tests_of", lambda _, program: [trials.Test(Path(program).name, [], {}, None, 1)]),
                   unittest.mock.patch.object(trials.Runner, "baseline", lambda _, tests: {test.name: 0.1 for test in tests}),
                   unittest.mock.patch.object(trials.Runner, "judge", self.verdict)]
        for patch in patches:
            patch.start()
            self.addCleanup(patch.stop)
        self.judge = judge.Judge(self.place, "abc", "dev", 2, 1, lambda _: None)

    def verdict(self, tests, _):
        self.assertNotEqual(self.place.text, SAMPLE)
        found = f"{tests[0].name}: exit status 1" if tests[0].name == self.found_by else None
        return trials.Verdict(found, [], 1)

    def of_kind(self, kind, new=""):
        return next(fault for fault in faults.faults_of("room/unit.cpp", SAMPLE) if fault.kind == kind and new in fault.new)

    def test_the_nearest_program_is_asked_first_and_only_so_many(self):
        self.found_by = "near_test"
        self.assertEqual(self.judge.judge(self.of_kind("text")).ran, ["near_test (1 tests)"])
        self.found_by = "far_test"
        self.assertEqual(self.judge.judge(self.of_kind("text")).outcome, "found")
        self.found_by = "farthest_test"
        survived = self.judge.judge(self.of_kind("text"))
        self.assertEqual((survived.outcome, survived.ran), ("survived", ["near_test (1 tests)", "far_test (1 tests)"]))
        self.assertEqual(self.place.text, SAMPLE)

    def test_of_equally_near_programs_the_quickest_is_asked_first(self):
        seconds = {"slow_test": 9.0, "quick_test": 0.2, "near_test": 5.0, "other_test": 1.0}
        self.place.graph = lambda _: unittest.mock.Mock(
            nearest=lambda _: [("near_test", 0), ("slow_test", 1), ("quick_test", 1), ("other_test", 1)])
        with unittest.mock.patch.object(trials.Runner, "baseline", lambda _, tests: {test.name: seconds[test.name] for test in tests}):
            first = self.judge.judge(self.of_kind("text")).ran
        self.assertEqual(first, [f"{name}_test (1 tests)" for name in ("near", "slow", "quick", "other")])
        again = self.judge.judge(self.of_kind("text")).ran
        self.assertEqual(again, [f"{name}_test (1 tests)" for name in ("near", "quick", "other", "slow")])

    def test_lockers_are_tried_under_the_thread_sanitizer(self):
        self.judge.judge(self.of_kind("locker"))
        self.assertEqual({preset for preset, _, _ in self.place.built}, {"tsan"})

    def test_each_program_passes_without_a_fault_before_it_is_asked(self):
        self.judge.judge(self.of_kind("text"))
        self.judge.judge(self.of_kind("emit"))
        self.assertEqual([faulty for _, _, faulty in self.place.built], [False, True, False, True, True, True])

    def test_what_does_not_compile_is_not_counted_and_what_does_not_start_is_found(self):
        self.assertEqual(self.judge.judge(self.of_kind("condition")).outcome, "not built")
        self.assertEqual(self.judge.judge(self.of_kind("comparison", "<= count")).outcome, "found")
        self.assertEqual(self.place.text, SAMPLE)


class RecordsTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.folder = Path(directory.name)
        self.fault = faults.faults_of("room/unit.cpp", SAMPLE)[0]
        self.judgement = judge.Judgement("survived", "", ["a_test (3 tests)"], [], 7)

    def test_what_was_judged_is_known_to_the_next_run_of_the_same_commit(self):
        file = self.folder / "results"
        records.Records(file, "abc", "dev").add(self.fault, self.judgement)
        with open(file, "a") as cut_off:
            cut_off.write('{"under": "abc d')
        self.assertEqual(records.Records(file, "abc", "dev").get(self.fault), self.judgement)
        self.assertIsNone(records.Records(file, "abd", "dev").get(self.fault))
        self.assertIsNone(records.Records(file, "abc", "release").get(self.fault))

    def test_an_interrupted_run_keeps_its_seed(self):
        file = self.folder / "seed"
        first = records.Seed(file, ["abc", 20], None)
        second = records.Seed(file, ["abc", 20], None)
        self.assertEqual((second.number, second.was_interrupted), (first.number, True))
        self.assertFalse(records.Seed(file, ["abd", 20], None).was_interrupted)
        self.assertEqual(records.Seed(file, ["abc", 20], 5).number, 5)
        second.is_done()
        self.assertFalse(records.Seed(file, ["abc", 20], None).was_interrupted)

    def test_the_report_tells_the_change_and_what_ran(self):
        report = records.Report()
        report.add(self.fault, self.judgement, SAMPLE)
        text = report.text("head")
        for part in ("SURVIVED room/unit.cpp:10: constant", "\n-constexpr int limit = 1'000; /* 5 == 5 */",
                     "\n+constexpr int limit = 1001; /* 5 == 5 */", "ran: a_test (3 tests)", "room: 0 of 1 found, 0 %"):
            self.assertIn(part, text)


class CommandTest(unittest.TestCase):
    """A small tree of its own; nothing is built."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name)
        identity = {"GIT_CONFIG_GLOBAL": os.devnull, "GIT_CONFIG_SYSTEM": os.devnull, "GIT_AUTHOR_NAME": "A",
                    "GIT_AUTHOR_EMAIL": "a@b", "GIT_COMMITTER_NAME": "A", "GIT_COMMITTER_EMAIL": "a@b"}
        for patch in (unittest.mock.patch.dict(os.environ, identity), unittest.mock.patch.object(os, "nice")):
            patch.start()
            self.addCleanup(patch.stop)
        self.git("init", "-q", "-b", "main")
        self.commit({".gitignore": "/build/\n", "com/unit.cpp": SAMPLE, "tests/unit_test.cpp": SAMPLE})

    def git(self, *words):
        subprocess.run(["git", *words], cwd=self.tree, check=True, capture_output=True)

    def commit(self, files):
        for name, text in files.items():
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            (self.tree / name).write_text(text)
        self.git("add", ".")
        self.git("commit", "-q", "-m", "tree: change")

    def mutate(self, *words):
        with contextlib.redirect_stdout(io.StringIO()) as out, contextlib.redirect_stderr(io.StringIO()) as errors:
            try:
                status = main.main(["--tree", str(self.tree), *words])
            except SystemExit as end:
                status = end.code
        return status, out.getvalue() + errors.getvalue()

    def test_the_list_names_every_fault_of_the_rooms_and_none_of_the_tests(self):
        status, told = self.mutate("--list")
        self.assertEqual(status, 0)
        self.assertEqual(told.count("com/unit.cpp:"), len(faults.faults_of("com/unit.cpp", SAMPLE)))
        self.assertNotIn("tests/", told)

    def test_since_a_commit_only_the_lines_written_behind_it(self):
        self.commit({"com/unit.cpp": SAMPLE.replace("m_taken = true", "m_taken = false")})
        _, told = self.mutate("--list", "--since", "HEAD~1")
        self.assertEqual(sorted(told.splitlines()), [
            "    + ;", "    + m_taken = true;", "    - m_taken = false;", "    - m_taken = false;",
            "com/unit.cpp:26: constant in Unit::take", "com/unit.cpp:26: statement in Unit::take"])

    def test_the_user_s_files_stay_and_what_is_not_committed_is_said_to_be_left_out(self):
        (self.tree / "com/unit.cpp").write_text("int mine;\n")
        _, told = self.mutate("--list", "com/unit.cpp")
        self.assertIn("what is not committed is not looked at", told)
        self.assertIn("com/unit.cpp:26", told)
        self.assertEqual((self.tree / "com/unit.cpp").read_text(), "int mine;\n")

    def test_accepted_faults_are_said_to_be(self):
        self.commit({main.EQUIVALENT: ENTRY.replace("room/", "com/")})
        self.assertEqual(self.mutate("--list")[1].count("(accepted)"), 1)

    def run_with(self, *words, outcome="found", fails_at=None):
        asked = []

        def judged(_, fault):
            if len(asked) == fails_at:
                raise KeyboardInterrupt
            asked.append(fault)
            return judge.Judgement(outcome, "", [], [], 0)

        with unittest.mock.patch.object(judge.Judge, "judge", judged):
            status, told = self.mutate(*words)
        return status, told, asked

    def test_the_status_tells_whether_any_survived(self):
        self.assertEqual(self.run_with("--count", "2")[0], 0)
        status, told, _ = self.run_with("--count", "3", "--programs", "2", outcome="survived")
        self.assertEqual(status, main.SURVIVED)
        self.assertEqual(told.count("\nSURVIVED"), 3)
        self.assertIn("SURVIVED", (self.tree / "build/mutate/report.txt").read_text())

    def test_the_same_command_goes_on_after_an_interruption(self):
        status, told, first = self.run_with("--count", "4", fails_at=2)
        self.assertEqual(status, 130)
        status, told, rest = self.run_with("--count", "4")
        self.assertEqual((status, len(rest)), (0, 2))
        self.assertEqual(told.count("(known)"), 2)
        self.assertFalse(set(first) & set(rest))

    def test_faults_that_do_not_compile_are_replaced_by_others(self):
        _, _, asked = self.run_with("--count", "1", outcome="not built")
        self.assertEqual(len(asked), len(faults.faults_of("com/unit.cpp", SAMPLE)))

    def test_accepted_faults_are_not_tried(self):
        self.commit({main.EQUIVALENT: ENTRY.replace("room/", "com/")})
        _, told, asked = self.run_with("--count", "1000")
        self.assertEqual(len(asked), len(faults.faults_of("com/unit.cpp", SAMPLE)) - 1)
        self.assertIn("1 accepted", told)

    def test_one_run_at_a_time(self):
        (self.tree / "build/mutate").mkdir(parents=True)
        with main.alone(self.tree / "build/mutate"):
            self.assertEqual(self.mutate("--list"), (main.COULD_NOT_RUN, "error: another scripts/mutate is running in this tree\n"))

    def test_wrong_usage(self):
        self.assertEqual(self.mutate("tests")[0], main.COULD_NOT_RUN)
        self.assertEqual(self.mutate("--since", "nowhere"), (main.COULD_NOT_RUN, "error: there is no commit nowhere\n"))
        self.assertEqual(self.mutate("--since", "HEAD", "com")[0], main.COULD_NOT_RUN)
        self.assertEqual(self.mutate("--count", "0")[0], main.COULD_NOT_RUN)

    def test_the_script_s_own_help_and_options(self):
        script = TREE / "scripts/mutate"
        helped = subprocess.run([script, "--help"], capture_output=True, text=True)
        self.assertEqual(helped.returncode, 0)
        for kind in faults.KINDS:
            self.assertIn(kind, helped.stdout)
        self.assertEqual(subprocess.run([script, "--nothing"], capture_output=True).returncode, 2)


class WorkplaceTest(unittest.TestCase):
    def test_the_tree_of_the_test_names_the_folder_of_the_copy(self):
        place = workplace.Workplace(TREE, TREE / "build" / "mutate")
        self.assertEqual(place.copy, TREE / "build" / "mutate" / "tree")


if __name__ == "__main__":
    sys.exit(unittest.main())
