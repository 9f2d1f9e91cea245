#!/bin/sh
# Compiles header_check.c with the given compiler command in every combination: C and C++,
# with and without TARNHEAP_EMBED, tarnheap.h before and after <stdlib.h>. Warnings are errors.
# Usage: check_header.sh <include directory> <compiler> [<option>...]
set -eu
source=$(dirname "$0")/header_check.c
include=$1
shift
status=0
for language in c c++; do
    for variant in "" -DTARNHEAP_EMBED; do
        for order in "" -DTARNHEAP_FIRST; do
            # shellcheck disable=SC2086
            "$@" -x $language -Wall -Wextra -Werror -I "$include" $variant $order \
                -c "$source" -o /dev/null || {
                echo "failed: $* -x $language $variant $order" >&2
                status=1
            }
        done
    done
done
exit $status
