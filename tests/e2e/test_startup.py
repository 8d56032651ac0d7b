#!/usr/bin/env python3
"""The daemon's command line, user file and listener: the usage text, start-up failures with their
lines and statuses, option parsing, the client limit, the idle time-out and a ROOT that is missing,
relative or ends in separators. Usage: test_startup.py FTPD [unittest arguments]"""
import os
import re
import shutil
import tempfile
import time
import unittest

import harness
from harness import LOG_LINE, DaemonCase, free_port, run_ftpd

TOO_MANY = b"421 Too many users, server is full.\r\n"
INTERNAL = b"421 Internal error: closing control connection\r\n"
STARTING = LOG_LINE + "Starting FTP daemon\n"


def usage(program):
    return (f"Usage: {program} ROOT [-L CLIENTLIMIT] [-p PORT] [-I NIFACE] [-T TIMO] [-S] [USERFILE [USER]...]\n"
            "\n"
            "    -L    set maximal number of connections (default: 16, maximal: 128)\n"
            "    -p    set server port (default: 21)\n"
            "    -I    set network interface\n"
            "    -t    set transfer timeout; seconds, must be greater than 0 (default: 150)\n"
            "    -T    set client idle timeout; seconds, 0=unlimited (default: 120)\n"
            "    -S    suppress error when USERFILE not exist or not a file\n"
            "\n"
            "USER format: <name>,<\"ro\"/\"rw\">,<pass>\n"
            "\n"
            "Example:\n"
            " ftpd /srv/ftp -L 8 /etc/ftpd/users User_ReadOnly,ro,Word1 User_ReadWrite,rw,Word2\n"
            "\n")


class Servers(DaemonCase):
    def assert_limit(self, server, limit):
        """`limit` clients are greeted at once, the next is turned away, and a QUIT frees a place."""
        clients = [server.connect() for _ in range(limit)]
        for _ in range(2):
            late = server.connect(greet=False)
            self.assertEqual(late.line(), TOO_MANY)
            late.expect_eof()
            late.close()
        clients.pop().quit()
        clients.append(server.connect())
        for c in clients:
            c.quit()


class CommandLine(unittest.TestCase):
    def test_usage_without_root(self):
        status, out, _ = run_ftpd(merge=True)
        self.assertEqual(status, 1)
        self.assertRegex(out, "^" + STARTING + re.escape(usage(harness.FTPD)) + r"\Z")

    def assert_fails(self, args, message, files=None):
        with tempfile.TemporaryDirectory(prefix="ftpd-e2e-") as tmp:
            for name, content in (files or {}).items():
                with open(os.path.join(tmp, name), "wb") as f:
                    f.write(content)
            status, out, err = run_ftpd(tmp, "-p", str(free_port()), *args, cwd=tmp)
        self.assertEqual(status, 2, f"{args}: {err!r}")
        self.assertEqual(out, "")
        self.assertRegex(err, "^" + STARTING + re.escape(f"{harness.FTPD}: {message}\n") + r"\Z", args)

    def test_user_file_failures(self):
        nofile = "No such file or directory:"
        self.assert_fails(["missing"], f"missing: {nofile}")
        self.assert_fails(["-"], f"-: {nofile}")
        self.assert_fails([""], f": {nofile}")
        for content in (b"alice\n", b"a,rx,p\n", b"a,ro\n", b"a,rwx\n", b"\n", b"# users\n", b"x" * 32 + b",rw,p\n",
                        b"a,rw," + b"p" * 32 + b"\n", b"ok,rw,p\nbad\nnever,rw,p\n"):
            with self.subTest(content=content):
                self.assert_fails(["users"], "parse error in user file", {"users": content})
        dupe = "failed to add user (maybe a dupe?)"
        self.assert_fails(["users"], dupe, {"users": b"a,rw,x\nb,ro,y\na,ro,z\n"})
        self.assert_fails(["users", "b,rw,q", "a,ro,y"], dupe, {"users": b"a,rw,x\n"})
        self.assert_fails(["-S", "missing", "a,rw,x", "a,ro,y"], dupe)

    def test_the_first_argument_is_root_whatever_it_looks_like(self):
        with tempfile.TemporaryDirectory(prefix="ftpd-e2e-") as tmp:
            status, _, err = run_ftpd("-L", "missing", cwd=tmp)
        self.assertEqual(status, 2, err)
        self.assertRegex(err, "^" + STARTING + re.escape(f"{harness.FTPD}: missing: No such file or directory:\n") + r"\Z")

    def test_bad_user_arguments(self):
        for arg in ("nocomma", "a,rx,p", "-L", "-p", "a,rw," + "p" * 32, ""):
            with self.subTest(arg=arg):
                self.assert_fails(["-S", "missing", arg], "bad user information")


class Options(Servers):
    def test_user_file_edges_that_start(self):
        # A line of 69 bytes ends the reading, as does a last line without a line feed; -S
        # excuses a missing file; "anonymus" needs no entry.
        server = self.start(["-p", "{port}", "users", "dave,rw,pw"],
                            files={"users": b"alice,rw,secret\n" + b"x" * 68 + b"\nbob,ro,pw\n"})
        server.session("alice", "secret").quit()
        server.session("dave", "pw").quit()
        server.session("anonymus").quit()
        ctl = server.connect()
        ctl.expect("USER bob", b"430 Invalid username or password\r\n")
        ctl.expect_eof()
        server = self.start(["-p", "{port}", "-I", "eth9", "-S", "missing", "dave,rw,pw"])
        server.session("dave", "pw").quit()
        ctl = server.connect()
        ctl.expect("USER alice", b"430 Invalid username or password\r\n")
        ctl.expect_eof()
        server = self.start(["-p", "{port}", "users"], files={"users": b"alice,rw,secret\nbob,ro,pw"})
        server.session("alice", "secret").quit()
        ctl = server.connect()
        ctl.expect("USER bob", b"430 Invalid username or password\r\n")
        ctl.expect_eof()

    def test_an_option_takes_the_next_argument_whatever_it_is(self):
        # -T takes "-L" as its value, so "-p PORT" is still read as an option.
        self.start(["-T", "-L", "-x", "-p", "{port}"]).session("joe").quit()
        # A transfer time-out of 0 is taken without a word.
        self.start(["-t", "0", "-p", "{port}"]).session("joe").quit()
        # -L takes "-p" (a limit of 1); the repeat of -L overrides; a trailing -L is ignored.
        self.assert_limit(self.start(["-p", "{port}", "-L", "-p"]), 1)
        self.assert_limit(self.start(["-L", "5", "-L", "0", "-p", "{port}", "-L"]), 1)
        self.assert_limit(self.start(["-L", "-5", "-p", "{port}"]), 1)

    def test_port_keeps_its_low_16_bits(self):
        port = free_port()
        self.start(["-p", str(port + 3 * 65536)], port=port).session("joe").quit()

    def test_client_limit(self):
        server = self.start(["-L", "2", "-p", "{port}"])
        self.assert_limit(server, 2)

    def test_idle_time_out(self):
        server = self.start(["-T", "1", "-p", "{port}"])
        ctl = server.connect()
        started = time.monotonic()
        self.assertEqual(ctl.line(), b"421 Idle timeout (1 seconds): closing control connection\r\n")
        self.assertGreater(time.monotonic() - started, 0.9)
        ctl.expect_eof()
        # The time-out restarts with each byte.
        server = self.start(["-T", "2", "-p", "{port}"])
        ctl = server.connect()
        for byte in b"NOOP\r\n":
            time.sleep(0.7)
            ctl.send(bytes([byte]))
        self.assertEqual(ctl.line(), b"200 NOOP command successful\r\n")
        ctl.quit()
        # 0 and a non-number mean no time-out at all.
        for value in ("0", "abc"):
            ctl = self.start(["-T", value, "-p", "{port}"]).connect()
            time.sleep(1.2)
            ctl.expect("NOOP", b"200 NOOP command successful\r\n")
            ctl.quit()


class Root(Servers):
    def test_a_missing_root_refuses_each_client_with_the_internal_error(self):
        server = self.start(["-L", "1", "-p", "{port}"], root_arg="/nonexistent-ftpd-e2e-root")
        for _ in range(3):
            ctl = server.connect(greet=False)
            port = ctl.sock.getsockname()[1]
            self.assertEqual(ctl.line(), INTERNAL)
            ctl.expect_eof()
            server.wait_log(rf"connection accepted from 127\.0\.0\.1:{port}\n"
                            rf"{LOG_LINE}connection from 127\.0\.0\.1:{port} has been closed\n")

    def test_relative_root_and_trailing_separators(self):
        base = tempfile.mkdtemp(prefix="ftpd-e2e-root-")
        self.addCleanup(shutil.rmtree, base)
        with open(os.path.join(base, "f"), "wb") as f:
            f.write(b"12345")
        # The process works from "/" once detached, and trailing "/" and "\\" are cut.
        for root_arg in (base.lstrip("/"), base + "/\\//\\"):
            with self.subTest(root=root_arg):
                ctl = self.start(root=base, root_arg=root_arg).session("joe")
                ctl.expect("SIZE f", b"213 5\r\n")
                ctl.expect("PWD", b'257 "/" is the current directory\r\n')
                ctl.quit()


if __name__ == "__main__":
    harness.main()
