"""What is sent: compressed archives of this tree's own sources, the usual load of such lines."""

import io
import lzma
import random
import tarfile

from . import cells

FOLDERS = ("com", "common", "docs", "host", "plugin", "sim", "tests")
SHIFTS = 7  # so many runs begin at places of their own


def sources(tree):
    return sorted(path for folder in FOLDERS for path in (tree / folder).rglob("*") if path.is_file())


def archive(tree, paths):
    """A tar of these files that depends on their names and contents alone, compressed."""
    plain = io.BytesIO()
    with tarfile.open(fileobj=plain, mode="w") as tar:
        for path in paths:
            content = path.read_bytes()
            entry = tarfile.TarInfo(str(path.relative_to(tree)))
            entry.size = len(content)
            tar.addfile(entry, io.BytesIO(content))
    return lzma.compress(plain.getvalue(), preset=1)


def make_pool(tree, size):
    """At least so many bytes: archives one after the other, in each the files in another order."""
    paths, pool, order = sources(tree), b"", random.Random(1)
    while len(pool) < size:
        pool += archive(tree, order.sample(paths, len(paths)))
    return pool


def pool_bytes(matrix):
    """What the largest cell needs."""
    return max(2 * cell.bytes_each_way() for cell in matrix)


def files_of(cell, pool):
    """Per direction the files to send, as {name: bytes}: the same for all programs, other ones each run."""
    shift = cell.run % SHIFTS * len(pool) // SHIFTS
    stream = io.BytesIO(pool[shift:] + pool[:shift])
    if cell.condition.traffic == cells.MESSAGES:
        return [{f"{side}{i:02}.bin": stream.read(cells.MESSAGE_BYTES) for i in range(cells.MESSAGE_COUNT)} for side in ("north", "south")]
    there = {"there.bin": stream.read(cell.bytes_each_way())}
    back = {"back.bin": stream.read(cell.bytes_each_way())} if cell.condition.traffic == cells.BOTH_WAYS else {}
    return [there, back]
