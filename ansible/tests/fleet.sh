#!/usr/bin/env bash
# Drives five hosts of this machine by the collection: makes them ready, deploys, upgrades in batches of which
# one host fails, goes back, and removes. Needs root and the Debian package in build/packages; what it needs
# else, test.sh installs.
#
#   fleet.sh [--measure]
#
#   --measure  instead, print what nothing to do, a deployment and an upgrade take.
#
# A host has namespaces of its own for network, mounts, processes and name, and in them this machine's files with
# a layer over them that is in memory: what is changed there is changed nowhere else. The hosts and what drives
# them share a network that nothing else is in. All of it belongs to one process, and ends with it, however this
# program ends.
set -euo pipefail
unset CDPATH TMPDIR PYTHONPATH
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
PATH=/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin
cd -- "$(dirname -- "$(realpath -- "$0")")/../.."

count=5
say() { printf '\n== %s\n' "$*"; }
fail() { # TEXT
    echo "fleet: $*" >&2
    exit 1
}

# --- Outside --------------------------------------------------------------------------------------

outside() { # SCRIPT MINUTES
    local inner='' status=0
    [ "$(id -u)" -eq 0 ] || fail "must be run as root"
    unshare --mount --pid --fork --uts --net ip link add fleet type bridge 2>/dev/null ||
        fail "the kernel allows no namespaces, or no bridge in them: no hosts can be made here"
    base=$(mktemp -d /tmp/zendrel-fleet.XXXXXX)
    # shellcheck disable=SC2064 # now
    trap "[ -z \"\$inner\" ] || kill -KILL \$inner; wait; rmdir '$base'" EXIT
    trap 'exit 130' INT TERM HUP
    # Each of them is killed when the one before it ends, by a signal that nobody ignores.
    setpriv --pdeathsig KILL timeout --signal KILL "$2m" \
        setpriv --pdeathsig KILL unshare --mount --pid --fork --kill-child --mount-proc \
        "$0" --image "$1" "$base" </dev/null &
    inner=$!
    wait "$inner" || status=$?
    inner=
    [ "$status" -ne 137 ] || echo "fleet: not done after $2 minutes, or killed" >&2
    exit "$status"
}

# --- What all hosts have, which wants this machine's network --------------------------------------

in_image() { # COMMAND OF APT-GET [ARGUMENT...]
    chroot "$base/image/root" apt-get -y -qq --no-install-recommends "$@" >"$base/log" 2>&1
}

make_image() {
    local root=$base/image/root needed
    mount -t tmpfs -o mode=0755,size=80% tmpfs "$base"
    mkdir -p "$base"/{home,image/{upper,work,root}}
    mount -t overlay -o "lowerdir=/,upperdir=$base/image/upper,workdir=$base/image/work" overlay "$root" ||
        fail "the kernel allows no layers over this machine's files: no hosts can be made here"
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    mount -t tmpfs tmpfs "$root/run"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    cp build/packages/zendrel_*.deb "$base/zendrel.deb" || fail "./package.sh makes the package that is missing"
    cp --remove-destination /etc/resolv.conf "$root/etc" # it may lead to /run
    rm -f "$root/etc/apt/apt.conf.d/docker-clean" # with it apt reads all of its lists each time
    chroot "$root" rm -rf /etc/oxa /home /root /srv /var/www /var/lib/zendrel
    mkdir -p "$root"/{run/lock,home,srv,var/www} "$root"/etc/ssh
    mkdir -m 0700 "$root"/root{,/.ssh}
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d" # nothing is started by being installed
    chmod 0755 "$root/usr/sbin/policy-rc.d"
    needed="apache2, openssh-server, python3-apt, libapache2-mod-php, php-cli, perl, "
    needed+=$(dpkg-deb -f "$base/zendrel.deb" Depends)
    in_image satisfy "$needed" || { in_image update && in_image satisfy "$needed"; } ||
        fail "Debian's packages cannot be installed: $(tail -n 1 "$base/log")"
    rm -f "$root"/etc/ssh/{ssh_host_*,sshd_config.d/*} "$root"/etc/apache2/sites-enabled/*
    rm -f "$root/sbin/init" # no host has a service manager: the scripts of services are what is called
    chroot "$root" ssh-keygen -q -A
    printf '%s\n' 'PermitRootLogin prohibit-password' 'Subsystem sftp internal-sftp' >"$root/etc/ssh/sshd_config"
    ssh-keygen -q -t ed25519 -N '' -C fleet -f "$base/key"
    cp "$base/key.pub" "$root/root/.ssh/authorized_keys"
    echo "10.77.0.* $(cat "$root/etc/ssh/ssh_host_ed25519_key.pub")" >"$base/known_hosts"
    php=$(basename "$(find "$root/etc/apache2/mods-available" -name 'php*.load' | sort | tail -n 1)" .load)
    umount -R "$root"
}

# --- The hosts, and what drives them --------------------------------------------------------------

start_host() { # NUMBER
    local name=site$1.example
    ip netns add "host$1"
    ip link add "host$1" type veth peer name eth0 netns "host$1"
    ip link set "host$1" master fleet up
    ip -n "host$1" addr add "10.77.0.1$1/24" dev eth0
    ip -n "host$1" link set eth0 up
    ip -n "host$1" link set lo up
    ip netns exec "host$1" unshare --mount --pid --uts --fork --kill-child \
        ansible/tests/host.sh "$name" "1000$1" "$base" >"$base/host$1.log" 2>&1 &
}

on_host() { # NUMBER COMMAND
    ssh -F "$base/ssh_config" "root@10.77.0.1$1" "$2"
}

wait_for() { # NUMBER
    local try
    for try in {1..200}; do
        ! on_host "$1" true 2>/dev/null || return 0
        sleep 0.1
    done
    cat "$base/host$1.log" >&2
    fail "host $1 does not answer after $try tries"
}

write_settings() {
    local number
    cat >"$base/ansible.cfg" <<END
[defaults]
inventory = $base/inventory.yml
collections_path = $base
local_tmp = $base/tmp
forks = 50
interpreter_python = /usr/bin/python3
nocows = true
[ssh_connection]
pipelining = true
control_path_dir = $base/socket
ssh_args = -F $base/ssh_config -o ControlMaster=auto -o ControlPersist=60s
END
    cat >"$base/ssh_config" <<END
LogLevel ERROR
IdentityFile $base/key
IdentitiesOnly yes
UserKnownHostsFile $base/known_hosts
StrictHostKeyChecking yes
END
    cat >"$base/inventory.yml" <<END
all:
  vars:
    ansible_user: root
    host_deb: $base/zendrel.deb
    host_apache_enabled: [mpm_prefork, alias, authz_core, cgi, dir, mime, $php]
    host_sites:
      - {name: "{{ inventory_hostname }}", user: alice, apache_file: "/etc/apache2/sites-enabled/{{ inventory_hostname }}.conf"}
    site: /var/www/vhosts/{{ inventory_hostname }}
  hosts:
END
    for number in $(seq "$count"); do
        echo "    site$number.example: {ansible_host: 10.77.0.1$number}"
    done >>"$base/inventory.yml"
}

drive() { # SCRIPT
    local number
    mount -t tmpfs tmpfs /run # with the names of networks
    ip link set lo up
    ip link add fleet type bridge
    ip addr add 10.77.0.1/24 dev fleet
    ip link set fleet up
    write_settings
    export HOME=$base/home ANSIBLE_CONFIG=$base/ansible.cfg NO_COLOR=1
    ansible-galaxy collection install "$PWD/ansible" -p "$base" >"$base/log" 2>&1 || fail "$(cat "$base/log")"
    for number in $(seq "$count"); do
        start_host "$number"
    done
    for number in $(seq "$count"); do
        wait_for "$number"
    done
    mkdir "$base/mirror"
    (cd "$base/mirror" && exec python3 -m http.server --bind 10.77.0.1 8000 >"$base/mirror.log" 2>&1) &
    disown
    # shellcheck disable=SC1090 # one of two
    . "ansible/tests/$1.sh"
}

case "$# ${1-}" in
    '0 ') outside scenario 30 ;;
    '1 --measure') FLEET_DISK=2g outside measure 90 ;;
    '3 --image')
        base=$3
        make_image
        export php
        exec unshare --net "$0" --drive "$2" "$base"
        ;;
    '3 --drive')
        base=$3
        drive "$2"
        ;;
    *)
        echo "usage: ansible/tests/fleet.sh [--measure]" >&2
        exit 2
        ;;
esac
