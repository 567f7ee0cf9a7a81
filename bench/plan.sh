#!/bin/bash
# Measures zendrelctl plan against find, which looks at the same entries, on a package of 100,000 files.
#
#   bench/plan.sh [FILES]
#
# Runs as root. Medians of 7 rounds, in which plan and find take turns. The site is empty, or has all
# of the package's files in other sizes, or has them equal, so that plan reads them all; find reads
# none, and only the first two have a target: 1.5 times as long. Ends with 1 when one is missed.
set -euo pipefail
export LC_ALL=C PATH="$PATH:/usr/sbin:/sbin"
bench=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=${bench%/*}

fail() { echo "bench: $*" >&2 && exit 1; }

if [ "${1-}" != --inside ]; then
    [ "$(id -u)" -eq 0 ] || fail "must be run as root"
    (cd "$root" && cmake --preset release && cmake --build --preset release --target zendrelctl) >/dev/null \
        || fail "the release build failed"
    exec "$root/tests/support/sandbox.sh" "${BASH_SOURCE[0]}" --inside "$@"
fi
shift

files=${1:-100000}
rounds=7
program=$SANDBOX_DIR/zendrelctl
cp "$root/build/release/zendrelctl" "$root/build/release/zendrel" "$SANDBOX_DIR"
package=$SANDBOX_DIR/package vhost=$SANDBOX_DIR/vhost
site=("--vhost-path=$vhost" "--www-root=$vhost/docroot" --user-name=alice --application-subdirectory=.)
"$bench/make_tree.pl" "$package" "$files"

# Prints microseconds. With differences found, plan ends with 2.
timed() { # COMMAND...
    local before=${EPOCHREALTIME/./} status=0
    "$@" >"$SANDBOX_DIR/out" || status=$?
    [ $status -eq 0 ] || [ $status -eq 2 ] || fail "$1 failed"
    echo $((${EPOCHREALTIME/./} - before))
}

median() { sort -n | sed -n "$(((rounds + 1) / 2))p"; }

missed=0
compare() { # NAME LIMIT
    local round
    for ((round = 0; round <= rounds; ++round)); do # the first only fills the caches
        [ $round -gt 1 ] || rm -f "$SANDBOX_DIR/plan" "$SANDBOX_DIR/find"
        timed "$program" plan "$package" "${site[@]}" >>"$SANDBOX_DIR/plan"
        timed find "$package" "$vhost" -printf '%y %m %s %p\n' >>"$SANDBOX_DIR/find"
    done
    awk -v name="$1" -v limit="$2" -v plan="$(median <"$SANDBOX_DIR/plan")" -v find="$(median <"$SANDBOX_DIR/find")" '
        BEGIN {
            ratio = plan / find
            verdict = limit == "" ? "-" : ratio <= limit ? "met" : "missed"
            printf "%-16s plan %.3f s, find %.3f s, ratio %.2f, at most %s: %s\n", name, plan / 1e6, find / 1e6,
                ratio, limit == "" ? "-" : limit, verdict
            exit verdict == "missed"
        }' || missed=1
}

empty_site() { rm -rf "$vhost" && mkdir -p "$vhost/docroot" && chown -R alice:oxacln "$vhost"; }

empty_site
compare "empty site" 1.5
"$SANDBOX_DIR/zendrel" --extract-application "--application-full-name=file:///$package" --metadata-file= "${site[@]}"
compare "equal files" ""
find "$vhost" -type f -exec sh -c 'for file; do echo >>"$file"; done' sh {} +
compare "other sizes" 1.5
exit $missed
