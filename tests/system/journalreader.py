"""Reads a mirror's journal by what docs/format.md says of it, with nothing of the program."""

import os
import struct

from support import BLOCK, check

GRAIN_BLOCKS = 32768
PAGE_ITEMS = 15
PLAIN, CHECKPOINT, _, ZEROES, COMPRESSED = range(5)


def crc_table():
    table = []
    for value in range(256):
        for _ in range(8):
            value = value >> 1 ^ (0x82F63B78 if value & 1 else 0)
        table.append(value)
    return table


TABLE = crc_table()


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ TABLE[(crc ^ byte) & 255]
    return crc ^ 0xFFFFFFFF


assert crc32c(b"123456789") == 0xE3069283


class Item:
    """One request as it lies in the journal: a write or zeroes, of however many pieces."""
    __slots__ = ("number", "is_write", "offset", "length", "pieces")

    def __init__(self, number, is_write, offset):
        self.number, self.is_write, self.offset = number, is_write, offset
        self.length = 0
        self.pieces = []  # of a write: (type, address, stored blocks)


class Journal:
    """The items from the journal's beginning to its end, in bytes of the volume."""

    def __init__(self, mirror):
        self.folder = os.path.join(mirror, "journal")
        self.items = []
        self.checkpoints = []  # (id, items before)
        self.first = 0  # items before the journal's beginning
        page = 0
        begin = os.path.join(self.folder, "begin")
        if os.path.exists(begin):
            with open(begin, "rb") as file:
                content = file.read()
            check(content[4:8] == b"RLB1", "begin has no magic")
            page, self.first = struct.unpack_from("<QQ", content, 4 + 16)
        self.file = None
        for number, content in self.pages(page):
            self.take(number, content)
        self.files = {}

    def pages(self, number):
        while True:
            path = os.path.join(self.folder, "m-%010d" % (number // GRAIN_BLOCKS + 1))
            if not os.path.exists(path):
                return
            with open(path, "rb") as file:
                file.seek(number % GRAIN_BLOCKS * BLOCK)
                while True:
                    page = file.read(BLOCK)
                    if len(page) < BLOCK or page[:4] != b"RLJ1":
                        return
                    crc, found = struct.unpack_from("<IQ", page, 4)
                    if found != number or crc32c(page[8:]) != crc:
                        return
                    yield number, page
                    number += 1
                    if number % GRAIN_BLOCKS == 0:
                        break

    def take(self, number, page):
        before, count, continuation = struct.unpack_from("<QHH", page, 16)
        check(before == self.first + len(self.items), "page %d: items before it" % number)
        for slot in range(count):
            address, offset, length, kind, _, stored = struct.unpack_from(
                "<QQIIII", page, 32 + slot * 32)
            if kind == CHECKPOINT:
                self.checkpoints.append((offset, self.first + len(self.items)))
                continue
            check(kind in (PLAIN, ZEROES, COMPRESSED), "page %d: type %d" % (number, kind))
            if not continuation >> slot & 1:
                self.items.append(Item(self.first + len(self.items) + 1, kind != ZEROES,
                                       offset * BLOCK))
            item = self.items[-1]
            check(item.is_write == (kind != ZEROES), "an item of two kinds")
            check(item.offset + item.length == offset * BLOCK, "an item with a gap")
            item.length += length * BLOCK
            if kind != ZEROES:
                blocks = length if kind == PLAIN else -(-stored // BLOCK)
                item.pieces.append((kind, address, blocks))

    def data(self, item):
        """The bytes of a write; None where they are compressed."""
        result = []
        for kind, address, blocks in item.pieces:
            if kind == COMPRESSED:
                return None
            grain, block = divmod(address, GRAIN_BLOCKS)
            if grain not in self.files:
                # Kept open for the next item; they go with the journal.
                self.files[grain] = open(  # pylint: disable=consider-using-with
                    os.path.join(self.folder, "d-%010d" % grain), "rb")
            result.append(os.pread(self.files[grain].fileno(), blocks * BLOCK, block * BLOCK))
        return b"".join(result)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for file in self.files.values():
            file.close()
        self.files = {}
