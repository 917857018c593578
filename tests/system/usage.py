"""Wrong usage and bad input: one clear line, the right exit code, and nothing changed."""

import json
import os
import subprocess

from support import RLCTL, Folder, check, rlctl, rlctl_json, run, write_plain_trace


def one_line(text):
    check(rlctl.errors.count("\n") == 1, "not one line: %r" % rlctl.errors)
    check(text in rlctl.errors, "'%s' is not in %r" % (text, rlctl.errors))


def content(folder):
    return {name: os.path.getsize(os.path.join(at, name))
            for at, _, names in os.walk(folder) for name in names}


def test_wrong_usage_is_2():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, code=2)
        rlctl("nonsense", code=2)
        rlctl(code=2)
        rlctl("create", mirror, "--size", "12parsecs", code=2)
        one_line("unknown unit")
        rlctl("create", mirror, "--size", "1000", code=2)
        one_line("multiple of 512")
        rlctl("create", mirror, "--size", "99999999999999999999", code=2)
        rlctl("create", mirror, "--size", "1M", "--compress", "gzip", code=2)
        check(not os.path.exists(mirror), "something was made")
        rlctl("create", mirror, "--size", "1M")
        rlctl("stats", mirror, "--at", "yesterday", code=2)
        rlctl("read", mirror, "--offset", "2M", code=2)
        rlctl("read", mirror, "--offset", "1M", "--length", "1", code=2)
        rlctl("lookup", mirror, "--offset", "1", "--length", "512", code=2)
        rlctl("stats", mirror, "--progress", "loud", code=2)
        rlctl("stats", mirror, "--recovery", "hope", code=2)
        rlctl("stats", mirror, "--log-level", "loud", code=2)
        rlctl("stats", mirror, "--tweak", "x", code=2)
        rlctl("stats", mirror, "--memory-limit", "0", code=2)
        for option in (("--stop-timeout", "0s"), ("--recovery", "xx"), ("--memory-limit", "0"),
                       ("--metrics-http", "foo:bar"), ("--metrics-http", "8080"),
                       ("--metrics-http", "localhost:65536"), ("--apply-rate", "0")):
            rlctl("serve", mirror, *option, code=2)


def test_missing_files_are_no_missing_mirrors():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1M")
        gone = os.path.join(folder, "gone", "file")
        rlctl("export", mirror, gone, code=1)
        rlctl("backup", mirror, gone, code=1)
        rlctl("stats", mirror, "--tweaks-file", gone, code=1)


def test_every_command_helps_with_two_examples():
    commands = ("create", "capture", "record", "set", "hold", "release", "apply", "trim",
                "checkpoint", "checkpoints", "info", "stats",
                "lookup", "read", "export", "diff", "history", "backup", "restore", "verify",
                "events", "completion")
    for command in commands:
        text = rlctl(command, "--help").decode()
        check(text.count("\n  rlctl " + command) == 2, "examples of " + command)
        check("--json" in text and "--quiet" in text and "--verbose" in text, command)


def test_no_such_mirror_is_10():
    with Folder() as folder:
        rlctl("info", os.path.join(folder, "none"), code=10)
        one_line("no mirror at")
        rlctl("info", folder, code=10)
        one_line("is no mirror")


def test_create_refuses_a_mirror():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1M")
        before = content(folder)
        rlctl("create", mirror, "--size", "2M", code=1)
        one_line("is a mirror already")
        other = os.path.join(folder, "other")
        os.mkdir(other)
        with open(os.path.join(other, "x"), "w"):
            pass
        rlctl("create", other, "--size", "1M", code=1)
        rlctl("create", os.path.join(folder, "t"), "--size", "1M", "--target",
              os.path.join(folder, "gone"), code=10)
        check(content(folder) == dict(before, x=0), "something changed")


def test_errors_are_json_with_json():
    with Folder() as folder:
        rlctl("info", os.path.join(folder, "none"), "--json", code=10)
        error = json.loads(rlctl.errors)
        check(error["type"] == "error" and error["code"] == 10 and error["message"], "error object")
        rlctl("info", "--json", code=2)
        check(json.loads(rlctl.errors)["code"] == 2, "usage as JSON")


def test_unknown_point_states_the_window():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1M")
        rlctl("checkpoint", mirror, "--tag", "first")
        for point in ("cp:9", "9", "item:1", "tag:none", "time:1999-01-01T00:00:00Z"):
            rlctl("stats", mirror, "--at", point, code=10)
            one_line("can serve item:0 to item:0, checkpoints cp:1 to cp:1")
        for point in ("cp:1", "1", "latest", "tag:first", "item:0", "time:2999-01-01T00:00:00Z"):
            rlctl("stats", mirror, "--at", point)


def test_bad_traces_change_nothing():
    header = "time_us,op,offset_blocks,length_blocks\n"
    good = "0,W,0,8\n"
    cases = (
        (header + good + "5,W,8\n", "line 3: malformed"),
        (header + good + "5,W,x,8\n", "line 3: malformed"),
        (header + good + "5,W,2047,2\n", "line 3: the request at block 2047"),
        (header + good + "5,W,18446744073709551615,2\n", "line 3: the request at block"),
        (header + good + "5,W,99999999999999999999,2\n", "line 3: a number is too large"),
        (header + good + "5,W,4,0\n", "line 3: a request of length 0"),
        ("time,op\n", "line 1: a trace begins with"),
        ("", "line 1: a trace begins with"),
    )
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = os.path.join(folder, "trace.csv")
        rlctl("create", mirror, "--size", "1M")
        for text, message in cases:
            with open(trace, "w") as file:
                file.write(text)
            rlctl("record", mirror, "--trace", trace, code=1)
            one_line(message)
        rlctl("record", mirror, "--trace", os.path.join(folder, "gone"), code=1)
        check(rlctl_json("info", mirror)["items"] == 0, "something was recorded")
        # From a pipe nobody can look ahead: what came before the bad line stays.
        with subprocess.Popen(["printf", "%s", header + good + "5,W,8\n"],
                              stdout=subprocess.PIPE) as pipe:
            rlctl("record", mirror, "--trace", "-", code=1, stdin=pipe.stdout)
        one_line("line 3: malformed")
        check(rlctl_json("info", mirror)["items"] == 1, "the line before was lost")


def test_damaged_settings_are_12():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1M")
        path = os.path.join(mirror, "mirror.json")
        for text in ("", "{", "[]", "{}", '{"format_version": 9}', "\0" * 100):
            with open(path, "w") as file:
                file.write(text)
            rlctl("info", mirror, code=12)
            one_line("mirror.json is damaged")


def test_journal_limit_is_13_and_keeps_what_was_acknowledged():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = write_plain_trace(folder, 400, 100)
        rlctl("create", mirror, "--size", "1G", "--journal-limit", "4M", code=2)
        one_line("at least 17M")
        rlctl("create", mirror, "--size", "1G", "--journal-limit", "17M")
        rlctl("set", mirror, "--journal-limit", "16M", code=2)
        one_line("at least 17M")
        # On a slow disk it would tell how far it is.
        rlctl("record", mirror, "--trace", trace, "--checkpoint-every", "10", "--progress", "none",
              code=13)
        lines = rlctl.errors.splitlines()
        check(len(lines) == 2 and "nearly full" in lines[0] and "limit" in lines[1],
              "not a warning and then the error: %r" % rlctl.errors)
        items = rlctl_json("info", mirror)["items"]
        check(0 < items < 400, "items: %d" % items)
        check(rlctl_json("verify", mirror)["ok"], "verify")


def test_small_memory_limit_says_what_it_needs():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = os.path.join(folder, "trace.csv")
        with open(trace, "w") as file:
            file.write("time_us,op,offset_blocks,length_blocks\n")
            for i in range(60000):
                file.write("%d,Z,%d,1\n" % (i, i * 2))
        rlctl("create", mirror, "--size", "1G")
        rlctl("record", mirror, "--trace", trace)
        rlctl("stats", mirror, "--memory-limit", "2M", "--quiet", code=1)
        one_line("memory limit is too small")
        check("may need" in rlctl.errors, rlctl.errors)
        rlctl("stats", mirror, "--memory-limit", "64M")


def test_completions_are_whole_scripts():
    for shell in ("bash", "zsh", "fish"):
        script = rlctl("completion", shell).decode()
        check("checkpoint-every" in script and "checkpoints" in script, shell)
    script = rlctl("completion", "bash") + b"\nCOMP_WORDS=(rlctl exp)\nCOMP_CWORD=1\n_rlctl\n" \
        b"echo ${COMPREPLY[@]}\n"
    done = subprocess.run(["bash"], input=script, stdout=subprocess.PIPE, check=True)
    check(done.stdout.decode().split() == ["export"], "bash completes exp to export")


def test_events_are_decoded():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = os.path.join(folder, "trace.csv")
        events = os.path.join(folder, "events")
        with open(trace, "w") as file:
            file.write("time_us,op,offset_blocks,length_blocks\n0,W,0,8\n1,W,2,2\n")
        rlctl("create", mirror, "--size", "1M")
        rlctl("record", mirror, "--trace", trace)
        rlctl("stats", mirror, "--tweak", "t_BinVerboseLogs=1", "--events", events)
        decoded = rlctl_json("events", events)["events"]
        check([(e["code"], e["view_offset_blocks"], e["length_blocks"]) for e in decoded] ==
              [(23, 0, 8), (21, 0, 8), (22, 0, 2), (22, 4, 4), (23, 2, 2)], "events: %r" % decoded)
        with open(trace, "rb") as file:
            check(file.read(), "trace")
        rlctl("events", trace, code=1)


def test_logs_make_no_folders():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1M")
        missing = os.path.join(folder, "missing")
        for option in ("--log-file", "--events"):
            rlctl("info", mirror, option, os.path.join(missing, "log"), code=1)
            check(os.path.join(missing, "log") in rlctl.errors and
                  "No such file or directory" in rlctl.errors, rlctl.errors)
            check(not os.path.exists(missing), option + " has made the folder")
        log = os.path.join(folder, "log")
        with open(log, "w", encoding="ascii") as file:
            file.write("before\n")
        rlctl("info", mirror, "--log-file", log, "--log-level", "debug")
        with open(log, encoding="utf-8") as file:
            check(file.readline() == "before\n", "a log is gone on with")


def test_progress_ends_at_100():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = os.path.join(folder, "trace.csv")
        with open(trace, "w") as file:
            file.write("time_us,op,offset_blocks,length_blocks\n")
            file.writelines("%d,W,%d,1\n" % (i, i) for i in range(2000))
        rlctl("create", mirror, "--size", "1M")
        for command in (("record", mirror, "--trace", trace), ("stats", mirror),
                        ("export", mirror, os.path.join(folder, "image")), ("verify", mirror)):
            reading, writing = os.pipe()
            subprocess.run([RLCTL, *command, "--progress", str(writing)], pass_fds=[writing],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
            os.close(writing)
            with os.fdopen(reading) as pipe:
                steps = [int(line.split("/")[0]) for line in pipe.read().split()]
            check(steps == sorted(set(steps)) and steps[-1] == 100,
                  "progress of %s: %r" % (command[0], steps))


run(test_wrong_usage_is_2, test_missing_files_are_no_missing_mirrors, test_every_command_helps_with_two_examples, test_no_such_mirror_is_10,
    test_create_refuses_a_mirror, test_errors_are_json_with_json,
    test_unknown_point_states_the_window, test_bad_traces_change_nothing,
    test_damaged_settings_are_12, test_journal_limit_is_13_and_keeps_what_was_acknowledged,
    test_small_memory_limit_says_what_it_needs, test_completions_are_whole_scripts,
    test_events_are_decoded, test_logs_make_no_folders, test_progress_ends_at_100)
