"""What is measured on the line: conditions, programs, and how much each cell sends."""

from dataclasses import dataclass

BITS_PER_BYTE = 10  # on the line: start bit, eight data bits, stop bit

ONE_WAY, BOTH_WAYS, MESSAGES = "one way", "both ways", "messages"
MESSAGE_COUNT, MESSAGE_BYTES = 50, 2048  # each way

RATES = (9600, 33600, 115200, 921600)
DELAYS_MS = (0, 100)
BIT_ERROR_RATES = (0.0, 1e-5, 1e-4)

OURS_DEFAULT, OURS_PROFILE, OURS_ADAPTIVE = "transportCom", "transportCom, profile", "transportCom, adaptive"
UUCP_DEFAULT, UUCP_FITTED = "UUCP i", "UUCP i, fitted"
ZMODEM_DEFAULT, ZMODEM_8K, ZMODEM_WINDOW = "ZMODEM", "ZMODEM 8K", "ZMODEM window"
KERMIT = "Kermit"

OURS = (OURS_ADAPTIVE, OURS_DEFAULT, OURS_PROFILE)
OURS_TRIED = (OURS_ADAPTIVE, OURS_PROFILE)  # in a quick look
PEERS = (UUCP_DEFAULT, UUCP_FITTED, ZMODEM_DEFAULT, ZMODEM_8K, ZMODEM_WINDOW, KERMIT)
BOTH_WAYS_PROGRAMS = OURS + (UUCP_DEFAULT, UUCP_FITTED)


@dataclass(frozen=True, order=True)
class Condition:
    traffic: str
    rate: int      # bit/s each way
    delay_ms: int  # each way
    ber: float     # chance of each data bit to be flipped

    def label(self):
        return f"{self.traffic}, {self.rate} bit/s, {self.delay_ms} ms, {self.ber:g}"

    def capacity(self):
        """Bytes a second each way."""
        return self.rate / BITS_PER_BYTE


@dataclass(frozen=True)
class Cell:
    condition: Condition
    program: str
    run: int      # counts from 0; the noise of each is its own, and the same for all programs
    seconds: int  # of the line's time that the data take at least

    def label(self):
        return f"{self.condition.label()}, {self.program}"

    def seed(self):
        return 1 + self.run

    def bytes_each_way(self):
        if self.condition.traffic == MESSAGES:
            return MESSAGE_COUNT * MESSAGE_BYTES
        return int(self.condition.capacity() * self.seconds)

    def time_limit(self, slowest_share):
        """Seconds after which a transfer that is not done counts as failed."""
        return self.bytes_each_way() / self.condition.capacity() / slowest_share + 15

    def load(self):
        """About how much of one core the cell keeps busy, programs and line together."""
        return 0.025 + 0.11 * min(self.condition.rate / 921600, 1.0) * (2 if self.condition.traffic == BOTH_WAYS else 1)


def is_main(condition):
    """Conditions that decide, measured three times even where others are measured once."""
    return condition.rate == 57600 or condition.rate == 115200


def conditions(traffic):
    if traffic == MESSAGES:
        return [Condition(traffic, 115200, delay, ber) for delay in DELAYS_MS for ber in BIT_ERROR_RATES]
    grid = [Condition(traffic, rate, delay, ber) for rate in RATES for delay in DELAYS_MS for ber in BIT_ERROR_RATES]
    return grid + [Condition(traffic, 57600, 0, 0.0)]


def seconds_of(condition):
    """Long enough for noise to show (errors per transfer) and for the opening exchange not to:
    that takes tenths of a second, and on a clean line there is little else to see."""
    if condition.ber == 0:
        return {9600: 60, 921600: 20}.get(condition.rate, 40)
    return {9600: 60, 33600: 30, 115200: 40}.get(condition.rate, 20)


def full_matrix():
    cells = []
    for traffic in (ONE_WAY, BOTH_WAYS, MESSAGES):
        programs = OURS + PEERS if traffic == ONE_WAY else BOTH_WAYS_PROGRAMS
        for condition in conditions(traffic):
            for program in programs:
                runs = 3 if is_main(condition) else 1
                cells += [Cell(condition, program, run, seconds_of(condition)) for run in range(runs)]
    return cells


def quick_matrix():
    """A look in less than three minutes: the two-way messages and one rate."""
    cells = []
    for delay, ber in ((0, 0.0), (0, 1e-5), (0, 1e-4), (100, 1e-5)):
        condition = Condition(ONE_WAY, 115200, delay, ber)
        for program in (*OURS_TRIED, UUCP_DEFAULT, UUCP_FITTED, ZMODEM_DEFAULT, KERMIT):
            cells.append(Cell(condition, program, 0, 10))
    for ber in (0.0, 1e-5):
        cells += [Cell(Condition(MESSAGES, 115200, 0, ber), program, 0, 10) for program in (*OURS_TRIED, UUCP_DEFAULT)]
    cells += [Cell(Condition(ONE_WAY, rate, 0, 0.0), program, 0, 10) for rate in (9600, 33600) for program in (*OURS_TRIED, UUCP_DEFAULT)]
    cells += [Cell(Condition(ONE_WAY, 921600, 0, 0.0), program, 0, 6) for program in (OURS_ADAPTIVE, OURS_PROFILE, UUCP_DEFAULT)]
    return cells


def uucp_fitted(condition):
    """Parameters of UUCP's i protocol that suit a line, found by trying: packets as small as the
    noise asks for, the largest window, a short wait where the driver's buffer empties soon."""
    is_fast, is_far = condition.rate > 500000, condition.delay_ms > 0
    if condition.ber >= 1e-4:
        size = 512 if is_fast else 384 if is_far else 192
    elif condition.ber > 0:
        size = 512 if not is_far else 2048 if is_fast else 768
    else:
        size = 2048
    # A window of 31 packets, and what the driver holds, on their way before an answer can come.
    waiting_seconds = min(31 * size, 4096 + size) / condition.capacity() + 2 * condition.delay_ms / 1000
    timeout = max(1, round(waiting_seconds + 0.5))
    return {"packet-size": size, "window": 31, "timeout": timeout, "errors": 1000000, "retries": 1000}
