# shellcheck shell=bash
# Completion for bash. What can come next is the tool's to say ("tarnfw complete"); this hands it the
# words, and quotes what comes back.

_tarnfw() {
    local rest=${COMP_LINE:0:COMP_POINT} words=() piece='' current head quote='' files='' candidate i
    # bash parts words at "=" and ":" as well, and wants back what follows the last of these.
    for piece in "${COMP_WORDS[@]:0:COMP_CWORD+1}"; do
        if ((${#words[@]} == 0)) || [[ $rest == [[:blank:]]* ]]; then
            words+=('')
            rest=${rest#"${rest%%[![:blank:]]*}"}
        fi
        piece=${piece:0:${#rest}}
        words[-1]+=$piece
        rest=${rest#"$piece"}
    done
    [[ $piece != [=:]* ]] || piece=''
    # The words as the tool would get them.
    case $piece in
    [\'\"]*) quote=${piece:0:1} ;;
    esac
    head=${words[-1]%"$piece"}
    piece=${piece#"$quote"}
    # shellcheck disable=SC2162  # the backslashes are to go
    IFS= read head <<<"$head"
    # shellcheck disable=SC2162
    [[ $quote == "'" ]] || IFS= read piece <<<"$piece"
    current=$head$piece

    COMPREPLY=()
    while IFS= read -r candidate; do
        if [[ $candidate == '<file>' ]]; then
            files=yes
            continue
        fi
        COMPREPLY+=("${candidate#"$head"}")
    done < <(tarnfw complete -- "${words[@]:1:${#words[@]}-2}" "$current" 2>/dev/null)
    if [[ $files == yes ]]; then
        # With this option bash quotes all of them by itself.
        compopt -o filenames 2>/dev/null
        while IFS= read -r candidate; do
            COMPREPLY+=("$candidate")
        done < <(compgen -f -- "$piece")
        return
    fi
    for i in "${!COMPREPLY[@]}"; do
        case $quote in
        \') COMPREPLY[i]=${COMPREPLY[i]//\'/\'\\\'\'} ;;
        \")
            for piece in \\ \" \$ \`; do
                COMPREPLY[i]=${COMPREPLY[i]//"$piece"/"\\$piece"}
            done
            ;;
        *)
            printf -v "COMPREPLY[i]" %q "${COMPREPLY[i]}"
            # A comma means something between braces only, and those are quoted.
            COMPREPLY[i]=${COMPREPLY[i]//'\,'/,}
            ;;
        esac
    done
}

complete -F _tarnfw tarnfw
