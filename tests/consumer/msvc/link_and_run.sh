#!/bin/sh
# Builds no_runtime.c the Microsoft way (clang in its MSVC mode, lld-link) against the
# TARNHEAP.lib of an installed release, with a KERNEL32 import library made for it, and runs it
# beside the release's TARNHEAP.dll.
# Usage: link_and_run.sh <installed release> <work directory> <runner, e.g. wine-run>
set -eu
here=$(cd "$(dirname "$0")" && pwd)
installed=$1
mkdir -p "$2"
cd "$2"
llvm-dlltool -m i386:x86-64 -d "$here/kernel32.def" -l kernel32.lib
clang --target=x86_64-pc-windows-msvc -O2 -Wall -Wextra -Werror -isystem "$here/include" \
    -I "$installed/include" -c "$here/no_runtime.c" -o no_runtime.obj
lld-link -nologo -entry:start -subsystem:console -nodefaultlib -out:no_runtime.exe \
    no_runtime.obj "$installed/lib/TARNHEAP.lib" kernel32.lib
cp "$installed/bin/TARNHEAP.dll" .
"$3" no_runtime.exe
