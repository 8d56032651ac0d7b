#!/usr/bin/env python3
"""Fails if a host OS header, or a host macro that would shadow a system name, reaches any
translation unit of the system's own directories. Usage: hygiene.py compile_commands.json SRCDIR"""
import json
import re
import shlex
import subprocess
import sys

SYSTEM_DIRS = ("daemon/", "btree/", "memheap/", "platform/", "runtime/")
FORBIDDEN_HEADER = re.compile(
    r"/usr/include/.*(/unistd\.h|/fcntl\.h|/pthread\.h|/dirent\.h|/syslog\.h|/signal\.h|/errno\.h"
    r"|/netinet/|/arpa/|/netdb\.h|/poll\.h|/sched\.h|/sys/(?!cdefs\.h|types\.h|select\.h))")
FORBIDDEN_MACROS = {
    "errno", "EINTR", "EAGAIN", "ENOENT", "EINVAL", "EPERM", "EBADF", "ENOMEM", "EEXIST",
    "O_RDONLY", "O_WRONLY", "O_CREAT", "O_TRUNC", "S_IFMT", "S_IFDIR", "S_IFREG",
    "SIGINT", "SIGTERM", "SIGKILL", "st_mtime", "st_atime", "sa_handler", "stdin", "stdout", "stderr",
}


def preprocess(entry):
    args = shlex.split(entry["command"]) if "command" in entry else list(entry["arguments"])
    out = []
    skip = False
    for arg in args:
        if skip:
            skip = False
            continue
        if arg == "-o":
            skip = True
            continue
        if arg == "-c":
            continue
        out.append(arg)
    out += ["-E", "-H", "-dM", "-o", "-"]
    done = subprocess.run(out, cwd=entry["directory"], capture_output=True, text=True)
    if done.returncode != 0:
        raise SystemExit(f"hygiene: preprocessing failed for {entry['file']}:\n{done.stderr}")
    return done.stdout, done.stderr


def main():
    database, srcdir = sys.argv[1], sys.argv[2].rstrip("/") + "/"
    with open(database) as f:
        entries = json.load(f)
    failures = []
    checked = 0
    for entry in entries:
        path = entry["file"]
        if not path.startswith(srcdir) or not path[len(srcdir):].startswith(SYSTEM_DIRS):
            continue
        checked += 1
        macros, headers = preprocess(entry)
        for line in headers.splitlines():
            if line.startswith(".") and FORBIDDEN_HEADER.search(line):
                failures.append(f"{path}: includes {line.lstrip('. ')}")
        for line in macros.splitlines():
            parts = line.split()
            if len(parts) >= 2 and parts[0] == "#define":
                name = parts[1].split("(")[0]
                # The system's own errno macro is allowed; the host's goes through __errno_location.
                if name == "errno" and "__errno_location" not in line:
                    continue
                if name in FORBIDDEN_MACROS:
                    failures.append(f"{path}: host macro {name} reaches it")
    for failure in failures:
        print(failure)
    print(f"hygiene: {checked} system translation units checked, {len(failures)} problems")
    return 1 if failures or checked == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
