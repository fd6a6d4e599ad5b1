#!/usr/bin/python3
"""One closed-loop load run of vireo-bench-load against a server, as one JSON
line: {"kind": "load", "case", "server", "rps", "p50_us", ...}.

  load_case.py BUILD CASE SERVER CPU -- LOAD_OPTIONS...

CPU is the CPU the clients are pinned to ("-" for none). A run that gives no
result line counts as one unsent request, so that it shows in the report."""

import subprocess
import sys

import benchlib


def main(argv):
    if len(argv) < 6 or argv[5] != "--":
        print(__doc__, file=sys.stderr)
        return 64
    build, case, server, cpu = argv[1:5]
    cmd = [build + "/bin/vireo-bench-load", "--label", server] + argv[6:]
    run = subprocess.run(cmd, stdout=subprocess.PIPE, text=True,
                         preexec_fn=benchlib.pinner(None if cpu == "-" else int(cpu)))
    result = benchlib.parse_result(run.stdout)
    if result is None:
        benchlib.log("%s/%s: no result (load exit %d)" % (case, server, run.returncode))
        clients = int(cmd[cmd.index("--clients") + 1]) if "--clients" in cmd else 1
        result = dict(clients=clients, ok=0, lost=0, wrong=0, unsent=1, rps=0, p50_us=0,
                      p90_us=0, p99_us=0, max_us=0)
    result.update(kind="load", case=case, server=server, client_cpu=cpu)
    benchlib.emit(result)
    benchlib.log("%s %s: rps=%s p50=%s p99=%s" % (case, server, result["rps"], result["p50_us"],
                                                  result["p99_us"]))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
