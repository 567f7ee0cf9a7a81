#!/bin/bash
# Measures extraction and removal against the usual tools, on package trees made for it, and the start
# of programs by the process library.
#
#   bench/run.sh [--quick] [--write]
#
#   --quick  only 1,000 and 10,000 files, fewer rounds, no starts of programs, no delays.
#   --write  also put the results into docs/performance.md and docs/performance.svg.
#
# Runs as root and installs the Debian packages it misses. ZENDREL=PROGRAM measures another build
# than the release here. Ends with 1 when a target is missed.
set -euo pipefail
export LC_ALL=C PATH="$PATH:/usr/sbin:/sbin"
bench=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=${bench%/*}
program=${ZENDREL:-$root/build/release/zendrel}

say() { echo "bench: $*" >&2; }
fail() { say "$@" && exit 1; }

# --- Before the sandbox ---------------------------------------------------------------------------

install_missing() {
    local tools=(rsync:rsync strace:strace mkfs.ext4:e2fsprogs /usr/bin/time:time losetup:mount)
    local packages=() tool
    if [ -z "${ZENDREL-}" ]; then
        tools+=(cmake:cmake make:make c++:g++)
        [ -x "$program" ] || packages=(libboost-{filesystem,program-options}-dev libxml2-dev)
    fi
    for tool in "${tools[@]}"; do
        command -v "${tool%%:*}" >/dev/null || packages+=("${tool#*:}")
    done
    [ ${#packages[@]} -eq 0 ] || { apt-get update && apt-get install -y "${packages[@]}"; } >/dev/null \
        || fail "could not install ${packages[*]}"
}

build() { (cd "$root" && cmake --preset release && cmake --build --preset release --target zendrel spawn zendrel_workers_{1,2,4,8}); }

if [ "${1-}" != --inside ]; then
    [[ " $* " =~ ^(\ (--quick|--write))*\ +$ ]] || fail "usage: $0 [--quick] [--write]"
    [ "$(id -u)" -eq 0 ] || fail "must be run as root"
    install_missing
    [ -n "${ZENDREL-}" ] || build >/dev/null || fail "the release build failed"
    exec "$root/tests/support/sandbox.sh" "${BASH_SOURCE[0]}" --inside "$@"
fi
shift

# --- Where it is measured -------------------------------------------------------------------------

results=$SANDBOX_DIR/results
disk=$SANDBOX_DIR/disk
memory=$SANDBOX_DIR/memory
mkdir "$disk" "$memory"
cp "$program" "$SANDBOX_DIR/zendrel" # a build may go on meanwhile
program=$SANDBOX_DIR/zendrel
counts=()
if [ -z "${ZENDREL-}" ]; then
    counts=(1 2 4 8)
    cp "$root"/build/release/zendrel_workers_? "$SANDBOX_DIR"
fi
trap 'umount "$disk" "$memory" 2>/dev/null || true' EXIT

# The image has no name once it is mounted, so that it goes with the mount, however this ends.
mount_image() {
    local image status=0
    image=$(mktemp "${TMPDIR:-/var/tmp}/bench.XXXXXX")
    { truncate -s 5G "$image" && mkfs.ext4 -q -E lazy_itable_init=0,lazy_journal_init=0 "$image" \
        && mount -o loop "$image" "$disk"; } 2>/dev/null || status=1
    rm "$image"
    return $status
}

if mount_image; then
    fs=ext4 disk_is='ext4, a fresh image mounted by loop'
elif mount -t tmpfs -o size=5g tmpfs "$disk" 2>/dev/null; then
    fs=tmpfs disk_is='tmpfs, as loop mounts are refused'
else
    fs=$(stat -f -c %T "$disk") disk_is="$fs of the host, as mounts are refused"
fi
places=("$fs $disk")
if [ "$fs" != tmpfs ] && mount -t tmpfs -o size=2g tmpfs "$memory" 2>/dev/null; then
    places+=("tmpfs $memory")
fi
say "measuring on $disk_is"

# --- What is measured -----------------------------------------------------------------------------

record() { (IFS=$'\t' && echo "$*" >>"$results"); } # KIND TOOL FILE_SYSTEM SIZE VALUE

content_of() { # DIRECTORY: the number of entries and of bytes in files
    find "$1" -mindepth 1 -printf '%y %s\n' \
        | awk '$1 == "f" { bytes += $2 } END { printf "%d %.0f\n", NR, bytes }'
}

make_package() { # PLACE SIZE
    rm -rf "$1/package"
    "$bench/make_tree.pl" "$1/package" "$2"
    content=$(content_of "$1/package/htdocs")
    find "$1/package" -type f -exec cat {} + >/dev/null # into the page cache
    {
        echo '<?xml version="1.0"?><INSTANCE-DATA><SECTION PREFIX="htdocs">'
        find "$1/package/htdocs" -mindepth 1 -printf '<FILE>%P</FILE>\n'
        echo '</SECTION></INSTANCE-DATA>'
    } >"$1/list.xml"
}

# Sets `command` to the tool's, and `user` to the one who has to start it.
prepare_command() { # TOOL PLACE
    local docroot=$2/vhost/docroot chosen=$program
    [[ $1 != */* ]] || chosen=$SANDBOX_DIR/zendrel_workers_${1#*/}
    local options=("--vhost-path=$2/vhost" --user-name=alice --application-subdirectory=.
        "--www-root=$docroot")
    user=alice
    case $1 in
    extract*) user=root command=("$chosen" --extract-application --metadata-file= "${options[@]}"
        "--application-full-name=file:///$2/package") ;;
    delete*) user=root command=("$chosen" --delete-application "${options[@]}") ;;
    'cp -r') command=(cp -r "$2/package/htdocs/." "$docroot") ;;
    'rsync -a') command=(rsync -a "$2/package/htdocs/" "$docroot") ;;
    'rm -rf') command=(rm -rf "$docroot") ;;
    esac
}

# Runs a tool under a wrapper and leaves in `output` what the wrapper printed on standard error. It
# finds an empty document root, or one to empty that was filled in the same way for all.
run() { # TOOL PLACE WRAPPER...
    local tool=$1 place=$2 vhost=$2/vhost
    shift 2
    rm -rf "$vhost"
    mkdir -p "$vhost/docroot"
    chown -R alice:oxacln "$vhost"
    if [[ $tool = delete* || $tool = rm* ]]; then
        prepare_command extract "$place"
        "${command[@]}" || fail "extract failed"
    fi
    prepare_command "$tool" "$place"
    sync
    output=$(setpriv --reuid="$user" --regid="$(id -g "$user")" --init-groups \
        "$@" "${command[@]}" 2>&1 >/dev/null <"$place/list.xml") \
        || fail "$tool failed: $output"
    case $tool in
    delete* | rm*) [ -z "$(ls -A "$vhost/docroot" 2>/dev/null)" ] || fail "$tool left files" ;;
    *) [ "$(content_of "$vhost/docroot")" = "$content" ] || fail "$tool made an incomplete copy" ;;
    esac
}

tools=(extract 'cp -r' 'rsync -a' delete 'rm -rf')

measure_once() { # SIZE
    local tool
    record entries package "$fs" "$1" "${content% *}"
    run extract "$disk" /usr/bin/time -f %M
    record peak extract "$fs" "$1" "$output"
    diff -r "$disk/package/htdocs" "$disk/vhost/docroot" || fail "extract made another tree"
    run delete "$disk" /usr/bin/time -f %M
    record peak delete "$fs" "$1" "$output"
    [ "$1" = 10000 ] || return 0
    for tool in "${tools[@]}"; do
        run "$tool" "$disk" strace -c -f
        record calls "$tool" "$fs" "$1" "$(awk '$NF == "total" { print $4 }' <<<"$output")"
    done
}

# The clock is read next to the command, so that becoming its user does not count.
# shellcheck disable=SC2016
stopwatch='TIMEFORMAT="%U %S"; start=${EPOCHREALTIME/./}; time "$@" || exit
    echo $((${EPOCHREALTIME/./} - start)) >&2'

record_run() { # TOOL FILE_SYSTEM PLACE SIZE WRAPPER...
    local tool=$1 name=$2 place=$3 size=$4
    shift 4
    run "$tool" "$place" bash -c "$stopwatch" stopwatch "$@"
    record time "$tool" "$name" "$size" "${output##*$'\n'}"
    record cpu "$tool" "$name" "$size" "$(awk 'NR == 1 { printf "%.0f", ($1 + $2) * 1e6 }' <<<"$output")"
}

# Where every call waits, as on a network. The tracer lets the threads wait at the same time.
measure_delayed() { # SIZE
    local tool calls=%file,%desc
    make_package "${places[-1]#* }" "$1"
    for tool in extract 'cp -r'; do
        say "$1 files with delays, $tool"
        record_run "$tool" delayed "${places[-1]#* }" "$1" \
            strace -fqqo /dev/null -e "trace=$calls" -e "inject=$calls:delay_enter=500"
    done
}

measure_rounds() { # SIZE ROUNDS
    local round place tool by_count=()
    [ "$1" != 10000 ] || by_count=("${counts[@]/#/extract/}" "${counts[@]/#/delete/}")
    for place in "${places[@]}"; do # one after the other, or each would have to fetch the other's memory
        [[ $1 != large || $place = "${places[0]}" ]] || continue
        for ((round = 1; round <= $2; ++round)); do
            say "$1 files on ${place% *}, round $round of $2"
            for tool in "${tools[@]}" ${by_count:+"${by_count[@]}"}; do
                record_run "$tool" "${place% *}" "${place#* }" "$1"
            done
            rm -rf "${place#* }/vhost"
            tools=("${tools[@]:1}" "${tools[0]}") # nobody always goes first
        done
    done
}

record info Command "\`${ZENDREL:+ZENDREL=... }bench/run.sh${*:+ $*}\`"
record info Processor "$(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1), $(nproc) cores"
record info Memory "$(awk '/^MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)"
record info Kernel "Linux $(uname -r | sed 's/[^0-9.].*//')"
record info 'File system' "$disk_is"
record info 'Load before' "$(cut -d ' ' -f 1 /proc/loadavg)"
# Short runs need more of them, and so do large files, which depend on the state of the memory.
runs=('25 25' '1000 25' '10000 9' '10000-deep 9' '100000 7' 'large 9')
[[ $* != *--quick* ]] || runs=('1000 11' '10000 5')
if [[ $* != *--quick* && -x $root/build/release/spawn ]]; then
    say "starting programs"
    "$root/build/release/spawn" >>"$results"
fi
for size_rounds in "${runs[@]}"; do
    read -r size rounds <<<"$size_rounds"
    for place in "${places[@]}"; do
        [[ $size = large && $place != "${places[0]}" ]] || make_package "${place#* }" "$size"
    done
    measure_once "$size"
    measure_rounds "$size" "$rounds"
done
[[ $* = *--quick* ]] || measure_delayed 10000
documents=()
[[ $* != *--write* ]] || documents=("$root/docs/performance.md" "$root/docs/performance.svg")
"$bench/report.pl" "$results" "${documents[@]}"
