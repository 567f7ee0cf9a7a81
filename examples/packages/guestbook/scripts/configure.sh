#!/bin/sh
# Configuration script of the guestbook as a program; see README for the actions.
set -Ceu # C: never write into a file that is there

action=${1-}
dir=
force=

quit() { # STATUS TEXT
    echo "configure: $action: $2" >&2
    exit "$1"
}

usage() {
    echo "usage: configure configure|disable|enable|install|query|remove|upgrade" \
        "[--data=DIR] [--force]" >&2
    exit 2
}

# Empty if there is no data file. A file that can't be read may well have entries, so that is an
# error and never taken for an empty one.
count() {
    if [ -z "$dir" ]; then
        return
    elif [ -r "$file" ]; then
        grep -v '^#' "$file" | grep -c '[^[:space:]]' || true
    elif [ -e "$file" ] || { [ -d "$dir" ] && ! [ -x "$dir" ]; }; then
        quit 1 "cannot read $file"
    fi
}

prepare() {
    if [ -z "$dir" ]; then
        echo "$action: no data directory given, nothing prepared"
    elif [ -e "$file" ]; then
        echo "$action: kept $file"
    else
        # Visitors write as the web server: whoever may write the directory may write the file.
        bits=$(LC_ALL=C ls -ld -- "$dir" 2>/dev/null) || quit 1 "cannot use $dir"
        group=$(echo "$bits" | cut -c 5-6 | tr -d -)
        others=$(echo "$bits" | cut -c 8-9 | tr -d -)
        umask "u=rw,g=$group,o=$others"
        header='# Guestbook entries, one per line: time, name and message, separated by tabs.'
        echo "$header" 2>/dev/null >"$file" || quit 1 "cannot create $file"
        echo "$action: created $file"
    fi
}

discard() {
    entries=$(count)
    if [ -z "$entries" ]; then
        echo 'remove: no data to remove'
    elif [ "$entries" -gt 0 ] && [ -z "$force" ]; then
        quit 3 "$file has entries ($entries); use --force to lose them"
    else
        rm -f -- "$file" 2>/dev/null || quit 1 "cannot remove $file"
        echo "remove: removed $file"
    fi
}

query() {
    entries=$(count)
    echo "query: ${entries:+entries in $file: }${entries:-no data}"
}

[ $# -gt 0 ] || usage
shift
for word in "$@"; do
    case $word in
        --data=?*) dir=${word#--data=} ;;
        --force) force=yes ;;
        *) usage ;;
    esac
done
file=$dir/entries.txt

case $action in
    install | upgrade) prepare ;;
    remove) discard ;;
    query) query ;;
    configure) echo 'configure: there are no settings' ;;
    enable | disable) echo "$action: nothing to do" ;;
    *) usage ;;
esac
