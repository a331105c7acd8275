#!/bin/sh
# SPDX-License-Identifier: ISC
# systemd-analyze verify passes on the shipped unit, with the gateway
# component installed: its programs are laid over /usr/sbin in a mount
# namespace of this test's own (the host's /usr/sbin is not touched), and
# the pages its Documentation= names are looked for among those installed.
# Usage: systemd_verify.sh BUILD_DIR UNIT
set -eu
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
DESTDIR=$stage cmake --install "$1" --component gateway --prefix /usr >/dev/null
export MANPATH="$stage/usr/share/man"
unshare --mount --propagation private sh -euc '
	mount -t overlay overlay -o "lowerdir=$1/usr/sbin:/usr/sbin" /usr/sbin
	systemd-analyze verify "$2"
' sh "$stage" "$2"
echo "verified $2"
