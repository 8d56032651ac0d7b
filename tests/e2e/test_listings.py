#!/usr/bin/env python3
"""LIST, NLST and MLSD compared line by line with what os.lstat says of each entry, for every
kind of file and the edges of each field, plus option words, failures and link targets.
Usage: test_listings.py FTPD [unittest arguments]"""
import os
import socket
import stat
import subprocess
import sys
import time

import harness
from harness import DaemonCase, Server, ServerCase, fetch

MONTHS = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"]
LIST_TYPES = {0x1000: "p", 0x2000: "c", 0x4000: "d", 0x6000: "b", 0x8000: "-", 0xa000: "l", 0xc000: "s"}
MLSD_TYPES = {0x8000: "file", 0x4000: "dir", 0x2000: "OS.unix=char", 0x6000: "OS.unix=block",
              0x1000: "OS.unix=fifo", 0xc000: "OS.unix=socket"}
R226 = b"226 Transfer complete\r\n"
NOTES_LIST = b"-rw-r--r-- 1 1000     100                 5120 Mar  7 2026 notes.txt\r\n"
# Lines written out by hand as a check on the generators below; they take the files to be root's.
PINNED_LIST = [NOTES_LIST,
               b"crw-rw-rw- 1 0        0              1,      3 Jan  1 1970 null\r\n",
               b"brw-rw---- 1 0        0            259,1048575 Jan 15 2026 blk\r\n",
               b"-rw-r--r-- 1 4294967294 4294967294               0 Mar  5 2025 nobody\r\n",
               b"-rwxr-xr-x 1 0        0                      0 Jan 15 2026 setid\r\n",
               b"-rw-r--r-- 1 0        0        1000000000000000 Jan 15 2026 huge\r\n",
               b"-rw-r--r-- 1 0        0                      0 Jan  1 12000 far\r\n"]
PINNED_MLSD = [rb"Type=file;Modify=20260115120000\.999;(Create=[0-9.]+;)?Perm=wdfr;Size=0; ms999\r\n",
               rb"Type=file;Modify=20260115120000\.001;(Create=[0-9.]+;)?Perm=wdfr;Size=0; ms1\r\n",
               rb"Type=file;Modify=20260115120000;(Create=[0-9.]+;)?Perm=wdfr;Size=0; ns999999\r\n",
               rb"Type=file;Modify=20000101000000;(Create=[0-9.]+;)?Perm=wdfr;Size=0; far\r\n",
               rb"Type=file;Modify=19691222000000;(Create=[0-9.]+;)?Perm=wdfr;Size=0; old\r\n",
               rb"Type=file;Modify=[0-9.]+;(Create=[0-9.]+;)?Perm=wdf;Size=0; writeonly\r\n",
               rb"Type=file;Modify=[0-9.]+;(Create=[0-9.]+;)?Perm=r;Size=0; readonly\r\n",
               rb"Type=dir;Modify=[0-9.]+;(Create=[0-9.]+;)?Perm=cmpdf;Size=[0-9]+; shut\r\n",
               rb"Type=OS\.unix=char;Modify=19700101000000;(Create=[0-9.]+;)?Perm=df;Size=0; null\r\n",
               rb"Type=OS\.unix=fifo;Modify=[0-9.]+;(Create=[0-9.]+;)?Perm=df;Size=0; fifo\r\n"]


def opening(command, word="ASCII"):
    return f"150 Opening {word} mode data connection for {command}\r\n".encode()


def id16(value):
    """An owner or group as the listing prints it: 16 bits, widened with their sign."""
    value &= 0xffff
    return (value - 0x10000) & 0xffffffff if value & 0x8000 else value


def timeval(ns):
    seconds, nanos = divmod(ns, 10**9)
    t = time.gmtime(seconds)
    text = (f"{max(t.tm_year % 10000, 1000):04}{t.tm_mon:02}{t.tm_mday:02}"
            f"{t.tm_hour:02}{t.tm_min:02}{t.tm_sec:02}")
    return text + (f".{nanos // 10**6:03}" if nanos // 10**6 else "")


def birth_times(paths):
    """Birth times in nanoseconds (0 when the file system keeps none), as statx gives them."""
    out = subprocess.run(["stat", "-c", "%.9W", "--", *paths], capture_output=True, text=True,
                         check=True, timeout=harness.WAIT).stdout.split()
    return {p: int(w.replace(".", "")) if "." in w else int(w) * 10**9 for p, w in zip(paths, out)}


def readable_link(through, name):
    """A link's target as the server reads it, through `through` (a host folder standing for the
    session's current directory), or None when that path reaches no link."""
    if through is None:
        return None
    try:
        return os.readlink(os.path.join(through, name))
    except OSError:
        return None


def list_line(path, name, target):
    st = os.lstat(path)
    kind = st.st_mode & 0xf000
    perms = "".join(ch if st.st_mode & bit else "-" for ch, bit in zip("rwxrwxrwx", (0o400, 0o200, 0o100, 0o40,
                                                                                    0o20, 0o10, 4, 2, 1)))
    if kind & 0xb000 == 0x2000:
        size = f"{os.major(st.st_rdev):7},{os.minor(st.st_rdev):7}"
    else:
        size = f"{st.st_size:15}"
    t = time.gmtime(st.st_mtime_ns // 10**9)
    line = (f"{LIST_TYPES.get(kind, '?')}{perms} 1 {id16(st.st_uid):<8} {id16(st.st_gid):<8} {size} "
            f"{MONTHS[t.tm_mon - 1]} {t.tm_mday:2} {t.tm_year} {name}")
    if kind == 0xa000:
        line += " -> " + (target or "")
    return (line + "\r\n").encode()


def mlsd_line(path, name, write, through, birth):
    st = os.lstat(path)
    kind = st.st_mode & 0xf000
    counted = st
    if name in (".", ".."):
        type_ = "cdir" if name == "." else "pdir"
    elif kind == 0xa000:
        # readlink and stat both go to the path through the current directory; the target shows
        # when both work, and the mode that counts below is what stat gave.
        type_, counted = "OS.unix=slink:", None
        if through is not None and not name.startswith("."):
            target = readable_link(through, name)
            try:
                counted = os.stat(os.path.join(through, name))
            except OSError:
                pass
            if target is not None and counted is not None:
                type_ += target
    else:
        type_ = MLSD_TYPES.get(kind, "OS.unix=?")
    facts = f"Type={type_};Modify={timeval(st.st_mtime_ns)};"
    if birth // 10**9:
        facts += f"Create={timeval(birth)};"
    perm = ""
    if write and st.st_mode & 0o200:
        perm = {0x4000: "cmpdf", 0x8000: "wdf"}.get(kind, "df")
    if counted is not None:
        if stat.S_ISDIR(counted.st_mode) and counted.st_mode & 0o100:
            perm += "el"
        elif stat.S_ISREG(counted.st_mode) and counted.st_mode & 0o400:
            perm += "r"
    return f"{facts}Perm={perm};Size={st.st_size}; {name}\r\n".encode()


def expected(folder, mode, write=True, through=None):
    """The lines a listing of the host folder gives, sorted: "." and ".." included."""
    names = [".", ".."] + os.listdir(folder)
    paths = [os.path.join(folder, n) for n in names]
    births = birth_times(paths) if mode == "MLSD" else {}
    lines = []
    for name, path in zip(names, paths):
        if mode == "LIST":
            lines.append(list_line(path, name, readable_link(through, name)))
        elif mode == "NLST":
            lines.append(name.encode() + b"\r\n")
        else:
            lines.append(mlsd_line(path, name, write, through, births[path]))
    return sorted(lines)


def lines_of(body):
    return sorted(line + b"\n" for line in body.split(b"\n")[:-1])


def at(y, mo, d, h=0, mi=0, s=0):
    """Nanoseconds since the epoch of a UTC time, for any year (the days-from-civil formula)."""
    y -= mo <= 2
    era, yoe = divmod(y, 400)
    doy = (153 * (mo + (-3 if mo > 2 else 9)) + 2) // 5 + d - 1
    days = era * 146097 + yoe * 365 + yoe // 4 - yoe // 100 + doy - 719468
    return ((days * 24 + h) * 60 + mi) * 60 * 10**9 + s * 10**9


def unix_socket(path):
    """A socket file: bound, then closed, which leaves the file."""
    with socket.socket(socket.AF_UNIX) as s:
        s.bind(path)


def make_entries(folder):
    """Every kind of entry and the edges of each listing field; entries the host refuses (not
    root, a file system without huge files) are left out, with a note."""
    def file(name, mode=0o644, mtime=None, size=0, owner=None):
        path = os.path.join(folder, name)
        with open(path, "wb") as f:
            f.truncate(size)
        os.chmod(path, mode)
        if owner:
            os.chown(path, *owner)
        if mtime is not None:
            os.utime(path, ns=(mtime, mtime))

    def node(name, mode, device, mtime):
        path = os.path.join(folder, name)
        os.mknod(path, mode, device)
        os.chmod(path, mode & 0o7777)
        os.utime(path, ns=(mtime, mtime))

    base = at(2026, 1, 15, 12)
    steps = [
        lambda: file("notes.txt", mtime=at(2026, 3, 7, 9, 30), size=5120, owner=(1000, 100)),
        lambda: file("plain"), lambda: file("ms999", mtime=base + 999_000_000),
        lambda: file("ms1", mtime=base + 1_000_000), lambda: file("ns999999", mtime=base + 999_999),
        lambda: file("day5", mtime=at(2025, 3, 5, 23, 59, 59)), lambda: file("old", mtime=-10 * 86400 * 10**9),
        lambda: file("far", mtime=at(12000, 1, 1)), lambda: file("huge", mtime=base, size=10**15),
        lambda: file("nobody", mtime=at(2025, 3, 5), owner=(65534, 65534)),
        lambda: file("wide", owner=(70000, 100000)), lambda: file("setid", 0o7755, mtime=base),
        lambda: file("writeonly", 0o200), lambda: file("readonly", 0o444),
        lambda: file(".hidden"), lambda: file("two  blanks "),
        lambda: os.mkdir(os.path.join(folder, "sub"), 0o755), lambda: os.mkdir(os.path.join(folder, "shut"), 0o600),
        lambda: os.mkfifo(os.path.join(folder, "fifo")),
        lambda: unix_socket(os.path.join(folder, "sock")),
        lambda: node("null", 0o666 | stat.S_IFCHR, os.makedev(1, 3), 0),
        lambda: node("blk", 0o660 | stat.S_IFBLK, os.makedev(259, 1048575), base),
        lambda: os.symlink("notes.txt", os.path.join(folder, "link")),
    ]
    for step in steps:
        try:
            step()
        except OSError as e:
            print(f"note: an entry is left out of the listing tests: {e}", file=sys.stderr)


class Formats(ServerCase):
    """Every field of every kind of entry, on tmpfs where it exists (years past 9999 and sizes of
    16 digits), with a read-write and a read-only user."""
    ARGS = ["-p", "{port}", "-S", "none", "rw,rw,pw", "ro,ro,pw"]

    @classmethod
    def setUpClass(cls):
        cls.server = Server(cls.ARGS, tmpdir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        cls.fmt = cls.server.path("fmt")
        os.mkdir(cls.fmt)
        os.mkdir(cls.server.path("empty"))
        make_entries(cls.fmt)

    def assert_pinned(self, lines, pinned, check):
        """Each hand-written line whose entry exists is among the lines."""
        if os.geteuid() != 0:
            self.skipTest("the hand-written lines take root's files")
        for line in pinned:
            name = line.rsplit(b" ", 1)[1].strip().decode()
            if os.path.lexists(os.path.join(self.fmt, name)):
                with self.subTest(pinned=line):
                    check(line, lines)

    def test_list_and_nlst_of_every_kind_of_entry(self):
        ctl = self.server.session("rw", "pw")
        for mode, data in (("LIST", "pasv"), ("NLST", "pasv"), ("LIST", "port"), ("NLST", "lprt")):
            with self.subTest(mode=mode, data=data):
                first, body, last = fetch(ctl, f"{mode} fmt", data)
                self.assertEqual((first, last), (opening(mode), R226))
                self.assertEqual(lines_of(body), expected(self.fmt, mode))
        self.assert_pinned(lines_of(fetch(ctl, "LIST fmt")[1]), PINNED_LIST, lambda line, got: self.assertIn(line, got))
        ctl.quit()

    def test_mlsd_by_login_rights(self):
        create = birth_times([os.path.join(self.fmt, "notes.txt")])[os.path.join(self.fmt, "notes.txt")]
        create = f"Create={timeval(create)};" if create // 10**9 else ""
        for user, write, perm in (("rw", True, "wdfr"), ("ro", False, "r")):
            with self.subTest(user=user):
                ctl = self.server.session(user, "pw")
                ctl.expect("TYPE I", b"200 Type set to I\r\n")
                first, body, last = fetch(ctl, "MLSD fmt")
                self.assertEqual((first, last), (opening("MLSD", "BINARY"), R226))
                lines = lines_of(body)
                self.assertEqual(lines, expected(self.fmt, "MLSD", write))
                if write:
                    self.assert_pinned(lines, PINNED_MLSD, lambda line, got: self.assertRegex(b"".join(got), line))
                self.assertIn(f"Type=file;Modify=20260307093000;{create}Perm={perm};Size=5120; notes.txt\r\n".encode(),
                              lines)
                ctl.quit()

    def test_option_words_and_paths(self):
        ctl = self.server.session("ro", "pw")
        root = os.path.realpath(self.server.root)
        for command, folder in (("LIST -la", root), ("LIST -la fmt", self.fmt), ("LIST  fmt", self.fmt),
                                ("LIST -la empty", self.server.path("empty")),
                                ("NLST -1 empty", self.server.path("empty")),
                                ("MLSD -x empty", self.server.path("empty")), ("LIST /fmt/../fmt", self.fmt)):
            with self.subTest(command=command):
                first, body, last = fetch(ctl, command)
                self.assertEqual((first, last), (opening(command[:4]), R226))
                self.assertEqual(lines_of(body), expected(folder, command[:4], write=False))
        failures = [("LIST -l -a", b"550 -a: No such file or directory\r\n"),
                    ("LIST -l  fmt", b"550  fmt: No such file or directory\r\n"),
                    ("NLST missing", b"550 missing: No such file or directory\r\n"),
                    ("LIST fmt/notes.txt", f"550 {root}/fmt/notes.txt: Not a directory\r\n".encode()),
                    ("MLSD ./fmt//notes.txt", f"550 {root}/fmt/notes.txt: Not a directory\r\n".encode()),
                    ("LIST ../x", b"504 Command not implemented for that parameter.\r\n"),
                    ("MLSD nodir/x", b"504 Command not implemented for that parameter.\r\n")]
        for command, reply in failures:
            with self.subTest(command=command):
                self.assertEqual(fetch(ctl, command), (reply, b"", None))
                ctl.expect("LIST", b"503 Bad sequence of commands.\r\n")
        ctl.expect("CWD fmt", b"250 CWD command successful\r\n")
        first, body, last = fetch(ctl, "NLST")
        self.assertEqual(lines_of(body), expected(self.fmt, "NLST"))
        ctl.quit()


class LinkTargets(DaemonCase):
    """A link's target is read through the session's virtual current directory as a host path.
    With ROOT "/" that path is the link's own, so targets show; under any other ROOT they only
    show where the virtual path happens to name a link on the host."""

    def setUp(self):
        self.server = self.start()
        self.host = self.start(root="/")

    def test_targets_in_list_and_mlsd(self):
        folder = os.path.join(self.host.tmp, "links")
        os.makedirs(os.path.join(folder, "sub"))
        for name, content in (("file", b"x"), ("decoy", b"yy")):
            with open(os.path.join(folder, name), "wb") as f:
                f.write(content)
        for target, name in (("file", "good"), ("nowhere", "dangling"), ("file", ".dot"), ("sub", "dirlink"),
                             ("decoy", "inner"), ("real", "sub/inner")):
            os.symlink(target, os.path.join(folder, name))
        ctl = self.host.session("joe")
        ctl.expect(f"CWD {folder}", b"250 CWD command successful\r\n")
        sub = os.path.join(folder, "sub")
        for command, listed in (("LIST", folder), ("MLSD", folder), ("LIST sub", sub), ("MLSD sub", sub)):
            with self.subTest(command=command):
                self.assertEqual(lines_of(fetch(ctl, command)[1]), expected(listed, command[:4], through=folder))
        pinned = [("LIST", rb" good -> file\r\n"), ("LIST", rb" \.dot -> file\r\n"),
                  ("LIST sub", rb" inner -> decoy\r\n"),
                  ("MLSD", rb"(^|\n)Type=OS\.unix=slink:file;[^\r]*;Perm=dfr;Size=4; good\r\n"),
                  ("MLSD", rb"(^|\n)Type=OS\.unix=slink:;[^\r]*;Perm=df;Size=4; \.dot\r\n"),
                  ("MLSD", rb"(^|\n)Type=OS\.unix=slink:sub;[^\r]*;Perm=dfel;Size=3; dirlink\r\n"),
                  ("MLSD sub", rb"(^|\n)Type=OS\.unix=slink:decoy;[^\r]*;Perm=dfr;Size=4; inner\r\n")]
        for command, pattern in pinned:
            with self.subTest(command=command, pattern=pattern):
                self.assertRegex(fetch(ctl, command)[1], pattern)
        # The host's "/" may lack a birth time, and then its line has no Create fact.
        line = [l for l in lines_of(fetch(ctl, "MLSD /")[1]) if l.endswith(b" .\r\n")]
        self.assertEqual(line, [mlsd_line("/", ".", True, None, birth_times(["/"])["/"])])
        ctl.quit()
        # Under a ROOT of its own the virtual path "//e2e-link" reaches nothing on the host.
        self.server.write("e2e-file", b"x")
        os.symlink("e2e-file", self.server.path("e2e-link"))
        ctl = self.server.session("joe")
        for command, pattern in (("LIST", rb" e2e-link -> \r\n"),
                                 ("MLSD", rb"(^|\n)Type=OS\.unix=slink:;[^\r]*;Perm=df;Size=8; e2e-link\r\n")):
            with self.subTest(command=command, pattern=pattern):
                self.assertRegex(fetch(ctl, command)[1], pattern)
        ctl.quit()


if __name__ == "__main__":
    harness.main()
