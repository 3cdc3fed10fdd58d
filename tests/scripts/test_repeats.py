"""scripts/test --repeat and --load: what is told of the runs, and that the load ends."""

import contextlib
import io
import os
import signal
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest
import unittest.mock
from pathlib import Path

import repeats

DEADLINE_S = 30

# Stands for ctest: fails the test B in each second run, and the seed of it is told in its output.
CTEST = textwrap.dedent("""
    import pathlib, sys
    junit = pathlib.Path(sys.argv[sys.argv.index("--output-junit") + 1])
    count = pathlib.Path(sys.argv[1])
    runs = len(count.read_text()) if count.exists() else 0
    count.write_text("x" * (runs + 1))
    fails = runs % 2 == 1
    junit.write_text('<testsuite><testcase name="A" status="run"><system-out>TEST_SEED=1</system-out></testcase>'
                     f'<testcase name="B" status="{"fail" if fails else "run"}">'
                     f'<system-out>repeat with TEST_SEED={runs}</system-out></testcase></testsuite>')
    sys.exit(8 if fails else 0)
""")


def busy_processes(parent):
    """The living processes of the load that parent has started."""
    found = []
    for directory in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = (directory / "cmdline").read_bytes().split(b"\0")
            if repeats.BUSY.encode() in words and str(parent).encode() in words:
                if (directory / "stat").read_text().rsplit(")", 1)[1].split()[0] != "Z":
                    found.append(int(directory.name))
    return found


def wait_for(condition):
    end = time.monotonic() + DEADLINE_S
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.02)
    return False


class RepeatsTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = Path(directory.name)
        without_seed = unittest.mock.patch.dict(os.environ)
        without_seed.start()
        self.addCleanup(without_seed.stop)
        os.environ.pop("TEST_SEED", None)

    def run_main(self, count, script=CTEST):
        told = io.StringIO()
        with contextlib.redirect_stdout(told):
            status = repeats.main(["--repeat", str(count), "--logs", str(self.directory), "--",
                                   sys.executable, "-c", script, str(self.directory / "count")])
        return status, told.getvalue()

    def test_names_what_failed_how_often_with_seeds(self):
        status, told = self.run_main(4)
        self.assertEqual(status, 1)
        self.assertIn("failed, in 4 runs:\n    2 x  B   TEST_SEED=1, 3\n", told)
        self.assertIn("run 1 of 4: passed", told)
        self.assertIn("run 2 of 4: 1 failed", told)

    def test_no_failure(self):
        status, told = self.run_main(1)
        self.assertEqual(status, 0)
        self.assertTrue(told.endswith("no test failed in 1 run\n"), told)

    def test_a_test_that_told_no_seed_has_that_of_its_run(self):
        runs = repeats.Runs()
        runs.add({"A": None}, 8, 77)
        self.assertIn("    1 x  A   TEST_SEED=77", runs.lines())

    def test_a_run_that_ends_badly_without_a_test_is_no_success(self):
        status, told = self.run_main(1, "import sys; sys.exit(1)")
        self.assertEqual(status, 1)
        self.assertIn("1 x  ctest itself", told)
        self.assertIn("ctest ended with status 1", told)

    def test_every_run_has_a_seed_of_its_own_unless_one_is_given(self):
        script = "import os, sys; open(sys.argv[1], 'a').write(os.environ['TEST_SEED'] + ' ')"
        self.run_main(2, script)
        seeds = (self.directory / "count").read_text().split()
        self.assertEqual(len(set(seeds)), 2)
        with unittest.mock.patch.dict(os.environ, TEST_SEED="42"):
            self.run_main(2, script)
        self.assertEqual((self.directory / "count").read_text().split()[2:], ["42", "42"])

    def test_output_of_each_run_is_kept_and_that_of_earlier_ones_is_not(self):
        self.run_main(2, "print('hello')")
        self.assertEqual((self.directory / "run-2.log").read_text(), "hello\n")
        self.run_main(1, "print('hello')")
        self.assertFalse((self.directory / "run-2.log").exists())


class LoadTest(unittest.TestCase):
    def start(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        process = subprocess.Popen(
            [sys.executable, "-B", repeats.__file__, "--load", "2", "--logs", directory.name, "--",
             sys.executable, "-c", f"import time; time.sleep({DEADLINE_S})"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(self.end, process)
        self.assertTrue(wait_for(lambda: len(busy_processes(process.pid)) == 2))
        return process

    @staticmethod
    def end(process):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()

    def test_ends_with_the_runs(self):
        with repeats.load(2):
            self.assertTrue(wait_for(lambda: len(busy_processes(os.getpid())) == 2))
        self.assertEqual(busy_processes(os.getpid()), [])

    def test_ends_on_an_interrupt(self):
        process = self.start()
        os.killpg(process.pid, signal.SIGINT)  # as the terminal does
        told, _ = process.communicate(timeout=DEADLINE_S)
        self.assertEqual(process.returncode, 130)
        self.assertIn(b"interrupted", told)
        self.assertEqual(busy_processes(process.pid), [])

    def test_ends_when_it_is_asked_to_end(self):
        process = self.start()
        process.terminate()
        process.wait(timeout=DEADLINE_S)
        self.assertEqual(busy_processes(process.pid), [])

    def test_ends_with_a_script_that_is_killed(self):
        process = self.start()
        process.kill()
        process.wait(timeout=DEADLINE_S)
        self.assertTrue(wait_for(lambda: not busy_processes(process.pid)))


if __name__ == "__main__":
    unittest.main()
