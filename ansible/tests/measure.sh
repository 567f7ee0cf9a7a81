# shellcheck shell=bash
# Prints how long things take, for docs/fleet.md; sourced by fleet.sh, with its variables and functions.
# shellcheck disable=SC2154
files=2500
many=200

# Processor time of all hosts so far: of what lives there, and of what that has waited for.
host_seconds() {
    local own directory
    own=$(readlink /proc/self/ns/pid)
    for directory in /proc/[0-9]*; do
        [ "$(readlink "$directory/ns/pid")" = "$own" ] || sed 's/.*) //' "$directory/stat"
    done 2>/dev/null | awk '{ ticks += $12 + $13 + $14 + $15 } END { printf "%.2f\n", ticks / 100 }'
}

timed() { # WHAT COMMAND [ARGUMENT...]
    local before real
    before=$(host_seconds)
    TIMEFORMAT='%R %U %S'
    real=$({ time "${@:2}" >"$base/log" 2>&1; } 2>&1) || {
        tail -n 20 "$base/log" >&2
        fail "$1"
    }
    awk -v what="$1" -v before="$before" -v after="$(host_seconds)" \
        '{ printf "%-66s %8.1f %10.1f %8.1f\n", what, $1, $2 + $3, after - before }' <<<"$real"
}

play() { # WHAT PLAYBOOK [OPTION...]
    local book=$2
    [[ $book == */* ]] || book=veska.zendrel.$book
    timed "$name: $1" ansible-playbook "$book" -e "@$base/wanted.yml" -e '{"zendrel_serial": "100%"}' "${limit[@]}" "${@:3}"
}

pack() { # NAME VERSION: what is in $base/package
    cat >"$base/package/APP-META.xml" <<END
<application xmlns="http://veska.example/ns/1"><name>$1</name><version>$2.0</version><release>1</release>
<mapping url="/" path="htdocs"/></application>
END
    tar -C "$base/package" -czf "$base/mirror/$1-$2.tar.gz" .
}

want() { # NAME VERSION COUNT [SOURCE]
    local number
    {
        printf 'zendrel_packages:\n  - {directory: /srv/packages/%s, sha256: %s, %s}\n' "$1-$2" \
            "$(sha256sum "$base/mirror/$1-$2.tar.gz" | cut -d ' ' -f 1)" \
            "${4-url: http://10.77.0.1:8000/$1-$2.tar.gz}"
        echo 'zendrel_wanted:'
        for number in $(seq "$3"); do
            printf '  - {package_dir: /srv/packages/%s, version: "%s.0", %s, %s, user_name: alice, application_subdirectory: %s}\n' \
                "$1-$2" "$2" "vhost_path: '{{ site }}'" "www_root: '{{ site }}/httpdocs'" "$1$number"
        done
    } >"$base/wanted.yml"
}

synchronize() { # HOST...
    local number
    for number; do
        rsync -a -e "ssh -F $base/ssh_config" "$base/package/" "root@10.77.0.1$number:/srv/packages/copy" &
    done
    wait
}

# Two packages of a tenth of their files' difference, and two small ones.
bench/make_tree.pl "$base/package" "$files"
pack large 1
find "$base/package/htdocs" -type f | sort | awk 'NR % 10 == 0' | while read -r page; do
    echo "another release" >>"$page"
done
pack large 2
cat >"$base/loop.yml" <<'END'
- hosts: all
  gather_facts: false
  tasks:
    - veska.zendrel.instance:
        package_dir: "{{ item.package_dir }}"
        version: "{{ item.version }}"
        vhost_path: "{{ item.vhost_path }}"
        www_root: "{{ item.www_root }}"
        user_name: "{{ item.user_name }}"
        application_subdirectory: "{{ item.application_subdirectory }}"
      loop: "{{ zendrel_wanted }}"
END
echo "$(nproc) cores, $files files, $(du -sk --apparent-size "$base/package" | cut -f 1) KiB, archive $(du -sk "$base/mirror/large-1.tar.gz" | cut -f 1) KiB; load $(cut -d ' ' -f 1-3 /proc/loadavg)"
printf '%-66s %8s %10s %8s\n' 'seconds' 'elapsed' 'controller' 'hosts'

want large 1 1
limit=() name="5 hosts"
play 'made ready' host
play 'ready already' host
for hosts in 1 5; do
    limit=() name="$hosts hosts"
    [ "$hosts" -ne 1 ] || limit=(--limit site1.example) name='1 host'
    want large 1 1 "archive: $base/mirror/large-1.tar.gz"
    play 'package from the controller' stage
    play 'package is there' stage
    # shellcheck disable=SC2046 # numbers
    timed "$name: package by rsync" synchronize $(seq "$hosts")
    # shellcheck disable=SC2046
    timed "$name: package by rsync, is there" synchronize $(seq "$hosts")
    play 'deploy --check' deploy --check
    play 'deploy' deploy
    play 'nothing to do' deploy
    play 'verify' verify
    want large 2 1
    play 'package from the mirror' stage
    play 'upgrade --check' deploy --check
    play 'upgrade' deploy
    play 'rollback' rollback
    play 'remove' remove -e zendrel_remove=yes
    [ "$hosts" -ne 1 ] || on_host 1 'rm -rf /srv/packages'
done

limit=(--limit site1.example) name="20 instances of $files files"
want large 1 20
play 'deploy' deploy
play 'nothing to do' deploy
want large 2 20
play 'upgrade' deploy
play 'rollback' rollback
play 'verify' verify
play 'remove' remove -e zendrel_remove=yes

rm -r "$base/package" && mkdir "$base/package" && cp -r examples/packages/guestbook/htdocs "$base/package"
pack small 1
want small 1 "$many"
name="$many instances of 8 files"
play 'package from the mirror' stage
play 'deploy, a call for each' "$base/loop.yml"
play 'nothing to do, a call for each' "$base/loop.yml"
play 'remove' remove -e zendrel_remove=yes
play 'deploy' deploy
play 'nothing to do' deploy
play 'deploy --check, nothing to do' deploy --check
play 'verify' verify
echo "$(on_host 1 'zendrelctl instances --json | wc -c') bytes of records; load $(cut -d ' ' -f 1-3 /proc/loadavg)"
