#!/usr/bin/env bash
# check_install.sh <build dir> <consumer sources> <scratch dir> [address|thread]
set -euo pipefail
build=$1
consumer=$2
work=$3
sanitizer=${4:-}

case "$sanitizer" in
  address) flags="-fsanitize=address,undefined" ;;
  thread) flags="-fsanitize=thread" ;;
  *) flags="" ;;
esac

rm -rf "$work"
mkdir -p "$work"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

echo "--- find_package(CanopenMaster)"
cmake -S "$consumer" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake" -- -j1 >/dev/null
"$work/cmake/consumer"

echo "--- pkg-config canopenmaster"
pc=$(find "$prefix" -name canopenmaster.pc | head -n1)
[ -n "$pc" ] || { echo "canopenmaster.pc not installed" >&2; exit 1; }
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
cflags=$(pkg-config --cflags canopenmaster)
libs=$(pkg-config --libs canopenmaster)
echo "cflags: $cflags"
echo "libs: $libs"
libdir=$(pkg-config --variable=libdir canopenmaster)
includedir=$(pkg-config --variable=includedir canopenmaster)
[ -f "$includedir/canopenmaster_c.h" ] || { echo "includedir $includedir has no headers" >&2; exit 1; }
[ -e "$libdir/libcanopenmaster.so" ] || { echo "libdir $libdir has no library" >&2; exit 1; }
# shellcheck disable=SC2086
cc -std=c11 -Wall -Wextra -Werror $flags $cflags "$consumer/pkgconfig_consumer.c" -o "$work/pkgconfig_consumer" \
  $libs -Wl,-rpath,"$libdir"
"$work/pkgconfig_consumer"
echo "install check passed"
