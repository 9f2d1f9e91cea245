"""Reads callgrind output files: the instructions that one program object spends in calls to
other objects (a workload driver's calls into the heap it runs on), in total and per callee.

Calls are summed with their inclusive cost, as callgrind records it on the line after each
`calls=` line. PLT stubs count for the caller (callgrind's default --skip-plt=yes), so the
figures are the callee library's own instructions.
"""

import re

_NAME = re.compile(r"^\((\d+)\)(?: (.*))?$")
# The program entry's call into the C library's start-up contains the whole run.
_PROGRAM_ENTRIES = ("_start", "(below main)")


class _Names:
    """Callgrind's name compression: "(id) name" defines an id, "(id)" refers to it."""

    def __init__(self):
        self.by_id = {}

    def read(self, text):
        match = _NAME.match(text)
        if not match:
            return text
        ident, name = match.groups()
        if name is not None:
            self.by_id[ident] = name
        return self.by_id.get(ident, "???")


def outgoing_calls(path, caller_object, caller_function=None):
    """Returns {callee name: [calls, inclusive Ir]} over every call made by code of the object
    whose path contains `caller_object` into code of any other object, except the program
    entry's call of the C library's start-up; only calls made by functions whose name contains
    `caller_function`, when it is given."""
    objects, functions, files = _Names(), _Names(), _Names()
    positions = 1
    ir_index = 0
    current_object = ""
    call_object = None
    call_function = None
    caller = None
    pending_calls = None
    result = {}
    with open(path, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            line = line.rstrip("\n")
            if pending_calls is not None:
                costs = line.split()[positions:]
                inclusive = int(costs[ir_index]) if len(costs) > ir_index else 0
                target = call_object if call_object is not None else current_object
                if (caller_object in current_object and caller_object not in target
                        and caller not in _PROGRAM_ENTRIES
                        and (caller_function is None or caller_function in caller)
                        and not call_function.startswith("__libc_start_main")):
                    entry = result.setdefault(call_function, [0, 0])
                    entry[0] += pending_calls
                    entry[1] += inclusive
                pending_calls = None
                call_object = None
                continue
            key, _, value = line.partition("=")
            if line.startswith("positions:"):
                positions = len(line.split()[1:])
            elif line.startswith("events:"):
                ir_index = line.split()[1:].index("Ir")
            elif key == "ob":
                current_object = objects.read(value)
            elif key == "cob":
                call_object = objects.read(value)
            elif key in ("fn", "cfn"):
                name = functions.read(value)
                if key == "cfn":
                    call_function = name
                else:
                    caller = name
            elif key in ("fl", "fi", "fe", "cfi", "cfl"):
                files.read(value)
            elif key == "calls":
                pending_calls = int(value.split()[0])
    return result


def total_instructions(path):
    """The program's total Ir (the `summary:` line)."""
    with open(path, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if line.startswith("summary:") or line.startswith("totals:"):
                return int(line.split()[1])
    return 0


def _position(token, last):
    if token == "*":
        return last
    if token.startswith(("+", "-")):
        return last + int(token)
    return int(token, 16) if token.startswith("0x") else int(token)


def instruction_costs(path, library_object, function_names):
    """Returns {function: {instruction address: self Ir}} for the named functions of the object
    whose path contains `library_object` (the output must come from --dump-instr=yes)."""
    objects, functions, files = _Names(), _Names(), _Names()
    ir_index = 0
    current_object = ""
    current_function = None
    last_address = 0
    after_calls = False
    result = {}
    with open(path, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            line = line.rstrip("\n")
            if not line:
                continue
            if line[0] in "0123456789+-*":
                fields = line.split()
                last_address = _position(fields[0], last_address)
                if (not after_calls and current_function in function_names
                        and library_object in current_object):
                    costs = fields[2:]
                    cost = int(costs[ir_index]) if len(costs) > ir_index else 0
                    per_function = result.setdefault(current_function, {})
                    per_function[last_address] = per_function.get(last_address, 0) + cost
                after_calls = False
                continue
            key, _, value = line.partition("=")
            if line.startswith("events:"):
                ir_index = line.split()[1:].index("Ir")
            elif key == "ob":
                current_object = objects.read(value)
            elif key == "cob":
                objects.read(value)
            elif key == "fn":
                current_function = functions.read(value)
            elif key == "cfn":
                functions.read(value)
            elif key in ("fl", "fi", "fe", "cfi", "cfl"):
                files.read(value)
            elif key == "calls":
                after_calls = True
    return result
