"""scripts/lint: looks for what is against the tree's rules and tells it by file and line."""

import argparse
import os
import re
import shutil
import subprocess
import sys

from lint import changes, checks, tidy

FOUND = 1
COULD_NOT_RUN = 2
CLANG_VERSION = 14


def clang_program(name):
    """Another version formats otherwise."""
    for program in (f"{name}-{CLANG_VERSION}", name):
        if shutil.which(program):
            version = subprocess.run([program, "--version"], capture_output=True, text=True).stdout
            if re.search(rf"version {CLANG_VERSION}\.", version):
                return program
    raise checks.ToolFailed(f"{name} {CLANG_VERSION} is missing; run scripts/lint without --no-install, "
                            f"or install the package {name}-{CLANG_VERSION}")


def needed(program, package):
    if not shutil.which(program):
        raise checks.ToolFailed(f"{program} is missing; run scripts/lint without --no-install, or install the package {package}")


def is_shell(tree, name):
    if name.endswith(".sh"):
        return True
    with open(os.path.join(tree, name), "rb") as file:
        return re.match(rb"#!.*\b(ba|da)?sh\b", file.readline(100)) is not None


class Report:
    """Tells each kind's findings, and what to do about them."""

    def __init__(self):
        self.count = 0

    def add(self, findings, advice):
        for finding in findings:
            print(f"{finding.place}: {finding.text}")
        if findings:
            print(f"    {advice}")
        self.count += len(findings)


def check_sources(names, arguments, report):
    sources = [name for name in names if name.endswith((".cpp", ".h"))]
    if not sources:
        return
    program = clang_program("clang-format")
    if arguments.fix:
        for name in checks.put_into_format(sources, arguments.tree, program):
            print(f"{name}: put into format")
    else:
        report.add(checks.format_of_sources(sources, arguments.tree, program), "scripts/lint --fix puts them into format")
    if arguments.tidy:
        build = arguments.tidy
        compiled = tidy.compiled_sources(arguments.tree, build)
        wanted = tidy.sources_to_check(sources, compiled, arguments.tree)
        report.add(tidy.tidy(wanted, arguments.tree, build, clang_program("clang-tidy")),
                   "the checks are in .clang-tidy; where one is wrong: // NOLINT(its name), with the reason")


def check_scripts(names, arguments, report):
    shells = [name for name in names if is_shell(arguments.tree, name)]
    pythons = [name for name in names if name.endswith(".py")]
    if shells:
        needed("shellcheck", "shellcheck")
        report.add(checks.shell(shells, arguments.tree),
                   "shellcheck.net/wiki/SC... explains each; where one is wrong: # shellcheck disable=SC..., with the reason")
    if pythons:
        needed("pyflakes3", "pyflakes3")
        report.add(checks.python(pythons, arguments.tree), "each of these is a mistake or dead: mend or delete it")


def check(arguments):
    tree = arguments.tree
    if arguments.all:
        names = changes.all_files(tree)
        commits = changes.subjects(tree, None)
        what = "the tree"
    else:
        start = changes.base(tree, arguments.since)
        names = changes.changed_files(tree, start)
        commits = changes.subjects(tree, start)
        what = f"what has changed since {start[:10]}"
    report = Report()
    check_sources(names, arguments, report)
    check_scripts(names, arguments, report)
    report.add(checks.prose([name for name in names if name.endswith(".md")], tree),
               "wrap it; tables and code may be longer")
    report.add(checks.subject_lines(commits), "git rebase -i, reword; see CONTRIBUTING.md")
    print(f"lint: {report.count or 'nothing'} found in {what}: {len(names)} files, {len(commits)} commits")
    return FOUND if report.count else 0


def main(words):
    parser = argparse.ArgumentParser(prog="scripts/lint", add_help=False)
    parser.add_argument("--tree", required=True)
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--since")
    parser.add_argument("--fix", action="store_true")
    parser.add_argument("--tidy", metavar="BUILD", help="the build folder whose compile_commands.json clang-tidy uses")
    arguments = parser.parse_args(words)
    try:
        return check(arguments)
    except (changes.NotFound, checks.ToolFailed) as error:
        sys.stdout.flush()
        print(f"error: {error}", file=sys.stderr)
        return COULD_NOT_RUN
