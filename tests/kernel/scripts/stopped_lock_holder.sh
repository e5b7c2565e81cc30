# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A lock that a stopped process holds: every command ends within 40 s, and a command that needs the lock
# names its file and the process. The lock of the store, and in the long form the other three.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kMostSeconds=40

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

# all_end FILE KIND NAME...: with the lock held, each of these commands ends in time, fails and says which
# lock it is and who holds it. Two that change the store would wait for each other.
all_end() {
    local lock=$1 name status seconds named
    touch -- "$lock"
    stopped_holder "$lock" "$2"
    named="$lock.*$holder"
    [[ $lock != /run/xtables.lock ]] || named=$lock # iptables waits for it, and does not know the holder
    local -a running=()
    for name in "${@:3}"; do
        bounded "$name" "$name" &
        running+=("$!")
    done
    wait "${running[@]}"
    for name in "${@:3}"; do
        read -r status seconds <"$out/$name.end"
        printf -- '-- %s held: %s ends with %s after %s s\n' "$lock" "$name" "$status" "$seconds"
        ((seconds <= kMostSeconds)) || fail "$name takes $seconds s"
        ((status == 1)) || fail "$name ends with $status"
        grep --quiet "$named" "$out/$name.text" || {
            cat -- "$out/$name.text"
            fail "$name does not name $named"
        }
    done
    [[ $lock == /run/xtables.lock ]] || answers 0 status # reads, and waits for nobody
    kill -KILL "$holder"
    wait "$holder" 2>/dev/null || true
    answers 0 profile use home
    answers 0 enable
    answers 0 diff
}

answers 0 base up
use_profile deny_by_default
answers 0 profile copy deny_by_default home
answers 0 profile use home
answers 0 enable

all_end /run/tarn/store.lock ofd disable
if [[ -v TARN_LONG ]]; then
    all_end /var/lock/firewall/firewall_settings.json.lock posix reload disable
    all_end /tmp/firewall_iptables_exec.lock ofd reload disable
    [[ $variant == nft ]] || all_end /run/xtables.lock flock status reload disable
fi
