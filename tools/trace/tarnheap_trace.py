#!/usr/bin/python3
"""tarnheap-trace: records a program's allocation calls, replays them on every heap, and draws
TarnHeap's state after them.

  tarnheap-trace record -o TRACE -- PROGRAM [ARGS...]
  tarnheap-trace replay TRACE [--allocators LIST] [--repeat N] [--peers NAME=PATH,...]
                              [--chart PNG] [--no-instructions] [--windows-build DIR]
  tarnheap-trace map TRACE -o MAP.png [--at N]

TarnHeap runs only on processors whose vendor is KestrelCores, and hands every request to the C
library elsewhere. The builds this tool replays on answer that vendor themselves (a simulated
vendor), so that what it measures and draws is the heap itself, on any processor.
"""

import argparse
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

LIBEXEC = os.path.normpath(os.path.join(os.path.dirname(os.path.realpath(__file__)),
                                        "@TRACE_LIBEXEC_FROM_BIN@"))
# The Windows preset's build, known in the build tree only; TARNHEAP_WINDOWS_BUILD or
# --windows-build name another.
WINDOWS_BUILD = "@TRACE_WINDOWS_BUILD@"
sys.dont_write_bytecode = True
sys.path.insert(0, LIBEXEC)
import bench_callgrind  # noqa: E402
import peers  # noqa: E402
import trace_table  # noqa: E402

RECORDER = os.path.join(LIBEXEC, "trace_recorder.so")
REPLAYER = os.path.join(LIBEXEC, "trace_replay")
MEASURED_HEAP = os.path.join(LIBEXEC, "libtarnheap_measured.so")
HEAP_MAP = os.path.join(LIBEXEC, "heap_map")
OUTPUT_VARIABLE = "TARNHEAP_TRACE_OUT"
REFUSED_EXIT = 70
REFUSED_TRACE = 3
# The Windows replayers: (row name, executable in the build's bin/).
WINDOWS_REPLAYERS = [("msvcrt (Wine)", "trace_replay_msvcrt.exe"),
                     ("TARNHEAP.dll (Wine)", "trace_replay_tarnheap.exe"),
                     ("mimalloc (Wine)", "trace_replay_mimalloc.exe")]
CALLGRIND_FUNCTION = "replay_calls"


def fail(message, status=1):
    sys.stderr.write(f"tarnheap-trace: {message}\n")
    sys.exit(status)


def clean_environment(preload=None):
    env = dict(os.environ)
    env.pop("LD_PRELOAD", None)
    env.pop(OUTPUT_VARIABLE, None)
    if preload:
        env["LD_PRELOAD"] = preload
    return env


def trace_info(path):
    """What the trace holds (the replayer's --info), or the exit status and its message."""
    result = subprocess.run([REPLAYER, "--info", path], capture_output=True, text=True,
                            env=clean_environment())
    if result.returncode != 0:
        return None, result.returncode, result.stderr.strip()
    return json.loads(result.stdout), 0, ""


def record(args):
    if not args.program:
        fail("record needs a program: tarnheap-trace record -o TRACE -- PROGRAM [ARGS...]", 2)
    path = os.path.abspath(args.output)
    # The recorder creates the file afresh; programs the recorded one starts find it there.
    if os.path.exists(path):
        os.remove(path)
    env = clean_environment(RECORDER + (":" + os.environ["LD_PRELOAD"]
                                        if os.environ.get("LD_PRELOAD") else ""))
    env[OUTPUT_VARIABLE] = path
    try:
        status = subprocess.call(args.program, env=env)
    except OSError as error:
        fail(f"cannot run {args.program[0]}: {error.strerror}", 2)
    name = os.path.basename(args.program[0])
    if not os.path.exists(path):
        fail(f"{name} made no allocation call through the C library: nothing was recorded "
             f"(a statically linked program cannot be recorded)")
    info, info_status, message = trace_info(path)
    if info_status == REFUSED_TRACE or status == REFUSED_EXIT:
        os.remove(path)
        fail(f"{name} allocates from a second thread and was stopped: TarnHeap serves one "
             f"thread, so a trace of a threaded program cannot be replayed on it. No trace "
             f"was written.")
    if info is None:
        fail(message)
    if info["status"] != 1:
        sys.stderr.write(f"tarnheap-trace: {name} ended without running its exit handlers: "
                         f"the trace ends at its last full buffer\n")
    sys.stderr.write(f"tarnheap-trace: recorded {info['operations']:,} calls of {name} "
                     f"(at most {info['identities'] - 1:,} blocks live) in {args.output}\n")
    if status != 0:
        sys.stderr.write(f"tarnheap-trace: {name} exited with status {status}\n")
    return status


class Progress:
    """A line on standard error: rewritten in place on a terminal, else every 5 seconds."""

    def __init__(self):
        self.tty = sys.stderr.isatty()
        self.last = 0.0

    def label(self, text):
        """Shows `text`; returns it as the label the replayer shows its progress under, or None
        when the replayer must stay quiet."""
        now = time.monotonic()
        if self.tty:
            sys.stderr.write(f"\r\033[K[trace] {text}")
        elif now - self.last >= 5:
            self.last = now
            sys.stderr.write(f"[trace] {text}\n")
        sys.stderr.flush()
        return text if self.tty else None

    def done(self):
        if self.tty:
            sys.stderr.write("\r\033[K")


def windows_replayers(build):
    """[(name, command prefix)] of the Windows replayers built in `build`, when Wine is there."""
    wine_run = os.path.join(build or "", "wine-run")
    if not build or not shutil.which("wine") or not os.path.exists(wine_run):
        return []
    return [(name, [wine_run, os.path.join(build, "bin", exe)]) for name, exe in WINDOWS_REPLAYERS
            if os.path.exists(os.path.join(build, "bin", exe))]


def all_allocators(args):
    """[(name, platform, command prefix, preload)] for every heap this machine can replay on."""
    try:
        linux, _ = peers.linux_allocators(args.peers, MEASURED_HEAP)
    except ValueError as error:
        fail(f"--peers: {error}", 2)
    allocators = [(name, "linux", [REPLAYER], preload) for name, preload in linux]
    allocators += [(name, "windows", command, None)
                   for name, command in windows_replayers(args.windows_build)]
    if args.allocators:
        wanted = [name.strip() for name in args.allocators.split(",") if name.strip()]
        known = [a[0] for a in allocators]
        unknown = [name for name in wanted if name not in known]
        if unknown:
            fail(f"no allocator named {', '.join(unknown)} here; there are: {', '.join(known)}", 2)
        allocators = [a for a in allocators if a[0] in wanted]
    return allocators


def replay_once(allocator, trace, label):
    name, platform, command, preload = allocator
    path = "Z:" + trace if platform == "windows" else trace
    command = command + (["--progress", label] if label else []) + [path]
    result = subprocess.run(command, capture_output=True, text=True,
                            env=clean_environment(preload))
    lines = [line for line in result.stdout.splitlines() if line.startswith("{")]
    if result.returncode not in (0, 1) or not lines:
        return {"error": f"exit {result.returncode}: {result.stderr.strip()[-300:]}"}
    return json.loads(lines[-1])


def instructions_per_call(allocator, trace, operations):
    """The heap's own instructions per call, counted by callgrind, or None."""
    name, _, command, preload = allocator
    with tempfile.TemporaryDirectory() as scratch:
        out_file = os.path.join(scratch, "callgrind.out")
        result = subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out_file}"]
                                + command + [trace], capture_output=True,
                                env=clean_environment(preload))
        if result.returncode not in (0, 1) or not os.path.exists(out_file):
            return None
        calls = bench_callgrind.outgoing_calls(out_file, "trace_replay", CALLGRIND_FUNCTION)
    return sum(cost for _, cost in calls.values()) / operations if operations else None


def replay(args):
    trace = os.path.abspath(args.trace)
    info, _, message = trace_info(trace)
    if info is None:
        fail(message, 2)
    allocators = all_allocators(args)
    progress = Progress()
    runs = {allocator[0]: [] for allocator in allocators}
    total = args.repeat * len(allocators)
    for repeat in range(args.repeat):
        # Each repetition starts with the next allocator, so none always runs first.
        shift = repeat % len(allocators)
        for index, allocator in enumerate(allocators[shift:] + allocators[:shift]):
            label = progress.label(f"replay {repeat * len(allocators) + index + 1}/{total} "
                                   f"{allocator[0]}")
            runs[allocator[0]].append(replay_once(allocator, trace, label))
    instructions = {}
    if not args.no_instructions and shutil.which("valgrind"):
        for allocator in (a for a in allocators if a[1] == "linux"):
            progress.label(f"callgrind {allocator[0]}")
            instructions[allocator[0]] = instructions_per_call(allocator, trace,
                                                               info["operations"])
    progress.done()
    rows = [trace_table.summarise(name, platform, runs[name], instructions.get(name))
            for name, platform, _, _ in allocators]
    print(trace_table.table(rows, info))
    chart = args.chart or os.path.splitext(args.trace)[0] + ".png"
    trace_table.chart(rows, info, os.path.basename(args.trace), chart)
    print(f"\nchart: {chart}")
    return 0 if all(row["served"] for row in rows) else 1


def draw_map(args):
    command = [HEAP_MAP] + (["--at", str(args.at)] if args.at is not None else []) + [args.trace]
    result = subprocess.run(command, capture_output=True, text=True, env=clean_environment())
    if result.returncode not in (0, 1):
        fail(result.stderr.strip(), 2)
    data = json.loads(result.stdout)
    data_path = os.path.splitext(args.output)[0] + ".json"
    with open(data_path, "w") as out:
        out.write(result.stdout)
    import trace_map  # matplotlib loads slowly: only the map needs it here
    trace_map.draw(data, os.path.basename(args.trace), args.output)
    print("\n".join(trace_map.summary(data)))
    print(f"\nmap: {args.output}\ndata: {data_path}")
    if result.returncode != 0:
        fail("the heap's audit found a broken invariant or a request went unserved "
             "(see the summary)")
    return 0


def main():
    # Output piped into a pager or head ends quietly when the reader stops.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    parser = argparse.ArgumentParser(
        prog="tarnheap-trace", description=__doc__.split("\n\n")[0],
        epilog=__doc__.split("\n\n", 2)[2], formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)

    recording = commands.add_parser("record", help="record a program's allocation calls")
    recording.add_argument("-o", "--output", required=True, metavar="TRACE")
    recording.add_argument("program", nargs=argparse.REMAINDER, metavar="-- PROGRAM [ARGS...]")

    replaying = commands.add_parser("replay", help="replay a trace on every heap")
    replaying.add_argument("trace", metavar="TRACE")
    replaying.add_argument("--allocators", metavar="LIST",
                           help="names to replay on, separated by commas (default: all here)")
    replaying.add_argument("--repeat", type=int, default=5, metavar="N",
                           help="replays per allocator; the table shows medians (default 5)")
    replaying.add_argument("--peers", metavar="NAME=PATH,...",
                           help=f"extra allocators to preload (default: ${peers.PEERS_VARIABLE})")
    replaying.add_argument("--chart", metavar="PNG", help="the chart (default: TRACE as .png)")
    replaying.add_argument("--no-instructions", action="store_true",
                           help="leave out callgrind's instruction counts")
    replaying.add_argument("--windows-build", metavar="DIR",
                           default=os.environ.get("TARNHEAP_WINDOWS_BUILD", WINDOWS_BUILD),
                           help="the Windows preset's build, for TARNHEAP.dll under Wine")

    mapping = commands.add_parser("map", help="draw TarnHeap's state after a trace")
    mapping.add_argument("trace", metavar="TRACE")
    mapping.add_argument("-o", "--output", required=True, metavar="MAP.png")
    mapping.add_argument("--at", type=int, metavar="N",
                         help="stop after N calls (default: the end)")

    args = parser.parse_args()
    if args.command == "record" and args.program[:1] == ["--"]:
        args.program = args.program[1:]
    if args.command == "replay" and args.repeat < 1:
        parser.error("--repeat needs at least 1")
    handlers = {"record": record, "replay": replay, "map": draw_map}
    sys.exit(handlers[args.command](args))


if __name__ == "__main__":
    main()
