# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The programs that the tool runs do not get variables that would make them load other code or use another
# lock; and what is in a document does not control the terminal, whichever way it gets there.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

answers 0 base up
use_profile many_ports
answers 0 enable --yes

# --- variables -------------------------------------------------------------------------------------

mkdir /tmp/none
multiport=(iptables -A INPUT_FIREWALL -p tcp -m multiport --dports '1,2' -j DROP)
refuses 'iptables itself obeys the variable' env XTABLES_LIBDIR=/tmp/none "${multiport[@]}"
export XTABLES_LIBDIR=/tmp/none XTABLES_LOCKFILE=/tmp/none/lock
answers 0 check --kernel many_ports 2>/dev/null
answers 0 reload 2>/dev/null
answers 0 diff 2>/dev/null
unset XTABLES_LIBDIR XTABLES_LOCKFILE
step 'no lock file of its own' [ ! -e /tmp/none/lock ]

# --- names -----------------------------------------------------------------------------------------

/usr/bin/python3 - "$kProfileDirectory/many_ports.json" "$kProfileDirectory" <<'END_OF_PROGRAM'
import json
import sys

with open(sys.argv[1]) as file:
    document = json.load(file)
names = ["E\x1b]0;TITLE\x07\x1b[31mRED\nfake", "C\x9b31mRED", "B\u202e\u2066gnp"]
for number, name in enumerate(names, 1):
    adapter = next(iter(document["rules"]))
    profile = dict(document, name=name)
    profile["rules"] = {adapter: [dict(document["rules"][adapter][0], name=name, labelList=[name])]}
    if number == 1:
        profile["rules"][adapter][0]["portList"] = [{}]  # the library cannot read it
    with open(f"{sys.argv[2]}/evil{number}.json", "w", encoding="utf-8") as file:
        json.dump(profile, file, ensure_ascii=False)
with open(sys.argv[2] + "/firewall_settings.json", "w", encoding="utf-8") as file:
    json.dump({"status": True, "profile": names[0], "apply": "lines"}, file)
END_OF_PROGRAM

harmless() {
    [ -s "$out/answer" ] || [ -s "$out/complaint" ] || return 1
    ! LC_ALL=C grep --quiet --perl-regexp \
        '\x1b|\x07|\xc2[\x80-\x9f]|\xe2\x80[\x8e\x8f\xa8-\xae]|\xe2\x81[\xa6-\xa9]' \
        "$out/answer" "$out/complaint"
}

for command in 'profile list' status 'profile show' check diff preview 'blocked --port tcp/22' reload \
    enable disable 'profile delete x' 'profile list --json' 'status --json' \
    'profile show --json' 'check --json' export; do
    read -r -a words <<<"$command"
    tarnfw "${words[@]}" >"$out/answer" 2>"$out/complaint" </dev/null || true
    step "tarnfw $command: output, and nothing that a terminal obeys" harmless
done
