"""The replay's results: one row per allocator from its repeated runs, the table (tabulate) and
the chart (matplotlib) of tarnheap-trace replay."""

import statistics

from tabulate import tabulate

# Each platform's rows are compared with its C library's heap.
BASELINES = {"linux": "glibc", "windows": "msvcrt (Wine)"}
# Processor time on Linux, which waits for no other work; elapsed time under Wine, whose
# processor clock counts in steps of 10 ms.
TIME_FIELDS = {"linux": "processor_seconds", "windows": "seconds"}
HEAP_ROWS = ("tarnheap", "TARNHEAP.dll (Wine)")
# The Windows replayers of heaps without the posix_memalign family make those requests as malloc.
ALIGNED_AS_MALLOC = ("msvcrt (Wine)", "TARNHEAP.dll (Wine)")


def summarise(name, platform, runs, instructions):
    """A row: medians over the runs that completed, the worst count of unserved requests."""
    done = [run for run in runs if "error" not in run]
    row = {"name": name, "platform": platform, "instructions": instructions,
           "errors": [run["error"] for run in runs if "error" in run],
           "ns": None, "peak_mib": None, "failures": 0, "damaged": 0, "zero_size_nulls": 0}
    if done:
        row["ns"] = statistics.median(run[TIME_FIELDS[platform]] / max(run["operations"], 1) * 1e9
                                      for run in done)
        row["peak_mib"] = statistics.median(
            max(run["peak_rss_kib"] - run["baseline_rss_kib"], 0) / 1024 for run in done)
        for field in ("failures", "damaged", "zero_size_nulls"):
            row[field] = max(run[field] for run in done)
    row["served"] = bool(done) and not row["errors"] and row["failures"] + row["damaged"] == 0
    return row


def ratio(row, rows):
    base = next((r for r in rows if r["name"] == BASELINES[row["platform"]]), None)
    if base is None or not base["ns"] or row["ns"] is None:
        return None
    return row["ns"] / base["ns"]


def figure(value, format_text):
    return "–" if value is None else format(value, format_text)


def unserved(row):
    if row["errors"]:
        return "failed"
    return f"{row['failures']:,}" + (f" ({row['damaged']:,} damaged)" if row["damaged"] else "")


def notes(rows, info):
    lines = []
    for row in rows:
        if row["zero_size_nulls"]:
            lines.append(f"- {row['name']} answered {row['zero_size_nulls']:,} zero-size requests "
                         f"with null, as it does by design: expected, not a failure.")
        for error in row["errors"][:1]:
            lines.append(f"- {row['name']}: a replay failed ({error}).")
    as_malloc = [row["name"] for row in rows if row["name"] in ALIGNED_AS_MALLOC]
    if as_malloc and info["aligned"]:
        lines.append(f"- {' and '.join(as_malloc)}: the {info['aligned']:,} aligned requests "
                     f"were made as malloc, their heaps having no posix_memalign family.")
    if any(row["name"] in HEAP_ROWS for row in rows):
        lines.append("- TarnHeap is the build for measurement with the simulated vendor "
                     "KestrelCores: the heap itself, on any processor.")
    return lines


def table(rows, info):
    """The table as text (GitHub Markdown), with its notes."""
    body = [[row["name"], figure(row["ns"], ".1f"), figure(ratio(row, rows), ".2f"),
             figure(row["peak_mib"], ".1f"), figure(row["instructions"], ".0f"), unserved(row)]
            for row in rows]
    text = (f"{info['operations']:,} calls, at most {info['identities'] - 1:,} blocks live, "
            f"{info['requested_bytes'] / 2**20:,.1f} MiB requested in all\n\n")
    text += tabulate(body, headers=["allocator", "ns per call", "time vs glibc",
                                    "peak MiB", "instructions per call", "unserved"],
                     tablefmt="github", disable_numparse=True, colalign=("left",) + ("right",) * 5)
    lines = notes(rows, info)
    if any(row["platform"] == "windows" for row in rows):
        lines.insert(0, "- Under Wine, time is elapsed time (Wine's processor clock counts in "
                        "10 ms steps), compared with msvcrt's instead of glibc's.")
    return text + ("\n\n" + "\n".join(lines) if lines else "")


def chart(rows, info, title, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    shown = [row for row in rows if row["ns"] is not None]
    names = [row["name"] for row in shown]
    colours = ["#c0392b" if row["name"] in HEAP_ROWS else "#7f8c8d" for row in shown]
    fig, (speed, memory) = plt.subplots(1, 2, figsize=(9, 0.45 * len(shown) + 1.6))
    speed.barh(names, [ratio(row, rows) or 0 for row in shown], color=colours)
    speed.axvline(1, color="black", linewidth=0.8)
    speed.set_xlabel("time per call vs the C library's heap (lower is faster)")
    memory.barh(names, [row["peak_mib"] for row in shown], color=colours)
    memory.set_xlabel("peak resident memory added (MiB)")
    memory.set_yticklabels([])
    for axes in (speed, memory):
        axes.invert_yaxis()
    fig.suptitle(f"{title}: {info['operations']:,} calls replayed")
    fig.tight_layout()
    fig.savefig(path, dpi=80)
    plt.close(fig)
