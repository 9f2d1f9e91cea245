#!/bin/sh
# The benchmark suite in one command: installs what it lacks, builds the Linux preset (and the
# Windows one), runs every workload under glibc, the Debian allocators that are installed
# (mimalloc, jemalloc, tcmalloc), any extra peers and TarnHeap, the real programs, the Windows
# drivers under Wine and the callgrind profiles, and writes build/bench/report.md and
# build/bench/report.png.
#
# Usage: tools/bench.sh [--quick] [--no-windows]
#   --quick       short runs and fewer repetitions
#   --no-windows  leave out the Windows drivers under Wine
#
# Optional environment; without it the suite measures what Debian provides:
#   TARNHEAP_PEERS             extra Linux allocators, NAME=PATH pairs separated by commas, each
#                              PATH a shared library that replaces malloc when preloaded
#   TARNHEAP_WINDOWS_MIMALLOC  a folder with a mingw-w64 static build of mimalloc (include/ and
#                              libmimalloc.a): adds a Windows driver served by it
set -eu
cd "$(dirname "$0")/.."

quick=""
windows=yes
for arg in "$@"; do
    case $arg in
    --quick) quick=--quick ;;
    --no-windows) windows=no ;;
    -h | --help)
        sed -n '2,17s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    *)
        echo "bench.sh: unknown argument $arg (try --help)" >&2
        exit 2
        ;;
    esac
done

tools/setup-debian.sh
# The peers, the real programs, the measuring and charting tools.
packages="libmimalloc2.0 libjemalloc2 libtcmalloc-minimal4 gawk lua5.4 sqlite3 perl python3
          valgrind time gnuplot-nox binutils"
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing="$missing $package"
done
if [ -n "$missing" ]; then
    echo "installing:$missing" >&2
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
        $missing >/dev/null
fi

# A malformed TARNHEAP_PEERS stops here, before the builds.
allocators=$(/usr/bin/python3 tools/peers.py)
echo "[bench] linux allocators: $allocators" >&2

echo "[bench] building the linux preset" >&2
cmake --preset linux >/dev/null
cmake --build --preset linux --target tarnheap workload_driver size_recorder >/dev/null
windows_option=--no-windows
if [ "$windows" = yes ]; then
    echo "[bench] building the windows preset" >&2
    # Given even when empty, so that a folder named by an earlier run does not stay in the cache.
    mimalloc=${TARNHEAP_WINDOWS_MIMALLOC:-}
    cmake --preset windows "-DTARNHEAP_WINDOWS_MIMALLOC=$mimalloc" >/dev/null
    targets="tarnheap_dll workload_driver_msvcrt workload_driver_tarnheap"
    [ -z "$mimalloc" ] || targets="$targets workload_driver_mimalloc"
    # shellcheck disable=SC2086
    cmake --build --preset windows --target $targets >/dev/null
    windows_option=""
fi

mkdir -p build/bench
# shellcheck disable=SC2086
/usr/bin/python3 tools/bench_suite.py $quick $windows_option --out build/bench >/dev/null
/usr/bin/python3 tools/bench_report.py build/bench >/dev/null
echo "[bench] wrote build/bench/report.md and build/bench/report.png" >&2
