"""What a volume has to hold, by what its clients sent: requests matched with the journal's items,
and replayed into an image that shares nothing with the program.
"""

import os

from journalreader import Journal
from support import Failure, check, data_extents

CHUNK = 1 << 16
ZERO_CHUNK = bytes(CHUNK)


class Image:
    """A volume's bytes; chunks that are not there are zero."""

    def __init__(self, size):
        self.size = size
        self.chunks = {}

    def write(self, offset, data):
        data = memoryview(data)
        done = 0
        while done < len(data):
            chunk, start = divmod(offset + done, CHUNK)
            count = min(CHUNK - start, len(data) - done)
            if chunk not in self.chunks:
                self.chunks[chunk] = bytearray(CHUNK)
            self.chunks[chunk][start:start + count] = data[done:done + count]
            done += count

    def zero(self, offset, length):
        end = offset + length
        first, last = -(-offset // CHUNK), end // CHUNK
        if last - first > len(self.chunks):
            for chunk in [one for one in self.chunks if first <= one < last]:
                del self.chunks[chunk]
        else:
            for chunk in range(first, last):
                self.chunks.pop(chunk, None)
        edges = ((offset, min(end, first * CHUNK)), (max(offset, last * CHUNK), end))
        for start, stop in edges if first <= last else ((offset, end),):
            if start < stop and start // CHUNK in self.chunks:
                at = start % CHUNK
                self.chunks[start // CHUNK][at:at + stop - start] = bytes(stop - start)

    def play(self, request):
        if request.data:
            self.write(request.offset, request.data)
        else:
            self.zero(request.offset, request.length)

    def read(self, offset, length):
        result = bytearray(length)
        done = 0
        while done < length:
            chunk, start = divmod(offset + done, CHUNK)
            count = min(CHUNK - start, length - done)
            content = self.chunks.get(chunk)
            if content is not None:
                result[done:done + count] = content[start:start + count]
            done += count
        return bytes(result)

    def compare(self, path, what):
        """With a file that may be sparse: every byte."""
        check(os.path.getsize(path) == self.size, "%s has %d bytes" % (what, os.path.getsize(path)))
        with open(path, "rb") as file:
            there = set(self.chunks)
            for start, end in data_extents(file, self.size):
                there.update(range(start // CHUNK, -(-end // CHUNK)))
            for chunk in sorted(there):
                file.seek(chunk * CHUNK)
                data = file.read(CHUNK)
                expected = self.chunks.get(chunk, ZERO_CHUNK)[:len(data)]
                if data != expected:
                    at = next(i for i in range(0, len(data), 512)
                              if data[i:i + 512] != expected[i:i + 512])
                    raise Failure("%s: the block at byte %d is wrong" % (what, chunk * CHUNK + at))


class Order:
    """The journal's items, each with the request that it is.

    Every item is one request, with its very data; the order of the items is one in which those
    that did not overlap in time came; and what was answered and then flushed is there. Data in
    the journal that is compressed is left to the comparison of views.
    """

    def __init__(self, mirror, requests):
        self.requests = []  # in the journal's order
        self.position = 0
        waiting = {}
        for one in requests:
            if one.is_change:
                waiting.setdefault((bool(one.data), one.offset, one.length), []).append(one)
        latest = None  # of those seen, the one sent last
        with Journal(mirror) as journal:
            check(journal.first == 0, "the journal was trimmed")
            for item in journal.items:
                found = self.take(waiting, item, journal.data(item) if item.is_write else b"")
                check(not found.error, "item %d was refused" % item.number)
                if latest is not None and found.answered is not None:
                    check(found.answered > latest.sent,
                          "item %d was answered before an earlier one was sent" % item.number)
                if latest is None or found.sent > latest.sent:
                    latest = found
                self.requests.append(found)
        self.missing = [one for ones in waiting.values() for one in ones]
        self.check_missing(requests)

    @staticmethod
    def take(waiting, item, data):
        candidates = waiting.get((item.is_write, item.offset, item.length), [])
        for i, one in enumerate(candidates):
            if data is None or one.data == data:
                return candidates.pop(i)
        raise Failure("item %d, %d bytes at %d, was never sent like that" % (
            item.number, item.length, item.offset))

    def check_missing(self, requests):
        """What is not there was never promised, and nothing sent after it was answered is there."""
        flushed = 0  # the moment before which everything that was answered is durable
        for one in requests:
            if one.answered is not None and not one.error and (one.op == 3 or one.durable):
                flushed = max(flushed, one.sent)
        first = None
        for one in self.missing:
            if one.error:
                continue
            check(one.answered is None or not one.durable, "a durable write is missing")
            if one.answered is not None:
                check(one.answered > flushed, "%d bytes at %d were answered and flushed" % (
                    one.length, one.offset))
                first = min(first or one.answered, one.answered)
        if first is not None:
            for one in self.requests:
                check(one.sent < first, "a later request is there, and an earlier one is not")

    def play(self, image, items):
        """Brings an image to the point after that many items."""
        check(self.position <= items <= len(self.requests), "item:%d of %d" % (
            items, len(self.requests)))
        for one in self.requests[self.position:items]:
            image.play(one)
        self.position = items


def check_between(order, items, before, after):
    """A checkpoint holds all that was answered before it was asked for, and nothing sent later."""
    for number, one in enumerate(order.requests):
        if one.answered is not None and one.answered < before:
            check(number < items, "a checkpoint lacks what was answered before it")
        if one.sent > after:
            check(number >= items, "a checkpoint holds what was sent after it")
