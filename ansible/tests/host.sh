#!/usr/bin/env bash
# host.sh NAME UID DIR: one host, in namespaces that have been made for it: what a panel and its administrator
# have left, an account, a virtual host, an Apache, an sshd. Ends with sshd.
set -euo pipefail
name=$1 uid=$2 dir=$3/$1 image=$3/image/upper
hostname "$name"
mkdir -p "$dir"/{upper,work,root}
mount -t overlay -o "lowerdir=$image:/,upperdir=$dir/upper,workdir=$dir/work" overlay "$dir/root"
cd "$dir/root"
mount -t proc proc proc
mount --rbind /dev dev
mount -t tmpfs -o mode=0755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
# Of its own, so that it can be full.
mount -t tmpfs -o "mode=0755,size=${FLEET_DISK-32m}" tmpfs var/www
mkdir -p run/{sshd,lock}
cat >"etc/apache2/sites-enabled/$name.conf" <<END
ServerName $name
<VirtualHost *:80>
    ServerName $name
    DocumentRoot /var/www/vhosts/$name/httpdocs
</VirtualHost>
END
# shellcheck disable=SC2016 # for the inner shell
exec chroot . /bin/bash -euc '
    userdel alice 2>/dev/null || true
    groupadd --force oxacln
    useradd --uid "$2" --gid oxacln --create-home alice
    install -d /var/www/vhosts
    install -d -o alice -g oxacln "/var/www/vhosts/$1" "/var/www/vhosts/$1/httpdocs"
    echo "the own page of $1" >"/var/www/vhosts/$1/httpdocs/index.html"
    service apache2 start
    /usr/sbin/sshd -D -e &
    wait $!' host "$name" "$uid"
