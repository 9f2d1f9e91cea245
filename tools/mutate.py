#!/usr/bin/env python3
"""Mutation testing of the library's sources against the Linux tests.

    tools/mutate.py --report tests/mutation/after.md   # 50 mutants, seed 1: about 20 minutes
    tools/mutate.py --sample 60 --seed 7               # another sample
    tools/mutate.py --all                              # every mutant: a day or more
    tools/mutate.py --list                             # print every mutant, build nothing
    tools/mutate.py --self-test                        # check the mutant generator

Each mutant is one small change to one of src/**/*.cpp and src/**/*.h, made by these rules:

  relational  `<` <-> `<=`, `>` <-> `>=`, `==` <-> `!=`
  arithmetic  `+` <-> `-`, `<<` <-> `>>`, `&` <-> `|`, `*` -> `/` (not when the right operand
              is the literal 1), and the same for their compound assignments (`+=` <-> `-=` ...)
  constant    an integer literal N becomes N+1 and N-1; 0 only becomes 1
  statement   a line holding one whole simple statement becomes an empty statement `;`: an
              assignment, call, increment or `*p = ...` (its first token is a name followed by
              `=`, `(`, `[`, `.`, `->`, `++` ...; never a declaration, which starts with a type
              followed by a name, `*` or `&`), `break;`, `continue;` or `return;`; the line
              before it ends in `;`, `{`, `}` or `:`, so that it is not part of a longer one

Operators count only where they are written as binary operators, with a space on each side
(as clang-format writes them): template brackets, pointers, references, dereferences and
unary minus are left alone. Nothing is mutated in comments, string and character literals,
preprocessor lines (#include, #define ...), attributes (`alignas`, `__attribute__`),
static_assert(...), or the bodies of constexpr functions that are named only inside
static_asserts (the helpers of compile-time checks). Files the Linux build does not compile
(the Windows platform layer) are left out.

A mutant is named by file:line:column and its change. A run tests the first --sample of the
sorted list shuffled with --seed: the same tree, sample and seed give the same mutants, and a
larger sample with the same seed holds the smaller one.

The run copies the checkout (its tracked and untracked, not ignored, files, as they are on
disk) to a scratch directory (a new temporary one, or --work, kept for later runs), configures
the `linux` preset there (without the benchmarks, which hold no tests), builds it and runs the
tests on the unmutated tree: a test that fails there stops the run. Each mutant is then written
into the copy, rebuilt incrementally and tested; then its file, and every build file from a copy
of the unmutated build (times included), are put back, so that each build compiles only what
its own mutant touches. Tests run with ctest, stopping at the first failure, in three rounds by
their time on the unmutated tree (under 1 s, under 10 s, the rest), each with a limit per test
of three times the slowest in its round plus 10 s. The whole programs and tarnheap-trace
(`program.*`, `trace.*`, a third of the test time) are skipped unless --skip says otherwise.

A mutant is killed when a test fails or times out (or a test program fails while listing its
tests during the build), survives when all pass, and fails to compile when the build fails.
The score is killed / (killed + survived), counting neither the mutants that fail to compile
nor those shown to be equivalent: tests/mutation/equivalent.md (or --equivalent) is a markdown
table whose rows give a mutant's place (file:line:column), its change as the report writes it,
and the reason no caller can tell the change from the original. An equivalent mutant that
survives is reported as such; one that is killed counts as killed (its row is stale). A row
also goes stale when its file changes above the mutant, since the place holds line and column.
A mutant whose object files, without their debug information, are the same as the unmutated
tree's is not tested: it survives and is marked "same code" (the change never reaches the
machine code, e.g. it is in a branch the Linux build discards).
"""

import argparse
import bisect
import datetime
import hashlib
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as element_tree
from collections import Counter
from dataclasses import dataclass

REPOSITORY = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
EQUIVALENT = os.path.join(REPOSITORY, "tests", "mutation", "equivalent.md")
DEFAULT_SAMPLE = 50
DEFAULT_SKIP = r"^(program|trace)\."
ROUND_BOUNDS = (1.0, 10.0)
BUILD_LIMIT = 1800

RELATIONAL = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
ARITHMETIC = {"+": "-", "-": "+", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "*": "/",
              "+=": "-=", "-=": "+=", "<<=": ">>=", ">>=": "<<=", "&=": "|=", "|=": "&=",
              "*=": "/="}

TOKEN = re.compile(r"""
    (?P<comment> //[^\n]* | /\*.*?\*/ )
  | (?P<literal> (?:u8|[uUL])?R"(?P<delimiter>[^(\s]*)\(.*?\)(?P=delimiter)"
               | (?:u8|[uUL])?"(?:\\.|[^"\\\n])*"
               | (?:u8|[uUL])?'(?:\\.|[^'\\\n])*' )
  | (?P<number> \.?\d(?:[eEpP][+-]|[\w.'])* )
  | (?P<word> [A-Za-z_]\w* )
  | (?P<operator> <<= | >>= | <=> | -> | \+\+ | -- | << | >> | <= | >= | == | != | && | \|\|
                | [-+*/%&|^]= | :: | \S )
  | (?P<space> \s+ )
""", re.S | re.X)
PREPROCESSOR_LINE = re.compile(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", re.M)
INTEGER = re.compile(r"^(?:(0[xX])([0-9a-fA-F]+)|(0[bB])([01]+)|([1-9]\d*|0))([uUlL]*)$")
# Words that start a statement this tool never removes (declarations and control flow).
KEYWORDS = set("""
    alignas auto bool case char class const consteval constexpr constinit decltype default
    delete do double else enum explicit extern float for friend goto if inline int long mutable
    namespace new noexcept operator private protected public register return short signed
    sizeof static static_assert struct switch template thread_local throw try typedef typename
    union unsigned using virtual void volatile while""".split())
ASSIGNING = {"=", "(", "[", ".", "->", "++", "--"} | {op for op in ARITHMETIC if op.endswith("=")}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclass(frozen=True, order=True)
class Mutant:
    path: str
    line: int
    column: int
    rule: str
    offset: int
    original: str
    replacement: str

    def name(self):
        if self.rule == "statement":
            change = f"`{self.original}` removed"
        else:
            change = f"`{self.original}` -> `{self.replacement}`"
        return f"{self.path}:{self.line}:{self.column} {self.rule} {change}"

    def apply(self, text):
        assert text[self.offset:self.offset + len(self.original)] == self.original
        return text[:self.offset] + self.replacement + text[self.offset + len(self.original):]


# --- The mutant generator --------------------------------------------------------------------

def tokenize(text):
    """The code tokens of a source (comments and spaces dropped, literals kept as one token)."""
    tokens = []
    for match in TOKEN.finditer(text):
        if match.lastgroup not in ("comment", "space"):
            tokens.append(Token(match.lastgroup, match.group(), match.start()))
    return tokens


def closing(tokens, index):
    """The index of the bracket that closes tokens[index] (an opening bracket)."""
    pairs = {"(": ")", "[": "]", "{": "}"}
    opening, depth = tokens[index].text, 0
    for position in range(index, len(tokens)):
        if tokens[position].text == opening:
            depth += 1
        elif tokens[position].text == pairs[opening]:
            depth -= 1
            if depth == 0:
                return position
    return len(tokens) - 1


def assertion_and_attribute_spans(tokens):
    """(first, last) token indices of each static_assert(...) and attribute."""
    spans = []
    for index, token in enumerate(tokens[:-1]):
        if token.text in ("static_assert", "alignas", "__attribute__") and \
                tokens[index + 1].text == "(":
            spans.append((index, closing(tokens, index + 1)))
        elif token.text == "[" and tokens[index + 1].text == "[":
            spans.append((index, closing(tokens, index)))
    return spans


def constexpr_functions(tokens):
    """(name token index, body first, body last) of each constexpr function definition."""
    functions = []
    for index, token in enumerate(tokens):
        if token.text != "constexpr":
            continue
        position = index + 1
        while position < len(tokens) and tokens[position].text not in ("(", "=", ";", "{"):
            position += 1
        if position >= len(tokens) or tokens[position].text != "(" or \
                tokens[position - 1].kind != "word":
            continue
        name = position - 1
        position = closing(tokens, position) + 1
        while position < len(tokens) and tokens[position].text not in ("{", ";", "="):
            position += 1
        if position < len(tokens) and tokens[position].text == "{":
            functions.append((name, position, closing(tokens, position)))
    return functions


def inside(index, spans):
    return any(first <= index <= last for first, last in spans)


def compile_time_spans(sources):
    """{path: token spans that only the compiler evaluates}: static_asserts, attributes and the
    bodies of constexpr functions named nowhere else (repeated until no more such helpers)."""
    spans = {path: assertion_and_attribute_spans(tokens) for path, tokens in sources.items()}
    helpers = {path: constexpr_functions(tokens) for path, tokens in sources.items()}
    changed = True
    while changed:
        changed = False
        uses = {}
        for path, tokens in sources.items():
            for index, token in enumerate(tokens):
                if token.kind == "word" and not inside(index, spans[path]):
                    uses[token.text] = uses.get(token.text, 0) + 1
        for path, functions in helpers.items():
            for name, first, last in functions:
                if (first, last) not in spans[path] and uses.get(sources[path][name].text) == 1:
                    spans[path].append((first, last))
                    changed = True
    return spans


def spaced(text, token):
    """True when the token has white space on both sides: written as a binary operator."""
    return token.start > 0 and text[token.start - 1].isspace() and \
        token.end < len(text) and text[token.end].isspace()


def moved_constants(text):
    """The integer literal moved by one, in its own base and case, with its suffix kept."""
    match = INTEGER.match(text)
    if not match:
        return []
    hex_prefix, hex_digits, binary_prefix, binary_digits, decimal, suffix = match.groups()
    if hex_prefix:
        value = int(hex_digits, 16)
        spell = ("{:X}" if hex_digits.upper() == hex_digits else "{:x}").format
        spell_with = lambda number: hex_prefix + spell(number)  # noqa: E731
    elif binary_prefix:
        value = int(binary_digits, 2)
        spell_with = lambda number: binary_prefix + format(number, "b")  # noqa: E731
    else:
        value = int(decimal)
        spell_with = str
    moved = [value + 1] + ([value - 1] if value > 0 else [])
    return [spell_with(number) + suffix for number in moved]


def removable_statement(tokens, first, last):
    """True when tokens[first..last] (one line, ending in ';') is a simple statement whose
    removal compiles: not a declaration, not control flow other than break/continue/return."""
    words = [token.text for token in tokens[first:last + 1]]
    if words.count(";") != 1 or \
            any(words.count(a) != words.count(b) for a, b in ("()", "[]", "{}")):
        return False
    head = tokens[first]
    if head.text in ("break", "continue", "return"):
        return len(words) == 2
    if head.text in ("*", "++", "--"):
        return True
    if head.kind != "word" or head.text in KEYWORDS:
        return False
    position = first + 1
    while position < last and words[position - first] == "::" and \
            tokens[position + 1].kind == "word":
        position += 2
    following = tokens[position]
    if following.text == "<" and following.start == tokens[position - 1].end:
        depth = 0
        while position < last:
            depth += {"<": 1, ">": -1, ">>": -2}.get(tokens[position].text, 0)
            position += 1
            if depth <= 0:
                break
        following = tokens[position]
    return following.text in ASSIGNING


def statement_mutants(text, tokens, skipped, line_of):
    """Removals of whole lines that hold one simple statement."""
    mutants = []
    lines = {}
    for index, token in enumerate(tokens):
        lines.setdefault(line_of(token.start), []).append(index)
    for indices in lines.values():
        first, last = indices[0], indices[-1]
        if tokens[last].text != ";" or any(inside(index, skipped) for index in indices):
            continue
        if first > 0 and tokens[first - 1].text not in (";", "{", "}", ":"):
            continue
        if removable_statement(tokens, first, last):
            original = text[tokens[first].start:tokens[last].end]
            mutants.append(("statement", tokens[first].start, original, ";"))
    return mutants


def token_mutants(text, tokens, skipped):
    """Operator and constant changes, one per token and rule."""
    mutants = []
    for index, token in enumerate(tokens):
        if inside(index, skipped):
            continue
        if token.kind == "number":
            for moved in moved_constants(token.text):
                mutants.append(("constant", token.start, token.text, moved))
        elif token.kind == "operator" and spaced(text, token):
            if token.text in RELATIONAL:
                mutants.append(("relational", token.start, token.text, RELATIONAL[token.text]))
            elif token.text in ARITHMETIC:
                multiplies_by_one = token.text in ("*", "*=") and index + 1 < len(tokens) and \
                    tokens[index + 1].text == "1"
                if not multiplies_by_one:
                    mutants.append(("arithmetic", token.start, token.text,
                                    ARITHMETIC[token.text]))
    return mutants


def preprocessor_spans(text, tokens):
    """Token spans of preprocessor lines."""
    starts = [token.start for token in tokens]
    spans = []
    for match in PREPROCESSOR_LINE.finditer(text):
        first = bisect.bisect_left(starts, match.start())
        last = bisect.bisect_left(starts, match.end()) - 1
        if first <= last:
            spans.append((first, last))
    return spans


def generate(texts):
    """Every mutant of the sources {path: text}, sorted."""
    sources = {path: tokenize(text) for path, text in texts.items()}
    compile_time = compile_time_spans(sources)
    mutants = []
    for path, text in texts.items():
        tokens = sources[path]
        skipped = compile_time[path] + preprocessor_spans(text, tokens)
        line_starts = [0] + [match.end() for match in re.finditer("\n", text)]
        line_of = lambda offset: bisect.bisect_right(line_starts, offset)  # noqa: E731
        for rule, offset, original, replacement in \
                token_mutants(text, tokens, skipped) + \
                statement_mutants(text, tokens, skipped, line_of):
            line = line_of(offset)
            mutants.append(Mutant(path, line, offset - line_starts[line - 1] + 1, rule, offset,
                                  original, replacement))
    return sorted(mutants)


def library_sources(root):
    """{path relative to root: text} of src/**/*.cpp and src/**/*.h."""
    texts = {}
    for directory, _, names in os.walk(os.path.join(root, "src")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                path = os.path.join(directory, name)
                with open(path, encoding="utf-8") as source:
                    texts[os.path.relpath(path, root)] = source.read()
    return texts


# --- Self-test -------------------------------------------------------------------------------

SELF_TEST_SOURCE = r"""#include <cstdint>  // 1 + 2 < 3
#define LIMIT (4 + 5)
static_assert(2 * 3 == 6, "x < y");
constexpr bool holds(int a) { return a < 7; }
static_assert(holds(1));
constexpr int twice(int a) { return a + a; }
template <unsigned K> struct span { uint8_t* bitmap; };
alignas(64) const char* name = "a < b";
int f(uint64_t* p, int x) {
    x += 0x1f;  // x - 1
    if (x >= 2 && p[0] != 0) return x << 3;
    *p = -1;
    uint64_t y = static_cast<uint64_t>(x) * 1;
    std::max<int>(twice(x), 2);
    return x;
}
"""
SELF_TEST_EXPECTED = [
    (6, "+", "-"),
    (10, "+=", "-="), (10, "0x1f", "0x20"), (10, "0x1f", "0x1e"), (10, "x += 0x1f;", ";"),
    (11, ">=", ">"), (11, "2", "3"), (11, "2", "1"), (11, "!=", "=="), (11, "0", "1"),
    (11, "0", "1"), (11, "<<", ">>"), (11, "3", "4"), (11, "3", "2"),
    (12, "1", "2"), (12, "1", "0"), (12, "*p = -1;", ";"),
    (13, "1", "2"), (13, "1", "0"),
    (14, "2", "3"), (14, "2", "1"), (14, "std::max<int>(twice(x), 2);", ";"),
]


def self_test():
    found = Counter((m.line, m.original, m.replacement)
                    for m in generate({"t.cpp": SELF_TEST_SOURCE}))
    expected = Counter(SELF_TEST_EXPECTED)
    for (line, original, replacement), count in (expected - found).items():
        print(f"not generated: line {line}: {original} -> {replacement} (x{count})")
    for (line, original, replacement), count in (found - expected).items():
        print(f"generated wrongly: line {line}: {original} -> {replacement} (x{count})")
    passed = found == expected
    print("self-test " + (f"passed: {len(SELF_TEST_EXPECTED)} mutants" if passed else "failed"))
    return 0 if passed else 1


# --- Running commands ------------------------------------------------------------------------

def run(command, log, timeout, cwd=None):
    """Runs a command with its output appended to a log; its exit status, or None when it ran
    past the timeout (its whole process group is then killed)."""
    with open(log, "a") as output:
        process = subprocess.Popen(command, stdout=output, stderr=subprocess.STDOUT, cwd=cwd,
                                   start_new_session=True)
        try:
            return process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, 9)
            process.wait()
            return None


def copy_checkout(work):
    """Copies the checkout's files into work, writing only those that differ and removing
    those it no longer has (outside build/), so that a kept scratch tree rebuilds only what
    changed."""
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others",
                             "--exclude-standard"], cwd=REPOSITORY, check=True,
                            capture_output=True).stdout.decode().split("\0")
    names = set(filter(None, listed))
    for directory, subdirectories, files in os.walk(work):
        if directory == work and "build" in subdirectories:
            subdirectories.remove("build")
        for name in files:
            path = os.path.join(directory, name)
            if os.path.relpath(path, work) not in names:
                os.remove(path)
    for name in names:
        source, target = os.path.join(REPOSITORY, name), os.path.join(work, name)
        if not os.path.isfile(source):
            continue
        with open(source, "rb") as data:
            content = data.read()
        if os.path.isfile(target):
            with open(target, "rb") as data:
                if data.read() == content:
                    continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, "wb") as data:
            data.write(content)
        shutil.copymode(source, target)


def checkout_commit():
    head = subprocess.run(["git", "rev-parse", "--short", "HEAD"], cwd=REPOSITORY, check=True,
                          capture_output=True, text=True).stdout.strip()
    changes = subprocess.run(["git", "status", "--porcelain"], cwd=REPOSITORY, check=True,
                             capture_output=True, text=True).stdout.strip()
    return head + (" with local changes" if changes else "")


# --- The scratch tree ------------------------------------------------------------------------

class Scratch:
    """The configured copy of the checkout in which mutants are built and tested."""

    def __init__(self, work, jobs, skip):
        self.work, self.jobs, self.skip = work, jobs, re.compile(skip) if skip else None
        self.build = os.path.join(work, "build", "linux")
        self.pristine = os.path.join(work, "build", "linux-unmutated")
        self.files = os.path.join(work, "build", "mutate")
        self.log = os.path.join(self.files, "build.log")
        self.rounds = []
        self.object_hashes = {}

    def prepare(self):
        """Configures and builds the copy, runs the tests on it, and keeps their times and
        the object files' hashes. Returns the failures of the unmutated tree."""
        subprocess.run(["cmake", "--preset", "linux", "-DTARNHEAP_BUILD_BENCHMARKS=OFF"],
                       cwd=self.work, check=True, stdout=subprocess.DEVNULL)
        if self.compile() is not True:
            raise SystemExit(f"the unmutated tree does not build: see {self.log}")
        junit = os.path.join(self.files, "baseline.xml")
        names = [name for name in self.test_numbers()
                 if not (self.skip and self.skip.search(name))]
        self.ctest(names, 600, ["--output-junit", junit])
        times, failures = {}, []
        for case in element_tree.parse(junit).getroot().iter("testcase"):
            times[case.get("name")] = float(case.get("time"))
            if case.get("status") != "run":
                failures.append(case.get("name"))
        bounds = ROUND_BOUNDS + (float("inf"),)
        for low, high in zip((0.0,) + ROUND_BOUNDS, bounds):
            members = [name for name in names if low <= times.get(name, high) < high]
            if members:
                slowest = max(times.get(name, 0.0) for name in members)
                self.rounds.append((members, int(3 * slowest) + 10))
        self.object_hashes = {path: self.code_hash(path) for path in self.object_files()}
        shutil.rmtree(self.pristine, ignore_errors=True)
        shutil.copytree(self.build, self.pristine, symlinks=True)
        return failures, sum(times.values())

    def compiled_sources(self):
        """The library's sources the build compiles, from the compilers' dependency files."""
        sources = set()
        src = os.path.join(self.work, "src") + os.sep
        for directory, _, names in os.walk(self.build):
            for name in names:
                if name.endswith(".o.d"):
                    with open(os.path.join(directory, name)) as dependencies:
                        for word in dependencies.read().replace("\\\n", " ").split():
                            path = os.path.normpath(os.path.join(self.build, word))
                            if path.startswith(src):
                                sources.add(os.path.relpath(path, self.work))
        return sources

    def compile(self):
        """Builds the tree: True, False when it does not compile, or "listing" when a test
        program fails while listing its tests."""
        size = os.path.getsize(self.log) if os.path.exists(self.log) else 0
        status = run(["cmake", "--build", self.build, "-j", str(self.jobs)], self.log,
                     BUILD_LIMIT)
        if status == 0:
            return True
        with open(self.log, errors="replace") as log:
            log.seek(size)
            return "listing" if "Error running test executable" in log.read() else False

    def test_numbers(self):
        """{test name: ctest number} as the build now lists them."""
        listing = subprocess.run(["ctest", "--show-only=json-v1"], cwd=self.build, check=True,
                                 capture_output=True, text=True).stdout
        return {test["name"]: number + 1
                for number, test in enumerate(json.loads(listing)["tests"])}

    def ctest(self, names, limit, extra=()):
        """Runs the named tests, stopping at the first failure; the first failed test and how,
        or None when all passed."""
        numbers = self.test_numbers()
        chosen = [str(numbers[name]) for name in names if name in numbers]
        if not chosen:
            return None
        selection = os.path.join(self.files, "selection.txt")
        with open(selection, "w") as out:
            out.write("0,0,0," + ",".join(chosen))
        output = os.path.join(self.files, "ctest.out")
        open(output, "w").close()
        status = run(["ctest", "-I", selection, "-j", str(self.jobs), "--timeout", str(limit),
                      "--stop-on-failure", *extra], output, limit * len(names) + 60,
                     cwd=self.build)
        if status == 0:
            return None
        with open(output, errors="replace") as log:
            text = log.read()
        # "  12 - name (Failed)", "(Timeout)", "(Subprocess aborted)"; a parameterised test's
        # name goes on with its parameter's bytes, which say nothing here.
        failed = re.search(r"^\s*\d+ - (.*) \(([^()]+)\)$", text, re.M)
        if not failed:
            return "ctest", f"status {status}"
        return failed.group(1).split("  # GetParam()")[0], failed.group(2)

    def object_files(self):
        for directory, _, names in os.walk(self.build):
            for name in names:
                if name.endswith(".o"):
                    yield os.path.join(directory, name)

    def code_hash(self, path):
        stripped = os.path.join(self.files, "stripped.o")
        subprocess.run(["objcopy", "--strip-debug", path, stripped], check=True)
        with open(stripped, "rb") as data:
            return hashlib.sha1(data.read()).hexdigest()

    def same_code(self, since):
        """True when every object file rebuilt since then has the unmutated tree's code."""
        return all(self.object_hashes.get(path) == self.code_hash(path)
                   for path in self.object_files() if os.path.getmtime(path) >= since)

    def restore_build(self):
        """Puts back the unmutated tree's build files, times included, so that the next build
        compiles only what its own mutant changes."""
        kept = set()
        for directory, _, names in os.walk(self.pristine):
            for name in names:
                source = os.path.join(directory, name)
                target = os.path.join(self.build, os.path.relpath(source, self.pristine))
                kept.add(target)
                if os.path.lexists(target) and \
                        os.lstat(target).st_mtime_ns == os.lstat(source).st_mtime_ns:
                    continue
                if os.path.lexists(target):
                    os.remove(target)
                os.makedirs(os.path.dirname(target), exist_ok=True)
                shutil.copy2(source, target, follow_symlinks=False)
        for directory, _, names in os.walk(self.build):
            for name in names:
                if os.path.join(directory, name) not in kept:
                    os.remove(os.path.join(directory, name))

    def try_mutant(self, mutant):
        """Builds and tests a mutant: (outcome, detail, seconds its build took)."""
        path = os.path.join(self.work, mutant.path)
        with open(path, encoding="utf-8") as source:
            original = source.read()
        times = os.stat(path)
        since = time.time()
        try:
            with open(path, "w", encoding="utf-8") as source:
                source.write(mutant.apply(original))
            built = self.compile()
            build_seconds = time.time() - since
            if built == "listing":
                return "killed", "a test program failed to list its tests", build_seconds
            if not built:
                return "failed to compile", "", build_seconds
            if self.same_code(since):
                return "survived", "same code", build_seconds
            for names, limit in self.rounds:
                failed = self.ctest(names, limit)
                if failed:
                    return "killed", f"{failed[0]} ({failed[1].lower()})", build_seconds
            return "survived", "", build_seconds
        finally:
            with open(path, "w", encoding="utf-8") as source:
                source.write(original)
            os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))
            self.restore_build()


# --- Report ----------------------------------------------------------------------------------

def equivalent_mutants(path):
    """Mutant name -> reason, from the rows of a markdown table: | place | change | reason |."""
    if not path or not os.path.exists(path):
        return {}
    rows = re.findall(r"^\| (src/\S+:\d+:\d+) \| (.+?) \| (.+) \|$",
                      open(path, encoding="utf-8").read(), flags=re.M)
    return {place + " " + change.replace("\\|", "|"): reason
            for place, change, reason in rows}


def summary(results, total, run, equivalent):
    """The markdown summary: the counts, how the run went, and the survivors."""
    counts = {outcome: sum(1 for _, o, _ in results if o == outcome)
              for outcome in ("killed", "survived", "failed to compile")}
    equivalent_survivors = sum(1 for m, o, _ in results
                               if o == "survived" and m.name() in equivalent)
    compiled = counts["killed"] + counts["survived"] - equivalent_survivors
    score = f"{100 * counts['killed'] / compiled:.0f} %" if compiled else "-"
    each = 60 * (run["minutes"] - run["unmutated"]) / max(len(results), 1)
    skipped = f", except those matching `{run['skip']}`" if run["skip"] else ""
    lines = [
        "| date | commit | sample | seed | killed | survived | of them equivalent "
        "| failed to compile | score |",
        "|---|---|---|---|---|---|---|---|---|",
        f"| {datetime.date.today()} | {run['commit']} | {len(results)} of {total} "
        f"| {run['seed']} | {counts['killed']} | {counts['survived']} | {equivalent_survivors} "
        f"| {counts['failed to compile']} | {score} |",
        "",
        f"Score: killed / (killed + survived, less the equivalent). Tests: the linux "
        f"preset's{skipped}. The run took "
        f"{run['minutes']:.0f} minutes: {run['unmutated']:.0f} to build and test the unmutated "
        f"tree, then {each:.0f} s a mutant.",
    ]
    survivors = [(mutant, detail) for mutant, outcome, detail in results if outcome == "survived"]
    if survivors:
        lines += ["", "| survivor | mutation |", "|---|---|"]
        for mutant, detail in survivors:
            change = mutant.name().split(" ", 1)[1].replace("|", "\\|")
            note = f" ({detail})" if detail else ""
            if mutant.name() in equivalent:
                note += f" equivalent: {equivalent[mutant.name()]}"
            lines.append(f"| {mutant.path}:{mutant.line} | {change}{note} |")
    return "\n".join(lines) + "\n"


# --- Main ------------------------------------------------------------------------------------

def parse_arguments():
    parser = argparse.ArgumentParser(
        description="Mutation testing of src/ against the Linux tests (see the docstring).")
    parser.add_argument("--sample", type=int, default=DEFAULT_SAMPLE,
                        help=f"mutants to test (default {DEFAULT_SAMPLE}: about 20 minutes)")
    parser.add_argument("--all", action="store_true", help="test every mutant")
    parser.add_argument("--seed", type=int, default=1, help="seed of the sample (default 1)")
    parser.add_argument("--jobs", type=int, default=2, help="build and test jobs (default 2)")
    parser.add_argument("--skip", default=DEFAULT_SKIP,
                        help=f"tests not run, a regular expression (default {DEFAULT_SKIP!r}; "
                             "'' runs all)")
    parser.add_argument("--report", help="write the summary to this markdown file")
    parser.add_argument("--equivalent", default=EQUIVALENT,
                        help="the table of mutants shown to be equivalent (default "
                             "tests/mutation/equivalent.md)")
    parser.add_argument("--work", help="keep the scratch tree here, to reuse in later runs")
    parser.add_argument("--list", action="store_true", help="print every mutant and stop")
    parser.add_argument("--self-test", action="store_true", help="check the generator and stop")
    return parser.parse_args()


def mutate(arguments, work):
    started = time.time()
    scratch = Scratch(work, arguments.jobs, arguments.skip)
    os.makedirs(scratch.files, exist_ok=True)
    commit = checkout_commit()
    copy_checkout(work)
    print(f"building and testing the unmutated tree in {work}", flush=True)
    failures, test_seconds = scratch.prepare()
    prepared = time.time()
    if failures:
        raise SystemExit("tests fail on the unmutated tree: " + ", ".join(failures))
    compiled = scratch.compiled_sources()
    mutants = [m for m in generate(library_sources(work)) if m.path in compiled]
    shuffled = list(mutants)
    random.Random(arguments.seed).shuffle(shuffled)
    chosen = mutants if arguments.all else sorted(shuffled[:arguments.sample])
    sizes = ", ".join(str(len(names)) for names, _ in scratch.rounds)
    print(f"{len(mutants)} mutants, testing {len(chosen)}; the tests take {test_seconds:.0f} s, "
          f"in rounds of {sizes}", flush=True)
    results = []
    for number, mutant in enumerate(chosen, 1):
        began = time.time()
        outcome, detail, build_seconds = scratch.try_mutant(mutant)
        results.append((mutant, outcome, detail))
        note = f": {detail}" if detail else ""
        print(f"[{number}/{len(chosen)}] {outcome}{note}, {time.time() - began:.0f} s "
              f"(build {build_seconds:.0f} s): {mutant.name()}", flush=True)
    seed = "all" if arguments.all else arguments.seed
    run = {"seed": seed, "commit": commit, "skip": arguments.skip,
           "minutes": (time.time() - started) / 60, "unmutated": (prepared - started) / 60}
    report = summary(results, len(mutants), run, equivalent_mutants(arguments.equivalent))
    print("\n" + report, end="")
    if arguments.report:
        with open(arguments.report, "w") as out:
            out.write("# Mutation testing\n\n" + report)


def main():
    arguments = parse_arguments()
    if arguments.self_test:
        return self_test()
    if arguments.list:
        for mutant in generate(library_sources(REPOSITORY)):
            print(mutant.name())
        return 0
    if arguments.work:
        work = os.path.realpath(arguments.work)
        if (work + os.sep).startswith(REPOSITORY + os.sep):
            raise SystemExit("--work must lie outside the checkout")
        if os.path.isdir(work) and os.listdir(work) and \
                not os.path.isdir(os.path.join(work, "build", "mutate")):
            raise SystemExit(f"{work} holds other files: --work takes a new directory or one "
                             "this tool made")
        mutate(arguments, work)
        return 0
    work = tempfile.mkdtemp(prefix="tarnheap-mutate-")
    try:
        mutate(arguments, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
