# SPDX-License-Identifier: Apache-2.0
"""QEMU's record of what was written to a disk, in the format of the kernel's dm-log-writes."""
import struct

MAGIC, VERSION, SECTOR = 0x6A736677736872, 1, 512
FLUSH, DISCARD, MARK = 1, 4, 8
HEAD = struct.Struct("<QQQQ")  # sector, count of sectors, flags, length of a mark


def entries(path):
    """(sector, count, flags, data) of each entry, in order."""
    with open(path, "rb") as file:
        magic, version, count, sector_size = struct.unpack("<QQQI", file.read(28))
        if (magic, version, sector_size) != (MAGIC, VERSION, SECTOR):
            raise ValueError(f"{path} is no record of a disk")
        file.seek(SECTOR)
        for _ in range(count):
            sector, length, flags, _ = HEAD.unpack(file.read(SECTOR)[:HEAD.size])
            yield sector, length, flags, b"" if flags & DISCARD else file.read(length * SECTOR)


def written_sectors(path):
    """The sectors that something was written to."""
    return {number for sector, count, _, _ in entries(path) for number in range(sector, sector + count)}


def put_marks(path, target, mark_sector):
    """Copies a record; what was written to a sector that no file system has becomes a mark."""
    changed = []
    for sector, count, flags, data in entries(path):
        if (sector, count) == (mark_sector, 1):
            text = data.rstrip(b" ")
            changed.append((0, 0, MARK, len(text), text.ljust(SECTOR)))
        else:
            changed.append((sector, count, flags, 0, data))
    with open(target, "wb") as file:
        file.write(struct.pack("<QQQI", MAGIC, VERSION, len(changed), SECTOR).ljust(SECTOR, b"\0"))
        for *head, data in changed:
            file.write(HEAD.pack(*head).ljust(SECTOR, b"\0") + data)
