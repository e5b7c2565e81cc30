# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw help: the topics, and the help texts of commands; it needs neither root nor a store.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

topics=(first-steps profiles rules addresses services trials exit-status files iptables)

all_of_it() {
    answers 0 --help
    cp -- "$out/answer" "$out/short"
    answers 0 help
    silent
    step 'it begins with what --help prints' cmp "$out/short" \
        <(head --bytes "$(stat --format %s "$out/short")" "$out/answer")
    step 'and ends with the topics' diff -u <(printf '%s\n' "${topics[@]}") \
        <(sed -n '/^Topics /,$s/^  \([a-z][a-z-]*\)  .*/\1/p' "$out/answer")

    local topic
    for topic in "${topics[@]}"; do
        answers 0 help "$topic"
        silent
        cp -- "$out/answer" "$out/topic.$topic"
        step 'a heading, a blank line, text' \
            [ "$(sed -n '2p' "$out/answer")" = '' ]
        step 'which no other topic has' [ "$(cat -- "$out"/topic.* | grep --count --line-regexp \
            --fixed-strings "$(head -n 1 "$out/answer")")" = 1 ]
    done
    rm -- "$out"/topic.*

    # Every command, as deep as they go; a topic's text comes before a command of the same name.
    commands_of
}

# subcommands WORD...: those that the help text lists.
subcommands() {
    tarnfw "$@" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\)\( .*\)\{0,1\}$/\1/p'
}

commands_of() {
    local command
    for command in $(subcommands "$@"); do
        answers 0 "$@" "$command" --help
        cp -- "$out/answer" "$out/short"
        answers 0 help "$@" "$command"
        silent
        if [[ $* != '' || " ${topics[*]} " != *" $command "* ]]; then
            step 'the same as --help' diff -u "$out/short" "$out/answer"
        fi
        commands_of "$@" "$command"
    done
}

all_of_it

# wrong PATTERN WORD...: refused as wrong usage, in one line.
wrong() {
    local pattern=$1
    shift
    answers 2 help "$@"
    step 'nothing on standard output' [ ! -s "$out/answer" ]
    complains "$pattern"
}
wrong '^tarnfw: there is no help for "adresses"; did you mean "tarnfw help addresses"? (' adresses
wrong '^tarnfw: there is no help for "statsu"; did you mean "tarnfw help status"? (' statsu
wrong '^tarnfw: there is no help for "rule ad"; did you mean "tarnfw help rule add"? (' rule ad
wrong '^tarnfw: there is no help for "rule add more" (' rule add more
wrong '^tarnfw: there is no help for "firewall" ("tarnfw help" lists commands and topics)$' firewall
wrong '^tarnfw: there is no help for "rules"; did you mean "tarnfw help rule"? (' rules add
wrong '^tarnfw: there is no help for "complete" (' complete
wrong '^tarnfw: there is no help for "odd?\[2J"' $'odd\e[2J'
answers 2 help --nonsense

# The rules that the topic shows are rules.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
answers 0 base up
python3 - /usr/share/xt_geoip <<'PYTHON'
import struct
import sys

for code in ("CN", "RU"):
    with open(f"{sys.argv[1]}/{code}.iv4", "wb") as file:
        file.write(struct.pack("=II", 0x0A000000, 0x0A0000FF))
PYTHON
# run_examples TOPIC: the commands that it shows, in their order; how many is left in $shown.
run_examples() {
    local tool line words
    shown=0
    while read -r tool line; do
        read -r -a words <<<"$line"
        step 'an example' [ "$tool" = tarnfw ]
        case ${words[0]} in
        try) confirmed_trial "${words[@]}" ;;
        blocked) answers 10 "${words[@]}" ;; # from some addresses only
        *) answers 0 "${words[@]}" ;;
        esac
        shown=$((shown + 1))
    done < <(tarnfw help "$1" |
        sed -n -e ':more; /\\$/{N; s/\\\n */ /; b more}' -e '/ADAPTER/d' -e 's/^  tarnfw /tarnfw /' \
            -e 's/ \{3,\}.*//' -e '/^tarnfw /p')
}

# confirmed_trial WORD...: with the confirmation of another terminal.
confirmed_trial() {
    tarnfw "$@" >"$out/trial" 2>&1 </dev/null &
    local trial=$!
    until tarnfw try --confirm >/dev/null 2>&1; do
        step 'the trial goes on' kill -0 "$trial"
        sleep 0.05
    done
    step 'the trial is kept' wait "$trial"
}

run_examples rules
step 'nine of them' [ "$shown" = 9 ]

# So are the first steps, from their beginning, for a machine that has not begun.
answers 0 base down
rm -- "$kProfileDirectory"/*.json
run_examples first-steps
step 'thirteen of them' [ "$shown" = 13 ]
answers 0 status
says '^Active profile: *home$'
says '^Firewall: *enabled$'

# The examples that end the help of each command are commands. What they find here differs, and so does how
# they end; "try" is refused at once, since "disable" comes before it.
examples_of() {
    tarnfw "$@" --help | sed -n -e '/^Examples:$/,$s/^  \(tarnfw .*\)/\1/p' -e 's/^Example: //p' \
        -e '/^Examples: /{s///; s/, /\n/g; p}'
}

# noting_wrong_usage ARGUMENT...: the tool; other programs of an example may end with 2 as well.
noting_wrong_usage() {
    local status=0
    "$build/tools/tarnfw/tarnfw" "$@" || status=$?
    ((status != 2)) || touch "$out/wrong_usage"
    return "$status"
}

run_all_examples() {
    local command line
    for command in $(subcommands "$@"); do
        if [[ -n $(subcommands "$@" "$command") ]]; then
            run_all_examples "$@" "$command"
            continue
        fi
        step "an example of: $* $command" [ -n "$(examples_of "$@" "$command")" ]
        while read -r line; do
            printf -- '-- %s\n' "$line"
            (cd /tmp && EDITOR=true eval "${line//tarnfw /noting_wrong_usage }") >"$out/answer" \
                2>"$out/complaint" </dev/null || true
            [[ ! -e $out/wrong_usage ]] || {
                cat -- "$out/complaint"
                fail "wrong usage: $line"
            }
        done < <(examples_of "$@" "$command")
    done
}

answers 0 profile copy home travel
cp -- "$checkout/examples/lan-only.json" /tmp/home.json
cp -- "$checkout/examples/lan-only.json" /tmp/travel.json
answers 0 disable
run_all_examples
answers 0 base up

ordinary=(setpriv --reuid 65534 --regid 65534 --clear-groups --inh-caps +dac_override
    --ambient-caps +dac_override --)
if "${ordinary[@]}" true 2>/dev/null; then
    tarnfw() {
        "${ordinary[@]}" "$build/tools/tarnfw/tarnfw" "$@"
    }
    all_of_it
fi
