"""What a run of real programs stands on: installations of the reference host, the exchange between
them, a directory for both, a table of results. scripts/demo and scripts/hub use it.
"""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

BITS_PER_BYTE = 10  # on the line: start bit, eight data bits, stop bit
END_S = 20  # for a program to start or to stop


def monotonic():
    return time.clock_gettime(time.CLOCK_MONOTONIC)


class Failure(Exception):
    """Something that the user has to be told, in a sentence."""


class Installation:
    """One installation of the reference host, and its running program."""

    def __init__(self, root, name, number, build):
        self.root, self.name, self.number, self.build = root, name, number, build
        self.program = root / "bin" / "transport-host"
        self.events_path = root / "events.json"
        self.output_path = root / "output.txt"
        self.process = None
        self.events = []
        self.offset = 0
        self.rest = b""

    def lay_out(self):
        for component in ("runtime", "programs"):
            subprocess.run(["cmake", "--install", str(self.build), "--prefix", str(self.root), "--component", component, "--strip"],
                           check=True, stdout=subprocess.DEVNULL)

    def host(self, *command):
        done = subprocess.run([str(self.program), *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            raise Failure(f"transport-host {' '.join(command)}: {done.stdout.decode(errors='replace').strip()}")

    def key(self):
        """The fingerprint to compare and the key to hand over."""
        done = subprocess.run([str(self.program), "key", "--json"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if done.returncode != 0:
            raise Failure(f"transport-host key: {done.stderr.decode(errors='replace').strip()}")
        return json.loads(done.stdout)

    def add_abonent(self, other):
        self.host("abonent", "add", other.name, "--number", other.number, "--key", other.key()["key"])

    def launch(self, lines_table, options, libraries=("libptylines.so",), **environment):
        """Runs the host; libraries of the build are preloaded."""
        preloaded = " ".join(f"{self.build}/lib/{library}" for library in libraries)
        environment = dict(os.environ, LD_PRELOAD=preloaded, PTYLINES_TABLE=str(lines_table), **environment)
        with open(self.output_path, "ab") as output:
            self.process = subprocess.Popen(
                [str(self.program), "run", "--plain", "--events", str(self.events_path), "--retry-seconds", "0.05", *options],
                env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def read_events(self):
        """The events that came since the last look."""
        try:
            with open(self.events_path, "rb") as file:
                file.seek(self.offset)
                data = file.read()
        except FileNotFoundError:
            return []
        self.offset += len(data)
        *lines, self.rest = (self.rest + data).split(b"\n")
        fresh = [json.loads(line) for line in lines if line]
        self.events += fresh
        return fresh

    def last_words(self):
        return "".join(self.output_path.read_text(errors="replace").splitlines(keepends=True)[-8:])

    def kill(self):
        self.process.kill()
        self.process.wait()

    def stop(self):
        if self.is_running():
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(END_S)
            except subprocess.TimeoutExpired:
                self.kill()


class Exchange:
    """The running telephone exchange; arguments: build, rate, delay and seed."""

    def __init__(self, directory, modems, arguments, *options):
        self.lines_table = directory / "lines"
        ready = directory / "ready"
        output_path = directory / "output.txt"
        command = [str(arguments.build / "bin" / "phone-exchange"), "--modems", str(modems), "--link-dir", str(directory),
                   "--rate", str(arguments.rate), "--delay", str(arguments.delay), "--seed", str(arguments.seed),
                   "--ring-interval", "3", "--table", str(self.lines_table), "--ready-file", str(ready), *options]
        with open(output_path, "wb") as output:
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=output, stderr=subprocess.STDOUT)
        end = monotonic() + END_S
        while not ready.exists():
            if self.process.poll() is not None or monotonic() > end:
                raise Failure(f"the exchange did not start: {output_path.read_text(errors='replace').strip()}")
            time.sleep(0.02)

    def tell(self, command):
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()

    def stop(self):
        if self.process.poll() is None:
            try:
                self.process.communicate(b"quit\n", timeout=END_S)
            except (subprocess.TimeoutExpired, BrokenPipeError):
                self.process.kill()
                self.process.wait()


def print_table(rows, titles):
    """The first two columns are texts, the others numbers."""
    widths = [max(len(str(row[i])) for row in [titles, *rows]) for i in range(len(titles))]
    print()
    print("  ".join(title.ljust(width) for title, width in zip(titles, widths)))
    print("  ".join("-" * width for width in widths))
    for row in rows:
        print("  ".join(str(cell).ljust(width) if i < 2 else str(cell).rjust(width) for i, (cell, width) in enumerate(zip(row, widths))))


def check_keep(parser, arguments):
    if arguments.keep and os.path.exists(arguments.keep):
        parser.error(f"--keep: {arguments.keep} exists already")


def run_in_directory(run, arguments, prefix, contents=""):
    """run(arguments, directory) in a directory that goes with it, or in the one to be kept. The exit status."""
    if arguments.keep:
        directory = Path(arguments.keep).resolve()
        directory.mkdir(parents=True)
    else:
        directory = Path(tempfile.mkdtemp(prefix=prefix))
    try:
        return run(arguments, directory)
    except Failure as failure:
        print(f"error: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nstopped", file=sys.stderr)
        return 130
    finally:
        if arguments.keep:
            print(f"kept: {directory}{contents}")
        else:
            shutil.rmtree(directory, ignore_errors=True)
