#!/bin/sh
# Installs what is missing, builds the program twice (hardened release; with sanitizers), checks form
# and runs all tests in both builds. Needs root. Ends with the test runner's closing lines.
#
#   test.sh [--fuzz | --browser | --fleet]
#
#   --fuzz     instead, look for inputs that break what reads foreign data, a minute for each reader.
#   --browser  instead, visit the demonstration's site in Chromium.
#   --fleet    instead, look the Ansible collection over, and drive five hosts by it, which are namespaces here.
set -eu
cd "$(dirname "$0")"

say() { printf '\n== %s\n' "$*"; }

case "$# $*" in
    '0 ' | '1 --fuzz' | '1 --browser' | '1 --fleet') ;;
    *)
        echo "usage: ./test.sh [--fuzz | --browser | --fleet]" >&2
        exit 2
        ;;
esac
if [ "$(id -u)" -ne 0 ]; then
    echo "test.sh: must be run as root: the tests switch between users" >&2
    exit 1
fi

packages="g++ cmake make pkg-config clang-format clang-tidy shellcheck strace
    libboost-filesystem-dev libboost-program-options-dev libxml2-dev nlohmann-json3-dev libssl-dev libgtest-dev
    apache2-bin libapache2-mod-php php-fpm php-cli perl curl mandoc bash-completion zsh"
case "$*" in
    --fuzz) packages="cmake make clang libclang-rt-14-dev
        libboost-filesystem-dev libboost-program-options-dev libxml2-dev nlohmann-json3-dev libssl-dev" ;;
    --browser) packages="chromium chromium-driver perl procps" ;; # the demonstration installs its own
    # Services are installed on the hosts, lest they start here.
    --fleet) packages="ansible-core ansible-lint python3-voluptuous pycodestyle openssh-client iproute2 curl" ;;
esac
missing=
for package in $packages; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
done
if [ -n "$missing" ]; then
    say "Installing$missing"
    apt-get update -qq
    # shellcheck disable=SC2086 # a list of words
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi

case "$*" in
    --fuzz)
        say "Fuzzing"
        exec fuzz/run.sh
        ;;
    --browser)
        say "A visit with Chromium"
        exec tests/browser_test.pl
        ;;
    --fleet)
        unshare --net true 2>/dev/null || {
            echo "test.sh: the kernel allows no namespaces here, so no hosts can be made" >&2
            exit 1
        }
        say "The collection's form"
        timeout 10m unshare --net ansible/tests/form.sh
        say "The package that the hosts get"
        ./package.sh
        exec ansible/tests/fleet.sh
        ;;
esac
if [ ! -d build/apache2 ]; then
    say "Fetching what a fresh host has of Apache"
    tests/support/fetch_apache.sh || say "That failed: the commands in the guides will not be run"
fi

jobs=$(nproc)
sources=$(find app common clib ctl sys tests examples bench fuzz -name '*.cpp' -o -name '*.h' 2>/dev/null | sort)

say "Form: clang-format, shellcheck"
# shellcheck disable=SC2086
clang-format --dry-run --Werror $sources
find . -path ./build -prune -o -name '*.sh' -print | sort |
    xargs shellcheck .ci/run .ci/matrix share/completion/zendrel.bash debian/zendrel.post* debian/tests/guestbook debian/tests/library

for preset in release asan; do
    say "Building $preset"
    cmake --preset "$preset" -DZENDREL_WERROR=ON >/dev/null
    cmake --build --preset "$preset" -j "$jobs" -- --no-print-directory -s
done

say "Form: clang-tidy"
find app common clib ctl sys -name '*.cpp' 2>/dev/null | sort |
    xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/release 2>/dev/null

status=0
for preset in release asan; do
    say "Tests in the $preset build"
    ctest --preset "$preset" || status=1
done
exit "$status"
