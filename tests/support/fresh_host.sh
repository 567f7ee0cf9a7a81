#!/bin/sh
# fresh_host.sh BIN_DIR SOURCE_DIR COMMAND...: inside sandbox.sh, runs a command on a host like one
# where Debian's packages and zendrel's have just been installed and nothing else has been done: no
# sites and no users of sites, Apache with the settings it comes with, an empty network of its own.
# Debian's package apache2 is unpacked in build/apache2, as fetch_apache.sh leaves it there.
#
# In a container that allows no mounts, the places are used themselves if they are free, and freed
# again; if they are not, a line says so and the status is 77.
set -eu
bin=$1 source=$2
shift 2
apache=$source/build/apache2
places="/srv/packages /srv/backup /home/alice /var/www/vhosts /var/www/html /var/lib/zendrel
    /var/lib/apache2 /var/log/apache2 /run/apache2 /run/lock/apache2 /usr/share/doc/zendrel"

leave_out() { # WHY
    echo "$0: left out: $1"
    exit 77
}

[ -x "$apache/usr/sbin/apache2ctl" ] || leave_out "build/apache2 is missing; tests/support/fetch_apache.sh makes it"

cover() { # DIR: puts an empty one over it
    mkdir -p "$host$1"
    mount --bind "$host$1" "$1"
}

make_private() {
    host=$SANDBOX_DIR/host
    for dir in /srv /home /usr/share/doc; do
        cover "$dir"
    done
    mkdir -p "$host/var/log" "$host/var/www" "$host/run/lock"
    for entry in /var/*; do # a directory that is not there cannot be covered
        if [ -L "$entry" ]; then
            cp -P "$entry" "$host/var"
        elif [ -d "$entry" ] && mkdir "$host$entry" 2>/dev/null; then
            mount --rbind "$entry" "$host$entry"
        fi
    done
    mount --rbind "$host/var" /var
    mount --bind "$host/run" /run
}

take_places() {
    for place in $places /etc/apache2/apache2.conf; do
        [ ! -e "$place" ] || leave_out "$place is there already, and cannot be hidden"
    done
    mkdir "$SANDBOX_DIR/saved"
    for entry in apache2 shadow gshadow subuid subgid subuid- subgid-; do
        [ ! -e "/etc/$entry" ] || cp -a "/etc/$entry" "$SANDBOX_DIR/saved"
    done
}

put_back() {
    # shellcheck disable=SC2086 # a list of words
    rm -rf $places /etc/apache2 /etc/subuid- /etc/subgid-
    cp -a "$SANDBOX_DIR/saved/." /etc
}

finish() {
    if server=$(cat /run/apache2/apache2.pid 2>/dev/null) && kill -TERM "$server"; then
        tail --pid="$server" -s 0.1 -f /dev/null
    fi
    [ "$SANDBOX_MODE" = namespace ] || put_back
}

if [ "$SANDBOX_MODE" = namespace ]; then
    make_private
else
    take_places
fi
trap finish EXIT
trap 'exit 130' INT TERM HUP

for file in passwd group; do # zendrel's have the two groups
    grep -vE '^(alice|bob|carol|lost|editors):' "/etc/$file" | sed 's/^\(oxaserv:.*:\).*/\1www-data/' \
        >"$SANDBOX_DIR/$file"
    cat "$SANDBOX_DIR/$file" >"/etc/$file"
done
rm -rf /etc/oxa
mkdir -p /etc/apache2/mods-available "$SANDBOX_DIR/etc"
cp -a /etc/apache2/mods-available "$SANDBOX_DIR/etc"
rm -rf /etc/apache2
cp -a "$apache/etc/apache2" /etc
cp -a "$SANDBOX_DIR/etc/mods-available/." /etc/apache2/mods-available # PHP's
mkdir -p /var/www/vhosts/system /var/www/html /var/log/apache2 /var/lib/apache2 /run/apache2 \
    /usr/share/doc/zendrel/examples /var/lib/zendrel
chmod 0700 /var/lib/zendrel
cp -R "$source/examples/packages" /usr/share/doc/zendrel/examples

cp -a "$apache/usr/sbin" "$SANDBOX_DIR/bin" # where a2enmod looks for apache2ctl there is none
sed -i "s#/usr/sbin/apache2ctl#$SANDBOX_DIR/bin/apache2ctl#" "$SANDBOX_DIR/bin/a2enmod"
cat >"$SANDBOX_DIR/bin/apt-get" <<'END'
#!/bin/sh
# What is to be installed has to be there already.
for word in "$@"; do
    case $word in
        update | install | -* | apache2 | ./zendrel_*.deb) ;;
        *) echo "$INSTALLED" | grep -qx "$word" || { echo "$word is not installed"; exit 1; } ;;
    esac
done
END
mv "$SANDBOX_DIR/bin/apache2ctl" "$SANDBOX_DIR/bin/apache2ctl.debian"
cat >"$SANDBOX_DIR/bin/apache2ctl" <<'END'
#!/bin/sh
# Returns when the server has read its configuration, which it says in its log, and not before: what
# people do next takes them longer than a script.
ready() { grep -c 'resuming normal operations' /var/log/apache2/error.log 2>/dev/null; }
before=$(ready)
"$0.debian" "$@" || exit
[ "$1" != graceful ] || until [ "$(ready)" != "$before" ]; do sleep 0.01; done
END
chmod +x "$SANDBOX_DIR/bin/apt-get" "$SANDBOX_DIR/bin/apache2ctl"
PATH=$SANDBOX_DIR/bin:$bin:$PATH
export PATH LC_ALL=C
php=$(find /etc/apache2/mods-available -name 'php*.load' -printf '%f\n' | sort | tail -n 1)
for module in authz_host authz_core auth_basic access_compat authn_file authz_user alias dir autoindex env mime \
    negotiation setenvif filter deflate status reqtimeout mpm_prefork "${php%.load}"; do
    a2enmod -q "$module" >/dev/null
done
a2ensite -q 000-default >/dev/null

cd "$source"
if unshare --net true 2>/dev/null; then # so that nobody else listens at port 80
    # shellcheck disable=SC2016 # Perl's and the inner shell's
    unshare --net sh -c 'perl -e "$0" && exec "$@"' '
        use Socket; # the loopback interface is down at first
        socket(ANY, AF_INET, SOCK_DGRAM, 0) && ioctl(ANY, 0x8914, my $up = pack("a16 s x14", "lo", 1))
            or die "lo: $!\n"' "$@"
else
    "$@"
fi
