# shellcheck shell=bash
# The life of a fleet; sourced by fleet.sh, with its variables and functions.
# shellcheck disable=SC2154
log=$base/log

# A playbook of the collection, or a file. What it printed goes into $log; the recap in it tells how it went.
play() { # PLAYBOOK [OPTION...]
    local book=$1
    [[ $book == */* ]] || book=veska.zendrel.$book
    ansible-playbook "$book" -e "@$base/wanted.yml" "${@:2}" >"$log" 2>&1 || true
}

show_and_fail() { # TEXT
    cat "$log" >&2
    fail "$1"
}

expect() { # "CHANGED FAILED" for each host, or a pattern, or one for all; one that was not reached is "-"
    local number wanted got
    for number in $(seq "$count"); do
        wanted=${!number-$1}
        got=$(sed -n -E "s/^site$number\.example .* changed=([0-9]+) .* failed=([0-9]+) .*/\1 \2/p" "$log")
        # shellcheck disable=SC2053 # a pattern
        [[ ${got:--} == $wanted ]] || show_and_fail "site$number.example: ${got:--} in place of $wanted"
    done
}

expect_text() { # REGEX
    grep -qE -- "$1" "$log" || show_and_fail "it does not say: $1"
}

expect_page() { # PATH TEXT, or one for each host
    local number wanted
    for number in $(seq "$count"); do
        wanted=$((number + 1))
        wanted=${!wanted-$2}
        [[ $(curl -s -m 10 -w '%{http_code}' "http://10.77.0.1$number/$1") == *"${wanted/\#/$number}"* ]] ||
            fail "site$number.example: no \"$wanted\" in /$1"
    done
}

sign() { # TEXT
    local number
    for number in $(seq "$count"); do
        curl -s -m 10 -d name=Visitor -d "message=$1-at-$number" "http://10.77.0.1$number/guestbook/cgi-bin/guestbook.pl"
    done
}

# Everything that a deployment could touch, on all hosts.
state_of_hosts() {
    local number
    for number in $(seq "$count"); do
        on_host "$number" 'cd / && find var/www var/lib etc/apache2 srv -xdev ! -type d -printf "%p %m %u %T@ %s\n" | sort'
    done
}

unless_changed() { # COMMAND...: runs it, which must change nothing on any host
    local before
    before=$(state_of_hosts)
    "$@"
    diff <(echo "$before") <(state_of_hosts) >&2 || show_and_fail "it has changed something: $*"
}

pack() { # VERSION: what is in $base/package
    tar -C "$base/package" -czf "$base/mirror/guestbook-$1.tar.gz" .
}

want() { # VERSION [CHANGE_BY_SED]
    cat >"$base/wanted.yml" <<END
zendrel_packages:
  - directory: /srv/packages/guestbook-$1
    url: http://10.77.0.1:8000/guestbook-$1.tar.gz
    sha256: $(sha256sum "$base/mirror/guestbook-$1.tar.gz" | cut -d ' ' -f 1)
zendrel_wanted:
  - package_dir: /srv/packages/guestbook-$1
    version: "$1"
    vhost_path: "{{ site }}"
    www_root: "{{ site }}/httpdocs"
    user_name: alice
    application_subdirectory: guestbook
    script: true
    script_parameters: ["--data={application}/data"]
    apache_conf: guestbook.conf
END
    [ $# -eq 1 ] || sed -i "$2" "$base/wanted.yml"
}

about=$base/package/htdocs/about.html
cp -r examples/packages/guestbook "$base/package"
echo 'this is 1.0' >>"$about"
pack 1.0
sed -i 's/1\.0/1.1/' "$base/package/APP-META.xml" "$about"
head -c 4M /dev/urandom >"$base/package/htdocs/large"
rm "$base/package/htdocs/logo.svg"
pack 1.1
rm -r "$base/package/htdocs/cgi-bin"
sed -i 's/1\.1/1.2/' "$base/package/APP-META.xml" "$about"
pack 1.2

say "Five hosts are made ready"
want 1.0
play host --check
expect '[1-9]* 0'
play host
expect '[1-9]* 0'
play host
expect '0 0'

say "Packages are put there, unless they are others"
want 1.0 's/sha256: .*/sha256: 0000/'
play stage
expect '* 1'
expect_text 'checksum .* did not match'
want 1.0 "/sha256/d; s,url: http.*/,archive: $base/mirror/,"
play stage
expect '[1-9]* 0'
unless_changed play stage
expect '0 0'

say "A deployment is shown, made, and not made again"
unless_changed play deploy --check --diff
expect '2 0' # with the server's reload
expect_text '^\+0755 cgi-bin/guestbook.pl'
play deploy
expect '2 0'
expect_page guestbook/about.html 'this is 1.0'
sign first
unless_changed play deploy
expect '0 0'

say "A package with mistakes changes nothing on any host"
want 1.2
play stage
expect '[1-9]* 0'
unless_changed play deploy
expect '0 1'
expect_text 'guestbook-1.2 has mistakes: .*cgi-bin'

say "An upgrade in batches stops at the host whose disk is full"
want 1.1
play stage
expect '[1-9]* 0'
on_host 3 'cat /dev/zero >/var/www/filler' 2>/dev/null && fail "the disk of host 3 is not full"
on_host 3 'truncate -s -1M /var/www/filler'
play deploy -e '{"zendrel_serial": [1, 2]}' --diff
expect '2 0' '2 0' '0 1' '0 0' '0 0'
expect_text 'No space left on device'
expect_text '^\+0644 large'
expect_text '^-0644 logo.svg'
expect_page guestbook/about.html 'this is 1.1' 'this is 1.1' 'this is 1.0' 'this is 1.0' 'this is 1.0'
cat >"$base/tolerant.yml" <<'END'
- hosts: all
  gather_facts: false
  serial: 2
  max_fail_percentage: 60
  roles: [veska.zendrel.instances]
END
play "$base/tolerant.yml"
expect '0 0' '0 0' '0 1' '2 0' '2 0'
expect_page guestbook/cgi-bin/guestbook.pl 'first-at-#'
sign second

say "The fleet goes back; the host that stayed behind stays"
unless_changed play rollback --check --diff
expect '2 0' '2 0' '0 0' '2 0' '2 0'
expect_text '^\+guestbook 1.0-1'
play rollback
expect '2 0' '2 0' '0 0' '2 0' '2 0'
expect_page guestbook/about.html 'this is 1.0'
expect_page guestbook/cgi-bin/guestbook.pl 'second-at-#'
unless_changed play rollback
expect '0 0'

say "With room on the disk, all are upgraded"
on_host 3 'rm /var/www/filler'
play deploy -e '{"zendrel_serial": [1, 4]}'
expect '2 0'
expect_page guestbook/about.html 'this is 1.1'

say "Damage is found, and a change that no upgrade can make is refused"
on_host 2 'cd /var/www/vhosts/*/httpdocs/guestbook; mv about.html ..'
unless_changed play verify
expect '0 0' '0 1' '0 0'
expect_text 'missing about.html'
on_host 2 'cd /var/www/vhosts/*/httpdocs/guestbook; mv ../about.html .'
want 1.1 's/ *script: true/&\n    skip_webserver_write: true/'
unless_changed play deploy
expect '0 1'
expect_text 'cannot change skip_webserver_write'

say "Of many instances one fails and the others are done; what is left is finished"
want 1.1 's/subdirectory: guestbook/subdirectory: good/; s/guestbook.conf/good.conf/'
sed -n '/- package_dir/,$p' "$base/wanted.yml" | sed 's/good/bad/; s/{application}/nowhere/' >"$base/more"
cat "$base/more" >>"$base/wanted.yml"
play deploy --limit site4.example
expect - - - '2 1' -
expect_text 'httpdocs/bad: .*ended install with status 1'
sed -i 's/nowhere/{application}/' "$base/wanted.yml"
play deploy --limit site4.example
expect - - - '2 0' -
on_host 4 'zendrelctl instances' | grep -c ' installed ' | grep -qx 3 || fail "site4.example has not three instances"

say "A configuration that the server refuses is not given to it"
on_host 4 'echo Nonsense >>/etc/apache2/apache2.conf'
play remove -e zendrel_remove=yes --limit site4.example
expect - - - '1 1' -
expect_text "goes on with what it has read before.*Invalid command 'Nonsense'"
expect_page guestbook/cgi-bin/guestbook.pl 'second-at-#'
on_host 4 'sed -i /Nonsense/d /etc/apache2/apache2.conf'

say "A removal asks, lets the packages' scripts have their say, and leaves what is not theirs"
want 1.1
unless_changed play remove
expect '0 1'
unless_changed play remove -e zendrel_remove=yes
expect '0 1'
expect_text 'ended remove with status 3; .* has entries \(2\)'
play remove -e '{"zendrel_remove": true, "zendrel_remove_options": {"script_parameters": ["--data={application}/data", "--force"]}}'
expect '2 0'
unless_changed play remove -e zendrel_remove=yes
expect '0 0'
expect_page guestbook/about.html 404
expect_page '' 'the own page of site#'
for number in $(seq "$count"); do
    [ -z "$(on_host "$number" 'cd /var/www/vhosts; find . -path ./site\*/httpdocs/\* ! -name index.html; ls -A system/*/conf/siteapp.d')" ] ||
        fail "site$number.example: something is left"
done

printf '\nThe fleet did as it should: %d hosts, %d seconds.\n' "$count" "$SECONDS"
