# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The rules of the firewall's chains are read from the kernel and put back, with the policies; what
# other programs have in the filter stays. A family that the machine lacks is left out.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

others_stay() {
    iptables -S OTHERS | grep --quiet 192.0.2.9 && iptables -S INPUT | grep --quiet -- '-j OTHERS'
}

saved() {
    rules_probe save >"$out/saved.json"
}

tarnfw base up
iptables -N OTHERS
iptables -A OTHERS -s 192.0.2.9 -j RETURN
iptables -A INPUT -j OTHERS
iptables -P FORWARD DROP
for tool in iptables ip6tables; do
    "$tool" -A INPUT_FIREWALL -i lo -j ACCEPT
    "$tool" -A INPUT_FIREWALL -m comment --comment 'two words "quoted"' -j LOG --log-prefix 'a b: '
    "$tool" -A FORWARD_FIREWALL -p tcp -m multiport --dports 22,80:90 -j DROP
done
keep_listing before
step 'the rules are read' saved
rules_probe closed
empty_chains
iptables -A INPUT_FIREWALL -j ACCEPT
step 'they are put back' rules_probe put-back "$out/saved.json"
step 'and all is as it was' same_listing before
step 'with what others have' others_stay

step 'chains that are gone' tarnfw base down
step 'are put back' rules_probe put-back "$out/saved.json"
step 'with their rules' iptables -C FORWARD_FIREWALL -p tcp -m multiport --dports 22,80:90 -j DROP

sed 's/-i lo -j ACCEPT/-s 300.1.1.1 -j ACCEPT/' "$out/saved.json" >"$out/wrong.json"
refuses 'a rule that the kernel does not take' rules_probe put-back "$out/wrong.json" 2>"$out/log"
step 'is named' grep --quiet 'could not be put back: IPv4: .*300.1.1.1' "$out/log"

# As the tools say it on a kernel without IPv6.
mkdir /tmp/wrapped
cp -- "/usr/sbin/xtables-$variant-multi" /tmp/wrapped/iptables
cat >/tmp/wrapper <<'END'
#!/bin/sh
case ${0##*/} in
ip6tables*)
    echo "can't initialize ip6tables table \`filter': Address family not supported by protocol" >&2
    exit 3
    ;;
esac
exec "/tmp/wrapped/${0##*/}" "$@"
END
chmod +x /tmp/wrapper
mount --bind /tmp/wrapper "/usr/sbin/xtables-$variant-multi"
step 'a machine without IPv6' saved
step 'has the rules of IPv4 alone' [ "$(jq --compact-output keys "$out/saved.json")" = '["v4"]' ]
