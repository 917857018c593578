"""Clients that do not behave, a journal that is full, a byte that has flipped, and an end under load:
the server goes on with the others, and loses nothing that it acknowledged."""

import contextlib
import errno
import json
import os
import random
import re
import signal
import socket
import subprocess
import threading
import time

import nbd

from journalreader import Journal
from nbdfleet import Fleet
from nbdpeers import Others, RawClient, memory_kib
from nbdproxy import FLUSH, READ, TRIM, WRITE, ZERO
from nbdsupport import (Server, checkpoint, connect, need_nbd, refused, run_tool,
                        server_environment)
from replay import Image, Order
from support import FAR_END, Failure, Folder, check, rlctl, rlctl_json, run, wait_until

BLOCK = 512
LARGEST = 32 << 20
# nbdkit up to 1.32 may abort when a client vanishes whose requests several threads are serving.
SAFE = ("--threads=1",)


def new_mirror(folder, size, *options):
    mirror = os.path.join(folder, "m")
    rlctl("create", mirror, "--size", size, *options)
    return mirror


def sockets(process):
    """How many a process has open; its files, which grow in number with the journal, aside."""
    folder = "/proc/%d/fd" % process.pid
    found = 0
    for name in os.listdir(folder):
        try:
            found += os.readlink(os.path.join(folder, name)).startswith("socket:")
        except FileNotFoundError:
            pass
    return found


def test_odd_requests():
    size = 80 << 20
    with Folder() as folder:
        mirror = new_mirror(folder, size)
        with Server(folder, mirror) as server:
            handle = connect(server)
            with Others(server, 0):
                data = random.Random(1).randbytes(LARGEST)
                handle.pwrite(data, 1 << 20)
                check(handle.pread(LARGEST, 1 << 20) == data, "the largest write")
                handle.pwrite(data[:BLOCK], size - BLOCK)
                handle.zero(LARGEST // 2, 2 << 20)
                handle.trim(LARGEST, 40 << 20)
                handle.zero(size - (70 << 20), 70 << 20, nbd.CMD_FLAG_FUA | nbd.CMD_FLAG_FAST_ZERO)
                for call, arguments, expected in (
                        (handle.pwrite, (b"x" * 100, 0), errno.EINVAL),
                        (handle.pwrite, (b"x" * BLOCK, 7), errno.EINVAL),
                        (handle.pread, (BLOCK, 100), errno.EINVAL),
                        (handle.pread, (BLOCK, size), errno.EINVAL),
                        (handle.pread, (2 * BLOCK, size - BLOCK), errno.EINVAL),
                        (handle.pwrite, (b"x" * BLOCK * 2, size - BLOCK), errno.ENOSPC),
                        (handle.pwrite, (b"x" * BLOCK, 1 << 62), errno.ENOSPC),
                        (handle.zero, (700, 0), errno.EINVAL),
                        (handle.trim, (BLOCK, BLOCK + 1), errno.EINVAL),
                        (handle.trim, (BLOCK, size), errno.EINVAL),
                        (handle.pread, (0, 0), errno.EINVAL)):
                    found = refused(call, *arguments)
                    check(found == expected, "%s%r: %d, not %d" % (
                        call.__name__, tuple(str(one)[:20] for one in arguments), found, expected))
                view = connect(server, "item:0")
                check(refused(view.pwrite, b"x" * BLOCK, 0) == errno.EPERM, "a view is written to")
                view.shutdown()
            # What was refused left nothing behind.
            handle.flush()
            with Journal(mirror) as journal:
                own = [one for one in journal.items if one.length != 4096]
            check([(one.is_write, one.offset, one.length) for one in own] == [
                (True, 1 << 20, LARGEST), (True, size - BLOCK, BLOCK),
                (False, 2 << 20, LARGEST // 2), (False, 40 << 20, LARGEST),
                (False, 70 << 20, size - (70 << 20))], "other items than requests")
            handle.shutdown()


def test_maps_of_all_that_32_bits_can_ask_for():
    """A run of one kind that is as long; nbdkit has no room for one that is longer than was asked."""
    with Folder() as folder:
        mirror = new_mirror(folder, 6 << 30)
        with Server(folder, mirror) as server:
            keeper = connect(server)
            keeper.pwrite(b"e" * BLOCK, (6 << 30) - BLOCK)
            checkpoint(mirror)
            for name in ("live", "latest", "cp:1", "item:0", "diff:item:0..cp:1"):
                handle = connect(server, name)
                for length in (0xFFFFFFFF, 0xFFFFFFFF - 510, 0xFFFFFFFF - 511, 0xFFFFFFFF - 512):
                    for offset in (0, BLOCK, 1 << 30):
                        found = []
                        error = refused(handle.block_status, length, offset,
                                        lambda _, __, entries, ___: found.extend(entries) or 0)
                        check(error == 0 and 0 < sum(found[::2]) <= length,
                              "%s: errno %d, map %r for %d at %d" % (
                                  name, error, found, length, offset))
                        keeper.pread(BLOCK, 0)
                handle.shutdown()
            keeper.shutdown()


def test_unknown_exports_are_refused():
    with Folder() as folder:
        mirror = new_mirror(folder, 1 << 20)
        with Server(folder, mirror) as server:
            handle = connect(server)
            handle.pwrite(b"a" * BLOCK, 0)
            checkpoint(mirror, "known")
            for name in ("live2", "LIVE", "cp:2", "cp:", "cp:x", "tag:unknown", "item:2", "item:-1",
                         "time:1999-01-01T00:00:00Z", "time:yesterday", "diff:cp:1",
                         "diff:latest..item:0", "diff:..", "../m", "/", "n" * 4000, "%s%n", "é\n"):
                check(refused(connect, server, name) != 0, "export %r is served" % name[:50])
            for name in ("", "live", "latest", "cp:1", "1", "tag:known", "item:0", "item:1",
                         "time:2999-01-01T00:00:00Z", "diff:item:0..latest"):
                other = connect(server, name)
                check(other.get_size() == 1 << 20, "the size of " + name)
                other.shutdown()
            handle.shutdown()


def test_clients_that_vanish():
    chance = random.Random(2)
    with Folder() as folder:
        mirror = new_mirror(folder, 64 << 20)
        with Server(folder, mirror, options=SAFE) as server:
            keeper = connect(server)
            connect(server, "item:0").shutdown()  # the view stays for the next one to open it
            before = sockets(server.process)
            with Others(server, 0):
                for i in range(150):
                    client = RawClient(server.socket, chance.choice(("live", "item:0")))
                    if i % 5 == 0:
                        client.socket.sendall(chance.randbytes(chance.randrange(60)))
                        client.close()
                        continue
                    client.negotiate()
                    write = client.request(WRITE, 8 << 20, 1 << 20) + b"v" * (1 << 20)
                    what = (client.request(READ, 0, 1 << 20),  # and takes no answer
                            write[:chance.randrange(28)], write[:chance.randrange(28, 1 << 20)],
                            client.request(READ, 0, BLOCK, magic=0x12345678))[i % 4]
                    client.socket.sendall(what)
                    client.close()
                # One more is that of the one that behaves.
                wait_until(lambda: sockets(server.process) <= before + 1,
                           "connections that have gone are kept")
            keeper.flush()
            with Journal(mirror) as journal:
                check(all(one.length == 4096 for one in journal.items),
                      "a part of a request has become an item")
            keeper.shutdown()


def test_clients_that_stall_and_flood():
    with Folder() as folder:
        mirror = new_mirror(folder, 64 << 20)
        with Server(folder, mirror, options=SAFE) as server:
            keeper = connect(server)
            keeper.pwrite(random.Random(4).randbytes(LARGEST), LARGEST)
            stalled = [RawClient(server.socket).negotiate() for _ in range(4)]
            with Others(server, 0) as others:
                for number, client in enumerate(stalled):
                    for cookie in range(4):  # and none of the answers is read
                        client.socket.sendall(client.request(READ, LARGEST, LARGEST, cookie))
                    # A write that never comes to its end.
                    client.socket.sendall(client.request(WRITE, number << 20, 1 << 20) + b"s" * 700)
                flood = []
                for _ in range(250):
                    flood.append(RawClient(server.socket, "latest").negotiate())
                for client in flood:
                    for cookie in range(50):
                        client.socket.sendall(client.request(READ, LARGEST, 4096, cookie))
                seen = others.rounds
                wait_until(lambda: others.rounds >= seen + 50 or others.failure is not None,
                           "the others are not served")
                peak = memory_kib(server.process, "VmRSS")
                for client in flood:
                    client.close()
            # Each stalled read may keep its answer, and nbdkit a thread for each request of each.
            check(peak < 2 << 20, "%d MiB of memory" % (peak >> 10))
            check(keeper.pread(4096, LARGEST) == random.Random(4).randbytes(4096), "a read")
            keeper.shutdown()
            print("     %d MiB, slowest write and read of another client %.3f s" % (
                peak >> 10, others.slowest))
            # The stalled ones are still there: ending does not wait for them.
            started = time.monotonic()
            server.stop()
            print("     ended in %.1f s with stalled clients" % (time.monotonic() - started))
            for client in stalled:
                client.close()


def test_full_journal():
    chance = random.Random(6)
    size = 64 << 20
    with Folder() as folder:
        mirror = new_mirror(folder, size, "--journal-limit", "40M")
        with Server(folder, mirror) as server:
            handle = connect(server)
            image = Image(size)
            full = 0
            for i in range(200):
                offset, data = chance.randrange(48) << 20, chance.randbytes(1 << 20)
                error = refused(handle.pwrite, data, offset)
                if error == 0:
                    check(full == 0, "a write is taken though the journal was full")
                    image.write(offset, data)
                else:
                    check(error == errno.ENOSPC, "errno %d" % error)
                    full += 1
                    if full == 3:
                        break
            check(full == 3, "the journal never was full")
            written = i - 2
            check(handle.pread(size // 2, 0) == image.read(0, size // 2), "reading, when it is full")
            handle.flush()
            view = connect(server, "item:%d" % written)
            check(view.pread(size // 2, size // 2) == image.read(size // 2, size // 2), "a view")
            view.shutdown()
            check(rlctl_json("info", mirror)["journal_nearly_full"], "info says nothing of it")
            rlctl("apply", mirror, "--to", "latest", "--yes")
            rlctl("trim", mirror, "--to", "latest", "--yes")
            for _ in range(10):
                offset, data = chance.randrange(48) << 20, chance.randbytes(1 << 20)
                handle.pwrite(data, offset)
                image.write(offset, data)
            check(handle.pread(size // 2, 0) == image.read(0, size // 2), "reading, after it")
            handle.shutdown()
        with Server(folder, mirror) as server:
            copy = os.path.join(folder, "copy")
            run_tool("nbdcopy", server.uri(), copy)
            image.compare(copy, "live, after a restart")


def test_refusals_do_not_fill_the_log():
    """The first one of a kind is told with all that is known of it, the rest as numbers."""
    floods = 3000
    with Folder() as folder:
        mirror = new_mirror(folder, 64 << 20, "--journal-limit", "36M")
        with Server(folder, mirror) as server:
            handle = connect(server)
            handle.pwrite(bytes([1]) * (1 << 20), 0)
            while refused(handle.pwrite, b"f" * (1 << 20), 8 << 20) == 0:
                pass
            full = 0
            while full < floods:
                full += refused(handle.pwrite, b"f" * 32768, 8 << 20) == errno.ENOSPC
            handle.flush()
            with Journal(mirror) as journal:
                _, address, _ = journal.items[0].pieces[0]
                grain, block = divmod(address, 32768)
                path = os.path.join(journal.folder, "d-%010d" % grain)
            with open(path, "r+b") as file:
                file.seek(block * BLOCK)
                file.write(b"damaged")
            for _ in range(floods):
                check(refused(handle.pread, BLOCK, 0) == errno.EIO, "damage is served")
            check(handle.pread(BLOCK, 4096) == bytes([1]) * BLOCK, "reading goes on")
            handle.shutdown()
            server.stop()
            lines = [line for line in server.log().splitlines() if line]
        print("     %d refusals, %d lines in the log" % (2 * floods, len(lines)))
        check(len(lines) < 200, "%d lines:\n%s" % (len(lines), "\n".join(lines[:20])))
        for what in ("write of 32768 bytes at 8388608", "read of 512 bytes at 0"):
            own = [line for line in lines if what in line]
            told = sum(1 + sum(int(one) for one in re.findall(r"(\d+) more like it", line))
                       for line in own)
            check(told == floods, "%s: %d of %d are told of:\n%s" % (
                what, told, floods, "\n".join(own[:20])))


def test_flipped_byte():
    with Folder() as folder:
        mirror = new_mirror(folder, 8 << 20)
        data = random.Random(7).randbytes(1 << 20)
        with Server(folder, mirror) as server:
            handle = connect(server)
            handle.pwrite(data, 1 << 20)
            handle.pwrite(data, 4 << 20)
            handle.shutdown()
        block = 77
        with Journal(mirror) as journal:
            _, address, _ = journal.items[0].pieces[0]
            grain, first = divmod(address, 32768)
            path = os.path.join(journal.folder, "d-%010d" % grain)
        with open(path, "r+b") as file:
            file.seek((first + block) * BLOCK + 100)
            byte = file.read(1)[0]
            file.seek(-1, os.SEEK_CUR)
            file.write(bytes([byte ^ 4]))
        damaged = (1 << 20) + block * BLOCK
        with Server(folder, mirror) as server:
            for name in ("live", "latest", "item:1"):
                handle = connect(server, name)
                for offset in range(1 << 20, 2 << 20, 4096):
                    hits = offset <= damaged < offset + 4096
                    error = refused(handle.pread, 4096, offset)
                    check(error == (errno.EIO if hits else 0), "%s: errno %d at %d" % (
                        name, error, offset))
                    if not hits:
                        check(handle.pread(4096, offset) == data[offset - (1 << 20):][:4096], "data")
                check(refused(handle.pread, BLOCK, damaged) == errno.EIO, "the block itself")
                check(refused(handle.pread, 1 << 20, 1 << 20) == errno.EIO, "all of it")
                if name != "item:1":
                    check(handle.pread(1 << 20, 4 << 20) == data, "another write")
                handle.shutdown()
            handle = connect(server)
            number = str(damaged // BLOCK)
            lines = [line for line in server.log().splitlines() if number in line]
            check(lines, "the log does not name block %s:\n%s" % (number, server.log()))
            # A new write makes it good.
            handle.pwrite(data[:BLOCK], damaged)
            check(handle.pread(BLOCK, damaged) == data[:BLOCK], "written anew")
            handle.shutdown()


def test_end_under_load_loses_nothing_answered():
    chance = random.Random(8)
    size = 16 << 20
    with Folder() as folder:
        mirror = new_mirror(folder, size)
        server = Server(folder, mirror).start()
        try:
            fleet = Fleet(server, connections=6)
            ended = []

            def end():
                time.sleep(0.4)
                while sum(1 for one in list(fleet.requests) if one.answered) < 200:
                    if server.process.poll() is not None:
                        break
                    time.sleep(0.05)
                started = time.monotonic()
                try:
                    server.stop()
                    ended.append(time.monotonic() - started)
                except Failure as failure:
                    ended.append(failure)

            ending = threading.Thread(target=end)
            ending.start()
            try:
                while True:
                    op = chance.choices((WRITE, ZERO, TRIM, FLUSH), (90, 4, 4, 2))[0]
                    length = 0 if op == FLUSH else chance.choice((1, 8, 64, 256)) * BLOCK
                    offset = chance.randrange((size - length) // BLOCK) * BLOCK
                    data = chance.randbytes(16) * (length // 16) if op == WRITE else b""
                    fleet.send(op, offset if length else 0, length, data)
            except nbd.Error:
                pass
            ending.join()
            if isinstance(ended[0], Failure):
                raise ended[0]
            order = Order(mirror, fleet.requests)
            for one in order.missing:
                check(one.answered is None or one.error, "an answered request was lost")
            print("     ended in %.2f s; %d items, %d requests without an answer" % (
                ended[0], len(order.requests),
                sum(1 for one in fleet.requests if one.answered is None)))
            check(len(order.requests) > 100, "no load")
            with Server(folder, mirror) as again:
                image = Image(size)
                order.play(image, len(order.requests))
                copy = os.path.join(folder, "copy")
                run_tool("nbdcopy", again.uri(), copy)
                image.compare(copy, "live, after the end")
        finally:
            server.kill()


def test_end_with_idle_clients():
    """nbdkit waits for clients that are connected; the plugin does not let it for long."""
    with Folder() as folder:
        mirror = new_mirror(folder, 8 << 20)
        data = random.Random(9).randbytes(1 << 20)
        server = Server(folder, mirror).start()
        try:
            idle = connect(server)
            for offset in range(0, len(data), 4096):
                idle.pwrite(data[offset:offset + 4096], offset)  # answered, and not flushed
            started = time.monotonic()
            server.stop()
            print("     ended in %.1f s" % (time.monotonic() - started))
        finally:
            server.kill()
        check(refused(idle.pread, BLOCK, 0) != 0, "it is served after the end")
        with Server(folder, mirror) as again:
            handle = connect(again)
            check(handle.pread(len(data), 0) == data, "an answered request was lost")
            handle.shutdown()


def uses_of(mirror):
    return [one for one in os.listdir(os.path.join(mirror, "uses")) if one != "latch"]


def test_end_with_open_views():
    """Each has a file in the mirror's folder, and nbdkit closes nothing once it is told to end."""
    with Folder() as folder:
        mirror = new_mirror(folder, 8 << 20)
        for goes in (False, True, True):
            server = Server(folder, mirror).start()
            try:
                handle = connect(server)
                handle.pwrite(b"v" * BLOCK, 0)
                handle.shutdown()
                views = [connect(server, name) for name in ("latest", "item:0", "diff:item:0..latest")]
                for view in views:
                    view.pread(BLOCK, 0)
                check(len(uses_of(mirror)) > 1, "the views are not in use")
                if goes:
                    server.process.send_signal(signal.SIGTERM)
                    time.sleep(0.1)
                    for view in views:
                        view.shutdown()
                server.stop()
                left = uses_of(mirror)
                check(not left, "the views' files are still there: %r" % left)
                check("failed" not in server.log(), server.log())
            finally:
                server.kill()


def test_one_owner():
    with Folder() as folder:
        mirror = new_mirror(folder, 1 << 20)
        with Server(folder, mirror) as server:
            handle = connect(server)
            handle.pwrite(b"1" * BLOCK, 0)
            handle.flush()
            second = Server(folder, mirror, name="second")
            try:
                second.start()
                raise Failure("a second process owns the mirror")
            except Failure as failure:
                check("ended at once" in str(failure) and "in use" in str(failure), str(failure))
            # Where it leaves the terminal, it has to say so before it does.
            background = subprocess.run([one for one in second.command if one != "-f"], check=False,
                                        env=server_environment(), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        timeout=FAR_END)
            text = background.stderr.decode(errors="replace")
            check(background.returncode == 1 and mirror + " is in use by another process" in text,
                  "in the background: %d, %s" % (background.returncode, text))
            with Server(folder, mirror, "readonly=true", name="reader") as reader:
                other = connect(reader, "latest")
                check(other.pread(BLOCK, 0) == b"1" * BLOCK, "what the reader finds")
                check(other.is_read_only(), "it is written to")
                check(refused(connect, reader, "live") != 0, "live, though nobody writes")
                other.shutdown()
            handle.shutdown()


def test_reader_whose_past_is_gone():
    """A writer applies and trims all that the reader found when it began."""
    with Folder() as folder:
        mirror = new_mirror(folder, 1 << 20)
        with Server(folder, mirror) as server:
            handle = connect(server)
            handle.pwrite(b"1" * BLOCK, 0)
            first, _ = checkpoint(mirror)
            handle.pwrite(b"2" * BLOCK, 0)
            handle.flush()
            with Server(folder, mirror, "readonly=true", name="reader") as reader:
                handle.pwrite(b"3" * BLOCK, 0)
                for to, expected in (("item:2", ["latest"]), ("latest", [])):
                    rlctl("apply", mirror, "--to", to, "--yes")
                    rlctl("trim", mirror, "--to", to, "--yes")
                    listed = json.loads(run_tool("nbdinfo", "--list", "--json", reader.uri("")))
                    found = [one["export-name"] for one in listed["exports"]]
                    check(found == expected, "after %s: %r are listed" % (to, found))
                    check(refused(connect, reader, first) != 0, first + " is served")
                for name in ("", "latest", "item:2", "item:3"):
                    check(refused(connect, reader, name) != 0, "'%s' is served" % name)
                for line in reader.log().splitlines()[-4:]:
                    check("open it anew" in line, line)
            with Server(folder, mirror, "readonly=true", name="reader") as reader:
                other = connect(reader, "latest")
                check(other.pread(BLOCK, 0) == b"3" * BLOCK, "a new reader")
                other.shutdown()
            handle.shutdown()


def test_mistakes_are_told_before_it_leaves_the_terminal():
    with Folder() as folder, socket.create_server(("127.0.0.1", 0)) as taken:
        mirror = new_mirror(folder, 1 << 20)
        tweaks = os.path.join(folder, "tweaks")
        with open(tweaks, "w", encoding="utf-8") as file:
            file.write('{"t_RlVerboseLogs": ')
        used = "127.0.0.1:%d" % taken.getsockname()[1]
        missing = os.path.join(folder, "missing", "file")
        for parameter in ("metrics=" + missing, "metrics=" + folder, "events=" + missing,
                          "log-file=" + missing, "tweaks-file=" + missing, "tweaks-file=" + tweaks,
                          "tweak=t_RlVerboseLogs=7", "metrics-http=1", "metrics-http=9100",
                          "metrics-http=:9100", "metrics-http=127.0.0.1:port",
                          "metrics-http=" + used, "metrics-http=192.0.2.1:9100"):
            server = Server(folder, mirror, parameter)
            done = subprocess.run([one for one in server.command if one != "-f"], check=False,
                                  env=server_environment(), stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                  timeout=FAR_END)
            if done.returncode == 0:
                with contextlib.suppress(OSError, ValueError), open(server.pid_file, "rb") as file:
                    os.kill(int(file.read()), signal.SIGTERM)
            text = done.stderr.decode(errors="replace")
            value = parameter.split("=", 1)[1]
            check(done.returncode == 1 and value.split("=")[0] in text,
                  "%s: exit code %d, '%s'" % (parameter, done.returncode, text))
            check(not os.path.exists(os.path.dirname(missing)), parameter + " makes a folder")


need_nbd("nbdcopy", "nbdinfo")
run(test_odd_requests, test_maps_of_all_that_32_bits_can_ask_for,
    test_unknown_exports_are_refused, test_clients_that_vanish, test_clients_that_stall_and_flood,
    test_full_journal, test_refusals_do_not_fill_the_log, test_flipped_byte,
    test_end_under_load_loses_nothing_answered, test_end_with_idle_clients,
    test_end_with_open_views, test_one_owner, test_reader_whose_past_is_gone,
    test_mistakes_are_told_before_it_leaves_the_terminal)
