# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# If the kernel or its tools refuse a line, at any place, both families keep their rules,
# and one line in the log names it.
readonly kLines=40

# Addresses of IPv6 that make its text shorter than that of IPv4, and longer.
readonly kShortIpv6=fd00:: kLongIpv6=fd00::a:b:
ipv6=$kShortIpv6
count=$kLines

# document FAMILY POSITION LINE: a command document with LINE at that position in one family.
document() {
    python3 - "$@" "$ipv6" "$count" <<'END'
import json
import sys

family, position, line, ipv6, count = sys.argv[1], int(sys.argv[2]), *sys.argv[3:5], int(sys.argv[5])
cmds = {}
for key, prefix in ("v4", "10.0."), ("v6", ipv6):
    last = (lambda i: f"{i // 250}.{i % 250 + 1}") if key == "v4" else (lambda i: f"{i + 1:x}")
    lines = [f"-t filter -A INPUT_FIREWALL -s {prefix}{last(i)} -j DROP" for i in range(count)]
    if key == family:
        lines[position] = line
    cmds[key] = {"global": ["-A INPUT_FIREWALL -i lo -j ACCEPT"], "eth0": lines}
json.dump(cmds, sys.stdout)
END
}

# All of the packet filter with the counters of its rules; those of the policies count the system's own
# packets on new links.
everything() {
    { iptables-save --counters && ip6tables-save --counters; } |
        sed -e '/^#/d' -e '/^:/s/ \[.*//'
}

unchanged() {
    everything >"$out/now"
    diff -u "$out/old" "$out/now"
}

# one_line_names TEXT...: the log of the last batch is one line that has all of these.
one_line_names() {
    local text
    [[ $(wc -l <"$out/log") == 1 ]] || return 1
    for text; do
        grep --fixed-strings --quiet -- "$text" "$out/log" || return 1
    done
}

refused_at() {
    local family=$1 position=$2 kind=$3 line=$4 named=$5
    document "$family" "$position" "$line" >"$out/document"
    refuses "$family, line $position: $kind" rules_probe batch "$out/document" 2>"$out/log"
    step 'nothing has changed' unchanged || exit 1
    step 'one line names it' one_line_names "$named"
}

tarnfw base up
# Rules of before with counters that are not zero, and rules of other programs.
iptables -A INPUT_FIREWALL -s 192.0.2.1 -c 11 1100 -j DROP
iptables -A FORWARD_FIREWALL -s 192.0.2.2 -c 22 2200 -j RETURN
ip6tables -A INPUT_FIREWALL -s 2001:db8::1 -c 33 3300 -j DROP
for tool in iptables ip6tables; do
    "$tool" -N OTHERS
    "$tool" -A OTHERS -c 44 4400 -j RETURN
    "$tool" -A FORWARD -j OTHERS
    "$tool" -t mangle -A PREROUTING -i eth7 -c 55 5500 -j ACCEPT
done
everything >"$out/old"

readonly kUnreadable='-t filter -A INPUT_FIREWALL -s 300.1.1.1 -p none -j DROP'
readonly kNoCommand='-t filter -A INPUT_FIREWALL -h'
# Takes effect in the table "nat" alone, which the tools leave to the kernel to say.
readonly kUnwanted='-t filter -A INPUT_FIREWALL -p tcp -j MASQUERADE'
for family in v4 v6; do
    for position in 0 $((kLines / 2)) $((kLines - 1)); do
        refused_at "$family" "$position" 'not to be read' "$kUnreadable" \
            "\"$kUnreadable\" of adapter eth0: "
        refused_at "$family" "$position" 'no rule at all' "$kNoCommand" \
            "\"$kNoCommand\" of adapter eth0: it stopped before the end of its input"
        named="\"$kUnwanted\" of adapter eth0: "
        [[ $variant == nft ]] || named='"-t filter COMMIT" of all adapters: '
        refused_at "$family" "$position" 'refused by the kernel' "$kUnwanted" "$named"
    done
    # A table further on has a transaction of its own, after that of "filter".
    refused_at "$family" 3 'a second table' '-t mangle -A PREROUTING -p tcp -j MASQUERADE' mangle
    refused_at "$family" 3 'no such table' '-t bogus -A PREROUTING -j DROP' '-t bogus *bogus'
    refused_at "$family" 3 'no such chain' '-t filter -A NOWHERE -j DROP' '-A NOWHERE -j DROP'
    refused_at "$family" 3 'no line at all' $'-A INPUT_FIREWALL -s 10.0.0.1\nCOMMIT' 'Adapter eth0: '
done

# Whichever is longer, and with very many lines.
for ipv6 in "$kShortIpv6" "$kLongIpv6"; do
    for count in "$kLines" 8000; do
        for family in v4 v6; do
            named="\"$kUnwanted\" of adapter eth0: "
            [[ $variant == nft ]] || named='"-t filter COMMIT" of all adapters: '
            refused_at "$family" $((count - 1)) "refused by the kernel, $count lines, $ipv6" \
                "$kUnwanted" "$named"
        done
    done
done
ipv6=$kShortIpv6
count=$kLines

# The same through a reload: the firewall stays enabled.
iptables -F INPUT_FIREWALL
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
use_profile refused_line_is_left_out
sed -i 's/"status": false/"status": true/' "$kSettings" # "enable" refuses a profile with errors
everything >"$out/old"
refuses 'a reload line by line' tarnfw reload 2>"$out/log"
step 'the log names rule and port' grep --quiet 'rule 2 of eth0.*99999' "$out/log"
step 'nothing has changed' unchanged
choose_apply batch
refuses 'a reload in apply mode "batch"' tarnfw reload 2>"$out/log"
step 'nothing has changed' unchanged
step 'the log names adapter and port' grep --quiet 'of adapter eth0: .*99999' "$out/log"
step 'the firewall is enabled' grep --quiet '"status" *: true' "$kSettings"

step 'without chains a reload' tarnfw disable
tarnfw base down
choose_apply batch
sed -i 's/"status" : false/"status" : true/' "$kSettings"
everything >"$out/old"
refuses 'is refused' rules_probe batch <(document v4 0 '-A INPUT_FIREWALL -j DROP') 2>"$out/log"
step 'and makes none' unchanged
step 'its line names the chain' grep --quiet -- '-F INPUT_FIREWALL' "$out/log"
