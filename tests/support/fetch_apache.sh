#!/bin/sh
# Unpacks Debian's package apache2 into build/apache2, for fresh_host.sh: its settings and the tools
# that enable modules and sites. Installed, it would start a web server on this host.
set -eu
cd "$(dirname "$0")/../.."
[ ! -x build/apache2/usr/sbin/apache2ctl ] || exit 0
work=$(mktemp -d /tmp/apache2.XXXXXX)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
chown _apt "$work" 2>/dev/null || true
fetch() { (cd "$work" && apt-get download -qq apache2); }
fetch 2>/dev/null || { apt-get update -qq && fetch; }
mkdir -p build/apache2
dpkg-deb -x "$work"/apache2_*.deb build/apache2
