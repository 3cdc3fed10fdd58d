"""Two installations of the reference host exchange files through the simulated exchange.

Started by scripts/demo, which builds what this runs.
"""

import argparse
import hashlib
import os
import random
import subprocess
import sys
import time
from pathlib import Path

from installations import BITS_PER_BYTE, Exchange, Installation, check_keep, monotonic, print_table, run_in_directory

NORTH, SOUTH = "Север", "Юг"


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
    check_keep(parser, arguments)
    return arguments


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        for block in iter(lambda: file.read(1 << 16), b""):
            digest.update(block)
    return digest.hexdigest()


class Side(Installation):
    """One of the two, with what it sends to the other."""

    def __init__(self, root, name, number, port, arguments):
        super().__init__(root, name, number, arguments.build)
        self.port = port
        self.arguments = arguments
        self.to_send = []

    def configure(self, peer):
        self.host("name", self.name)
        self.host("port", "add", str(self.port), "--baud", str(min(self.arguments.rate * 2, 4000000)))
        self.add_abonent(peer)
        if self.to_send:
            self.host("send", peer.name, *map(str, self.to_send))

    def start(self, expected, lines_table, timeout):
        options = ["--exit-when-sent", "--exit-when-received", str(expected), "--timeout", str(timeout)]
        # Kept ones lie where the user says, who may be somebody else than runs this with sudo.
        self.launch(lines_table, options + (["--allow-shared"] if self.arguments.keep else []))

    def amount(self):
        return sum(path.stat().st_size for path in self.to_send)

    def received_file(self, name, digest):
        """The file of that name and content in the inbox; None when there is none."""
        for directory in sorted((self.root / "data/0/messages/input").glob("*")):
            for path in directory.iterdir():
                if path.name == name and sha256(path) == digest:
                    return path
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


FILE_TITLES = ("file", "to", "bytes", "hash verified", "goodput B/s", "share of the line", "calls")


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
    size = sender.amount()
    times = [event["monotonic"] for event in receiver.events if event["event"] in ("fileBegun", "stored") and event.get("direction") == "in"]
    if not times or not size:
        return None
    start, end = min(times), max(times)
    spans = connected_time(receiver)
    seconds = sum(max(0.0, min(end, b) - max(start, a)) for a, b in spans)
    if seconds <= 0:
        return None
    return ("all", receiver.name, size, "", f"{size / seconds:.0f}", f"{size / seconds / capacity:.2f}", len(spans))


def lay_out_sides(arguments, directory, links):
    """North and South, with what they send to each other."""
    north = Side(directory / "north", NORTH, "101", links / "modem1", arguments)
    south = Side(directory / "south", SOUTH, "102", links / "modem2", arguments)
    if arguments.files:
        north.to_send = [Path(name).resolve() for name in arguments.files]
    else:
        samples = directory / "samples"
        samples.mkdir()
        north.to_send, south.to_send = make_samples(samples, arguments.build, arguments.seed)
    return north, south


def tell_plan(arguments, north, south):
    print(f"line: {arguments.rate} bit/s each way, delay {arguments.delay} ms, bit error rate {arguments.ber:g}"
          + (", the first call loses its carrier in the middle" if arguments.drop_carrier else ""))
    print(f"{NORTH} (number 101) sends {len(north.to_send)} files, {north.amount()} bytes; "
          f"{SOUTH} (number 102) sends {len(south.to_send)} files, {south.amount()} bytes")


def start_exchange(arguments, links, amount):
    options = ["--ber", repr(arguments.ber), "--stats", str(links / "calls.json")]
    if arguments.drop_carrier and amount:
        # Counted on both ways together; before it is reached, each side has sent about half of its files.
        options += ["--drop-after-bytes", str(amount // 2), "--drop-times", "1"]
    return Exchange(links, 2, arguments, *options)


def exchange_files(north, south, exchange, timeout):
    """Until both hosts have ended, showing what happens."""
    hosts = (north, south)
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
    while any(host.is_running() for host in hosts) and monotonic() < deadline:
        for host in hosts:
            progress.take(host, host.read_events())
        progress.draw()
        time.sleep(0.2)
    for host in hosts:
        progress.take(host, host.read_events())
    progress.erase()


def tell_results(arguments, north, south):
    """Whether every file arrived, in as many calls as there should be."""
    rows, well = [], True
    for receiver, sender in ((south, north), (north, south)):
        capacity = arguments.rate / BITS_PER_BYTE
        more, all_there = result_rows(receiver, sender, capacity)
        total = total_row(receiver, sender, capacity)
        rows += more + ([total] if total else [])
        well = well and all_there
    print_table(rows, FILE_TITLES)
    if arguments.drop_carrier and len({event["call"] for event in north.events if event["event"] == "callBegun"}) < 2:
        print("\nthe carrier was to be dropped, but one call was enough")
        well = False
    for host in (north, south):
        if host.process.returncode != 0:
            print(f"\n{host.name}: transport-host ended with status {host.process.returncode}; its last words:")
            print(host.last_words())
            well = False
    print("\nevery file arrived bit-exact" if well else "\nNOT every file arrived", flush=True)
    return well


def run(arguments, directory):
    links = directory / "exchange"
    links.mkdir()
    north, south = lay_out_sides(arguments, directory, links)
    tell_plan(arguments, north, south)
    capacity = arguments.rate / BITS_PER_BYTE
    timeout = arguments.timeout or int(60 + 6 * max(north.amount(), south.amount()) / capacity)
    exchange = start_exchange(arguments, links, north.amount() + south.amount())
    try:
        exchange_files(north, south, exchange, timeout)
    finally:
        for host in (north, south):
            host.stop()
        exchange.stop()
    return 0 if tell_results(arguments, north, south) else 1


if __name__ == "__main__":
    sys.exit(run_in_directory(run, parse_arguments(), "transportCom-demo-",
                              " (north/, south/: installations with settings/ and data/; exchange/)"))
