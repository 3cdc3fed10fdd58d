"""Two installations of the reference host exchange files through the simulated exchange.

Started by scripts/demo, which builds what this runs.
"""

import argparse
import hashlib
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

NORTH, SOUTH = "Север", "Юг"
BITS_PER_BYTE = 10  # on the line: start bit, eight data bits, stop bit


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/demo",
        description="Installs what is missing, builds, lays out two installations that load the built library, "
        "and lets them dial one another through simulated modems and exchange files, both directions at once. "
        "Exit status 0 only if every file arrived bit-exact.",
        epilog="Also: --no-install (do not install packages), --no-build (take build/release as it is).",
    )
    parser.add_argument("files", nargs="*", metavar="FILE", help="send these, from North to South, instead of the sample files")
    parser.add_argument("--rate", type=int, default=115200, metavar="BITS", help="of the line, bit/s each way (default 115200)")
    parser.add_argument("--delay", type=int, default=0, metavar="MS", help="of the line, each way (default 0)")
    parser.add_argument("--ber", type=float, default=0.0, metavar="P", help="chance of each bit to be flipped, as 1e-5 (default 0)")
    parser.add_argument("--drop-carrier", action="store_true", help="the first call loses its carrier in the middle")
    parser.add_argument("--seed", type=int, default=1, metavar="N", help="of the noise and of the sample files (default 1)")
    parser.add_argument("--timeout", type=int, default=0, metavar="S", help="give up after so long (default: from the amount and the line)")
    parser.add_argument("--keep", metavar="DIR", help="lay the installations out in DIR, which must not exist, and keep them")
    parser.add_argument("--build", type=Path, required=True, help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if not 300 <= arguments.rate <= 4000000:
        parser.error("--rate: 300 to 4000000 bit/s")
    if not 0 <= arguments.delay <= 10000:
        parser.error("--delay: 0 to 10000 ms")
    if not 0 <= arguments.ber <= 0.01:
        parser.error("--ber: 0 to 0.01")
    for name in arguments.files:
        if not os.path.isfile(name) or not os.access(name, os.R_OK):
            parser.error(f"{name}: no such file, or not readable")
    if arguments.keep and os.path.exists(arguments.keep):
        parser.error(f"--keep: {arguments.keep} exists already")
    return arguments


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        for block in iter(lambda: file.read(1 << 16), b""):
            digest.update(block)
    return digest.hexdigest()


def monotonic():
    return time.clock_gettime(time.CLOCK_MONOTONIC)


class Failure(Exception):
    """Something that the user has to be told, in a sentence."""


class Installation:
    """One installation of the reference host, and its running program."""

    def __init__(self, root, name, number, port, arguments):
        self.root, self.name, self.number, self.port = root, name, number, port
        self.arguments = arguments
        self.program = root / "bin" / "transport-host"
        self.events_path = root / "events.json"
        self.to_send = []
        self.process = None
        self.events = []
        self.offset = 0
        self.rest = b""

    def lay_out(self):
        for component in ("runtime", "programs"):
            subprocess.run(
                ["cmake", "--install", str(self.arguments.build), "--prefix", str(self.root), "--component", component, "--strip"],
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

    def configure(self, peer):
        self.host("name", self.name)
        self.host("port", "add", str(self.port), "--baud", str(min(self.arguments.rate * 2, 4000000)))
        self.host("abonent", "add", peer.name, "--number", peer.number, "--key", peer.key()["key"])
        if self.to_send:
            self.host("send", peer.name, *map(str, self.to_send))

    def start(self, expected, lines_table, timeout):
        environment = dict(os.environ, LD_PRELOAD=str(self.arguments.build / "lib" / "libptylines.so"), PTYLINES_TABLE=str(lines_table))
        self.output = open(self.root / "output.txt", "wb")
        self.process = subprocess.Popen(
            [str(self.program), "run", "--plain", "--events", str(self.events_path), "--retry-seconds", "0.05",
             "--exit-when-sent", "--exit-when-received", str(expected), "--timeout", str(timeout)]
            # Kept ones lie where the user says, who may be somebody else than runs this with sudo.
            + (["--allow-shared"] if self.arguments.keep else []),
            env=environment, stdin=subprocess.DEVNULL, stdout=self.output, stderr=subprocess.STDOUT)

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

    def received_file(self, name, digest):
        """The file of that name and content in the inbox; None when there is none."""
        for directory in sorted((self.root / "data/0/messages/input").glob("*")):
            for path in directory.iterdir():
                if path.name == name and sha256(path) == digest:
                    return path
        return None

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(20)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


class Exchange:
    """The running telephone exchange with two modems."""

    def __init__(self, directory, arguments, drop_after_bytes):
        self.directory = directory
        self.lines_table = directory / "lines"
        self.stats_path = directory / "calls.json"
        ready = directory / "ready"
        command = [str(arguments.build / "bin" / "phone-exchange"), "--modems", "2", "--link-dir", str(directory),
                   "--rate", str(arguments.rate), "--delay", str(arguments.delay), "--ber", repr(arguments.ber),
                   "--seed", str(arguments.seed), "--ring-interval", "3", "--table", str(self.lines_table),
                   "--ready-file", str(ready), "--stats", str(self.stats_path)]
        if drop_after_bytes:
            command += ["--drop-after-bytes", str(drop_after_bytes), "--drop-times", "1"]
        self.output = open(directory / "output.txt", "wb")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=self.output, stderr=subprocess.STDOUT)
        end = monotonic() + 20
        while not ready.exists():
            if self.process.poll() is not None or monotonic() > end:
                raise Failure(f"the exchange did not start: {(directory / 'output.txt').read_text(errors='replace').strip()}")
            time.sleep(0.02)

    def stop(self):
        if self.process.poll() is None:
            try:
                self.process.communicate(b"quit\n", timeout=20)
            except (subprocess.TimeoutExpired, BrokenPipeError):
                self.process.kill()
                self.process.wait()

    def calls(self):
        try:
            return json.loads(self.stats_path.read_text())
        except (OSError, ValueError):
            return None


def make_samples(directory, build, seed):
    """Text, a binary, an empty file and a Cyrillic name, for both directions."""
    random.seed(seed)
    words = "линия модем вызов номер пакет повтор контрольная сумма carrier line modem number packet repeat".split()
    text = directory / "letter.txt"
    text.write_text("\n".join(" ".join(random.choices(words, k=12)) for _ in range(700)), encoding="utf-8")
    library = directory / "libtransportCom.so.1"
    subprocess.run(["strip", "-o", str(library), str(build / "bin/channelPlugins/libtransportCom.so.1")], check=True)
    empty = directory / "empty.dat"
    empty.touch()
    report = directory / "Отчёт о связи за ноябрь.txt"
    report.write_text("\n".join(" ".join(random.choices(words, k=12)) for _ in range(500)), encoding="utf-8")
    noise = directory / "random.bin"
    noise.write_bytes(random.randbytes(150000))
    return [library, empty, report], [text, noise, report]


class Progress:
    """Shows both installations' events while they run: bars in a terminal, else lines."""

    def __init__(self):
        self.live = sys.stdout.isatty()
        self.files = {}
        self.shown = 0
        self.started = monotonic()
        self.last_print = 0.0

    def take(self, host, events):
        for event in events:
            kind = event["event"]
            if kind in ("fileBegun", "progress", "stored", "failed") and event.get("direction") == "in":
                entry = self.files.setdefault((host.name, event["id"]), {"to": host.name, "name": event["file"], "size": event["size"], "bytes": 0, "begun": event["monotonic"]})
                entry["bytes"] = event.get("bytes", entry["bytes"])
                if kind == "stored":
                    entry["bytes"], entry["stored"] = event["size"], event["monotonic"]
                    self.say(f"{host.name}: whole and verified: {event['file']} ({event['size']} bytes)")
            elif kind == "callPlaced":
                self.say(f"{host.name}: calls {event['peer']}")
            elif kind == "connected":
                self.say(f"{host.name}: connected with {event['peer']}")
            elif kind == "notConnected":
                self.say(f"{host.name}: no connection with {event['peer']}")
            elif kind == "callEnded":
                self.say(f"{host.name}: the call ended: {event['reason'] or 'nothing was left to say'}")

    def say(self, text):
        self.erase()
        print(f"{monotonic() - self.started:6.1f} s  {text}", flush=True)

    def erase(self):
        if self.live and self.shown:
            sys.stdout.write(f"\x1b[{self.shown}A\x1b[J")
            self.shown = 0

    def draw(self):
        running = [entry for entry in self.files.values() if "stored" not in entry]
        if self.live:
            self.erase()
            for entry in running:
                print(self.bar(entry))
            self.shown = len(running)
            sys.stdout.flush()
        elif running and monotonic() - self.last_print > 5:
            self.last_print = monotonic()
            for entry in running:
                self.say(self.bar(entry).strip())

    @staticmethod
    def bar(entry):
        share = entry["bytes"] / entry["size"] if entry["size"] else 1.0
        filled = int(share * 30)
        return f"          -> {entry['to']:<6} [{'#' * filled}{'.' * (30 - filled)}] {share:6.1%}  {entry['name']}"


def column(text, width):
    return text + " " * max(0, width - len(text))


FILE_TITLES = ("file", "to", "bytes", "hash verified", "goodput B/s", "share of the line", "calls")


def print_table(rows, titles=FILE_TITLES):
    widths = [max(len(str(row[i])) for row in [titles, *rows]) for i in range(len(titles))]
    print()
    print("  ".join(column(title, width) for title, width in zip(titles, widths)))
    print("  ".join("-" * width for width in widths))
    for row in rows:
        print("  ".join(column(str(cell), width) if i < 2 else str(cell).rjust(width) for i, (cell, width) in enumerate(zip(row, widths))))


def event_of(host, kind, file_id):
    return [event for event in host.events if event["event"] == kind and event.get("id") == file_id]


def connected_time(host):
    """When a session stood on the line: list of (begin, end)."""
    spans, begin = [], None
    for event in host.events:
        if event["event"] == "callBegun":
            begin = event["monotonic"]
        elif event["event"] == "callEnded" and begin is not None:
            spans.append((begin, event["monotonic"]))
            begin = None
    return spans


def result_rows(receiver, sender, capacity):
    rows, all_well = [], True
    for path in sender.to_send:
        digest = sha256(path)
        stored = [event for event in receiver.events if event["event"] == "stored" and event.get("direction") == "in" and event["sha256"] == digest and event["file"] == path.name]
        found = receiver.received_file(path.name, digest) if stored else None
        size = path.stat().st_size
        if not stored or not found:
            rows.append((path.name, receiver.name, size, "NO", "-", "-", "-"))
            all_well = False
            continue
        begun = event_of(receiver, "fileBegun", stored[0]["id"])
        calls = len({event["call"] for event in begun + stored})
        # Time in which there was a connection, from the file's first byte on.
        start, end = begun[0]["monotonic"], stored[0]["monotonic"]
        seconds = sum(max(0.0, min(end, b) - max(start, a)) for a, b in connected_time(receiver)) or end - start
        if size < 1000 or seconds <= 0:
            rows.append((path.name, receiver.name, size, "yes", "-", "-", calls))
        else:
            goodput = size / seconds
            rows.append((path.name, receiver.name, size, "yes", f"{goodput:.0f}", f"{goodput / capacity:.2f}", calls))
    return rows, all_well


def total_row(receiver, sender, capacity):
    size = sum(path.stat().st_size for path in sender.to_send)
    times = [event["monotonic"] for event in receiver.events if event["event"] in ("fileBegun", "stored") and event.get("direction") == "in"]
    if not times or not size:
        return None
    start, end = min(times), max(times)
    spans = connected_time(receiver)
    seconds = sum(max(0.0, min(end, b) - max(start, a)) for a, b in spans)
    if seconds <= 0:
        return None
    return ("all", receiver.name, size, "", f"{size / seconds:.0f}", f"{size / seconds / capacity:.2f}", len(spans))


def run(arguments, directory):
    capacity = arguments.rate / BITS_PER_BYTE
    samples = directory / "samples"
    samples.mkdir()
    links = directory / "exchange"
    links.mkdir()
    north = Installation(directory / "north", NORTH, "101", links / "modem1", arguments)
    south = Installation(directory / "south", SOUTH, "102", links / "modem2", arguments)
    if arguments.files:
        north.to_send = [Path(name).resolve() for name in arguments.files]
    else:
        north.to_send, south.to_send = make_samples(samples, arguments.build, arguments.seed)
    amounts = [sum(path.stat().st_size for path in host.to_send) for host in (north, south)]
    timeout = arguments.timeout or int(60 + 6 * max(amounts) / capacity)

    print(f"line: {arguments.rate} bit/s each way, delay {arguments.delay} ms, bit error rate {arguments.ber:g}"
          + (", the first call loses its carrier in the middle" if arguments.drop_carrier else ""))
    print(f"{NORTH} (number 101) sends {len(north.to_send)} files, {amounts[0]} bytes; {SOUTH} (number 102) sends {len(south.to_send)} files, {amounts[1]} bytes")

    # Counted on both ways together; before it is reached, each side has sent about half of its files.
    exchange = Exchange(links, arguments, sum(amounts) // 2 if arguments.drop_carrier else 0)
    hosts = (north, south)
    try:
        for host in hosts:
            host.lay_out()
        north.configure(south)
        south.configure(north)
        for host in hosts:
            print(f"{host.name} is known by its key {host.key()['fingerprint']}")
        north.start(len(south.to_send), exchange.lines_table, timeout)
        south.start(len(north.to_send), exchange.lines_table, timeout)
        progress = Progress()
        deadline = monotonic() + timeout + 30
        while any(host.process.poll() is None for host in hosts) and monotonic() < deadline:
            for host in hosts:
                progress.take(host, host.read_events())
            progress.draw()
            time.sleep(0.2)
        for host in hosts:
            progress.take(host, host.read_events())
        progress.erase()
    finally:
        for host in hosts:
            host.stop()
        exchange.stop()

    rows, well = [], True
    for receiver, sender in ((south, north), (north, south)):
        more, all_there = result_rows(receiver, sender, capacity)
        total = total_row(receiver, sender, capacity)
        rows += more + ([total] if total else [])
        well = well and all_there
    print_table(rows)
    if arguments.drop_carrier and len({event["call"] for host in hosts for event in host.events if event["event"] == "callBegun" and host is north}) < 2:
        print("\nthe carrier was to be dropped, but one call was enough")
        well = False
    for host in hosts:
        if host.process.returncode != 0:
            print(f"\n{host.name}: transport-host ended with status {host.process.returncode}; its last words:")
            print("".join((host.root / "output.txt").read_text(errors="replace").splitlines(keepends=True)[-8:]))
            well = False
    print("\nevery file arrived bit-exact" if well else "\nNOT every file arrived", flush=True)
    return 0 if well else 1


def main():
    arguments = parse_arguments()
    if arguments.keep:
        directory = Path(arguments.keep).resolve()
        directory.mkdir(parents=True)
    else:
        directory = Path(tempfile.mkdtemp(prefix="transportCom-demo-"))
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
            print(f"kept: {directory} (north/, south/: installations with settings/ and data/; exchange/)")
        else:
            shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
