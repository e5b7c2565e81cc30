# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A trial ends with a confirmation, and otherwise restores the previous rules:
# after the time limit, on Ctrl-C, when the terminal is lost or one of the two processes is killed.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

# --- two profiles ----------------------------------------------------------------------------------

store_two_profiles
answers 1 try "$new"
complains '^tarnfw: the firewall is disabled, so a trial has no rules to restore; "tarnfw enable" switches it on$'
keep_both_listings

# --- what cannot be tried --------------------------------------------------------------------------

answers 5 try nowhere
complains '^tarnfw: there is no profile "nowhere" (profiles: default, deny_by_default, '
answers 1 try deny_by_default
complains '^tarnfw: profile "deny_by_default" is the active one, which a trial restores; '
answers 5 try --confirm
complains '^tarnfw: there is no trial$'
answers 5 try --cancel
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
answers 11 status
says "^Trial: *of \"$new\", abandoned; \"tarnfw try --cancel\" ends it"
answers 0 try --cancel
prints <<<"Abandoned trial of \"$new\" ended; the previous rules are in force again"
gone_back

# Typed before the rules were in force: for something else.
on_terminal 1 enter_too_early
gone_back

# --- another terminal, and none --------------------------------------------------------------------

in_background "$new" --timeout 1
step 'what it opens and closes is said first' grep --quiet '^Opens everything except service http,https, ' "$out/trial.changes"
ends 1
step 'why is said' grep --quiet --line-regexp \
    "tarnfw: profile \"$new\" was not kept: nobody confirmed in time; .* in force again" \
    "$out/trial.complaint"
gone_back

in_background "$new" --timeout "$kLong" --quiet
step 'or not' [ ! -s "$out/trial.changes" ]
keep_listing tried
step 'the rules are those that are tried' diff -u \
    <(grep -v ESTABLISHED "$out/new.v4") <(grep -v ESTABLISHED "$out/tried.v4")
step 'established connections get nothing extra' [ -z "$(grep ESTABLISHED "$out/tried.v4")" ]
answers 0 status
says "^Trial: *of \"$new\", [0-9]* s left"

# Another program changes the rules meanwhile.
readonly kOthers='the rules of the trial are not those in force; "tarnfw try --cancel" ends the trial'
iptables-save -t filter >"$out/tried"
for change in '-I INPUT_FIREWALL 1 -j ACCEPT' '-F INPUT_FIREWALL'; do
    # shellcheck disable=SC2086  # words of a command
    iptables $change
    answers 11 status
    says "^Firewall: *enabled, but $kOthers\$"
    iptables-restore <"$out/tried"
    answers 0 status
done

answers 1 try "$new"
complains "^tarnfw: a trial of \"$new\" is running; \"tarnfw try --confirm\" keeps its rules, "
answers 0 try --cancel
prints <<<"Trial of \"$new\" ended; the previous rules are in force again"
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
complains '^tarnfw: rule [0-9]* of [a-z0-9]*: this kernel refuses .*; profile "single_address" has [0-9]* lines\{0,1\} that it refuses'
gone_back
# Without the right to try them elsewhere, the library finds it, and disables the firewall.
refuses 'a trial ends' setpriv --bounding-set -sys_admin \
    "$build/tools/tarnfw/tarnfw" try single_address 2>"$out/complaint"
step 'why is said' grep --quiet "was not kept: its rules cannot be applied" "$out/complaint"
rm -- "$kProfileDirectory/broken.json"
gone_back

# In apply mode "lines" the library does not look whether its commands succeed.
answers 0 apply-mode lines
cp -- "$kSettings" /tmp/settings
wrap_iptables
mkdir /tmp/unspoilt
mv /tmp/wrapped/iptables /tmp/unspoilt
cat >/tmp/wrapped/iptables <<'END'
#!/bin/sh
if [ -e /tmp/refuse ]; then
    case $* in
    *"$(cat /tmp/refuse)"*)
        rm /tmp/refuse
        echo refused >&2
        exit 1
        ;;
    esac
fi
exec /tmp/unspoilt/iptables "$@"
END
chmod +x /tmp/wrapped/iptables
for line in '-A INPUT_FIREWALL ' '-F INPUT_FIREWALL'; do
    printf '%s' "$line" >/tmp/refuse
    answers 1 try "$new" --timeout 1
    step "\"$line\" was refused" [ ! -e /tmp/refuse ]
    step 'why is said' grep --quiet --line-regexp \
        "tarnfw: profile \"$new\" was not kept: the kernel did not get all of its rules; the previous rules are in force again" \
        "$out/complaint"
    gone_back

    in_background "$new" --timeout "$kLong"
    printf '%s' "$line" >/tmp/refuse
    answers 1 try --confirm
    step "\"$line\" was refused" [ ! -e /tmp/refuse ]
    complains 'was not kept: .*the kernel did not get all rules of the profile'
    ends 1 'the previous rules are in force again$'
    gone_back
done
