# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A trial ends with a confirmation, and otherwise restores the previous rules:
# after the time limit, on Ctrl-C, when the terminal is lost or one of the two processes is killed.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kTrialSocket=/run/tarn/trial.sock
readonly kLong=600 # seconds that no trial here takes

# on_terminal STATUS SCENARIO: runs a scenario of tool_try.py, which runs the tool on its own terminal.
on_terminal() {
    local status=0
    printf -- '-- %s: on a terminal: %s\n' "$1" "$2"
    /usr/bin/python3 "$checkout/tests/kernel/scripts/tool_try.py" "$build/tools/tarnfw/tarnfw" "$2" ||
        status=$?
    [[ $status == "$1" ]] || fail "$2 ends with $status instead of $1"
}

# in_background ARGUMENT...: "tarnfw try" without a terminal; returns when the rules are in force.
in_background() {
    rm -f -- "$out/trial"
    mkfifo "$out/trial.fifo"
    "$build/tools/tarnfw/tarnfw" try "$@" </dev/null >"$out/trial.fifo" 2>"$out/trial.complaint" &
    trial=$!
    exec {reports}<"$out/trial.fifo"
    rm -- "$out/trial.fifo"
    local line way
    read -r line <&"$reports"
    [[ $line == *'are in force'* ]] || fail "the trial does not begin: $line"
    read -r way <&"$reports"
    [[ $way == '"tarnfw try --confirm" keeps them.' ]] || fail "not how to keep them: $way"
}

# ends STATUS: the trial in the background ends with it.
ends() {
    local status=0
    wait "$trial" || status=$?
    exec {reports}<&-
    [[ $status == "$1" ]] || {
        cat -- "$out/trial.complaint"
        fail "the trial ends with $status instead of $1"
    }
}

await_end() {
    while [[ -S $kTrialSocket ]]; do
        :
    done
}

# gone_back: the rules are those of before, and nothing is left of the trial.
gone_back() {
    step 'the rules are those of before' same_listing home
    step 'the settings are those of before' cmp "$kSettings" /tmp/settings
    step 'no test profile is left' [ -z "$(grep --files-with-matches .test_ "$kProfileDirectory"/*)" ]
    step 'nobody listens any more' [ ! -e "$kTrialSocket" ]
}

# --- two profiles ----------------------------------------------------------------------------------

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
answers 0 base up
use_profile deny_by_default
cp -- "$checkout/tests/kernel/cases/deny_ssh_on_one_adapter/profile.json" "$kProfileDirectory/new.json"
new=deny_ssh_on_one_adapter

answers 1 try "$new"
complains '^tarnfw: the firewall is disabled, so a trial has no rules to restore; "tarnfw enable" switches it on$'
activate "$new"
answers 0 enable
keep_listing new
activate deny_by_default
answers 0 enable
keep_listing home
cp -- "$kSettings" /tmp/settings
step 'the two differ' [ "$(<"$out/new.v4")" != "$(<"$out/home.v4")" ]

# --- what cannot be tried --------------------------------------------------------------------------

answers 1 try nowhere
complains '^tarnfw: there is no profile "nowhere" (profiles: default, deny_by_default, '
answers 1 try deny_by_default
complains '^tarnfw: profile "deny_by_default" is the active one, which a trial restores; '
answers 1 try --confirm
complains '^tarnfw: there is no trial$'
answers 1 try --cancel
complains '^tarnfw: there is no trial$'
answers 2 try
answers 2 try "$new" --timeout 0
answers 2 try "$new" --timeout soon
answers 2 try "$new" --confirm
answers 2 try --confirm --cancel
gone_back

# --- a person at a terminal ------------------------------------------------------------------------

on_terminal 1 nobody_confirms
gone_back
on_terminal 1 ctrl_c
gone_back
on_terminal 1 ctrl_d
gone_back
on_terminal 1 watchdog_killed
gone_back
on_terminal 0 terminal_lost
await_end
gone_back
on_terminal 0 command_killed
await_end
gone_back

on_terminal 0 both_killed
step 'the trial is abandoned' [ -e "$kTrialSocket" ]
answers 0 status
says "^Trial: *of \"$new\", abandoned; \"tarnfw try --cancel\" ends it"
answers 0 try --cancel
prints <<<"Abandoned trial of \"$new\" ended; the active profile's rules are in force"
gone_back

# Typed before the rules were in force: for something else.
on_terminal 1 enter_too_early
gone_back

# --- another terminal, and none --------------------------------------------------------------------

in_background "$new" --timeout 1
ends 1
step 'why is said' grep --quiet --line-regexp \
    "tarnfw: profile \"$new\" was not kept: nobody confirmed in time; .* in force again" \
    "$out/trial.complaint"
gone_back

in_background "$new" --timeout "$kLong"
keep_listing tried
step 'the rules are those that are tried' diff -u \
    <(grep -v ESTABLISHED "$out/new.v4") <(grep -v ESTABLISHED "$out/tried.v4")
step 'established connections get nothing extra' [ -z "$(grep ESTABLISHED "$out/tried.v4")" ]
answers 0 status
says "^Trial: *of \"$new\", [0-9]* s left"
answers 1 try "$new"
complains '^tarnfw: another trial is running; "tarnfw status" shows it$'
answers 0 try --cancel
prints <<<"Trial of \"$new\" ended; the active profile's rules are in force"
ends 1
gone_back

# A watchdog is not held up by one who calls and says nothing.
in_background "$new" --timeout 1
/usr/bin/python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.connect(sys.argv[1])
s.recv(1)' "$kTrialSocket"
ends 1
gone_back

in_background "$new" --timeout "$kLong"
kill -TERM "$trial"
ends 1
gone_back

in_background "$new" --timeout "$kLong"
answers 0 try --confirm
prints <<<"Kept: profile \"$new\" is now the active one"
ends 0
step 'the rules are the new ones' same_listing new
step 'the new profile is active' [ "$(tarnfw profile list | grep '^\*')" = "* $new" ]
step 'no test profile is left' [ -z "$(grep --files-with-matches .test_ "$kProfileDirectory"/*)" ]

activate deny_by_default
answers 0 enable
on_terminal 0 enter
step 'the rules are the new ones' same_listing new

# --- rules that the machine cannot put in force -----------------------------------------------------

activate deny_by_default
answers 0 enable
same_listing home
words=$(printf 'x%.0s ' {1..300})
sed 's/"name" *: *"[^"]*"\(,\{0,1\}\)$/&/; s/"192.168.1.20"/"'"$words"'"/' \
    "$checkout/tests/kernel/cases/single_address/profile.json" >"$kProfileDirectory/broken.json"
step 'the profile is broken' grep --quiet "$words" "$kProfileDirectory/broken.json"
answers 1 try single_address
step 'why is said' grep --quiet "was not kept: its rules cannot be applied" "$out/complaint"
rm -- "$kProfileDirectory/broken.json"
gone_back

# --- a firewall that is switched off meanwhile ------------------------------------------------------

in_background "$new" --timeout "$kLong"
answers 0 disable
answers 0 try --cancel
ends 1
answers 0 status
says '^Firewall: *disabled$'
step 'nothing is in force' [ -z "$(listing v4 | grep -- '^-A INPUT_FIREWALL')" ]
