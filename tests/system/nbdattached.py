"""An export as a block device, without the kernel's NBD client: nbdfuse makes it a file, and a loop
device takes that.
"""

import os
import subprocess
import time

from nbdsupport import need_nbd, run_tool, skip
from support import FAR_END, Failure, check


def need_devices():
    need_nbd("nbdfuse", "nbdcopy", "fusermount3", "losetup", "mount", "tar")
    if os.geteuid() != 0:
        skip("only root can mount")
    if not os.path.exists("/dev/fuse"):
        skip("there is no /dev/fuse")
    if not os.path.exists("/dev/loop-control"):
        skip("there are no loop devices")


class Attached:
    """An export as a block device; mounted where there is a place for it."""

    def __init__(self, folder, name, uri, read_only=False):
        self.folder = os.path.join(folder, name)
        self.uri, self.read_only = uri, read_only
        self.place = os.path.join(folder, name + "-files")
        self.loop = self.fuse = None
        self.mounted = False

    def __enter__(self):
        os.makedirs(self.folder)
        os.makedirs(self.place)
        pid_file = self.folder + ".pid"
        options = ["-r"] if self.read_only else []
        with open(self.folder + ".log", "wb") as log:
            self.fuse = subprocess.Popen(["nbdfuse", *options, "-P", pid_file, self.folder, self.uri],
                                         stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        while not os.path.exists(pid_file):
            check(self.fuse.poll() is None, "nbdfuse ended at once")
            time.sleep(0.01)
        self.attach(os.path.join(self.folder, "nbd"), ["--direct-io=on"])
        return self

    def attach(self, file, options):
        self.loop = run_tool("losetup", "-f", "--show", *options,
                             *(["-r"] if self.read_only else []), file).strip()

    def mount(self, kind, options):
        run_tool("mount", "-t", kind, "-o", options, self.loop, self.place)
        self.mounted = True

    def unmount(self):
        if self.mounted:
            run_tool("umount", self.place)
            self.mounted = False

    def __exit__(self, kind, *_):
        try:
            self.unmount()
        except Failure:
            subprocess.run(["umount", "-l", self.place], check=False)
            if kind is None:
                raise
        finally:
            if self.loop:
                subprocess.run(["losetup", "-d", self.loop], check=False)
            if self.fuse:
                self.detach()

    def detach(self):
        until = time.monotonic() + FAR_END  # the loop device lets go of the file a moment later
        while subprocess.run(["fusermount3", "-u", self.folder], stderr=subprocess.DEVNULL,
                             check=False).returncode != 0 and time.monotonic() < until:
            time.sleep(0.05)
        try:
            self.fuse.wait(FAR_END)
        except subprocess.TimeoutExpired:
            self.fuse.kill()
            self.fuse.wait()
