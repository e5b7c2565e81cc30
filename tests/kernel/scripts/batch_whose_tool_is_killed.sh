# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A tool that is killed when it has just committed: nobody can tell. The family that is first gets its
# former rules back, with the counters. The other one is saved and put back where it has to be; else it
# is committed once more.

# everything: all of the packet filter with the counters of its rules.
everything() {
    { iptables-save --counters && ip6tables-save --counters; } |
        sed -e '/^#/d' -e '/^:/s/ \[.*//'
}

tarnfw base up
for tool in iptables ip6tables; do
    "$tool" -A INPUT_FIREWALL -i eth7 -c 11 1100 -j DROP
    "$tool" -A FORWARD_FIREWALL -i eth8 -c 22 2200 -j RETURN
done
everything >"$out/old"

# Kills the tool whose name is in /tmp/killed at the end of a commit, not when it puts back. Once.
program=/usr/sbin/xtables-$variant-multi
mkdir /tmp/wrapped
for tool in iptables ip6tables; do
    for kind in '' -save -restore; do
        cp -- "$program" "/tmp/wrapped/$tool$kind"
    done
done
cat >/tmp/wrapper <<'END'
#!/bin/sh
name=${0##*/}
case $name\ $* in
"$(cat /tmp/killed) "*--counters*) ;;
"$(cat /tmp/killed) "*)
    : >/tmp/killed
    "/tmp/wrapped/$name" "$@"
    kill -KILL $$
    ;;
esac
exec "/tmp/wrapped/$name" "$@"
END
chmod +x /tmp/wrapper
: >/tmp/killed
mount --bind /tmp/wrapper "$program"

# batch TOOL [LINE...]: replaces the rules while the tool is killed. The lines are for eth1, IPv6.
batch() {
    echo "$1" >/tmp/killed
    shift
    rules_probe batch - 2>"$out/log" <<END
{"v4": {"eth0": ["-A INPUT_FIREWALL -s 10.0.0.1 -j DROP"]},
 "v6": {"eth0": ["-A INPUT_FIREWALL -s fd00::a:1 -j DROP"], "eth1": [$*]}}
END
}

killed() {
    grep --quiet "Failed to run /sbin/$1: status 137" "$out/log"
}

nothing_has_changed() {
    everything >"$out/now"
    diff -u "$out/old" "$out/now"
}

refuses 'the tool of IPv4, which is first, is killed' batch iptables-restore
step 'it was at its end' killed iptables-restore
step 'nothing has changed' nothing_has_changed

readonly kOtherChain='"-A OTHERS -s fd00::2 -j DROP"'
ip6tables -N OTHERS
everything >"$out/old"
refuses 'the tool of IPv6 is killed, with a rule of another chain' \
    batch ip6tables-restore "$kOtherChain"
step 'it was at its end' killed ip6tables-restore
step 'nothing has changed' nothing_has_changed

step 'the tool of IPv6 is killed' batch ip6tables-restore
step 'it was at its end' killed ip6tables-restore
keep_listing killed
step 'nothing is killed' batch none
step 'the rules are the same' same_listing killed
step 'they are the new ones' grep --quiet 'fd00::a:1' <(ip6tables -S INPUT_FIREWALL)
