# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "enable" asks who is connected over SSH and would not get in again; "reload" says so. What they say
# is what real packets meet.
make_links <<'END'
veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24 192.168.1.21/24 fd00::20/64
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

tool=$build/tools/tarnfw/tarnfw
readonly kWarning='^tarnfw: you are connected over SSH from 192.168.1.21 to port 22 on eth0, and profile "deny_by_default" denies that (the default policy of eth0: deny): this connection stays, a new one would not get in'

# over_ssh CLIENT COMMAND...: as sshd would have started it.
over_ssh() {
    local server=192.168.1.10
    [[ $1 != *:* ]] || server=fd00::10
    SSH_CONNECTION="$1 50022 $server 22" "${@:2}"
}

# unchanged: neither the settings nor the kernel are other than they were kept.
unchanged() {
    cmp "$kSettings" /tmp/settings && same_listing disabled
}

# turn_off: the firewall is off again.
turn_off() {
    answers 0 disable
    cp -- "$kSettings" /tmp/settings
}

answers 0 base up
use_profile deny_by_default
cp -- "$kSettings" /tmp/settings
keep_listing disabled
serve tcp/22

# --- without a terminal ----------------------------------------------------------------------------

over_ssh 192.168.1.21 answers 1 enable </dev/null
step 'nothing on standard output' [ ! -s "$out/answer" ]
complains "$kWarning; nothing was changed (--yes goes on all the same)\$"
step 'nothing was changed' unchanged
over_ssh fd00::20 answers 1 enable </dev/null
complains 'from fd00::20 to port 22 on eth0'
step 'nothing was changed' unchanged

# sudo takes the variable away, but not from the shell that it was called by.
# shellcheck disable=SC2016  # the inner shell expands it
step 'the processes above are asked as well' [ "$(over_ssh 192.168.1.21 bash -c \
    'env -u SSH_CONNECTION "$1" enable </dev/null 2>/dev/null; echo $?' bash "$tool")" = 1 ]
step 'nothing was changed' unchanged

over_ssh 192.168.1.21 answers 0 enable --yes </dev/null
says '^Firewall enabled with profile "deny_by_default"$'
step 'the warning is there' grep --quiet -- "$kWarning\$" "$out/complaint"
step 'and it was true' check_packets <<'END'
tcp4 192.168.1.10 22 blocked 192.168.1.21
tcp6 fd00::10 22 blocked fd00::20
tcp4 192.168.1.10 22 open 192.168.1.20
END

# --- reload warns and goes on ----------------------------------------------------------------------

over_ssh 192.168.1.21 answers 0 reload </dev/null
says '^Profile "deny_by_default" applied$'
complains "$kWarning\$"
over_ssh 192.168.1.20 answers 0 reload </dev/null
silent
turn_off
over_ssh 192.168.1.21 answers 0 reload </dev/null
silent
says '^Firewall disabled: nothing to reload$'

# --- in a terminal ---------------------------------------------------------------------------------

readonly kQuestion=$'a new one would not get in\nEnable all the same? [y/N] '
for answer in n '' no nonsense EOF; do
    over_ssh 192.168.1.21 asked 1 "$kQuestion" "$answer" enable
    step 'nothing was changed' unchanged
done
for answer in y Y yes; do
    over_ssh 192.168.1.21 asked 0 "$kQuestion" "$answer" enable
    answers 0 status
    says '^Firewall: *enabled$'
    turn_off
done

# --- nobody is asked -------------------------------------------------------------------------------

# enables CLIENT SERVER PORT: without a question, and without a word about SSH.
enables() {
    SSH_CONNECTION="$1 50022 $2 $3" answers 0 enable </dev/null
    step 'no word about SSH' [ -z "$(grep SSH "$out/complaint")" ]
    turn_off
}

enables 192.168.1.20 192.168.1.10 22 # let in by a rule
enables 192.168.1.21 192.168.1.10 443 # to a port that is open
enables 192.168.1.21 203.0.113.1 22 # the connection is another machine's
enables 127.0.0.1 127.0.0.1 22
enables 192.168.1.10 192.168.1.10 22 # the machine with itself
enables nonsense 192.168.1.10 22
answers 0 enable
step 'no word about SSH' [ -z "$(grep SSH "$out/complaint")" ]
turn_off

# A rule may deny it, too, and the profile may name the interface otherwise.
use_profile deny_ssh_on_one_adapter
over_ssh 192.168.1.21 answers 1 enable </dev/null
complains '"deny_ssh_on_one_adapter" denies that (rule [0-9]* of eth0: deny '

# A profile that is not there: said before anything is changed.
activate nowhere
cp -- "$kSettings" /tmp/settings
over_ssh 192.168.1.21 answers 1 enable </dev/null
complains '^tarnfw: there is no profile "nowhere"'
step 'nothing was changed' unchanged
