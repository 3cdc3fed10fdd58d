"""One function for each kind of rule. Each takes names of files and gives its findings."""

import os
import re
import subprocess
from collections import namedtuple
from concurrent.futures import ThreadPoolExecutor

SUBJECT_CHARACTERS = 72
PROSE_COLUMNS = 100
FILES_AT_ONCE = 20

# place: file and line as editors take them, or the commit.
Finding = namedtuple("Finding", "place text")

AT_A_LINE = re.compile(r"^(?P<file>[^:\n]+):(?P<line>\d+)(:\d+)?:? (?P<text>.+)$")


class ToolFailed(Exception):
    """A tool did not do its work; what it said."""


def run(words, tree):
    return subprocess.run(words, cwd=tree, capture_output=True, text=True, errors="replace")


def at_lines(output, tree):
    """What compilers' way of telling says; two things about one line are told once each."""
    findings = []
    for line in output.splitlines():
        match = AT_A_LINE.match(line)
        if match:
            name = os.path.relpath(os.path.join(tree, match["file"]), tree)
            finding = Finding(f"{name}:{match['line']}", match["text"])
            if finding not in findings:
                findings.append(finding)
    return findings


def checked(told, tree, what):
    """The findings of a tool that ends with a status only if it has some."""
    findings = at_lines(told.stdout + told.stderr, tree)
    if told.returncode != 0 and not findings:
        raise ToolFailed(f"{what}: {(told.stderr or told.stdout).strip()}")
    return findings


def batches(files):
    return [files[first:first + FILES_AT_ONCE] for first in range(0, len(files), FILES_AT_ONCE)]


def format_of_sources(files, tree, program):
    def check(batch):
        findings = checked(run([program, "--dry-run", "-Werror", *batch], tree), tree, "clang-format")
        for finding in findings:
            if "clang-format-violations" not in finding.text:
                raise ToolFailed(f"clang-format: {finding.place}: {finding.text}")
        return findings

    with ThreadPoolExecutor(os.cpu_count()) as pool:
        found = [finding for batch in pool.map(check, batches(files)) for finding in batch]
    return [Finding(finding.place, "not in the tree's format") for finding in found]


def put_into_format(files, tree, program):
    """The names of the files that were changed."""
    def contents():
        return {name: open(os.path.join(tree, name), "rb").read() for name in files}

    before = contents()
    for batch in batches(files):
        told = run([program, "-i", *batch], tree)
        if told.returncode != 0:
            raise ToolFailed(f"clang-format: {told.stderr.strip()}")
    after = contents()
    return [name for name in files if before[name] != after[name]]


def shell(files, tree):
    # Style is a matter of taste; .shellcheckrc tells where sourced files are.
    return checked(run(["shellcheck", "--format=gcc", "--severity=info", *files], tree), tree, "shellcheck")


def python(files, tree):
    return checked(run(["pyflakes3", *files], tree), tree, "pyflakes3")


FENCE = re.compile(r"^\s*(```|~~~)")
NOT_PROSE = re.compile(r"^(\s*\||    |\t|\s*\[[^\]]+\]:\s)")


def long_lines(text):
    """The numbers of lines of prose that go beyond the last column and could be broken before it."""
    found = []
    is_code = False
    for number, line in enumerate(text.splitlines(), 1):
        if FENCE.match(line):
            is_code = not is_code
        elif not is_code and not NOT_PROSE.match(line) and len(line) > PROSE_COLUMNS:
            # A long link alone in its line cannot be broken: nothing before it but a mark of a list.
            if re.sub(r"^\s*([-*+>]|\d+\.)?\s*", "", line[:PROSE_COLUMNS + 1]).count(" "):
                found.append(number)
    return found


def prose(files, tree):
    findings = []
    for name in files:
        with open(os.path.join(tree, name), encoding="utf-8") as file:
            findings += [Finding(f"{name}:{number}", f"prose goes beyond column {PROSE_COLUMNS}")
                         for number in long_lines(file.read())]
    return findings


def subject_lines(commits):
    findings = []
    for identity, subject in commits:
        if len(subject) > SUBJECT_CHARACTERS:
            findings.append(Finding(f"commit {identity}", f"subject of {len(subject)} characters, at most "
                                                          f"{SUBJECT_CHARACTERS}: {subject}"))
        elif not re.match(r"[^\s:][^:]*: \S", subject):
            findings.append(Finding(f"commit {identity}", f'subject is not "area: what it does": {subject}'))
    return findings
