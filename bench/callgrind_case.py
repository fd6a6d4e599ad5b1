#!/usr/bin/python3
"""Instructions per request of a server under callgrind, as one JSON line:
counts are stable on a noisy machine where times are not. The counters are
zeroed after a warm-up of 200 requests and dumped after N more: the cost is
the total over N, for every thread of the server (ZeroMQ's I/O thread too).

  callgrind_case.py BUILD NAME PORT N [LOAD_OPTIONS...] -- SERVER_CMD..."""

import glob
import os
import subprocess
import sys
import tempfile

import benchlib


def main(argv):
    build, name, port, n = argv[1], argv[2], int(argv[3]), int(argv[4])
    split = argv.index("--")
    load_opts, cmd = argv[5:split], argv[split + 1:]
    tmp = tempfile.mkdtemp(prefix="vireo-bench-cg.")
    out = os.path.join(tmp, "cg.out")
    procs = benchlib.servers(tmp)
    record = dict(kind="callgrind", name=name, requests=n, per_request=None)
    try:
        p = procs.start(name, port, ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out]
                        + cmd, seconds=60)
        if p is None:
            benchlib.emit(record)
            return 1
        load = [build + "/bin/vireo-bench-load", "--endpoint", "tcp://127.0.0.1:%d" % port,
                "--warmup", "0", "--timeout-ms", "5000", "--sub", "1"] + load_opts
        quiet = dict(stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run(load + ["--requests", "200"], **quiet)
        subprocess.run(["callgrind_control", "-z", str(p.pid)], **quiet)
        subprocess.run(load + ["--requests", str(n), "--max-seconds", "300"], **quiet)
        subprocess.run(["callgrind_control", "-d", str(p.pid)], **quiet)
        dumps = sorted(glob.glob(out + ".*"), key=os.path.getmtime)
        procs.stop(p)
        if dumps:
            with open(dumps[-1]) as f:
                functions, objects, total = benchlib.callgrind_self(f)
            if total > 0:
                record.update(per_request=total // n, functions=functions, objects=objects)
    finally:
        procs.stop_all()
        subprocess.run(["rm", "-rf", tmp])
    benchlib.emit(record)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
