#!/bin/sh
# Runs each fuzz target for some seconds (60), beginning with copies of its corpus. Ends with a status
# other than 0 and the path of the input when one failed.
#
#   fuzz/run.sh [SECONDS]
set -eu
seconds=${1:-60}
cd "$(dirname "$0")/.."

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" -- --no-print-directory -s

dir=$(mktemp -d)
for corpus in fuzz/corpus/*; do
    name=$(basename "$corpus")
    echo "fuzz: $name for $seconds s"
    cp -R "$corpus" "$dir/$name"
    if ! "build/fuzz/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 \
        -artifact_prefix="$dir/$name-" "$dir/$name" >"$dir/$name.log" 2>&1; then
        cat "$dir/$name.log"
        echo "fuzz: $name failed on $(find "$dir" -maxdepth 1 -name "$name-*")" >&2
        exit 1
    fi
    tail -n 1 "$dir/$name.log"
done
rm -rf "$dir"
