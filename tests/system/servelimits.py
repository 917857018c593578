"""rlctl serve at its limits: told to end before it serves, flooded with connections, with TLS.

Skipped, and saying so, where nbdkit or libnbd is not installed.
"""

import os
import pty
import random
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import time

from serve import SIZE, Served, made, nbd
from support import (FAR_END, RLCTL, STOP_SECONDS, Folder, check, listens, rlctl, rlctl_json, run,
                     stacks_told)

ITEMS = 300000
LARGEST = 32 << 20
MIB = 1 << 20
SIZE_LARGE = 64 << 20


def of_many_items(folder):
    """A mirror whose index takes a while to build."""
    chance = random.Random(11)
    trace = os.path.join(folder, "trace.csv")
    with open(trace, "w", encoding="ascii") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n")
        for i in range(ITEMS):
            file.write("%d,Z,%d,1\n" % (i, chance.randrange(SIZE // 512)))
    mirror = made(folder)
    subprocess.run([RLCTL, "record", mirror, "--trace", trace], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return mirror


def an_end_before_it_serves():
    """At moments all over the start: it ends, well, and leaves the mirror as it was."""
    chance = random.Random(12)
    with Folder() as folder:
        mirror = of_many_items(folder)
        began = time.monotonic()
        check(rlctl_json("info", mirror)["items"] == ITEMS, "how many items there are")
        with Served(mirror) as served:
            whole = time.monotonic() - began
            served.end()
        slowest = interrupted = before = number = 0
        # More of them where the machine is so busy that none came in the opening.
        while number < 24 or (interrupted == 0 and number < 240):
            number += 1
            process = subprocess.Popen(
                [RLCTL, "serve", mirror, "-v", "--stop-timeout", "%ds" % STOP_SECONDS],
                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            check(listens(process, signal.SIGTERM, signal.SIGINT), "it ends without being told")
            time.sleep(chance.random() * whole)
            process.send_signal(signal.SIGTERM if number % 2 else signal.SIGINT)
            told = time.monotonic()
            with stacks_told(process):
                log = process.communicate()[0].decode(errors="replace")
            slowest = max(slowest, time.monotonic() - told)
            check(process.returncode == 0, "exit code %d: %s" % (process.returncode, log[-3000:]))
            interrupted += "told to end while the mirror was being opened" in log
            before += "serving " not in log
            check(not os.path.exists(os.path.join(mirror, "nbd")), "the socket is left behind")
        print("     start %.2f s; of %d ends %d before it served, %d of them in the opening; "
              "slowest end %.2f s" % (whole, number, before, interrupted, slowest), flush=True)
        check(interrupted > 0, "no end came while the index was being built")
        with Served(mirror) as served:
            served.end()


def a_start_that_takes_long():
    """Whoever looks whether it serves already gives the server nothing to complain of."""
    with Folder() as folder:
        mirror = of_many_items(folder)
        process = subprocess.Popen([RLCTL, "serve", mirror, "--stop-timeout", "%ds" % STOP_SECONDS],
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        while not os.path.exists(os.path.join(mirror, "nbd")):
            check(process.poll() is None, "the server ended")
            time.sleep(0.002)
        with open("/proc/%d/task/%d/children" % (process.pid, process.pid), encoding="ascii") as file:
            child = int(file.read().split()[0])
        os.kill(child, signal.SIGSTOP)
        time.sleep(2.5)
        os.kill(child, signal.SIGCONT)
        log = b""
        while b"serving " not in log:
            line = process.stdout.readline()
            check(line, "it ended before it served: %r" % log)
            log += line
        process.send_signal(signal.SIGTERM)
        log += process.communicate()[0]
        check(process.returncode == 0 and b"error" not in log, "%d: %r" % (process.returncode, log))


def an_opening_that_cannot_be_stopped():
    """Where a file does not even open, there is no safe point to come to: the process ends all the
    same when its time is over, and says so."""
    with Folder() as folder:
        mirror = made(folder)
        begin = os.path.join(mirror, "journal", "begin")
        os.unlink(begin)
        os.mkfifo(begin)  # opening it to read waits for somebody who writes
        for before in (1, 4, 16, 64):
            with subprocess.Popen([RLCTL, "serve", mirror, "--stop-timeout", "2s"],
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
                check(listens(process, signal.SIGTERM, signal.SIGINT), "it does not wait")
                time.sleep(before)
                check(process.poll() is None, "it does not wait for the file")
                told = time.monotonic()
                process.send_signal(signal.SIGTERM)
                log = process.communicate(timeout=FAR_END)[0].decode(errors="replace")
                took = time.monotonic() - told
            if process.returncode != 0:
                break  # else it was told before it had come to the file: so it has more time
        check(process.returncode == 1 and
              "opening the mirror could not be stopped in time" in log,
              "exit code %d: %s" % (process.returncode, log))
        check(took > 1.5, "the end took %.1f s" % took)
        check(not os.path.exists(os.path.join(mirror, "nbd")), "the socket is left behind")
        os.unlink(begin)
        with Served(mirror) as served:
            served.end()


def memory_bytes(served):
    """What nbdkit, the child, keeps resident."""
    pid = served.process.pid
    with open("/proc/%d/task/%d/children" % (pid, pid), encoding="ascii") as file:
        child = int(file.read().split()[0])
    with open("/proc/%d/status" % child, encoding="ascii") as file:
        return next(int(line.split()[1]) << 10 for line in file if line.startswith("VmRSS"))


def connected(served, keeper, room):
    """Which connections of a flood the server takes, each with the largest read and no ear, and how
    many it refuses. A refusal counts when as many are taken as there is room for: what those of the
    flood before had kept may become free a little later."""
    flood = []
    refused = 0
    until = time.monotonic() + FAR_END
    while refused < 40 and time.monotonic() < until:
        client = nbd.NBD()
        client.set_export_name("live")
        try:
            client.connect_unix(served.socket)
        except nbd.Error:
            refused += len(flood) >= room
            time.sleep(0 if len(flood) >= room else 0.01)
            continue
        client.aio_pread(nbd.Buffer(LARGEST), 0)
        flood.append(client)
        keeper.pwrite(b"k" * 4096, 0)
    return flood, refused


def a_flood_of_connections():
    most = 5
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", SIZE_LARGE)
        with Served(mirror, "--connections", str(most)) as served:
            keeper = served.connect("live")
            data = secrets.token_bytes(LARGEST)
            keeper.pwrite(data, 0)
            before = memory_bytes(served)
            peak = slowest = 0
            for _ in range(3):
                flood, refused = connected(served, keeper, most - 1)
                check(len(flood) == most - 1, "%d connections are taken" % len(flood))
                check(refused == 40, "%d are refused" % refused)
                for _ in range(50):
                    began = time.monotonic()
                    keeper.pwrite(data[:4096], 4096)
                    check(keeper.pread(4096, 4096) == data[:4096], "what the keeper reads")
                    slowest = max(slowest, time.monotonic() - began)
                    peak = max(peak, memory_bytes(served))
                flood.clear()  # and with them go the connections
            bound = before + most * 64 * MIB
            print("     %d MiB before, %d at most (bound %d); slowest write and read %.3f s" % (
                before // MIB, peak // MIB, bound // MIB, slowest), flush=True)
            check(peak < bound, "%d MiB of memory" % (peak // MIB))
            keeper.shutdown()
            served.end()


def tls_with_keys():
    if not nbd.NBD().supports_tls():
        print("     left out: libnbd was built without TLS", flush=True)
        return
    with Folder() as folder:
        keys, wrong = (os.path.join(folder, name) for name in ("keys", "wrong"))
        for path in (keys, wrong):
            with open(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600), "w",
                      encoding="ascii") as file:
                file.write("writer:%s\n" % secrets.token_hex(32))
        mirror = made(folder)
        data = secrets.token_bytes(MIB)

        def client_of(served, tls, path=keys):
            client = nbd.NBD()
            client.set_tls(tls)
            if tls != nbd.TLS_DISABLE:
                client.set_tls_psk_file(path)
                client.set_tls_username("writer")
            client.set_export_name("live")
            client.connect_unix(served.socket)
            return client

        with Served(mirror, "--", "--tls=require", "--tls-psk=" + keys) as served:
            client = client_of(served, nbd.TLS_REQUIRE)
            check(client.get_tls_negotiated(), "the connection is not encrypted")
            client.pwrite(data, MIB)
            client.flush()
            check(client.pread(MIB, MIB) == data, "what is read back")
            for tls, path in ((nbd.TLS_DISABLE, keys), (nbd.TLS_REQUIRE, wrong)):
                try:
                    client_of(served, tls, path)
                except nbd.Error:
                    continue
                check(False, "a client without the key is let in")
            check(client.pread(4096, MIB) == data[:4096], "after the others were refused")
            client.shutdown()
            served.end()
        with Served(mirror) as served:
            client = served.connect("latest")
            check(client.pread(MIB, MIB) == data, "what was written with TLS")
            client.shutdown()
            served.end()


class Authority:
    """Issues certificates: a folder for each bearer, named as nbdkit and libnbd look for them."""

    def __init__(self, folder, name):
        self.folder = os.path.join(folder, name)
        os.mkdir(self.folder)
        self.run("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                 "-subj", "/CN=" + name, "-days", "2", "-keyout", "ca-key.pem", "-out", "ca-cert.pem",
                 "-addext", "keyUsage=critical,keyCertSign")

    def run(self, *arguments):
        done = subprocess.run(["openssl", *arguments], cwd=self.folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        check(done.returncode == 0, "openssl %s: %s" % (arguments, done.stdout.decode()))

    def issue(self, bearer, kind, trusts=None):
        folder = os.path.join(self.folder, bearer)
        os.mkdir(folder)
        with open(os.path.join(self.folder, "extensions"), "w", encoding="ascii") as file:
            file.write("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
        self.run("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                 "/CN=" + bearer, "-keyout", "%s/%s-key.pem" % (bearer, kind), "-out", "request")
        self.run("x509", "-req", "-in", "request", "-CA", "ca-cert.pem", "-CAkey", "ca-key.pem",
                 "-CAcreateserial", "-days", "2", "-extfile", "extensions", "-out",
                 "%s/%s-cert.pem" % (bearer, kind))
        shutil.copy(os.path.join((trusts or self).folder, "ca-cert.pem"), folder)
        return folder


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


def tls_with_certificates():
    """Over TCP, each side having one that the other checks."""
    if not nbd.NBD().supports_tls() or shutil.which("openssl") is None:
        print("     left out: there is no openssl, or libnbd was built without TLS", flush=True)
        return
    with Folder() as folder:
        ours, others = Authority(folder, "ours"), Authority(folder, "others")
        server = ours.issue("server", "server")
        known = ours.issue("known", "client")
        stranger = others.issue("stranger", "client", trusts=ours)
        doubter = ours.issue("doubter", "client", trusts=others)
        mirror = made(folder)
        data = secrets.token_bytes(MIB)
        port = str(free_port())

        def client_of(certificates):
            client = nbd.NBD()
            client.set_tls(nbd.TLS_REQUIRE if certificates else nbd.TLS_DISABLE)
            if certificates:
                client.set_tls_certificates(certificates)
            client.set_export_name("live")
            client.connect_tcp("localhost", port)
            # With the newest TLS a server judges the client's certificate after the handshake.
            client.pread(512, 0)
            return client

        with Served(mirror, "--tcp", "127.0.0.1:" + port, "--", "--tls=require", "--tls-verify-peer",
                    "--tls-certificates=" + server) as served:
            client = client_of(known)
            check(client.get_tls_negotiated(), "the connection is not encrypted")
            client.pwrite(data, MIB)
            client.flush()
            check(client.pread(MIB, MIB) == data, "what is read back")
            for who, certificates in (("nobody", None), ("a stranger", stranger),
                                      ("who trusts others", doubter)):
                try:
                    client_of(certificates)
                except nbd.Error:
                    continue
                check(False, who + " gets in")
            check(client.pread(4096, MIB) == data[:4096], "after the others were refused")
            client.shutdown()
            served.end()
        check(rlctl("read", mirror, "--at", "latest", "--offset", MIB, "--length", MIB) == data,
              "what was written with TLS")


def a_server_that_takes_no_commands():
    """Its socket is there and it does not accept: the mirror is not opened beside it."""
    with Folder() as folder:
        mirror = made(folder)
        held = [socket.socket(socket.AF_UNIX)]
        held[0].bind(os.path.join(mirror, "control"))
        held[0].listen(0)
        while True:
            client = socket.socket(socket.AF_UNIX)
            client.setblocking(False)
            held.append(client)
            try:
                client.connect(os.path.join(mirror, "control"))
            except BlockingIOError:
                break
        rlctl("checkpoint", mirror, code=1)
        check("cannot reach the process that serves" in rlctl.errors, rlctl.errors)
        for one in held:
            one.close()
        rlctl("checkpoint", mirror)  # what is left behind is no server
        check(len(rlctl_json("checkpoints", mirror)["checkpoints"]) == 1, "how many were set")


def an_answer_that_is_not_yes():
    with Folder() as folder:
        mirror = made(folder)
        trace = os.path.join(folder, "trace.csv")
        with open(trace, "w", encoding="ascii") as file:
            file.write("time_us,op,offset_blocks,length_blocks\n0,W,8,8\n")
        rlctl("record", mirror, "--trace", trace)
        before = sorted(os.listdir(os.path.join(mirror, "journal")))
        for answer in (b"n\n", b"\n", b"maybe\n"):
            pid, terminal = pty.fork()
            if pid == 0:
                os.execv(RLCTL, [RLCTL, "apply", mirror, "--to", "latest"])
            said = b""
            try:
                while b"[y/N]" not in said:
                    said += os.read(terminal, 4096)
            except OSError:
                check(False, "it ended without a question: %r" % said)
            os.write(terminal, answer)
            try:
                while True:
                    part = os.read(terminal, 4096)
                    if not part:
                        break
                    said += part
            except OSError:  # the terminal's other end has gone
                pass
            code = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
            os.close(terminal)
            check(code == 1 and b"nothing was done" in said, "%d: %r" % (code, said))
        check(sorted(os.listdir(os.path.join(mirror, "journal"))) == before, "it was changed")
        check(rlctl_json("info", mirror)["applied_items"] == 0, "it was applied")


if __name__ == "__main__":
    if nbd is None or shutil.which("nbdkit") is None:
        print("skipped: nbdkit or python3-libnbd is not installed")
        sys.exit(77)
    run(an_end_before_it_serves, a_start_that_takes_long, an_opening_that_cannot_be_stopped, a_flood_of_connections, tls_with_keys,
        tls_with_certificates, a_server_that_takes_no_commands, an_answer_that_is_not_yes)
