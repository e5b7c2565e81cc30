# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A reload that begins while another one runs waits for it: their commands never mix.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
wrap_iptables
tarnfw base up
use_profile deny_ssh_on_one_adapter
step 'the firewall is enabled' tarnfw enable
keep_listing enabled

: >"$kCommands"
pause_at 'iptables -F FORWARD_FIREWALL'
"$build/tools/tarnfw/tarnfw" reload &
first=$!
await_pause
"$build/tools/tarnfw/tarnfw" reload &
second=$!
# Nothing but a lock makes it pause.
until [[ $(<"/proc/$second/wchan") == *nanosleep* ]]; do
    :
done
step 'the second has run nothing' [ "$(cut -d ' ' -f 1 "$kCommands" | uniq | wc -l)" = 1 ]
resume
step 'the first succeeds' wait "$first"
step 'the second succeeds' wait "$second"

# One block of commands for each process, instead of a change of process in between.
step 'their commands are apart' [ "$(cut -d ' ' -f 1 "$kCommands" | uniq | wc -l)" = 2 ]
step 'each ran all of them' [ "$(cut -d ' ' -f 1 "$kCommands" | uniq -c | awk '{ print $1 }' |
    uniq | wc -l)" = 1 ]
step 'the rules are there once' same_listing enabled
