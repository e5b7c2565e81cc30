# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A lock that another program holds delays the end of a trial, and does not prevent it. Meanwhile
# status and the terminal say what it waits for, and the test profile shows that it is not over.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

readonly kStoreLock=/run/tarn/store.lock

# heard PATTERN: the terminal has written that going back is tried again, and why.
heard() {
    grep --quiet -- "^tarnfw: the trial is not over yet, trying again: $1" "$out/trial.complaint"
}

# await_heard PATTERN: until it has. The watchdog tells it before it answers others, but it may write later.
await_heard() {
    until heard "$1"; do
        kill -0 "$trial" || fail "it does not try again: $1"
        sleep 0.1
    done
}

store_two_profiles
keep_both_listings

for mode in lines batch; do
    answers 0 apply-mode "$mode"
    cp -- "$kSettings" /tmp/settings

    in_background "$new" --timeout "$kLong"
    keep_listing tried
    hold "$kReloadLock"
    kill -TERM "$trial"
    await_status "^Trial: *of \"$new\", not over yet, trying again: $kReloadLock is locked by process $holder (python3)"
    step 'the terminal hears it' await_heard "$kReloadLock is locked by process $holder (python3)"
    step 'the rules on trial are still in force' same_listing tried
    refuses 'the test profile is still there' no_test_profile
    answers 1 try "$new"
    complains "^tarnfw: a trial of \"$new\" is running; "
    release
    ends 1 'was not kept: cancelled; the previous rules are in force again$'
    gone_back
done

# The rules do not wait for the lock of the store, only the test profile does.
in_background "$new" --timeout "$kLong"
hold "$kStoreLock"
kill -TERM "$trial"
await_status "^Trial: *of \"$new\", not over yet, trying again: $kStoreLock is locked by process $holder (python3)"
step 'the rules are those of before' same_listing home
refuses 'the test profile is still there' no_test_profile
release
ends 1 'was not kept: cancelled; the previous rules are in force again$'
gone_back

# Who does not want to wait leaves the watchdog alone.
in_background "$new" --timeout "$kLong"
hold "$kReloadLock"
kill -TERM "$trial"
await_status '^Trial: .* not over yet, trying again: '
kill -TERM "$trial"
ends 1 'was not kept: cancelled; the trial is not over yet: .* is locked by .*; "tarnfw status" shows when it is over$'
step 'what it waits for is said once' [ "$(grep --count 'trying again' "$out/trial.complaint")" = 1 ]
release
await_end
gone_back

# Other failures pass as well.
printf '#!/bin/sh\necho "out of order" >&2\nexit 4\n' >/tmp/broken
chmod +x /tmp/broken
in_background "$new" --timeout "$kLong"
mount --bind /tmp/broken "/usr/sbin/xtables-$variant-multi"
kill -TERM "$trial"
await_heard '.*out of order'
umount "/usr/sbin/xtables-$variant-multi"
ends 1 'was not kept: cancelled; the previous rules are in force again$'
gone_back

# A reload for an interface that has appeared meanwhile waits for the end: nobody would start it again.
in_background "$new" --timeout "$kLong"
"$build/tools/tarnfw/tarnfw" reload --for eth0 >"$out/waiting" &
reload=$!
until [[ -s $out/waiting ]]; do
    kill -0 "$reload" || fail 'the reload does not wait'
    sleep 0.02
done
answers 1 reload
answers 0 try --cancel
ends 1 'was not kept: '
step 'the reload for an interface has waited' wait "$reload"
step 'and applied the active profile' grep --quiet '^Profile "deny_by_default" applied$' "$out/waiting"
gone_back

# A terminal that takes no more output, as when its connection hangs, does not stop the watchdog.
mkfifo "$out/full"
exec {full}<>"$out/full"
refuses 'the pipe is full' dd if=/dev/zero of="$out/full" oflag=nonblock bs=4096 status=none
complaints=$out/full in_background "$new" --timeout "$kLong"
hold "$kReloadLock"
kill -TERM "$trial"
await_status '^Trial: .* not over yet, trying again: '
release
await_end
gone_back
kill -KILL "$trial"
complaints=/dev/null
ends 137
exec {full}>&-
rm -- "$out/full"
