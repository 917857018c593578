"""rlctl serve and the names of sockets: two that want one, folders that are renamed, others that take
a name over. A server takes its own socket away and nobody else's, and says that it serves where it does.
"""

import itertools
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys

from nbdsupport import server_environment
from serve import Served, made, nbd
from support import FAR_END, RLCTL, Folder, check, rlctl, run, wait_until

ROUNDS = 8
NUMBERS = itertools.count()


class Starter:
    """rlctl serve that may serve or not."""

    def __init__(self, mirror, *options):
        self.log_file = mirror + ".%d.log" % next(NUMBERS)
        with open(self.log_file, "wb") as log:
            self.process = subprocess.Popen([RLCTL, "serve", mirror, "--stop-timeout", "120s", *options],
                                            env=server_environment(), stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)

    def log(self):
        with open(self.log_file, "rb") as file:
            return file.read().decode(errors="replace")

    def serves(self):
        return "serving " in self.log()

    def code(self):
        return self.process.poll()

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(FAR_END)


def two_at_once(mirror, connect, code, *options):
    """One of the two serves, and is reached; the other one ends with this code and never says that it
    serves."""
    starters = [Starter(mirror, *options) for _ in range(2)]
    try:
        wait_until(lambda: any(one.serves() for one in starters) and
                   any(one.code() is not None for one in starters), "none serves, or none gives way")
        lost, = (one for one in starters if one.code() is not None)
        won, = (one for one in starters if one is not lost)
        check(lost.code() == code and not lost.serves(), "%s: %s" % (lost.code(), lost.log()))
        check(won.serves() and won.code() is None, won.log())
        client = nbd.NBD()
        connect(client)
        check(client.pread(512, 0) == bytes(512), "what it serves")
        client.shutdown()
    finally:
        for one in starters:
            one.end()
    check(won.code() == 0, won.log())


def two_that_want_one_socket():
    with Folder() as folder:
        mirror = made(folder)
        for path in (os.path.join(mirror, "nbd"), os.path.join(folder, "s")):
            for number in range(ROUNDS):
                if number % 2:  # what a dead server has left
                    with socket.socket(socket.AF_UNIX) as left:
                        left.bind(path)
                two_at_once(mirror, lambda client: client.connect_unix(path), 11,
                            *(("--readonly",) if number % 4 < 2 else ()), "--socket", path)
                check(not os.path.exists(path), "the socket is left behind")


def two_that_want_one_port():
    with Folder() as folder, socket.socket() as free:
        mirror = made(folder)
        # Kept for the servers: others who want any port get another one.
        free.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        free.bind(("127.0.0.1", 0))
        port = str(free.getsockname()[1])
        for _ in range(ROUNDS):
            two_at_once(mirror, lambda client: client.connect_tcp("127.0.0.1", port), 1, "--readonly",
                        "--tcp", "127.0.0.1:" + port)
        with Served(mirror, "--readonly", "--tcp", "127.0.0.1:" + port) as served:
            rlctl("serve", mirror, "--tcp", "127.0.0.1:" + port, code=1)
            check("serving " not in rlctl.errors, rlctl.errors)
            served.end()


def a_mirror_that_is_renamed_and_replaced():
    """Each server takes away the socket that it made, in the folder that it made it in."""
    with Folder() as folder:
        mirror, moved = made(folder), os.path.join(folder, "m2")
        with Served(mirror) as first:
            os.rename(mirror, moved)
            made(folder)
            with Served(mirror) as second:
                first.socket = os.path.join(moved, "nbd")
                first.end()
                check(second.connect().pread(512, 0) == bytes(512), "the second one is reached")
                second.end()


def another_that_has_taken_the_name_over():
    with Folder() as folder:
        mirror = made(folder)
        with Served(mirror) as served:
            os.unlink(served.socket)
            with socket.socket(socket.AF_UNIX) as other:
                other.bind(served.socket)
                os.chmod(served.socket, 0o640)
                other.listen()
                served.process.send_signal(signal.SIGTERM)
                check(served.process.wait(FAR_END) == 0, "exit code %d" % served.process.returncode)
                check(stat.S_IMODE(os.stat(served.socket).st_mode) == 0o640, "the other one's mode")
                with socket.socket(socket.AF_UNIX) as client:
                    client.connect(served.socket)
                rlctl("serve", mirror, code=11)


if __name__ == "__main__":
    if nbd is None or shutil.which("nbdkit") is None:
        print("skipped: nbdkit or python3-libnbd is not installed")
        sys.exit(77)
    run(two_that_want_one_socket, two_that_want_one_port, a_mirror_that_is_renamed_and_replaced,
        another_that_has_taken_the_name_over)
