"""How each program sends the data of a cell over the line."""

import json
import os
import pwd
import shutil
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

from . import cells
from .data import files_of
from .processes import Arrivals, CellError, Group, Line, off_port, on_port, output_of, preload, same_bytes, start, wait_for

ENDING_SECONDS = 15  # for a session to end by itself once everything has arrived
STARTING_SECONDS = 20
RESTING_SECONDS = 0.1


@dataclass
class Setup:
    """Where things are: the release build, the unpacked package of UUCP, room for the cells."""

    build: Path
    uucp: Path
    directory: Path
    slowest_share: float  # of the line's capacity; a transfer that is slower counts as failed
    pool: bytes  # of what is sent; see data.py

    def template(self):
        return self.directory / "installation"

    def lay_out(self):
        """One installation of ours, copied for every side of a cell."""
        for component in ("runtime", "programs"):
            run_checked(["cmake", "--install", self.build, "--prefix", self.template(), "--component", component, "--strip"])


def run_checked(command):
    status, output = output_of(command, stderr=subprocess.STDOUT)
    if status != 0:
        raise CellError(f"{Path(command[0]).name} ended with status {status}: {output.decode(errors='replace').strip()}")


@dataclass
class Transfer:
    """What a cell's programs did."""

    seconds: float  # from the session's opening until everything had arrived; None: it did not
    cpu_seconds: float  # of both sides' programs
    done: bool  # everything arrived as it was sent, and the programs were content
    why: str  # it failed
    line: dict  # what the line carried; None: the line failed, nothing was measured


def run_cell(cell, setup, directory):
    data = files_of(cell, setup.pool)
    for side, files in zip(("north", "south"), data):
        (directory / side / "out").mkdir(parents=True)
        for name, content in files.items():
            (directory / side / "out" / name).write_bytes(content)
    if cell.program in cells.OURS:
        return run_ours(cell, setup, directory, data)
    return run_peer(cell, setup, directory, data)


def run_peer(cell, setup, directory, data):
    starters = {cells.KERMIT: start_kermit, cells.UUCP_DEFAULT: start_uucp, cells.UUCP_FITTED: start_uucp}
    begin = starters.get(cell.program, start_zmodem)
    group = Group()
    line = Line(setup.build, directory, cell)
    try:
        expected = begin(cell, setup, directory, data, line, group)  # path: content
        arrivals = Arrivals({path: len(content) for path, content in expected.items()})
        seconds, why = wait_for(arrivals, group, cell.time_limit(setup.slowest_share))
        group.end(ENDING_SECONDS if seconds is not None else 0)
    finally:
        group.end(0)
        carried = line.end()
    exact = seconds is not None and all(same_bytes(path, content) for path, content in expected.items())
    return Transfer(seconds, group.cpu_seconds, exact, why or ("" if exact else "what arrived differs"), carried)


def start_zmodem(cell, setup, directory, data, line, group):
    options = {cells.ZMODEM_DEFAULT: [], cells.ZMODEM_8K: ["--try-8k"],
               cells.ZMODEM_WINDOW: ["--windowsize", "2048", "--packetlen", "256"]}[cell.program]
    environment = preload(setup.build, line.table, "stdiolines")
    inbox = directory / "south" / "in"
    inbox.mkdir()
    names = sorted(data[0])
    group.add(on_port(["rz", "--binary", "--quiet", "--overwrite"], line.ports[1], inbox, environment))
    group.add(on_port(["sz", "--binary", "--quiet", *options, *names], line.ports[0], directory / "north" / "out", environment))
    return {inbox / name: content for name, content in data[0].items()}


def start_kermit(cell, setup, directory, data, line, group):
    environment = preload(setup.build, line.table)
    inbox = directory / "south" / "in"
    inbox.mkdir()
    length = 4000 if cell.condition.ber == 0 else 1000 if cell.condition.ber < 1e-4 else 250

    def commands(port, *last):
        return ", ".join(["set modem type none", "set carrier-watch off", f"set line {port}", "set flow none", "set parity none",
                          "fast", "set streaming off", "set window 31", f"set receive packet-length {length}",
                          f"set send packet-length {length}", "set file type binary", "set file collision overwrite",
                          "set transfer display none", "set retry 200", *last, "exit"])

    for port, where, last in ((line.ports[1], inbox, ["receive"]), (line.ports[0], directory / "north" / "out", ["send /binary there.bin"])):
        group.add(off_port(["kermit", "-Y", "-H", "-C", commands(port, *last)], where, environment))
    return {inbox / name: content for name, content in data[0].items()}


UUCP_NAMES = ("north", "south")


def configure_uucp(root, name, peer, port, parameters):
    for folder in ("spool", "public", "lock"):
        (root / folder).mkdir()
    (root / "public").chmod(0o777)  # or nothing may be received there
    settings = {"nodename": name, "spool": root / "spool", "pubdir": root / "public", "logfile": root / "log", "statfile": root / "stats",
                "debugfile": root / "debug", "lockdir": root / "lock", "sysfile": root / "sys", "portfile": root / "port",
                "dialfile": root / "dial", "callfile": root / "call", "passwdfile": root / "passwd"}
    (root / "config").write_text("".join(f"{key} {value}\n" for key, value in settings.items()))
    for empty in ("dial", "call", "passwd"):
        (root / empty).touch()
    lines = [f"system {peer}", "time any", "port line", 'chat ""', "protocol i"]
    lines += [f"protocol-parameter i {key} {value}" for key, value in parameters.items()]
    lines += ["local-send /", "local-receive /", "remote-send /", "remote-receive ~"]
    (root / "sys").write_text("\n".join(lines) + "\n")
    (root / "port").write_text(f"port line\ntype direct\ndevice {port}\nspeed 115200\ncarrier false\nhardflow false\n")


def give_to_uucp(directory):
    """Started by root, the programs change to the user that they were built for."""
    if os.getuid() != 0:
        return
    user = pwd.getpwnam("uucp")
    for folder, _, files in os.walk(directory):
        for path in (folder, *(os.path.join(folder, name) for name in files)):
            os.chown(path, user.pw_uid, user.pw_gid)


def start_uucp(cell, setup, directory, data, line, group):
    """Both sides stand on the connected line: the caller with a direct port and nothing to dial, the
    called one on its standard input and output, as behind a login."""
    parameters = cells.uucp_fitted(cell.condition) if cell.program == cells.UUCP_FITTED else {}
    expected, environment = {}, preload(setup.build, line.table)
    for side, name in enumerate(UUCP_NAMES):
        configure_uucp(directory / name, name, UUCP_NAMES[1 - side], line.ports[side], parameters)
    give_to_uucp(directory)
    for side, name in enumerate(UUCP_NAMES):
        files = sorted(data[side])
        if files:
            out = directory / name / "out"
            run_checked([setup.uucp / "usr/bin/uucp", "-I", directory / name / "config", "-r", "-c",
                         *(out / file for file in files), f"{UUCP_NAMES[1 - side]}!~/"])
        expected.update({directory / UUCP_NAMES[1 - side] / "public" / file: content for file, content in data[side].items()})
    uucico = setup.uucp / "usr/lib/uucp/uucico"
    north, south = (directory / name for name in UUCP_NAMES)
    caller = group.add(off_port([uucico, "-I", north / "config", "-r1", "-s", "south", "-f", "-D", "-q"], north, environment))
    wait_until_listening(caller, north / "log", group)
    group.add(on_port([uucico, "-I", south / "config", "-q"], line.ports[1], south, environment))
    return expected


def wait_until_listening(caller, log, group):
    """The caller empties its port's input before it listens; only then may the called one speak. It
    listens when it has told that it calls and then sleeps without a break."""
    deadline = time.monotonic() + STARTING_SECONDS
    asleep, since = None, 0.0
    while asleep is None or time.monotonic() - since < RESTING_SECONDS:
        if time.monotonic() > deadline or not group.running():
            raise CellError("uucico did not open its port")
        calls = log.exists() and "Calling system" in log.read_text(errors="replace")
        now = sleep_of(caller) if calls else None
        if now != asleep:
            asleep, since = now, time.monotonic()
        time.sleep(0.02)


def sleep_of(process):
    """Which of its sleeps a process is in, as the kernel counts them; None: it does not sleep."""
    try:
        fields = dict(line.split(":", 1) for line in Path(f"/proc/{process.pid}/status").read_text().splitlines())
    except OSError:
        return None
    return fields["voluntary_ctxt_switches"].strip() if fields["State"].split()[0] == "S" else None


class Installation:
    """One installation of ours."""

    def __init__(self, root, name, number, port):
        self.root, self.name, self.number, self.port = root, name, number, port
        self.program = root / "bin" / "transport-host"
        self.events_path = root / "events.json"

    def command(self, *arguments, program="transport-host"):
        run_checked([self.root / "bin" / program, *arguments])

    def lay_out(self):
        """From here on it has a key, which the other side has to know."""
        self.command("name", self.name)

    def key(self):
        status, output = output_of([self.program, "key", "--json"], stderr=subprocess.DEVNULL)  # may say that it made one
        if status != 0:
            raise CellError(f"the key of {self.name} cannot be told: status {status}")
        return json.loads(output)["key"]

    def configure(self, cell, peer, files):
        condition = cell.condition
        self.command("port", "add", self.port, "--baud", min(condition.rate * 2, 4000000))
        self.command("abonent", "add", peer.name, "--number", peer.number, "--key", peer.key())
        self.set_adaptive(cell.program == cells.OURS_ADAPTIVE)
        if cell.program in (cells.OURS_PROFILE, cells.OURS_ADAPTIVE):
            self.command("--rate", condition.rate, "--delay", condition.delay_ms, "--ber", f"{condition.ber:g}", "--write",
                         "--installation", self.root, program="transport-tune")
        if files:
            self.command("send", peer.name, *(self.root / "out" / name for name in sorted(files)))

    def set_adaptive(self, is_adaptive):
        path = self.root / "settings" / "settings.ini"
        laid_out = "transportComAdaptive=1"
        text = path.read_text()
        if laid_out not in text:
            raise CellError("the installation was laid out without " + laid_out)
        if not is_adaptive:
            path.write_text(text.replace(laid_out, "transportComAdaptive=0"))

    def run_arguments(self, expected, limit, *more):
        return [self.program, "run", "--plain", "--events", self.events_path, "--retry-seconds", "0.05", "--exit-when-sent",
                "--exit-when-received", expected, "--timeout", int(limit), *more]

    def events(self):
        try:
            return [json.loads(line) for line in self.events_path.read_bytes().split(b"\n")[:-1]]
        except FileNotFoundError:
            return []

    def has_exactly(self, files):
        stored = {path.name: path for directory in (self.root / "data/0/messages/input").glob("*") for path in directory.iterdir()}
        return all(name in stored and same_bytes(stored[name], content) for name, content in files.items())


class Exchange:
    """The telephone exchange with two modems."""

    def __init__(self, setup, directory, cell):
        directory.mkdir()
        condition = cell.condition
        self.table, self.statistics = directory / "lines", directory / "calls.json"
        ready = directory / "ready"
        self.output = open(directory / "output.txt", "wb")
        self.process = start(
            [setup.build / "bin/phone-exchange", "--modems", 2, "--link-dir", directory, "--rate", condition.rate,
             "--delay", condition.delay_ms, "--ber", f"{condition.ber:g}", "--seed", cell.seed(), "--ring-interval", 2,
             "--table", self.table, "--ready-file", ready, "--stats", self.statistics, "--quiet"],
            stdin=subprocess.PIPE, stdout=self.output, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + STARTING_SECONDS
        while not ready.exists():
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.end()
                raise CellError("the exchange did not start")
            time.sleep(0.02)

    def end(self):
        """The longest call's line, {} if there was no call; None if the exchange had failed."""
        try:
            self.process.communicate(b"quit\n", timeout=20)
        except (subprocess.TimeoutExpired, BrokenPipeError):
            self.process.kill()
            self.process.wait()
        self.output.close()
        try:
            calls = json.loads(self.statistics.read_text())["calls"]
        except (OSError, ValueError):
            return None
        return max(calls, key=lambda call: call.get("connectedSeconds", 0), default={})


def run_ours(cell, setup, directory, data):
    links = directory / "exchange"
    sides = [Installation(directory / name, name, number, links / f"modem{i + 1}")
             for i, (name, number) in enumerate((("north", "101"), ("south", "102")))]
    limit = cell.time_limit(setup.slowest_share)
    group = Group()
    for side in sides:
        shutil.copytree(setup.template(), side.root, dirs_exist_ok=True)
        side.lay_out()
    for i, side in enumerate(sides):
        side.configure(cell, sides[1 - i], data[i])
    exchange = Exchange(setup, links, cell)
    try:
        environment = preload(setup.build, exchange.table)
        for i, side in enumerate(sides):
            more = [] if i == 0 else ["--no-calls"]  # one calls; what is queued goes both ways in that call
            group.add(off_port(side.run_arguments(len(data[1 - i]), limit, *more), side.root, environment))
        deadline = time.monotonic() + limit + 20
        while group.running() and time.monotonic() < deadline:
            time.sleep(0.05)
    finally:
        group.end(0)
        carried = exchange.end()
    return our_transfer(sides, data, group, carried)


def our_transfer(sides, data, group, carried):
    """Call set-up is not counted: from the moment when the first side's session began."""
    events = [side.events() for side in sides]
    begun = [event["monotonic"] for own in events for event in own if event["event"] == "callBegun"]
    stored = [event["monotonic"] for own in events for event in own if event["event"] == "stored" and event.get("direction") == "in"]
    if not begun or len(stored) < len(data[0]) + len(data[1]):
        return Transfer(None, group.cpu_seconds, False, "not everything arrived in time" if begun else "no connection", carried)
    exact = all(side.has_exactly(data[1 - i]) for i, side in enumerate(sides))
    why = "" if exact else "what arrived differs"
    statuses = [process.returncode for process in group.started]
    if exact and any(statuses):
        exact, why = False, f"everything arrived, but the hosts ended with status {statuses[0]} and {statuses[1]}"
    return Transfer(max(stored) - min(begun), group.cpu_seconds, exact, why, carried)
