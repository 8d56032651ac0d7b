#!/usr/bin/env python3
"""The command loop as a client sees it: the reply of every command in each login state and with a
rename pending, the line reader, and login against users from a file and from arguments.
Usage: test_session.py FTPD [unittest arguments]"""
import os
import time

import harness
from harness import PASV_REPLY, ServerCase, read

R332 = b"332 Need account for login.\r\n"
R350 = b"350 File or directory exists, ready for destination name\r\n"
R430 = b"430 Invalid username or password\r\n"
R500 = b"500 Syntax error: command too long.\r\n"
R501 = b"501 Syntax error in parameters or arguments.\r\n"
R502 = b"502 Command not implemented.\r\n"
R503 = b"503 Bad sequence of commands.\r\n"
R504 = b"504 Command not implemented for that parameter.\r\n"
R532 = b"532 Need account for storing files.\r\n"
NOOP = b"200 NOOP command successful\r\n"
SYST = b"215 UNIX Type: L8\r\n"
FEAT = b"211-Features:\r\n MLSD\r\n SIZE\r\n211 End\r\n"
CDUP = b"250 CDUP command successful\r\n"
CWD = b"250 CWD command successful\r\n"
PWD = b'257 "/" is the current directory\r\n'
PORT = b"200 PORT command successful\r\n"
LPRT = b"200 LPRT command successful\r\n"
LONG_NAME = "n" * 31
USERS = (b"alice,rw,secret\nbob,ro,hunter2\nempty,rw,\ntrail,rw,pw  \ncr,rw,pw\r\n"
         + f"{LONG_NAME},rw,{'p' * 31}\n".encode())

# What a client sees for each command line: (not logged in or password awaited, read-only,
# read-write). PASV_REPLY stands for a 227 line.
TABLE = [
    ("NOOP", NOOP, NOOP, NOOP),
    ("NOOP x", NOOP, NOOP, NOOP),
    ("XYZZY", R502, R502, R502),
    ("USER", R501, R501, R501),
    ("PASS", R501, R501, R501),
    ("SYST", R332, SYST, SYST),
    ("FEAT", R332, FEAT, FEAT),
    ("CDUP", R332, CDUP, CDUP),
    ("PWD", R332, PWD, PWD),
    ("PASV", R332, PASV_REPLY, PASV_REPLY),
    ("CWD", R332, R501, R501),
    ("CWD /", R332, CWD, CWD),
    ("TYPE", R332, R501, R501),
    ("TYPE I", R332, b"200 Type set to I\r\n", b"200 Type set to I\r\n"),
    ("PORT", R332, R501, R501),
    ("PORT 127,0,0,1,0,1", R332, PORT, PORT),
    ("LPRT", R332, R501, R501),
    ("LPRT 4,4,127,0,0,1,2,0,1", R332, LPRT, LPRT),
    ("SIZE", R332, R501, R501),
    ("SIZE missing", R332, b"550 missing: No such file or directory\r\n",
     b"550 missing: No such file or directory\r\n"),
    ("LIST", R332, R503, R503),
    ("LIST x", R332, R503, R503),
    ("NLST", R332, R503, R503),
    ("MLSD", R332, R503, R503),
    ("RETR", R332, R501, R501),
    ("RETR x", R332, R503, R503),
    ("STOR", R332, R532, R501),
    ("STOR x", R332, R532, R503),
    ("DELE", R332, R532, R501),
    ("DELE missing", R332, R532, b"550 missing: Cannot delete file, or not a file\r\n"),
    ("MKD", R332, R532, R501),
    ("MKD no/such", R332, R532, R504),
    ("RMD", R332, R532, R501),
    ("RMD missing", R332, R532, b"550 missing: Cannot remove directory\r\n"),
    ("RNFR", R332, R532, R501),
    ("RNFR x", R332, R532, R350),
    ("RNTO", R503, R503, R503),
    ("RNTO x", R503, R503, R503),
]

# One line of every known command, for the rename state.
KNOWN = ["NOOP", "USER alice", "PASS secret", "SYST", "FEAT", "CDUP", "CWD /", "PWD", "TYPE I", "PASV",
         "PORT 127,0,0,1,0,1", "LPRT 4,4,127,0,0,1,2,0,1", "LIST", "NLST", "MLSD", "SIZE a", "RETR a",
         "STOR made", "DELE a", "MKD made", "RMD made", "RNFR a"]


def reply_to(ctl, line, expected):
    """Send `line`, read as many reply lines as `expected` holds, check them, and undo what the
    command prepared (a data connection, a rename) so that the next line meets the same state."""
    if expected is PASV_REPLY:
        got = ctl.cmd(line)
        assert PASV_REPLY.fullmatch(got), f"{line!r} drew {got!r}"
    else:
        ctl.send(line + "\r\n")
        got = b"".join(ctl.line() for _ in range(expected.count(b"\n")))
        assert got == expected, f"{line!r} drew {got!r}, expected {expected!r}"
    if expected in (PASV_REPLY, PORT, LPRT):
        ctl.expect("XYZZY", R502)
    elif expected == R350:
        ctl.expect("NOOP", R503)


class CommandTable(ServerCase):
    ARGS = ["-p", "{port}", "users", "carol,rw,c p,x", "anonymus,rw,x"]
    FILES = {"users": USERS}

    def test_every_command_before_login_and_while_the_password_is_awaited(self):
        ctl = self.server.connect()
        for line, expected, _, _ in TABLE + [("PASS x", R503, None, None)]:
            with self.subTest(state="not logged in", line=line):
                reply_to(ctl, line, expected)
        ctl.expect("USER alice", b"331 Password required for alice\r\n")
        for line, expected, _, _ in TABLE:
            with self.subTest(state="password awaited", line=line):
                reply_to(ctl, line, expected)
        ctl.expect("PASS secret", b"230 User alice logged in\r\n")
        ctl.quit()

    def test_every_command_read_only_and_read_write(self):
        for column, (user, password) in ((2, ("bob", "hunter2")), (3, ("alice", "secret"))):
            ctl = self.server.session(user, password)
            for row in TABLE + [("PASS x", R503, R503, R503)]:
                with self.subTest(user=user, line=row[0]):
                    reply_to(ctl, row[0], row[column])
            ctl.quit()

    def test_a_pending_rename_refuses_every_other_known_command_without_running_it(self):
        self.server.write("a", b"A")
        ctl = self.server.session("alice", "secret")
        for line in KNOWN:
            with self.subTest(line=line):
                ctl.expect("RNFR a", R350)
                ctl.expect(line, R503)
                ctl.expect("RNTO b", R503)
        self.assertTrue(os.path.exists(self.server.path("a")))
        self.assertFalse(os.path.exists(self.server.path("b")) or os.path.exists(self.server.path("made")))
        ctl.expect("MKD made", b"250 MKD command successful\r\n")
        ctl.quit()

    def test_rename_sequences(self):
        self.server.write("r1", b"R")
        os.mkdir(self.server.path("rdir"))
        ctl = self.server.session("alice", "secret")
        ctl.expect("RNFR r1", R350)
        ctl.expect("RNTO", R501)
        ctl.expect("RNTO    ", R501)
        ctl.expect("RNTO r2", b"250 RNTO command successful\r\n")
        self.assertEqual(read(self.server.path("r2")), b"R")
        ctl.expect("RNFR r2", R350)
        ctl.expect("XYZZY", R502)
        ctl.expect("RNTO rdir/r3", b"250 RNTO command successful\r\n")
        ctl.expect("RNFR missing", R350)
        ctl.expect("RNTO elsewhere", R504)
        ctl.expect("RNTO elsewhere", R503)
        ctl.expect("RNFR rdir/r3", R350)
        ctl.expect("RNTO nodir/r4", R504)
        ctl.expect("RNFR rdir", R350)
        ctl.expect("RNTO rdir/inside", R504)
        ctl.expect("CWD rdir", CWD)
        ctl.expect("RNFR r3", R350)
        ctl.expect("RNTO r5", b"250 RNTO command successful\r\n")
        self.assertTrue(os.path.isfile(self.server.path("rdir", "r5")))
        ctl.expect("RNFR r5", R350)
        ctl.expect("QUIT now", b"221 Goodbye.\r\n")
        ctl.expect_eof()
        self.assertTrue(os.path.isfile(self.server.path("rdir", "r5")))


class LineReader(ServerCase):
    def session(self):
        return self.server.session("joe")

    def test_line_lengths(self):
        ctl = self.session()
        for line, expected in ((b"NOOP " + b"x" * 504 + b"\n", NOOP),
                               (b"NOOP " + b"x" * 503 + b"\r\n", NOOP),
                               (b"NOOP " + b"x" * 505 + b"\n", R500),
                               (b"NOOP " + b"x" * 504 + b"\r\n", R500),
                               (b"NOOP " + b"x" * 595 + b"\r\n", R500),
                               (b"x" * 2000 + b"\n", R500)):
            with self.subTest(length=len(line)):
                ctl.send(line)
                self.assertEqual(ctl.line(), expected)
                ctl.expect("SYST", SYST)  # nothing more came, and the reader is back at the start
        ctl.quit()

    def test_bytes_arriving_one_by_one_and_many_lines_at_once(self):
        ctl = self.session()
        for byte in b"NOOP\r\n":
            ctl.send(bytes([byte]))
            time.sleep(0.005)
        self.assertEqual(ctl.line(), NOOP)
        ctl.send(b"NOOP\r\nSYST\nPWD\r\n")
        self.assertEqual([ctl.line(), ctl.line(), ctl.line()], [NOOP, SYST, PWD])
        ctl.quit()

    def test_words_blanks_and_line_ends(self):
        missing = b": No such file or directory\r\n"
        ctl = self.session()
        for line, expected in ((b"\r\n", R502), (b"\n", R502), (b"\r\r\r\n", R502), (b" NOOP\r\n", R502),
                               (b"NOOP\tx\r\n", R502), (b"NO\rOP\r\n", R502), (b"noop\r\n", NOOP),
                               (b"sYsT\n", SYST), (b"SIZE    x\r\n", b"550 x" + missing),
                               (b"size Mixed  Case  \r\n", b"550 Mixed  Case  " + missing),
                               (b"SIZE a\rb\r\r\n", b"550 a\rb" + missing), (b"SIZE    \r\n", R501)):
            with self.subTest(line=line):
                ctl.send(line)
                self.assertEqual(ctl.line(), expected)
        ctl.expect("quit now", b"221 Goodbye.\r\n")
        ctl.expect_eof()

    def test_a_client_gone_in_the_middle_of_a_line(self):
        ctl = self.server.connect()
        port = ctl.sock.getsockname()[1]
        ctl.send(b"NOOP")
        ctl.close()
        self.server.wait_log(rf"connection from 127\.0\.0\.1:{port} has been closed\n")
        self.session().quit()


class Login(ServerCase):
    ARGS = CommandTable.ARGS
    FILES = CommandTable.FILES

    def assert_refused(self, ctl, line):
        ctl.expect(line, R430)
        ctl.expect_eof()

    def test_users_from_the_file_and_the_arguments_with_their_rights(self):
        ctl = self.server.connect()
        port = ctl.sock.getsockname()[1]
        ctl.login("alice", "secret")
        self.server.wait_log(rf"{harness.LOG_LINE}user alice logged in from 127\.0\.0\.1:{port}\n")
        ctl.expect("MKD alice", b"250 MKD command successful\r\n")
        ctl.expect("PASS secret", R503)
        ctl.quit()
        for user, password, mkd in (("bob", "hunter2", R532), ("carol", "c p,x", b"250 MKD command successful\r\n"),
                                    (LONG_NAME, "p" * 31, b"250 MKD command successful\r\n"),
                                    ("trail", "pw  ", b"250 MKD command successful\r\n"),
                                    ("anonymus", None, R532)):
            with self.subTest(user=user):
                ctl = self.server.session(user, password)
                ctl.expect(f"MKD {user}-dir", mkd)
                ctl.quit()
        self.server.wait_log(rf"connection accepted from 127\.0\.0\.1:{port}\n")
        self.server.wait_log(rf"connection from 127\.0\.0\.1:{port} has been closed\n")

    def test_refusals_end_the_session(self):
        for user in ("nobody", "Anonymus", "Alice", "x" * 32):
            with self.subTest(user=user):
                self.assert_refused(self.server.connect(), f"USER {user}")
        for user, password in (("alice", "Secret"), ("trail", "pw"), ("cr", "pw"), ("cr", "pw\r"),
                               ("empty", "x")):
            with self.subTest(user=user, password=password):
                ctl = self.server.connect()
                ctl.expect(f"USER {user}", f"331 Password required for {user}\r\n".encode())
                self.assert_refused(ctl, f"PASS {password}")

    def test_state_changes_that_keep_the_session(self):
        ctl = self.server.connect()
        ctl.expect("USER " + "x" * 33, R501)
        ctl.expect("PASS secret", R503)
        ctl.expect("USER empty", b"331 Password required for empty\r\n")
        ctl.expect("PASS", R501)
        ctl.expect("PASS   ", R501)
        ctl.expect("USER alice", b"331 Password required for alice\r\n")
        ctl.expect("PASS  secret", b"230 User alice logged in\r\n")
        ctl.expect("USER bob", b"331 Password required for bob\r\n")
        ctl.expect("MKD x", R332)
        ctl.expect("PASS hunter2", b"230 User bob logged in\r\n")
        ctl.expect("MKD x", R532)
        ctl.expect("USER alice", b"331 Password required for alice\r\n")
        ctl.expect("PASS secret", b"230 User alice logged in\r\n")
        ctl.expect("USER anonymus", b"230 User anonymus logged in\r\n")
        ctl.expect("MKD x", R532)
        ctl.quit()


class OpenMode(ServerCase):
    """Without a user file any name logs in read-write at once."""

    def test_any_name_logs_in_read_write(self):
        for user in ("MixedCase", "x" * 32, "anonymus"):
            with self.subTest(user=user):
                ctl = self.server.connect()
                ctl.expect(f"user {user}", f"230 User {user} logged in\r\n".encode())
                ctl.expect(f"MKD d{len(user)}{user[0]}", b"250 MKD command successful\r\n")
                ctl.expect("PASS x", R503)
                ctl.quit()
        ctl = self.server.connect()
        ctl.expect("USER " + "x" * 33, R501)
        ctl.expect("PWD", R332)
        ctl.quit()


if __name__ == "__main__":
    harness.main()
