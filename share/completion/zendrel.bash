# Completion of zendrel's and zendrelctl's words in bash 4.3 or later: found under either name by the
# package bash-completion, or read with "." where that is not installed.
# shellcheck shell=bash

# Sets `words` to the words up to the cursor as a program gets them, but with their quotes: bash has
# cut them at "=" and ":" as well.
_zendrel_words() {
    local line=${COMP_LINE:0:COMP_POINT} blanks word i
    words=()
    for ((i = 0; i <= COMP_CWORD; i++)); do
        blanks=${line%%[![:space:]]*}
        line=${line:${#blanks}}
        word=${COMP_WORDS[i]}
        ((i < COMP_CWORD)) || word=$line
        line=${line#"$word"}
        if ((i == 0)) || [[ -n $blanks ]]; then
            words+=("$word")
        else
            words[-1]+=$word
        fi
    done
}

# Prints the program to ask. Who is not root may not have it in the path.
_zendrel_program() { # WORD
    type -P -- "${1/#~\//$HOME/}" || type -P zendrelctl || echo /usr/sbin/zendrelctl
}

# Prints the options in a help text of zendrelctl, those with a value followed by "=".
_zendrel_options_in() { # TEXT
    local line form='^  (-. \[ )?(--[a-z-]+)( \])?( [[:alpha:]]+)?( |$)'
    while IFS= read -r line; do
        [[ ! $line =~ $form ]] || printf '%s\n' "${BASH_REMATCH[2]}${BASH_REMATCH[4]:+=}"
    done <<<"$1"
}

# Adds the paths that begin like WORD to COMPREPLY. Readline quotes them.
_zendrel_paths() { # f|d LEAD WORD
    local path
    compopt -o filenames
    while IFS= read -r path; do
        COMPREPLY+=("$2$path")
    done < <(compgen "-$1" -- "$3")
}

# Adds what begins like WORD to COMPREPLY.
_zendrel_choice() { # LEAD WORD CANDIDATE...
    local lead=$1 word=$2 candidate
    shift 2
    for candidate; do
        [[ $candidate != "$word"* ]] || COMPREPLY+=("$lead$candidate")
    done
}

# Adds the values of an option to COMPREPLY.
_zendrel_values() { # PROGRAM OPTION LEAD VALUE
    local lead=$3 value=$4 root='' word names=()
    case $2 in
        --vhost-path | --www-root)
            _zendrel_paths d "$lead" "$value"
            ;;
        --metadata-file | --php-cli | --output | --not-in)
            _zendrel_paths f "$lead" "$value"
            ;;
        --application-full-name)
            if [[ $value == file:///* ]]; then
                value=${value#file:///}
                _zendrel_paths d "${lead}file:///" "${value:-/}"
            else
                compopt -o nospace
                _zendrel_choice "$lead" "$value" file:////
            fi
            ;;
        --application-subdirectory)
            for word in "${words[@]}"; do
                [[ $word != --www-root=?* ]] || root=${word#*=}
            done
            [[ -z $root ]] || mapfile -t names < <(cd -- "$root" &>/dev/null && compgen -d -- "$value")
            compopt -o filenames -o nospace
            _zendrel_choice "$lead" "$value" . "${names[@]}"
            ;;
        --user-name)
            mapfile -t names < <(compgen -u)
            _zendrel_choice "$lead" "$value" "${names[@]}"
            ;;
        --instance)
            mapfile -t names < <("$1" instances 2>/dev/null)
            _zendrel_choice "$lead" "$value" "${names[@]%% *}"
            ;;
        --php)
            if [[ $value == fpm:* ]]; then
                _zendrel_paths f "${lead}fpm:" "${value#fpm:}"
            else
                compopt -o nospace
                _zendrel_choice "$lead" "$value" mod fpm:
            fi
            ;;
        --script-name)
            _zendrel_choice "$lead" "$value" install configure upgrade remove enable disable query
            ;;
        --script-language)
            _zendrel_choice "$lead" "$value" php perl binary mo-engine-tarvikrun
            ;;
        --disable-php-support | --disable-cgi-support)
            _zendrel_choice "$lead" "$value" 1 0
            ;;
    esac
}

# Completes an option, its value, or an operand that is a directory.
_zendrel_argument() { # PROGRAM OPERANDS OPTION...
    local program=$1 operands=$2 current=${words[-1]} previous=${words[-2]} option offered=() word
    shift 2
    if [[ $current == --*=* ]]; then
        local lead=${current%%=*}= value=${current#*=}
        case $value in
            [\"\']*) lead+=${value:0:1} value=${value:1} ;;
        esac
        _zendrel_values "$program" "${current%%=*}" "$lead" "$value"
        return
    fi
    for option; do
        if [[ $option == "$previous=" ]]; then
            _zendrel_values "$program" "$previous" '' "$current"
            return
        fi
    done
    if [[ $current != -* && -n $operands ]]; then
        _zendrel_paths d '' "$current"
        return
    fi
    for option; do
        for word in "${words[@]:1:${#words[@]}-2}"; do
            case $option in
                --script-parameter= | --additional-script-params=) ;;
                *) [[ ${word%%=*} != "${option%=}" ]] || continue 2 ;;
            esac
        done
        offered+=("$option")
    done
    _zendrel_choice '' "$current" "${offered[@]}"
    # A blank follows a switch; what follows "=" is for the user to say.
    [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *= ]] || compopt -o nospace
}

# Readline puts the answers in the place of WORD, the end of the last word: the rest goes.
_zendrel_cut() { # WORD
    local kept=${words[-1]%"$1"}
    COMPREPLY=("${COMPREPLY[@]#"$kept"}")
}

_zendrelctl() {
    local words program help command options=() operands=
    COMPREPLY=()
    _zendrel_words
    program=$(_zendrel_program "$1")
    if ((${#words[@]} == 2)); then
        help=$("$program" --help 2>/dev/null)
        while read -r command _; do
            options+=("$command")
        done < <(grep '^  [a-z]' <<<"$help")
        _zendrel_choice '' "${words[1]}" "${options[@]}" --help --version
        return
    fi
    help=$("$program" "${words[1]}" --help 2>/dev/null)
    mapfile -t options < <(_zendrel_options_in "$help")
    [[ ${help%%$'\n'*} != *' PACKAGE'* ]] || operands=PACKAGE
    _zendrel_argument "$program" "$operands" "${options[@]}"
    _zendrel_cut "$2"
}
complete -F _zendrelctl zendrelctl

_zendrel() {
    local words options=() commands=(--extract-application --delete-application
        --run-application-script --install-apache-conf --remove-apache-conf --help)
    COMPREPLY=()
    _zendrel_words
    if ((${#words[@]} == 2)); then
        _zendrel_choice '' "${words[1]}" "${commands[@]}"
        return
    fi
    # Not from the usage text, which does not have all, and some by other names.
    case ${words[1]} in
        --extract-application)
            options=(--application-full-name= --vhost-path= --www-root= --user-name=
                --application-subdirectory= --metadata-file= --skip-webserver-write)
            ;;
        --delete-application)
            options=(--vhost-path= --www-root= --user-name= --application-subdirectory=
                --application-full-name=)
            ;;
        --run-application-script)
            options=(--application-full-name= --script-name= --user-name= --script-file-name=
                --script-language= --php-cli= --additional-script-params=)
            ;;
        --install-apache-conf)
            options=(--vhost-path= --www-root= --application-subdirectory= --metadata-file=
                --config-file-name= --disable-php-support= --disable-cgi-support=)
            ;;
        --remove-apache-conf)
            options=(--vhost-path= --www-root= --config-file-name=)
            ;;
    esac
    _zendrel_argument '' '' "${options[@]}"
    _zendrel_cut "$2"
}
complete -F _zendrel zendrel
