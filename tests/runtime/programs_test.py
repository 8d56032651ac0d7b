#!/usr/bin/env python3
"""Small programs with their own main, run through the loader like any host program, judged by
their exit status and their output. Usage: programs_test.py BINARY_DIR"""
import os
import re
import signal
import subprocess
import sys
import time
import unittest

BIN = None
TIMEOUT = 20


def run(name, *args, env=None, stdin=subprocess.DEVNULL):
    full_env = dict(os.environ)
    full_env.update(env or {})
    done = subprocess.run([os.path.join(BIN, name), *args], env=full_env, stdin=stdin,
                          capture_output=True, timeout=TIMEOUT)
    return done.returncode, done.stdout.decode(errors="replace"), done.stderr.decode(errors="replace")


class Waiting:
    """A program started with pipes that has printed its "ready" line."""

    def __init__(self, name, *args):
        self.proc = subprocess.Popen([os.path.join(BIN, name), *args], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        line = self.proc.stdout.readline().decode()
        if line != "ready\n":
            self.proc.kill()
            raise AssertionError(f"{name} did not get ready: {line!r}")

    def finish(self):
        out, err = self.proc.communicate(timeout=TIMEOUT)
        return self.proc.returncode, out.decode(), err.decode()


class ArgumentsAndEnvironment(unittest.TestCase):
    def test_arguments_come_through_the_loader_as_given(self):
        status, out, _ = run("args", "two  blanks", "back\\slash", "", "trailing ", "end")
        self.assertEqual(status, 0)
        self.assertEqual(out.splitlines()[1:], ["[two  blanks]", "[back\\slash]", "[]", "[trailing ]", "[end]"])

    def test_a_trailing_empty_argument_is_kept(self):
        status, out, _ = run("args", "x", "")
        self.assertEqual(out.splitlines()[1:], ["[x]", "[]"])

    def test_environment_and_working_directory(self):
        status, out, _ = run("args", "--env", "ORLIX_TEST", "ORLIX_MISSING", "IWD",
                             env={"ORLIX_TEST": "a b=c"})
        self.assertEqual(status, 0)
        lines = out.splitlines()
        self.assertIn("ORLIX_TEST=a b=c", lines)
        self.assertIn("ORLIX_MISSING=(unset)", lines)
        self.assertIn("IWD=(unset)", lines, "the working directory is an instruction, not a variable")


class Ending(unittest.TestCase):
    HANDLERS = [f"handler {i}" for i in range(32, -1, -1)]

    def test_return_and_exit_run_33_handlers_newest_first(self):
        for how, code, expected in (("return", "5", 5), ("exit", "300", 44), ("_exit", "7", 7)):
            status, out, _ = run("ending", how, code)
            self.assertEqual(status, expected, how)
            self.assertEqual(out.splitlines(), self.HANDLERS, how)

    def test_abort_runs_no_handlers(self):
        status, out, _ = run("ending", "abort")
        self.assertEqual(status, 128 + 6)
        self.assertEqual(out, "")

    def test_default_signals_from_outside(self):
        # Sent at once, the signal meets the start of the read in a different place each round.
        for sig, expected in [(signal.SIGTERM, 143), (signal.SIGINT, 130)] * 10:
            program = Waiting("ending", "wait")
            program.proc.send_signal(sig)
            status, out, _ = program.finish()
            self.assertEqual(status, expected, sig)
            self.assertEqual(out, "", "a default signal runs no exit handlers")


class Signals(unittest.TestCase):
    def test_a_signal_ends_a_blocking_read_with_error_3(self):
        program = Waiting("signals", "interrupt")
        time.sleep(0.1)
        program.proc.send_signal(signal.SIGINT)
        time.sleep(0.2)  # the end of the input must not race the signal
        status, out, _ = program.finish()
        self.assertEqual(status, 0)
        self.assertEqual(out, "read -1 errno 3 handled 1\n")

    def test_a_handler_that_asks_for_a_restart_lets_the_read_finish(self):
        program = Waiting("signals", "restart")
        time.sleep(0.1)
        program.proc.send_signal(signal.SIGINT)
        time.sleep(0.1)
        program.proc.stdin.write(b"data\n")
        program.proc.stdin.flush()
        status, out, _ = program.finish()
        self.assertEqual(status, 0)
        self.assertEqual(out, "read 5 errno 0 handled 1\n")

    def test_stop_and_continue(self):
        status, out, _ = run("stop")
        self.assertEqual((status, out), (0, "stop and continue: 0\n"))


class Threads(unittest.TestCase):
    def test_a_new_thread_finds_its_record_complete(self):
        self.assertEqual(run("threads", "gate")[0], 0)

    def test_detached_threads_leave_at_most_one_memory_behind(self):
        status, out, _ = run("threads", "detached")
        self.assertEqual(status, 0, out)

    def test_threads_started_while_the_last_one_ends_keep_their_stacks(self):
        self.assertEqual(run("threads", "churn")[0], 0)

    def test_the_last_thread_ends_the_process(self):
        status, out, _ = run("threads", "last")
        self.assertEqual((status, out), (0, "last thread ends\n"))


class DaemonAndLog(unittest.TestCase):
    def test_daemon_detaches_onto_dev_null(self):
        status, out, _ = run("daemon")
        self.assertEqual((status, out), (0, "detaching\n"))

    def test_daemon_without_a_vfs_device_only_starts_a_session(self):
        status, out, _ = run("daemon", env={"VFS_DEVICE_NAME": "novfs"})
        self.assertEqual((status, out), (0, ""))

    def test_log_lines(self):
        status, _, err = run("syslog")
        self.assertEqual(status, 0)
        # A sanitizer build adds its own warnings, which start with "==".
        lines = [line for line in err.splitlines() if not line.startswith("==")]
        self.assertRegex(lines[0], r"^\[0x[0-9a-f]+\]: before openlog 1$")
        self.assertEqual(lines[1], "a-very-long-identity-of-forty-c: with a long identity")
        self.assertRegex(lines[2], r"^tst\[[0-9]+\]: after openlog x$")
        self.assertTrue(re.fullmatch(r"tst\[[0-9]+\]: y+", lines[3]), lines[3])
        self.assertEqual(len(lines[3]), 510, "a record of 511 bytes whose last one ends the text")


if __name__ == "__main__":
    BIN = sys.argv.pop(1)
    unittest.main(verbosity=2)
