"""A hub of several ports and peers with two each, in real time, while lines, modems and
programs fail: every message must arrive once, whole, at its addressee.

Started by scripts/hub, which builds what this runs.
"""

import argparse
import collections
import hashlib
import json
import random
import sys
import time
from pathlib import Path

from installations import BITS_PER_BYTE, Exchange, Failure, Installation, check_keep, monotonic, print_table, run_in_directory

HUB_PORTS, PEERS, PEER_PORTS = 6, 3, 2
HOST_NAMES = ["Hub", "North", "South", "West"]
FAULTS = ["drop", "unplug", "silence", "power", "kill"]
RECOVERY_S = 120  # from the last fault until all has arrived, beside the time on the line
COLUMNS = ("host", "ports", "sent", "bytes", "received", "calls placed", "sessions", "ports lost", "duplicates", "starts")


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/hub",
        description=f"Lays out a hub with {HUB_PORTS} ports and {PEERS} peers with {PEER_PORTS} each on simulated modems, lets all "
        "send to one another, and meanwhile drops carriers, unplugs, silences and powers off modems, and kills hosts; their "
        "disks take their time. Exit status 0 only if every message arrived once, whole, at its addressee.",
        epilog="Also: --no-install (do not install packages), --no-build (take build/release as it is).")
    parser.add_argument("--minutes", type=float, default=10, metavar="M", help="of faults (default 10); then all must arrive")
    parser.add_argument("--seed", type=int, default=None, metavar="S", help="of messages and faults (default: drawn, and printed)")
    parser.add_argument("--rate", type=int, default=33600, metavar="BITS", help="of the lines, bit/s each way (default 33600)")
    parser.add_argument("--delay", type=int, default=50, metavar="MS", help="of the lines, each way (default 50)")
    parser.add_argument("--sync-ms", type=int, default=400, metavar="MS", help="how long a sync of a disk takes (default 400)")
    parser.add_argument("--fault-seconds", type=float, default=4, metavar="S", help="mean time between two faults (default 4)")
    parser.add_argument("--message-seconds", type=float, default=3, metavar="S", help="mean time between two messages (default 3)")
    parser.add_argument("--largest", type=int, default=40000, metavar="BYTES", help="the largest message (default 40000)")
    parser.add_argument("--silence-seconds", type=int, default=20, metavar="S", help="a connection silent for so long is dead (default 20)")
    parser.add_argument("--keep", metavar="DIR", help="lay everything out in DIR, which must not exist, and keep it")
    parser.add_argument("--build", type=Path, required=True, help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.seed is None:
        arguments.seed = random.SystemRandom().randrange(1 << 31)
    check_keep(parser, arguments)
    return arguments


class Host(Installation):
    """An installation with several ports, started again and again."""

    def __init__(self, root, name, modems, links, arguments):
        super().__init__(root, name, str(100 + modems[0]), arguments.build)
        self.arguments = arguments
        self.modems = modems
        self.ports = [links / f"modem{modem}" for modem in modems]
        self.starts = 0

    def configure_all(self, others):
        for port in self.ports:
            self.host("port", "add", str(port), "--baud", "115200")
        for other in others:
            self.add_abonent(other)

    def start(self, lines_table):
        self.starts += 1
        self.launch(lines_table, ["--silence-seconds", str(self.arguments.silence_seconds)],
                    ("libptylines.so", "libslowsync.so"), SLOWSYNC_MS=str(self.arguments.sync_ms))

    def inbox(self):
        """(file name, SHA-256, sender) of each message."""
        found = []
        for record_path in sorted((self.root / "data/0/messages/input").glob("*/.message")):
            record = json.loads(record_path.read_text())
            content = (record_path.parent / record["file"]).read_bytes()
            found.append((record["name"], hashlib.sha256(content).hexdigest(), record["from"]))
        return found

    def queued(self):
        return len(list((self.root / "data/0/tasks/toTransport").glob("*.task")))


class Hub:
    """The course of one run."""

    def __init__(self, arguments, directory):
        self.arguments = arguments
        self.directory = directory
        self.random = random.Random(arguments.seed)
        self.links = directory / "exchange"
        self.links.mkdir(mode=0o700)
        (directory / "sources").mkdir()
        modems = [list(range(1, HUB_PORTS + 1))]
        modems += [[HUB_PORTS + 1 + peer * PEER_PORTS + port for port in range(PEER_PORTS)] for peer in range(PEERS)]
        self.exchange = Exchange(self.links, HUB_PORTS + PEERS * PEER_PORTS, arguments)
        self.hosts = [Host(directory / name.lower(), name, ports, self.links, arguments) for name, ports in zip(HOST_NAMES, modems)]
        self.sent = {}  # file name: (SHA-256, from, to, bytes)
        self.faults = collections.Counter()
        self.due = []  # (when, what): repairs of what was broken

    def begin(self):
        for host in self.hosts:
            host.lay_out()
            host.host("name", host.name)
        for host in self.hosts:
            host.configure_all([other for other in self.hosts if other is not host])
        for host in self.hosts:
            host.start(self.exchange.lines_table)

    def send_one(self):
        sender, to = self.random.sample(self.hosts, 2)
        content = self.random.randbytes(int(self.arguments.largest ** self.random.random()))
        name = f"{sender.name}-{len(self.sent)}.bin"
        path = self.directory / "sources" / name
        path.write_bytes(content)
        sender.host("send", to.name, str(path))
        self.sent[name] = (hashlib.sha256(content).hexdigest(), sender.name, to.name, len(content))
        path.unlink()

    def break_one(self):
        fault = self.random.choice(FAULTS)
        lasts = self.random.uniform(0.5, 8)
        modem = self.random.randint(1, HUB_PORTS + PEERS * PEER_PORTS)
        if fault == "kill":
            host = self.random.choice(self.hosts)
            if not host.is_running():
                return
            host.kill()
            self.due.append((monotonic() + lasts, lambda: host.start(self.exchange.lines_table)))
        elif fault == "drop":
            self.exchange.tell(f"drop {modem}")
        else:
            begin, end = {"unplug": ("unplug {}", "plug {}"), "silence": ("silence {} on", "silence {} off"),
                          "power": ("power {} off", "power {} on")}[fault]
            self.exchange.tell(begin.format(modem))
            self.due.append((monotonic() + lasts, lambda: self.exchange.tell(end.format(modem))))
        self.faults[fault] += 1

    def repair(self, everything=False):
        due = [entry for entry in self.due if everything or entry[0] <= monotonic()]
        self.due = [entry for entry in self.due if entry not in due]
        for _, what in due:
            what()

    def check_running(self):
        for host in self.hosts:
            if host.process.poll() not in (None, -9):
                raise Failure(f"{host.name} ended by itself with status {host.process.returncode}")

    def faulty_time(self):
        end = monotonic() + self.arguments.minutes * 60
        next_message = next_fault = monotonic()
        next_report = monotonic() + 30
        while monotonic() < end:
            self.repair()
            self.check_running()
            if monotonic() >= next_message:
                self.send_one()
                next_message = monotonic() + self.random.expovariate(1 / self.arguments.message_seconds)
            if monotonic() >= next_fault:
                self.break_one()
                next_fault = monotonic() + self.random.expovariate(1 / self.arguments.fault_seconds)
            if monotonic() >= next_report:
                next_report += 30
                self.tell_progress(end)
            time.sleep(0.05)

    def tell_progress(self, end):
        queued = sum(host.queued() for host in self.hosts)
        print(f"{max(0, end - monotonic()):5.0f} s to go: {len(self.sent)} messages, {queued} queued, {sum(self.faults.values())} faults", flush=True)

    def finish(self):
        """All is whole again: what is queued arrives. Answers how long that took."""
        self.repair(everything=True)
        begun = monotonic()
        left = sum(size for _, _, _, size in self.sent.values())
        deadline = begun + RECOVERY_S + left * BITS_PER_BYTE / self.arguments.rate
        while any(host.queued() for host in self.hosts) and monotonic() < deadline:
            self.check_running()
            time.sleep(0.2)
        took = monotonic() - begun
        for host in self.hosts:
            host.stop()
        return took

    def stop(self):
        for host in self.hosts:
            host.stop()
        self.exchange.stop()

    def troubles(self):
        """What is not as it must be, a line each."""
        found = [f"{host.name} ended with status {host.process.returncode}" for host in self.hosts if host.process.returncode != 0]
        found += [f"{host.name}: {host.queued()} still queued" for host in self.hosts if host.queued()]
        arrived = collections.Counter()
        for host in self.hosts:
            for name, digest, sender in host.inbox():
                arrived[name] += 1
                if self.sent.get(name, ())[:3] != (digest, sender, host.name):
                    found.append(f"{host.name} has {name} from {sender}, not as it was sent")
        found += [f"{name} arrived {arrived[name]} times" for name in self.sent if arrived[name] != 1]
        return found

    def table(self):
        rows = []
        for host in self.hosts:
            host.read_events()
            kinds = collections.Counter(event["event"] for event in host.events)
            mine = [entry for entry in self.sent.values() if entry[1] == host.name]
            rows.append((host.name, len(host.modems), len(mine), sum(entry[3] for entry in mine), len(host.inbox()), kinds["callPlaced"],
                         kinds["callBegun"], kinds["callLost"], kinds["duplicate"], host.starts))
        return rows


def run(arguments, directory):
    print(f"seed {arguments.seed}: {arguments.minutes:g} minutes, lines of {arguments.rate} bit/s with {arguments.delay} ms, "
          f"syncs of {arguments.sync_ms} ms", flush=True)
    hub = Hub(arguments, directory)
    try:
        hub.begin()
        hub.faulty_time()
        took = hub.finish()
        troubles = hub.troubles()
    finally:
        hub.stop()
    print_table(hub.table(), COLUMNS)
    print("\nfaults: " + ", ".join(f"{hub.faults[fault]} {fault}" for fault in FAULTS))
    print(f"all was delivered {took:.1f} s behind the last fault" if not troubles else "")
    for trouble in troubles:
        print(f"WRONG: {trouble}")
    print("every message arrived once, whole, at its addressee" if not troubles else f"NOT as it must be: seed {arguments.seed}", flush=True)
    return 0 if not troubles else 1


if __name__ == "__main__":
    sys.exit(run_in_directory(run, parse_arguments(), "transportCom-hub-"))
