"""The copy of the tree in which faults are put, built and tried: a git worktree, never the user's files."""

import os
import shutil
import signal
import subprocess
import time

from mutate import programs

# A fault may make the compiler run on and on.
BUILD_SECONDS = 1800
ENDING_SECONDS = 10


class CouldNotRun(Exception):
    """Why nothing can be said."""


def run(words, folder, **options):
    return subprocess.run(words, cwd=folder, capture_output=True, text=True, errors="replace", stdin=subprocess.DEVNULL, **options)


def git(tree, *words):
    told = run(["git", "-c", "core.quotePath=off", *words], tree)
    if told.returncode != 0:
        raise CouldNotRun(f"git {words[0]}: {told.stderr.strip()}")
    return told.stdout


class Workplace:
    def __init__(self, tree, folder):
        self.tree = tree
        self.folder = folder
        self.copy = folder / "tree"
        self._configured = set()

    def stand_at(self, commit):
        """The copy is as the commit says; what is built in it stays."""
        if (self.copy / ".git").exists():
            git(self.copy, "checkout", "-q", "--detach", "--force", commit)
            return
        shutil.rmtree(self.copy, ignore_errors=True)
        git(self.tree, "worktree", "prune")
        git(self.tree, "worktree", "add", "-q", "--detach", str(self.copy), commit)

    def build_folder(self, preset):
        return self.copy / "build" / preset

    def configure(self, preset):
        if preset in self._configured:
            return
        programs.ask_for_targets(self.build_folder(preset))
        # What a fault leaves unused is no error.
        told = run(["cmake", "--preset", preset, "-DTRANSPORT_WARNINGS_AS_ERRORS=OFF"], self.copy)
        if told.returncode != 0:
            raise CouldNotRun(f"configuring failed:\n{told.stdout[-2000:]}{told.stderr[-2000:]}")
        self._configured.add(preset)

    def graph(self, preset):
        self.configure(preset)
        return programs.Graph(programs.read_targets(self.build_folder(preset)), self.read)

    def read(self, name):
        file = self.copy / name
        return file.read_text(encoding="utf-8") if file.is_file() else None

    def write(self, name, text):
        (self.copy / name).write_text(text, encoding="utf-8")

    def build(self, preset, target, jobs):
        """(built or not, what the compiler said)"""
        self.configure(preset)
        words = ["cmake", "--build", "--preset", preset, "-j", str(jobs), "--target", target]
        build = subprocess.Popen(words, cwd=self.copy, text=True, errors="replace", stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        try:
            told, _ = build.communicate(timeout=BUILD_SECONDS)
        except subprocess.TimeoutExpired:
            return False, f"not built within {BUILD_SECONDS} s"
        finally:
            ask_group_to_end(build)
            end_group(build)
        return build.returncode == 0, told


def ask_group_to_end(process):
    """So that ninja takes away what is half written; without it the next build might take that for whole."""
    until = time.monotonic() + ENDING_SECONDS
    try:
        os.killpg(process.pid, signal.SIGTERM)
        while time.monotonic() < until:
            process.poll()
            os.killpg(process.pid, 0)
            time.sleep(0.05)
    except ProcessLookupError:
        pass


def end_group(process):
    """What the process has started ends with it."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def did_not_start(told):
    """Of a build that failed: the program was built, and failed when it was asked for its tests."""
    return "Error running test executable" in told


def commit_of(tree, name):
    return git(tree, "rev-parse", "--verify", "--quiet", name + "^{commit}").strip()


def uncommitted(tree):
    return bool(git(tree, "status", "--porcelain", "--untracked-files=no").strip())


def files_of(tree, commit, folder):
    names = git(tree, "ls-tree", "-r", "-z", "--name-only", commit, "--", *([folder] if folder else [])).split("\0")
    return [name for name in names if name.endswith((".cpp", ".h"))]


def changed_lines(tree, since, commit):
    """{file: set of its lines that the commits behind since have written}."""
    lines = {}
    file = None
    for line in git(tree, "diff", "--unified=0", "--no-color", "--no-ext-diff", "--diff-filter=d", since, commit).splitlines():
        if line.startswith("+++ "):
            file = line[6:] if line.startswith("+++ b/") else None
        elif line.startswith("@@") and file:
            begin, _, count = line.split("+", 1)[1].split(" ", 1)[0].partition(",")
            lines.setdefault(file, set()).update(range(int(begin), int(begin) + int(count or 1)))
    return lines


def processors():
    return len(os.sched_getaffinity(0))
