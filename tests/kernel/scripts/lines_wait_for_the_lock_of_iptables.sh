# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Other programs that hold the lock of iptables again and again delay a reload in apply mode "lines" but
# change nothing of its result: with the installed programs, with old ones that know no lock file of their
# own, and with old ones that wait without end.
readonly kRounds=5

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
tarnfw base up
use_profile deny_ssh_on_one_adapter
choose_apply lines
step 'the firewall is enabled' tarnfw enable
keep_listing enabled

# Holds the lock, and lets go of it, at random.
/usr/bin/python3 - <<'END_OF_PROGRAM' &
import fcntl
import random
import time

generator = random.Random(1)
while True:
    with open("/run/xtables.lock", "a") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        time.sleep(generator.random() * 0.008)
    time.sleep(generator.random() * 0.02)
END_OF_PROGRAM
other=$!

reload_rounds() {
    local i
    for ((i = 0; i < kRounds; ++i)); do
        "$build/tools/tarnfw/tarnfw" reload >/dev/null 2>"$out/errors" || {
            cat -- "$out/errors"
            fail "reload $i, $1"
        }
        keep_listing now
        same_listing enabled || fail "the rules after reload $i, $1"
    done
    printf -- '-- %s reloads: %s\n' "$kRounds" "$1"
}
reload_rounds 'the installed programs'

# What older versions do: they take the lock whatever XTABLES_LOCKFILE says, and with "-w" wait for it.
# The lock is that of this wrapper, and the program has one of its own.
if [[ $variant == legacy ]]; then
    program=/usr/sbin/xtables-legacy-multi
    cp -- "$program" /tmp/program
    cat >/tmp/old <<'END_OF_PROGRAM'
#!/bin/bash
exec 9>>/run/xtables.lock
waiting=--nonblock
for word in "$@"; do
    case $word in
    -w | -S | --wait) waiting= ;; # and listings, which are the test's own
    esac
done
flock $waiting 9 || exit 4
export XTABLES_LOCKFILE=/proc/self/fd/8
exec -a "${0##*/}" /tmp/program "$@" 8>/tmp/own.$$
END_OF_PROGRAM
    chmod +x /tmp/old
    mount --bind /tmp/old "$program"
    reload_rounds 'old programs'
    umount "$program"
fi
kill "$other"
