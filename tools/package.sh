#!/bin/sh
# Builds, tests and packages both releases: the workflow presets linux-release and
# windows-release. The packages land in build/packages: TarnHeap-<version>-win64.zip,
# TarnHeap-<version>-Linux.tar.gz and tarnheap_<version>_amd64.deb, each with its debug twin
# and a .sha256 file.
set -eu
cd "$(dirname "$0")/.."
tools/setup-debian.sh
for preset in linux-release windows-release; do
    cmake --workflow --preset "$preset"
done
ls build/packages/*.zip build/packages/*.tar.gz build/packages/*.deb
