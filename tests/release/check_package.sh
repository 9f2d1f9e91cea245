#!/bin/sh
# Fails unless a package holds exactly the files of a listing (one path per line, below the
# archive's top directory or, for a .deb, below its root), and prints the difference.
# Usage: check_package.sh <package> <listing>
set -eu
package=$1
case $package in
*.deb)
    files=$(dpkg-deb --fsys-tarfile "$package" | tar -t | sed 's|^\./||')
    ;;
*)
    top=$(basename "$package" | sed 's/\.zip$//; s/\.tar\.gz$//')
    files=$(cmake -E tar tf "$package")
    outside=$(printf '%s\n' "$files" | grep -v "^$top/" || true)
    if [ -n "$outside" ]; then
        printf '%s: files outside %s/:\n%s\n' "$package" "$top" "$outside" >&2
        exit 1
    fi
    files=$(printf '%s\n' "$files" | sed "s|^$top/||")
    ;;
esac
printf '%s\n' "$files" | grep -v '/$' | grep -v '^$' | sort >"$package.files"
sort "$2" | diff -u - "$package.files"
