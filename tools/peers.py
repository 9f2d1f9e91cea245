"""The allocators that TarnHeap is measured against on Linux, each preloaded with LD_PRELOAD.

glibc (no preload) and Debian's packaged peers are known by name and used where installed. A
user adds others, for example allocators built from source, by naming them in the environment
variable TARNHEAP_PEERS or an option that takes the same text: NAME=PATH pairs separated by
commas, PATH being a shared library that replaces malloc when preloaded. Nothing needs them: a
measurement runs with whatever is present.
"""

import os
import sys

PEERS_VARIABLE = "TARNHEAP_PEERS"
LIBRARIES = "/usr/lib/x86_64-linux-gnu"
DEBIAN_PEERS = [
    ("glibc", None),
    ("mimalloc", LIBRARIES + "/libmimalloc.so.2"),
    ("jemalloc", LIBRARIES + "/libjemalloc.so.2"),
    ("tcmalloc", LIBRARIES + "/libtcmalloc_minimal.so.4"),
]
HEAP = "tarnheap"


def parse_peers(text):
    """[(name, path)] from 'NAME=PATH,NAME=PATH'; raises ValueError on a malformed pair, a
    missing file or a name used twice."""
    peers = []
    for pair in filter(None, (part.strip() for part in (text or "").split(","))):
        name, separator, path = pair.partition("=")
        name, path = name.strip(), os.path.expanduser(path.strip())
        if not separator or not name or not path:
            raise ValueError(f"'{pair}' is not NAME=PATH")
        if not os.path.isfile(path):
            raise ValueError(f"{name}: no library at {path}")
        peers.append((name, os.path.abspath(path)))
    taken = {HEAP} | {name for name, _ in DEBIAN_PEERS}
    for name, _ in peers:
        if name in taken:
            raise ValueError(f"the name {name} is taken")
        taken.add(name)
    return peers


def linux_allocators(extra_text=None, heap_library=None):
    """(allocators, missing): the installed Debian peers, then the extra peers from extra_text
    (or, when it is None, from TARNHEAP_PEERS), then TarnHeap when its library is given; and
    the names of the Debian peers that are not installed."""
    if extra_text is None:
        extra_text = os.environ.get(PEERS_VARIABLE, "")
    present = [(name, path) for name, path in DEBIAN_PEERS if path is None or os.path.exists(path)]
    missing = [name for name, path in DEBIAN_PEERS if (name, path) not in present]
    allocators = present + parse_peers(extra_text)
    if heap_library:
        allocators.append((HEAP, heap_library))
    return allocators, missing


def main():
    """Checks TARNHEAP_PEERS and names the Linux allocators a measurement would use."""
    try:
        allocators, missing = linux_allocators()
    except ValueError as error:
        sys.stderr.write(f"{PEERS_VARIABLE}: {error}\n")
        return 2
    print(" ".join(name for name, _ in allocators))
    if missing:
        print("not installed: " + " ".join(missing))
    return 0


if __name__ == "__main__":
    sys.exit(main())
