"""The benchmark report in Markdown, from the JSON records the bench programs
print. Pure functions: records and a context in, text out."""

from benchlib import median, short_function

FIELDS = ("rps", "p50_us", "p90_us", "p99_us", "max_us")


def summarize(records):
    """Medians per (case, server) over the rounds, in the order first seen;
    lost, wrong and unsent summed."""
    out = {}
    for r in records:
        if r.get("kind") != "load":
            continue
        s = out.setdefault((r["case"], r["server"]), {f: [] for f in FIELDS})
        for f in FIELDS:
            s[f].append(r.get(f))
        for f in ("lost", "wrong", "unsent"):
            s[f] = s.get(f, 0) + r.get(f, 0)
    for s in out.values():
        s["runs"] = len(s["rps"])
        for f in FIELDS:
            s[f] = median(s[f])
    return out


def ratio(a, b):
    return None if a is None or b is None or b == 0 else a / b


def delta(a, b):
    return None if a is None or b is None else a - b


def fmt(v, form="%.2f"):
    return "-" if v is None else form % v


def describe(case):
    kind, _, n = case.partition("-")
    if case.startswith("meminfo-1-p"):
        return "/proc/meminfo, 1 client, %s in flight" % case.split("-p")[1]
    texts = {
        "meminfo": "/proc/meminfo, %s client%s" % (n, "" if n == "1" else "s"),
        "split": "/proc/meminfo, %s client%s on a CPU of their own" % (n, "" if n == "1" else "s"),
        "clients": "/proc/meminfo, %s client%s (scaling)" % (n, "" if n == "1" else "s"),
        "size": "file of %s B, 1 client" % n,
        "status": {"fixed": "/proc/self/status (fixed path, cached), 1 client",
                   "pid": "/proc/$pid/status (uncached), 1 client"}.get(n, case),
    }
    return texts.get(kind, case)


def table_row(summary, case, server, ref=None, ref_case=None, note=""):
    s = summary.get((case, server))
    if s is None:
        return None
    r = summary.get((ref_case or case, ref)) if ref else None
    cells = [describe(case), server, str(s["runs"]), fmt(s["rps"], "%.0f")]
    cells += [fmt(s[f], "%.1f") for f in FIELDS[1:]]
    cells.append("%d/%d/%d" % (s["lost"], s["wrong"], s["unsent"]))
    if r is not None:
        cells += [fmt(ratio(s["rps"], r["rps"])) + note, fmt(delta(s["p50_us"], r["p50_us"]),
                                                            "%+.1f"),
                  fmt(ratio(s["p99_us"], r["p99_us"]))]
    else:
        cells += ["", "", ""]
    return "| " + " | ".join(cells) + " |"


def main_table(summary, ctx):
    rows = ["| case | server | runs | req/s | p50 | p90 | p99 | max | lost/wrong/unsent "
            "| req/s ratio | p50 Δ µs | p99 ratio |", "|---|---|---|---|---|---|---|---|---|---|---|---|"]
    plan = []
    for c in ("meminfo-1", "meminfo-8", "meminfo-1-p%d" % ctx["pipeline"]):
        plan += [(c, "daemon", "baseline"), (c, "curve", "daemon"), (c, "baseline"),
                 (c, "peer", "daemon")]
    for c in ctx["split_clients"]:
        c = "split-%d" % c
        plan += [(c, "daemon", "baseline"), (c, "curve", "daemon"), (c, "baseline")]
    for c in ctx["client_counts"]:
        c = "clients-%d" % c
        plan += [(c, "daemon", "baseline"), (c, "curve", "daemon"), (c, "baseline")]
    for c in ctx["sizes"]:
        plan += [("size-%d" % c, "daemon", "baseline"), ("size-%d" % c, "baseline")]
    plan += [("status-fixed", "daemon", "baseline"), ("status-fixed", "baseline")]
    rows += [table_row(summary, *p) for p in plan]
    # The uncached row is compared with the daemon's own cached one.
    rows.append(table_row(summary, "status-pid", "daemon", "daemon", "status-fixed",
                          " (vs cached)"))
    if ctx.get("peer_note"):
        rows.append("| node exporter (peer) | - | - | - | - | - | - | - | - | %s | | |"
                    % ctx["peer_note"])
    return [r for r in rows if r is not None]


def goal(text, met):
    return "- %s: %s" % ("met" if met else "MISSED", text)


def within(v, op, limit):
    return v is not None and (v <= limit if op == "le" else v >= limit)


def goals(summary, foot, ctx):
    get = lambda c, s, f: summary.get((c, s), {}).get(f)
    out = []
    for n in (1, 8):
        c = "meminfo-%d" % n
        r = ratio(get(c, "daemon", "rps"), get(c, "baseline", "rps"))
        out.append(goal("throughput at %d client(s) ≥ 0.95 × baseline (ratio %s)" % (n, fmt(r)),
                        within(r, "ge", 0.95)))
        d = delta(get(c, "daemon", "p50_us"), get(c, "baseline", "p50_us"))
        out.append(goal("p50 at %d client(s) ≤ baseline + 5 µs (Δ %s µs)" % (n, fmt(d, "%+.1f")),
                        within(d, "le", 5)))
        q = ratio(get(c, "daemon", "p99_us"), get(c, "baseline", "p99_us"))
        out.append(goal("p99 at %d client(s) ≤ 1.3 × baseline (ratio %s)" % (n, fmt(q)),
                        within(q, "le", 1.3)))
        r = ratio(get(c, "curve", "rps"), get(c, "daemon", "rps"))
        out.append(goal("CURVE throughput at %d client(s) ≥ 0.8 × plaintext (ratio %s)"
                        % (n, fmt(r)), within(r, "ge", 0.8)))
        d = delta(get(c, "curve", "p50_us"), get(c, "daemon", "p50_us"))
        out.append(goal("CURVE p50 at %d client(s) ≤ plaintext + 15 µs (Δ %s µs)"
                        % (n, fmt(d, "%+.1f")), within(d, "le", 15)))
    r = ratio(get("split-8", "curve", "rps"), get("split-8", "daemon", "rps"))
    if r is not None:
        out.append(goal("CURVE throughput at 8 clients ≥ 0.8 × plaintext with the clients on a "
                        "CPU of their own (ratio %s)" % fmt(r), within(r, "ge", 0.8)))
    bad = sum(s["lost"] + s["wrong"] for (c, srv), s in summary.items()
              if srv in ("daemon", "curve"))
    bbad = sum(s["lost"] + s["wrong"] for (c, srv), s in summary.items() if srv == "baseline")
    out.append(goal("no lost or wrong replies (%d in all daemon runs; %d in the baseline's)"
                    % (bad, bbad), bad == 0))
    rr = ratio(foot.get(("daemon", "idle"), {}).get("rss_kb"),
               foot.get(("baseline", "idle"), {}).get("rss_kb"))
    out.append(goal("idle resident memory ≤ 1.1 × baseline (ratio %s)" % fmt(rr),
                    within(rr, "le", 1.1)))
    return out


def kb(v):
    return "-" if v is None else "%d kB" % v


def footprint(foot):
    """foot: {(name, stage): record}, names daemon, baseline, peer."""
    f = lambda name, stage, key: foot.get((name, stage), {}).get(key)
    names = ("daemon", "baseline", "peer")
    size = lambda n: "-" if f(n, "load", "size") is None else "%d B (%.0f KiB)" % (
        f(n, "load", "size"), f(n, "load", "size") / 1024)
    rows = ["| | daemon | baseline | node exporter |", "|---|---|---|---|",
            "| VmRSS at idle | %s |" % " | ".join(kb(f(n, "idle", "rss_kb")) for n in names),
            "| RssAnon at idle (private heap, stacks) | %s |"
            % " | ".join(kb(f(n, "idle", "anon_kb")) for n in names),
            "| VmRSS after the load | %s |" % " | ".join(kb(f(n, "load", "rss_kb")) for n in names),
            "| threads | %s |" % " | ".join(fmt(f(n, "load", "threads"), "%d") for n in names),
            "| open descriptors | %s |" % " | ".join(fmt(f(n, "load", "fds"), "%d") for n in names),
            "| stripped binary | %s |" % " | ".join(size(n) for n in names), "",
            "The baseline's figures after the load are those of the /proc/meminfo baseline, which "
            "served", "the first sections; the daemon served every section.", "",
            "Resident memory at idle by mapping, where daemon and baseline differ by 16 kB or more",
            "(file-backed library pages are shared with every other process that maps the library):",
            "", "| mapping | daemon | baseline | difference |", "|---|---|---|---|"]
    d = f("daemon", "idle", "smaps") or {}
    b = f("baseline", "idle", "smaps") or {}
    diffs = [(d.get(n, 0) - b.get(n, 0), n) for n in set(d) | set(b)]
    for diff, n in sorted((x for x in diffs if abs(x[0]) >= 16), key=lambda x: (-x[0], x[1])):
        rows.append("| %s | %d kB | %d kB | %+d kB |" % (n, d.get(n, 0), b.get(n, 0), diff))
    return rows


def callgrind(cg, requests):
    """cg: {name: callgrind record} for daemon, curve, baseline."""
    per = lambda n: cg.get(n, {}).get("per_request")
    if not cg:
        return ["not measured (valgrind missing or BENCH_CALLGRIND=0)"]
    minus = lambda a, b: "-" if a is None or b is None else "%d" % (a - b)
    rows = ["| daemon | baseline | daemon − baseline | daemon with CURVE | CURVE − daemon |",
            "|---|---|---|---|---|",
            "| %s | %s | %s | %s | %s |" % (fmt(per("daemon"), "%d"), fmt(per("baseline"), "%d"),
                                           minus(per("daemon"), per("baseline")),
                                           fmt(per("curve"), "%d"), minus(per("curve"),
                                                                          per("daemon"))),
            "", "All threads of the server, ZeroMQ's included (the kernel's work is not counted), "
            "over", "%d requests after a warm-up. Self instructions per request by object:" % requests,
            "", "| object | daemon | baseline | daemon with CURVE |", "|---|---|---|---|"]
    side = lambda n, k: cg.get(n, {}).get(k) or {}
    objects, own = {}, lambda o: "(the program itself)" if o.startswith("vireo-") else o
    for n in ("daemon", "baseline", "curve"):
        for o, c in side(n, "objects").items():
            objects.setdefault(own(o), {}).setdefault(n, 0)
            objects[own(o)][n] += c
    for o, c in sorted(objects.items(), key=lambda x: -x[1].get("daemon", 0)):
        rows.append("| %s | %.0f | %.0f | %.0f |" % (o, c.get("daemon", 0) / requests,
                                                     c.get("baseline", 0) / requests,
                                                     c.get("curve", 0) / requests))
    rows += ["", "Where the daemon spends more than the baseline: functions whose self "
             "instructions per", "request differ by 5 or more (the daemon's own code and the "
             "library calls it adds):", "", "| function | daemon | baseline | difference |",
             "|---|---|---|---|"]
    fns = {}
    for n in ("daemon", "baseline"):
        for name, c in side(n, "functions").items():
            fns.setdefault(short_function(name), {}).setdefault(n, 0)
            fns[short_function(name)][n] += c
    diffs = [((c.get("daemon", 0) - c.get("baseline", 0)) / requests, f, c) for f, c in fns.items()]
    diffs = sorted((d for d in diffs if abs(d[0]) >= 5), key=lambda d: (-d[0], d[1]))
    for d, f, c in diffs[:25]:
        rows.append("| %s | %.0f | %.0f | %+.0f |" % (f, c.get("daemon", 0) / requests,
                                                     c.get("baseline", 0) / requests, d))
    return rows


def met(ok):
    return "met" if ok else "MISSED"


def exporter(r):
    walls = r["walls_ms"]
    mid, worst = median(walls), max(walls)
    n = r["boards"]
    return ["## vireo-exporter: %d boards probed at once" % n, "",
            "%d rounds of %d concurrent probes (curl --parallel), %d bytes per page sent "
            "gzip-compressed" % (r["rounds"], n, r["plain_bytes"]),
            "in %d; %d probes not up." % (r["page_bytes"], r["not_up"]), "",
            "| measure | value | goal | |", "|---|---|---|---|",
            "| all %d boards, median round | %.0f ms | < 1000 ms | %s |" % (n, mid, met(mid < 1000)),
            "| all %d boards, slowest round | %.0f ms | < 1000 ms | %s |" % (n, worst,
                                                                          met(worst < 1000)),
            "| all %d boards, first round (new connections) | %.0f ms | | |" % (n, r["cold_ms"]),
            "| exporter CPU per probe | %.0f µs | < 1000 µs | %s |"
            % (r["cpu_us_per_probe"], met(r["cpu_us_per_probe"] < 1000)),
            "| exporter VmRSS after the load (peak VmHWM) | %d kB (%d kB) | < 20480 kB | %s |"
            % (r["rss_kb"], r["hwm_kb"], met(r["hwm_kb"] < 20480)),
            "| exporter threads | %d | | |" % r["threads"], "",
            "CPU per probe: the exporter's utime+stime (%d ticks/s) over the %d probes."
            % (r["hz"], n * r["rounds"]),
            "Reproduce: `bench/exporter BUILD_DIR` (JSON lines; also run by `make bench`)."]


def probe(records, loads):
    v = {r["key"]: r for r in records if r.get("kind") == "probe"}
    val = lambda k: v.get(k, {}).get("value")
    note = lambda k: v.get(k, {}).get("note", "")
    num = lambda x: x if isinstance(x, (int, float)) else None
    walk, eu = num(val("walk_ms_p50")), num(val("eustack_ms_p50"))
    speed = ratio(eu, walk)
    rows = ["## Probe plug-in", "",
            "Nothing pinned; load average %s at the start, %s at the end. Target: 11 threads, ten of"
            % tuple(" ".join("%.2f" % x for x in loads.get(k, ())) for k in ("start", "end")),
            "them ten calls deep in pause(), one counting units of work. Round trips include the",
            "ZeroMQ request; eu-stack includes its own start.", "",
            "| Measure | Result | Goal | |", "|---|---|---|---|",
            "| Samples of the 11-thread target, back to back | %s/s %s | ≥ 100/s | %s |"
            % (val("samples_per_s"), note("samples_per_s"),
               met(within(num(val("samples_per_s")), "ge", 100))),
            "| Time a sample keeps each thread stopped, median | %s µs %s | ≤ 1000 µs | %s |"
            % (val("held_us_p50"), note("held_us_p50"),
               met(within(num(val("held_us_p50")), "le", 1000))),
            "| Single walk (probe_stack), median of 20 | %s ms %s | | |" % (walk, note("walk_ms_p50")),
            "| `eu-stack -p` on the same target, median of 20 | %s ms | | |" % val("eustack_ms_p50"),
            "| eu-stack ÷ walk | %s× | ≥ 3× | %s |" % (fmt(speed, "%.1f"), met(within(speed, "ge", 3))),
            "| Target's work sampled at 50 Hz ÷ unsampled | %s %s | ≥ 0.9 | %s |"
            % (val("work_ratio"), note("work_ratio"), met(within(num(val("work_ratio")), "ge", 0.9))),
            "| The same per CPU second of the working thread | %s | | |" % val("work_ratio_cpu")]
    threads = [r for r in records if r.get("kind") == "probe_threads"]
    if threads:
        rows += ["", "Walk time against the target's thread count (probe_stack, median of 10; "
                 "one thread working, the others ten calls deep in pause()):", "",
                 "| threads | walk ms | ms per thread |", "|---|---|---|"]
        rows += ["| %d | %.2f | %.3f |" % (t["threads"], t["walk_ms"], t["walk_ms"] / t["threads"])
                 for t in threads]
        rows += ["", "![Probe walk time against threads](probe_threads.png)"]
    return rows + ["", "Reproduce: `bench/probe BUILD_DIR` (JSON lines; also part of `make bench`)."]


def raw(records):
    """Raw (markup) samples: each measure with its goal."""
    rows = ["## Raw stacks, named on the host", "", "| Measure | Result | Goal | |", "|---|---|---|---|"]
    for r in records:
        op, bound = r["goal"].split()
        ok = within(r["value"], {"<=": "le", ">=": "ge", "<": "le"}[op], float(bound))
        rows.append("| %s (%s) | %s | %s | %s |" % (r["key"], r["note"], r["value"], r["goal"], met(ok)))
    return rows + ["", "Reproduce: `bench/raw BUILD_DIR` (JSON lines; also part of `make bench`)."]


def header(ctx):
    return ["# vireo-monitor benchmark", "",
            "%s, %d CPU(s), %s, build type %s." % (ctx["date"], ctx["nproc"], ctx["kernel"],
                                                    ctx["build_type"]),
            "Servers pinned to %s and clients with them, except in the rows \"on a CPU of their own\""
            % ctx["pin"], "(clients on %s); medians over the rounds (%d for the first cases, %d for "
            "the scaling" % (ctx["split_pin"], ctx["rounds"], ctx["scale_rounds"]),
            "ones), %d requests a run (at least %d per client). Round trips in µs. lost/wrong/unsent:"
            % (ctx["total_requests"], ctx["min_per_client"]),
            "summed over all rounds; lost = no reply within %d ms, unsent = requests a client dropped"
            % ctx["timeout_ms"], "after a loss.",
            "Load average when the run began: %s; when it ended: %s." % (ctx["load_start"],
                                                                          ctx["load_end"]),
            "Ratios: daemon ÷ baseline (req/s, p99), daemon − baseline (p50);",
            "for the $pid row: uncached ÷ cached daemon; for the peer: peer ÷ daemon and peer − "
            "daemon;", "for curve (the daemon with a \"security\" object, CURVE clients): curve ÷ "
            "and − the plaintext daemon.", ""]


def render(records, ctx):
    summary = summarize(records)
    foot = {(r["name"], r["stage"]): r for r in records if r.get("kind") == "footprint"}
    cg = {r["name"]: r for r in records if r.get("kind") == "callgrind"}
    lines = header(ctx) + main_table(summary, ctx) + [""]
    if ctx.get("peer_bytes"):
        lines += ["Peer: prometheus-node-exporter with only its meminfo collector, scraped with "
                  "`wrk -t 1 -c N`", "(keep-alive HTTP, %s s a run, %s bytes per response with "
                  "headers);" % (ctx["wrk_seconds"], ctx["peer_bytes"]),
                  "its latency columns are wrk's percentiles. wrk is a different client, so the "
                  "ratio is indicative.", ""]
    lines += ["## Goals", ""] + goals(summary, foot, ctx) + [""]
    lines += ["## Curves", "", "![Throughput and round trip against clients and reply size]"
              "(scaling.png)", ""] if ctx.get("plots") else ["## Curves", "", ctx.get(
                  "plot_note", "No curves."), ""]
    lines += ["## Footprint", ""] + footprint(foot) + [""]
    lines += ["## Instructions per request (callgrind, /proc/meminfo, 1 client)", ""]
    lines += callgrind(cg, ctx["callgrind_requests"]) + [""]
    ex = [r for r in records if r.get("kind") == "exporter"]
    if ex:
        lines += exporter(ex[-1]) + [""]
    if any(r.get("kind", "").startswith("probe") for r in records):
        loads = {k: r[k] for r in records if r.get("kind") == "probe_load" for k in r if k != "kind"}
        lines += probe(records, loads) + [""]
    if any(r.get("kind") == "raw" for r in records):
        lines += raw([r for r in records if r.get("kind") == "raw"]) + [""]
    lines.append("Reproduce: `make bench` (or `bench/run BUILD_DIR`); raw runs as JSON lines in "
                 "results.jsonl beside this file.")
    return "\n".join(lines) + "\n"
