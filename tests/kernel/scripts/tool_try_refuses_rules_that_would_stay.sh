# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A rule for another table, or for a chain that is not the firewall's own, would stay in force after
# the trial: such a profile is not tried.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

# every_table: all tables of both families.
every_table() {
    local table
    for table in filter raw mangle; do
        iptables -t "$table" -S
        ip6tables -t "$table" -S
    done
}

# change_rule MEMBER JSON: of the only rule of $new.
change_rule() {
    /usr/bin/python3 -c '
import json, sys
path, member, value = sys.argv[1:]
document = json.load(open(path, encoding="utf-8"))
((rule,),) = (rules for rules in document["rules"].values() if rules)
rule[member] = json.loads(value)
json.dump(document, open(path, "w", encoding="utf-8"))' "$kProfileDirectory/new.json" "$1" "$2"
}

store_two_profiles
keep_both_listings
every_table >"$out/before"
original=$(<"$kProfileDirectory/new.json")

for mode in lines batch; do
    answers 0 apply-mode "$mode"
    cp -- "$kSettings" /tmp/settings

    change_rule table '"raw"'
    refused 1 "^tarnfw: rule 1 of eth0 is for the table \"raw\", where it would stay in force afterwards; profile \"$new\" cannot be tried$" \
        try "$new" --timeout 1
    change_rule table '"filter"'
    change_rule chainList '["INPUT_FIREWALL", "INPUT"]'
    refused 1 "^tarnfw: rule 1 of eth0 is for the chain \"INPUT\", where it would stay in force afterwards; profile \"$new\" cannot be tried$" \
        try "$new" --timeout 1
    step 'no table has changed' diff -u "$out/before" <(every_table)
    gone_back

    # A rule that is off is not in force anywhere.
    change_rule enable false
    answers 1 try "$new" --timeout 1
    step 'no table has changed' diff -u "$out/before" <(every_table)
    gone_back
    printf '%s\n' "$original" >"$kProfileDirectory/new.json"
done
