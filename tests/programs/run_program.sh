#!/bin/sh
# run_program.sh LIBRARY PROBE INPUT PROGRAM [ARGUMENT...]: runs one of Debian's single-threaded
# programs, with INPUT as its standard input, twice: on its own and with the heap preloaded, both
# without address-space randomisation (the heap's 8 GiB hint must be free). Fails unless both
# runs print the same and end with the same status. The probe library, preloaded into both runs,
# tells whether the heap served the program: the preloaded run must be served, the plain one not.
set -eu
library=$1
probe=$2
input=$3
shift 3
job="$*"
report=$(mktemp)
plain=$(mktemp)
preloaded=$(mktemp)
trap 'rm -f "$report" "$plain" "$preloaded"' EXIT

# run PRELOAD PROGRAM [ARGUMENT...]: the program's output and exit status, then what the probe
# reported, with PRELOAD in front of the probe.
run() {
    libraries="$1$probe"
    shift
    : >"$report"
    status=0
    setarch -R env LD_PRELOAD="$libraries" TARNHEAP_PROBE_REPORT="$report" "$@" <"$input" ||
        status=$?
    echo "exit status $status"
    served=$(cat "$report")
}

run "" "$@" >"$plain"
plain_served=$served
run "$library " "$@" >"$preloaded"
if ! cmp -s "$plain" "$preloaded"; then
    diff "$plain" "$preloaded" | head -n 40
    echo "$job: the output differs with the heap preloaded"
    exit 1
fi
if [ "$served" != served ] || [ "$plain_served" != "not served" ]; then
    echo "$job: the probe reports \"$served\" with the heap, \"$plain_served\" without"
    exit 1
fi
echo "$job: $(wc -l <"$plain") lines, the same"
