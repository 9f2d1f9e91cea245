#!/usr/bin/env bash
# Builds both presets and runs every test: the Linux port natively (and its processor check
# under qemu-user), the Windows build under Wine; then the Linux tests again with the
# undefined-behaviour sanitizer, and a bounded run of the fuzzer. Ends with one line counting
# the tests of all four.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup-debian.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in linux windows linux-ubsan fuzz; do
    cmake --workflow --preset "$preset" 2>&1 | tee -a "$log"
done
awk '/tests passed, .* tests failed out of/ { failed += $4; total += $NF }
     END { printf "all presets: %d passed, %d failed\n", total - failed, failed }' "$log"
