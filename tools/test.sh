#!/bin/sh
# Builds both presets and runs every test: the Linux port natively (and its processor check
# under qemu-user), the Windows build under Wine; then the Linux tests again with the
# undefined-behaviour sanitizer, and a bounded run of the fuzzer.
set -eu
cd "$(dirname "$0")/.."
tools/setup-debian.sh
cmake --workflow --preset linux
cmake --workflow --preset windows
cmake --workflow --preset linux-ubsan
cmake --workflow --preset fuzz
