#!/bin/sh
# SPDX-License-Identifier: ISC
# A packager's build: the switches that leave out the tests, the simulator
# and the benchmarks, and a gateway platform library of its own in place of
# the stand-ins (made here from their sources, outside this project's
# build, with default visibility). Configuring looks for nothing but the
# toolchain; nothing of platform/ is compiled; wdsd takes the library's
# functions; the gateway component installs the daemon, the supervisor and
# their pages, and nothing else.
# Usage: packager_build.sh SOURCE_DIR
set -eu
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/lib"
for f in "$src"/platform/*.cpp; do
	c++ -std=c++20 -O2 -I "$src" -c "$f" -o "$work/lib/$(basename "$f" .cpp).o"
done
ar rcs "$work/libgateway_platform.a" "$work"/lib/*.o

cmake -S "$src" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
	-DWDS_BUILD_TESTS=OFF -DWDS_BUILD_SIM=OFF -DWDS_BUILD_BENCH=OFF \
	-DWDS_PLATFORM_LIBRARY="$work/libgateway_platform.a" >/dev/null
cmake --build "$work/build" -j 2 >/dev/null

failed=0
fail() {
	echo "FAIL: $*"
	failed=1
}
! grep -qE '^(GTest_DIR|benchmark_DIR|FUSE3_[A-Z_]*):' "$work/build/CMakeCache.txt" || fail "configuring looked for a test or simulator package"
[ -z "$(find "$work/build" -path '*platform*' -name '*.o')" ] || fail "the stand-ins were compiled"
grep -q "libgateway_platform.a" "$work/build/build.ninja" || fail "the library is not on a link line"
nm "$work/build/wdsd" | grep -qx '[0-9a-f]* T ZUN_MSG_Init' || fail "wdsd has not the library's ZUN_MSG_Init"
DESTDIR=$work/stage cmake --install "$work/build" --component gateway --prefix /usr >/dev/null
installed=$(cd "$work/stage" && find . -type f | sort | tr '\n' ' ')
expected="./usr/sbin/wdsd ./usr/sbin/wdsd-supervise ./usr/share/man/man8/wdsd-supervise.8 ./usr/share/man/man8/wdsd.8 "
[ "$installed" = "$expected" ] || fail "installed: $installed"
[ "$failed" = 0 ] && echo "built with the gateway's platform library; installed: $installed"
exit "$failed"
