"""scripts/lint: what is against the rules is told by file and line, and nothing else is."""

import contextlib
import io
import json
import os
import subprocess
import sys
import tempfile
import textwrap
import unittest
import unittest.mock
from pathlib import Path

from lint import changes, checks, main, tidy

TREE = Path(__file__).resolve().parents[2]
GIT_ENVIRONMENT = {"GIT_CONFIG_GLOBAL": os.devnull, "GIT_CONFIG_SYSTEM": os.devnull, "GIT_AUTHOR_NAME": "A", "GIT_AUTHOR_EMAIL": "a@b",
                   "GIT_COMMITTER_NAME": "A", "GIT_COMMITTER_EMAIL": "a@b"}
LONG_SUBJECT = "com: " + "a" * 68

# Stands for clang-tidy: finds something in the third line of each source that holds FAULT.
CLANG_TIDY = textwrap.dedent("""\
    #!/usr/bin/env python3
    import os, sys
    if "--version" in sys.argv:
        sys.exit(print("LLVM version 14.0.6"))
    source = sys.argv[-1]
    text = open(source).read()
    if "BROKEN" in text:
        sys.exit("no compile command")
    if "ELSEWHERE" in text:
        print("/usr/include/stdlib.h:5:1: error: other names [misc-names,-warnings-as-errors]")
        sys.exit(1)
    if "FAULT" in text:
        print(f"{os.path.abspath(source)}:3:7: error: this is dead [misc-dead,-warnings-as-errors]")
        print(f"{os.path.abspath(source)}:9:1: note: it began here")
        sys.exit(1)
""")


class TreeTest(unittest.TestCase):
    """A tree of its own for each test, with one commit on main and a branch that is checked out."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.tree = Path(directory.name) / "tree"
        self.tree.mkdir()
        environment = unittest.mock.patch.dict(os.environ, GIT_ENVIRONMENT)
        environment.start()
        self.addCleanup(environment.stop)
        self.write(".clang-format", (TREE / ".clang-format").read_text())
        self.write("kept.cpp", "int  kept;\n")
        self.git("init", "-q", "-b", "main")
        self.commit("build: begin")
        self.git("checkout", "-q", "-b", "change")

    def write(self, name, text):
        file = self.tree / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        return file

    def git(self, *words):
        return subprocess.run(["git", *words], cwd=self.tree, check=True, capture_output=True, text=True).stdout.strip()

    def commit(self, subject):
        self.git("add", "-A")
        self.git("commit", "-q", "--allow-empty", "-m", subject)

    def lint(self, *words):
        """The status, and the lines told."""
        told = io.StringIO()
        errors = io.StringIO()
        with contextlib.redirect_stdout(told), contextlib.redirect_stderr(errors):
            status = main.main(["--tree", str(self.tree), *words])
        return status, told.getvalue().splitlines() + errors.getvalue().splitlines()

    def assert_found(self, lines, start):
        self.assertTrue(any(line.startswith(start) for line in lines), lines)


class FindingsTest(TreeTest):
    def test_nothing_found(self):
        self.write("good.cpp", "int good;\n")
        self.write("good.py", "import os\n\nprint(os.sep)\n")
        self.write("good.sh", "#!/bin/sh\necho \"$1\"\n")
        self.write("good.md", "short\n\n| " + "a " * 80 + "|\n\n```\n" + "a " * 80 + "\n```\n")
        self.commit("com: add " + "a" * 63)
        status, lines = self.lint()
        self.assertEqual((status, len(lines)), (0, 1), lines)
        self.assertRegex(lines[0], r"^lint: nothing found in what has changed since \w{10}: 4 files, 1 commits$")

    def test_format(self):
        self.write("room/bad.cpp", "int good;\nint  bad;\n")
        status, lines = self.lint()
        self.assertEqual(status, 1)
        self.assertEqual(lines[:2], ["room/bad.cpp:2: not in the tree's format", "    scripts/lint --fix puts them into format"])
        self.assertTrue(lines[2].startswith("lint: 1 found"), lines)

    def test_fix_puts_into_format_what_has_changed_and_nothing_else(self):
        bad = self.write("bad.h", "int  bad;\n")
        status, lines = self.lint("--fix")
        self.assertEqual((status, lines[0]), (0, "bad.h: put into format"))
        self.assertEqual(bad.read_text(), "int bad;\n")
        self.assertEqual((self.tree / "kept.cpp").read_text(), "int  kept;\n")

    def test_a_format_that_cannot_be_read_is_no_finding(self):
        self.write(".clang-format", "NoSuchOption: 1\n")
        self.write("good.cpp", "int good;\n")
        status, lines = self.lint()
        self.assertEqual(status, 2)
        self.assertIn(".clang-format:1: error: unknown key 'NoSuchOption'", lines[-1])

    def test_a_tool_that_fails_without_a_finding_is_no_success(self):
        told = subprocess.CompletedProcess([], 1, stdout="", stderr="out of memory\n")
        with self.assertRaisesRegex(checks.ToolFailed, "shellcheck: out of memory$"):
            checks.checked(told, self.tree, "shellcheck")

    def test_shell_with_or_without_an_ending(self):
        self.write("scripts/one", "#!/usr/bin/env bash\necho fine\necho $1\n")
        self.write("two.sh", "#!/bin/sh\nlocal=$(ls $2)\necho \"$local\"\n")
        self.write("three", "no script: echo $1\n")
        status, lines = self.lint()
        self.assertEqual(status, 1)
        self.assert_found(lines, "scripts/one:3: note: Double quote to prevent globbing and word splitting. [SC2086]")
        self.assert_found(lines, "two.sh:2: ")
        self.assertFalse(any(line.startswith("three") for line in lines), lines)

    def test_python(self):
        self.write("bad.py", "import os\nimport sys\nprint(sys.argv)\n")
        self.write("worse.py", "def broken(:\n")
        status, lines = self.lint()
        self.assertEqual(status, 1)
        self.assert_found(lines, "bad.py:1: 'os' imported but unused")
        self.assert_found(lines, "worse.py:1: ")

    def test_prose(self):
        self.write("bad.md", "# A\n\n" + "word " * 20 + "behind\n")
        status, lines = self.lint()
        self.assertEqual((status, lines[0]), (1, "bad.md:3: prose goes beyond column 100"))

    def test_subjects(self):
        self.commit(LONG_SUBJECT)
        self.commit("Fix it")
        status, lines = self.lint()
        self.assertEqual(status, 1)
        long, other = self.git("log", "--reverse", "--format=%h", "main..HEAD").split()
        self.assertEqual(lines[0], f"commit {long}: subject of 73 characters, at most 72: {LONG_SUBJECT}")
        self.assertEqual(lines[1], f'commit {other}: subject is not "area: what it does": Fix it')


class ProseTest(unittest.TestCase):
    def test_what_may_be_longer(self):
        long = "word " * 30
        link = "https://" + "a" * 120
        self.assertEqual(checks.long_lines(f"{long}\n> {long}\n- {long}\n"), [1, 2, 3])
        self.assertEqual(checks.long_lines(f"{'a' * 49} {'b' * 50}\n"), [])
        self.assertEqual(checks.long_lines(f"{'a' * 50} {'b' * 50}\n"), [1])
        self.assertEqual(checks.long_lines("слово " * 16 + "коне\n"), [])
        self.assertEqual(checks.long_lines(f"| {long} |\n    {long}\n{link}\n- {link}\n[name]: {link} a b\n"), [])
        self.assertEqual(checks.long_lines(f"```sh\n{long}\n```\n{long}\n"), [4])


class ChangesTest(TreeTest):
    def test_a_change_is_what_left_the_upstream_with_what_is_not_committed_yet(self):
        self.write("committed.md", "a\n")
        self.commit("docs: one")
        self.write("new.md", "b\n")
        (self.tree / "kept.cpp").unlink()
        start = changes.base(self.tree, None)
        self.assertEqual(start, self.git("rev-parse", "main"))
        self.assertEqual(changes.changed_files(self.tree, start), ["committed.md", "new.md"])
        self.assertEqual([subject for _, subject in changes.subjects(self.tree, start)], ["docs: one"])

    def test_since_a_commit(self):
        self.write("first.md", "a\n")
        self.commit("docs: one")
        self.write("second.md", "a\n")
        self.commit("docs: two")
        status, lines = self.lint("--since", "HEAD~1")
        self.assertEqual(status, 0)
        self.assertTrue(lines[0].endswith(": 1 files, 1 commits"), lines)
        status, lines = self.lint("--since", "nonsense")
        self.assertEqual((status, lines), (2, ["error: there is no commit nonsense"]))

    def test_older_commits_are_as_they_are(self):
        self.commit(LONG_SUBJECT)
        self.write("scripts/lint", "")
        self.commit("scripts: the rules stand from here")
        self.commit("com: last")
        start = changes.base(self.tree, "main")
        self.assertEqual([subject for _, subject in changes.subjects(self.tree, start)], ["com: last"])

    def test_nothing_to_compare_with(self):
        self.git("branch", "-q", "-D", "main")
        status, lines = self.lint()
        self.assertEqual(status, 2)
        self.assertIn("use --since COMMIT or --all", lines[0])

    def test_everything(self):
        self.commit(LONG_SUBJECT)
        self.write("scripts/lint", "")
        self.commit("scripts: the rules stand from here")
        self.commit(LONG_SUBJECT + "b")
        status, lines = self.lint("--all")
        self.assertEqual(status, 1)
        self.assertEqual(lines[0], "kept.cpp:1: not in the tree's format")
        self.assertIn("subject of 74 characters", lines[2])
        self.assertEqual(lines[-1], "lint: 2 found in the tree: 3 files, 1 commits")

    def test_everything_in_a_shallow_clone(self):
        self.write("scripts/lint", "")
        self.commit(LONG_SUBJECT)
        self.commit("com: last")
        clone = self.tree.with_name("clone")
        self.git("clone", "-q", "--depth", "2", f"file://{self.tree}", str(clone))
        self.tree = clone
        status, lines = self.lint("--all")
        self.assertEqual((status, lines[-1]), (1, "lint: 1 found in the tree: 3 files, 1 commits"))

    def test_everything_of_a_tree_without_git(self):
        for file in sorted((self.tree / ".git").rglob("*"), reverse=True):
            file.rmdir() if file.is_dir() else file.unlink()
        (self.tree / ".git").rmdir()
        self.write("build/made.cpp", "int  made;\n")
        self.write("host/build/kept.cpp", "int  made;\n")
        with unittest.mock.patch.dict(os.environ, GIT_CEILING_DIRECTORIES=str(self.tree.parent)):
            status, lines = self.lint("--all")
        self.assertEqual((status, lines[:2]), (1, ["host/build/kept.cpp:1: not in the tree's format", "kept.cpp:1: not in the tree's format"]))


class TidyTest(TreeTest):
    def setUp(self):
        super().setUp()
        programs = self.tree.with_name("programs")
        programs.mkdir()
        program = programs / "clang-tidy-14"
        program.write_text(CLANG_TIDY)
        program.chmod(0o755)
        environment = unittest.mock.patch.dict(os.environ, PATH=f"{programs}:{os.environ['PATH']}")
        environment.start()
        self.addCleanup(environment.stop)
        self.build = self.tree.with_name("tidy")
        self.build.mkdir()

    def compile(self, *sources):
        commands = [{"directory": str(self.build), "command": "c++", "file": str(self.tree / source)} for source in sources]
        (self.build / "compile_commands.json").write_text(json.dumps(commands))

    def tidy(self):
        return self.lint("--tidy", str(self.build))

    def test_findings_by_file_and_line(self):
        self.write("room/bad.cpp", "// FAULT\n\nint bad;\n")
        self.write("room/good.cpp", "int good;\n")
        self.compile("room/bad.cpp", "room/good.cpp", "kept.cpp")
        status, lines = self.tidy()
        self.assertEqual(status, 1)
        self.assertEqual(lines[0], "room/bad.cpp:3: this is dead [misc-dead,-warnings-as-errors]")
        self.assertIn("lint: 1 found", lines[2])
        self.assertEqual(lines[-1], "clang-tidy: 2 sources")

    def test_a_tool_that_fails_without_a_finding_is_no_success(self):
        self.write("bad.cpp", "// BROKEN\n")
        self.compile("bad.cpp")
        status, lines = self.tidy()
        self.assertEqual((status, lines[-1]), (2, "error: clang-tidy, bad.cpp: no compile command"))

    def test_headers_of_the_system_are_not_ours(self):
        self.write("replaces.cpp", "// ELSEWHERE\n")
        self.compile("replaces.cpp")
        status, lines = self.tidy()
        self.assertEqual(status, 0, lines)

    def test_a_header_is_checked_in_its_source_or_in_the_first_that_includes_it(self):
        self.write("com/own.h", "")
        self.write("com/lonely.h", "")
        self.write("com/unused.h", "")
        sources = ["com/own.cpp", "host/a.cpp", "host/b.cpp", "host/c.cpp"]
        self.write("com/own.cpp", '#include "com/own.h"\n')
        self.write("host/a.cpp", '#include "com/own.h"\n')
        self.write("host/b.cpp", '#include "com/lonely.h"\n')
        self.write("host/c.cpp", '#include "com/lonely.h"\n')
        found = tidy.sources_to_check(["com/lonely.h", "com/own.h", "com/unused.h"], sources, self.tree)
        self.assertEqual(found, ["com/own.cpp", "host/b.cpp"])
        self.assertEqual(tidy.sources_to_check(["host/a.cpp", "scripts/not_compiled.cpp"], sources, self.tree), ["host/a.cpp"])

    def test_what_is_made_while_building_is_not_ours(self):
        self.compile("com/own.cpp", "build/tidy/moc_own.cpp", "../elsewhere.cpp")
        self.assertEqual(tidy.compiled_sources(self.tree, self.build), ["com/own.cpp"])


class CommandTest(unittest.TestCase):
    def lint(self, *words):
        return subprocess.run([TREE / "scripts/lint", *words], capture_output=True, text=True)

    def test_wrong_usage(self):
        for words in (["--nonsense"], ["--since"], ["--all", "--since", "HEAD"]):
            told = self.lint("--no-install", *words)
            self.assertEqual(told.returncode, 2, words)
            self.assertIn("Usage: scripts/lint", told.stderr)

    def test_help(self):
        told = self.lint("--help")
        self.assertEqual(told.returncode, 0)
        for option in ("--since", "--all", "--no-tidy", "--fix", "--no-install"):
            self.assertIn(f"  {option}", told.stdout)

    def test_another_version_of_clang_format_is_refused(self):
        with tempfile.TemporaryDirectory() as directory:
            for name in ("clang-format", "clang-format-14"):
                program = Path(directory) / name
                program.write_text("#!/bin/sh\necho clang-format version 15.0.1\n")
                program.chmod(0o755)
            with unittest.mock.patch.dict(os.environ, PATH=directory), self.assertRaisesRegex(checks.ToolFailed, "clang-format 14 is missing"):
                main.clang_program("clang-format")


if __name__ == "__main__":
    sys.exit(unittest.main())
