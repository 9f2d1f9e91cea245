#!/bin/sh
# Checks a Windows image's tables with objdump -p.
#   pe_tables.sh dll <objdump> TARNHEAP.dll
#     exports exactly calloc, free, malloc, mallopt and realloc; imports from KERNEL32.dll and
#     msvcrt.dll only.
#   pe_tables.sh program <objdump> program.exe
#     imports malloc, calloc, realloc and free from TARNHEAP.dll and from no other library.
set -eu
mode=$1
objdump=$2
image=$3
tables=$("$objdump" -p "$image")
# One line per imported function: "<library> <function>".
imports=$(printf '%s\n' "$tables" | awk '
    /^\tDLL Name: / { library = toupper($3); next }
    /^\t[ \t]*[0-9a-f]+[ \t]+[0-9]+[ \t]+[^ \t]+$/ && library != "" { print library, $3 }
    /^$/ { library = "" }')
check() {
    if [ "$2" != "$3" ]; then
        printf '%s: %s are\n%s\nnot\n%s\n' "$image" "$1" "$2" "$3" >&2
        exit 1
    fi
}
case $mode in
dll)
    exports=$(printf '%s\n' "$tables" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
        awk '/^\t\[/ { print $NF }' | sort | tr '\n' ' ')
    check exports "$exports" "calloc free malloc mallopt realloc "
    libraries=$(printf '%s\n' "$imports" | cut -d' ' -f1 | sort -u | tr '\n' ' ')
    check "imported libraries" "$libraries" "KERNEL32.DLL MSVCRT.DLL "
    ;;
program)
    heap=$(printf '%s\n' "$imports" | awk '$2 ~ /^(malloc|calloc|realloc|free)$/' | sort |
        tr '\n' ' ')
    check "the imports of the heap's functions" "$heap" \
        "TARNHEAP.DLL calloc TARNHEAP.DLL free TARNHEAP.DLL malloc TARNHEAP.DLL realloc "
    ;;
*)
    echo "usage: pe_tables.sh dll|program <objdump> <image>" >&2
    exit 2
    ;;
esac
