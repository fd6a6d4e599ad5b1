#!/usr/bin/python3
"""A running server's footprint as one JSON line: resident and private
memory, threads, open descriptors, resident kB per mapping, and the size of
its binary once stripped.

  footprint.py NAME STAGE PID [BINARY]"""

import os
import shutil
import subprocess
import sys
import tempfile

import benchlib


def smaps_rss(pid):
    """Resident kB per mapping's file name ("[anonymous]" for none)."""
    rss, name = {}, "[anonymous]"
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            head = line.split()
            if "-" in head[0] and not head[0].endswith(":"):
                name = os.path.basename(head[5]) if len(head) >= 6 else "[anonymous]"
            elif head[0] == "Rss:":
                rss[name] = rss.get(name, 0) + int(head[1])
    return rss


def stripped_size(binary):
    with tempfile.TemporaryDirectory() as d:
        copy = os.path.join(d, "strip.bin")
        shutil.copy(binary, copy)
        if subprocess.run(["strip", copy], stderr=subprocess.DEVNULL).returncode != 0:
            return None
        return os.path.getsize(copy)


def main(argv):
    name, stage, pid = argv[1], argv[2], int(argv[3])
    r = dict(kind="footprint", name=name, stage=stage,
             rss_kb=benchlib.status_field(pid, "VmRSS"),
             anon_kb=benchlib.status_field(pid, "RssAnon"),
             threads=benchlib.status_field(pid, "Threads"),
             fds=len(os.listdir("/proc/%d/fd" % pid)), smaps=smaps_rss(pid))
    if len(argv) > 4:
        r["size"] = stripped_size(argv[4])
    benchlib.emit(r)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
