# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "enable", "reload" and every command with "--reload" ask if the person's SSH connection could not be
# made again. Real packets confirm what they say.
make_links <<'END'
veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24 192.168.1.21/24 fd00::20/64
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

tool=$build/tools/tarnfw/tarnfw
readonly kWarning='^tarnfw: you are connected over SSH from 192.168.1.21 to port 22 on eth0, and profile "deny_by_default" denies that (the default policy of eth0: deny); this connection stays, but you could not connect again'

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
complains "$kWarning; nothing was changed (--yes goes on anyway)\$"
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

# --- reload asks as well -----------------------------------------------------------------------------

iptables -A INPUT_FIREWALL -s 10.9.9.9 -j DROP # a reload would remove it
keep_listing marked
over_ssh 192.168.1.21 answers 1 reload </dev/null
complains "$kWarning; nothing was changed (--yes goes on anyway)\$"
step 'nothing was changed' same_listing marked
over_ssh 192.168.1.21 asked 1 $'you could not connect again\nApply it anyway? [y/N] ' n reload
step 'nothing was changed' same_listing marked
over_ssh 192.168.1.21 answers 0 reload --yes </dev/null
says '^Profile "deny_by_default" applied$'
step 'the warning is there' grep --quiet -- "$kWarning\$" "$out/complaint"
step 'it was applied' [ "$(iptables -S INPUT_FIREWALL | grep -c 10.9.9.9)" = 0 ]
over_ssh 192.168.1.20 answers 0 reload </dev/null
silent
# At boot, and from scripts of the system, nobody is connected.
answers 0 reload </dev/null
silent
turn_off
over_ssh 192.168.1.21 answers 0 reload </dev/null
silent
says '^Firewall disabled: nothing to reload$'

# --- in a terminal ---------------------------------------------------------------------------------

readonly kQuestion=$'you could not connect again\nEnable anyway? [y/N] '
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
enables ::ffff:192.168.1.20 ::ffff:192.168.1.10 22
answers 0 enable
step 'no word about SSH' [ -z "$(grep SSH "$out/complaint")" ]
turn_off

# --- every interface that the client's packets may come in through -----------------------------------

# asks CLIENT SERVER PORT INTERFACE: the warning is about that interface.
asks() {
    SSH_CONNECTION="$1 50022 $2 $3" answers 1 enable </dev/null
    complains "to port 22 on $4, and profile \"deny_by_default\" denies that"
    step 'nothing was changed' unchanged
}

asks ::ffff:192.168.1.21 ::ffff:192.168.1.10 22 eth0
asks 192.168.1.21 192.168.1.10 022 eth0
asks fe80::7%eth0 fe80::1%eth0 22 eth0
# An address of eth1, which the profile leaves open, for a client whose packets come in through eth0.
make_link veth eth1 10.0.1.10/24 other 10.0.1.20/24
ip route add 203.0.113.0/24 via 192.168.1.20 dev eth0
asks 203.0.113.7 10.0.1.10 22 eth0
enables 10.0.1.20 10.0.1.10 22
# Policy routing: the answer to this address goes out through eth1, and that to others through eth0.
ip route add 198.51.100.0/24 via 10.0.1.20 dev eth1
enables 198.51.100.7 10.0.1.10 22
ip route add 198.51.100.0/24 via 192.168.1.20 dev eth0 table 7
ip rule add from 10.0.1.10 lookup 7
asks 198.51.100.7 10.0.1.10 22 eth0
ip rule del from 10.0.1.10 lookup 7
ip link del eth1

# A rule may deny it, too, and the profile may name the interface otherwise.
use_profile deny_ssh_on_one_adapter
over_ssh 192.168.1.21 answers 1 enable </dev/null
complains '"deny_ssh_on_one_adapter" denies that (rule [0-9]* of eth0: deny '

# A profile that is not there: said before anything is changed.
activate nowhere
cp -- "$kSettings" /tmp/settings
over_ssh 192.168.1.21 answers 5 enable </dev/null
complains '^tarnfw: there is no profile "nowhere"'
step 'nothing was changed' unchanged

# --- commands that apply what they change ------------------------------------------------------------

# Rule 2 allows the admin station; without it the default policy decides.
use_profile deny_by_default
cp -- "$checkout/tests/kernel/cases/deny_ssh_on_one_adapter/profile.json" \
    "$kProfileDirectory/deny_ssh_on_one_adapter.json"
over_ssh 192.168.1.20 answers 0 enable
keep_listing enabled
tarnfw export "$out/open.json"
jq '(.config_profiles[] | select(.name == "deny_by_default") | .rules.eth0[1].enable) = false' \
    "$out/open.json" >"$out/closed.json"
readonly kFromStation='^tarnfw: you are connected over SSH from 192.168.1.20 to port 22 on eth0, and profile '

# as_before: the kernel has the rules that let the station in.
as_before() {
    step 'the kernel has the old rules' same_listing enabled
}

# held_back ARGUMENT...: neither stored nor applied without a terminal.
held_back() {
    over_ssh 192.168.1.20 refused 1 "$kFromStation.*; nothing was changed (--yes goes on anyway)\$" \
        "$@" --reload </dev/null
    as_before
}

# goes_in ARGUMENT...: with --yes; then all is as it was again.
goes_in() {
    over_ssh 192.168.1.20 answers 0 "$@" --reload --yes </dev/null
    step 'the warning is there' grep --quiet -- "$kFromStation" "$out/complaint"
    step 'and it was true' check_packets <<<'tcp4 192.168.1.10 22 blocked 192.168.1.20'
    answers 0 import --yes --reload "$out/open.json"
    as_before
}

held_back rule off 2 --adapter eth0
held_back rule delete 2 --adapter eth0
held_back rule insert 1 --adapter global deny tcp 22
held_back rule set 2 --adapter eth0 allow tcp 22 from 192.168.1.21
held_back rule add --adapter global deny tcp 22
held_back profile use deny_ssh_on_one_adapter
goes_in rule off 2 --adapter eth0
goes_in profile use deny_ssh_on_one_adapter

# What does not cut the connection, or not yet, is nobody's question.
over_ssh 192.168.1.20 answers 0 rule add --adapter eth0 allow tcp 8080 --reload </dev/null
silent
over_ssh 192.168.1.20 answers 0 rule off 2 --adapter eth0 </dev/null
silent
step 'stored alone, it lets the station in' check_packets <<<'tcp4 192.168.1.10 22 open 192.168.1.20'
answers 0 import --yes --reload "$out/open.json"
over_ssh 192.168.1.20 answers 0 policy eth0 deny --profile deny_ssh_on_one_adapter --reload </dev/null
silent
answers 0 import --yes --reload "$out/open.json"

# The default policy, where no rule lets the station in.
answers 0 rule off 2 --adapter eth0
answers 0 policy eth0 allow --reload
over_ssh 192.168.1.20 refused 1 "$kFromStation.*nothing was changed (" policy eth0 deny --reload </dev/null
answers 0 import --yes --reload "$out/open.json"

# An editor's text is kept.
over_ssh 192.168.1.20 env VISUAL="sed -i s/192.168.1.20/192.168.1.21/" \
    "$tool" profile edit --reload </dev/null >"$out/answer" 2>"$out/complaint" && fail 'it was stored'
step 'it says why and where the text is' grep --quiet -- \
    "$kFromStation.*; nothing was stored, the text is kept in " "$out/complaint"
as_before

# An import asks twice: what it replaces, and this. --yes answers both.
over_ssh 192.168.1.20 answers 0 import --yes --reload "$out/closed.json" </dev/null
step 'the warning is there' grep --quiet -- "$kFromStation" "$out/complaint"
step 'and it was true' check_packets <<<'tcp4 192.168.1.10 22 blocked 192.168.1.20'
answers 0 import --yes --reload "$out/open.json"

readonly kApplyQuestion=$'you could not connect again\nApply it anyway? [y/N] '
for answer in n EOF; do
    keep_files asked
    over_ssh 192.168.1.20 asked 1 "$kApplyQuestion" "$answer" rule off 2 --adapter eth0 --reload
    step 'nothing was changed' same_files asked
    as_before
done
over_ssh 192.168.1.20 asked 0 "$kApplyQuestion" y rule off 2 --adapter eth0 --reload
step 'it is in the kernel' check_packets <<<'tcp4 192.168.1.10 22 blocked 192.168.1.20'
answers 0 import --yes --reload "$out/open.json"

# Commands that change every profile.
readonly kStored='; nothing was changed (--yes goes on anyway)$'
answers 0 adapter rename eth0 eth7 --reload # nothing is denied on eth0 now
keep_listing renamed
keep_files renamed
for command in 'adapter rename eth7 eth0' 'service reserve ssh deny --adapter eth0'; do
    # Another client's connection: no rule lets it in.
    read -r -a words <<<"$command"
    over_ssh 192.168.1.21 answers 1 "${words[@]}" --reload </dev/null
    step 'why' grep --quiet -- "from 192.168.1.21 .*$kStored" "$out/complaint"
    step 'the kernel has the old rules' same_listing renamed
    step 'and so has the store' same_files renamed
done
answers 0 adapter rename eth7 eth0
over_ssh 192.168.1.21 answers 1 service update --reload </dev/null
step 'the kernel has the old rules' same_listing renamed
over_ssh 192.168.1.21 answers 0 service reserve ssh deny --adapter eth0 --reload --yes </dev/null
step 'it is in the kernel' check_packets <<<'tcp4 192.168.1.10 22 blocked 192.168.1.21'

# While a person is asked about such a change, nothing of it is stored: a reload that finds the old profile
# is harmless, and what another program writes stays. A "y" after that would be about another profile.
answers 0 service release ssh
answers 0 rule add --adapter eth0 allow tcp 22 --reload # "undo" would lock this client out again
keep_listing asked
readonly kOther=$kProfileDirectory/written_meanwhile.json
jq '.name = "written_meanwhile"' "$kProfileDirectory/deny_ssh_on_one_adapter.json" >/tmp/written_meanwhile.json

# asked_meanwhile ANSWER STATUS COMMAND...: the profiles at the question are those of before, and what another
# program wrote then is there after the answer.
asked_meanwhile() {
    local answer=$1 status=$2
    shift 2
    keep_files asked
    MEANWHILE="cd / && find $kProfileDirectory -maxdepth 1 -name '*.json' -exec sha256sum -- {} + | LC_ALL=C sort |
        diff - <(grep -v '/[.]' $out/asked.files) && cp /tmp/written_meanwhile.json $kOther" \
        over_ssh 192.168.1.21 asked "$status" "$kApplyQuestion" "$answer" "$@" --reload
    step 'what the other program wrote is there' cmp "$kOther" /tmp/written_meanwhile.json
    rm -- "$kOther"
    step 'the rest is as before' same_files asked
    step 'and so is the kernel' same_listing asked
}
for command in 'undo 1' 'service reserve ssh deny --adapter eth0' 'rule delete --adapter eth0 allow tcp 22'; do
    read -r -a words <<<"$command"
    asked_meanwhile n 1 "${words[@]}"
    asked_meanwhile INTR 130 "${words[@]}"
    asked_meanwhile y 1 "${words[@]}"
    says '^tarnfw: another program has changed profiles or settings meanwhile; nothing was changed$'
done
over_ssh 192.168.1.21 asked 0 "$kApplyQuestion" y service reserve ssh deny --adapter eth0 --reload
step 'it is in the kernel' check_packets <<<'tcp4 192.168.1.10 22 blocked 192.168.1.21'
