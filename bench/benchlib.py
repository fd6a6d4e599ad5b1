"""Helpers shared by the bench programs: pure functions (medians, result
lines, callgrind dumps) and the few process chores every program repeats
(free ports, servers started and stopped by their own pid, CPU pinning)."""

import json
import os
import re
import signal
import socket
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def log(text):
    print("bench: " + text, file=sys.stderr, flush=True)


def emit(record):
    """One result as one JSON line on standard output."""
    print(json.dumps(record, sort_keys=True), flush=True)


def read_records(text):
    return [json.loads(line) for line in text.splitlines() if line.startswith("{")]


def median(values):
    """The middle value, or the mean of the middle two; None when empty."""
    v = sorted(x for x in values if x is not None)
    if not v:
        return None
    mid = len(v) // 2
    return v[mid] if len(v) % 2 else (v[mid - 1] + v[mid]) / 2


def number(text):
    try:
        return int(text)
    except ValueError:
        try:
            return float(text)
        except ValueError:
            return text


def parse_result(text):
    """The key=value pairs of the first "RESULT " line of a load run."""
    for line in text.splitlines():
        if line.startswith("RESULT "):
            return {k: number(v) for k, v in
                    (kv.split("=", 1) for kv in line.split()[1:] if "=" in kv)}
    return None


# --- callgrind ----------------------------------------------------------------

_REF = re.compile(r"^\((\d+)\)\s?(.*)$")


def _ref(text, names):
    """Resolves callgrind's name compression: "(7) name" defines id 7, "(7)"
    uses it."""
    m = _REF.match(text)
    if not m:
        return text
    if m.group(2):
        names[m.group(1)] = m.group(2)
    return m.group(1)


def callgrind_self(lines):
    """Self cost per function ("name [object]") and per object, and the total,
    from a callgrind dump of one event. The cost line after "calls=" is the
    call's inclusive cost, so it is not counted as the caller's own."""
    obn, fnn, fnob, self_fn, self_ob = {}, {}, {}, {}, {}
    ob = fn = None
    skip = False
    total = 0
    for line in lines:
        if line.startswith("ob="):
            ob = _ref(line[3:].rstrip("\n"), obn)
        elif line.startswith("cob="):
            _ref(line[4:].rstrip("\n"), obn)
        elif line.startswith("fn="):
            fn = _ref(line[3:].rstrip("\n"), fnn)
            fnob[fn] = ob
        elif line.startswith("cfn="):
            _ref(line[4:].rstrip("\n"), fnn)
        elif line.startswith("calls="):
            skip = True
        elif line[:1] in "0123456789+-*" and line.strip():
            if skip:
                skip = False
                continue
            cost = int(line.split()[-1])
            self_fn[fn] = self_fn.get(fn, 0) + cost
            self_ob[fnob.get(fn)] = self_ob.get(fnob.get(fn), 0) + cost
            total += cost
    base = lambda o: os.path.basename(obn.get(o, o or "?"))
    functions = {}
    for f, c in self_fn.items():
        key = "%s [%s]" % (fnn.get(f, f), base(fnob.get(f)))
        functions[key] = functions.get(key, 0) + c
    objects = {}
    for o, c in self_ob.items():
        objects[base(o)] = objects.get(base(o), 0) + c
    return functions, objects, total


def short_function(name):
    """A function's name short enough for a table: std::string spelled so,
    template arguments as <…>, the program's own object as [program]."""
    name = re.sub(r" \[vireo-[a-z-]+\]$", " [program]", name)
    name = name.replace("std::__cxx11::basic_string<char, std::char_traits<char>, "
                        "std::allocator<char> >", "std::string")
    while True:
        shorter = re.sub(r"<[^<>]*>", "\x01", name)
        if shorter == name:
            return name.replace("\x01", "<…>")
        name = shorter


# --- processes ----------------------------------------------------------------

def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def pinner(cpu):
    """A preexec_fn that pins the child to CPU cpu (None: not pinned)."""
    if cpu is None:
        return None
    return lambda: os.sched_setaffinity(0, {cpu})


def usable_cpu(cpu):
    """cpu when this process may run there, else None."""
    try:
        return cpu if cpu in os.sched_getaffinity(0) else None
    except OSError:
        return None


def listening(port):
    want = "0100007F:%04X" % port
    with open("/proc/net/tcp") as f:
        return any(l.split()[1] == want and l.split()[3] == "0A" for l in f.readlines()[1:])


class servers:
    """Every server a program starts, so that it stops exactly those."""

    def __init__(self, logdir):
        self.logdir = logdir
        self.procs = {}

    def start(self, name, port, cmd, cpu=None, seconds=5, cwd=None):
        """Starts cmd and waits (bounded) until it listens on port; returns
        the process, or None when it did not come up (its log is shown)."""
        out = open(os.path.join(self.logdir, name + ".log"), "w")
        p = subprocess.Popen(cmd, stdout=out, stderr=subprocess.STDOUT, cwd=cwd,
                             preexec_fn=pinner(cpu))
        out.close()
        self.procs[p.pid] = p
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and p.poll() is None:
            if listening(port):
                return p
            time.sleep(0.05)
        log("%s did not start; its output:" % name)
        with open(os.path.join(self.logdir, name + ".log")) as f:
            sys.stderr.write(f.read())
        self.stop(p)
        return None

    def stop(self, p):
        if p is None or p.pid not in self.procs:
            return
        if p.poll() is None:
            p.send_signal(signal.SIGTERM)
            try:
                p.wait(5)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
        del self.procs[p.pid]

    def stop_all(self):
        for p in list(self.procs.values()):
            self.stop(p)


def status_field(pid, key):
    """A number from /proc/PID/status (kB for the memory fields)."""
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return None


def build_targets(build, targets):
    """Configures build when it has no cache yet, then builds the targets."""
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                        "-DVIREO_BUILD_TESTS=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "-j", os.environ.get("JOBS", "2"), "--target"]
                   + targets, check=True, stdout=subprocess.DEVNULL)


def env_int(name, default):
    return int(os.environ.get(name, default))
