#!/bin/sh
# Runs a command on a host of its own: accounts, groups, /etc/oxa, an empty /var/lib and a place for
# virtual hosts that vanish with it. Used by the tests, the demonstration and the benchmarks.
#
#   sandbox.sh COMMAND [ARGUMENT...]
#
# The command finds SANDBOX_DIR, an empty directory that every user may search, and SANDBOX_MODE:
#   namespace  a private mount namespace; nothing of the host is changed.
#   container  the kernel refused that, so the accounts were added to this container itself and are
#              taken out again at the end.
#
# Accounts: site users alice and bob (primary group oxacln, bob also in editors), nogroup's carol with
# a group of her own, and www-data; groups oxacln, oxaserv, editors.
set -eu

if [ "$(id -u)" -ne 0 ]; then
    echo "$0: must be run as root" >&2
    exit 1
fi

add_accounts() { # ETC_DIR HOME
    # Accounts of the host by these names would come first.
    for file in passwd group; do
        grep -vE '^(alice|bob|carol|lost|oxacln|oxaserv|editors):' "$1/$file" >"$1/$file.sandbox" || true
        cat "$1/$file.sandbox" >"$1/$file"
        rm "$1/$file.sandbox"
    done
    grep -q '^www-data:' "$1/passwd" || echo 'www-data:x:33:33::/var/www:/usr/sbin/nologin' >>"$1/passwd"
    grep -q '^www-data:' "$1/group" || echo 'www-data:x:33:' >>"$1/group"
    cat >>"$1/passwd" <<END
alice:x:28001:28010::$2:/bin/sh
bob:x:28002:28010::$2:/bin/sh
carol:x:28003:28013::$2:/bin/sh
lost:x:28004:28010::$2/missing:/bin/sh
END
    cat >>"$1/group" <<END
oxacln:x:28010:
oxaserv:x:28011:www-data
editors:x:28012:bob
carol:x:28013:
END
    mkdir -p "$1/oxa"
}

if [ "${1-}" = --inside ]; then
    # Mounts hide what lies below them, so they go where nothing else can be.
    base=$2
    shift 2
    mount -t tmpfs -o mode=0755 tmpfs "$base"
    cp -a /etc "$base/etc"
    mkdir "$base/sandbox" "$base/lib"
    add_accounts "$base/etc" "$base/sandbox"
    mount --bind "$base/etc" /etc
    mount --bind "$base/lib" /var/lib # where zendrelctl keeps its records
    SANDBOX_MODE=namespace SANDBOX_DIR=$base/sandbox exec "$@"
fi
if [ $# -eq 0 ]; then
    echo "usage: $0 COMMAND [ARGUMENT...]" >&2
    exit 2
fi

[ -e /proc/self/fd/0 ] || exec </dev/null # or the first file that a test opens is its standard input
unset TMPDIR # its name may need quoting, where what runs inside has paths in commands and settings
base=$(mktemp -d /tmp/sandbox.XXXXXX)
trap 'rmdir "$base"' EXIT
trap 'exit 130' INT TERM HUP
# shellcheck disable=SC2016 # expanded inside
if unshare --mount sh -c 'mount -t tmpfs tmpfs "$1" && mount --bind "$1" /etc' sh "$base" 2>/dev/null; then
    status=0
    unshare --mount "$0" --inside "$base" "$@" || status=$?
    exit "$status"
fi

echo "sandbox: no private mount namespace here; using throw-away accounts of this container" >&2
saved=$(mktemp -d /tmp/sandbox.XXXXXX)
cp -p /etc/passwd /etc/group "$saved"
had_oxa=$([ -d /etc/oxa ] && echo yes || echo no)
had_records=$([ -d /var/lib/zendrel ] && echo yes || echo no)
put_back() {
    cat "$saved/passwd" >/etc/passwd
    cat "$saved/group" >/etc/group
    [ "$had_oxa" = yes ] || rm -rf /etc/oxa
    [ "$had_records" = yes ] || rm -rf /var/lib/zendrel
    rm -rf "$saved" "$base"
}
trap put_back EXIT
chmod 0755 "$base"
add_accounts /etc "$base"
SANDBOX_MODE=container SANDBOX_DIR=$base "$@"
