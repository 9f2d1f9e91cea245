#!/usr/bin/env bash
# Builds both presets and runs every test: the Linux port natively (and its processor check
# under qemu-user), the Windows build under Wine; then the Linux tests again with the
# undefined-behaviour sanitizer, and a bounded run of the fuzzer; then both releases, whose
# tests build consumer programs against the installed trees and check the packages, which they
# then make. Ends with one line counting the tests of all six.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup-debian.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT
for preset in linux windows linux-ubsan fuzz linux-release windows-release; do
    cmake --workflow --preset "$preset" 2>&1 | tee -a "$log"
done
awk '/tests passed, .* tests failed out of/ { failed += $4; total += $NF }
     END { printf "all presets: %d passed, %d failed\n", total - failed, failed }' "$log"
