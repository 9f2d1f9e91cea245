#!/usr/bin/env python3
"""Runs TarnHeap's benchmark suite and writes every measurement to <out>/results.json.

Phases, each with a progress line on standard error:
  linux     the workload driver under each Linux allocator (LD_PRELOAD), one fresh process per
            workload and repetition, allocators in round-robin order that rotates from one
            repetition to the next; the small workloads, whose time varies from process to
            process, get more repetitions;
  variation the 64-byte pair in many fresh processes, TarnHeap and the fastest peer interleaved;
  programs  Debian's own single-threaded programs running the jobs of bench/programs/ under each
            allocator, their output compared with the plain run's;
  windows   the Windows drivers under Wine: Wine's C runtime heap, TARNHEAP.dll and, when the
            Windows build has one, a mingw build of mimalloc;
  callgrind the heap's own instructions per operation: the driver's calls into the allocator's
            library, counted by callgrind at two iteration counts, their difference divided by
            the difference in operations (start-up and one-off costs cancel out);
  hot path  the same for TarnHeap's malloc and free alone, with the per-instruction profile.

A failure of TarnHeap is an error. A peer that fails (crashes on a workload, cannot run under
valgrind, prints something else than the plain run) is recorded as not measurable there, with
the reason, and is not run on that item again.

tools/bench.sh builds what this needs and renders the report; run this directly only to
measure builds of your own (--linux-build, --windows-build).
"""

import argparse
import json
import os
import platform
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

sys.dont_write_bytecode = True  # no __pycache__ in the source tree
import bench_callgrind  # noqa: E402
import peers  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HEAP = peers.HEAP

# Each real program: its command ({jobs} is bench/programs, {scale} the job's size), the file
# it reads on standard input, and its scale in full and quick runs (about 1 s and 0.25 s).
PROGRAMS = [
    ("gawk", ["gawk", "-v", "scale={scale}", "-f", "{jobs}/wordfreq.awk"], None, 15, 4),
    ("lua5.4", ["lua5.4", "{jobs}/tables.lua", "{scale}"], None, 150, 40),
    ("perl", ["perl", "{jobs}/hashes.pl", "{scale}"], None, 60, 15),
    ("sqlite3", ["sqlite3", "-cmd", ".parameter set @rows {scale}", ":memory:"],
     "queries.sql", 100000, 25000),
    ("python3", ["/usr/bin/python3", "{jobs}/objects.py", "{scale}"], None, 100, 25),
]

# Callgrind runs at scale s and 2s of each workload's full step count, no time cap, no warm-up.
CALLGRIND_SCALE = 0.002
# calloc_mix never runs fewer than its minimum of 2000 steps: the first of its two runs makes
# exactly that many.
CALLGRIND_SCALE_OVERRIDES = {"calloc_mix": 0.01}
# Under callgrind, calloc_mix takes about ten seconds per thousand steps (the driver reads every
# byte it is given, megabytes per step): a quick run leaves it out.
CALLGRIND_QUICK_SKIPS = ["calloc_mix"]
HOT_PATH_WORKLOADS = ["pairs_16", "pairs_64", "pairs_256", "calloc_256"]
# The workloads of a few nanoseconds per operation, whose figures move most between processes.
SMALL_WORKLOADS = ["pairs_16", "pairs_64", "pairs_256", "lifo_batch", "calloc_256"]
VARIATION_WORKLOAD = "pairs_64"
RUN_TIMEOUT = 300


class Progress:
    """One line on standard error, rewritten in place on a terminal."""

    def __init__(self):
        self.tty = sys.stderr.isatty()
        self.last = 0.0

    def show(self, phase, done, total, what):
        now = time.monotonic()
        if not self.tty and done != total and now - self.last < 5:
            return
        self.last = now
        line = f"[bench] {phase} {done}/{total} {what}"
        if self.tty:
            sys.stderr.write("\r\033[K" + line[:150])
            if done == total:
                sys.stderr.write("\n")
        else:
            sys.stderr.write(line + "\n")
        sys.stderr.flush()


def rotated(items, shift):
    shift %= len(items)
    return items[shift:] + items[:shift]


def clean_environment():
    env = dict(os.environ)
    env.pop("LD_PRELOAD", None)
    return env


def run_measured(command, preload=None, settings=None, stdin_path=None):
    """Runs a command under /usr/bin/time, with LD_PRELOAD and other settings in its own
    environment only; returns (exit status, stdout, stderr, elapsed seconds, processor seconds,
    peak RSS in KiB).

    The peak comes from `time`, a small process that forks the command (a child forked from
    this Python process would count Python's pages in its peak); the processor time (user and
    system, of `time` and the command it waited for) from wait4.

    Every allocator's command runs with address-space randomisation off (`setarch -R`): with it
    on, the kernel maps shared libraries into the heap's fixed 8 GiB region in about one Linux
    process in 120, and such a process runs on the C library's heap behind the heap's slow path
    (bench/results/notes.md), which would measure that heap under TarnHeap's name."""
    assignments = [f"LD_PRELOAD={preload}"] if preload else []
    assignments += [f"{name}={value}" for name, value in (settings or {}).items()]
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err, \
            tempfile.NamedTemporaryFile(mode="r") as peak:
        stdin = open(stdin_path, "rb") if stdin_path else subprocess.DEVNULL
        start = time.perf_counter()
        process = subprocess.Popen(
            ["/usr/bin/time", "-f", "%M", "-o", peak.name, "setarch", "-R"] +
            (["env"] + assignments if assignments else []) + command,
            env=clean_environment(), stdin=stdin, stdout=out, stderr=err)
        watchdog = threading.Timer(RUN_TIMEOUT, process.kill)
        watchdog.start()
        _, status, usage = os.wait4(process.pid, 0)
        seconds = time.perf_counter() - start
        watchdog.cancel()
        process.returncode = os.waitstatus_to_exitcode(status)
        if stdin_path:
            stdin.close()
        peak_lines = peak.read().split()
        out.seek(0)
        err.seek(0)
        return (process.returncode, out.read().decode(errors="replace"),
                err.read().decode(errors="replace"), seconds, usage.ru_utime + usage.ru_stime,
                int(peak_lines[-1]) if peak_lines and peak_lines[-1].isdigit() else 0)


def parse_driver_line(text, workload):
    for line in text.splitlines():
        fields = line.split()
        if len(fields) == 5 and fields[0] == workload:
            return {"ns": float(fields[1]), "ops": int(fields[2]), "rss_kib": int(fields[3]),
                    "cpu_ns": float(fields[4])}
    return None


def failure_reason(status, text):
    """The exit status, or the signal, and the last line the program itself wrote (valgrind's
    own lines begin with ==)."""
    number = -status if status < 0 else status - 128 if status > 128 else 0
    what = f"exit {status}"
    if number in signal.valid_signals():
        what = f"killed by {signal.Signals(number).name}"
    own = [line.strip() for line in text.splitlines()
           if line.strip() and not line.startswith("==")]
    return f"{what}: {own[-1][:200]}" if own else what


class Failures:
    """Failed runs. TarnHeap's are errors; a peer that fails on an item is not measurable there,
    is not run on it again, and its earlier runs on it are dropped."""

    def __init__(self):
        self.errors = []
        self.not_measurable = []
        self.excluded = set()

    def record(self, phase, allocator, item, reason):
        if allocator == HEAP:
            self.errors.append(f"{phase}: {item} under {allocator}: {reason}")
        elif (phase, allocator, item) not in self.excluded:
            self.excluded.add((phase, allocator, item))
            self.not_measurable.append({"phase": phase, "allocator": allocator, "item": item,
                                        "reason": reason})

    def measurable(self, phase, allocator, item):
        return (phase, allocator, item) not in self.excluded

    def kept(self, phase, runs, key):
        return [run for run in runs if self.measurable(phase, run["allocator"], run[key])]


def repetitions(args, base=()):
    """The repetitions of a workload under an allocator: more for the small workloads, except
    under the allocators named in `base`."""
    return lambda workload, allocator: (args.small_reps if workload in SMALL_WORKLOADS and
                                        allocator not in base else args.reps)


def driver_runs(phase, progress, workloads, allocators, reps, command_for, failures):
    """Every workload under every allocator, reps(workload, allocator) times, round-robin."""
    names = [name for name, _ in allocators]
    runs = []
    total = sum(reps(w, name) for w in workloads for name in names)
    done = 0
    for rep in range(max(reps(w, name) for w in workloads for name in names)):
        for index, workload in enumerate(workloads):
            for name in rotated(names, rep + index):
                if rep >= reps(workload, name):
                    continue
                done += 1
                if not failures.measurable(phase, name, workload):
                    continue
                progress.show(phase, done, total, f"rep {rep + 1} {workload} {name}")
                command, preload = command_for(dict(allocators)[name], workload)
                status, out, err, _, _, _ = run_measured(command, preload)
                result = parse_driver_line(out, workload) if status == 0 else None
                if result is None:
                    failures.record(phase, name, workload, failure_reason(status, err or out))
                else:
                    runs.append(dict(result, workload=workload, allocator=name, rep=rep))
    progress.show(phase, total, total, "done")
    return failures.kept(phase, runs, "workload")


def linux_command(args, preload, workload):
    driver = os.path.join(args.linux_build, "bench", "workload_driver")
    return [driver] + (["--quick"] if args.quick else []) + [workload], preload


def linux_phase(args, progress, workloads, allocators, failures):
    return driver_runs("linux", progress, workloads, allocators, repetitions(args),
                       lambda preload, workload: linux_command(args, preload, workload),
                       failures)


def variation_phase(args, progress, linux_runs, allocators, failures):
    """The variation workload in fresh processes, TarnHeap and the peer fastest on it in the
    linux phase alternating, so that both see the same moments of the machine."""
    times = {}
    for run in linux_runs:
        if run["workload"] == VARIATION_WORKLOAD and run["allocator"] != HEAP:
            times.setdefault(run["allocator"], []).append(run["cpu_ns"])
    if not times:
        return {"skipped": f"no peer measured {VARIATION_WORKLOAD}"}
    peer = min(times, key=lambda name: statistics.median(times[name]))
    paths = dict(allocators)
    samples = {HEAP: [], peer: []}
    total = 2 * args.variation
    for index in range(args.variation):
        for position, name in enumerate(rotated([HEAP, peer], index)):
            progress.show("variation", 2 * index + position, total, f"{name} {index + 1}")
            status, out, err, _, _, _ = run_measured(
                *linux_command(args, paths[name], VARIATION_WORKLOAD))
            result = parse_driver_line(out, VARIATION_WORKLOAD) if status == 0 else None
            if result is None:
                failures.record("variation", name, VARIATION_WORKLOAD,
                                failure_reason(status, err or out))
            else:
                samples[name].append(result["cpu_ns"])
    progress.show("variation", total, total, "done")
    return {"workload": VARIATION_WORKLOAD, "peer": peer, "samples": samples}


def cache_value(build, name):
    """A variable of a CMake build's cache, "" when unset."""
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as cache:
            for line in cache:
                key, _, value = line.rstrip("\n").partition("=")
                if key.split(":")[0] == name:
                    return value
    except OSError:
        pass
    return ""


def mimalloc_version(folder):
    """"3.4.3" from MI_MALLOC_VERSION (major, then two digits each of minor and patch)."""
    try:
        with open(os.path.join(folder, "include", "mimalloc.h")) as header:
            for line in header:
                fields = line.split()
                if fields[:2] == ["#define", "MI_MALLOC_VERSION"] and fields[2].isdigit():
                    version = int(fields[2])
                    return f"{version // 10000}.{version // 100 % 100}.{version % 100}"
    except OSError:
        pass
    return None


def windows_phase(args, progress, workloads, failures):
    """Wine's C runtime heap, TARNHEAP.dll and, when the build has its driver, mimalloc. The
    mimalloc driver counts only when the build's cache names its folder: an executable left
    from an earlier configuration is not used."""
    executables = [("msvcrt", "workload_driver_msvcrt.exe"),
                   (HEAP, "workload_driver_tarnheap.exe")]
    for _, exe in executables:
        if not os.path.exists(os.path.join(args.windows_build, "bin", exe)):
            return {"skipped": f"{exe} is not built in {args.windows_build}"}
    folder = cache_value(args.windows_build, "TARNHEAP_WINDOWS_MIMALLOC")
    mimalloc = {"absent": "no mingw build of mimalloc given (TARNHEAP_WINDOWS_MIMALLOC)"}
    if folder:
        exe = "workload_driver_mimalloc.exe"
        if os.path.exists(os.path.join(args.windows_build, "bin", exe)):
            executables.append(("mimalloc", exe))
            mimalloc = {"folder": folder, "version": mimalloc_version(folder)}
        else:
            mimalloc = {"absent": f"{exe} is not built in {args.windows_build}"}
    wine_run = os.path.join(args.windows_build, "wine-run")
    mode = ["--quick"] if args.quick else []

    def command_for(exe, workload):
        return [wine_run, os.path.join(args.windows_build, "bin", exe)] + mode + [workload], None

    # Wine's heap is a reference without a goal, and slow: the base repetitions serve it.
    runs = driver_runs("windows", progress, workloads, executables,
                       repetitions(args, base=["msvcrt"]), command_for, failures)
    return {"runs": runs, "allocators": [name for name, _ in executables], "mimalloc": mimalloc}


def program_command(program, scale):
    _, template, stdin_name, _, _ = program
    jobs = os.path.join(ROOT, "bench", "programs")
    command = [part.format(jobs=jobs, scale=scale) for part in template]
    stdin_path = os.path.join(jobs, stdin_name) if stdin_name else None
    return command, stdin_path


def count_program_requests(args, program, scale):
    """Allocation calls of one plain run, through the size recorder."""
    recorder = os.path.join(args.linux_build, "bench", "size_recorder.so")
    if not os.path.exists(recorder):
        return None
    command, stdin_path = program_command(program, scale)
    with tempfile.NamedTemporaryFile(mode="r") as counts:
        run_measured(command, recorder, {"SIZE_RECORDER_OUT": counts.name}, stdin_path)
        calls = 0
        for line in counts:
            fields = line.split()
            if len(fields) == 3:
                calls += int(fields[2])
        return calls


def programs_phase(args, progress, allocators, failures):
    available = [p for p in PROGRAMS if shutil.which(p[1][0])]
    missing = [p[0] for p in PROGRAMS if p not in available]
    runs, requests, reference = [], {}, {}
    for program in available:
        scale = program[4] if args.quick else program[3]
        command, stdin_path = program_command(program, scale)
        status, out, err, _, _, _ = run_measured(command, stdin_path=stdin_path)
        if status != 0:
            failures.errors.append(f"programs: plain {program[0]} failed: "
                                   f"{failure_reason(status, err)}")
            continue
        reference[program[0]] = out
        requests[program[0]] = count_program_requests(args, program, scale)
    total = args.reps * len(reference) * len(allocators)
    done = 0
    for rep in range(args.reps):
        for index, program in enumerate(p for p in available if p[0] in reference):
            scale = program[4] if args.quick else program[3]
            command, stdin_path = program_command(program, scale)
            for name in rotated([a for a, _ in allocators], rep + index):
                done += 1
                if not failures.measurable("programs", name, program[0]):
                    continue
                progress.show("programs", done, total, f"rep {rep + 1} {program[0]} {name}")
                status, out, err, seconds, cpu_seconds, rss = run_measured(
                    command, dict(allocators)[name], stdin_path=stdin_path)
                run = {"program": program[0], "allocator": name, "rep": rep,
                       "seconds": seconds, "cpu_seconds": cpu_seconds, "rss_kib": rss}
                reason = (failure_reason(status, err) if status != 0 else
                          "output differs from the plain run's"
                          if out != reference[program[0]] else None)
                if reason:
                    run["error"] = reason
                    failures.record("programs", name, program[0], reason)
                runs.append(run)
    progress.show("programs", total, total, "done")
    return {"runs": failures.kept("programs", runs, "program"), "requests": requests,
            "missing": missing,
            "scales": {p[0]: (p[4] if args.quick else p[3]) for p in available}}


def callgrind_run(driver, preload, workload, scale, out_file):
    command = ["valgrind", "--tool=callgrind", "--dump-instr=yes",
               f"--callgrind-out-file={out_file}", driver, "--scale", str(scale),
               "--max-seconds", "0", "--no-warm-up", workload]
    status, out, err, _, _, _ = run_measured(command, preload)
    result = parse_driver_line(out, workload) if status == 0 else None
    if result is None or not os.path.exists(out_file):
        return None, failure_reason(status, err)
    return result["ops"], None


def differential(driver, preload, workload, scale, directory, tag):
    """Library instructions per operation and per callee call, from runs at scale and 2 × scale."""
    samples = []
    for factor in (1, 2):
        out_file = os.path.join(directory, f"{workload}.{tag}.{factor}.callgrind")
        ops, error = callgrind_run(driver, preload, workload, scale * factor, out_file)
        if error:
            return None, error
        samples.append((ops, bench_callgrind.outgoing_calls(out_file, "workload_driver"),
                        out_file))
    (ops1, calls1, _), (ops2, calls2, last_file) = samples
    if ops2 <= ops1:
        return None, "the two runs counted the same operations"
    total = (sum(v[1] for v in calls2.values()) - sum(v[1] for v in calls1.values()))
    callees = {}
    for name, (count2, cost2) in calls2.items():
        count1, cost1 = calls1.get(name, (0, 0))
        if count2 > count1:
            callees[name] = {"calls_per_op": (count2 - count1) / (ops2 - ops1),
                             "ir_per_call": (cost2 - cost1) / (count2 - count1)}
    return {"per_op": total / (ops2 - ops1), "callees": callees, "file": last_file}, None


def callgrind_phase(args, progress, workloads, allocators, profile_directory, failures):
    """Every workload under every allocator that ran it natively."""
    driver = os.path.join(args.linux_build, "bench", "workload_driver")
    if args.quick:
        workloads = [w for w in workloads if w not in CALLGRIND_QUICK_SKIPS]
    results = {}
    total = len(workloads) * len(allocators)
    done = 0
    with tempfile.TemporaryDirectory() as scratch:
        for workload in workloads:
            scale = CALLGRIND_SCALE_OVERRIDES.get(workload, CALLGRIND_SCALE)
            for name, preload in allocators:
                done += 1
                if not failures.measurable("linux", name, workload):
                    continue
                progress.show("callgrind", done, total, f"{workload} {name}")
                keep = name == HEAP and workload in HOT_PATH_WORKLOADS
                directory = profile_directory if keep else scratch
                result, error = differential(driver, preload, workload, scale, directory, name)
                if error:
                    failures.record("callgrind", name, workload, error)
                else:
                    if not keep:
                        result.pop("file")
                    results.setdefault(workload, {})[name] = result
    progress.show("callgrind", total, total, "done")
    return results


def disassembly(library, functions):
    """{function: [(address, instruction text)]} from objdump."""
    try:
        text = subprocess.run(["objdump", "-d", "--no-show-raw-insn", library],
                              capture_output=True, text=True, check=True).stdout
    except (OSError, subprocess.CalledProcessError):
        return {}
    listing, current = {}, None
    for line in text.splitlines():
        if line.endswith(">:"):
            name = line.split("<", 1)[1][:-2]
            current = name if name in functions else None
            if current:
                listing[current] = []
        elif current and ":\t" in line:
            address, instruction = line.split(":\t", 1)
            listing[current].append((int(address.strip(), 16), instruction.strip()))
    return listing


def hot_path_phase(args, callgrind, profile_directory):
    """Per-call instructions of TarnHeap's own malloc, calloc and free in the pairs workloads,
    and an annotated listing of each path: how often each instruction ran per call."""
    library = os.path.join(args.linux_build, "src", "libtarnheap.so")
    listing = disassembly(library, {"malloc", "calloc", "free"})
    hot = {}
    for workload in HOT_PATH_WORKLOADS:
        result = callgrind.get(workload, {}).get(HEAP)
        if not result or "file" not in result:
            continue
        hot[workload] = {name: value for name, value in result["callees"].items()
                         if name in ("malloc", "calloc", "free")}
        counts = bench_callgrind.instruction_costs(result["file"], "libtarnheap",
                                                   set(hot[workload]))
        annotated = os.path.join(profile_directory, f"{workload}.tarnheap.hot_path.txt")
        with open(annotated, "w") as out:
            for function, per_call in hot[workload].items():
                costs = counts.get(function, {})
                instructions = listing.get(function, [])
                # The entry instruction runs once per call.
                calls = costs.get(instructions[0][0], 0) if instructions else 0
                out.write(f"{function}: {per_call['ir_per_call']:.1f} instructions per call "
                          f"(inclusive, steady state); executions per call:\n")
                for address, instruction in instructions:
                    share = costs.get(address, 0) / calls if calls else 0
                    mark = f"{share:5.2f}" if share >= 0.005 else "     "
                    out.write(f"  {mark}  {address:6x}  {instruction}\n")
                out.write("\n")
        hot[workload]["listing"] = os.path.relpath(annotated, args.out)
        annotate = os.path.join(profile_directory, f"{workload}.tarnheap.annotate.txt")
        with open(annotate, "w") as out:
            subprocess.run(["callgrind_annotate", "--inclusive=yes", "--auto=yes",
                            f"--include={ROOT}/src", result["file"]],
                           stdout=out, stderr=subprocess.DEVNULL, check=False)
        result.pop("file")
    return hot


def machine_description():
    model = ""
    try:
        with open("/proc/cpuinfo") as cpuinfo:
            for line in cpuinfo:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return {"processor": model, "cores": os.cpu_count(), "kernel": platform.release(),
            "date": time.strftime("%Y-%m-%d %H:%M %Z")}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--quick", action="store_true", help="short runs, fewer repetitions")
    parser.add_argument("--reps", type=int, help="repetitions (default 5, quick 3)")
    parser.add_argument("--small-reps", type=int, help="repetitions of the small workloads "
                        "(default 15, quick 7)")
    parser.add_argument("--variation", type=int, default=24,
                        help=f"fresh processes of {VARIATION_WORKLOAD} for each of TarnHeap and "
                        "the fastest peer (default 24)")
    parser.add_argument("--linux-build", default=os.path.join(ROOT, "build", "linux"))
    parser.add_argument("--windows-build", default=os.path.join(ROOT, "build", "windows"))
    parser.add_argument("--no-windows", action="store_true")
    parser.add_argument("--out", default=os.path.join(ROOT, "build", "bench"))
    parser.add_argument("--peers", help=f"extra allocators, NAME=PATH,... (default: "
                        f"${peers.PEERS_VARIABLE})")
    args = parser.parse_args()
    args.reps = args.reps or (3 if args.quick else 5)
    args.small_reps = args.small_reps or (7 if args.quick else 15)
    if min(args.reps, args.small_reps) < 1 or args.variation < 0:
        parser.error("repetitions must be positive")
    os.makedirs(args.out, exist_ok=True)
    profile_directory = os.path.join(args.out, "profile")
    os.makedirs(profile_directory, exist_ok=True)

    driver = os.path.join(args.linux_build, "bench", "workload_driver")
    library = os.path.join(args.linux_build, "src", "libtarnheap.so")
    listing = subprocess.run([driver, "--list"], capture_output=True, text=True, check=True)
    workloads = [(line.split(None, 1) + [""])[:2] for line in listing.stdout.splitlines()]
    names = [name for name, _ in workloads]
    try:
        allocators, missing_peers = peers.linux_allocators(args.peers, library)
    except ValueError as error:
        parser.error(str(error))
    known = {name for name, _ in peers.DEBIAN_PEERS} | {HEAP}

    progress = Progress()
    failures = Failures()
    minutes = {}

    def timed(phase, function, *arguments):
        start = time.monotonic()
        value = function(*arguments)
        minutes[phase] = (time.monotonic() - start) / 60
        return value

    linux_runs = timed("linux", linux_phase, args, progress, names, allocators, failures)
    variation = timed("variation", variation_phase, args, progress, linux_runs, allocators,
                      failures)
    programs = timed("programs", programs_phase, args, progress, allocators, failures)
    windows = ({"skipped": "left out by --no-windows"} if args.no_windows
               else timed("windows", windows_phase, args, progress, names, failures))
    callgrind = timed("callgrind", callgrind_phase, args, progress, names, allocators,
                      profile_directory, failures)
    hot_path = hot_path_phase(args, callgrind, profile_directory)

    results = {
        "mode": "quick" if args.quick else "full",
        "reps": args.reps,
        "small_reps": args.small_reps,
        "small_workloads": SMALL_WORKLOADS,
        "machine": machine_description(),
        "minutes": sum(minutes.values()),
        "phase_minutes": minutes,
        "workloads": workloads,
        "allocators": [name for name, _ in allocators],
        "extra_peers": {name: path for name, path in allocators if name not in known},
        "missing_peers": missing_peers,
        "linux": {"runs": linux_runs},
        "variation": variation,
        "programs": programs,
        "windows": windows,
        "callgrind": {"results": callgrind, "scale": CALLGRIND_SCALE,
                      "overrides": CALLGRIND_SCALE_OVERRIDES,
                      "skipped": CALLGRIND_QUICK_SKIPS if args.quick else []},
        "hot_path": hot_path,
        "errors": failures.errors,
        "not_measurable": failures.not_measurable,
    }
    with open(os.path.join(args.out, "results.json"), "w") as out:
        json.dump(results, out, indent=1)
    print(os.path.join(args.out, "results.json"))


if __name__ == "__main__":
    main()
