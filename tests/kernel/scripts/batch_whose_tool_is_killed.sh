# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A tool is killed just after its commit. The library cannot know that, so it restores the previous
# rules of both families, with the counters, however many there are.

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

# document COUNT: that many rules of IPv6, and one of IPv4.
document() {
    python3 - "$1" <<'END'
import json
import sys

lines = [f"-A INPUT_FIREWALL -s fd00::a:{i + 1:x} -j DROP" for i in range(int(sys.argv[1]))]
json.dump({"v4": {"eth0": ["-A INPUT_FIREWALL -s 10.0.0.1 -j DROP"]}, "v6": {"eth0": lines}}, sys.stdout)
END
}

# batch TOOL COUNT: replaces the rules while the tool is killed.
batch() {
    echo "$1" >/tmp/killed
    rules_probe batch <(document "$2") 2>"$out/log"
}

was_killed() {
    grep --quiet "Failed to run /sbin/$1: status 137" "$out/log"
}

nothing_has_changed() {
    everything >"$out/now"
    diff -u "$out/old" "$out/now"
}

for tool in iptables-restore ip6tables-restore; do
    refuses "$tool is killed" batch "$tool" 1
    step 'it was at its end' was_killed "$tool"
    step 'nothing has changed' nothing_has_changed
done

readonly kMany=8000
refuses 'the first of very many' batch iptables-restore "$kMany"
step 'it was at its end' was_killed iptables-restore
step 'nothing has changed' nothing_has_changed
refuses 'the second of very many' batch ip6tables-restore "$kMany"
step 'it was at its end' was_killed ip6tables-restore
step 'nothing has changed' nothing_has_changed
step 'nothing is killed' batch none "$kMany"
step 'the rules are the new ones' test "$(ip6tables -S INPUT_FIREWALL | grep -c fd00::a:)" = "$kMany"
