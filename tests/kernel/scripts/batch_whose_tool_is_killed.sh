# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A tool that is killed when it has just committed: nobody can tell, so both families get their former
# rules back, with the counters.

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

# Kills the tool whose name is in /tmp/killed at the end of a commit, not when it puts back.
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
    "/tmp/wrapped/$name" "$@"
    kill -KILL $$
    ;;
esac
exec "/tmp/wrapped/$name" "$@"
END
chmod +x /tmp/wrapper
mount --bind /tmp/wrapper "$program"

for tool in iptables-restore ip6tables-restore; do
    echo "$tool" >/tmp/killed
    refuses "$tool is killed" rules_probe batch - 2>"$out/log" \
        <<<'{"v4": {"eth0": ["-A INPUT_FIREWALL -s 10.0.0.1 -j DROP"]},
             "v6": {"eth0": ["-A INPUT_FIREWALL -s fd00::1 -j DROP"]}}'
    step 'it was at its end' grep --quiet "Failed to run /sbin/$tool: status 137" "$out/log"
    everything >"$out/now"
    step 'nothing has changed' diff -u "$out/old" "$out/now"
done
