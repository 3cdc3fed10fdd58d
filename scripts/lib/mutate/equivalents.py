"""The kept list of faults that no test can tell from the source as it is, each with the reason.

An entry, between blank lines; lines that begin with # are for people:

    com/link/linkrules.cpp linkrules::blockSize
    - if (size <= largest)
    + if (size < largest)
    because: at size == largest both ways give the same
"""

from collections import namedtuple

from mutate.faults import one_line

Equivalent = namedtuple("Equivalent", "file function old new reason line")


class Unreadable(Exception):
    """An entry is not as it has to be; its line, and what is missing."""


def read(text):
    entries = []
    block = []
    for number, line in enumerate(text.splitlines() + [""], 1):
        if line.strip() and not line.startswith("#"):
            block.append((number, line.strip()))
        elif not line.strip() and block:
            entries.append(_entry(block))
            block = []
    return entries


def _entry(block):
    number, head = block[0]
    file, _, function = head.partition(" ")
    parts = {"-": [], "+": [], "because:": []}
    last = None
    for _, line in block[1:]:
        mark = next((mark for mark in parts if line.startswith(mark)), None)
        # A reason may go on in the next line.
        last = mark or (last if last == "because:" else None)
        if not last:
            raise Unreadable(f"{number}: not a line of an entry: {line}")
        parts[last].append(line[len(mark):].strip() if mark else line)
    for mark, name in (("-", "the source's line"), ("+", "the changed line"), ("because:", "the reason")):
        if not "".join(parts[mark]):
            raise Unreadable(f"{number}: without {name} ({mark})")
    return Equivalent(file, function.strip(), one_line(" ".join(parts["-"])), one_line(" ".join(parts["+"])),
                      one_line(" ".join(parts["because:"])), number)


def reason(entries, fault):
    """Why a fault is accepted, or None."""
    for entry in entries:
        if key(entry) == key(fault):
            return entry.reason
    return None


def key(fault):
    return fault.file, fault.function, one_line(fault.old), one_line(fault.new)


def stale(entries, faults):
    """Entries of the faults' files that none of the faults is: the source has changed."""
    known = {key(fault) for fault in faults}
    files = {fault.file for fault in faults}
    return [entry for entry in entries if entry.file in files and key(entry) not in known]


def as_entry(fault):
    """What to put into the list, but for the reason."""
    head = f"{fault.file} {fault.function}".rstrip()
    return f"{head}\n- {one_line(fault.old)}\n+ {one_line(fault.new)}\nbecause: "
