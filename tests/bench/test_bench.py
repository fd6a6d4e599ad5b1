"""The bench driver's pure parts: medians, result lines, callgrind dumps and
the report's rows and goals."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "bench"))
import benchlib  # noqa: E402
import report  # noqa: E402
import wrk_case  # noqa: E402

DUMP = """events: Ir
ob=(1) /usr/lib/libzmq.so.5
fl=(1) zmq.cpp
fn=(1) zmq_send
10 100
+2 20
cob=(2) /build/bin/vireo-monitor
cfl=(2) main.cpp
cfn=(2) handle_request
calls=3 40
* 999
ob=(2)
fn=(2)
40 7
-1 3
"""


def load(case, server, rps, p50, lost=0):
    return dict(kind="load", case=case, server=server, rps=rps, p50_us=p50, p90_us=p50,
                p99_us=p50, max_us=p50, lost=lost, wrong=0, unsent=0)


class pure(unittest.TestCase):
    def test_median(self):
        for values, want in (([5, 1, 3], 3), ([4, 1, 3, 2], 2.5), ([], None), ([None, 7], 7)):
            self.assertEqual(benchlib.median(values), want)

    def test_result_line(self):
        r = benchlib.parse_result("x\nRESULT label=curve clients=8 ok=160 rps=2200 p50_us=3.5\n")
        self.assertEqual(r, dict(label="curve", clients=8, ok=160, rps=2200, p50_us=3.5))
        self.assertIsNone(benchlib.parse_result("nothing\n"))

    def test_callgrind_self_costs_leave_out_calls(self):
        fns, objs, total = benchlib.callgrind_self(DUMP.splitlines(True))
        self.assertEqual(fns, {"zmq_send [libzmq.so.5]": 120, "handle_request [vireo-monitor]": 10})
        self.assertEqual(objs, {"libzmq.so.5": 120, "vireo-monitor": 10})
        self.assertEqual(total, 130)

    def test_wrk_times_in_microseconds(self):
        text = ("  Latency   1.20ms  300.00us   9.50ms   80%\n  50%  850.00us\n  90%    1.50ms\n"
                "  99%    2.00s\n  3000 requests in 3.00s, 1MB read\nRequests/sec:   1000.5\n")
        r = wrk_case.parse_wrk(text)
        self.assertEqual((r["p50_us"], r["p90_us"], r["p99_us"], r["max_us"]),
                         (850, 1500, 2000000, 9500))
        self.assertEqual((r["ok"], r["rps"]), (3000, 1000.5))


class rendering(unittest.TestCase):
    RECORDS = [load("split-8", "daemon", 1000, 10), load("split-8", "curve", 850, 12, lost=1),
               load("split-8", "daemon", 3000, 30), load("split-8", "curve", 700, 14),
               load("split-8", "daemon", 2000, 20), load("split-8", "curve", 800, 13)]

    def test_summary_medians_and_sums(self):
        s = report.summarize(self.RECORDS)[("split-8", "curve")]
        self.assertEqual((s["runs"], s["rps"], s["p50_us"], s["lost"]), (3, 800, 13, 1))

    def test_row_and_goal_against_plaintext(self):
        summary = report.summarize(self.RECORDS)
        row = report.table_row(summary, "split-8", "curve", "daemon")
        self.assertEqual(row, "| /proc/meminfo, 8 clients on a CPU of their own | curve | 3 | 800 "
                              "| 13.0 | 13.0 | 13.0 | 13.0 | 1/0/0 | 0.40 | -7.0 | 0.65 |")
        goals = report.goals(summary, {}, {})
        self.assertIn("- MISSED: CURVE throughput at 8 clients ≥ 0.8 × plaintext with the clients "
                      "on a CPU of their own (ratio 0.40)", goals)
        self.assertIn("- MISSED: no lost or wrong replies (1 in all daemon runs; 0 in the "
                      "baseline's)", goals)


if __name__ == "__main__":
    unittest.main()
