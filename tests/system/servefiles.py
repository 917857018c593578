"""rlctl serve with few file descriptors: it says that they do not suffice and ends, or it serves, and
loses nothing that it acknowledged; never a crash, and never a wait without end.
"""

import os
import random
import resource
import signal
import socket
import subprocess
import time

from nbdsupport import need_nbd
from serve import nbd
from support import (FAR_END, RLCTL, STOP_SECONDS, Failure, Folder, check, rlctl, rlctl_json, run,
                     stacks_told, wait_until)

MIB = 1 << 20
SIZE = 256 * MIB
STEP = 3 * MIB  # so that grains of 16 MiB change at different places


class Few:
    """rlctl serve that may have so many descriptors, and no more by its own asking."""

    def __init__(self, mirror, number, *options):
        self.socket = os.path.join(mirror, "nbd")
        self.log_file = mirror + ".log"
        with open(self.log_file, "wb") as log:
            self.process = subprocess.Popen(  # pylint: disable=subprocess-popen-preexec-fn
                [RLCTL, "serve", mirror, "--stop-timeout", "%ds" % STOP_SECONDS, *options],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (number, number)))
        until = time.monotonic() + FAR_END
        while " at nbd+unix:" not in self.log() and self.process.poll() is None:
            if time.monotonic() > until:
                self.process.send_signal(signal.SIGKILL)
                self.process.wait()
                raise Failure("with %d it neither serves nor ends:\n%s" % (number, self.log()))
            time.sleep(0.01)
        self.serves = self.process.poll() is None

    def log(self):
        with open(self.log_file, "rb") as file:
            return file.read().decode(errors="replace")

    def end(self):
        with stacks_told(self.process):
            self.process.send_signal(signal.SIGTERM)
            self.process.wait()
        check(self.process.returncode == 0, "exit code %d:\n%s" % (
            self.process.returncode, self.log()[-3000:]))


def write_and_crowd(few, kept):
    """Writes on as many connections as are let in, over several files of the journal. What was flushed
    afterwards, or FUA, is noted; a refusal is no loss. How many connections, writes and refusals."""
    clients, refusals, written = [], 0, 0
    for number in range(12):
        client = nbd.NBD()
        client.set_export_name("live" if number % 3 else "latest" if number else "live")
        try:
            client.connect_unix(few.socket)
        except nbd.Error:
            refusals += 1
            continue
        clients.append((client, number))
    check(clients, "nobody is let in:\n" + few.log()[-3000:])
    chance = random.Random(5)
    for turn in range(6):
        for client, number in clients:
            if client.is_read_only():
                continue
            data = chance.randbytes(4096) * (STEP // 4096)
            offset = ((turn * 12 + number) * STEP) % (SIZE - STEP)
            kept.pop(offset, None)
            try:
                client.pwrite(data, offset, nbd.CMD_FLAG_FUA)
                kept[offset] = data
                written += 1
            except nbd.Error as error:
                check(error.errnum != 0 and not client.aio_is_dead(), "the connection was cut")
                refusals += 1
    for client, _ in clients:
        client.shutdown()
    return len(clients), written, refusals


def few_descriptors():
    served = {}
    with Folder() as folder:
        for number in (4, 6, 8, 10, 16, 24, 32, 39, 40, 44, 48, 64, 128):
            mirror = os.path.join(folder, "m%d" % number)
            rlctl("create", mirror, "--size", SIZE)
            few = Few(mirror, number)
            kept = {}
            try:
                if few.serves:
                    served[number] = write_and_crowd(few, kept)
                    few.end()
                else:
                    check(few.process.returncode > 0, "with %d a signal ends it: %d\n%s" % (
                        number, few.process.returncode, few.log()))
                    print("     %d: %s" % (number, few.log().strip()[-300:]), flush=True)
            finally:
                few.process.kill()
                few.process.wait()
            compare(mirror, kept)
            check(rlctl_json("verify", mirror)["ok"], "verify")
    for number, told in served.items():
        print("     with %d descriptors: %d connections, %d writes, %d refusals" % (number, *told))


def silent_clients_leave_enough_for_the_others():
    """Who connects and says nothing takes a descriptor all the same, and cannot take all of them."""
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", SIZE)
        few = Few(mirror, 64)
        try:
            check(few.serves, few.log())
            keeper = nbd.NBD()
            keeper.set_export_name("live")
            keeper.connect_unix(few.socket)
            silent = []
            for _ in range(200):
                client = socket.socket(socket.AF_UNIX)
                client.settimeout(FAR_END)
                client.connect(few.socket)
                silent.append(client)
            taken = 0
            for client in silent:
                try:
                    taken += client.recv(18)[:8] == b"NBDMAGIC"
                except OSError:
                    pass
            check(8 <= taken < 40, "%d connections are taken" % taken)
            kept = {}
            chance = random.Random(6)
            for offset in range(0, SIZE, 16 * MIB):  # each in another file of the journal
                data = chance.randbytes(MIB)
                for part in range(12):
                    keeper.pwrite(data, offset + part * MIB, nbd.CMD_FLAG_FUA)
                kept[offset] = data
            for offset, data in kept.items():
                check(keeper.pread(MIB, offset) == data, "what was written")
            rlctl("checkpoint", mirror)
            for client in silent:
                client.close()

            def is_let_in():
                try:
                    again = nbd.NBD()
                    again.set_export_name("cp:1")
                    again.connect_unix(few.socket)
                    again.shutdown()
                    return True
                except nbd.Error:
                    return False

            wait_until(is_let_in, "nobody is let in after they have gone")
            keeper.shutdown()
            few.end()
            refusals = few.log().count("one is refused")
            check(0 < refusals < 20, "%d lines tell of refusals:\n%s" % (refusals, few.log()[-3000:]))
        finally:
            few.process.kill()
            few.process.wait()
        compare(mirror, kept)
        print("     %d of 200 were taken" % taken, flush=True)


def compare(mirror, kept):
    for offset, data in kept.items():
        check(rlctl("read", mirror, "--at", "latest", "--offset", offset, "--length",
                    len(data)) == data, "a durable write is lost")


need_nbd()
run(few_descriptors, silent_clients_leave_enough_for_the_others)
