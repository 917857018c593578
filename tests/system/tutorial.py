"""Runs the commands of docs/tutorial.md as they stand, in one shell and an empty folder."""

import os
import re
import shlex
import subprocess
import sys
import time

from nbdsupport import need_nbd, skip
from support import FAR_END, RLCTL, Failure, Folder, check, run, wait_until

PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs", "tutorial.md")
LETTER = "files/letters/ada.txt"


def commands_of_page():
    """The ten commands, and those that put everything away."""
    with open(PAGE, encoding="utf-8") as file:
        before, after = file.read().split("## Putting it away")
    return [re.findall(r"^    (.*)$", part, re.M) for part in (before, after.split("\n## ")[0])]


class Shell:
    """Types commands, one after the other."""

    def __init__(self, folder):
        self.folder = folder
        self.log_file = os.path.join(folder, "shell.log")
        self.place = os.path.join(folder, "work")
        os.makedirs(self.place)
        environment = dict(os.environ)
        environment["PATH"] = os.path.dirname(RLCTL) + ":" + environment["PATH"] + ":/usr/sbin:/sbin"
        with open(self.log_file, "wb") as log:
            self.process = subprocess.Popen(
                ["bash"], cwd=self.place, env=environment, stdin=subprocess.PIPE, stdout=log,
                stderr=log, start_new_session=True)
        self.count = 0

    def log(self):
        with open(self.log_file, "rb") as file:
            return file.read().decode(errors="replace")

    def until(self, condition, what, seconds=FAR_END):
        end = time.monotonic() + seconds
        while not condition():
            check(self.process.poll() is None, "the shell ended:\n" + self.log())
            check(time.monotonic() < end, "%s: not within %d s\n%s" % (what, seconds, self.log()))
            time.sleep(0.02)

    def type(self, command):
        self.count += 1
        done = "done %d with " % self.count
        self.process.stdin.write(("%s\necho %s$?\n" % (command, shlex.quote(done))).encode())
        self.process.stdin.flush()
        self.until(lambda: done in self.log(), command)
        code = int(self.log().split(done)[1].split()[0])
        check(code == 0, "%s: exit code %d\n%s" % (command, code, self.log()))

    def path(self, name):
        return os.path.join(self.place, name)

    def clean_up(self):
        """What is left when a command has failed; nothing when all went well."""
        if self.process.poll() is not None:
            return
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "check": False}
        for name in ("old", "files"):
            subprocess.run(["umount", "-l", self.path(name)], **quiet)
        listed = subprocess.run(["losetup", "--list", "--noheadings", "--output", "NAME,BACK-FILE"],
                                stdout=subprocess.PIPE, check=False).stdout.decode()
        for line in listed.splitlines():
            if self.place in line:
                subprocess.run(["losetup", "-d", line.split()[0]], **quiet)
        for name in ("past", "live"):
            subprocess.run(["fusermount3", "-u", "-z", self.path(name)], **quiet)
        os.killpg(self.process.pid, 9)
        self.process.wait()


def test_tutorial():
    commands, afterwards = commands_of_page()
    check(len(commands) == 10, "%d commands, not ten" % len(commands))
    with Folder() as folder:
        shell = Shell(folder)
        try:
            started = time.monotonic()
            for command in commands:
                if "cp -a old/letters" in command:
                    check(not os.path.exists(shell.path(LETTER)), "the folder was never away")
                shell.type(command)
                if command.startswith("mkdir files/letters"):
                    with open(shell.path(LETTER), "rb") as file:
                        letter = file.read()
            with open(shell.path(LETTER), "rb") as file:
                check(file.read() == letter, "another letter")
            print("     ten commands in %.1f s" % (time.monotonic() - started))
            socket_mode = os.stat(shell.path("disk.mirror/nbd")).st_mode & 0o777
            check(socket_mode in (0o600, 0o700), "the socket's mode is %o" % socket_mode)
            for command in afterwards:
                shell.type(command)
            shell.process.stdin.close()
            check(shell.process.wait(FAR_END) == 0, "the shell's end:\n" + shell.log())
            wait_until(lambda: not os.path.exists(shell.path("disk.mirror/nbd")),
                       "the socket is left behind")
        except (Failure, subprocess.TimeoutExpired) as failure:
            raise Failure("%s\n%s" % (failure, shell.log())) from None
        finally:
            shell.clean_up()


need_nbd("nbdfuse", "nbdinfo", "fusermount3", "mkfs.ext4", "losetup", "mount", "pkill")
if os.geteuid() != 0:
    skip("only root can mount")
for device in ("/dev/fuse", "/dev/loop-control"):
    if not os.path.exists(device):
        skip("there is no " + device)
sys.stdout.flush()
run(test_tutorial)
