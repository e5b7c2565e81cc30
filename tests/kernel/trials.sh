# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154  # what is assigned is the scripts'; build, checkout and out are the caller's
# Trials of a profile. Sourced by the scripts, after lib.sh and answers.sh.

readonly kTrialSocket=/run/tarn/trial.sock
readonly kReloadLock=/tmp/firewall_iptables_exec.lock
readonly kLong=600 # seconds that no trial here takes

new=deny_ssh_on_one_adapter # the profile that is tried; deny_by_default is the active one

# store_two_profiles: on a machine with one adapter and the base filter; the firewall is disabled.
store_two_profiles() {
    make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
    answers 0 base up
    use_profile deny_by_default
    cp -- "$checkout/tests/kernel/cases/$new/profile.json" "$kProfileDirectory/new.json"
}

# keep_both_listings: with $new in force as "new", and with the active profile as "home", which then
# is in force; the settings as /tmp/settings.
keep_both_listings() {
    activate "$new"
    answers 0 enable
    keep_listing new
    activate deny_by_default
    answers 0 enable
    keep_listing home
    cp -- "$kSettings" /tmp/settings
    step 'the two differ' [ "$(<"$out/new.v4")" != "$(<"$out/home.v4")" ]
}

# on_terminal STATUS SCENARIO: runs a scenario of tool_try.py, which runs the tool on its own terminal.
on_terminal() {
    local status=0
    printf -- '-- %s: on a terminal: %s\n' "$1" "$2"
    /usr/bin/python3 "$checkout/tests/kernel/scripts/tool_try.py" "$build/tools/tarnfw/tarnfw" "$2" ||
        status=$?
    [[ $status == "$1" ]] || fail "$2 ends with $status instead of $1"
}

# in_background ARGUMENT...: "tarnfw try" without a terminal; returns when the rules are in force. Its
# complaints go to the file $complaints, if that is set.
in_background() {
    rm -f -- "$out/trial"
    mkfifo "$out/trial.fifo"
    "$build/tools/tarnfw/tarnfw" try "$@" </dev/null >"$out/trial.fifo" \
        2>"${complaints:-$out/trial.complaint}" &
    trial=$!
    exec {reports}<"$out/trial.fifo"
    rm -- "$out/trial.fifo"
    local line way
    : >"$out/trial.changes" # what it says that it opens and closes
    while read -r line <&"$reports" && [[ $line != *'are in force'* ]]; do
        printf '%s\n' "$line" >>"$out/trial.changes"
    done
    [[ $line == *'are in force'* ]] || {
        cat -- "$out/trial.complaint"
        fail "the trial does not begin: $line"
    }
    read -r way <&"$reports"
    [[ $way == '"tarnfw try --confirm" keeps them.' ]] || fail "not how to keep them: $way"
}

# ends STATUS [PATTERN]: the trial in the background ends with it; a complaint before the first line of
# the library's log matches.
ends() {
    local status=0
    wait "$trial" || status=$?
    exec {reports}<&-
    if [[ $status != "$1" ]]; then
        cat -- "$out/trial.complaint"
        fail "the trial ends with $status instead of $1"
    fi
    if (($# > 1)) &&
        ! sed '/^tarnfw: [A-Za-z]*:[0-9]* /Q' "$out/trial.complaint" | grep --quiet -- "$2"; then
        cat -- "$out/trial.complaint"
        fail "the trial does not end with: $2"
    fi
}

await_end() {
    while [[ -S $kTrialSocket ]]; do
        sleep 0.02
    done
}

# watchdog: prints the number of its process. It is the only child of the trial in the background.
watchdog() {
    local children
    read -r children <"/proc/$trial/task/$trial/children" || true
    printf '%s' "${children%% *}"
}

# await_status PATTERN: until the tool's status has such a line.
# A watchdog has waited its time for a lock before it says so.
await_status() {
    printf -- '-- until the status says: %s\n' "$1"
    local i
    for ((i = 0; i < 150; ++i)); do
        tarnfw status >"$out/answer" || (($? == 11)) # the rules are not the stored ones
        ! grep --quiet -- "$1" "$out/answer" || return 0
        sleep 0.2
    done
    cat -- "$out/answer"
    fail "the status never says: $1"
}

no_test_profile() {
    ! grep --quiet --recursive --exclude-dir=.change .test_ "$kProfileDirectory"
}

# gone_back: the rules are those of before, and nothing is left of the trial.
gone_back() {
    step 'the rules are those of before' same_listing home
    step 'the settings are those of before' cmp "$kSettings" /tmp/settings
    step 'no test profile is left' no_test_profile
    step 'nobody listens any more' [ ! -e "$kTrialSocket" ]
    step 'no record is left' [ ! -e /run/tarn/trial.json ]
}
