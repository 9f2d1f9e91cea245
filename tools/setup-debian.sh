#!/bin/sh
# Installs, with apt-get, whatever of the build and test tools a Debian machine lacks.
set -eu

packages="cmake make g++ googletest libgtest-dev libbenchmark-dev g++-mingw-w64-x86-64-posix
          wine wine64 qemu-user util-linux clang libclang-rt-14-dev lua5.4 gawk sqlite3 perl
          python3-matplotlib python3-tabulate sed grep jq file python3 libpython3.11-testsuite
          lld llvm pkgconf dpkg-dev"
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing="$missing $package"
done
[ -z "$missing" ] && exit 0

echo "installing:$missing"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
$sudo apt-get update -qq
# shellcheck disable=SC2086
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing >/dev/null
