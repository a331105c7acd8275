#!/bin/sh
# SPDX-License-Identifier: ISC
# The OpenWrt packages CI's version probe, test.sh PACKAGE VERSION, run by
# BusyBox's sh on the package as installed, with /usr/sbin/wdsd made
# unrunnable: the probe must find the version without starting the daemon.
# It runs in mount and pid namespaces of its own, with /var and /run fresh,
# and the installed files laid over /usr/sbin there only.
# Usage: openwrt_test_sh.sh BUILD_DIR TEST_SH VERSION
set -eu
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$1" --component gateway --prefix /usr >/dev/null
chmod 0644 "$stage/usr/sbin/wdsd"
unshare --mount --pid --fork --propagation private sh -euc '
	mount -t tmpfs tmpfs /var
	mount -t tmpfs tmpfs /run
	mount -t overlay overlay -o "lowerdir=$1/usr/sbin:/usr/sbin" /usr/sbin
	probe() {
		if busybox sh "$2" "$3" "$4" >/dev/null 2>&1; then got=0; else got=1; fi
		[ "$got" = "$1" ] || { echo "FAIL: test.sh $3 $4 gave $got, not $1"; exit 1; }
	}
	v=$3
	probe 0 "$2" wdsd "$v"
	probe 0 "$2" wdsd "$v-r1"
	probe 1 "$2" wdsd "9.$v"
	probe 1 "$2" wdsd "${v%.*}"
	probe 1 "$2" wdsd "${v}0"
	probe 0 "$2" wdsd-tools "$v"
	[ -z "$(ls -A /var)" ] && [ ! -e /run/wdsd.lock ] || { echo "FAIL: the probe left files: $(ls -AR /var /run)"; exit 1; }
	echo "test.sh finds $v without running wdsd"
' sh "$stage" "$2" "$3"
