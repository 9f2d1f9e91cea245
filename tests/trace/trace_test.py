#!/usr/bin/python3
"""The tests of tarnheap-trace, one per CTest case: trace_test.py trace_test.<case>.

TRACE_COMMAND names the built command, TRACE_SUBJECT the program it records
(trace_subject.c). Expected figures are the heap's design written out: class 18 holds 112-byte
blocks and a refill takes 1016, class 45 has 23 units of 3072 bytes, class 5 220 of 320, a block
of 200000 bytes takes a run of 3 groups of 70656 bytes, a chunk commits 536985600 bytes and a
segment 134217728."""

import json
import os
import subprocess
import sys
import tempfile

COMMAND = os.environ["TRACE_COMMAND"]
SUBJECT = os.environ["TRACE_SUBJECT"]
LIBEXEC = os.path.join(os.path.dirname(os.path.dirname(COMMAND)), "libexec", "tarnheap")
MAKERS = {"malloc", "calloc", "posix_memalign", "aligned_alloc", "memalign", "valloc", "pvalloc"}


def check(condition, message):
    if not condition:
        raise AssertionError(message)


def run(command, expect=0):
    result = subprocess.run(command, capture_output=True, text=True)
    check(expect is None or result.returncode == expect,
          f"{' '.join(command)}: exit {result.returncode}\n{result.stdout[-2000:]}"
          f"{result.stderr[-2000:]}")
    return result


def record(directory, name, *arguments, expect=0):
    trace = os.path.join(directory, name + ".trace")
    result = run([COMMAND, "record", "-o", trace, "--", SUBJECT] + list(arguments), expect)
    return trace, result


def freed(call, first, second, flags):
    """A resize to 0 bytes that answered null freed its block."""
    size = int(first) * int(second) if call == "reallocarray" else int(first)
    return call in ("realloc", "reallocarray") and "null" in flags and size == 0


def numbered(replayed):
    """The replayer's lines with identities (reused once freed) replaced by the number of each
    block in the order blocks were made, as the subject logs its calls."""
    numbers, made, lines = {}, 0, []
    for line in replayed:
        call, identity, first, second, *flags = line.split()
        if "null" not in flags and (call in MAKERS or "from-null" in flags):
            made += 1
            numbers[identity] = made
        lines.append(" ".join([call, first, second, str(numbers.get(identity, 0))] + flags))
        if call == "free" or freed(call, first, second, flags):
            numbers.pop(identity, None)
    return lines


def heap_map(trace, *options):
    return json.loads(run([os.path.join(LIBEXEC, "heap_map")] + list(options) + [trace]).stdout)


def record_replays_the_calls(directory):
    for seed in ("1", "2", "3"):
        log = os.path.join(directory, f"calls.{seed}")
        trace, _ = record(directory, seed, "random", seed, "2500", log)
        replayed = run([os.path.join(LIBEXEC, "trace_replay"), "--print", trace]).stdout
        with open(log) as calls:
            expected = calls.read().splitlines()
        actual = numbered(replayed.splitlines())
        differs = [i for i, (a, e) in enumerate(zip(actual, expected)) if a != e]
        check(actual == expected, f"seed {seed}: the replay differs from the program's calls "
              f"at call {(differs + [min(len(actual), len(expected))])[0]}")
        for point in ("1000", str(len(expected))):
            state = heap_map(trace, "--at", point)
            check(state["audit"]["clean"], f"seed {seed}, at {point}: {state['audit']}")
            check(state["tally"]["failures"] == 0 and state["tally"]["damaged"] == 0,
                  f"seed {seed}, at {point}: {state['tally']}")


def front_end_replays_and_tabulates(directory):
    trace, _ = record(directory, "small", "random", "5", "600", os.path.join(directory, "log"))
    chart = os.path.join(directory, "chart.png")
    table = run([COMMAND, "replay", trace, "--allocators", "glibc,tarnheap", "--repeat", "2",
                 "--no-instructions", "--chart", chart]).stdout
    for row in ("| glibc ", "| tarnheap "):
        check(row in table, f"no row {row.strip()} in\n{table}")
    check(os.path.getsize(chart) > 0, "no chart")
    unknown = run([COMMAND, "replay", trace, "--allocators", "nothing"], expect=2)
    check("no allocator named nothing" in unknown.stderr, unknown.stderr)


def map_shows_constructed_state(directory):
    trace, _ = record(directory, "constructed", "construct")
    picture = os.path.join(directory, "map.png")
    run([COMMAND, "map", trace, "-o", picture])
    check(os.path.getsize(picture) > 0, "no map")
    with open(os.path.join(directory, "map.json")) as data:
        state = json.load(data)
    check(state["audit"]["clean"], state["audit"])
    roles = state["groups"]["roles"]
    check((roles["bucket"], roles["large"], roles["cached"]) == (2, 3, 4), roles)
    check(1 <= roles["warm-up"] <= 499, roles)
    used = {c["class"]: (c["in_use"], c["stacked"]) for c in state["small_classes"]
            if c["committed"]}
    check(used == {18: (3, 1013)}, used)
    groups = sorted((r["class"], r["in_use"], r["units"]) for r in state["groups"]["runs"]
                    if r["role"] == "bucket")
    check(groups == [(5, 30, 220), (45, 20, 23)], groups)
    large = [r["groups"] for r in state["groups"]["runs"] if r["role"] == "large"]
    check(large == [3], large)
    cache = state["run_cache"]
    lists = [(entry["groups"], len(entry["runs"])) for entry in cache["lengths"]]
    check(lists == [(1, 1), (3, 1)] and cache["cached_groups"] == 4, cache)
    blocks = state["blocks"]
    check((blocks["small"]["requested"], blocks["small"]["handed_out"]) == (300, 336), blocks)
    check((blocks["bucket"]["requested"], blocks["bucket"]["handed_out"]) == (69000, 71040),
          blocks)
    check(200000 <= blocks["large"]["handed_out"] <= 3 * 70656, blocks)
    committed = state["committed"]
    check((committed["small"], committed["bucket"]) == (134217728, 536985600), committed)


def refuses_a_second_thread(directory):
    trace, result = record(directory, "threads", "threads", expect=1)
    check("second thread" in result.stderr, result.stderr)
    check(not os.path.exists(trace), "a refused trace was left behind")


CASES = {case.__name__: case for case in (record_replays_the_calls,
                                          front_end_replays_and_tabulates,
                                          map_shows_constructed_state, refuses_a_second_thread)}

if __name__ == "__main__":
    name = sys.argv[1].split(".")[-1]
    with tempfile.TemporaryDirectory() as scratch:
        CASES[name](scratch)
    print(f"{name}: passed")
