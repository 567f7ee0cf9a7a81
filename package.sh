#!/bin/bash
# Builds the Debian packages of what is committed here, or of the whole directory where it is no
# checkout, and tries them: see usage below.
set -euo pipefail
unset CDPATH TMPDIR
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
umask 022

usage="usage: ./package.sh [--trial [RELEASE...]]

Builds the Debian packages in an empty directory, has lintian look them over, and puts them into
build/packages. Needs root; installs the Debian packages that are missing.

With --trial it does so in a new Debian of each RELEASE (bookworm and trixie), and tries the packages in
another one: installed, at work, removed, purged. These live in a directory below /tmp, and come from
where the host's own packages do; of the host itself only the package debootstrap is installed."

releases=(bookworm trixie)

fail() { # MESSAGE
    echo "package.sh: $1" >&2
    exit 1
}

say() { # TEXT
    printf '\n== %s\n' "$1"
}

quietly() { # COMMAND [ARGUMENT...]: what it says is shown only when it fails
    "$@" >"$work/log" 2>&1 </dev/null || {
        tail -n 40 "$work/log" >&2
        fail "this failed: $*"
    }
}

install_packages() { # COMMAND OF APT-GET, ARGUMENT...
    quietly apt-get update
    quietly apt-get -o DPkg::Lock::Timeout=300 "$1" -y --no-install-recommends "${@:2}"
}

install_missing() { # PACKAGE...
    local package missing=()
    for package; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] || install_packages install "${missing[@]}"
}

copy_sources() { # DIR
    mkdir -p "$1"
    if [ -e .git ]; then
        [ -z "$(git status --porcelain)" ] || echo "What is not committed is not in the packages."
        git archive HEAD | tar -x -C "$1"
    else
        tar -c --exclude=./build . | tar -x -C "$1"
    fi
}

build() {
    say "Install what is missing"
    install_missing build-essential lintian
    copy_sources "$work/zendrel"
    (cd "$work/zendrel" && dpkg-checkbuilddeps 2>/dev/null) || install_packages build-dep "$work/zendrel"

    say "Build the packages"
    (cd "$work/zendrel" && quietly dpkg-buildpackage -us -uc -b)

    say "Look them over"
    lintian --allow-root --pedantic --fail-on error,warning "$work"/*.changes
    rm -rf build/packages
    mkdir -p build/packages
    mv "$work"/*.{deb,buildinfo,changes} build/packages
    realpath build/packages/*.deb
}

# --- The trial ------------------------------------------------------------------------------------

in_tree() { # TREE COMMAND [ARGUMENT...]
    PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$work/$1" "${@:2}"
}

apt_in_tree() { # TREE ARGUMENT...
    quietly in_tree "$1" apt-get -y --no-install-recommends "${@:2}"
}

make_trees() { # RELEASE
    local mirror tree
    # shellcheck disable=SC2016 # apt-get's own form
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' \
        'Label: Debian' 'Component: main' | head -n 1)
    [ -n "$mirror" ] || fail "no source of Debian packages is configured here; apt-get update may help"
    quietly debootstrap --variant=minbase "$1" "$work/build" "$mirror"
    cp -a "$work/build" "$work/trial"
    for tree in build trial; do
        mount -t proc proc "$work/$tree/proc"
        copy_sources "$work/$tree/src"
    done
}

# Every file with its kind, mode and owner, and every account. Left out are what is not the system's
# (the sources), the package manager's cache and logs, and copies that are kept of lists of accounts.
system_state() {
    in_tree trial find / -xdev \( -path /proc -o -path /tmp -o -path /src -o -path /var/cache/apt -o \
        -path /var/lib/apt -o -path /var/log \) -prune -o -printf '%p %y %M %u %g %l\n' |
        grep -vE '^/(etc/(passwd|group|shadow|gshadow|subuid|subgid)-|var/(lib/dpkg|cache/debconf)/[a-z-]*-old) ' | sort
    in_tree trial getent passwd
    in_tree trial getent group
}

expect_state() { # FILE WHEN
    system_state >"$work/now"
    diff "$1" "$work/now" || fail "the system is another one after $2"
}

# shellcheck disable=SC2016 # expanded in the tree
try_out() {
    local packages=("$work"/trial/src/build/packages/{zendrel,libzendrel-dev}_*.deb) package
    for package in "${packages[@]}"; do
        apt_in_tree trial satisfy "$(dpkg-deb -f "$package" Depends)"
    done
    packages=("${packages[@]#"$work/trial"}")
    system_state >"$work/before"

    say "Install, do what the README does, remove, purge"
    apt_in_tree trial install "${packages[@]}"
    in_tree trial sh -ec 'cd /src && debian/tests/guestbook' || fail "the guestbook was not deployed"
    apt_in_tree trial remove zendrel libzendrel-dev
    apt_in_tree trial purge zendrel
    expect_state "$work/before" "a purge"

    say "What the administrator has made stays"
    apt_in_tree trial install "${packages[@]}"
    in_tree trial sh -ec 'site=/var/www/vhosts/example.com
        useradd --no-create-home --home-dir / --gid oxacln alice
        install -d -o alice -g oxacln $site/httpdocs
        zendrelctl deploy /src/examples/packages/guestbook --vhost-path=$site --www-root=$site/httpdocs \
            --user-name=alice --application-subdirectory=guestbook'
    apt_in_tree trial purge zendrel
    in_tree trial sh -ec 'test ! -e /etc/oxa && test -f /var/www/vhosts/example.com/httpdocs/guestbook/index.html
        test $(stat -c %G /var/www/vhosts/example.com/httpdocs/guestbook) = oxacln'
    apt_in_tree trial install "${packages[@]}"
    in_tree trial zendrelctl verify || fail "the instance is not what it was before the purge"
    in_tree trial sh -ec 'zendrelctl remove --instance=example.com-guestbook
        rm -r /var/www/vhosts/example.com && userdel alice'
    apt_in_tree trial purge zendrel libzendrel-dev
    expect_state "$work/before" "a second purge"
}

# Runs in namespaces of its own: what is mounted and what is started ends with it.
trial() { # RELEASE
    say "A new Debian $1, twice"
    make_trees "$1"
    in_tree build /src/package.sh
    cp -r "$work/build/src/build" "$work/trial/src"

    say "The libraries' example"
    apt_in_tree build install pkg-config "$(in_tree build sh -c 'echo /src/build/packages/libzendrel-dev_*.deb')"
    in_tree build sh -ec 'cd /src && debian/tests/library' || fail "the example was not built"
    try_out
    say "Debian $1: passed"
}

start_trial() { # RELEASE
    install_missing debootstrap
    unshare --mount --pid --fork --kill-child ./package.sh --trial-inside "$work" "$1"
}

cd -- "$(dirname -- "$(realpath -- "$0")")"
case ${1-} in
    '' | --trial | --trial-inside) ;;
    -h | --help) echo "$usage" && exit 0 ;;
    *) echo "$usage" >&2 && exit 2 ;;
esac
[ "$(id -u)" -eq 0 ] || fail "must be run as root, for example with sudo"
if [ "${1-}" = --trial-inside ]; then
    work=$2
    trial "$3"
    exit
fi
work=$(mktemp -d /tmp/zendrel-packages.XXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT
trap 'exit 130' INT TERM HUP
if [ $# -eq 0 ]; then
    build
    exit
fi
shift
[ $# -eq 0 ] || releases=("$@")
for release in "${releases[@]}"; do
    start_trial "$release"
    rm -rf --one-file-system "${work:?}"/*
done
