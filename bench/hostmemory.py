"""Memory that a virtual machine has to get from its host.

What such a machine does not use goes back to its host after some seconds, and the first touch of a page
then costs some fifty times what it costs later. So a program that takes new pages, be it for its heap
or for what it writes into the page cache, is measured as much as what ran before it.
"""
import mmap

PAGE_BYTES = 4096
# What is left to others when the rest is fetched.
SPARE_BYTES = 512 << 20


def free_bytes():
    with open("/proc/meminfo", encoding="ascii") as lines:
        return next(int(line.split()[1]) << 10 for line in lines if line.startswith("MemFree"))


def fetch(wanted_bytes):
    """Gets so many bytes from the host, if as many are free, and gives them back to the kernel; to be
    called right before each run that will take them, before they are the host's again."""
    length = min(wanted_bytes, free_bytes() - SPARE_BYTES) // PAGE_BYTES * PAGE_BYTES
    if length <= 0:
        return
    with mmap.mmap(-1, length, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS) as memory:
        memory.madvise(mmap.MADV_HUGEPAGE)
        for at in range(0, length, PAGE_BYTES):
            memory[at] = 1
