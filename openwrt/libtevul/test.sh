#!/bin/sh
# The packages' test, run on the target by OpenWrt's package checks with
# the package's name and version.
case "$1" in
libtevul*)
	# Installed where the tool and applications load it from.
	[ -e /usr/lib/libtevul.so ] || exit 1
	;;
tevu)
	# The version without the package release ("0.1.0" of "0.1.0-r1").
	tevu --version | grep -F "${2%%-*}"
	;;
esac
