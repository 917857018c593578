"""Every command against a mirror that a server owns: through its control socket, with the same words
and numbers as without one; the jobs that run in it; and its metrics."""

import json
import os
import re
import signal
import socket
import subprocess
import threading
import time

from nbdsupport import Server, connect, need_nbd
from support import FAR_END, RLCTL, Folder, check, rlctl, rlctl_json, run, wait_until

MIB = 1 << 20
SIZE = 64 * MIB


class Served:
    """A mirror with a server, a client, and what the volume has to hold."""

    def __init__(self, *parameters, create=()):
        self.parameters, self.create = parameters, create
        self.folder_of_test = Folder()
        self.content = bytearray(SIZE)

    def __enter__(self):
        self.folder = self.folder_of_test.__enter__()
        self.mirror = os.path.join(self.folder, "m")
        rlctl("create", self.mirror, "--size", SIZE, *self.create)
        self.server = Server(self.folder, self.mirror, *self.parameters)
        self.server.__enter__()
        self.client = connect(self.server)
        return self

    def __exit__(self, *failure):
        try:
            self.client.shutdown()
            self.server.__exit__(*failure)
        finally:
            self.folder_of_test.__exit__(*failure)

    def write(self, offset, data):
        self.client.pwrite(data, offset)
        self.content[offset:offset + len(data)] = data

    def fill(self, seed, count=40, length=65536):
        for i in range(count):
            value = (seed * 7919 + i) % 251 + 1
            self.write((seed * 104729 + i * 3) % (SIZE // length) * length, bytes([value]) * length)

    def exported(self, at):
        path = os.path.join(self.folder, "exported")
        rlctl("export", self.mirror, "--at", at, path)
        with open(path, "rb") as file:
            data = file.read()
        os.unlink(path)
        return data


def stop_words(text):
    """The text without what differs between two runs of the same: times of day, and taken."""
    text = re.sub(r"[0-9-]+T[0-9:.]+Z", "T", text)
    return re.sub(r"[0-9]+\.[0-9]+ s( \([0-9]+ a second\))?", "S", text)


def fields(answer):
    return {name: value for name, value in answer.items() if "seconds" not in name}


def test_every_command_says_the_same_as_without_a_server():
    def steps(mirror):
        """What the commands say, one after the other."""
        said = []

        def both(*arguments, code=0):
            # How far it is it tells on a slow disk alone, with a server or without.
            text = stop_words(rlctl(*arguments, "--progress", "none", code=code).decode())
            said.append((arguments[0], text.replace(mirror, "M"),
                         stop_words(rlctl.errors.replace(mirror, "M"))))

        def as_json(*arguments):
            answer = fields(rlctl_json(*arguments))
            # What is another mirror's, and what only a closed journal has: its marked end.
            for name in ("id", "mirror", "journal_bytes"):
                answer.pop(name, None)
            said.append((arguments[0], stop_words(json.dumps(answer))))

        for command in ("checkpoints", "info", "stats"):
            as_json(command, mirror)
        both("stats", mirror, "--at", "cp:2")
        both("stats", mirror, "--at", "cp:77", code=10)
        both("stats", mirror, "--at", "once", code=2)
        as_json("hold", mirror, "--at", "cp:2", "--name", "audit")
        both("hold", mirror, "--at", "cp:2", "--name", "audit", code=2)
        both("hold", mirror, "--at", "item:3")
        both("release", mirror, "hold-1")
        both("release", mirror, "nobody", code=10)
        both("apply", mirror, "--to", "cp:3", "--yes", code=11)
        both("release", mirror, "audit")
        both("apply", mirror, "--to", "cp:2", "--dry-run")
        both("apply", mirror, "--to", "cp:2", code=2)
        both("apply", mirror, code=2)
        as_json("apply", mirror, "--to", "cp:2", "--yes")
        both("apply", mirror, "--to", "cp:1", "--yes", code=10)
        both("trim", mirror, "--to", "cp:3", "--yes", code=11)
        both("trim", mirror, "--to", "cp:2", code=2)
        as_json("trim", mirror, "--to", "cp:2", "--dry-run")
        as_json("trim", mirror, "--retention", "--yes")
        as_json("set", mirror, "--keep-checkpoints", "1", "--keep-for", "0s")
        both("set", mirror, "--keep-for", "soon", code=2)
        both("set", mirror, "--journal-limit", "1G")
        both("apply", mirror, "--retention", "--yes")
        as_json("checkpoint", mirror, "--tag", "after")
        both("checkpoint", mirror, "--tag", "a\nb", code=2)
        both("checkpoint", mirror, "--tag", "t" * 256, code=2)
        as_json("info", mirror)
        return said

    # The same mirror twice: what is done to one is done to the other.
    said = []
    for served in (False, True):
        with Served("background=false") as test:
            for seed in range(3):
                test.fill(seed)
                rlctl("checkpoint", test.mirror, "--tag", "t%d" % seed)
            test.fill(3)
            test.client.flush()
            if not served:
                test.client.shutdown()
                test.server.stop()
            said.append(steps(test.mirror))
            if not served:
                test.server.start()
                test.client = connect(test.server)
            check(test.exported("latest") == bytes(test.content), "the volume")
    for alone, beside in zip(*said):
        check(alone == beside, "without a server: %s\nwith one: %s" % (alone, beside))


def test_commands_count_what_nobody_has_flushed():
    with Served("background=false") as test:
        for i in range(1, 12):
            test.write(i * 65536, bytes([i]) * 65536)
            # Each command flushes for itself: one of them would hide what the other does.
            planned = rlctl_json("apply", test.mirror, "--to", "latest", "--dry-run")
            check(planned["items"] == 2 * i - 1 and
                  planned["data_bytes"] == (2 * i - 1) * 65536, str(planned))
            test.write((100 + i) * 65536, bytes([i]) * 65536)
            stats = rlctl_json("stats", test.mirror)
            check(stats["ios_inserted"] == 2 * i and
                  stats["unique_bytes"] == 2 * i * 65536, str(stats))


def test_readers_of_the_folder_see_what_was_answered():
    with Served() as test:
        for seed in range(5):
            test.fill(seed, count=10)
            # Nothing was flushed by the client.
            check(test.exported("latest") == bytes(test.content), "the latest view")
        info = rlctl_json("info", test.mirror)
        check(info["items"] == 50 and info["last_point"] == "item:50", "info")
        rlctl("verify", test.mirror)


def test_a_mirror_that_is_written_without_a_socket_is_in_use():
    with Served() as test:
        test.fill(1, count=2)
        # Whoever cannot reach the server is told what is in the way.
        os.rename(os.path.join(test.mirror, "control"), os.path.join(test.folder, "control"))
        rlctl("checkpoint", test.mirror, code=11)
        os.rename(os.path.join(test.folder, "control"), os.path.join(test.mirror, "control"))
        rlctl("checkpoint", test.mirror)
        test.client.shutdown()
        test.server.stop()
        check(not os.path.exists(os.path.join(test.mirror, "control")), "the socket is left")
        rlctl("checkpoint", test.mirror)
        test.server.start()
        test.client = connect(test.server)
        # A server that is killed leaves its socket behind.
        test.client.shutdown()
        test.server.kill()
        check(os.path.exists(os.path.join(test.mirror, "control")), "the socket went with the kill")
        rlctl("checkpoint", test.mirror)
        test.server.start()
        test.client = connect(test.server)
        rlctl("checkpoint", test.mirror)


def test_ctrl_c_stops_an_apply_at_a_safe_point():
    with Served("background=false") as test:
        interrupted = 0
        for seed in range(6):
            test.fill(seed, count=300)
            # A burst of progress lines; the second half is left to the next one.
            with subprocess.Popen([RLCTL, "apply", test.mirror, "--to", "latest", "--yes", "-q",
                                   "--json"], stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE) as process:
                time.sleep(0.01 + 0.02 * seed)
                process.send_signal(signal.SIGINT)
                _, errors = process.communicate()
                check(process.returncode in (0, 130, -signal.SIGINT), errors.decode())
                interrupted += process.returncode == 130
        # The server and its clients go on, and the apply is finished by the next one.
        test.fill(7)
        rlctl("apply", test.mirror, "--to", "latest", "--yes")
        info = rlctl_json("info", test.mirror)
        check(info["applied_items"] == info["items"], "not all is applied")
        rlctl("trim", test.mirror, "--retention", "--yes")
        check(test.exported("latest") == bytes(test.content), "the volume")
        print("     %d of 6 were interrupted at a safe point" % interrupted)


def test_commands_beside_a_writing_client():
    with Served("background=false") as test:
        stop = threading.Event()
        failure = []
        filled = [0]

        def writer():
            try:
                while not stop.is_set():
                    test.fill(filled[0], count=5)
                    filled[0] += 1
            except Exception as error:  # pylint: disable=broad-except
                failure.append(error)

        thread = threading.Thread(target=writer)
        thread.start()
        try:
            for _ in range(8):
                before = filled[0]
                wait_until(lambda least=before: filled[0] > least or failure, "nothing is written")
                made = rlctl_json("checkpoint", test.mirror)
                rlctl("apply", test.mirror, "--to", "cp:%d" % made["id"], "--yes")
                rlctl("trim", test.mirror, "--retention", "--yes")
                rlctl_json("stats", test.mirror)
                rlctl_json("info", test.mirror)
        finally:
            stop.set()
            thread.join()
        check(not failure, str(failure))
        check(test.exported("latest") == bytes(test.content), "the volume")
        check(rlctl_json("info", test.mirror)["trimmed_items"] > 0, "nothing was trimmed")


def test_checkpoints_and_retention_by_themselves():
    with Served("checkpoint-every=1s", "checkpoint-every=4M", "apply-rate=64M",
                create=("--journal-limit", "200M")) as test:
        rlctl("set", test.mirror, "--keep-checkpoints", "2")
        for seed in range(20):
            test.fill(seed)
        until = time.monotonic() + FAR_END
        while time.monotonic() < until:
            info = rlctl_json("info", test.mirror)
            if info["checkpoints"] <= 3 and info["trimmed_items"] > 0:
                break
            time.sleep(0.2)
        check(info["trimmed_items"] > 0 and info["applied_items"] > 0, "nothing was done: %s" % info)
        check(test.exported("latest") == bytes(test.content), "the volume")


def test_garbage_on_the_socket_harms_nobody():
    with Served() as test:
        path = os.path.join(test.mirror, "control")
        check(os.stat(path).st_mode & 0o777 == 0o600, "others may open it")
        stalled = []
        for i in range(100):
            client = socket.socket(socket.AF_UNIX)
            client.connect(path)
            if i % 3 == 0:
                client.sendall(os.urandom(4000))
            elif i % 3 == 1:
                client.sendall(b'{"version": 1, "command": "st')
            stalled.append(client)
        for _ in range(5):
            test.fill(1, count=2)
            rlctl("info", test.mirror)
        test.client.shutdown()
        test.server.stop()
        for client in stalled:
            client.close()
        test.server.start()
        test.client = connect(test.server)
        check(test.exported("latest") == bytes(test.content), "the volume")


def metrics(text, volume):
    """The samples by name and label, without the volume's; the text is read as strictly as may be."""
    samples, family = {}, None
    check(text.endswith("\n"), "the text has no end")
    for line in text.splitlines():
        if line.startswith("# HELP "):
            family = line.split(" ")[2]
            check(family not in {name.split("{")[0] for name in samples}, "twice: " + line)
        elif line.startswith("# TYPE "):
            _, _, name, kind = line.split(" ")
            check(name == family and kind in ("counter", "gauge"), line)
            check((kind == "counter") == name.endswith("_total"), line)
        else:
            match = re.fullmatch(r'(rl_[a-z_]+)\{volume="%d"(,[a-z]+="[^"]*")?\} ([-+.e0-9]+)' % volume,
                                 line)
            check(match is not None and match.group(1) == family, "no sample: " + line)
            label = "{%s}" % match.group(2)[1:] if match.group(2) else ""
            samples[match.group(1) + label] = float(match.group(3))
    return samples


def test_metrics_tell_what_was_done():
    with Folder() as folder:
        path = os.path.join(folder, "rl.prom")
        with Served("background=false", "metrics=" + path, "metrics-every=1s") as test:
            test.fill(1, count=10)
            test.client.pread(65536, 0)
            test.client.flush()
            rlctl("checkpoint", test.mirror)
            began = time.time()
            rlctl("apply", test.mirror, "--to", "latest", "--yes")
            volume = rlctl_json("info", test.mirror)["id"]
            until = time.monotonic() + FAR_END
            while time.monotonic() < until:
                with open(path, encoding="ascii") as file:
                    seen = metrics(file.read(), volume)
                if seen["rl_journal_items_total"] == 10 and \
                        seen['rl_job_done_total{op="apply"}'] == 1:
                    break
                time.sleep(0.1)
            check(seen['rl_nbd_requests_total{op="write"}'] == 10, "write requests")
            check(seen['rl_nbd_bytes_total{op="write"}'] == 10 * 65536, "written bytes")
            check(seen['rl_nbd_requests_total{op="flush"}'] >= 1, "flushes")
            check(seen['rl_nbd_bytes_total{op="read"}'] >= 65536, "read bytes")
            check(seen["rl_checkpoints"] == 1 and seen["rl_apply_lag_bytes"] == 0, "lag")
            check(seen['rl_job_last_success_timestamp_seconds{op="apply"}'] > began - 1,
                  "the last apply")
            check(sum(value for name, value in seen.items() if name.startswith("rl_trim_held"))
                  == 1, "what holds the trim position")


need_nbd()
run(test_every_command_says_the_same_as_without_a_server,
    test_commands_count_what_nobody_has_flushed,
    test_readers_of_the_folder_see_what_was_answered,
    test_a_mirror_that_is_written_without_a_socket_is_in_use,
    test_ctrl_c_stops_an_apply_at_a_safe_point, test_commands_beside_a_writing_client,
    test_checkpoints_and_retention_by_themselves, test_garbage_on_the_socket_harms_nobody,
    test_metrics_tell_what_was_done)
