#!/bin/bash
# Shows zendrel at work: see usage below. Everything happens in a sandbox; of the host itself only
# missing Debian packages are installed and build/demo is written.
set -euo pipefail
unset CDPATH
export LC_ALL=C
umask 022

usage="usage: ./demo.sh [--serve [--port=PORT] | PACKAGE_DIR]

Without arguments, shows the life of an application: the guestbook in examples/packages is deployed
into a throw-away site, prepared by its script, served by Apache and signed, and removed again. With
--serve it can be visited before it is removed, until Ctrl-C, at the port given.

Then the same package is looked over, planned, deployed, upgraded (once badly, once well), rolled back,
compared and removed with zendrelctl, the administrator's companion.

With PACKAGE_DIR, a directory with an APP-META.xml, that package is deployed and removed. Its script
is not run and it is not served, but Apache checks the configuration generated for it.

Needs root and Debian 12; installs the Debian packages that are missing, builds the program into
build/demo and works in tests/support/sandbox.sh, which leaves the host's accounts and sites alone.
Apache listens on this host only, at a free port unless one is given, with a configuration of its own."

# apache2-bin has the server without its service.
debian_packages=(g++ cmake make libboost-filesystem-dev libboost-program-options-dev libxml2-dev nlohmann-json3-dev libssl-dev
    tree util-linux mount procps apache2-bin libapache2-mod-php perl curl)
guestbook=examples/packages/guestbook
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
    run_expecting 0 "$1"
}

run_expecting() { # STATUS COMMAND
    show "$2"
    local status=0
    eval "$2" || status=$?
    [ "$status" -eq "$1" ] || fail "the command above ended with status $status, not $1"
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
        fail "this is no Debian system; see \"Build\" in CONTRIBUTING.md"
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

# Sets way to "", --serve or package, package to its directory, and port to the one wanted.
read_words() { # [WORD...]
    way='' package='' port=''
    while [ $# -gt 0 ]; do
        case $1 in
            -h | --help)
                echo "$usage"
                exit 0
                ;;
            --serve) way=--serve ;;
            --port=*) port=${1#--port=} ;;
            --port)
                port=${2-none}
                shift $(($# > 1))
                ;;
            -*) way=wrong ;;
            *)
                [ -z "$way" ] && way=package || way=wrong
                package=$1
                ;;
        esac
        shift
    done
    if [ "$way" = wrong ] || [ "$way" != package ] && [ -n "$package" ] || [ "$way" != --serve ] && [ -n "$port" ]; then
        echo "$usage" >&2
        exit 2
    fi
    if [ -n "$port" ] && { [[ ! $port =~ ^[1-9][0-9]{0,4}$ ]] || [ "$port" -gt 65535 ]; }; then
        fail "$port is no port"
    fi
}

prepare() { # [WORD...]
    local way package port
    read_words "$@"
    [ "$(id -u)" -eq 0 ] || fail "must be run as root, for example with sudo"
    if [ "$way" = package ]; then
        [ -d "$package" ] || fail "$package is no directory; a package has to be unpacked first"
        package=$(realpath -- "$package")
        [ -f "$package/APP-META.xml" ] || fail "$package is not a package: it has no APP-META.xml"
    fi
    cd -- "$(dirname -- "$(realpath -- "$0")")"
    mkdir -p build/demo
    rm -f build/demo/*.log
    install_missing
    build
    printf '\nFrom here on in tests/support/sandbox.sh: alice and her site exist only there.\n'
    in_sandbox ./demo.sh --inside "$way" "$package" "$port"
}

in_sandbox() { # COMMAND [ARGUMENT...]
    local sandbox status
    # The sandbox answers a signal only when its command has ended, so the command gets it. Job
    # control keeps the terminal from sending Ctrl-C to both.
    set -m
    tests/support/sandbox.sh "$@" </dev/null &
    sandbox=$!
    set +m
    trap 'pkill -TERM -P "$sandbox" -x demo.sh || kill -TERM -- "-$sandbox" || true' INT TERM HUP
    while :; do # a signal ends wait, but not what is waited for
        status=0
        wait "$sandbox" || status=$?
        kill -0 "$sandbox" 2>/dev/null || exit "$status"
    done
}

# --- Inside the sandbox ---------------------------------------------------------------------------

first_lines() { # MAX
    awk -v max="$1" '
        NR <= max
        END { if (NR > max) print "... and " NR - max " more lines" }'
}

show_tree() { # DIR
    show "tree -pug $1"
    echo
    tree -pug -- "$1" | first_lines "$max_lines"
}

show_head() { # FILE MAX
    show "cat $1"
    echo
    first_lines "$2" <"$1"
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

make_site() {
    heading "A host with a site of alice, and a page of her own in it"
    if [ "$SANDBOX_MODE" != namespace ] && [ -e /etc/oxa/oxa.conf ]; then
        fail "/etc/oxa/oxa.conf exists, and here it cannot be replaced without a trace"
    fi
    trap clean_up EXIT
    run "mkdir -p $docroot $conf
echo '$own_text' >$docroot/$own_page
chown -R alice:oxacln $site
echo 'HTTPD_VHOSTS_D $vhosts' >/etc/oxa/oxa.conf"
}

copy_package() { # PACKAGE_DIR
    heading "The package, where alice may read it"
    run "cp -R ${1@Q}/. $package
chmod -R a+rX $package"
}

extract() {
    heading "Deploy it"
    run "build/demo/zendrel --extract-application \\
    --application-full-name=file:///$package \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --user-name=alice \\
    --application-subdirectory=. \\
    --metadata-file="
    show_tree "$site"
}

list_files() {
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
    show_head "$list" 8
}

run_script() { # EXPECTED_STATUS ACTION [ARGUMENT...]
    run_expecting "$1" "build/demo/zendrel --run-application-script \\
    --application-full-name=file:///$package \\
    --script-name=$2 \\
    --user-name=alice \\
    --script-file-name= \\
    --script-language= \\
    --additional-script-params=--data=$docroot/data${3+" \\
    --additional-script-params=$3"}"
}

install_conf() {
    heading "Configure Apache for it"
    run "build/demo/zendrel --install-apache-conf \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --application-subdirectory=. \\
    --metadata-file=$package/APP-META.xml \\
    --config-file-name=application.conf"
}

remove_conf() {
    heading "Take Apache's configuration away"
    run "build/demo/zendrel --remove-apache-conf \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --config-file-name=application.conf"
    [ ! -e "$generated" ] || fail "$generated should be gone"
}

delete() {
    heading "Delete its files"
    run "build/demo/zendrel --delete-application \\
    --vhost-path=$site \\
    --www-root=$docroot \\
    --user-name=alice \\
    --application-subdirectory=. <$list"
    show_tree "$site"
    check_removal "$site"
}

# --- Apache ---------------------------------------------------------------------------------------

is_open() { # PORT
    (: <>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

free_port() {
    local port
    if [ -n "$wanted_port" ]; then
        ! is_open "$wanted_port" || fail "something listens at port $wanted_port already"
        echo "$wanted_port"
        return
    fi
    for port in $(shuf -n 100 -i 20000-29999); do
        is_open "$port" || break
    done
    echo "$port"
}

write_server_config() { # PORT
    local modules=/usr/lib/apache2/modules php
    php=$(find "$modules" -name 'libphp*.so' | sort | tail -n 1)
    mkdir "$server"
    # Nothing is left to the directories that the server was built for: those are the host's own.
    cat >"$server/apache.conf" <<END
ServerRoot $server
DefaultRuntimeDir $server
Mutex file:$server
PidFile $server/pid
ErrorLog $server/error.log
TypesConfig /dev/null
PHPIniDir $server
ServerName 127.0.0.1
Listen 127.0.0.1:$1
User www-data
Group www-data

LoadModule mpm_prefork_module $modules/mod_mpm_prefork.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule alias_module $modules/mod_alias.so
LoadModule cgi_module $modules/mod_cgi.so
LoadModule dir_module $modules/mod_dir.so
LoadModule mime_module $modules/mod_mime.so
LoadModule php_module $php

DirectoryIndex index.html index.php
AddType text/html .html
AddType text/css .css
AddType image/svg+xml .svg
DocumentRoot $docroot
<Directory $docroot>
  Require all granted
</Directory>

# The conditions that zendrel writes for PHP hold for older modules than PHP 8's.
<FilesMatch "\.php$">
  SetHandler application/x-httpd-php
</FilesMatch>

# What zendrel writes for the site's applications.
IncludeOptional ${conf}siteapp.d/*.conf
END
    # PHP would also read the host's settings.
    export PHP_INI_SCAN_DIR=
}

# Also when something failed; what the sandbox held goes with it.
clean_up() {
    stop_server
    rm -f /etc/oxa/oxa.conf
}

stop_server() {
    local pid
    pid=$(cat "$server/pid" 2>/dev/null) || return 0
    kill -TERM "$pid" 2>/dev/null || return 0
    tail --pid="$pid" -s 0.1 -f /dev/null
}

answer() { # URL
    curl -s -o /dev/null -w '%{http_code}' "$1"
}

expect_answer() { # STATUS URL: soon, as the server takes a moment to read its configuration again
    local try
    for try in $(seq 100); do
        [ "$(answer "$2")" != "$1" ] || return 0
        sleep 0.1
    done
    fail "$2 answers $(answer "$2") after $((try / 10)) seconds, not $1"
}

start_server() {
    local port
    port=$(free_port)
    url=http://127.0.0.1:$port
    heading "Start Apache with that configuration"
    write_server_config "$port"
    show_head "$server/apache.conf" "$max_lines"
    run "apache2 -f $server/apache.conf -k start"
    expect_answer 200 "$url/index.html"
}

visit() {
    heading "Visit it: static pages, PHP, programs, the redirect"
    run "curl -sS $url/ | grep '<h1>'"
    run "curl -sS $url/stats.php | grep 'Entries:'"
    run "curl -sS $url/tools/ping"
    run "curl -sSi $url/home | grep -E '^(HTTP|Location)'"
    run "curl -sS $url/cgi-bin/guestbook.pl | grep 'Entries so far'"

    heading "Sign it"
    run "curl -sSi $url/cgi-bin/guestbook.pl \\
    -d name=Visitor --data-urlencode 'message=Hello, alice!' |
    grep -E '^(HTTP|Location)'"
    run "curl -sS $url/cgi-bin/guestbook.pl | grep -E 'Entries so far: 1|Hello, alice!'"
    run "ls -l $docroot/data/entries.txt"
}

serve() {
    local asleep
    heading "Open for visitors"
    sleep infinity &
    asleep=$!
    trap 'kill $asleep 2>/dev/null || true' INT TERM HUP
    printf '\n    %s/\n\nFrom another machine, open the same address after\n' "$url"
    show "ssh -L ${url##*:}:127.0.0.1:${url##*:} root@$(hostname)"
    printf '\nCtrl-C ends the visit and removes everything.\n'
    wait "$asleep" || true
    trap 'exit 130' INT TERM HUP
}

# --- The two ways ---------------------------------------------------------------------------------

finish() { # PACKAGE WHAT
    printf "\nShown: %s was %s; only the page of the site's owner is left.\n" "$1" "$2"
}

whole_life() { # [--serve]
    make_site
    copy_package "$guestbook"
    extract
    list_files
    heading "Let its script prepare the data"
    run_script 0 install
    install_conf
    run "ls -l $generated"
    show_head "$generated" 30
    start_server
    visit
    [ "${1-}" != --serve ] || serve

    heading "Let its script clean up; it keeps what visitors wrote (status 3) unless it is forced"
    run_script 3 remove
    run_script 0 remove --force
    remove_conf
    run "apache2 -f $server/apache.conf -k graceful"
    expect_answer 404 "$url/home"
    delete

    heading "Nothing answers any more but alice's own page"
    local path
    for path in "" home stats.php cgi-bin/guestbook.pl "$own_page"; do
        run "curl -sS -o /dev/null -w '%{http_code} %{url}\\n' $url/$path"
        [ "$path" = "$own_page" ] || expect_answer 404 "$url/$path"
    done
    expect_answer 200 "$url/$own_page"

    administer
    check_removal "$site"
    stop_server
    finish guestbook 'deployed, served and removed again, in both ways'
}

entries() { # what a visitor sees of the instance
    run "curl -sS $url/book/cgi-bin/guestbook.pl | grep -E 'Entries so far|Hello from'"
}

administer() { # an instance in the directory "book", while Apache serves the site
    local ctl=build/demo/zendrelctl words
    heading "For administrators: look a package over, and see beforehand what it will do"
    words="--vhost-path=$site --www-root=$docroot --user-name=alice --application-subdirectory=book"
    run "$ctl check $package"
    run_expecting 2 "$ctl plan $package $words | tail -n 5"

    heading "Deploy it on record, with its script and its Apache file"
    run "$ctl deploy $package --instance=book \\
    $words \\
    --script --script-parameter=--data={application}/data --apache-conf=book.conf"
    run "$ctl instances"
    run "apache2 -f $server/apache.conf -k graceful"
    expect_answer 200 "$url/book/cgi-bin/guestbook.pl"
    run "curl -sS $url/book/cgi-bin/guestbook.pl -d name=Visitor -d 'message=Hello from a visitor'"
    entries

    heading "An upgrade that fails leaves the running application alone"
    run "cp -R $package $package.bad && ln -s nowhere $package.bad/htdocs/dangling"
    run_expecting 1 "$ctl upgrade $package.bad --instance=book"
    run_expecting 1 "$ctl upgrade $package.bad --instance=book --force"
    entries

    heading "A good one is in place at a stroke, and can be taken back"
    run "cp -R $package $package.new &&
sed -i 's#<version>1.0#<version>1.1#' $package.new/APP-META.xml &&
echo 'What is new in 1.1' >$package.new/htdocs/news.html"
    run "$ctl upgrade $package.new --instance=book"
    run "curl -sS $url/book/news.html"
    entries
    run "$ctl rollback --instance=book"
    expect_answer 404 "$url/book/news.html"
    entries

    heading "What has become of it since? Then remove it"
    run "$ctl verify"
    run "echo defaced >>$docroot/book/index.html"
    run_expecting 2 "$ctl verify"
    run "$ctl remove --instance=book \\
    --script-parameter=--data={application}/data --script-parameter=--force"
    run "$ctl instances"
}

deploy_and_delete() { # PACKAGE_DIR
    make_site
    copy_package "$1"
    extract
    list_files
    install_conf
    if [ -e "$generated" ]; then
        show_head "$generated" "$max_lines"
        write_server_config "$(free_port)"
        show "apache2 -f $server/apache.conf -t"
        apache2 -f "$server/apache.conf" -t ||
            printf '\nApache refuses this configuration: it must not be included.\n'
    else
        printf '\nNothing had to be configured: there is no file.\n'
    fi
    remove_conf
    delete
    finish "$(basename -- "$1")" 'deployed and removed again'
}

# Running an application's script moves the position in a regular file back to its beginning.
[ ! -f /dev/stdout ] || exec >>/dev/stdout
[ ! -f /dev/stderr ] || exec 2>>/dev/stderr

if [ "${1-}" = --inside ]; then
    trap 'exit 130' INT TERM HUP
    vhosts=$SANDBOX_DIR/vhosts
    site=$vhosts/example.com
    docroot=$site/httpdocs
    conf=$vhosts/system/example.com/conf/
    generated=${conf}siteapp.d/application.conf
    package=$SANDBOX_DIR/package
    list=$SANDBOX_DIR/list.xml
    server=$SANDBOX_DIR/apache
    wanted_port=$4
    if [ "$2" = package ]; then
        deploy_and_delete "$3"
    else
        whole_life "$2"
    fi
else
    prepare "$@"
fi
