"""A served mirror from outside: its exports, their maps, and how the server begins and ends.

Skipped, and saying so, where nbdkit or one of its clients is not installed.
"""

import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import urllib.parse

from nbdsupport import server_environment
from support import (RLCTL, STOP_SECONDS, Failure, Folder, check, rlctl, rlctl_json, run, stacks_told,
                     wait_until)

try:
    import nbd
except ImportError:
    nbd = None

SIZE = 16 << 20


class Served:
    """rlctl serve, from the line that says it is ready to its end."""

    def __init__(self, mirror, *options, environment=None):
        self.mirror = mirror
        self.socket = os.path.join(mirror, "nbd")
        # Slow disks and busy machines have their time: what is not durable then is a failure.
        if "--stop-timeout" not in options:
            options = ("--stop-timeout", "%ds" % STOP_SECONDS, *options)
        self.process = subprocess.Popen([RLCTL, "serve", mirror, *options],
                                        env=environment or server_environment(),
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.log = b""
        while b"serving " not in self.log:
            line = self.process.stdout.readline()
            check(line, "the server ended before it served: " + self.log.decode())
            self.log += line

    def uri(self, export=""):
        return "nbd+unix:///%s?socket=%s" % (export, self.socket)

    def connect(self, export=""):
        client = nbd.NBD()
        client.add_meta_context("base:allocation")
        client.connect_uri(self.uri(export))
        return client

    def end(self, number=signal.SIGTERM, code=0):
        """Well, and by itself: before the time is over that it gives itself, or the code is another."""
        with stacks_told(self.process):
            self.process.send_signal(number)
            self.log += self.process.stdout.read()
            self.process.wait()
        check(self.process.returncode == code, "exit code %d: %s" % (
            self.process.returncode, self.log.decode()))
        check(not os.path.exists(self.socket), "the socket is left behind: " + self.log.decode())

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        if self.process.returncode is None:
            self.process.kill()
            self.process.wait()


def made(folder, *options):
    mirror = os.path.join(folder, "m")
    rlctl("create", mirror, "--size", SIZE, *options)
    return mirror


def map_of(client, offset=0, length=SIZE):
    """(offset, length, flags), neighbours of one kind joined."""
    runs = []

    def take(context, start, entries, error):
        check(context == "base:allocation", context)
        for length, flags in zip(entries[0::2], entries[1::2]):
            if runs and runs[-1][2] == flags:
                runs[-1][1] += length
            else:
                runs.append([start, length, flags])
            start += length

    done = offset
    while done < offset + length:
        before = done
        client.block_status(offset + length - done, done, take)
        done = runs[-1][0] + runs[-1][1]
        check(done > before, "a map that does not go on")
    return [tuple(one) for one in runs]


HOLE, ZERO = 1, 2


def error_of(action):
    try:
        action()
    except nbd.Error as error:
        return error.errno
    return None


def exports_and_their_maps():
    with Folder() as folder:
        mirror = made(folder)
        with Served(mirror) as served:
            mode = os.stat(served.socket).st_mode
            check(stat.S_IMODE(mode) & 0o077 == 0, "others may open the socket: %o" % mode)
            live = served.connect("live")
            check(live.get_size() == SIZE, "size")
            check(live.can_fua() and live.can_multi_conn() and live.can_trim() and
                  live.can_zero() and live.can_fast_zero() and not live.is_read_only(), "flags")
            check([live.get_block_size(kind) for kind in range(3)] == [512, 4096, 32 << 20],
                  "block sizes")
            live.pwrite(b"a" * 8192, 0)
            live.pwrite(b"b" * 4096, 1 << 20, nbd.CMD_FLAG_FUA)
            rlctl("checkpoint", mirror, "--tag", "first")
            live.pwrite(b"c" * 4096, 4096)
            live.zero(4096, 1 << 20, nbd.CMD_FLAG_FAST_ZERO)
            live.trim(4096, 2 << 20)
            live.flush()
            rlctl("checkpoint", mirror)
            live.pwrite(b"d" * 512, 8192)
            live.flush()

            listed = {}
            lister = nbd.NBD()
            lister.set_opt_mode(True)
            lister.connect_unix(served.socket)
            lister.opt_list(lambda name, description: listed.update({name: description}))
            lister.opt_abort()
            check(list(listed) == ["live", "latest", "cp:1", "cp:2"], listed)
            check("(first)" in listed["cp:1"] and listed["cp:1"].startswith("cp:1 of 20"),
                  listed["cp:1"])

            first = served.connect("tag:first")
            check(first.is_read_only(), "a view is read-only")
            check(first.pread(SIZE, 0) == b"a" * 8192 + bytes((1 << 20) - 8192) + b"b" * 4096 +
                  bytes(SIZE - (1 << 20) - 4096), "the content at the first checkpoint")
            check(map_of(first) == [(0, 8192, 0), (8192, (1 << 20) - 8192, HOLE | ZERO),
                                    (1 << 20, 4096, 0),
                                    ((1 << 20) + 4096, SIZE - (1 << 20) - 4096, HOLE | ZERO)],
                  map_of(first))
            for name in ("cp:1", "item:2", "1"):
                check(served.connect(name).pread(SIZE, 0) == first.pread(SIZE, 0), name)
            now = served.connect("latest")
            live.pwrite(b"e" * 512, 0)
            check(now.pread(512, 0) == b"a" * 512, "latest is what it was when it was opened")
            check(served.connect("latest").pread(512, 0) == b"e" * 512, "and later a later one")
            check(served.connect().pread(512, 8192) == b"d" * 512, "the default is live")

            # Unchanged is a hole and never zero.
            diff = served.connect("diff:1..2")
            check(diff.pread(SIZE, 0) == served.connect("cp:2").pread(SIZE, 0), "reads as the later")
            check(map_of(diff) == [(0, 4096, HOLE), (4096, 4096, 0),
                                   (8192, (1 << 20) - 8192, HOLE), (1 << 20, 4096, HOLE | ZERO),
                                   ((1 << 20) + 4096, (1 << 20) - 4096, HOLE),
                                   (2 << 20, 4096, HOLE | ZERO),
                                   ((2 << 20) + 4096, SIZE - (2 << 20) - 4096, HOLE)],
                  map_of(diff))
            one = []
            diff.block_status(SIZE - 4096, 4096, lambda c, o, entries, e: one.extend(entries),
                              nbd.CMD_FLAG_REQ_ONE)
            check(one == [4096, 0], one)

            for name in ("cp:3", "tag:none", "item:99", "diff:2..1", "diff:1", "nonsense",
                         "time:1999-01-01T00:00:00Z"):
                check(error_of(lambda name=name: served.connect(name)) is not None, name)
            odd = nbd.NBD()
            odd.set_strict_mode(0)
            odd.connect_uri(served.uri("live"))
            check(error_of(lambda: odd.pwrite(b"x" * 100, 0)) == "EINVAL", "a part of a block")
            check(error_of(lambda: odd.pread(512, 100)) == "EINVAL", "at no block")
            check(odd.pread(512, 0) == b"e" * 512, "and it goes on")
            served.end()
        check("can serve" not in rlctl("verify", mirror).decode(), "verify")


def clients_copy_in_both_directions():
    with Folder() as folder:
        mirror = made(folder, "--compress", "lz4")
        image = os.path.join(folder, "image")
        with open(image, "wb") as file:
            file.truncate(SIZE)
            for block in range(0, SIZE, 1 << 20):
                file.seek(block)
                file.write(os.urandom(4096) + b"z" * 65536)
        with Served(mirror) as served:
            subprocess.run(["nbdcopy", "--flush", image, served.uri("live")], check=True)
            rlctl("checkpoint", mirror)
            back = os.path.join(folder, "back")
            subprocess.run(["nbdcopy", served.uri("cp:1"), back], check=True)
            check(open(image, "rb").read() == open(back, "rb").read(), "nbdcopy")
            live = served.connect("live")
            live.pwrite(b"n" * 65536, 3 << 20)
            live.zero(1 << 20, 5 << 20)
            live.flush()
            rlctl("checkpoint", mirror)
            base, increment = (os.path.join(folder, name) for name in ("base.qcow2", "inc.qcow2"))
            subprocess.run(["qemu-img", "convert", "-O", "qcow2", served.uri("cp:1"), base],
                           check=True)
            subprocess.run(["qemu-img", "convert", "-O", "qcow2", "-B", base, "-F", "qcow2",
                            served.uri("diff:1..2"), increment], check=True)
            subprocess.run(["qemu-img", "compare", increment, served.uri("cp:2")], check=True,
                           stdout=subprocess.DEVNULL)
            check(os.path.getsize(increment) < 1 << 20, "an increment holds what changed alone")
            whole = os.path.join(folder, "whole")
            shutil.copy(image, whole)
            subprocess.run(["nbdcopy", served.uri("diff:1..2"), whole], check=True)
            subprocess.run(["qemu-img", "compare", "-f", "raw", "-F", "raw", whole,
                            served.uri("cp:2")], check=True, stdout=subprocess.DEVNULL)
            served.end()


def the_end_keeps_what_was_answered():
    with Folder() as folder:
        mirror = made(folder)
        for number in (signal.SIGTERM, signal.SIGINT):
            with Served(mirror) as served:
                # One client goes on sitting there, another has said nothing at all.
                idle = served.connect("live")
                silent = socket.socket(socket.AF_UNIX)
                silent.connect(served.socket)
                idle.pwrite(b"k" * 4096, int(number) * 4096)
                served.end(number)
                silent.close()
            check(rlctl("read", mirror, "--at", "latest", "--offset", int(number) * 4096,
                        "--length", 4096) == b"k" * 4096, "what was answered is there")
        with Served(mirror) as served:
            rlctl("serve", mirror, code=11)
            served.process.kill()
            served.process.wait()
        # The child of a parent that was killed ends as well, and a socket left behind is no reason
        # not to serve.
        def served_again():
            try:
                with Served(mirror) as again:
                    again.end()
                return True
            except Failure:
                return False

        wait_until(served_again, "the mirror stays in use")


def a_client_that_comes_with_the_end():
    """nbdkit may find no client to wait for, as the thread of one only starts, and then wait for that one
    where it unloads the plugin."""
    rare = os.environ.get("RL_NBD_RARE")
    if not rare:
        print("     no RL_NBD_RARE: not tried")
        return
    with Folder() as folder:
        mirror = made(folder)
        name = os.path.join(folder, "late")
        environment = server_environment(LD_PRELOAD=rare, RL_LATE=name)
        for export in (None, b"live", b"latest"):
            with Served(mirror, environment=environment) as served:
                writer = served.connect("live")
                writer.pwrite(b"l" * 4096, 0)
                writer.shutdown()
                open(name, "wb").close()
                client = socket.socket(socket.AF_UNIX)
                client.connect(served.socket)
                wait_until(lambda: os.path.exists(name + ".held"), "the thread is not held")
                if export is not None:
                    # Fixed newstyle, no zeroes; an export by its name.
                    client.send(b"\0\0\0\3IHAVEOPT\0\0\0\1" + len(export).to_bytes(4, "big") + export)
                served.end()
                client.close()
            if os.path.exists(name + ".held"):
                print("     this nbdkit unloads in another way: not tried")
                return
        check(rlctl("read", mirror, "--at", "latest", "--offset", 0, "--length", 4096) == b"l" * 4096,
              "what was answered is there")


def an_end_that_cannot_keep_what_was_answered():
    """Whether clients have gone or stay, the server says that it failed."""
    rare = os.environ.get("RL_NBD_RARE")
    if not rare:
        print("     no RL_NBD_RARE: not tried")
        return
    with Folder() as folder:
        name = os.path.join(folder, "sync-fails")
        environment = server_environment(LD_PRELOAD=rare, RL_SYNC_FAILS=name)
        for stays in (False, True):
            mirror = made(folder)
            with Served(mirror, environment=environment) as served:
                writer = served.connect("live")
                writer.pwrite(b"f" * 4096, 0)
                if not stays:
                    writer.shutdown()
                open(name, "wb").close()
                served.end(code=1)
                check(b"journal" in served.log, "it does not say what failed: %r" % served.log)
            os.unlink(name)
            shutil.rmtree(mirror)


def read_only_and_refusals():
    with Folder() as folder:
        mirror = made(folder)
        rlctl("serve", os.path.join(folder, "none"), code=10)
        for address in ("nonsense", "127.0.0.1:0", "127.0.0.1:70000", "127.0.0.1:00000000010809"):
            rlctl("serve", mirror, "--tcp", address, code=2)
        for options in (("--readonly", "--checkpoint-every", "5s"), ("--checkpoint-every", "30"),
                        ("--checkpoint-every", "5s", "--checkpoint-every", "6s"),
                        ("--views-budget", "many"), ("--apply-rate", "0"),
                        ("--tweak", "nonsense")):
            rlctl("serve", mirror, *options, code=2)
        rlctl("serve", mirror, "--socket", os.path.join(mirror, "mirror.json"), code=1)
        with Served(mirror, "--readonly") as served:
            check(error_of(lambda: served.connect("live")) is not None, "no live export")
            view = served.connect()
            check(view.is_read_only() and view.pread(512, 0) == bytes(512), "latest by default")
            rlctl("checkpoint", mirror)  # another process may write
            view.shutdown()
            served.end()
        check(rlctl_json("checkpoints", mirror)["checkpoints"][0]["id"] == 1, "it was set")


def sizes_and_logs_are_those_of_all_commands():
    with Folder() as folder:
        mirror = made(folder)
        log, events = os.path.join(folder, "log"), os.path.join(folder, "events")
        os.environ["RL_MEMORY_LIMIT"] = "1GiB"
        try:
            with Served(mirror, "--views-budget", "64MiB", "--checkpoint-every", "256MiB",
                        "--checkpoint-every", "1h", "--log-file", log, "--log-format", "json",
                        "--log-level", "debug", "--events", events,
                        "--tweak", "t_RlVerboseLogs=true", "--tweak", "t_BinVerboseLogs=true") as served:
                served.connect("live").pwrite(b"l" * 4096, 8192)
                served.end()
        finally:
            del os.environ["RL_MEMORY_LIMIT"]
        with open(log, encoding="utf-8") as file:
            lines = [json.loads(line) for line in file]
        check(any("RegionLocator" in json.dumps(line) or line["module"] == "xel" for line in lines),
              "the locator's lines are in the log: %s" % lines[:5])
        told = rlctl_json("events", events)["events"]
        check(any(event["view_offset_blocks"] == 16 for event in told),
              "the write's event: %s" % told[:5])


def an_ipv6_address_is_one_in_the_uri_too():
    with Folder() as folder:
        mirror = made(folder)
        try:
            # Kept for the server: others who want any port get another one.
            free = socket.socket(socket.AF_INET6)
            free.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            free.bind(("::1", 0))
            port = free.getsockname()[1]
        except OSError:
            print("     no IPv6 here: not tried")
            return
        with free, Served(mirror, "--tcp", "[::1]:%d" % port) as served:
            uri = served.log.split(b" at ")[-1].strip().decode()
            check(uri == "nbd://[::1]:%d/" % port, uri)
            client = nbd.NBD()
            client.connect_uri(uri + "live")
            check(client.get_size() == SIZE, "its size")
            client.shutdown()
            served.end()


def a_mirror_too_deep_for_a_socket():
    """Where the path of the mirror's own NBD socket is too long for an address, serve says what to do;
    the control socket is found all the same."""
    with Folder() as folder:
        deep = os.path.join(folder, "d" * 60, "e" * 60)
        os.makedirs(deep)
        mirror = made(deep)
        rlctl("serve", mirror, code=2)
        check("--socket PATH" in rlctl.errors and " bytes" in rlctl.errors, rlctl.errors)
        check(not os.path.exists(os.path.join(mirror, "control")), "it was begun all the same")
        path = os.path.join(folder, "s")
        with Served(mirror, "--socket", path) as served:
            served.socket = path
            served.connect("live").pwrite(b"d" * 4096, 0)
            check(rlctl_json("info", mirror)["items"] == 1, "info through the control socket")
            rlctl("checkpoint", mirror, "--tag", "deep")
            check(served.connect("tag:deep").pread(4096, 0) == b"d" * 4096, "the checkpoint")
            served.end()
        check(not os.path.exists(os.path.join(mirror, "control")), "it is left behind")


def a_tag_is_text():
    """Served or not: what is no UTF-8 is refused, and never becomes another name."""
    odd, good = os.fsdecode(b"caf\xe9"), "caf\u00e9"
    with Folder() as folder:
        mirror = made(folder)
        rlctl("checkpoint", mirror, "--tag", odd, code=2)
        check("UTF-8" in rlctl.errors, rlctl.errors)
        with Served(mirror) as served:
            rlctl("checkpoint", mirror, "--tag", odd, code=2)
            check("UTF-8" in rlctl.errors, rlctl.errors)
            rlctl("hold", mirror, "--at", "tag:" + odd, code=2)
            rlctl("checkpoint", mirror, "--tag", good)
            check(served.connect("tag:" + urllib.parse.quote(good)).get_size() == SIZE, "a tag beyond ASCII")
            served.end()
        tags = [one["tag"] for one in rlctl_json("checkpoints", mirror)["checkpoints"]]
        check(tags == [good], tags)


if __name__ == "__main__":
    missing = [name for name in ("nbdkit", "nbdcopy", "qemu-img") if shutil.which(name) is None]
    if nbd is None:
        missing.append("python3-libnbd")
    if missing:
        print("skipped: not installed: " + ", ".join(missing))
        sys.exit(77)
    run(exports_and_their_maps, clients_copy_in_both_directions, the_end_keeps_what_was_answered,
        a_client_that_comes_with_the_end, an_end_that_cannot_keep_what_was_answered,
        read_only_and_refusals, sizes_and_logs_are_those_of_all_commands,
        an_ipv6_address_is_one_in_the_uri_too, a_mirror_too_deep_for_a_socket, a_tag_is_text)
