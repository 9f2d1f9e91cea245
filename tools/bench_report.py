#!/usr/bin/env python3
"""Turns <dir>/results.json (from bench_suite.py) into <dir>/report.md and, with gnuplot,
<dir>/report.png. The measured reasons for missed goals, when bench/results/notes.md exists,
are included verbatim. Usage: bench_report.py <dir>"""

import json
import math
import os
import statistics
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
NOTES = os.path.join("bench", "results", "notes.md")
HEAP = "tarnheap"
NOT_MEASURABLE = "n/m"

# The speed goals on Linux: the workloads of each, and the largest ratio TarnHeap / fastest
# allocator that meets it.
SPEED_GOALS = [
    ("Small pairs of 16, 64 and 256 B, the LIFO batch and calloc 256",
     ["pairs_16", "pairs_64", "pairs_256", "lifo_batch", "calloc_256"], 1.00),
    ("The random pool of 1..4096 B", ["random_pool"], 1.5),
    ("Pairs of 4 KiB and 32 KiB", ["pairs_4k", "pairs_32k"], 1.5),
    ("Pairs of 256 KiB and 1 MiB, and the large pool", ["pairs_256k", "pairs_1m", "large_pool"],
     2.0),
]
PAIR_INSTRUCTIONS = ["pairs_16", "pairs_64", "pairs_256"]
PAIR_INSTRUCTION_LIMIT = 45
# Under Wine, TARNHEAP.dll is to be faster than mimalloc built for Windows on these.
WINDOWS_GOALS = [
    ("small", ["pairs_16", "pairs_64", "pairs_256", "lifo_batch", "calloc_256"]),
    ("medium", ["random_pool", "pairs_4k", "pairs_32k", "size_mix"]),
]
PROGRAM_RATIO_LIMIT = 1.00
RSS_LIMIT = 1.1
WINDOWS_NAMES = {"msvcrt": "msvcrt (Wine's)", HEAP: "TARNHEAP.dll", "mimalloc": "mimalloc"}
COLOURS = ["#7f8c8d", "#2980b9", "#27ae60", "#8e44ad", "#f1c40f", "#16a085", "#2c3e50",
           "#a0785a", "#e84393", "#6c5ce7"]
HEAP_COLOUR = "#c0392b"


def median(values):
    return statistics.median(values) if values else None


def quartiles(values):
    if len(values) < 2:
        return list(values) * 3
    return statistics.quantiles(values, n=4, method="inclusive")


def spread(values):
    """Half the interquartile range, as a percentage of the median."""
    low, middle, high = quartiles(values)
    return (high - low) / 2 / middle * 100 if middle else 0.0


def geometric_mean(values):
    return math.exp(sum(math.log(v) for v in values) / len(values)) if values else None


def number(value, digits=2):
    if value is None:
        return "–"
    if 0 < abs(value) < 0.01:
        return f"{value:.2g}"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    if abs(value) >= 100:
        return f"{value:.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.{digits}f}"


def figure(values, digits=2):
    """Median ± spread."""
    return f"{number(median(values), digits)} ±{spread(values):.0f}%" if values else "–"


def group(runs, key):
    """{(item, allocator): [runs]}, failed runs left out."""
    table = {}
    for run in runs:
        if "error" not in run:
            table.setdefault((run[key], run["allocator"]), []).append(run)
    return table


def ratios_to_fastest(table, item, peers, field):
    """Per repetition, TarnHeap's figure / the lowest of the peers' figures in the same
    repetition (the allocators of a repetition run moments apart)."""
    heap = {run["rep"]: run[field] for run in table.get((item, HEAP), [])}
    best = {}
    for peer in peers:
        for run in table.get((item, peer), []):
            best[run["rep"]] = min(best.get(run["rep"], math.inf), run[field])
    return [heap[rep] / best[rep] for rep in sorted(heap) if best.get(rep, 0) > 0]


def within(ratio, limit):
    """Compared as the report prints it, to two decimals."""
    return round(ratio, 2) <= limit


class Report:
    def __init__(self, results):
        self.results = results
        self.lines = []
        self.goals = []
        self.allocators = results["allocators"]
        self.peers = [a for a in self.allocators if a != HEAP]
        self.workloads = [name for name, _ in results["workloads"]]
        self.linux = group(results["linux"]["runs"], "workload")
        self.ns = self.medians(self.linux, "cpu_ns")
        self.rss = self.medians(self.linux, "rss_kib")
        self.instructions = results["callgrind"]["results"]
        self.programs_table = group(results["programs"]["runs"], "program")
        self.program_names = [p for p in results["programs"]["scales"]
                              if any((p, a) in self.programs_table for a in self.allocators)]
        windows = results["windows"]
        self.windows_table = group(windows.get("runs", []), "workload")
        self.windows_allocators = windows.get("allocators", [])
        version = windows.get("mimalloc", {}).get("version")
        self.windows_names = dict(WINDOWS_NAMES)
        if version:
            self.windows_names["mimalloc"] = f"mimalloc {version}"
        self.unmeasurable = {(entry["phase"], entry["allocator"], entry["item"])
                             for entry in results["not_measurable"]}

    @staticmethod
    def medians(table, field):
        return {key: median([run[field] for run in runs]) for key, runs in table.items()}

    def add(self, text=""):
        self.lines.append(text)

    def table(self, header, rows, text_columns=1):
        """Columns after the first text_columns hold figures, aligned right."""
        self.add("| " + " | ".join(header) + " |")
        self.add("|" + "|".join("---" if i < text_columns else "---:"
                                for i in range(len(header))) + "|")
        for row in rows:
            self.add("| " + " | ".join(row) + " |")
        self.add()

    def section(self, title, skipped=None):
        """A heading; False, after the reason, when the section has no figures."""
        self.add(f"## {title}")
        self.add()
        if skipped:
            self.add(skipped)
            self.add()
        return not skipped

    def goal(self, name, met, figures):
        """met: True, False, or None when the goal could not be measured (figures say why)."""
        status = {True: "**met**", False: "**missed**", None: "not measured"}[met]
        self.goals.append((name, status, figures))

    def missing_cell(self, phases, allocator, item):
        return (NOT_MEASURABLE if any((phase, allocator, item) in self.unmeasurable
                                      for phase in phases) else "error")

    def fastest(self, table, item, peers, field):
        """(median, name) of the peer with the lowest median figure on the item."""
        timed = [(median([run[field] for run in table[(item, p)]]), p) for p in peers
                 if (item, p) in table]
        return min(timed) if timed else (None, None)

    # Sections -------------------------------------------------------------------------------

    def header(self):
        r = self.results
        machine = r["machine"]
        phases = ", ".join(f"{phase} {minutes:.1f}" for phase, minutes in
                           r["phase_minutes"].items())
        self.add("# TarnHeap benchmark report")
        self.add()
        self.add(f"{r['mode'].capitalize()} run, {r['minutes']:.1f} minutes ({phases}); "
                 f"{machine['processor']}, {machine['cores']} cores, Linux {machine['kernel']}, "
                 f"{machine['date']}. Linux allocators: {', '.join(self.allocators)} (each "
                 "through LD_PRELOAD; glibc is the plain run).")
        if r["extra_peers"]:
            self.add("Extra peers: " + ", ".join(f"{name} (`{path}`)" for name, path in
                                                 r["extra_peers"].items()) + ".")
        if r["missing_peers"]:
            self.add(f"Not installed, left out: {', '.join(r['missing_peers'])}.")
        self.add()
        self.add("Every figure is the median over fresh processes, one per repetition: "
                 f"{r['small_reps']} for the small workloads "
                 f"({', '.join(f'`{w}`' for w in r['small_workloads'])}), {r['reps']} for the "
                 "others, ± half the interquartile range in percent of the median. The "
                 "allocators alternate round-robin within each repetition, and a ratio "
                 "TarnHeap / fastest is the median over repetitions of TarnHeap's figure divided "
                 "by the lowest peer figure of the same repetition: below 1, TarnHeap is faster. "
                 "Times on Linux are processor time (user + system) of the process: the machine "
                 "is shared, and elapsed time would include the waits for a processor "
                 "(results.json keeps elapsed time too). Under Wine, where process times come in "
                 "10 ms ticks, elapsed time.")
        self.add()

    def times(self):
        self.section("Synthetic workloads (Linux), processor ns per operation")
        summaries = dict(self.results["workloads"])
        rows = []
        for w in self.workloads:
            best = min((self.ns[(w, a)] for a in self.allocators if (w, a) in self.ns),
                       default=None)
            row = [f"`{w}`"]
            for a in self.allocators:
                values = [run["cpu_ns"] for run in self.linux.get((w, a), [])]
                text = figure(values) if values else self.missing_cell(["linux"], a, w)
                row.append(f"**{text}**" if values and self.ns[(w, a)] == best else text)
            rows.append(row)
        self.table(["workload"] + self.allocators, rows)
        self.add("The fastest of each row in bold. An operation is a malloc/free pair, a "
                 "replacement in a pool (one free and one allocation) or one realloc: " +
                 "; ".join(f"`{w}`: {summaries[w]}" for w in self.workloads) + ".")
        self.add()

    def ratios(self):
        self.section("TarnHeap / fastest allocator (Linux)")
        rows = []
        for w in self.workloads:
            values = ratios_to_fastest(self.linux, w, self.peers, "cpu_ns")
            best, peer = self.fastest(self.linux, w, self.peers, "cpu_ns")
            low, _, high = quartiles(values) if values else (None, None, None)
            rows.append([f"`{w}`", number(self.ns.get((w, HEAP))), peer or "–", number(best),
                         f"**{number(median(values))}**" if values else "–",
                         f"{number(low)} – {number(high)}" if values else "–", str(len(values))])
        self.table(["workload", "TarnHeap ns", "fastest peer", "its ns", "TarnHeap / fastest",
                    "quartiles", "repetitions"], rows)
        self.add("The fastest peer is the one with the lowest median; the ratio compares "
                 "TarnHeap with whichever peer was fastest in each repetition.")
        self.add()

    def memory(self):
        self.section("Peak resident memory (MiB, median)")
        rows = []
        for w in self.workloads:
            row = [f"`{w}`"] + [number(self.rss[(w, a)] / 1024, 1) if (w, a) in self.rss
                                else self.missing_cell(["linux"], a, w)
                                for a in self.allocators]
            glibc, heap = self.rss.get((w, "glibc")), self.rss.get((w, HEAP))
            row.append(number(heap / glibc) if glibc and heap else "–")
            rows.append(row)
        self.table(["workload"] + self.allocators + ["TarnHeap / glibc"], rows)

    def instruction_table(self):
        self.section("Heap instructions per operation (callgrind)")
        self.add("Instructions executed inside the allocator's library for the driver's calls "
                 "(inclusive, PLT stubs excluded), from two runs of "
                 f"{self.results['callgrind']['scale']} and twice that of each workload's full "
                 "step count, their difference divided by the difference in operations: "
                 "start-up and one-off costs cancel. Kernel work (page faults, mmap) is not "
                 "counted.")
        self.add()
        skipped = self.results["callgrind"]["skipped"]
        rows = []
        for w in self.workloads:
            per = self.instructions.get(w, {})
            rows.append([f"`{w}`"] + [number(per[a]["per_op"], 1) if a in per else
                                      "–" if w in skipped else
                                      self.missing_cell(["linux", "callgrind"], a, w)
                                      for a in self.allocators])
        self.table(["workload"] + self.allocators, rows)
        if skipped:
            self.add(f"Not counted in a quick run: {', '.join(f'`{w}`' for w in skipped)}.")
            self.add()

    def hot_path(self):
        hot = self.results["hot_path"]
        if not self.section("TarnHeap's hot path", None if hot else "Not measured."):
            return
        rows = []
        for w, functions in hot.items():
            cells = [f"`{w}`"]
            total = 0.0
            for name in ("malloc", "calloc", "free"):
                entry = functions.get(name)
                cells.append(number(entry["ir_per_call"], 1) if entry else "–")
                total += entry["ir_per_call"] * entry["calls_per_op"] if entry else 0
            cells.append(number(total, 1))
            cells.append(f"[listing]({functions['listing']})")
            rows.append(cells)
        self.table(["workload", "malloc", "calloc", "free", "per pair", "per instruction"],
                   rows)
        self.add("Instructions per call of TarnHeap's own exported functions, inclusive, in the "
                 "steady state of each pairs workload (libtarnheap.so preloaded). The listings "
                 "give each instruction's executions per call; profile/*.annotate.txt holds "
                 "callgrind_annotate's source view.")
        self.add()

    def program_figures(self, field):
        return {key: median([run[field] for run in runs])
                for key, runs in self.programs_table.items()}

    def programs(self):
        programs = self.results["programs"]
        self.section("Real programs (Linux)")
        seconds, rss = self.program_figures("cpu_seconds"), self.program_figures("rss_kib")
        rows = []
        for name in self.program_names:
            calls = programs["requests"].get(name)
            row = [f"{name} ({programs['scales'][name]})",
                   f"{calls / 1e6:.2f} M" if calls else "–"]
            for a in self.allocators:
                values = [run["cpu_seconds"] for run in self.programs_table.get((name, a), [])]
                row.append(figure(values, 3) if values else
                           self.missing_cell(["programs"], a, name))
            values = ratios_to_fastest(self.programs_table, name, self.peers, "cpu_seconds")
            row.append(number(median(values)) if values else "–")
            rows.append(row)
        glibc = [seconds.get((p, "glibc")) for p in self.program_names]
        means = []
        for a in self.allocators:
            own = [seconds.get((p, a)) for p in self.program_names]
            complete = all(own) and all(glibc)
            means.append(number(geometric_mean([t / g for t, g in zip(own, glibc)]))
                         if complete and own else "–")
        rows.append(["geometric mean, relative to glibc", ""] + means +
                    [number(self.program_ratio()[0])])
        self.table(["program (scale)", "allocation calls"] + self.allocators +
                   ["TarnHeap / fastest"], rows)
        self.add("Processor seconds of each whole run. Jobs in bench/programs/; each run's "
                 "standard output is compared with the plain run's (a difference makes the "
                 "allocator not measurable on that program). The last row's TarnHeap / fastest "
                 "takes, in each repetition, every allocator's geometric mean over the programs.")
        if programs["missing"]:
            self.add(f"Not installed, left out: {', '.join(programs['missing'])}.")
        self.add()
        self.add("Peak resident memory (MiB, median):")
        self.add()
        rows = []
        for name in self.program_names:
            heap, base = rss.get((name, HEAP)), rss.get((name, "glibc"))
            rows.append([name] + [number(rss[(name, a)] / 1024, 1) if (name, a) in rss else
                                  self.missing_cell(["programs"], a, name)
                                  for a in self.allocators] +
                        [number(heap / base) if heap and base else "–"])
        self.table(["program"] + self.allocators + ["TarnHeap / glibc"], rows)

    def program_ratio(self):
        """(median over repetitions of TarnHeap's geometric mean over the programs / the lowest
        peer's, the peers that ran every program)."""
        by_rep = {}
        for (name, allocator), runs in self.programs_table.items():
            for run in runs:
                by_rep.setdefault(run["rep"], {}).setdefault(allocator, {})[name] = \
                    run["cpu_seconds"]
        complete = [p for p in self.peers
                    if all((name, p) in self.programs_table for name in self.program_names)]
        ratios = []
        for times in by_rep.values():
            means = {a: geometric_mean(list(t.values())) for a, t in times.items()
                     if len(t) == len(self.program_names)}
            rivals = [means[p] for p in complete if p in means]
            if HEAP in means and rivals:
                ratios.append(means[HEAP] / min(rivals))
        return (median(ratios) if self.program_names else None), complete

    def windows(self):
        windows = self.results["windows"]
        skipped = windows.get("skipped")
        if not self.section("Windows drivers under Wine, elapsed ns per operation",
                            skipped and f"Skipped: {skipped}."):
            return
        mimalloc = "mimalloc" in self.windows_allocators
        rows = []
        for w in self.workloads:
            row = [f"`{w}`"]
            for a in self.windows_allocators:
                values = [run["ns"] for run in self.windows_table.get((w, a), [])]
                row.append(figure(values) if values else self.missing_cell(["windows"], a, w))
            if mimalloc:
                values = ratios_to_fastest(self.windows_table, w, ["mimalloc"], "ns")
                row.append(number(median(values)) if values else "–")
            rows.append(row)
        names = [self.windows_names[a] for a in self.windows_allocators]
        self.table(["workload"] + names + (["TARNHEAP.dll / mimalloc"] if mimalloc else []),
                   rows)
        self.add("msvcrt here is Wine's own C runtime heap, not the heap of Windows: its column "
                 "is for reference and measures nothing about speed on Windows "
                 f"({self.results['reps']} repetitions of every workload).")
        self.add("mimalloc is a static mingw build linked into a driver of its own." if mimalloc
                 else f"No mimalloc driver: {windows['mimalloc']['absent']}.")
        self.add()

    def variation(self):
        variation = self.results["variation"]
        skipped = variation.get("skipped")
        if not self.section("Process-to-process variation",
                            skipped and f"Not measured: {skipped}."):
            return
        rows = []
        for name, values in variation["samples"].items():
            if values:
                low, middle, high = quartiles(values)
                rows.append([name, str(len(values))] +
                            [number(v) for v in (min(values), low, middle, high, max(values))])
        self.table(["allocator", "processes", "min", "lower quartile", "median",
                    "upper quartile", "max"], rows)
        self.add(f"Processor ns per operation of `{variation['workload']}`, each figure from a "
                 f"fresh process; TarnHeap and {variation['peer']} (the fastest peer on it in "
                 "the Linux runs) alternate.")
        self.add()

    def not_measurable(self):
        grouped = {}
        for entry in self.results["not_measurable"]:
            key = (entry["phase"], entry["allocator"], entry["reason"])
            grouped.setdefault(key, []).append(entry["item"])
        if not self.section("Not measurable", None if grouped else
                            "None: every peer ran everything."):
            return
        skipped = self.results["callgrind"]["skipped"]
        for (phase, allocator, reason), items in grouped.items():
            attempted = {w for w in self.workloads if phase != "callgrind" or w not in skipped}
            every = phase in ("linux", "callgrind", "windows") and set(items) >= attempted
            what = "every workload" if every else ", ".join(f"`{item}`" for item in items)
            self.add(f"- {allocator}, {phase}, {what}: {reason}")
        self.add()
        self.add(f"Cells marked {NOT_MEASURABLE} are these; a peer that fails is not run on "
                 "that item again.")
        self.add()

    def errors(self):
        errors = self.results["errors"]
        self.section("Errors")
        self.add("\n".join(f"- {e}" for e in errors) if errors else "None.")
        self.add()

    # Goals ----------------------------------------------------------------------------------

    def ratio_goal(self, label, table, workloads, peers, field, meets):
        """A goal on each workload's ratio TarnHeap / fastest of the peers: meets(ratio)."""
        figures, met = [], True
        for w in workloads:
            values = ratios_to_fastest(table, w, peers, field)
            if not values:
                figures.append(f"`{w}` has no figure of TarnHeap and a peer in one repetition")
                met = None
                continue
            ratio = median(values)
            if met is not None:
                met = met and meets(ratio)
            peer = f" ({self.fastest(table, w, peers, field)[1]})" if len(peers) > 1 else ""
            figures.append(f"`{w}` {ratio:.2f}{peer}")
        self.goal(label, met, "; ".join(figures))

    def speed_goals(self):
        for label, workloads, limit in SPEED_GOALS:
            self.ratio_goal(f"{label}: TarnHeap / fastest at most {limit:.2f}", self.linux,
                            workloads, self.peers, "cpu_ns",
                            lambda ratio, limit=limit: within(ratio, limit))

    def instruction_goal(self):
        figures, met = [], True
        for w in PAIR_INSTRUCTIONS:
            heap = self.instructions.get(w, {}).get(HEAP)
            if heap is None:
                figures.append(f"`{w}` not counted")
                met = None
                continue
            if met is not None:
                met = met and round(heap["per_op"]) <= PAIR_INSTRUCTION_LIMIT
            figures.append(f"`{w}` {heap['per_op']:.0f}")
        self.goal(f"At most {PAIR_INSTRUCTION_LIMIT} instructions of the heap's own per small "
                  "pair (callgrind)", met, "; ".join(figures))

    def windows_goals(self):
        windows = self.results["windows"]
        reason = windows.get("skipped") or windows.get("mimalloc", {}).get("absent")
        name = self.windows_names["mimalloc"]
        for size, workloads in WINDOWS_GOALS:
            label = f"TARNHEAP.dll under Wine faster than {name} for Windows, {size} workloads"
            if reason:
                self.goal(label, None, reason)
                continue
            self.ratio_goal(label + " (TARNHEAP.dll / mimalloc below 1)", self.windows_table,
                            workloads, ["mimalloc"], "ns", lambda ratio: round(ratio, 2) < 1.0)

    def program_goals(self):
        ratio, complete = self.program_ratio()
        label = ("Real programs: geometric mean no slower than the fastest peer's "
                 f"(TarnHeap / fastest at most {PROGRAM_RATIO_LIMIT:.2f})")
        if ratio is None:
            self.goal(label, None, "no program ran under TarnHeap and a peer in one repetition")
        else:
            self.goal(label, within(ratio, PROGRAM_RATIO_LIMIT),
                      f"{ratio:.2f} against the fastest of {', '.join(complete)} in each "
                      "repetition")
        rss = self.program_figures("rss_kib")
        shares = {name: rss[(name, HEAP)] / rss[(name, "glibc")] for name in self.program_names
                  if rss.get((name, HEAP)) and rss.get((name, "glibc"))}
        label = f"Real programs: peak resident memory at most {RSS_LIMIT} × glibc's"
        if not shares or len(shares) < len(self.program_names):
            self.goal(label + ", per program and overall", None,
                      "not every program has a peak under both TarnHeap and glibc")
            return
        over = [name for name, share in shares.items() if not within(share, RSS_LIMIT)]
        self.goal(label + ", every program", not over,
                  "; ".join(f"{name} {share:.2f}" for name, share in shares.items()) +
                  (f"; above the limit: {', '.join(over)}" if over else ""))
        overall = geometric_mean(list(shares.values()))
        self.goal(label + ", overall (geometric mean of the programs' ratios)",
                  within(overall, RSS_LIMIT), f"{overall:.2f}")

    def targets(self):
        self.speed_goals()
        self.instruction_goal()
        self.windows_goals()
        self.program_goals()
        self.section("Targets")
        self.table(["goal", "status", "figures"], [list(goal) for goal in self.goals], 3)
        self.add("Ratios are TarnHeap / fastest allocator in the same repetition (Linux "
                 "processor time; elapsed time under Wine), medians over the repetitions.")
        self.add()
        notes = os.path.join(ROOT, NOTES)
        missed = any(status == "**missed**" for _, status, _ in self.goals)
        if os.path.exists(notes):
            self.add("## What the misses cost")
            self.add()
            with open(notes) as source:
                self.lines += source.read().rstrip("\n").split("\n")
            self.add()
        elif missed:
            self.add(f"No measured reasons for the missed goals yet: {NOTES}, when it exists, "
                     "is included here.")
            self.add()
        self.add("![speed relative to glibc on Linux, and to Wine's own C runtime heap under "
                 "Wine](report.png)")
        self.add()

    def render(self):
        self.header()
        self.targets()
        self.times()
        self.ratios()
        self.memory()
        self.instruction_table()
        self.hot_path()
        self.programs()
        self.windows()
        self.variation()
        self.not_measurable()
        self.errors()
        return "\n".join(self.lines) + "\n"

    # Chart ----------------------------------------------------------------------------------

    def chart(self, directory):
        """Data files and a gnuplot script: each allocator's speed relative to a base (glibc on
        Linux, Wine's msvcrt under Wine), the base's median time / the allocator's."""
        panels = []
        seconds = self.program_figures("cpu_seconds")
        for tag, items, figures, base, names, title, ylabel in [
                ("linux", self.workloads, self.ns, "glibc", self.allocators,
                 "Synthetic workloads (Linux): glibc time / allocator time",
                 "speed relative to glibc"),
                ("programs", self.program_names, seconds, "glibc", self.allocators,
                 "Real programs (Linux): glibc time / allocator time",
                 "speed relative to glibc"),
                ("windows", self.workloads, self.medians(self.windows_table, "ns"), "msvcrt",
                 [a for a in self.windows_allocators if a != "msvcrt"],
                 "Windows drivers under Wine: time of Wine's own C runtime heap (msvcrt, not "
                 "the heap of Windows) / driver time",
                 "speed relative to Wine's msvcrt")]:
            if not names or not items or not any(figures):
                continue
            path = os.path.join(directory, f"report_{tag}.dat")
            with open(path, "w") as out:
                for item in items:
                    reference = figures.get((item, base))
                    cells = [f"{reference / figures[(item, a)]:.4f}"
                             if reference and figures.get((item, a)) else "?" for a in names]
                    out.write(item.replace("_", "-") + " " + " ".join(cells) + "\n")
            plots = []
            for column, name in enumerate(names, start=2):
                colour = HEAP_COLOUR if name == HEAP else COLOURS[(column - 2) % len(COLOURS)]
                label = self.windows_names[name] if tag == "windows" else name
                source = f'"{path}"' if column == 2 else '""'
                plots.append(f'{source} using {column}:xtic(1) title "{label}" '
                             f'lc rgb "{colour}"')
            panels.append(f'set title "{title}"\nset ylabel "{ylabel}"\nplot ' +
                          ", \\\n     ".join(plots))
        return GNUPLOT.format(output=os.path.join(directory, "report.png"), panels=len(panels),
                              height=500 * len(panels), plots="\n".join(panels))


GNUPLOT = """set terminal pngcairo size 1600,{height} font ",10"
set output "{output}"
set multiplot layout {panels},1
set datafile missing "?"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set key outside right top
set grid ytics
set logscale y 2
set format y "%g"
set xtics rotate by -30 nomirror
{plots}
unset multiplot
"""


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else "build/bench"
    with open(os.path.join(directory, "results.json")) as source:
        results = json.load(source)
    report = Report(results)
    with open(os.path.join(directory, "report.md"), "w") as out:
        out.write(report.render())
    script = os.path.join(directory, "report.gp")
    with open(script, "w") as out:
        out.write(report.chart(directory))
    chart = subprocess.run(["gnuplot", script], capture_output=True, text=True, check=False)
    if chart.returncode != 0:
        sys.stderr.write(f"gnuplot failed: {chart.stderr}\n")
    print(os.path.join(directory, "report.md"))


if __name__ == "__main__":
    main()
