# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A lock that a stopped process holds: every command ends within 40 s, and a command that needs the lock
# names its file and the process. The lock of the store, and in the long form the others, a trial that is
# running, and a boot.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

readonly kMostSeconds=40

# kept_by_holder LOCK: what a command says of it.
kept_by_holder() {
    printf '%s is locked by process %s (python3), which is stopped' "$1" "$holder"
}

# stopped_holder FILE KIND: a process that holds the lock of that kind and is stopped; its number in
# $holder.
stopped_holder() {
    /usr/bin/python3 - "$@" <<'END' &
import fcntl
import os
import signal
import struct
import sys

file = open(sys.argv[1], "a+")
if sys.argv[2] == "ofd":  # F_OFD_SETLK with F_WRLCK: the lock of an open file
    fcntl.fcntl(file, 37, struct.pack("hhqqi4x", 1, 0, 0, 0, 0))
elif sys.argv[2] == "flock":
    fcntl.flock(file, fcntl.LOCK_EX)
else:
    fcntl.lockf(file, fcntl.LOCK_EX)
os.kill(os.getpid(), signal.SIGSTOP)
END
    holder=$!
    until [[ $(cut -d ' ' -f 3 "/proc/$holder/stat") == T ]]; do
        sleep 0.05
    done
}

# bounded NAME ARGUMENT...: runs the tool; its output, exit status and time go to files of that name.
bounded() {
    local status=0 start=$SECONDS
    timeout --kill-after=1 $((kMostSeconds + 20)) "$build/tools/tarnfw/tarnfw" "${@:2}" \
        >"$out/$1.text" 2>&1 </dev/null || status=$?
    printf '%s %s\n' "$status" $((SECONDS - start)) >"$out/$1.end"
}

# in_time LOCK COMMAND...: with the lock held, each of these commands ends in time, fails and says which
# lock it is and who holds it. Two that change the store would wait for each other.
in_time() {
    local lock=$1 command name status seconds named
    local -a running=()
    for command in "${@:2}"; do
        # shellcheck disable=SC2086  # words
        bounded "${command// /_}" $command &
        running+=("$!")
    done
    wait "${running[@]}"
    for command in "${@:2}"; do
        name=${command// /_}
        read -r status seconds <"$out/$name.end"
        printf -- '-- %s held: %s ends with %s after %s s\n' "$lock" "$command" "$status" "$seconds"
        ((seconds <= kMostSeconds)) || fail "$command takes $seconds s"
        ((status == 1)) || fail "$command ends with $status"
        # "status" does not know who it is that iptables waits for.
        named=$lock
        [[ $command == status ]] || named=$(kept_by_holder "$lock")
        grep --quiet --fixed-strings -- "$named" "$out/$name.text" || {
            cat -- "$out/$name.text"
            fail "$command does not name $named"
        }
    done
}

# all_end FILE KIND COMMAND...: the same with the lock held now; when it is free, all is as before. A reload
# for an interface that has appeared waits for the lock of a reload: nobody would start it again.
all_end() {
    local lock=$1 reload=
    touch -- "$lock"
    stopped_holder "$lock" "$2"
    if [[ $lock == "$kReloadLock" ]]; then
        "$build/tools/tarnfw/tarnfw" reload --for eth0 >"$out/waiting" &
        reload=$!
    fi
    in_time "$lock" "${@:3}"
    [[ $lock == /run/xtables.lock ]] || answers 0 status # reads, and waits for nobody
    while [[ -n $reload && ! -s $out/waiting ]]; do
        kill -0 "$reload" || fail 'the reload for an interface does not wait'
        sleep 0.05
    done
    kill -KILL "$holder"
    wait "$holder" 2>/dev/null || true
    if [[ -n $reload ]]; then
        step 'the reload for an interface has waited' wait "$reload"
        # A trial that has begun waits for it as well.
        step 'for this lock' grep --quiet --fixed-strings -e "Waiting: $(kept_by_holder "$lock")" \
            -e 'Waiting for the end of the running trial' "$out/waiting"
        step 'and applied the profile' grep --quiet '^Profile "home" applied$' "$out/waiting"
    fi
    answers 0 profile use home
    answers 0 enable
    answers 0 diff
}

# trial_ends FILE KIND: so do the commands of a trial that is running when the lock is taken, and "status"
# says what it waits for. The trial goes back when the lock is free.
trial_ends() {
    local lock=$1 way start
    for way in --confirm --cancel; do
        in_background "$new" --timeout "$kLong"
        stopped_holder "$lock" "$2"
        start=$SECONDS
        [[ $way == --confirm ]] || kill -TERM "$trial" # ends in time as well
        in_time "$lock" "try $way"
        if [[ $lock != /run/xtables.lock ]]; then
            tarnfw status >"$out/answer" 2>&1 || (($? == 11)) # the rules on trial may be in force
            says "^Trial: .*not over yet, trying again: $(kept_by_holder "$lock")"
        fi
        if [[ $way == --cancel ]]; then
            ends 1 "not over yet: $(kept_by_holder "$lock")"
            ((SECONDS - start <= kMostSeconds)) || fail "the terminal takes $((SECONDS - start)) s"
        fi
        kill -KILL "$holder"
        wait "$holder" 2>/dev/null || true
        [[ $way == --cancel ]] || ends 1
        await_end
        answers 0 diff
        step 'no test profile is left' no_test_profile
    done
}

# boot_protects FILE KIND COMMAND...: so does "tarnfw boot", with the rules of the last successful reload in
# force.
boot_protects() {
    local lock=$1 tool
    keep_listing enabled
    for tool in iptables ip6tables; do
        "$tool" -F
        "$tool" -X
    done
    touch -- "$lock"
    stopped_holder "$lock" "$2"
    in_time "$lock" boot "${@:3}"
    kill -KILL "$holder"
    wait "$holder" 2>/dev/null || true
    step 'the last good rules are in force' same_listing enabled
    step 'that is said' grep --quiet 'In force: IPv4 and IPv6: the rules of the last successful reload$' "$out/boot.text"
    answers 0 boot
    answers 0 diff
}

store_two_profiles
answers 0 profile copy deny_by_default home
answers 0 profile use home
answers 0 enable

all_end /run/tarn/store.lock ofd disable reload "try $new"
if [[ -v TARN_LONG ]]; then
    boot_protects /run/tarn/base_filter.lock ofd 'base up' 'base down'
    boot_protects /run/tarn/store.lock ofd
    trial_ends /run/tarn/store.lock ofd
    while read -r lock kind commands; do
        # shellcheck disable=SC2086  # words
        all_end "$lock" "$kind" $commands disable
        all_end "$lock" "$kind" "try $new"
        trial_ends "$lock" "$kind"
        boot_protects "$lock" "$kind"
    done < <(
        printf '%s posix reload\n' /var/lock/firewall/firewall_settings.json.lock
        printf '%s ofd reload\n' "$kReloadLock"
        [[ $variant == nft ]] || printf '%s flock status reload\n' /run/xtables.lock
    )
fi
