# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# If the library's own reload fails or is killed, the rules and the settings of before are put back.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# killed COMMAND: ends with an error when the process that reloads is killed in its middle. $meanwhile runs
# before that.
meanwhile=:
killed() {
    local status=0 reloading
    pause_at 'ip6tables *-A INPUT_FIREWALL *'
    tarnfw "$@" >"$out/answer" 2>"$out/complaint" &
    tool=$!
    await_pause
    read -r reloading _ < <(tail -n 1 "$kCommands")
    "$meanwhile"
    kill -KILL "$reloading"
    resume
    wait "$tool" || status=$?
    step 'it fails' [ "$status" = 1 ]
}

# A process that waits for the lock of iptables, and is stopped when it has it; its number in $keeper.
keep_lock() {
    /usr/bin/python3 - <<'END' &
import fcntl
import os
import signal

file = open("/run/xtables.lock", "a")
open("/tmp/waiting", "w").close()
fcntl.flock(file, fcntl.LOCK_EX)
os.kill(os.getpid(), signal.SIGSTOP)
END
    keeper=$!
    until [[ -e /tmp/waiting ]]; do
        sleep 0.05
    done
}

wrap_iptables
answers 0 base up
keep_listing base
use_profile deny_by_default
answers 0 enable
keep_listing enabled
cp -- "$kSettings" /tmp/settings

killed reload
step 'it is said' grep --quiet 'was killed; .*the old rules are in force again$' "$out/complaint"
step 'that is true' same_listing enabled
step 'the settings are as before' cmp "$kSettings" /tmp/settings

# Going back does not depend on a lock that somebody keeps: the machine would stay closed.
if [[ $variant == legacy ]]; then
    meanwhile=keep_lock
    killed reload
    meanwhile=:
    step 'it is said' grep --quiet 'was killed; .*the old rules are in force again$' "$out/complaint"
    step 'the lock is still kept' [ "$(cut -d ' ' -f 3 "/proc/$keeper/stat")" = T ]
    step 'the lock is named' grep --quiet '/run/xtables.lock is kept by another process' "$out/complaint"
    kill -KILL "$keeper"
    step 'that is true' same_listing enabled
fi

# The tool itself ends what its killed process began.
pause_at 'iptables *-F FORWARD_FIREWALL*'
tarnfw disable >"$out/answer" 2>"$out/complaint" &
tool=$!
await_pause
read -r disabling _ < <(tail -n 1 "$kCommands")
kill -KILL "$disabling"
resume
step 'it is disabled' wait "$tool"
step 'nothing is in force' same_listing base
step 'the settings say so' [ "$(jq .status "$kSettings")" = false ]

killed enable
step 'it is said' grep --quiet 'was killed; .*the firewall stays off$' "$out/complaint"
step 'that is true' same_listing base
step 'the settings say so' [ "$(jq .status "$kSettings")" = false ]
answers 0 reload
says '^Firewall disabled: nothing to reload$'

# Without an error of the library, too: in apply mode "lines" it goes on after a command that was killed.
answers 0 apply-mode lines
answers 0 enable
keep_listing lines
mkdir /tmp/unspoilt
mv /tmp/wrapped/iptables /tmp/unspoilt
cat >/tmp/wrapped/iptables <<'END'
#!/bin/sh
case $* in
*'-F INPUT_FIREWALL' | *'-A INPUT_FIREWALL '*)
    if [ -e /tmp/lose ]; then
        rm /tmp/lose
        kill -KILL $$
    fi
    ;;
esac
exec /tmp/unspoilt/iptables "$@"
END
chmod +x /tmp/wrapped/iptables
touch /tmp/lose
answers 1 reload
step 'a command was lost' [ ! -e /tmp/lose ]
complains 'the kernel did not get all rules of the profile; the active profile was not applied; the old rules are in force again$'
step 'that is true' same_listing lines
answers 0 reload
step 'nothing is lost the next time' same_listing lines

# A batch changes one family after the other, and may be killed in between.
answers 0 apply-mode batch
answers 0 enable
keep_listing enabled
cp -- "$kSettings" /tmp/settings
# The run of the library waits before its commit, and when it is resumed does not commit.
mv -- /tmp/wrapped/ip6tables-restore /tmp/wrapped/multi
cat >/tmp/wrapped/ip6tables-restore <<END
#!/bin/sh
case "\$*" in
*--verbose*) ;;
*) exec /tmp/wrapped/multi ip6tables-restore "\$@" ;;
esac
while IFS= read -r line; do
    if [ "\$line" = COMMIT ] && [ -e $kPauseAt ]; then
        rm $kPauseAt
        echo "\$PPID" >>$kCommands
        echo >$kPaused
        read -r _ <$kResume
        exit
    fi
    printf '%s\n' "\$line"
done | /tmp/wrapped/multi ip6tables-restore "\$@"
END
chmod +x /tmp/wrapped/ip6tables-restore
for change in nothing one_family; do
    pause_at batch
    tarnfw reload >"$out/answer" 2>"$out/complaint" &
    tool=$!
    await_pause
    read -r reloading _ < <(tail -n 1 "$kCommands")
    state='the kernel still has the old rules'
    if [[ $change == one_family ]]; then
        XTABLES_LOCKFILE=/tmp/listing.lock iptables -F INPUT_FIREWALL
        state='the old rules are in force again'
    fi
    kill -KILL "$reloading"
    resume
    status=0
    wait "$tool" || status=$?
    step "batch, $change: it fails" [ "$status" = 1 ]
    step 'it is said' grep --quiet "was killed; .*; $state\$" "$out/complaint"
    step 'that is true' same_listing enabled
    step 'the settings are as before' cmp "$kSettings" /tmp/settings
done
