"""The report's curves with matplotlib (Debian's python3-matplotlib), drawn
to PNG files without a display."""

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

# server, clients' layout, label, line style
LINES = [("daemon", "clients", "daemon", "-"), ("curve", "clients", "daemon with CURVE", "-"),
         ("baseline", "clients", "baseline", "--"),
         ("daemon", "split", "daemon, clients on their own CPU", ":"),
         ("curve", "split", "CURVE, clients on their own CPU", ":")]


def _series(summary, prefix, server, field, xs):
    pts = [(x, summary.get(("%s-%d" % (prefix, x), server), {}).get(field)) for x in xs]
    return [p for p in pts if p[1] is not None]


def _panel(ax, summary, prefix, xs, field, lines, title, ylabel):
    for server, layout, label, style in lines:
        pts = _series(summary, layout if prefix == "clients" else prefix, server, field, xs)
        if pts:
            ax.plot([p[0] for p in pts], [p[1] for p in pts], style, marker="o", label=label)
    ax.set_xscale("log", base=2)
    ax.set_xticks(xs, [str(x) for x in xs])
    ax.set_title(title)
    ax.set_ylabel(ylabel)
    ax.grid(True, which="both", alpha=0.3)
    ax.legend(fontsize=8)


def scaling(summary, client_counts, split_counts, sizes, path):
    """Throughput and p50 round trip against clients (plaintext, CURVE,
    baseline; CURVE also with the clients on their own CPU) and against reply
    size."""
    fig, ax = plt.subplots(2, 2, figsize=(12, 9))
    xs = sorted(set(client_counts) | set(split_counts))
    _panel(ax[0][0], summary, "clients", xs, "rps", LINES,
           "Throughput with clients (/proc/meminfo)", "requests/s")
    ax[0][0].set_ylim(bottom=0)
    _panel(ax[0][1], summary, "clients", xs, "p50_us", LINES,
           "Round trip p50 with clients (/proc/meminfo)", "µs")
    ax[0][1].set_yscale("log")
    for a in ax[0]:
        a.set_xlabel("clients")
    size_lines = [("daemon", "size", "daemon", "-"), ("baseline", "size", "baseline", "--")]
    _panel(ax[1][0], summary, "size", sizes, "rps", size_lines,
           "Throughput with reply size (1 client)", "requests/s")
    ax[1][0].set_ylim(bottom=0)
    _panel(ax[1][1], summary, "size", sizes, "p50_us", size_lines,
           "Round trip p50 with reply size (1 client)", "µs")
    for a in ax[1]:
        a.set_xlabel("file size (bytes)")
    fig.suptitle("vireo-monitor against its bare ZeroMQ topology (medians)")
    fig.tight_layout()
    fig.savefig(path, dpi=90)
    plt.close(fig)


def probe_threads(records, path):
    """probe_stack walk time against the target's thread count."""
    pts = sorted((r["threads"], r["walk_ms"]) for r in records if r.get("kind") == "probe_threads")
    if not pts:
        return False
    fig, ax = plt.subplots(figsize=(7, 5))
    ax.plot([p[0] for p in pts], [p[1] for p in pts], "-", marker="o", label="probe_stack walk")
    ax.set_xscale("log", base=2)
    ax.set_xticks([p[0] for p in pts], [str(p[0]) for p in pts])
    ax.set_yscale("log")
    ax.set_xlabel("threads in the target")
    ax.set_ylabel("walk round trip, median (ms)")
    ax.set_title("Probe walk time against thread count")
    ax.grid(True, which="both", alpha=0.3)
    ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=90)
    plt.close(fig)
    return True
