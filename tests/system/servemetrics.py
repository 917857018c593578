"""Metrics over HTTP from outside: what is answered, and that clients which never come to the end of
their request keep nobody out.
"""

import http.client
import os
import shutil
import socket
import sys
import threading
import time

from serve import Served, made, nbd
from support import FAR_END, Failure, Folder, check, rlctl, run

SLOW = 60  # clients
# Where each of them had five seconds and few were heard at a time, an answer took minutes.
PATIENCE_SECONDS = 60


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


def asked(port, method, path="/metrics", body=None):
    """Status, headers and body of the answer."""
    client = http.client.HTTPConnection("127.0.0.1", port, timeout=PATIENCE_SECONDS)
    try:
        client.request(method, path, body)
        answer = client.getresponse()
        return answer.status, answer.headers, answer.read()
    except TimeoutError:
        raise Failure("no answer in %d s" % PATIENCE_SECONDS) from None
    finally:
        client.close()


class Slow:
    """Clients that each send a byte of their request now and then, and come again when cut off."""

    def __init__(self, port, start):
        self.port, self.start = port, start
        self.ends = False
        self.sent = 0
        self.clients = [self.connected() for _ in range(SLOW)]
        self.thread = threading.Thread(target=self.run)

    def connected(self):
        client = socket.create_connection(("127.0.0.1", self.port), FAR_END)
        client.sendall(self.start)
        return client

    def run(self):
        while not self.ends:
            for number, client in enumerate(self.clients):
                try:
                    client.send(b"a")
                    self.sent += 1
                except OSError:
                    client.close()
                    try:
                        self.clients[number] = self.connected()
                    except OSError:
                        return  # the server has ended
            time.sleep(0.2)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, kind, value, trace):
        self.ends = True
        self.thread.join()
        for client in self.clients:
            client.close()


def what_is_answered():
    with Folder() as folder:
        mirror, port = made(folder), free_port()
        for address in ("127.0.0.1:%d" % port, "localhost:%d" % port):
            with Served(mirror, "--metrics-http", address) as served:
                status, headers, text = asked(port, "GET")
                check(status == 200 and b"\nrl_checkpoints{" in text, "%d: %s" % (status, text))
                check(headers["Content-Type"] == "text/plain; version=0.0.4; charset=utf-8", headers)
                check(int(headers["Content-Length"]) == len(text), headers)
                status, headers, nothing = asked(port, "HEAD")
                check(status == 200 and nothing == b"", "%d: %s" % (status, nothing))
                check(int(headers["Content-Length"]) > len(text) // 2, headers)
                check(asked(port, "GET", "/metrics?all=1")[0] == 200, "with a query")
                for path in ("/", "/metrics/x", "/metricsx", "/../metrics"):
                    check(asked(port, "GET", path)[0] == 404, path)
                for method in ("POST", "PUT", "DELETE"):
                    status, headers, _ = asked(port, method, body=b"x" * 1000)
                    check(status == 405 and headers["Allow"] == "GET, HEAD", "%s: %d" % (method, status))
                with Served(mirror, "--readonly", "--socket", os.path.join(folder, "s"),
                            "--metrics-http", "127.0.0.1:%d" % free_port()) as other:
                    other.socket = os.path.join(folder, "s")
                    other.end()
                served.end()
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            address = "127.0.0.1:%d" % taken.getsockname()[1]
            rlctl("serve", mirror, "--metrics-http", address, code=1)
            check(address in rlctl.errors and "in use" in rlctl.errors, rlctl.errors)


def slow_clients_keep_nobody_out():
    starts = (b"", b"GET /metr", b"GET /metrics HTTP/1.1\r\nX: ",
              b"POST /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n",
              b"POST /metrics HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nffffff\r\n")
    with Folder() as folder:
        mirror, port = made(folder), free_port()
        with Served(mirror, "--metrics-http", "127.0.0.1:%d" % port) as served:
            slowest = 0
            for start in starts:
                with Slow(port, start) as slow:
                    until = time.monotonic() + 3
                    answers = cut = 0
                    while time.monotonic() < until or answers < 5:
                        check(answers > 0 or time.monotonic() < until + FAR_END,
                              "nobody is answered beside %r" % start)
                        began = time.monotonic()
                        try:
                            check(asked(port, "GET")[0] == 200, "the answer beside %r" % start)
                            answers += 1
                        except (http.client.HTTPException, ConnectionError):
                            cut += 1  # displaced by those that came again
                        slowest = max(slowest, time.monotonic() - began)
                    check(cut <= answers, "%d cut off, %d answered" % (cut, answers))
                    check(slow.sent > SLOW, "they send nothing")
                    client = served.connect("live")
                    client.pwrite(b"w" * 4096, 0)
                    client.shutdown()
            with Slow(port, starts[2]):
                served.end()
            print("     slowest answer %.2f s" % slowest, flush=True)


if __name__ == "__main__":
    if nbd is None or shutil.which("nbdkit") is None:
        print("skipped: nbdkit or python3-libnbd is not installed")
        sys.exit(77)
    run(what_is_answered, slow_clients_keep_nobody_out)
