#!/usr/bin/env bash
# Looks the collection over, without a network: its documentation, its playbooks and roles, its modules.
set -euo pipefail
unset CDPATH TMPDIR PYTHONPATH
PATH=/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin
dir=$(mktemp -d /tmp/zendrel-form.XXXXXX)
trap 'rm -rf "$dir"' EXIT
export HOME=$dir ANSIBLE_HOME=$dir ANSIBLE_COLLECTIONS_PATH=$dir NO_COLOR=1 LC_ALL=C.UTF-8
mkdir -p "$dir/ansible_collections/veska"
cp -r "$(dirname -- "$(realpath -- "$0")")/.." "$dir/ansible_collections/veska/zendrel"
cd "$dir/ansible_collections/veska/zendrel"

quietly() { # COMMAND [ARGUMENT...]: what it says is shown only when it fails
    "$@" >"$dir/log" 2>&1 </dev/null || {
        cat "$dir/log" >&2
        echo "form: this failed: $*" >&2
        exit 1
    }
}

# ansible-doc names what it does not find, and is content.
for page in module/instance{,s} role/{host,instances,package}; do
    quietly sh -c "ansible-doc -t ${page%/*} veska.zendrel.${page#*/} | grep -i 'zendrel[.]${page#*/} '"
done
# Roles have their defaults twice, for people and for the engine.
quietly /usr/bin/python3 -c '
import sys, yaml
for role in sys.argv[1:]:
    entries = yaml.safe_load(open(role + "/meta/argument_specs.yml"))["argument_specs"].values()
    options = [option for entry in entries for option in entry["options"].items()]
    told = {name: option["default"] for name, option in options if "default" in option}
    assert told == yaml.safe_load(open(role + "/defaults/main.yml")), role' roles/*
quietly ansible-lint --offline --strict --profile production

# What of "ansible-test sanity" needs no network. Of the rest, ansible-lint has had yamllint, the whole
# project's test has shellcheck, and the others are called below with what Debian has of them.
tests=()
for name in $(ansible-test sanity --list-tests 2>/dev/null); do
    case $name in
        ansible-doc | changelog | import | pep8 | pylint | runtime-metadata | shellcheck | validate-modules | yamllint) ;;
        *) tests+=(--test "$name") ;;
    esac
done
quietly ansible-test sanity --python "$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')" "${tests[@]}"
tools=$(/usr/bin/python3 -c 'import ansible_test; print(ansible_test.__path__[0])')/_util/controller/sanity
PYTHONPATH=$dir /usr/bin/python3 "$tools/validate-modules/validate.py" --arg-spec --plugin-type module \
    --collection ansible_collections/veska/zendrel plugins/modules/*.py >"$dir/found" 2>&1 || true
sed -i '/E:missing-gplv3-license\|Emissing-gplv3-license/d' "$dir/found" # the licence is that of the whole program
quietly diff /dev/null "$dir/found"
quietly /usr/bin/pycodestyle --max-line-length 120 --ignore E402,E741,W503,W504 plugins
echo "The collection is in order: ansible-doc, ansible-lint, validate-modules, pycodestyle, $((${#tests[@]} / 2)) tests of ansible-test."
