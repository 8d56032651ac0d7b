#!/usr/bin/env python3
"""Data connections and transfers: PASV, PORT and LPRT with their parsing and the rules on which
refusals drop a prepared connection, RETR and STOR of edge sizes and 64 MiB in every mode compared
by hash, TYPE, transfer time-out, a full file system and clients that vanish mid-transfer.
Usage: test_data.py FTPD [unittest arguments]"""
import ftplib
import hashlib
import os
import random
import socket
import struct
import time

import harness
from harness import PASV_REPLY, WAIT, Data, ServerCase, fetch, read, store

R425 = b"425 Can't open data connection.\r\n"
R426 = b"426 Connection closed; transfer aborted.\r\n"
R501 = b"501 Syntax error in parameters or arguments.\r\n"
R502 = b"502 Command not implemented.\r\n"
R503 = b"503 Bad sequence of commands.\r\n"
R504 = b"504 Command not implemented for that parameter.\r\n"
R521 = b"521 Supported address families are (4).\r\n"
R226 = b"226 Transfer complete\r\n"
SEED = 20261123
BIG = 64 << 20


def payload(size, salt=0):
    return random.Random(SEED + size + salt).randbytes(size)


def opening(word, command):
    return f"150 Opening {word} mode data connection for {command}\r\n".encode()


def refused(address):
    """True when nothing listens at `address` any more."""
    try:
        socket.create_connection(address, timeout=WAIT).close()
    except ConnectionRefusedError:
        return True
    return False


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").hexdigest()


def abort(sock):
    """Close with a reset, as a client that vanishes does."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


class Preparation(ServerCase):
    ARGS = ["-p", "{port}", "-S", "none", "rw,rw,pw", "ro,ro,pw"]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.server.write("f", b"file f\n")

    def retr_f(self, ctl, data):
        self.assertEqual(fetch(ctl, "RETR f", data), (opening("ASCII", "RETR"), b"file f\n", R226))

    def test_a_second_preparation_is_refused_and_the_first_still_works(self):
        ctl = self.server.session("rw", "pw")
        for mode in ("pasv", "port", "lprt"):
            with self.subTest(mode=mode):
                data = Data(ctl, mode)
                for line in ("PASV", "PASV x", "PORT 127,0,0,1,1,1", "LPRT 4,4,127,0,0,1,2,1,1"):
                    ctl.expect(line, R503)
                self.retr_f(ctl, data)
                ctl.expect("RETR f", R503)
        ctl.quit()

    def test_the_227_line_names_the_control_connection_address_and_splits_the_port(self):
        ctl = self.server.connect("127.0.0.2")
        ctl.login("rw", "pw")
        reply = ctl.cmd("PASV with an argument")
        numbers = [int(n) for n in PASV_REPLY.fullmatch(reply).groups()]
        self.assertEqual(numbers[:4], [127, 0, 0, 2], reply)
        self.retr_f(ctl, Data.at(("127.0.0.2", numbers[4] * 256 + numbers[5])))
        ctl.quit()

    def test_port_and_lprt_parsing(self):
        ctl = self.server.session("rw", "pw")
        bad = [("PORT 127,0,0,1,1", R501), ("PORT 127,0,0,1,1,", R501), ("PORT 127,0,0,1,-1,1", R501),
               ("PORT 4294967295,0,0,1,1,1", R501), ("PORT 127,0,0,1,1,-1", R501), ("LPRT 4", R501),
               ("LPRT -1,4,127,0,0,1,2,1,1", R501), ("LPRT 6,16,1,2,3,4,2,1,0", R521),
               ("LPRT x,4,1,2,3,4,2,1,0", R521), ("LPRT 4,16,1,2,3,4,2,1,0", R501),
               ("LPRT 4,4,1,2,3,4,3,1,0,0", R501), ("LPRT 4,4,1,2,3", R501), ("LPRT 4,4,1,2,3,4,2,1,-1", R501)]
        for line, reply in bad:
            with self.subTest(line=line):
                ctl.expect(line, reply)
                ctl.expect("RETR f", R503)
        ctl.expect("PORT 300,1,1,1,1,1", b"200 PORT command successful\r\n")  # 44.1.1.1, never connected
        ctl.expect("XYZZY", R502)
        # A connect that fails: 425, and the preparation is gone.
        closed = harness.free_port()
        ctl.expect(f"PORT 127,0,0,1,{closed >> 8},{closed & 255}", b"200 PORT command successful\r\n")
        ctl.expect("RETR f", R425)
        ctl.expect("RETR f", R503)
        # Each number keeps its low 8 bits, tokens behind the sixth are ignored, a token that is no
        # number is 0 (and 0.0.0.0 reaches this host), and any address is taken.
        for template, host in (("PORT 127,0,0,1,{hi},{lo},99", "127.0.0.1"),
                               ("PORT 383,256,512,257,{hi256},{lo256}", "127.0.0.1"),
                               ("PORT a,b,c,d,{hi},{lo}", "127.0.0.1"),
                               ("PORT 127,0,0,2,{hi},{lo}", "127.0.0.2"),
                               ("LPRT 4,4,127,0,0,2,2,{hi},{lo}", "127.0.0.2")):
            with self.subTest(line=template):
                listener = socket.create_server((host, 0))
                port = listener.getsockname()[1]
                line = template.format(hi=port >> 8, lo=port & 255, hi256=256 + (port >> 8), lo256=256 + (port & 255))
                ctl.expect(line, f"200 {line[:4]} command successful\r\n".encode())
                ctl.send("RETR f\r\n")
                with Data.on(listener).connect() as sock:
                    self.assertNotEqual(sock.getpeername()[1], 20)
                    self.assertEqual((ctl.line(), harness.recv_all(sock), ctl.line()),
                                     (opening("ASCII", "RETR"), b"file f\n", R226))
        ctl.quit()

    def test_which_refusals_drop_a_prepared_connection(self):
        ctl = self.server.session("rw", "pw")
        # Refusals of the command loop and unknown words drop it.
        for line, reply in (("CWD", R501), ("RETR", R501), ("RNTO x", R503), ("XYZZY", R502)):
            with self.subTest(line=line):
                data = Data(ctl, "pasv")
                ctl.expect(line, reply)
                ctl.expect("NOOP", b"200 NOOP command successful\r\n")
                self.assertTrue(refused(data.address), f"the passive socket is still open after {line}")
                ctl.expect("RETR f", R503)
        # An unknown word closes it before its 502 goes out.
        data = Data(ctl, "pasv")
        ctl.expect("XYZZY", R502)
        self.assertTrue(refused(data.address))
        data = Data(ctl, "port")
        ctl.expect("XYZZY", R502)
        ctl.expect("RETR f", R503)
        data.listener.close()
        # Refusals of a handler, and commands that run, leave it.
        data = Data(ctl, "pasv")
        for line, reply in (("CWD missing", b"550 missing: No such file or directory\r\n"),
                            ("TYPE x", R504), ("TYPE AN", R501), ("SIZE f", b"213 7\r\n"),
                            ("MKD no/such", R504), ("NOOP", b"200 NOOP command successful\r\n"),
                            ("PWD", b'257 "/" is the current directory\r\n'),
                            ("CDUP", b"250 CDUP command successful\r\n")):
            ctl.expect(line, reply)
        self.retr_f(ctl, data)
        ctl.quit()
        # A read-only user's STOR is refused by the loop: the preparation is gone.
        ctl = self.server.session("ro", "pw")
        data = Data(ctl, "pasv")
        ctl.expect("STOR x", b"532 Need account for storing files.\r\n")
        ctl.expect("RETR f", R503)
        self.assertTrue(refused(data.address))
        self.retr_f(ctl, Data(ctl, "pasv"))
        ctl.quit()

    def test_the_first_connector_to_a_passive_socket_gets_the_data(self):
        ctl = self.server.session("rw", "pw")
        data = Data(ctl, "pasv")
        intruder = socket.create_connection(data.address, timeout=WAIT)
        with data.connect() as ours:
            ctl.send("RETR f\r\n")
            self.assertEqual(ctl.line(), opening("ASCII", "RETR"))
            self.assertEqual(harness.recv_all(intruder), b"file f\n")
            self.assertEqual(ctl.line(), R226)
            self.assertEqual(harness.recv_all(ours), b"")
        intruder.close()
        ctl.quit()


class Transfers(ServerCase):
    def test_edge_sizes_in_every_mode_and_direction(self):
        ctl = self.server.session("joe")
        for size in (0, 4095, 4096, 4097):
            content = payload(size)
            self.server.write(f"in{size}", content)
            for mode in ("pasv", "port", "lprt"):
                with self.subTest(size=size, mode=mode):
                    self.assertEqual(fetch(ctl, f"RETR in{size}", mode),
                                     (opening("ASCII", "RETR"), content, R226))
                    name = f"out{size}{mode}"
                    self.assertEqual(store(ctl, name, content, mode), (opening("ASCII", "STOR"), R226))
                    self.assertEqual(read(self.server.path(name)), content)
        self.assertEqual(os.stat(self.server.path("out0pasv")).st_mode & 0o777, 0o644)
        ctl.quit()

    def test_64_mib_in_every_mode_and_direction(self):
        content = payload(BIG)
        digest = hashlib.sha256(content).hexdigest()
        self.server.write("big", content)
        for passive in (True, False):
            with self.subTest(client="ftplib", passive=passive):
                with ftplib.FTP() as ftp:
                    ftp.connect("127.0.0.1", self.server.port, timeout=WAIT)
                    ftp.login("joe", "")
                    ftp.set_pasv(passive)
                    got = hashlib.sha256()
                    ftp.retrbinary("RETR big", got.update, blocksize=1 << 16)
                    self.assertEqual(got.hexdigest(), digest)
                    name = f"big{passive}"
                    with open(self.server.path("big"), "rb") as f:
                        self.assertTrue(ftp.storbinary(f"STOR {name}", f, blocksize=1 << 16).startswith("226"))
                    self.assertEqual(sha256_of(self.server.path(name)), digest)
        with self.subTest(client="raw", mode="lprt"):
            ctl = self.server.session("joe")
            first, body, last = fetch(ctl, "RETR big", "lprt")
            self.assertEqual((first, len(body), hashlib.sha256(body).hexdigest(), last),
                             (opening("ASCII", "RETR"), BIG, digest, R226))
            self.assertEqual(store(ctl, "biglprt", content, "lprt"), (opening("ASCII", "STOR"), R226))
            self.assertEqual(sha256_of(self.server.path("biglprt")), digest)
            ctl.quit()

    def test_type_changes_only_the_word_of_the_150_line(self):
        content = b"line one\r\nline two\nbare\rend\x00\xff"
        self.server.write("text", content)
        ctl = self.server.session("joe")
        for line, reply in (("TYPE a", R504), ("TYPE L", R504), ("TYPE AN", R501), ("TYPE A N", R501),
                            ("TYPE L 8", R501), ("TYPE I", b"200 Type set to I\r\n")):
            ctl.expect(line, reply)
        self.assertEqual(fetch(ctl, "RETR text"), (opening("BINARY", "RETR"), content, R226))
        self.assertEqual(store(ctl, "text2", content), (opening("BINARY", "STOR"), R226))
        ctl.expect("TYPE i", R504)
        self.assertEqual(fetch(ctl, "RETR text")[0], opening("BINARY", "RETR"))
        ctl.expect("TYPE A", b"200 Type set to A\r\n")
        self.assertEqual(fetch(ctl, "RETR text2"), (opening("ASCII", "RETR"), content, R226))
        ctl.quit()

    def test_failures_after_the_data_connection_is_made(self):
        os.makedirs(self.server.path("sub"), exist_ok=True)
        self.server.write("old", b"old content")
        ctl = self.server.session("joe")
        for command, first in (("RETR missing", b"550 missing: No such file or directory\r\n"),
                               ("RETR ../x", R504), ("RETR nodir/x", R504),
                               ("STOR nodir/x", R504), ("STOR sub", b"550 sub: Is a directory\r\n")):
            with self.subTest(command=command):
                self.assertEqual(fetch(ctl, command), (first, b"", None))
                ctl.expect("RETR old", R503)
        self.assertFalse(os.path.exists(self.server.path("nodir")))
        self.assertEqual(fetch(ctl, "RETR sub"), (opening("ASCII", "RETR"), b"", R426))
        self.assertEqual(store(ctl, "old", b""), (opening("ASCII", "STOR"), R226))
        self.assertEqual(os.path.getsize(self.server.path("old")), 0)
        ctl.quit()

    def test_a_reader_that_drops_the_data_connection_gets_426(self):
        content = payload(16 << 20, 2)
        self.server.write("drop", content)
        ctl = self.server.session("joe")
        data = Data(ctl, "pasv")
        ctl.send("RETR drop\r\n")
        sock = data.connect()
        self.assertEqual(ctl.line(), opening("ASCII", "RETR"))
        self.assertEqual(sock.recv(4096)[:4], content[:4])
        abort(sock)
        self.assertEqual(ctl.line(), R426)
        ctl.expect("RETR drop", R503)
        ctl.quit()

    def test_stor_to_a_full_file_system(self):
        os.symlink("/dev/full", self.server.path("full"))
        ctl = self.server.session("joe")
        data = Data(ctl, "pasv")
        ctl.send("STOR full\r\n")
        with data.connect() as sock:
            self.assertEqual(ctl.line(), opening("ASCII", "STOR"))
            try:
                sock.sendall(payload(1 << 16))
                sock.shutdown(socket.SHUT_WR)
            except OSError:  # the server may have closed already: it stops at the first failed write
                pass
            self.assertEqual(ctl.line(), R426)
        ctl.expect("NOOP", b"200 NOOP command successful\r\n")
        ctl.quit()


class Interruptions(ServerCase):
    ARGS = ["-L", "1", "-t", "1", "-p", "{port}"]

    def next_client(self):
        """The one place comes back once the vanished client's session has ended."""
        def greeted():
            ctl = self.server.connect(greet=False)
            if ctl.line() == harness.GREETING:
                return ctl
            ctl.close()
        ctl = harness.bounded(greeted, "a greeting for the next client after one vanished")
        ctl.login("joe")
        return ctl

    def test_a_stalled_sender_meets_the_transfer_time_out(self):
        ctl = self.server.session("joe")
        for sent in (b"", b"x" * 100):
            with self.subTest(sent=len(sent)):
                data = Data(ctl, "pasv")
                ctl.send("STOR slow\r\n")
                with data.connect() as sock:
                    self.assertEqual(ctl.line(), opening("ASCII", "STOR"))
                    sock.sendall(sent)
                    started = time.monotonic()
                    self.assertEqual(ctl.line(), R426)
                    self.assertGreater(time.monotonic() - started, 0.9)
                self.assertEqual(read(self.server.path("slow")), sent)
        ctl.expect("NOOP", b"200 NOOP command successful\r\n")
        ctl.quit()

    def test_clients_vanishing_mid_transfer(self):
        content = payload(16 << 20, 1)
        self.server.write("big", content)
        ctl = self.server.session("joe")
        data = Data(ctl, "pasv")
        ctl.send("RETR big\r\n")
        sock = data.connect()
        self.assertEqual(ctl.line(), opening("ASCII", "RETR"))
        self.assertEqual(sock.recv(1 << 16)[:4], content[:4])
        abort(sock)
        abort(ctl.sock)
        ctl = self.next_client()
        data = Data(ctl, "pasv")
        ctl.send("STOR part\r\n")
        sock = data.connect()
        self.assertEqual(ctl.line(), opening("ASCII", "STOR"))
        sock.sendall(content[:100000])
        abort(sock)
        abort(ctl.sock)
        ctl = self.next_client()
        self.assertEqual(fetch(ctl, "RETR big"), (opening("ASCII", "RETR"), content, R226))
        self.assertTrue(content.startswith(read(self.server.path("part"))))
        ctl.quit()


if __name__ == "__main__":
    harness.main()
