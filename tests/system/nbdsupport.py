"""What the tests with NBD clients share: a server of one mirror, its clients, and skipping.

RL_NBD_PLUGIN names the plugin. RL_NBD_PRELOAD names what has to be loaded before it into an nbdkit
that was built without a sanitizer: the runtime of the one that the plugin was built with, and what
wakes it. A finding ends the server with a code that no test takes for a good end.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.parse

from support import FAR_END, STOP_SECONDS, Failure, check, rlctl_json, stacks, stacks_told

PLUGIN = os.environ.get("RL_NBD_PLUGIN", "")
PRELOAD = os.environ.get("RL_NBD_PRELOAD", "")
SKIPPED = 77  # the exit code that ctest takes for it


def skip(reason):
    print("SKIPPED: %s" % reason, flush=True)
    sys.exit(SKIPPED)


def need_nbd(*tools):
    """Skips the whole test where the plugin or a program that it takes is missing."""
    if not os.path.exists(PLUGIN):
        skip("RL_NBD_PLUGIN names no plugin: '%s'" % PLUGIN)
    for tool in ("nbdkit", *tools):
        if find_tool(tool) is None:
            skip("there is no " + tool)
    try:
        import nbd  # pylint: disable=unused-import,import-outside-toplevel
    except ImportError:
        skip("python3 has no module nbd")


def find_tool(tool):
    return shutil.which(tool, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


def run_tool(*command, code=0, timeout=2 * FAR_END):
    """Runs a program and returns its standard output as text; any other exit code is a failure."""
    command = [str(one) for one in command]
    command[0] = find_tool(command[0]) or command[0]
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, check=False, timeout=timeout)
    except subprocess.TimeoutExpired:
        raise Failure("%s: not done after %d s" % (" ".join(command), timeout)) from None
    text = done.stdout.decode(errors="replace")
    errors = done.stderr.decode(errors="replace")
    check(done.returncode == code, "%s: exit code %d, not %d\n%s%s" % (
        " ".join(command), done.returncode, code, text[-2000:], errors[-2000:]))
    run_tool.errors = errors
    return text


def greets(path):
    """Whether a server answers there; its socket is there before that."""
    client = socket.socket(socket.AF_UNIX)
    client.settimeout(10)
    try:
        client.connect(path)
        return client.recv(8) == b"NBDMAGIC"
    except OSError:
        return False
    finally:
        client.close()


def server_environment(**more):
    """What a program is given that becomes nbdkit with the plugin, or starts it."""
    environment = dict(os.environ, **more)
    if PRELOAD:
        environment["LD_PRELOAD"] = PRELOAD
        # nbdkit and its libraries leak some memory, and detached threads count as leaked ones. Of
        # an option that is given twice the last one holds.
        suppressions = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                    "thread-sanitizer.txt")
        for name, more in (("ASAN_OPTIONS", "detect_leaks=0"),
                           ("TSAN_OPTIONS", "report_thread_leaks=0:suppressions=" + suppressions)):
            environment[name] = ":".join(filter(None, (environment.get(name), more)))
    return environment


class Server:
    """nbdkit with the plugin, on a Unix socket in a folder of the test's."""

    def __init__(self, folder, mirror, *parameters, name="s", options=(), filters=()):
        self.mirror = mirror
        self.socket = os.path.join(folder, name + ".sock")
        self.pid_file = os.path.join(folder, name + ".pid")
        self.log_file = os.path.join(folder, name + ".log")
        # Slow disks and busy machines have their time: what is not durable then is a failure.
        if not any(one.startswith("stop-timeout=") for one in parameters):
            parameters = (*parameters, "stop-timeout=%ds" % STOP_SECONDS)
        # What a served plugin says of its own end is part of what is tested: no --exit-with-parent.
        self.command = ["nbdkit", "-f", "-U", self.socket, "-P", self.pid_file, *options,
                        *("--filter=" + one for one in filters), PLUGIN, "mirror=" + mirror,
                        *parameters]
        self.process = None

    def start(self):
        for path in (self.socket, self.pid_file):
            if os.path.exists(path):
                os.unlink(path)
        with open(self.log_file, "ab") as log:
            self.process = subprocess.Popen(self.command, env=server_environment(),
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        until = time.monotonic() + FAR_END
        # nbdkit listens, and writes its process's number, before the plugin opens the mirror.
        while not greets(self.socket):
            check(self.process.poll() is None, "the server ended at once:\n" + self.log())
            check(time.monotonic() < until, "the server does not come up:\n" + self.log())
            time.sleep(0.005)
        return self

    def log(self):
        with open(self.log_file, "rb") as file:
            return file.read().decode(errors="replace")

    def uri(self, export="live"):
        return "nbd+unix:///%s?socket=%s" % (
            urllib.parse.quote(export, safe=":."), urllib.parse.quote(self.socket, safe="/"))

    def stop(self):
        """Ends it as a service manager would; it has to end well, and by itself: before the time is
        over that it gives itself, or the code is another."""
        if self.process is None:
            return
        process, self.process = self.process, None
        process.send_signal(signal.SIGTERM)
        try:
            with stacks_told(process):
                code = process.wait(STOP_SECONDS + FAR_END)
        except subprocess.TimeoutExpired:
            where = stacks(process.pid)
            process.kill()
            process.wait()
            raise Failure("the server does not end:\n%s\n%s" % (
                self.log()[-4000:], where)) from None
        check(code == 0, "the server ended with %d:\n%s" % (code, self.log()[-4000:]))

    def kill(self):
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None

    def __enter__(self):
        return self.start()

    def __exit__(self, kind, *_):
        if kind is None:
            self.stop()
        else:
            sys.stdout.write("".join("     | %s\n" % line
                                     for line in self.log().splitlines()[-15:]))
            self.kill()


def connect(server, export="live", socket=None):
    """A connection of libnbd's."""
    import nbd  # pylint: disable=import-outside-toplevel
    handle = nbd.NBD()
    handle.set_export_name(export)
    handle.add_meta_context(nbd.CONTEXT_BASE_ALLOCATION)
    # What the server says to odd requests is tested, not what the library says.
    handle.set_strict_mode(0)
    handle.connect_unix(socket or server.socket)
    return handle


def refused(call, *arguments):
    """The errno with which a call of libnbd's fails; 0 when it does not."""
    import nbd  # pylint: disable=import-outside-toplevel

    try:
        call(*arguments)
    except nbd.Error as error:
        return error.errnum
    return 0


def checkpoint(mirror, tag=None):
    """Sets one, and returns its name as an export and the items before it."""
    told = rlctl_json("checkpoint", mirror, *(("--tag", tag) if tag else ()))
    return "cp:%d" % told["id"], told["items"]


def block_map(uri):
    """The whole map of an export: (offset, length, type), neighbours of a type as one."""
    result = []
    for one in json.loads(run_tool("nbdinfo", "--map", "--json", uri)):
        if result and result[-1][2] == one["type"]:
            check(result[-1][0] + result[-1][1] == one["offset"], "the map has a gap")
            result[-1][1] += one["length"]
        else:
            result.append([one["offset"], one["length"], one["type"]])
    return [tuple(one) for one in result]
