#!/bin/sh
# Unpacks a .deb with dpkg into an empty root of its own, then asks pkg-config, looking in that
# root only, about both libraries. Configuring would run ldconfig, which that root lacks.
# Usage: check_deb_install.sh <package.deb> <work directory> <version>
set -eu
root=$2/root
rm -rf "$root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-not-root --unpack "$1"
export PKG_CONFIG_LIBDIR="$root/usr/lib/pkgconfig"
libdir=$(pkg-config --variable=libdir tarnheap)
expect() {
    answer=$(pkg-config "$1" "$2" | sed "s/ *$//")
    echo "pkg-config $1 $2: $answer"
    [ "$answer" = "$3" ] || { echo "expected: $3" >&2 && exit 1; }
}
expect --modversion tarnheap "$3"
expect --libs tarnheap "-L$libdir -ltarnheap"
expect --modversion tarnheap-embed "$3"
expect --libs tarnheap-embed "-L$libdir -ltarnheap_embed"
ls "$libdir/libtarnheap.so" "$libdir/libtarnheap_embed.a"
