"""Block traces played over NBD from four connections, with the order kept where requests overlap:
at each checkpoint, and at the end, every block is that of the last line that wrote it."""

import os
import time

from nbdfleet import Fleet
from nbdproxy import FLUSH, TRIM, WRITE, ZERO
from nbdsupport import Server, checkpoint, need_nbd, run_tool
from support import (BLOCK, Expectation, Folder, check, compare_image, generated_trace, payload,
                     read_trace, recorded_traces, rlctl, rlctl_json, run)

SIZE = 40 << 30


def play(fleet, lines, first, last):
    """Lines are sent as long as they touch nothing of what is still under way."""
    held_up = 0
    for k in range(first + 1, last + 1):
        is_write, offset, length = lines[k - 1]
        while fleet.overlapping(offset * BLOCK, length * BLOCK):
            held_up += 1
            fleet.step()
        if is_write:
            fleet.send(WRITE, offset * BLOCK, length * BLOCK, payload(k, offset, length))
        else:
            fleet.send(ZERO if k % 2 else TRIM, offset * BLOCK, length * BLOCK)
        if k % 1000 == 0:
            fleet.send(FLUSH)
    fleet.drain()
    return held_up


def check_points(mirror, server, lines, points, folder):
    expectation = Expectation(lines)
    image = os.path.join(folder, "image")
    for name, items in points:
        expectation.advance(items)
        run_tool("nbdcopy", server.uri(name), image)
        compare_image(image, SIZE, expectation)
        os.unlink(image)
    live = rlctl_json("stats", mirror, "--at", "latest")
    check(live["items_scanned"] == len(lines), "%d items" % live["items_scanned"])
    check(live["bytes_inserted"] == expectation.inserted_blocks * BLOCK, "bytes inserted")


def live_index(metrics):
    """How many regions the live volume's index has, and how many bytes they cover."""
    with open(metrics, encoding="utf-8") as file:
        values = dict(line.rsplit(" ", 1) for line in file if not line.startswith("#"))
    return [[float(value) for name, value in values.items() if name.split("{")[0] == wanted]
            for wanted in ("rl_regions", "rl_index_unique_bytes")]


def check_trace(path, *create_options):
    lines = read_trace(path)
    started = time.monotonic()
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        # Written when a server has opened the mirror, and once more when it ends.
        metrics = os.path.join(folder, "metrics")
        rlctl("create", mirror, "--size", SIZE, *create_options)
        with Server(folder, mirror, "metrics=" + metrics) as server:
            fleet = Fleet(server)
            points, held_up = [], 0
            cuts = [len(lines) * part // 3 for part in range(4)]
            for first, last in zip(cuts, cuts[1:]):
                held_up += play(fleet, lines, first, last)
                name, items = checkpoint(mirror)
                check(items == last, "a checkpoint after %d items, not %d" % (items, last))
                points.append((name, items))
            points[-1] = ("live", len(lines))
            check(not any(one.error for one in fleet.requests), "a request was refused")
            fleet.close()
            played = time.monotonic() - started
            check_points(mirror, server, lines, points, folder)
        live = live_index(metrics)
        check(len(live[0]) == 1 and live[0][0] > 0 and live[1][0] > 0, "its index: %s" % live)
        with Server(folder, mirror, "metrics=" + metrics) as server:
            rebuilt = live_index(metrics)
            check(rebuilt == live, "the live index was %s, a restart's is %s" % (live, rebuilt))
            check_points(mirror, server, lines, [("live", len(lines))], folder)
        print("     %d lines in %.1f s, %d waits for overlapping ones; compared in %.1f s" % (
            len(lines), played, held_up, time.monotonic() - started - played), flush=True)


def test_generated_stream():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=3000)
        check_trace(trace)


def test_generated_stream_compressed():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=1200, seed=9)
        check_trace(trace, "--compress", "lz4")


def test_recorded_traces():
    for trace in recorded_traces():
        if os.path.getsize(trace) > 100000 and not os.environ.get("RL_LONG_TESTS"):
            print("   %s: only with RL_LONG_TESTS" % os.path.basename(trace))
            continue
        print("   " + os.path.basename(trace), flush=True)
        check_trace(trace)


need_nbd("nbdcopy")
run(test_generated_stream, test_generated_stream_compressed, test_recorded_traces)
