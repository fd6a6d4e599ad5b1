"""scripts/flamegraph from the outside: folded stacks in, SVG or a one-line error out."""
import os
import subprocess
import sys
import unittest
import xml.etree.ElementTree as ET

SCRIPT = os.path.join(os.path.dirname(__file__), "..", "..", "scripts", "flamegraph")
NS = "{http://www.w3.org/2000/svg}"


def run(*args, stdin=b""):
    return subprocess.run([sys.executable, SCRIPT, *args], input=stdin, capture_output=True, timeout=30)


class flamegraph(unittest.TestCase):
    def test_stdin_frames_counts_and_offsets(self):
        folded = b"[t1];main;a<int>&b 3\n\n[t1];main;c 1\n[cut];x 4\n"
        for args in ((), ("-",)):
            r = run(*args, stdin=folded)
            self.assertEqual((r.returncode, r.stderr), (0, b""))
            svg = ET.fromstring(r.stdout)  # well-formed despite "<", "&" in names
            got = {(g.find(NS + "title").text, g.get("data-s"), g.get("data-n"), g.get("data-d"))
                   for g in svg.iter(NS + "g")}
            self.assertEqual(got, {
                ("all (8 samples, 100.00%)", "0", "8", "0"),
                ("[cut] (4 samples, 50.00%)", "0", "4", "1"), ("x (4 samples, 50.00%)", "0", "4", "2"),
                ("[t1] (4 samples, 50.00%)", "4", "4", "1"), ("main (4 samples, 50.00%)", "4", "4", "2"),
                ("a<int>&b (3 samples, 37.50%)", "4", "3", "3"), ("c (1 sample, 12.50%)", "7", "1", "3")})
            self.assertIn(b"<script>", r.stdout)
            self.assertNotIn(b"http://", r.stdout.replace(b"http://www.w3.org/2000/svg", b""))

    def test_one_line_errors(self):
        cases = (((), b"a;b 2\nc 1\nc;d two\n", b"flamegraph: stdin:3: not \"frame;...;leaf COUNT\": c;d two\n"),
                 ((), b"a;b 0\n", b"flamegraph: no samples in stdin\n"),
                 (("/nonexistent/x.folded",), b"", b"flamegraph: cannot read /nonexistent/x.folded: "
                  b"No such file or directory\n"))
        for args, stdin, want in cases:
            r = run(*args, stdin=stdin)
            self.assertEqual((r.returncode, r.stdout, r.stderr), (1, b"", want))
