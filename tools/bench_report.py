#!/usr/bin/env python3
"""Turns <dir>/results.json (from bench_suite.py) into <dir>/report.md and, with gnuplot,
<dir>/report.png. Usage: bench_report.py <dir>"""

import json
import math
import os
import statistics
import subprocess
import sys

HEAP = "tarnheap"
SMALL_PAIRS = ["pairs_16", "pairs_64", "pairs_256"]
LARGE_WORKLOADS = ["pairs_4k", "pairs_32k", "pairs_256k", "pairs_1m", "large_pool"]
SMALL_HEAP_WORKLOADS = SMALL_PAIRS + ["lifo_batch", "calloc_256", "random_pool", "size_mix"]
PAIR_INSTRUCTION_LIMIT = 32
LIFO_LIMIT_NS = 3.5
CALLOC_LIMIT_NS = 5.0
RSS_LIMIT = 1.1
PROGRAM_GAIN = 1.10
WINDOWS_GAIN = 3.0
# A program is allocation-heavy above this many allocation calls per second of its plain run.
HEAVY_CALLS_PER_SECOND = 1e6


def median(values):
    return statistics.median(values) if values else None


def spread(values):
    """Half the range, as a percentage of the median."""
    if len(values) < 2:
        return 0.0
    return (max(values) - min(values)) / 2 / statistics.median(values) * 100


def group(runs, key, value):
    table = {}
    for run in runs:
        if value in run:
            table.setdefault((run[key], run["allocator"]), []).append(run)
    return table


def number(value, digits=1):
    if value is None:
        return "–"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    if abs(value) >= 100:
        return f"{value:.0f}"
    return f"{value:.{digits}f}"


def paired_ratio(runs_by_key, item, peer, field):
    """Median over repetitions of peer / TarnHeap, each ratio from the same repetition."""
    heap = {run["rep"]: run[field] for run in runs_by_key.get((item, HEAP), [])}
    ratios = [run[field] / heap[run["rep"]] for run in runs_by_key.get((item, peer), [])
              if run["rep"] in heap and heap[run["rep"]] > 0]
    return median(ratios)


class Report:
    def __init__(self, results):
        self.results = results
        self.lines = []
        self.targets = []
        self.allocators = results["allocators"]
        self.peers = [a for a in self.allocators if a != HEAP]
        self.workloads = [name for name, _ in results["workloads"]]
        self.linux = group(results["linux"]["runs"], "workload", "cpu_ns")
        self.ns = {key: median([r["cpu_ns"] for r in runs]) for key, runs in self.linux.items()}
        self.rss = {key: median([r["rss_kib"] for r in runs]) for key, runs in self.linux.items()}
        self.instructions = results["callgrind"]["results"]

    def add(self, text=""):
        self.lines.append(text)

    def table(self, header, rows):
        self.add("| " + " | ".join(header) + " |")
        self.add("|" + "|".join("---" if i == 0 else "---:" for i in range(len(header))) + "|")
        for row in rows:
            self.add("| " + " | ".join(row) + " |")
        self.add()

    def target(self, name, met, figures):
        status = "**met**" if met else ("**missed**" if met is not None else "not measured")
        self.targets.append(f"| {name} | {status} | {figures} |")

    def fastest_peer(self, workload):
        timed = [(self.ns[(workload, p)], p) for p in self.peers if (workload, p) in self.ns]
        return min(timed) if timed else (None, None)

    # Sections -------------------------------------------------------------------------------

    def header(self):
        r = self.results
        machine = r["machine"]
        self.add("# TarnHeap benchmark report")
        self.add()
        self.add(f"{r['mode'].capitalize()} run, {r['reps']} repetitions per figure, "
                 f"{r['minutes']:.1f} minutes; {machine['processor']}, {machine['cores']} "
                 f"cores, Linux {machine['kernel']}, {machine['date']}. Allocators: "
                 f"{', '.join(self.allocators)} (each through LD_PRELOAD; glibc is the plain "
                 "run).")
        if r["missing_peers"]:
            self.add(f"Not installed, left out: {', '.join(r['missing_peers'])}.")
        self.add()
        self.add("Times on Linux are processor time (user + system) of the process: the machine "
                 "is shared, and elapsed time would include the waits for a processor "
                 "(results.json keeps elapsed time too). Under Wine, where process times come "
                 "in 10 ms ticks, elapsed time. Figures are medians over the repetitions, ± half "
                 "their range in percent. Ratios are peer time / TarnHeap time, the median of "
                 "the ratios within each repetition (allocators alternate round-robin, so each "
                 "ratio compares runs made moments apart): above 1, TarnHeap is faster.")
        self.add()

    def synthetic(self):
        self.add("## Synthetic workloads (Linux), processor ns per operation")
        self.add()
        summaries = dict(self.results["workloads"])
        rows = []
        for w in self.workloads:
            row = [f"`{w}`"]
            for a in self.allocators:
                runs = [run["cpu_ns"] for run in self.linux.get((w, a), [])]
                row.append(f"{number(median(runs), 2)} ±{spread(runs):.0f}%" if runs else "error")
            rows.append(row)
        self.table(["workload"] + self.allocators, rows)
        self.add("An operation is a malloc/free pair, a replacement in a pool (one free and one "
                 "allocation) or one realloc: " +
                 "; ".join(f"`{w}`: {summaries[w]}" for w in self.workloads) + ".")
        self.add()
        self.add("### TarnHeap's speed-up over each peer (× , above 1 = TarnHeap faster)")
        self.add()
        rows = []
        for w in self.workloads:
            rows.append([f"`{w}`"] + [number(paired_ratio(self.linux, w, p, "cpu_ns"), 2)
                                      for p in self.peers])
        self.table(["workload"] + [f"vs {p}" for p in self.peers], rows)

    def memory(self):
        self.add("## Peak resident memory (MiB, median)")
        self.add()
        rows = []
        for w in self.workloads:
            row = [f"`{w}`"] + [number(self.rss[(w, a)] / 1024 if (w, a) in self.rss else None)
                                for a in self.allocators]
            glibc = self.rss.get((w, "glibc"))
            heap = self.rss.get((w, HEAP))
            row.append(number(heap / glibc, 2) if glibc and heap else "–")
            rows.append(row)
        self.table(["workload"] + self.allocators + ["TarnHeap / glibc"], rows)

    def instruction_table(self):
        self.add("## Heap instructions per operation (callgrind)")
        self.add()
        self.add("Instructions executed inside the allocator's library for the driver's calls "
                 "(inclusive, PLT stubs excluded), from two runs of "
                 f"{self.results['callgrind']['scale']} and twice that of each workload's full "
                 "step count, their difference divided by the difference in operations: "
                 "start-up and one-off costs cancel. Kernel work (page faults, mmap) is not "
                 "counted. `perf stat` cannot count instructions on this machine.")
        self.add()
        rows = []
        for w in self.workloads:
            per = self.instructions.get(w, {})
            rows.append([f"`{w}`"] + [number(per[a]["per_op"]) if a in per else "error"
                                      for a in self.allocators])
        self.table(["workload"] + self.allocators, rows)

    def hot_path(self):
        hot = self.results["hot_path"]
        self.add("## TarnHeap's hot path")
        self.add()
        if not hot:
            self.add("Not measured.")
            self.add()
            return
        rows = []
        for w, functions in hot.items():
            cells = [f"`{w}`"]
            total = 0.0
            for name in ("malloc", "calloc", "free"):
                entry = functions.get(name)
                cells.append(number(entry["ir_per_call"]) if entry else "–")
                total += entry["ir_per_call"] * entry["calls_per_op"] if entry else 0
            cells.append(number(total))
            cells.append(f"[listing]({functions['listing']})")
            rows.append(cells)
        self.table(["workload", "malloc", "calloc", "free", "per pair", "per instruction"],
                   rows)
        self.add("Instructions per call of TarnHeap's own exported functions, inclusive, in the "
                 "steady state of each pairs workload (libtarnheap.so preloaded). The listings "
                 "give each instruction's executions per call; profile/*.annotate.txt holds "
                 "callgrind_annotate's source view.")
        self.add()

    def programs(self):
        programs = self.results["programs"]
        runs = group(programs["runs"], "program", "cpu_seconds")
        self.programs_runs = runs
        self.add("## Real programs (Linux), processor seconds")
        self.add()
        names = sorted({run["program"] for run in programs["runs"]},
                       key=list(programs["scales"]).index)
        rows = []
        for name in names:
            glibc = median([r["cpu_seconds"] for r in runs.get((name, "glibc"), [])])
            calls = programs["requests"].get(name)
            rate = calls / glibc if calls and glibc else None
            row = [f"{name} ({programs['scales'][name]})",
                   f"{calls / 1e6:.2f} M ({rate / 1e6:.1f} M/s)" if rate else "–"]
            for a in self.allocators:
                times = [r["cpu_seconds"] for r in runs.get((name, a), []) if "error" not in r]
                failed = any("error" in r for r in runs.get((name, a), []))
                row.append("error" if failed else f"{number(median(times), 3)} "
                           f"±{spread(times):.0f}%")
            row.append(number(paired_ratio(runs, name, "glibc", "cpu_seconds"), 2))
            row.append(number(median([r["rss_kib"] for r in runs.get((name, HEAP), [])]) / 1024)
                       + " / " +
                       number(median([r["rss_kib"] for r in runs.get((name, "glibc"), [])])
                              / 1024))
            rows.append(row)
        self.table(["program (scale)", "allocation calls"] + self.allocators +
                   ["speed-up vs glibc", "peak MiB TarnHeap / glibc"], rows)
        self.add("Jobs in bench/programs/; each run's standard output is compared with the plain "
                 "run's (a difference is an error). Allocation-heavy: more than "
                 f"{HEAVY_CALLS_PER_SECOND / 1e6:.0f} M allocation calls per second of the plain "
                 "run.")
        if programs["missing"]:
            self.add(f"Not installed, left out: {', '.join(programs['missing'])}.")
        self.add()

    def windows(self):
        windows = self.results["windows"]
        self.add("## TARNHEAP.dll under Wine, elapsed ns per operation")
        self.add()
        if "skipped" in windows:
            self.add(f"Skipped: {windows['skipped']}.")
            self.add()
            self.windows_gain = None
            return
        runs = group(windows["runs"], "workload", "ns")
        rows, gains = [], []
        for w in self.workloads:
            msvcrt = [r["ns"] for r in runs.get((w, "msvcrt"), [])]
            heap = [r["ns"] for r in runs.get((w, HEAP), [])]
            gain = paired_ratio(runs, w, "msvcrt", "ns")
            if gain:
                gains.append(gain)
            rows.append([f"`{w}`",
                         f"{number(median(msvcrt), 2)} ±{spread(msvcrt):.0f}%" if msvcrt
                         else "error",
                         f"{number(median(heap), 2)} ±{spread(heap):.0f}%" if heap else "error",
                         number(gain, 2)])
        self.windows_gain = (math.exp(sum(math.log(g) for g in gains) / len(gains))
                             if len(gains) == len(self.workloads) else None)
        rows.append(["geometric mean", "", "", number(self.windows_gain, 2)])
        self.table(["workload", "msvcrt (Wine's)", "TARNHEAP.dll", "speed-up"], rows)
        self.windows_runs = runs

    def chart_data(self, directory):
        """Speed relative to glibc (and to msvcrt under Wine), for gnuplot."""
        with open(os.path.join(directory, "report_linux.dat"), "w") as out:
            out.write("workload " + " ".join(self.allocators) + "\n")
            for w in self.workloads:
                base = self.ns.get((w, "glibc"))
                cells = [f"{base / self.ns[(w, a)]:.4f}" if base and (w, a) in self.ns else "?"
                         for a in self.allocators]
                out.write(w.replace("_", "-") + " " + " ".join(cells) + "\n")
        programs = self.results["programs"]
        with open(os.path.join(directory, "report_programs.dat"), "w") as out:
            out.write("program " + " ".join(self.allocators) + "\n")
            for name in programs["scales"]:
                times = {a: median([r["cpu_seconds"] for r in self.programs_runs.get((name, a), [])
                                    if "error" not in r]) for a in self.allocators}
                base = times.get("glibc")
                cells = [f"{base / times[a]:.4f}" if base and times[a] else "?"
                         for a in self.allocators]
                out.write(name + " " + " ".join(cells) + "\n")
        with open(os.path.join(directory, "report_windows.dat"), "w") as out:
            out.write("workload speedup\n")
            for w in self.workloads if hasattr(self, "windows_runs") else []:
                gain = paired_ratio(self.windows_runs, w, "msvcrt", "ns")
                out.write(f"{w.replace('_', '-')} {gain:.4f}\n" if gain else f"{w} ?\n")

    # Targets --------------------------------------------------------------------------------

    def speed_target(self, label, workloads, strict):
        figures, met = [], True
        for w in workloads:
            heap = self.ns.get((w, HEAP))
            best, peer = self.fastest_peer(w)
            if heap is None or best is None:
                met = None
                continue
            ok = heap < best if strict else heap <= best
            met = met and ok
            figures.append(f"`{w}` {heap:.2f} ns vs {peer} {best:.2f} ns "
                           f"({(heap / best - 1) * 100:+.0f}%)")
        self.target(label, met, "; ".join(figures))

    def limit_target(self, label, workload, limit):
        heap = self.ns.get((workload, HEAP))
        self.target(label, heap is not None and heap <= limit if heap else None,
                    f"{heap:.2f} ns per pair (limit {limit} ns)" if heap else "")

    def evaluate(self):
        self.speed_target("Small pairs no slower than the fastest peer", SMALL_PAIRS, False)
        figures, met = [], True
        for w in SMALL_PAIRS:
            per = self.instructions.get(w, {})
            if HEAP not in per:
                met = None
                continue
            heap = per[HEAP]["per_op"]
            fewest = min(((per[p]["per_op"], p) for p in self.peers if p in per), default=None)
            met = met and heap <= PAIR_INSTRUCTION_LIMIT and (fewest is None or heap < fewest[0])
            figures.append(f"`{w}` {heap:.0f}" +
                           (f" vs {fewest[1]} {fewest[0]:.0f}" if fewest else ""))
        self.target(f"Fewest instructions per small pair, at most {PAIR_INSTRUCTION_LIMIT}",
                    met, "; ".join(figures))
        self.limit_target(f"LIFO batches at most {LIFO_LIMIT_NS} ns per pair", "lifo_batch",
                          LIFO_LIMIT_NS)
        self.limit_target(f"calloc 256 + free at most {CALLOC_LIMIT_NS} ns", "calloc_256",
                          CALLOC_LIMIT_NS)
        self.speed_target("Random pool faster than every peer", ["random_pool"], True)
        self.speed_target("Medium and large pairs and the large pool no slower than the fastest "
                          "peer", LARGE_WORKLOADS, False)
        figures, met = [], True
        for w in SMALL_HEAP_WORKLOADS:
            heap, glibc = self.rss.get((w, HEAP)), self.rss.get((w, "glibc"))
            if not heap or not glibc:
                met = None
                continue
            met = met and heap <= RSS_LIMIT * glibc
            figures.append(f"`{w}` {heap / glibc:.2f}×")
        self.target(f"Peak RSS on small-heap workloads at most {RSS_LIMIT} × glibc's", met,
                    "; ".join(figures))
        self.program_targets()
        gain = getattr(self, "windows_gain", None)
        self.target(f"DLL under Wine at least {WINDOWS_GAIN:.0f} × msvcrt's speed (geometric "
                    "mean)", gain >= WINDOWS_GAIN if gain else None,
                    f"{gain:.2f}×" if gain else "")

    def program_targets(self):
        programs = self.results["programs"]
        never, heavy = [], []
        met_never, met_heavy = True, True
        for name in programs["scales"]:
            runs = self.programs_runs
            if any("error" in r for r in runs.get((name, HEAP), [])):
                met_never = False
                never.append(f"{name} error")
                continue
            gain = paired_ratio(runs, name, "glibc", "cpu_seconds")
            glibc = median([r["cpu_seconds"] for r in runs.get((name, "glibc"), [])])
            if gain is None or glibc is None:
                continue
            met_never = met_never and gain >= 1.0
            never.append(f"{name} {gain:.2f}×")
            calls = programs["requests"].get(name)
            if calls and calls / glibc > HEAVY_CALLS_PER_SECOND:
                met_heavy = met_heavy and gain >= PROGRAM_GAIN
                heavy.append(f"{name} {gain:.2f}×")
        self.target("Real programs never slower than glibc", met_never if never else None,
                    "; ".join(never))
        self.target(f"Allocation-heavy programs at least {(PROGRAM_GAIN - 1) * 100:.0f} % faster"
                    " than glibc", met_heavy if heavy else None, "; ".join(heavy))

    def errors(self):
        errors = (self.results["linux"]["errors"] + self.results["programs"]["errors"] +
                  self.results["windows"].get("errors", []) +
                  self.results["callgrind"]["errors"])
        self.add("## Errors")
        self.add()
        self.add("\n".join(f"- {e}" for e in errors) if errors else "None.")
        self.add()

    def render(self, directory):
        """The header, then the targets with the chart, then the tables, then the errors."""
        self.header()
        header, self.lines = self.lines, []
        self.synthetic()
        self.memory()
        self.instruction_table()
        self.hot_path()
        self.programs()
        self.windows()
        self.errors()
        self.evaluate()
        self.chart_data(directory)
        body, self.lines = self.lines, []
        self.add("## Targets")
        self.add()
        self.add("| target | status | figures |")
        self.add("|---|---|---|")
        self.lines += self.targets
        self.add()
        self.add("![speed relative to glibc and msvcrt](report.png)")
        self.add()
        return "\n".join(header + self.lines + body) + "\n"


GNUPLOT = """
set terminal pngcairo size 1400,1500 font ",10"
set output "{directory}/report.png"
set multiplot layout 3,1
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set key outside right top
set grid ytics
set logscale y 2
set format y "%.3g"
set xtics rotate by -30 nomirror
set ylabel "speed relative to glibc"
set title "Synthetic workloads (Linux): glibc time / allocator time"
plot for [i=2:{columns}] "{directory}/report_linux.dat" using i:xtic(1) title columnheader(i)
set title "Real programs (Linux): glibc time / allocator time"
plot for [i=2:{columns}] "{directory}/report_programs.dat" using i:xtic(1) title columnheader(i)
set ylabel "speed-up over msvcrt"
set title "TARNHEAP.dll under Wine: msvcrt time / TARNHEAP.dll time"
plot "{directory}/report_windows.dat" using 2:xtic(1) title "TARNHEAP.dll" lc rgb "#c0392b"
unset multiplot
"""


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else "build/bench"
    with open(os.path.join(directory, "results.json")) as source:
        results = json.load(source)
    report = Report(results)
    text = report.render(directory)
    with open(os.path.join(directory, "report.md"), "w") as out:
        out.write(text)
    script = os.path.join(directory, "report.gp")
    with open(script, "w") as out:
        out.write(GNUPLOT.format(directory=directory, columns=len(report.allocators) + 1))
    chart = subprocess.run(["gnuplot", script], capture_output=True, text=True, check=False)
    if chart.returncode != 0:
        sys.stderr.write(f"gnuplot failed: {chart.stderr}\n")
    print(os.path.join(directory, "report.md"))


if __name__ == "__main__":
    main()
