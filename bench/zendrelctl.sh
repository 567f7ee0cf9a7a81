#!/bin/bash
# Measures zendrelctl against the tools that do the least of the same.
#
#   bench/zendrelctl.sh
#
#   plan     against find over package and site: 100,000 files, the site empty, with all of them in
#            other sizes, and with all of them equal, so that plan reads them (find reads none)
#   verify   against sha256sum with as many processes as there are processors: 10,000 files
#   upgrade  against one extraction: 10,000 files, in memory and on disk; of what is installed, unchanged, and,
#            without a limit, of a release that only calls itself a newer one and is put in its place
#
# Runs as root. Medians of 7 rounds, in which the two take turns. Ends with 1 when a limit is missed.
# shellcheck disable=SC2317 # what is compared is called by its name
set -euo pipefail
export LC_ALL=C PATH="$PATH:/usr/sbin:/sbin"
bench=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=${bench%/*}

fail() { echo "bench: $*" >&2 && exit 1; }

if [ "${1-}" != --inside ]; then
    [ $# -eq 0 ] || fail "usage: $0"
    [ "$(id -u)" -eq 0 ] || fail "must be run as root"
    (cd "$root" && cmake --preset release && cmake --build --preset release --target zendrelctl) >/dev/null \
        || fail "the release build failed"
    exec "$root/tests/support/sandbox.sh" "${BASH_SOURCE[0]}" --inside
fi

rounds=7
ctl=$SANDBOX_DIR/zendrelctl
zendrel=$SANDBOX_DIR/zendrel
cp "$root/build/release/zendrelctl" "$root/build/release/zendrel" "$SANDBOX_DIR"
disk=$(mktemp -d "${TMPDIR:-/var/tmp}/bench.XXXXXX")
trap 'rm -rf "$disk"' EXIT
chmod 755 "$disk"
missed=0
release=1

# Prints microseconds. With differences found, plan ends with 2.
timed() { # COMMAND...
    local before=${EPOCHREALTIME/./} status=0
    "$@" >"$SANDBOX_DIR/out" || status=$?
    [ "$status" -eq 0 ] || [ "$status" -eq 2 ] || fail "$1 failed"
    echo $((${EPOCHREALTIME/./} - before))
}

median() { sort -n "$1" | sed -n "$(((rounds + 1) / 2))p"; }

compare() { # NAME LIMIT OURS THEIRS: the last two are functions
    local round
    for ((round = 0; round <= rounds; ++round)); do # the first only fills the caches
        [ $round -gt 1 ] || rm -f "$SANDBOX_DIR/ours" "$SANDBOX_DIR/theirs"
        "$3" >>"$SANDBOX_DIR/ours"
        "$4" >>"$SANDBOX_DIR/theirs"
    done
    awk -v name="$1" -v limit="$2" -v ours="$(median "$SANDBOX_DIR/ours")" -v theirs="$(median "$SANDBOX_DIR/theirs")" '
        BEGIN {
            ratio = ours / theirs
            verdict = limit == "" ? "-" : ratio <= limit ? "met" : "missed"
            printf "%-24s %.3f s against %.3f s, ratio %.2f, at most %s: %s\n", name, ours / 1e6, theirs / 1e6,
                ratio, limit == "" ? "-" : limit, verdict
            exit verdict == "missed"
        }' || missed=1
}

# Makes package and site, and sets the words that name them.
set_up() { # PLACE FILES
    rm -rf "$SANDBOX_DIR/package" "$SANDBOX_DIR/vhost" "$disk/package" "$disk/vhost"
    package=$1/package vhost=$1/vhost
    mkdir -p "$vhost/docroot"
    "$bench/make_tree.pl" "$package" "$2"
    chown -R alice:oxacln "$vhost"
    site=("--vhost-path=$vhost" "--www-root=$vhost/docroot" --user-name=alice)
}

extract() { # SUBDIRECTORY
    "$zendrel" --extract-application "--application-full-name=file:///$package" --metadata-file= "${site[@]}" \
        "--application-subdirectory=$1"
}

plan() { timed "$ctl" plan "$package" "${site[@]}" --application-subdirectory=.; }
find_all() { timed find "$package" "$vhost" -printf '%y %m %s %p\n'; }
verify() { timed "$ctl" verify; }
sum_all() { timed sh -c "cd $vhost/docroot/app; find . -type f -print0 | xargs -0 -n 1000 -P $(nproc) sha256sum"; }
upgrade() { timed "$ctl" upgrade "$package" --instance=app; }
upgrade_on() {
    sed -i "s:<release>[0-9]*:<release>$((++release)):" "$package/APP-META.xml"
    upgrade
}
extract_anew() {
    rm -rf "$vhost/docroot/other"
    timed extract other
}

set_up "$SANDBOX_DIR" 100000
compare "plan, empty site" 1.5 plan find_all
extract .
compare "plan, equal files" "" plan find_all
find "$vhost" -type f -exec sh -c 'for file; do echo >>"$file"; done' sh {} +
compare "plan, other sizes" 1.5 plan find_all
for place in "$SANDBOX_DIR" "$disk"; do
    where=$([ "$place" = "$disk" ] && echo disk || echo memory)
    set_up "$place" 10000
    "$ctl" deploy "$package" "${site[@]}" --application-subdirectory=app --instance=app >/dev/null
    compare "verify, $where" 1.3 verify sum_all
    compare "upgrade, same, $where" 1.5 upgrade extract_anew
    compare "upgrade, newer, $where" "" upgrade_on extract_anew
    "$ctl" remove --instance=app >/dev/null
done
exit $missed
