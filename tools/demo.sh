#!/bin/sh
# Builds TARNHEAP.dll and runs the demo program against it under Wine.
set -eu
cd "$(dirname "$0")/.."
tools/setup-debian.sh
cmake --preset windows >/dev/null
cmake --build --preset windows --target demo
