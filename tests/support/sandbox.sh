#!/bin/sh
# Runs a command on a host of its own: accounts, groups, /etc/oxa and a place for virtual hosts that
# vanish with it. Used by the tests, the demonstration and the benchmarks.
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

case "${1-}" in
--inside)
    shift
    mount -t tmpfs -o mode=0755 tmpfs /media
    cp -a /etc /media/etc
    mkdir /media/sandbox
    add_accounts /media/etc /media/sandbox
    mount --bind /media/etc /etc
    SANDBOX_MODE=namespace SANDBOX_DIR=/media/sandbox exec "$@"
    ;;
"")
    echo "usage: $0 COMMAND [ARGUMENT...]" >&2
    exit 2
    ;;
esac

if unshare --mount sh -c 'mount -t tmpfs tmpfs /media && mount --bind /media /etc' 2>/dev/null; then
    exec unshare --mount "$0" --inside "$@"
fi

echo "sandbox: no private mount namespace here; using throw-away accounts of this container" >&2
saved=$(mktemp -d)
cp -p /etc/passwd /etc/group "$saved"
had_oxa=$([ -d /etc/oxa ] && echo yes || echo no)
put_back() {
    cat "$saved/passwd" >/etc/passwd
    cat "$saved/group" >/etc/group
    [ "$had_oxa" = yes ] || rm -rf /etc/oxa
    rm -rf "$saved" "${SANDBOX_DIR-}"
}
trap put_back EXIT
trap 'exit 130' INT TERM HUP
SANDBOX_DIR=$(mktemp -d /var/tmp/sandbox.XXXXXX)
chmod 0755 "$SANDBOX_DIR"
add_accounts /etc "$SANDBOX_DIR"
export SANDBOX_DIR
SANDBOX_MODE=container "$@"
