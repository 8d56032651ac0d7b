#!/usr/bin/env python3
"""128 sessions at once, in three waves, each moving data in both directions, every byte checked;
after each wave the daemon's descriptors are back where they started and, once a first wave has
warmed it up, its resident memory too. Usage: test_load.py FTPD [unittest arguments]"""
import os
import random
import threading
import time

import harness
from harness import WAIT, Server, ServerCase, fetch, store

SESSIONS = 128
WAVES = 3
# Allocators keep what a busier moment made them take: between waves of the same load resident
# memory still moves by up to about 4 MiB. A session's own memory is about 40 KiB, so a leak of
# some 24 KiB a session or more shows over two waves.
RSS_TOLERANCE_KB = 6144
TOO_MANY = b"421 Too many users, server is full.\r\n"
R226 = b"226 Transfer complete\r\n"


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def settled_descriptors(pid):
    """The count once the start-up probe's session has quite ended: its worker may still be
    closing its own descriptors when the client has seen the end of the connection."""
    last = descriptors(pid)
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline:
        time.sleep(0.2)
        now = descriptors(pid)
        if now == last:
            return now
        last = now
    raise AssertionError(f"ftpd's descriptors never settled: {last}")


def sanitized(pid):
    with open(f"/proc/{pid}/maps") as f:
        return "libasan" in f.read()


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise AssertionError("no VmRSS in /proc/PID/status")


class FullHouse(ServerCase):
    ARGS = ["-L", str(SESSIONS), "-p", "{port}"]

    @classmethod
    def setUpClass(cls):
        # Freed memory that an allocator keeps would count as resident and hide whether the
        # daemon gave it back: the host's malloc gets one arena and maps its larger blocks, and a
        # sanitizer build keeps no quarantine.
        options = [os.environ.get("ASAN_OPTIONS", ""), "quarantine_size_mb=0", "thread_local_quarantine_size_kb=0"]
        env = dict(os.environ, ASAN_OPTIONS=":".join(o for o in options if o),
                   GLIBC_TUNABLES="glibc.malloc.arena_max=1:glibc.malloc.mmap_threshold=16384")
        cls.server = Server(cls.ARGS, env=env)

    def session(self, index, wave, shared, gates, failures):
        try:
            ctl = self.server.session(f"user{index}")
            for gate in gates:
                gate.wait(WAIT * 3)
            mode = ("pasv", "port", "lprt")[index % 3]
            got = fetch(ctl, "RETR shared", mode)
            if got[1] != shared or got[2] != R226:
                raise AssertionError(f"RETR in {mode}: {len(got[1])} bytes, {got[0]!r} {got[2]!r}")
            own = random.Random(wave * SESSIONS + index).randbytes(65536 + index)
            name = f"w{wave}s{index}"
            if store(ctl, name, own, mode)[1] != R226:
                raise AssertionError(f"STOR in {mode} did not complete")
            with open(self.server.path(name), "rb") as f:
                if f.read() != own:
                    raise AssertionError(f"STOR in {mode}: the file differs from what was sent")
            ctl.quit()
        except Exception as e:  # reported by the test's main thread
            failures.append(f"session {index} of wave {wave}: {e!r}")
            for gate in gates:
                gate.abort()

    def wave(self, number, shared):
        failures = []
        gates = [threading.Barrier(SESSIONS + 1) for _ in range(2)]
        threads = [threading.Thread(target=self.session, args=(i, number, shared, gates, failures))
                   for i in range(SESSIONS)]
        for t in threads:
            t.start()
        try:
            gates[0].wait(WAIT * 3)
            late = self.server.connect(greet=False)
            self.assertEqual(late.line(), TOO_MANY, "a client past the limit")
            late.expect_eof()
            late.close()
            gates[1].wait(WAIT * 3)
        except threading.BrokenBarrierError:
            pass
        for t in threads:
            t.join(WAIT * 6)
            self.assertFalse(t.is_alive(), f"a session of wave {number} did not end")
        self.assertEqual(failures, [])
        for name in os.listdir(self.server.root):
            if name.startswith(f"w{number}s"):
                os.unlink(self.server.path(name))

    def test_three_waves_of_full_sessions_return_descriptors_and_memory(self):
        pid = self.server.proc.pid
        shared = random.Random(1).randbytes(256 << 10)
        self.server.write("shared", shared)
        fds = settled_descriptors(pid)
        rss = None
        for number in range(WAVES):
            self.wave(number, shared)
            harness.bounded(lambda: descriptors(pid) == fds,
                            f"after wave {number} ftpd has {descriptors(pid)} descriptors, not {fds} as before")
            if rss is None:
                rss = rss_kb(pid)
                continue
            grown = rss_kb(pid) - rss
            print(f"wave {number}: VmRSS {rss_kb(pid)} kB, {grown:+} kB against wave 0")
            if not sanitized(pid):
                self.assertLess(grown, RSS_TOLERANCE_KB, f"VmRSS grew by {grown} kB from wave 0 to wave {number}")
        if sanitized(pid):
            print("note: a sanitizer build's resident memory is its own allocator's, which keeps growing for "
                  "several waves; VmRSS is checked in builds without a sanitizer only")


if __name__ == "__main__":
    harness.main()
