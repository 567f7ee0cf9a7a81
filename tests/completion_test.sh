#!/bin/bash
# completion_test.sh BUILD_DIR SOURCE_DIR: types into bash, with and without the package
# bash-completion, and into zsh, as far as they are installed, and looks at the words that become of
# it. Runs in the sandbox.
set -euo pipefail
build=$1 source=$2
dir=$SANDBOX_DIR/typed
mkdir "$dir"
cmake --install "$build" --component runtime --prefix "$dir/usr" >/dev/null
export PATH=$dir/usr/sbin:$PATH XDG_DATA_DIRS=$dir/usr/share TERM=dumb LC_ALL=C.UTF-8 HISTFILE=

mkdir -p "$dir/host/httpdocs/my page" "$dir/package"
chown -R alice:oxacln "$dir/host"
for name in one two; do
    zendrelctl deploy "$source/examples/packages/guestbook" --vhost-path="$dir/host" --user-name=alice \
        --www-root="$dir/host/httpdocs" --application-subdirectory=$name --instance="shop-$name" >/dev/null
done
cd "$dir"

setups=". $dir/usr/share/bash-completion/completions/zendrel"
[ ! -e /usr/share/bash-completion/bash_completion ] ||
    setups+=$'\n. /usr/share/bash-completion/bash_completion'
[ -z "$(type -P zsh)" ] || setups+=$'\nzsh'

# A line of what is typed has "^" for the key that completes, and "*" for the one that puts in all that
# is possible. Each becomes a line of the words then found, without what a shell takes back by itself.
type_into() { # SETUP, a command of bash or "zsh"
    : >seen
    sed $'s/\\^/\t/g; s/\\*/\e*/g; s/$/\001show \005/' >keys
    if [ "$1" = zsh ]; then
        zsh -f type.zsh <keys
    else
        printf '%s\nshow() { printf "<%%s>" "$@"; echo; } >>seen\n%s\nexit\n' "$1" "$(cat keys)" |
            bash --norc --noprofile -i
    fi >screen 2>&1 || true # the words tell
    sed 's,[/=]>,>,g' seen
}

cat >"$dir/type.zsh" <<'END'
zmodload zsh/zpty
zpty shell zsh -f -i
type() { zpty -w -n shell "$1"$'\n' }
type 'fpath=($XDG_DATA_DIRS/zsh/site-functions $fpath); autoload -Uz compinit; compinit -u -D'
type 'all() { _main_complete; compstate[insert]=all }; zle -C all complete-word all'
type $'bindkey -e; bindkey "\\e*" all; show() { print -r -- "<${(j:><:)@}>" >>seen }'
while IFS= read -r line; do type "$line"; done
type exit
while zpty -r shell line; do print -rn -- $line; done
END

failed=0
type_everywhere() { # TYPED_FILE EXPECTED_FILE
    local setup
    while IFS= read -r setup; do
        type_into "$setup" <"$1" >words
        diff "$2" words >difference && continue
        printf '%s: expected (<), found (>):\n%s\n' "$setup" "$(cat difference)"
        failed=1
    done <<<"$setups"
}

# What is typed, then what comes of it.
cat >cases <<END
zendrelctl dep^pack^ --vhost-path=host/ht^my^x --skip^--wait 5 --forc^y
<zendrelctl><deploy><package/><--vhost-path=host/httpdocs/my page/x><--skip-webserver-write><--wait><5><--force><y>
zendrelctl deploy --www-root=host/httpdocs/my\\ p^x --instance='shop-t^--fo^
<zendrelctl><deploy><--www-root=host/httpdocs/my page/x><--instance=shop-two><--force>
zendrelctl remove --instance *
<zendrelctl><remove><--instance><shop-one><shop-two>
zendrelctl verify --www-root=$dir/host/httpdocs --application-subdirectory=my^
<zendrelctl><verify><--www-root=$dir/host/httpdocs><--application-subdirectory=my page>
zendrelctl apache package --php=f^/run/x
<zendrelctl><apache><package><--php=fpm:/run/x>
zendrel --ru^--metadata-file= --script-name=up^--add^x --add^y
<zendrel><--run-application-script><--metadata-file=><--script-name=upgrade><--additional-script-params=x><--additional-script-params=y>
zendrel --extract-application --metadata-file= --user-n^ali^--metadata-f^
<zendrel><--extract-application><--metadata-file=><--user-name=alice><--metadata-f>
zendrel --extract-application --application-full-name=f^${dir#/}/pack^x
<zendrel><--extract-application><--application-full-name=file:///$dir/package/x>
END
sed -n 'p;n' cases >typed
sed -n 'n;s,[/=]>,>,g;p' cases >expected
type_everywhere typed expected

# The options of each command are those that the program has.
zendrelctl --help | sed -n 's/^  \([a-z-]*\) .*/zendrelctl \1 --*/p' >typed
while read -r _ command _; do
    zendrelctl "$command" --help | sed -nE 's/^  (-h \[ )?(--[a-z-]+).*/\2/p' | sort |
        sed "1i zendrelctl\n$command" | sed 's/.*/<&>/' | tr -d '\n'
    echo
done <typed >expected
type_everywhere typed expected

{ zendrel --help 2>&1 || true; } | sed -n 's/^ *\(--[a-z]*-[a-z-]*\).*/zendrel \1 --*/p' >typed
type_into "${setups%%$'\n'*}" <typed >expected
type_everywhere typed expected
while read -r command options; do
    for option in $options; do
        said=$(zendrel "$command" "$option=1" </dev/null 2>&1 || true)
        [[ $said != *'unrecognised option'* ]] || { echo "zendrel $command has no $option" && failed=1; }
    done
done < <(sed 's/<zendrel>//; s/[<>]/ /g' expected)

exit "$failed"
