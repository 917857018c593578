"""What rlctl writes goes where it is meant to go, or the exit code says that it did not."""

import fcntl
import json
import os
import subprocess

from support import (FAR_END, RLCTL, Failure, Folder, check, rlctl, rlctl_json, run,
                     write_plain_trace)


def small_mirror(folder):
    """A mirror of 1 MiB with two items and two checkpoints, and the trace that made it."""
    mirror = os.path.join(folder, "m")
    trace = os.path.join(folder, "trace.csv")
    with open(trace, "w") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n0,W,0,8\n1,W,4,8\n")
    rlctl("create", mirror, "--size", "1M")
    rlctl("record", mirror, "--trace", trace, "--checkpoint-every", "1")
    return mirror, trace


def shell(redirections, *arguments):
    """The exit code of rlctl with these redirections of the shell."""
    return subprocess.run(["sh", "-c", 'exec "$@" ' + redirections, "sh", RLCTL,
                           *map(str, arguments)], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode


def test_closed_descriptors_are_never_files_of_the_mirror():
    for redirections in (">&- 2>&-", "<&- >&- 2>&-", "2>&-", "<&- 2>&-"):
        with Folder() as folder:
            mirror, trace = small_mirror(folder)
            for command in (("apply", mirror, "--to", "cp:1", "--yes", "-v"),
                            ("record", mirror, "--trace", trace, "-v"),
                            ("checkpoint", mirror, "-v"), ("info", mirror, "--recovery", "hope"),
                            ("hold", mirror), ("verify", mirror, "-v")):
                shell(redirections, *command)
            check(rlctl_json("verify", mirror)["ok"], "damaged with " + redirections)
            check(rlctl_json("info", mirror)["items"] == 4, "not recorded with " + redirections)
            for at, _, names in os.walk(mirror):
                for name in names:
                    with open(os.path.join(at, name), "rb") as file:
                        content = file.read()
                    for text in (b"rlctl:", b"cp:1 of", b"recorded ", b"held "):
                        check(text not in content, "%s has talk in it" % name)


def test_a_closed_input_is_no_empty_trace():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        check(shell("<&-", "record", mirror, "--trace", "-") == 1, "recorded from nowhere")


def content(path):
    with open(path, "rb") as file:
        return file.read()


def test_restore_replaces_images_and_nothing_else_unasked():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        full, more, image = (os.path.join(folder, name) for name in ("full", "more", "image"))
        rlctl("backup", mirror, "--at", "cp:1", full)
        rlctl("backup", mirror, "--at", "cp:2", "--since", "cp:1", more)
        before = content(more)
        rlctl("restore", full, more, code=1)  # the image's name was forgotten
        check("--force" in rlctl.errors, rlctl.errors)
        check(content(more) == before, "the backup was replaced")
        rlctl("restore", full, more, image)
        rlctl("restore", full, image)  # of the same volume: as before
        with open(image, "wb"):
            pass
        rlctl("restore", full, more, image)
        restored = content(image)
        rlctl("export", mirror, image)
        check(content(image) == restored, "not the same image")
        rlctl("restore", full, more, "--force")
        check(content(more) != before, "--force did not replace it")


def test_nothing_is_written_over_a_mirror():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        full = os.path.join(folder, "full")
        rlctl("backup", mirror, full)
        link = os.path.join(folder, "link")
        os.symlink(mirror, link)
        target = os.path.join(folder, "volume")
        with open(target, "wb") as file:
            file.truncate(1 << 20)
        other = os.path.join(folder, "other")
        rlctl("create", other, "--size", "1M", "--target", target)
        files = sorted(os.listdir(mirror))
        for path in ("m/target", "m/new", "m/journal/d-0000000001", "link/target", "m/../m/tags",
                     "m/increments/x"):
            path = os.path.join(folder, path)
            rlctl("export", mirror, path, code=2)
            rlctl("backup", mirror, path, code=2)
            rlctl("restore", full, path, "--force", code=2)
            rlctl("export", other, path, code=2)
        rlctl("export", other, target, code=2)
        rlctl("backup", other, target, code=2)
        check(sorted(os.listdir(mirror)) == files, "something was made")
        check(rlctl_json("verify", mirror)["ok"], "verify")


def test_images_that_are_not_synced_keep_the_rules():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        full, expected, image = (os.path.join(folder, name) for name in ("full", "expected", "image"))
        rlctl("backup", mirror, full)
        rlctl("export", mirror, expected)
        for command in (("export", mirror, "--no-sync"), ("restore", full, "--no-sync")):
            for _ in range(2):  # a new file, and in the place of one
                rlctl(*command, image)
                check(content(image) == content(expected), command[0] + " made another image")
            rlctl(*command, os.path.join(mirror, "target"), code=2)
        check(rlctl("export", mirror, "--no-sync", "-") == content(expected), "standard output")
        before = sorted(os.listdir(folder))
        rlctl("restore", full, "--no-sync", full, code=1)
        check("--force" in rlctl.errors, rlctl.errors)
        check(sorted(os.listdir(folder)) == before, "something was left: %r" % os.listdir(folder))


def test_resuming_is_refused_after_other_writers():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = write_plain_trace(folder, 400, 100)
        rlctl("create", mirror, "--size", "1G", "--journal-limit", "17M")
        rlctl("record", mirror, "--trace", trace, code=13)
        rlctl("set", mirror, "--journal-limit", "64M")
        rlctl("checkpoint", mirror)  # journals no item
        with subprocess.Popen(["printf", "time_us,op,offset_blocks,length_blocks\n0,W,0,8\n"],
                              stdout=subprocess.PIPE) as pipe:
            rlctl("record", mirror, "--trace", "-", stdin=pipe.stdout)
        items = rlctl_json("info", mirror)["items"]
        rlctl("record", mirror, "--trace", trace, "--resume", code=2)
        check("something else" in rlctl.errors, rlctl.errors)
        check(rlctl_json("info", mirror)["items"] == items, "it went on all the same")


def test_file_size_limits_are_full_disks():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = write_plain_trace(folder, 100, 1000)
        rlctl("create", mirror, "--size", "1G")
        done = subprocess.run(["sh", "-c", 'ulimit -f 4096; exec "$@"', "sh", RLCTL, "record", mirror,
                               "--trace", trace], stderr=subprocess.PIPE, check=False)
        check(done.returncode == 13, "%d: %s" % (done.returncode, done.stderr.decode()))
        check(rlctl_json("verify", mirror)["ok"], "verify")


def test_a_result_that_is_lost_is_a_failure():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        for command in (("info", mirror), ("checkpoints", mirror), ("stats", mirror, "--json"),
                        ("lookup", mirror), ("verify", mirror), ("diff", mirror, "cp:1..cp:2"),
                        ("history", mirror), ("read", mirror), ("completion", "bash")):
            for output, code in ((">/dev/full", 13), (">&-", 1)):
                done = subprocess.run(["sh", "-c", 'exec "$@" ' + output, "sh", RLCTL, *command],
                                      stderr=subprocess.PIPE, check=False)
                check(done.returncode == code, "%s %s: %d" % (command[0], output, done.returncode))
                check(b"cannot write" in done.stderr, done.stderr.decode())


def test_with_json_all_talk_is_json():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = write_plain_trace(folder, 400, 100)
        rlctl("create", mirror, "--size", "1G", "--journal-limit", "17M")
        rlctl("record", mirror, "--trace", trace, "--json", code=13)
        lines = [json.loads(line) for line in rlctl.errors.splitlines()]
        check(len(lines) >= 2 and [line.get("type") for line in lines].count("error") == 1,
              "not a warning and one error: " + rlctl.errors)
        rlctl("record", mirror, "--trace", trace, "--json", "--log-format", "text", code=13)


def test_pipes_are_refused_and_not_waited_for():
    with Folder() as folder:
        mirror, _ = small_mirror(folder)
        pipe = os.path.join(folder, "pipe")
        os.mkfifo(pipe)
        for command in (("capture", mirror, pipe), ("restore", pipe, os.path.join(folder, "image")),
                        ("create", os.path.join(folder, "new"), "--size", "1M", "--target", pipe)):
            try:
                done = subprocess.run([RLCTL, *command], stderr=subprocess.PIPE, check=False,
                                      timeout=FAR_END)
            except subprocess.TimeoutExpired:
                raise Failure(command[0] + " waits for a pipe") from None
            check(done.returncode == 1 and b"regular file" in done.stderr,
                  "%s: %d: %s" % (command[0], done.returncode, done.stderr.decode()))


def test_what_killed_creations_left_goes():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        with subprocess.Popen(["true"]) as gone:
            pass
        mine = "m.creating-%d" % os.getpid()
        left = "m.creating-%d" % gone.pid
        # Of these some have such a name by chance: more is in them than a creation makes, a whole
        # mirror or nothing like one. One is held by a creation whose process cannot be seen.
        strange, whole, held, file = ("m.creating-%d" % number for number in
                                      (999999999, 999999998, 999999997, 999999996))
        others = {mine, "m.creating-x", "m.creating-", "x.creating-%d" % gone.pid, strange, held}
        for name in others | {left}:
            os.makedirs(os.path.join(folder, name, "journal"))
        rlctl("create", os.path.join(folder, whole), "--size", "1M")
        for name in (os.path.join(strange, "notes"), file):
            with open(os.path.join(folder, name), "wb"):
                pass
        holder = os.open(os.path.join(folder, held), os.O_RDONLY)
        fcntl.flock(holder, fcntl.LOCK_EX)
        rlctl("create", mirror, "--size", "1M")
        os.close(holder)
        check(set(os.listdir(folder)) == others | {"m", whole, file}, "%r" % os.listdir(folder))


def test_without_threads_nothing_aborts():
    # The limit is on a user's threads and holds for nobody who may do everything.
    as_user = {"user": 64321, "group": 64321} if os.getuid() == 0 else {}
    with Folder() as folder:
        os.chmod(folder, 0o777)
        mirror = os.path.join(folder, "m")

        def limited(number, backend, *command):
            line = ["bash", "-c", 'ulimit -u %s; exec "$@"' % number, "bash", *command]
            return subprocess.run(line, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                  check=False, env=dict(os.environ, RL_IO=backend), **as_user)

        if limited("unlimited", "uring", RLCTL, "create", mirror, "--size", "1M").returncode != 0:
            print("skip: another user cannot run " + RLCTL)
            return
        for backend in ("threads", "uring"):
            for number in range(1, 7):
                for command in (("export", mirror, os.path.join(folder, "image")), ("stats", mirror)):
                    done = limited(number, backend, RLCTL, *command)
                    # Where the user runs nothing else, three are enough for all of it.
                    codes = (0,) if as_user and number >= 3 else (0, 1)
                    check(done.returncode in codes, "%s with %d: %d: %s" % (
                        command[0], number, done.returncode, done.stderr.decode()))


run(test_closed_descriptors_are_never_files_of_the_mirror, test_a_closed_input_is_no_empty_trace,
    test_restore_replaces_images_and_nothing_else_unasked, test_nothing_is_written_over_a_mirror,
    test_images_that_are_not_synced_keep_the_rules,
    test_resuming_is_refused_after_other_writers, test_file_size_limits_are_full_disks,
    test_a_result_that_is_lost_is_a_failure, test_with_json_all_talk_is_json,
    test_pipes_are_refused_and_not_waited_for, test_what_killed_creations_left_goes,
    test_without_threads_nothing_aborts)
