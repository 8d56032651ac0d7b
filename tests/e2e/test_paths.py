#!/usr/bin/env python3
"""Paths: navigation, the file commands, confinement under ROOT for every command that takes a
path, and the specified risks of the confinement (a sibling whose name extends ROOT's, ".." at
"/", a symbolic link in last position). Usage: test_paths.py FTPD [unittest arguments]"""
import os

import harness
from harness import DaemonCase, ServerCase, fetch, store, read

R250 = {word: f"250 {word} command successful\r\n".encode() for word in ("CWD", "CDUP", "DELE", "MKD", "RMD", "RNTO")}
R350 = b"350 File or directory exists, ready for destination name\r\n"
R504 = b"504 Command not implemented for that parameter.\r\n"
R226 = b"226 Transfer complete\r\n"


def pwd(path):
    return f'257 "{path}" is the current directory\r\n'.encode()


class Paths(ServerCase):
    """ROOT is tmp/root; next to it lie tmp/rootsibling and tmp/outside, and ROOT holds links
    "out" to tmp/outside and "leak" to tmp/outside/secret."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        tmp = cls.server.tmp
        for folder in ("rootsibling", "outside"):
            os.mkdir(os.path.join(tmp, folder))
        for path, content in (("rootsibling/f", b"sibling"), ("outside/secret", b"secret!")):
            with open(os.path.join(tmp, path), "wb") as f:
                f.write(content)
        os.symlink(os.path.join(tmp, "outside"), cls.server.path("out"))
        os.symlink(os.path.join(tmp, "outside", "secret"), cls.server.path("leak"))
        cls.server.write("sub/sub2/file", b"12345")
        cls.server.write("file", b"abc")

    def test_navigation(self):
        os.makedirs(self.server.path('q"d'), exist_ok=True)
        ctl = self.server.session("joe")
        steps = [("PWD", pwd("/")), ("CDUP", R250["CDUP"]), ("PWD", pwd("/")), ("CWD sub", R250["CWD"]),
                 ("CWD sub2/", R250["CWD"]), ("PWD", pwd("/sub/sub2")), ("CDUP x", R250["CDUP"]), ("PWD", pwd("/sub")),
                 ("CWD .", R250["CWD"]), ("PWD", pwd("/sub/.")), ("CDUP", R250["CDUP"]), ("CWD //", R250["CWD"]),
                 ("PWD", pwd("/")), ("CWD sub//sub2", R250["CWD"]), ("PWD", pwd("/sub/sub2")),
                 ("CWD /sub\\sub2", R250["CWD"]), ("PWD", pwd("/sub\\sub2")), ("SIZE file", R504),
                 ("CDUP", R250["CDUP"]), ("PWD", pwd("/")),
                 ("CWD file", b"550 file: No such file or directory\r\n"),
                 ("CWD missing", b"550 missing: No such file or directory\r\n"), ("CWD nodir/x", R504),
                 ("CWD q\"d", R250["CWD"]), ("PWD", pwd('/q"d'))]
        for line, reply in steps:
            ctl.expect(line, reply)
        ctl.quit()

    def test_file_commands(self):
        ctl = self.server.session("joe")
        size_of_dir = os.stat(self.server.path("sub")).st_size
        steps = [("SIZE file", b"213 3\r\n"), ("SIZE /sub/sub2/file", b"213 5\r\n"),
                 ("SIZE sub", f"213 {size_of_dir}\r\n".encode()),
                 ("SIZE missing", b"550 missing: No such file or directory\r\n"), ("SIZE nodir/x", R504),
                 ("MKD made", R250["MKD"]), ("MKD made", b"550 made: Cannot make directory\r\n"),
                 ("MKD nodir/x", R504), ("DELE made", b"550 made: Cannot delete file, or not a file\r\n"),
                 ("RMD sub", b"550 sub: Cannot remove directory\r\n"),
                 ("RMD file", b"550 file: Cannot remove directory\r\n"),
                 ("RMD missing", b"550 missing: Cannot remove directory\r\n")]
        for line, reply in steps:
            ctl.expect(line, reply)
        self.assertEqual(os.stat(self.server.path("made")).st_mode & 0o777, 0o755)
        self.server.write("doomed", b"x")
        for line, reply in (("RMD made", R250["RMD"]), ("DELE doomed", R250["DELE"]),
                            ("DELE doomed", b"550 doomed: Cannot delete file, or not a file\r\n"),
                            ("SYST now", b"215 UNIX Type: L8\r\n"), ("NOOP x y", b"200 NOOP command successful\r\n")):
            ctl.expect(line, reply)
        ctl.send("FEAT x\r\n")
        self.assertEqual(ctl.lines_until(b"211 "), [b"211-Features:\r\n", b" MLSD\r\n", b" SIZE\r\n", b"211 End\r\n"])
        self.assertFalse(os.path.exists(self.server.path("made")) or os.path.exists(self.server.path("doomed")))
        ctl.quit()

    def test_every_path_command_is_confined(self):
        ctl = self.server.session("joe")
        escapes = ["../x", "/../x", "..\\x", "sub/../../x", "out/secret", "out/new", "/../outside/secret"]
        for path in escapes:
            for command in ("CWD", "SIZE", "DELE", "MKD", "RMD"):
                with self.subTest(command=command, path=path):
                    ctl.expect(f"{command} {path}", R504)
            for command in ("RETR", "STOR", "LIST", "NLST", "MLSD"):
                with self.subTest(command=command, path=path):
                    self.assertEqual(fetch(ctl, f"{command} {path}"), (R504, b"", None))
            with self.subTest(command="RNFR/RNTO", path=path):
                ctl.expect(f"RNFR {path}", R350)
                ctl.expect("RNTO inside", R504)
                ctl.expect("RNFR file", R350)
                ctl.expect(f"RNTO {path}", R504)
        self.assertEqual(sorted(os.listdir(os.path.join(self.server.tmp, "outside"))), ["secret"])
        self.assertFalse(os.path.exists(os.path.join(self.server.tmp, "x")))
        self.assertTrue(os.path.exists(self.server.path("file")))
        ctl.quit()

    def test_specified_risks(self):
        ctl = self.server.session("joe")
        # The prefix test is bare: a sibling whose name extends ROOT's is inside.
        ctl.expect("SIZE ../rootsibling/f", b"213 7\r\n")
        self.assertEqual(fetch(ctl, "RETR ../rootsibling/f")[1], b"sibling")
        self.assertEqual(store(ctl, "../rootsibling/new", b"written")[1], R226)
        self.assertEqual(read(os.path.join(self.server.tmp, "rootsibling", "new")), b"written")
        # A link in last position is followed, also out of ROOT; one in the directory part is not.
        ctl.expect("SIZE leak", b"213 7\r\n")
        self.assertEqual(fetch(ctl, "RETR leak")[1], b"secret!")
        ctl.expect("CWD out", R250["CWD"])
        self.assertEqual(fetch(ctl, "NLST")[1].split(b"\r\n")[:-1].count(b"secret"), 1)
        self.assertEqual(fetch(ctl, "RETR secret"), (R504, b"", None))
        ctl.expect("CDUP", R250["CDUP"])
        # CWD ".." at "/" passes, and the root's parent is listed; below it nothing passes.
        ctl.expect("CWD ..", R250["CWD"])
        ctl.expect("PWD", pwd("/.."))
        names = fetch(ctl, "NLST")[1].split(b"\r\n")
        self.assertTrue({b"root", b"rootsibling", b"outside"} <= set(names), names)
        ctl.expect("SIZE outside", R504)
        ctl.expect("CWD outside", R504)
        ctl.expect("CDUP", R250["CDUP"])
        ctl.expect("PWD", pwd("/"))
        ctl.quit()


class RootOfAll(DaemonCase):
    def test_a_root_of_slash_lets_every_path_pass(self):
        server = self.start(root="/")
        path = os.path.join(server.tmp, "f")
        with open(path, "wb") as f:
            f.write(b"1234")
        ctl = server.session("joe")
        ctl.expect(f"SIZE {path}", b"213 4\r\n")
        ctl.expect(f"CWD {server.tmp}", R250["CWD"])
        self.assertEqual(fetch(ctl, "RETR ../" + os.path.basename(server.tmp) + "/f")[1], b"1234")
        ctl.quit()


if __name__ == "__main__":
    harness.main()
