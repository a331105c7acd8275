#!/bin/sh
# SPDX-License-Identifier: ISC
# The packages feed CI's version probe: test.sh PACKAGE VERSION, run on the
# target with the package installed. wdsd must not be run to ask it (it has
# no options: it would start and detach), so its binary is searched for the
# version it carries; the supervisor is asked with --version, which starts
# nothing.

case "$1" in
wdsd) ;;
*) exit 0 ;;
esac
version=${2%%-*}
# The binary carries "wdsd VERSION" ended by a NUL.
pattern="wdsd $(echo "$version" | sed 's/\./\\./g')\$"
tr '\000' '\n' </usr/sbin/wdsd | grep -q "$pattern" || {
	echo "/usr/sbin/wdsd does not carry version $version" >&2
	exit 1
}
[ "$(/usr/sbin/wdsd-supervise --version)" = "wdsd-supervise $version" ] || {
	echo "wdsd-supervise --version does not print $version" >&2
	exit 1
}
