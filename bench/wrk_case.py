#!/usr/bin/python3
"""One wrk run against the peer (a Prometheus node exporter) over keep-alive
HTTP, as one JSON line shaped like a load run's.

  wrk_case.py CASE PORT CLIENTS SECONDS CPU"""

import re
import subprocess
import sys

import benchlib


def micros(text):
    v = float(re.sub(r"[a-z]+$", "", text))
    if text.endswith("us"):
        return v
    if text.endswith("ms"):
        return v * 1000
    if text.endswith("s"):
        return v * 1000000
    return v


def parse_wrk(text):
    """wrk --latency output to the load run's fields."""
    r = dict(ok=0, lost=0, wrong=0, unsent=0, rps=0, p50_us=0, p90_us=0, p99_us=0, max_us=0)
    seen_latency = False
    for line in text.splitlines():
        f = line.split()
        if not f:
            continue
        if f[0] in ("50%", "90%", "99%"):
            r["p%s_us" % f[0][:-1]] = micros(f[1])
        elif f[0] == "Latency" and len(f) >= 4 and not seen_latency:
            r["max_us"], seen_latency = micros(f[3]), True
        elif f[0] == "Requests/sec:":
            r["rps"] = float(f[1])
        elif "requests in" in line:
            r["ok"] = int(f[0])
        elif "Non-2xx" in line:
            r["wrong"] += int(f[-1])
        elif "Socket errors" in line:
            r["lost"] = sum(int(x) for x in re.findall(r"\d+", line))
    return r


def main(argv):
    case, port, clients, seconds, cpu = argv[1:6]
    run = subprocess.run(["wrk", "-t", "1", "-c", clients, "-d", seconds + "s", "--timeout", "2s",
                          "--latency", "http://127.0.0.1:%s/metrics" % port],
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                         preexec_fn=benchlib.pinner(None if cpu == "-" else int(cpu)))
    r = parse_wrk(run.stdout)
    r.update(kind="load", case=case, server="peer", clients=int(clients), client_cpu=cpu)
    benchlib.emit(r)
    benchlib.log("%s peer: rps=%s" % (case, r["rps"]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
