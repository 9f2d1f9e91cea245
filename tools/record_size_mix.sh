#!/bin/sh
# Records the request sizes of a real program, gawk running bench/programs/wordfreq.awk, into
# bench/data/size_mix.txt, which the workload driver compiles in and replays. Needed again only
# to change the recorded program. Usage: tools/record_size_mix.sh [build directory]
set -eu
cd "$(dirname "$0")/.."
build=${1:-build/linux}
[ -f "$build/CMakeCache.txt" ] || cmake --preset linux >/dev/null
cmake --build "$build" --target size_recorder >/dev/null
raw=$(mktemp)
trap 'rm -f "$raw"' EXIT
SIZE_RECORDER_OUT=$raw LD_PRELOAD=$PWD/$build/bench/size_recorder.so \
    gawk -v scale=15 -f bench/programs/wordfreq.awk >/dev/null
if ! grep -q '^dropped 0$' "$raw"; then
    echo "record_size_mix: the recorder's table overflowed" >&2
    exit 1
fi
{
    echo "# Request sizes of gawk $(gawk --version | sed -n '1s/^GNU Awk \([^,]*\),.*/\1/p') running"
    echo "# bench/programs/wordfreq.awk with scale=15, recorded by tools/record_size_mix.sh."
    echo "# live: peak number of live blocks. Then: kind (m malloc, c calloc with bytes = count"
    echo "# times size, r realloc), bytes, number of requests."
    grep '^live ' "$raw"
    grep '^[mcr] ' "$raw" | sort -k1,1 -k2,2n
} >bench/data/size_mix.txt
echo "bench/data/size_mix.txt: $(grep -c '^[mcr] ' bench/data/size_mix.txt) sizes"
