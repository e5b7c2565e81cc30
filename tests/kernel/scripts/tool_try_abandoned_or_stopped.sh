# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A trial whose processes were killed or stopped is named by status, with what ends it; no command
# waits for it without end.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

# abandon: a trial whose two processes are killed at once.
abandon() {
    in_background "$new" --timeout "$kLong"
    local process
    process=$(watchdog)
    kill -STOP "$process" # or it would see the other's end
    kill -KILL "$trial" "$process"
    ends 137
}

store_two_profiles
keep_both_listings

# --- killed ----------------------------------------------------------------------------------------

abandon
answers 11 status
says "^Trial: *of \"$new\", abandoned; \"tarnfw try --cancel\" ends it$"
answers 11 status --json
says '"state" : "abandoned"'
answers 5 try --confirm
complains '^tarnfw: there is no trial$'
answers 1 try "$new"
complains "^tarnfw: the trial of \"$new\" was abandoned; \"tarnfw try --cancel\" ends it$"
answers 0 reload
prints <<<'Profile "deny_by_default" applied'
rm -- "$kTrialSocket" # nobody listens there, and the next trial replaces it
gone_back
in_background "$new" --timeout "$kLong"
answers 0 try --cancel
ends 1
gone_back

# Without the record, as after a boot, the active profile is applied.
abandon
rm -- /run/tarn/trial.json
answers 11 status
says "^Trial: *of \"$new\", interrupted: its test profile \"\.test_$new\" is left; \"tarnfw try --cancel\" or the next"
tarnfw check >"$out/answer" 2>&1 || true
says "the test profile \"\.test_$new\" belongs to a trial .*\"tarnfw try --cancel\" ends it"
cp -r "$kProfileDirectory" "$out/store"
answers 0 apply-mode lines
complains "^tarnfw: the test profile \"\.test_$new\" of an interrupted trial was removed$"
step 'no test profile is left' no_test_profile
cp "$out/store"/*.json "$kProfileDirectory/"
answers 0 try --cancel
prints <<<"Abandoned trial of \"$new\" ended; the active profile's rules are in force"
gone_back

# An import removes the test profile. The trial is over when its rules are gone.
jq '.config_profiles["77.json"] = {name: "fresh", rules: null, adapterPolicyMap: {global: 2}}' \
    <(tarnfw export) >/tmp/imported.json
abandon
answers 0 import --yes /tmp/imported.json
step 'no test profile is left' no_test_profile
answers 11 status
says "^Trial: *of \"$new\", abandoned; \"tarnfw try --cancel\" ends it$"
answers 1 try "$new"
complains "^tarnfw: the trial of \"$new\" was abandoned; "
answers 0 try --cancel
prints <<<"Abandoned trial of \"$new\" ended; the previous rules are in force again"
cp -- "$kSettings" /tmp/settings
gone_back
abandon
jq 'del(.config_profiles["77.json"])' /tmp/imported.json >/tmp/imported_again.json
answers 0 import --yes /tmp/imported_again.json --reload
rm -- "$kTrialSocket"
gone_back

# The one who ends it waits for a lock like any other watchdog.
abandon
hold "$kReloadLock"
"$build/tools/tarnfw/tarnfw" try --cancel >"$out/cancelled" 2>&1 &
canceller=$!
await_status "^Trial: *of \"$new\", not over yet, trying again: $kReloadLock is locked by process $holder "
release
step 'it ends' wait "$canceller"
step 'it says so' grep --quiet "^Abandoned trial of \"$new\" ended; the previous rules are in force again$" "$out/cancelled"
gone_back

# A watchdog that is killed after the confirmation, when the new profile is the active one: the
# terminal's second watchdog finishes its work.
wrap_iptables
answers 0 apply-mode lines
in_background "$new" --timeout "$kLong"
process=$(watchdog)
pause_at 'ip6tables *-A INPUT_FIREWALL *'
"$build/tools/tarnfw/tarnfw" try --confirm >"$out/confirmed" 2>&1 &
confirmer=$!
await_pause
kill -KILL "$process"
resume
ends 0
refuses 'who confirmed is not told that it is kept' wait "$confirmer"
step 'why is said' grep --quiet '^tarnfw: the trial does not answer any more; see "tarnfw status"$' "$out/confirmed"
step 'the rules are the new ones' same_listing new
step 'the new profile is active' [ "$(tarnfw profile list | grep '^\*')" = "* $new" ]
step 'no test profile is left' no_test_profile
answers 0 profile use deny_by_default --reload --yes
cp -- "$kSettings" /tmp/settings

# --- stopped ---------------------------------------------------------------------------------------

in_background "$new" --timeout "$kLong"
keep_listing tried
stopped=$(watchdog)
kill -STOP "$stopped"
readonly kSilent="its watchdog, process $stopped, does not answer; \"kill -CONT $stopped\" wakes it if it is stopped"
answers 11 status
says "^Trial: *of \"$new\", $kSilent$"
for command in 'try --confirm' 'try --cancel' reload "try $new"; do
    # shellcheck disable=SC2086  # words
    answers 1 $command
    complains "^tarnfw: a trial of \"$new\" is running; $kSilent$"
    step 'the rules on trial are in force' same_listing tried
done
kill -CONT "$stopped"
# A confirmation that has failed does not count later.
await_status "^Trial: *of \"$new\", [0-9]* s left$"
answers 0 try --cancel
ends 1 'was not kept: cancelled; the previous rules are in force again$'
gone_back

in_background "$new" --timeout "$kLong"
stopped=$(watchdog)
kill -STOP "$stopped"
answers 0 disable
answers 0 status
says '^Firewall: *disabled$'
kill -CONT "$stopped"
ends 1 'the firewall is disabled$'
answers 0 enable --yes
cp -- "$kSettings" /tmp/settings
gone_back

# When the time is over, the terminal wakes the watchdog.
in_background "$new" --timeout 5
kill -STOP "$(watchdog)"
ends 1 'was not kept: nobody confirmed in time; the previous rules are in force again$'
gone_back

# --- without memory --------------------------------------------------------------------------------

# A watchdog that gets no more memory makes way for another one.
in_background "$new" --timeout "$kLong"
prlimit --pid "$(watchdog)" --as=4096
kill -TERM "$trial"
ends 1 'was not kept: the watchdog failed; the previous rules are in force again$'
gone_back
