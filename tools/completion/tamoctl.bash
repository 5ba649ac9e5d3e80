# bash completion for tamoctl                              -*- shell-script -*-
#
# 'tamoctl complete' tells what may stand for the last word. This puts the words together that bash
# splits at ':' and '=', and quotes the answers: nothing that stands in a key is run.

_tamoctl() {
    local rest=${COMP_LINE:0:COMP_POINT} words=() word blanks at
    for ((at = 0; at <= COMP_CWORD; at++)); do
        blanks=${rest%%[^[:blank:]]*}
        rest=${rest#"$blanks"}
        word=${COMP_WORDS[at]}
        # The last word ends at the cursor.
        ((at < COMP_CWORD)) || word=$rest
        rest=${rest#"$word"}
        if ((at > 0)) && [[ -z $blanks ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
    done

    local current=${words[-1]} quote='' kept='' line offer
    if [[ $current == [\'\"]* ]]; then
        quote=${current:0:1} current=${current:1}
    elif [[ $current == *[:=]* ]]; then
        kept=${current%"${current##*[:=]}"}
    fi
    for at in "${!words[@]}"; do
        words[at]=${words[at]//[\'\"\\]/}
    done
    words[0]=${words[0]/#\~/$HOME}

    COMPREPLY=()
    while IFS= read -r line; do
        case $line in
            $'\tfile')
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -f -- "${current#"$kept"}")
                ;;
            $'\tdirectory')
                compopt -o filenames 2>/dev/null
                mapfile -t COMPREPLY < <(compgen -d -- "${current#"$kept"}")
                ;;
            *)
                offer=${line%%$'\t'*}
                offer=${offer#"$kept"}
                [[ -n $quote ]] || printf -v offer '%q' "$offer"
                COMPREPLY+=("$offer")
                ;;
        esac
    done < <("${words[0]}" complete "${words[@]}" 2>/dev/null)
}

complete -F _tamoctl tamoctl
