#!/bin/sh
# run_program.sh LIBRARY PROGRAM JOB: runs one of Debian's single-threaded programs on a job
# twice, on its own and with the heap preloaded, both without address-space randomisation (the
# heap's 8 GiB hint must be free), and fails unless the outputs are the same. A probe run checks
# that the preloaded heap did serve the program: its region is mapped at the hint.
set -eu
library=$1
program=$2
job=$3

job_of() {
    case $program in
        sqlite3) "$@" sqlite3 :memory: <"$job" ;;
        gawk) "$@" gawk -f "$job" ;;
        *) "$@" "$program" "$job" ;;
    esac
}

probe_of() {
    case $program in
        lua5.4) "$@" lua5.4 -e 'for l in io.lines("/proc/self/maps") do
                                    if l:find("^7f0000000000%-") then print("served") end end' ;;
        gawk) "$@" gawk '/^7f0000000000-/ { print "served" }' /proc/self/maps ;;
        perl) "$@" perl -ne 'print "served\n" if /^7f0000000000-/' /proc/self/maps ;;
        # The shell's parent is the program itself; grep runs on its own (it takes the null
        # that malloc(0) returns by design for exhaustion).
        sqlite3) "$@" sqlite3 :memory: ".shell LD_PRELOAD= grep -q '^7f0000000000-' /proc/\$PPID/maps && echo served" ;;
    esac
}

plain() { setarch -R "$@"; }
preloaded() { setarch -R env LD_PRELOAD="$library" "$@"; }

[ "$(probe_of preloaded)" = served ] || { echo "the preloaded heap did not serve $program"; exit 1; }
[ -z "$(probe_of plain 2>/dev/null)" ] || { echo "the probe is wrong: $program on its own has the region"; exit 1; }

expected=$(job_of plain)
actual=$(job_of preloaded)
if [ "$expected" != "$actual" ]; then
    echo "$program $(basename "$job"): the output differs with the heap preloaded"
    printf '%s\n' "$expected" >"${TMPDIR:-/tmp}/expected.$$"
    printf '%s\n' "$actual" | diff "${TMPDIR:-/tmp}/expected.$$" - || true
    rm -f "${TMPDIR:-/tmp}/expected.$$"
    exit 1
fi
echo "$program $(basename "$job"): $(printf '%s\n' "$actual" | wc -l) lines, the same"
