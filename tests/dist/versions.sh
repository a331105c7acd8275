#!/bin/sh
# SPDX-License-Identifier: ISC
# One version everywhere: each daemon carries "wdsd VERSION" as a string of
# its own, stripped as well (strings(1), the package checks); each tool
# prints "NAME VERSION" for --version; the recipes in dist/ name the same
# version, and the licence's hashes they give are the file's; CHANGELOG.md
# has a section for it.
# Usage: versions.sh VERSION SOURCE_DIR DAEMON... -- TOOL...
set -u
version=$1 src=$2
shift 2
failed=0
fail() {
	echo "FAIL: $*"
	failed=1
}
tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT

while [ $# -gt 0 ] && [ "$1" != -- ]; do
	strip -o "$tmp" "$1" || fail "cannot strip $1"
	for file in "$1" "$tmp"; do
		strings -a "$file" | grep -qx "wdsd $version" || fail "$1 does not carry \"wdsd $version\" ($file)"
	done
	shift
done
[ $# -gt 0 ] && shift
for tool in "$@"; do
	out=$("$tool" --version) || fail "$tool --version failed"
	[ "$out" = "$(basename "$tool") $version" ] || fail "$tool --version printed \"$out\""
done

dist=$src/dist
grep -qx "PKG_VERSION:=$version" "$dist/openwrt/Makefile" || fail "OpenWrt's PKG_VERSION"
grep -qx "WDSD_VERSION = $version" "$dist/buildroot/wdsd/wdsd.mk" || fail "Buildroot's WDSD_VERSION"
grep -q " wdsd-$version.tar.gz\$" "$dist/buildroot/wdsd/wdsd.hash" || fail "Buildroot's tarball in wdsd.hash"
[ -f "$dist/yocto/wdsd_$version.bb" ] || fail "no Yocto recipe wdsd_$version.bb"
grep -q "^## \[$version\] - " "$src/CHANGELOG.md" || fail "no section for $version in CHANGELOG.md"

sha256=$(sha256sum "$src/LICENSE" | cut -d' ' -f1)
md5=$(md5sum "$src/LICENSE" | cut -d' ' -f1)
grep -qx "sha256  $sha256  LICENSE" "$dist/buildroot/wdsd/wdsd.hash" || fail "LICENSE's hash in wdsd.hash"
grep -q "file://LICENSE;md5=$md5\"" "$dist/yocto/wdsd_$version.bb" || fail "LICENSE's md5 in the Yocto recipe"
grep -qx "PKG_LICENSE_FILES:=LICENSE" "$dist/openwrt/Makefile" || fail "OpenWrt's PKG_LICENSE_FILES"

[ "$failed" = 0 ] && echo "version $version everywhere"
exit "$failed"
