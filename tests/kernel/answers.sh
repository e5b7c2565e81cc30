# shellcheck shell=bash
# shellcheck disable=SC2154  # out is the caller's
# Checks the tool's output and exit status. Sourced by the scripts, after lib.sh.

# answers STATUS ARGUMENT...: the tool ends with that status; its output is in $out/answer and
# $out/complaint. A JSON document must be as its schema says.
answers() {
    local wanted=$1 status=0
    shift
    printf -- '-- %s: tarnfw %s\n' "$wanted" "$*"
    tarnfw "$@" >"$out/answer" 2>"$out/complaint" || status=$?
    if ((status != wanted)); then
        cat -- "$out/answer" "$out/complaint"
        fail "tarnfw $* ends with $status instead of $wanted"
    fi
    if [[ " $* " == *' --json '* && -s $out/answer ]]; then
        "$checkout/tests/kernel/json_answer" "$checkout/docs/tarnfw-json.schema.json" "$@" \
            <"$out/answer" || fail 'not as its schema says'
    fi
}

# says PATTERN: a line of the last answer matches it.
says() {
    grep --quiet -- "$1" "$out/answer" || {
        cat -- "$out/answer"
        fail "no such line: $1"
    }
}

# prints: the last answer is exactly the standard input.
prints() {
    diff -u - "$out/answer" || fail 'not the output expected'
}

# complains PATTERN: the last complaint is one line and matches it. Lines of the library's log may
# come after it.
complains() {
    local -r logged='^tarnfw: [A-Za-z]*:[0-9]* '
    if head -n 1 -- "$out/complaint" | grep --quiet -- "$logged"; then
        cat -- "$out/complaint"
        fail 'lines of the log come before the cause'
    fi
    sed "/$logged/d" "$out/complaint" >"$out/own_complaint"
    if [[ $(wc -l <"$out/own_complaint") != 1 ]] || ! grep --quiet -- "$1" "$out/own_complaint"; then
        cat -- "$out/complaint"
        fail "not this one line: $1"
    fi
}

silent() {
    [[ ! -s $out/complaint ]] || {
        cat -- "$out/complaint"
        fail 'a complaint where there should be none'
    }
}

# prints_json: the last answer is the JSON document on standard input, in any layout.
prints_json() {
    diff -u <(/usr/bin/python3 -m json.tool --sort-keys) \
        <(/usr/bin/python3 -m json.tool --sort-keys "$out/answer") || fail 'not the document expected'
}

# keep_files NAME, same_files NAME: what is in the profile directory.
keep_files() {
    find "$kProfileDirectory" -type f -exec sha256sum -- {} + | LC_ALL=C sort >"$out/$1.files"
}

same_files() {
    keep_files now
    diff -u "$out/$1.files" "$out/now.files"
}

# asked STATUS QUESTION ANSWER ARGUMENT...: on a terminal it asks QUESTION, gets ANSWER and ends with
# that status; its output after the answer, including an echo of it, is in $out/answer.
asked() {
    local wanted=$1 question=$2 answer=$3 status=0
    shift 3
    printf -- '-- %s: on a terminal, "%s": tarnfw %s\n' "$wanted" "$answer" "$*"
    /usr/bin/python3 "$checkout/tests/kernel/answer_terminal.py" "$question" "$answer" \
        "$build/tools/tarnfw/tarnfw" "$@" >"$out/answer" 2>"$out/complaint" || status=$?
    if ((status != wanted)); then
        cat -- "$out/answer" "$out/complaint"
        fail "tarnfw $*, answered \"$answer\", ends with $status instead of $wanted"
    fi
}

# refused STATUS PATTERN ARGUMENT...: that status, a complaint that matches, and no changed file.
refused() {
    local status=$1 pattern=$2
    shift 2
    keep_files refused
    answers "$status" "$@"
    step 'nothing on standard output' [ ! -s "$out/answer" ]
    grep --quiet -- "$pattern" "$out/complaint" || {
        cat -- "$out/complaint"
        fail "no complaint like: $pattern"
    }
    step 'no file has changed' same_files refused
}

# store_home_and_copy: "home", active, with a rule for eth0, and its copy "third"; mode "lines" is chosen.
store_home_and_copy() {
    answers 0 base up
    answers 0 apply-mode lines
    answers 0 profile create home --empty
    answers 0 policy eth0 deny --profile home
    answers 0 rule add --adapter eth0 --profile home allow service ssh from 192.168.1.0/24
    answers 0 profile copy home third
    answers 0 profile use home
}
