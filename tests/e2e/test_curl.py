#!/usr/bin/env python3
"""curl as a real client: a download, an upload and a listing, passive and active, with a user
from the arguments. Skipped with a message when curl is missing.
Usage: test_curl.py FTPD [unittest arguments]"""
import os
import random
import shutil
import subprocess

import harness
from harness import ServerCase
from test_listings import expected, lines_of


class Curl(ServerCase):
    ARGS = ["-p", "{port}", "-S", "none", "ann,rw,pw"]

    def setUp(self):
        if shutil.which("curl") is None:
            self.skipTest("curl is not installed")
        self.url = f"ftp://127.0.0.1:{self.server.port}/"

    def curl(self, *args):
        done = subprocess.run(["curl", "-sS", "--max-time", str(int(harness.WAIT)), "-u", "ann:pw", *args],
                              capture_output=True, timeout=harness.WAIT * 2)
        self.assertEqual(done.returncode, 0, f"curl {args}: {done.stderr.decode(errors='replace')}")
        return done.stdout

    def test_download_upload_and_listing(self):
        content = random.Random(7).randbytes(300000)
        self.server.write("dir/file", content)
        for active in ([], ["-P", "-"], ["-P", "-", "--disable-eprt"]):
            with self.subTest(active=active):
                self.assertEqual(self.curl(*active, self.url + "dir/file"), content)
                local = os.path.join(self.server.tmp, "local")
                with open(local, "wb") as f:
                    f.write(content[::-1])
                name = f"up{len(active)}"
                self.curl(*active, "-T", local, self.url + f"dir/{name}")
                with open(self.server.path("dir", name), "rb") as f:
                    self.assertEqual(f.read(), content[::-1])
                # curl turns the listing's line ends into "\n", as in any ASCII transfer.
                for extra, mode in (([], "LIST"), (["--list-only"], "NLST")):
                    lines = expected(self.server.path("dir"), mode)
                    self.assertEqual(lines_of(self.curl(*active, *extra, self.url + "dir/")),
                                     sorted(line.replace(b"\r\n", b"\n") for line in lines))


if __name__ == "__main__":
    harness.main()
