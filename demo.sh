#!/bin/bash
# Shows zendrel at work: see usage below. Everything happens in a sandbox; of the host itself only
# missing Debian packages are installed and build/demo is written.
set -euo pipefail
unset CDPATH
export LC_ALL=C
umask 022

usage="usage: ./demo.sh [PACKAGE_DIR]

Deploys the package in PACKAGE_DIR (a directory with an APP-META.xml; without one, the guestbook in
examples/packages) into a throw-away site, shows the result, and removes it again. Needs root and
Debian 12; installs the Debian packages that are missing, builds the program into build/demo and
works in tests/support/sandbox.sh, which leaves the host's accounts and sites alone."

debian_packages=(g++ cmake make libboost-filesystem-dev libboost-program-options-dev libxml2-dev
    tree util-linux mount)
own_page=kept-by-its-owner.html
own_text='A page that the owner of the site had before.'
max_lines=80

fail() { # MESSAGE
    echo "demo.sh: $1" >&2
    exit 1
}

heading() { # TEXT
    printf '\n== %s ==\n' "$1"
}

show() { # COMMAND, as text
    printf '\n    %s\n' "${1//$'\n'/$'\n    '}"
}

run() { # COMMAND, as text: what is shown is what is run
    show "$1"
    eval "$1" || fail "the command above ended with status $?"
}

# --- Outside the sandbox --------------------------------------------------------------------------

is_installed() { # DEBIAN_PACKAGE
    dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

quietly() { # LOG COMMAND [ARGUMENT...]
    local log=$1
    shift
    show "$*"
    "$@" >>"$log" 2>&1 || {
        tail -n 20 "$log" >&2
        fail "the command above failed; all it said is in $log"
    }
}

install_missing() {
    command -v dpkg-query >/dev/null ||
        fail "this is no Debian system; see \"Building by hand\" in README.md"
    local package missing=()
    for package in "${debian_packages[@]}"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    heading "Install what is missing"
    export DEBIAN_FRONTEND=noninteractive
    quietly build/demo/install.log apt-get update
    quietly build/demo/install.log apt-get install -y --no-install-recommends "${missing[@]}"
}

build() {
    heading "Build the program (up to a minute or two the first time)"
    # A directory of its own, so that the builds for the tests keep their settings.
    quietly build/demo/build.log cmake --preset release -B build/demo -DZENDREL_TESTS=OFF
    quietly build/demo/build.log cmake --build build/demo --parallel "$(nproc)"
}

prepare() { # [PACKAGE_DIR]
    if [ "${1-}" = -h ] || [ "${1-}" = --help ]; then
        echo "$usage"
        exit 0
    elif [ $# -gt 1 ] || [[ ${1-} == -* ]]; then
        echo "$usage" >&2
        exit 2
    fi
    [ "$(id -u)" -eq 0 ] || fail "must be run as root, for example with sudo"
    local package=examples/packages/guestbook
    if [ $# -eq 1 ]; then
        [ -d "$1" ] || fail "$1 is no directory; a package has to be unpacked first"
        package=$(realpath -- "$1")
    fi
    cd -- "$(dirname -- "$(realpath -- "$0")")"
    [ -f "$package/APP-META.xml" ] || fail "$package is not a package: it has no APP-META.xml"
    mkdir -p build/demo
    rm -f build/demo/*.log
    install_missing
    build
    # The sandbox hides a directory of the host. What lies in there stays within reach of whoever has
    # it open: this descriptor the package, the working directory everything else.
    exec 3<"$package"
    printf '\nFrom here on in tests/support/sandbox.sh: alice and her site exist only there.\n'
    exec tests/support/sandbox.sh ./demo.sh --inside "$package"
}

# --- Inside the sandbox ---------------------------------------------------------------------------

show_tree() { # DIR
    show "tree -pug $1"
    echo
    tree -pug -- "$1" | awk -v max="$max_lines" '
        NR <= max
        END { if (NR > max) print "... and " NR - max " more lines" }'
}

check_names() { # DIR
    if ! find "$1" -printf '%P\n' | iconv -f UTF-8 -t UTF-8 >/dev/null 2>&1 ||
        find "$1" -printf '%P\0' | grep -qzP '\xEF\xBF[\xBE\xBF]|[\x01-\x08\x0b\x0c\x0e-\x1f]'; then
        fail "there are file names that no XML list can hold: not UTF-8, or with control characters"
    fi
}

check_removal() { # SITE
    local left
    left=$(find "$1" -mindepth 1 ! -path "$1/httpdocs" ! -path "$1/httpdocs/$own_page" | sort)
    [ -z "$left" ] || fail "this should be gone:"$'\n'"$left"
    [ "$(cat "$1/httpdocs/$own_page" 2>/dev/null)" = "$own_text" ] ||
        fail "the owner's page is missing or changed"
}

demonstrate() { # PACKAGE_DIR
    local site=$SANDBOX_DIR/example.com package=$SANDBOX_DIR/package list=$SANDBOX_DIR/list.xml
    local docroot=$site/httpdocs

    heading "A site of alice, with a page of her own"
    run "mkdir -p $docroot
echo '$own_text' >$docroot/$own_page
chown -R alice:oxacln $site"

    heading "The package, where alice may read it"
    run "mkdir $package"
    show "cp -R ${1@Q}/. $package"
    cp -R /proc/self/fd/3/. "$package" || fail "the package cannot be copied" # the same directory
    exec 3<&-
    run "chmod -R a+rX $package"

    heading "Deploy it"
    run "build/demo/zendrel --extract-application \\
    --application-full-name=file:///$package \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --user-name=alice \\
    --application-subdirectory=. \\
    --metadata-file="
    show_tree "$site"

    heading "List its files"
    check_names "$docroot"
    run "{
    echo '<?xml version=\"1.0\"?>'
    echo '<INSTANCE-DATA><SECTION PREFIX=\"htdocs\">'
    find $docroot -mindepth 1 ! -path $docroot/$own_page -printf '%P\\0' |
        sed -z 's/&/\\&amp;/g; s/</\\&lt;/g; s/>/\\&gt;/g; s/\\r/\\&#13;/g' |
        sed -z 's/^/<FILE>/; s/\$/<\\/FILE>/' | tr '\\0' '\\n'
    echo '</SECTION></INSTANCE-DATA>'
} >$list"
    show "head -n 8 $list"
    echo
    head -n 8 "$list"

    heading "Remove it"
    run "build/demo/zendrel --delete-application \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --user-name=alice \\
    --application-subdirectory=. <$list"
    show_tree "$site"
    check_removal "$site"
    printf '\nShown: %s was deployed into the site and removed again; only the page of its owner is left.\n' \
        "$(basename -- "$1")"
}

if [ "${1-}" = --inside ]; then
    demonstrate "$2"
else
    prepare "$@"
fi
