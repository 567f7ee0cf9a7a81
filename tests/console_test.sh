#!/bin/sh
# console_test.sh BIN_DIR SOURCE_DIR DOCUMENT[#HEADING]...: runs the commands of documents on a fresh
# host, in order, and compares what they print with what the documents show.
set -eu
bin=$1 source=$2
shift 2
INSTALLED=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' | sed -n 's/^installed //p')
export INSTALLED
cd "$source"
exec tests/support/sandbox.sh tests/support/fresh_host.sh "$bin" "$source" tests/support/console.pl "$@"
