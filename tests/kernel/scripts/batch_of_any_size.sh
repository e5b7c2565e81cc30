# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# No limit of a command line and no number of rules stops a batch.
document() {
    python3 - "$1" <<'END'
import json
import sys

count = int(sys.argv[1])
cmds = {
    "v4": {"eth0": [f"-t filter -A INPUT_FIREWALL -s 10.{i >> 16}.{i >> 8 & 255}.{i & 255} -p tcp "
                    f"--dport {i % 60000 + 1} -j DROP" for i in range(count)]},
    "v6": {"eth0": [f"-t filter -A INPUT_FIREWALL -s fd00::{i:x} -p tcp --dport {i % 60000 + 1} "
                    "-j DROP" for i in range(count)]},
}
json.dump(cmds, sys.stdout)
END
}

rules() {
    "$1" -S INPUT_FIREWALL | grep -c '^-A'
}

tarnfw base up
for count in 5000 50000; do
    document "$count" >"$out/document"
    step "$count lines a family" rules_probe batch "$out/document"
    step 'IPv4 has them' [ "$(rules iptables)" = "$count" ]
    step 'IPv6 has them' [ "$(rules ip6tables)" = "$count" ]
done
step 'the last one is in its place' \
    grep --quiet -- '-s 10.0.195.79/32 .*--dport 50000 ' <(iptables -S INPUT_FIREWALL | tail -n 1)

# Longer than cmdExec() takes, as long as a rule can be: a comment of 255 bytes and many words.
words=$(printf -- '-m comment --comment %s ' {1..60})
comment=$(printf 'c%.0s' {1..250})
step 'a line of 240 words' rules_probe batch - \
    <<<"{\"v4\": {\"eth0\": [\"-A INPUT_FIREWALL $words-m comment --comment $comment -j DROP\"]}}"
step 'it is there' grep --quiet -- "$comment" <(iptables -S INPUT_FIREWALL)
rm -f "$out/document"
