"""Shared pieces of the end-to-end suites: start the real ftpd on a free loopback port with a
temporary ROOT, talk to it over raw sockets with bounded waits, and prepare data connections.
Every wait is bounded by WAIT seconds and then fails the test with a message."""
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

FTPD = None
WAIT = 10.0
GREETING = b"220 Welcome to Orlix FTPD.\r\n"
PASV_REPLY = re.compile(rb"227 Entering Passive Mode \((\d+),(\d+),(\d+),(\d+),(\d+),(\d+)\)\.\r\n")
LOG_LINE = r"ftpd\[\d+\]: "


def main():
    """Run the suite of the calling file: python3 SUITE.py FTPD [unittest arguments]."""
    global FTPD
    if len(sys.argv) < 2:
        sys.exit(f"usage: {sys.argv[0]} FTPD [unittest arguments]")
    FTPD = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)


def free_port():
    with socket.socket() as s:
        s.bind(("0.0.0.0", 0))
        return s.getsockname()[1]


def bounded(predicate, what, wait=WAIT):
    """Poll predicate until it gives a true value, and fail with `what` after `wait` seconds."""
    deadline = time.monotonic() + wait
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: still not so after {wait} s")
        time.sleep(0.02)


SANITIZER_NOTE = re.compile(r"==\d+==WARNING: ASan doesn't fully support makecontext/swapcontext [^\n]*\n")


def without_sanitizer_note(text):
    """The output less the one warning that AddressSanitizer builds print at the first stack
    switch; anything else a sanitizer says stays and fails the comparison."""
    return SANITIZER_NOTE.sub("", text)


def run_ftpd(*args, cwd=None, merge=False):
    """Run ftpd to its end (start-up failures, usage): status, standard output, standard error
    (with `merge`, both in the first)."""
    try:
        done = subprocess.run([FTPD, *args], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT if merge else subprocess.PIPE, timeout=WAIT, cwd=cwd)
    except subprocess.TimeoutExpired:
        raise AssertionError(f"ftpd {args} kept running; it was expected to end by itself")
    return (done.returncode, without_sanitizer_note(done.stdout.decode(errors="replace")),
            without_sanitizer_note((done.stderr or b"").decode(errors="replace")))


class Server:
    """One ftpd process serving a temporary ROOT. `args` go behind ROOT; "{port}" in them is
    replaced by the chosen port, and without `args` the daemon gets "-p PORT". Its standard
    error (the log) goes to a file that `log()` reads. `files` (name: bytes) are written to the
    temporary folder, the daemon's working directory at start, before it starts. `port` is where
    the daemon is expected to listen, by default a free one; `tmpdir` where the temporary folder
    is made."""

    def __init__(self, args=None, root=None, root_arg=None, files=None, env=None, probe=True, port=None,
                 tmpdir=None):
        self.tmp = tempfile.mkdtemp(prefix="ftpd-e2e-", dir=tmpdir)
        for name, content in (files or {}).items():
            with open(os.path.join(self.tmp, name), "wb") as f:
                f.write(content)
        self.root = root if root is not None else os.path.join(self.tmp, "root")
        if root is None:
            os.mkdir(self.root)
        self.port = port or free_port()
        args = ["-p", "{port}"] if args is None else args
        argv = [FTPD, self.root if root_arg is None else root_arg,
                *(a.replace("{port}", str(self.port)) for a in args)]
        self.log_path = os.path.join(self.tmp, "stderr")
        self.final_log = None
        with open(self.log_path, "wb") as log:
            self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                         stderr=log, cwd=self.tmp, env=env, umask=0o022)
        self.wait_listening(probe)

    def wait_listening(self, probe):
        """Wait until the listener takes connections. With `probe`, one session is greeted and
        quits, and its place is back once the server has closed it."""
        deadline = time.monotonic() + WAIT
        while True:
            if self.proc.poll() is not None:
                raise AssertionError(f"ftpd ended with {self.proc.returncode} at start: {self.log()!r}")
            try:
                sock = socket.create_connection(("127.0.0.1", self.port), timeout=WAIT)
                break
            except ConnectionRefusedError:
                if time.monotonic() > deadline:
                    raise AssertionError(f"ftpd does not listen on {self.port} after {WAIT} s")
                time.sleep(0.02)
        ctl = Control(self.port, sock=sock, greet=False)
        if probe:
            if ctl.line() == GREETING:
                ctl.expect("QUIT", b"221 Goodbye.\r\n")
            ctl.expect_eof()
        ctl.close()

    def log(self):
        """The standard error so far; after stop, all of it."""
        if self.final_log is not None:
            return self.final_log
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def wait_log(self, pattern):
        """The first match of the regular expression `pattern` in the log, waited for."""
        return bounded(lambda: re.search(pattern, self.log()), f"log line /{pattern}/ in {self.log()!r}")

    def connect(self, host="127.0.0.1", greet=True):
        return Control(self.port, host=host, greet=greet)

    def session(self, user="joe", password=None, host="127.0.0.1"):
        """A greeted control connection, logged in."""
        ctl = self.connect(host)
        ctl.login(user, password)
        return ctl

    def stop(self):
        """SIGTERM the daemon, remove the temporary tree, and return the exit status."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        try:
            status = self.proc.wait(WAIT)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            status = "no end within the bound after SIGTERM"
        self.final_log = self.log()
        for top, dirs, _ in os.walk(self.tmp):
            for d in dirs:
                if not os.path.islink(os.path.join(top, d)):
                    os.chmod(os.path.join(top, d), 0o755)
        shutil.rmtree(self.tmp, ignore_errors=True)
        return status

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def write(self, name, data=b""):
        """Create a file under ROOT and return its host path."""
        full = self.path(name)
        os.makedirs(os.path.dirname(full), exist_ok=True)
        with open(full, "wb") as f:
            f.write(data)
        return full


class ServerCase(unittest.TestCase):
    """A test class with one daemon for all its tests; ARGS and FILES as in Server. The daemon
    must still be running at the end and end with status 143 on SIGTERM."""
    ARGS = None
    FILES = None

    @classmethod
    def setUpClass(cls):
        cls.server = Server(cls.ARGS, files=cls.FILES)

    @classmethod
    def tearDownClass(cls):
        status = cls.server.stop()
        if status != 143:
            raise AssertionError(f"ftpd ended with {status} on SIGTERM, expected 143; log: {cls.server.log()!r}")


class DaemonCase(unittest.TestCase):
    """Tests that start daemons of their own: each must end with 143 on SIGTERM afterwards."""

    def start(self, args=None, **kwargs):
        server = Server(args, **kwargs)
        self.addCleanup(self.stop, server)
        return server

    def stop(self, server):
        status = server.stop()
        self.assertEqual(status, 143, f"status on SIGTERM; log: {server.log()!r}")


class Control:
    """A control connection read line by line, each read bounded by WAIT."""

    def __init__(self, port, host="127.0.0.1", sock=None, greet=True):
        self.sock = sock or socket.create_connection((host, port), timeout=WAIT)
        self.sock.settimeout(WAIT)
        self.buf = b""
        self.last = None
        if greet:
            got = self.line()
            if got != GREETING:
                raise AssertionError(f"greeting {got!r}, expected {GREETING!r}")

    def send(self, data):
        if isinstance(data, str):
            data = data.encode()
        self.last = data
        self.sock.sendall(data)

    def line(self):
        """The next reply line, "\\r\\n" included."""
        while b"\n" not in self.buf:
            try:
                chunk = self.sock.recv(4096)
            except socket.timeout:
                raise AssertionError(f"no reply line within {WAIT} s after {self.last!r}; have {self.buf!r}")
            except ConnectionResetError:
                chunk = b""
            if not chunk:
                raise AssertionError(f"connection closed after {self.last!r}; have {self.buf!r}")
            self.buf += chunk
        line, _, self.buf = self.buf.partition(b"\n")
        return line + b"\n"

    def cmd(self, text):
        """Send one command line ("\\r\\n" added) and return the reply line."""
        self.send(text + "\r\n")
        return self.line()

    def expect(self, text, reply):
        got = self.cmd(text)
        if got != reply:
            raise AssertionError(f"{text!r} drew {got!r}, expected {reply!r}")

    def lines_until(self, prefix):
        """Reply lines up to and including the first that starts with `prefix`."""
        lines = [self.line()]
        while not lines[-1].startswith(prefix):
            lines.append(self.line())
        return lines

    def expect_eof(self):
        """The server closes the connection, with no further bytes; ours is closed then too."""
        deadline = time.monotonic() + WAIT
        while True:
            try:
                chunk = self.sock.recv(4096)
            except socket.timeout:
                raise AssertionError(f"connection still open {WAIT} s after {self.last!r}")
            except ConnectionResetError:
                chunk = b""
            if not chunk:
                break
            self.buf += chunk
            if time.monotonic() > deadline:
                raise AssertionError(f"connection still sending after {self.last!r}")
        self.sock.close()
        if self.buf:
            raise AssertionError(f"bytes before the close: {self.buf!r}")

    def login(self, user, password=None):
        reply = self.cmd(f"USER {user}")
        if password is not None:
            expected = f"331 Password required for {user}\r\n".encode()
            if reply != expected:
                raise AssertionError(f"USER {user} drew {reply!r}")
            reply = self.cmd(f"PASS {password}")
        if reply != f"230 User {user} logged in\r\n".encode():
            raise AssertionError(f"login of {user} drew {reply!r}")

    def quit(self):
        self.expect("QUIT", b"221 Goodbye.\r\n")
        self.expect_eof()

    def close(self):
        self.sock.close()


def read(path):
    with open(path, "rb") as f:
        return f.read()


def recv_all(sock):
    """Everything up to the peer's close, bounded per read."""
    parts = []
    while True:
        try:
            chunk = sock.recv(1 << 20)
        except socket.timeout:
            raise AssertionError(f"data connection neither sent nor closed for {WAIT} s")
        except ConnectionResetError:
            break
        if not chunk:
            break
        parts.append(chunk)
    return b"".join(parts)


class Data:
    """One data connection prepared on `ctl`: "pasv", or active by "port" or "lprt" to a listener
    of our own on `host`."""

    def __init__(self, ctl, mode="pasv", host="127.0.0.1"):
        self.mode = mode
        if mode == "pasv":
            reply = ctl.cmd("PASV")
            m = PASV_REPLY.fullmatch(reply)
            if not m:
                raise AssertionError(f"PASV drew {reply!r}")
            n = [int(x) for x in m.groups()]
            self.address = (".".join(map(str, n[:4])), n[4] << 8 | n[5])
            return
        self.listener = socket.create_server((host, 0))
        self.listener.settimeout(WAIT)
        port = self.listener.getsockname()[1]
        hosts = host.replace(".", ",")
        if mode == "port":
            ctl.expect(f"PORT {hosts},{port >> 8},{port & 255}", b"200 PORT command successful\r\n")
        else:
            ctl.expect(f"LPRT 4,4,{hosts},2,{port >> 8},{port & 255}", b"200 LPRT command successful\r\n")

    @classmethod
    def at(cls, address):
        """A passive connection whose address the test has taken from a 227 line itself."""
        data = cls.__new__(cls)
        data.mode, data.address = "pasv", address
        return data

    @classmethod
    def on(cls, listener):
        """An active connection to `listener`, announced by the test itself."""
        data = cls.__new__(cls)
        data.mode, data.listener = "port", listener
        listener.settimeout(WAIT)
        return data

    def connect(self):
        """Our end of the data connection: connect to the passive port, or take the server's."""
        if self.mode == "pasv":
            return socket.create_connection(self.address, timeout=WAIT)
        try:
            sock, _ = self.listener.accept()
        except socket.timeout:
            raise AssertionError(f"the server did not connect to our {self.mode} listener within {WAIT} s")
        finally:
            self.listener.close()
        sock.settimeout(WAIT)
        return sock


def prepared(ctl, data):
    return Data(ctl, data) if isinstance(data, str) else data


def fetch(ctl, command, data="pasv"):
    """Run a command that sends on a data connection (RETR, LIST, ...) on `data`, a Data or the
    mode of a new one: its first reply line, the bytes received and its last reply line (None
    when the first was not 150)."""
    data = prepared(ctl, data)
    ctl.send(command + "\r\n")
    with data.connect() as sock:
        first = ctl.line()
        body = recv_all(sock)
    return first, body, ctl.line() if first.startswith(b"150") else None


def store(ctl, name, payload, data="pasv"):
    """STOR `payload` as `name` on `data` as in fetch: the first and the last reply line."""
    data = prepared(ctl, data)
    ctl.send(f"STOR {name}\r\n")
    with data.connect() as sock:
        first = ctl.line()
        if not first.startswith(b"150"):
            return first, None
        sock.sendall(payload)
        sock.shutdown(socket.SHUT_WR)
        last = ctl.line()
    return first, last
