# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The first line and the exit status of "status" say what is in force, family by family, and what fixes
# it; "blocked" and "explain" say it before their answer.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<<'veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24 192.168.1.21/24 fd00::20/64'

# not_in_force TEXT MENDING: that is what all three say.
not_in_force() {
    answers 11 status
    says "^Firewall: *enabled, but $1; $2\$"
    answers 11 blocked --port tcp/22 --adapter eth0
    step 'in the first line' [ "$(head -n 1 "$out/answer")" = "The kernel does not do this: $1; $2" ]
    answers 11 explain --port tcp/443 --adapter eth0
    step 'in the first line' [ "$(head -n 1 "$out/answer")" = "The kernel does not do this: $1; $2" ]
    answers 11 explain --port tcp/22 --adapter eth0 --from 192.168.1.21
    step 'in the first line' [ "$(head -n 1 "$out/answer")" = "The kernel does not do this: $1; $2" ]
    answers 11 blocked --port tcp/22 --adapter eth0 --json
    step 'as a document' [ "$(jq -r '.holds, .complaints[0]' "$out/answer")" = $'false\n'"$1; $2" ]
}

# states: the state of each family.
states() {
    tarnfw status --json >"$out/states" || true
    jq -r '[.kernel.v4.inForce, .kernel.v6.inForce, .asStored] | join(" ")' "$out/states"
}

in_force() {
    answers 0 status
    says '^Firewall: *enabled$'
    answers 0 blocked --port tcp/443 --adapter eth0
    answers 10 blocked --port tcp/22 --adapter eth0
    step 'both families' [ "$(states)" = 'asStored asStored true' ]
}

answers 0 base up
use_profile deny_by_default
answers 0 enable
serve tcp/22
in_force

# --- one family is wide open -----------------------------------------------------------------------

readonly kDiffers='"tarnfw diff" shows how they differ, "tarnfw reload" applies the profile or shows why not'
readonly kShows='"tarnfw reload" applies them or shows why'
ip6tables -F INPUT_FIREWALL
ip6tables -F FORWARD_FIREWALL
step 'IPv6 is open' check_packets <<'END'
tcp6 fd00::10 22 open fd00::20
tcp4 192.168.1.10 22 blocked 192.168.1.21
END
not_in_force 'no rules are in force for IPv6, which is open' "$kShows"
answers 11 status
says '^In the kernel: *IPv6 0 rules: open$'
step 'the state of each' [ "$(states)" = 'asStored nothing false' ]
answers 0 reload
in_force

# A policy that drops is somebody's, and not open.
iptables -F INPUT_FIREWALL
iptables -F FORWARD_FIREWALL
iptables -P INPUT DROP
not_in_force 'no rules are in force for IPv4' "$kShows"
iptables -P INPUT ACCEPT
answers 0 reload

# Both, as before.
for tool in iptables ip6tables; do
    "$tool" -F INPUT_FIREWALL
    "$tool" -F FORWARD_FIREWALL
done
not_in_force 'no rules are in force and the machine is open' "$kShows"
answers 0 reload
in_force

# One chain, by hand.
iptables -F INPUT_FIREWALL
not_in_force 'the rules in force for IPv4 are not those of the profile (INPUT_FIREWALL of IPv4 is empty)' "$kDiffers"
answers 0 reload
in_force

# --- packets bypass the rules ------------------------------------------------------------------------

readonly kFix='"tarnfw base up" and then "tarnfw reload" fix this'
readonly kNoBase='the base filter is not set up'

# Both families are flushed, or deleted; then one, and one closed by its policies.
for how in F X; do
    for tool in iptables ip6tables; do
        "$tool" -F
        [[ $how == F ]] || "$tool" -X
    done
    not_in_force "no rules are in force and the machine is open: $kNoBase" "$kFix"
    answers 11 status
    says '^In the kernel: *IPv4 0 rules: open$'
    answers 1 reload
    step 'what sets it up' grep --quiet '; "tarnfw base up" sets it up$' "$out/complaint"
    answers 0 base up
    answers 0 reload
    in_force
done
ip6tables -F
ip6tables -X
not_in_force "IPv6 packets bypass the rules, which leaves the machine open: $kNoBase" "$kFix"
answers 0 base up
answers 0 reload
iptables -P INPUT DROP
for tool in iptables ip6tables; do
    "$tool" -F
done
not_in_force "no rules are in force: $kNoBase" "$kFix"
iptables -P INPUT ACCEPT
answers 0 base up
answers 0 reload
in_force

ip6tables -D INPUT -j INPUT_FIREWALL
step 'IPv6 is open' check_packets <<<'tcp6 fd00::10 22 open fd00::20'
not_in_force 'IPv6 packets bypass the rules, which leaves the machine open: the base filter is not set up' \
    "$kFix"
step 'the state of each' [ "$(states)" = 'asStored noBase false' ]
answers 0 base up
answers 0 reload
in_force

# --- other rules than those of the profile ---------------------------------------------------------

answers 0 policy eth0 allow --profile deny_by_default
not_in_force 'the rules in force for IPv4 and IPv6 are not those of the profile' "$kDiffers"
answers 11 status
says '^In the kernel: *IPv4 [0-9]* rules, not those of the profile$'
answers 0 policy eth0 deny --profile deny_by_default
in_force
answers 0 rule set 2 --adapter eth0 --profile deny_by_default allow tcp 22 from 192.168.1.21
not_in_force 'the rules in force for IPv4 are not those of the profile' "$kDiffers"
answers 0 reload
in_force
ip6tables -D INPUT_FIREWALL 1
not_in_force 'the rules in force for IPv6 are not those of the profile' "$kDiffers"
answers 0 reload

# --- closed ----------------------------------------------------------------------------------------

iptables -P INPUT DROP
iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT
not_in_force 'a reload was interrupted: the machine is closed to new connections' '"tarnfw reload" opens it'
step 'the state of each' [ "$(states)" = 'closed asStored false' ]
answers 0 reload
iptables -F FIREWALL_RELOADING

# --- disabled, and not quite -----------------------------------------------------------------------

answers 0 disable
answers 0 status
says '^Firewall: *disabled$'
answers 0 blocked --port tcp/22
iptables -A INPUT_FIREWALL -j DROP
answers 11 status
says '^Firewall: *disabled, but rules are still in force for IPv4; "tarnfw disable" removes them$'
answers 11 blocked --port tcp/22
prints <<'END'
The kernel does not do this: rules are still in force for IPv4; "tarnfw disable" removes them
Firewall disabled: nothing is blocked
END
answers 0 disable
answers 0 status

# --- every profile that "diff" agrees with ---------------------------------------------------------

seen=0
for directory in "$checkout"/tests/kernel/cases/*/; do
    use_profile "$(basename -- "$directory")"
    for mode in lines batch; do
        choose_apply "$mode"
        tarnfw enable --yes >"$out/enabled" 2>&1 || continue
        tarnfw diff >"$out/diff" 2>&1 || continue
        tarnfw status >"$out/answer" 2>&1 || {
            cat -- "$out/answer"
            fail "status does not agree: $directory $mode"
        }
        ((seen += 1))
    done
done
step "$seen times" [ "$seen" -ge 36 ]

# --- a machine without IPv6 ------------------------------------------------------------------------

use_profile deny_by_default
answers 0 enable
mkdir /tmp/without
cp -- "/usr/sbin/xtables-$variant-multi" /tmp/without/iptables
cat >/tmp/wrapper <<'END'
#!/bin/sh
case ${0##*/} in
ip6tables*)
    echo 'ip6tables: Address family not supported by protocol' >&2
    exit 3
    ;;
esac
exec "/tmp/without/${0##*/}" "$@"
END
chmod +x /tmp/wrapper
cp -- /tmp/without/iptables /tmp/without/iptables-save
mount --bind /tmp/wrapper "/usr/sbin/xtables-$variant-multi"
answers 0 status
says '^Firewall: *enabled$'
says '^In the kernel: *IPv6 absent: this machine has no packet filter for it$'
answers 0 status --json
step 'absent' [ "$(jq -r .kernel.v6.inForce "$out/answer")" = absent ]
answers 10 blocked --port tcp/22 --adapter eth0

# --- a nat table that cannot be listed ---------------------------------------------------------------

rm /tmp/without/iptables-save
cat >/tmp/wrapper <<'END'
#!/bin/sh
case ${0##*/} in
*-save) exec sleep 60 ;;
esac
exec "/tmp/without/${0##*/}" "$@"
END
cp -- /tmp/without/iptables /tmp/without/ip6tables
iptables -t nat -A PREROUTING -j RETURN
ip6tables -t nat -A PREROUTING -j RETURN
SECONDS=0
answers 0 status
step 'in bounded time' [ "$SECONDS" -lt 15 ]
says "^Redirects: *the rules in nat of iptables-$variant are not known: /sbin/iptables-save did not end within 5 s\$"
answers 10 blocked --port tcp/22 --adapter eth0
says "^It may be redirected or dropped: the rules in nat of ip6tables-$variant are not known: "

# --- a kernel that cannot be asked -----------------------------------------------------------------

printf '#!/bin/sh\necho "iptables: no" >&2\nexit 4\n' >/tmp/wrapper
answers 1 status
answers 11 blocked --port tcp/22 --adapter eth0
says '^The kernel does not do this: what the kernel does is not known: /sbin/iptables cannot list '
