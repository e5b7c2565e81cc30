# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw preview in its formats: the same rules as lines, as JSON, and as texts which the restoring tools
# take and which put into the kernel what a reload puts there. That a preview changes nothing is
# preview_shows_what_a_reload_runs. And tarnfw report, which shows what a profile means; how its page looks
# and behaves is tested in a browser, by tests/docs/report_page_test.
make_links <<<'veth eth0 192.168.1.10/24 2001:db8:1::10/64 lan 192.168.1.20/24 2001:db8:1::20/64'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

answers 0 base up
keep_listing base
use_profile deny_by_default

# --- lines, by family ------------------------------------------------------------------------------

answers 0 preview
silent
cp -- "$out/answer" "$out/lines"
step 'both families' [ "$(grep '^#' "$out/lines")" = $'# IPv4\n# IPv6' ]
answers 0 preview --format lines deny_by_default
prints <"$out/lines"
answers 0 preview --family v4
prints < <(sed '/^# IPv6$/,$d' "$out/lines")
for family in '--family v6' '--family 6' '--family ipv6' --v6; do
    read -r -a words <<<"$family"
    answers 0 preview "${words[@]}"
    prints < <(sed -n '/^# IPv6$/,$p' "$out/lines")
done

# --- JSON ------------------------------------------------------------------------------------------

# The lines of a family in the order of running.
in_order() {
    jq --raw-output --arg family "$1" \
        '.[$family] | (.global // []), (del(.global) | .[]) | .[]' "$out/answer"
}
answers 0 preview --json
silent
step 'its families' [ "$(jq --compact-output keys "$out/answer")" = '["v4","v6"]' ]
step 'its adapters' [ "$(jq --compact-output '.v4 | keys' "$out/answer")" = '["eth0","global"]' ]
step 'the lines of IPv4' diff -u \
    <(sed -n '/^# IPv6$/,$d; s,^/sbin/iptables ,,p' "$out/lines") <(in_order v4)
step 'the lines of IPv6' diff -u <(sed -n 's,^/sbin/ip6tables ,,p' "$out/lines") <(in_order v6)
cp -- "$out/answer" "$out/json"
answers 0 preview --format json
prints <"$out/json"
answers 0 preview --format json --family v6
step 'one family' diff -u <(jq '{v6}' "$out/json") <(jq . "$out/answer")

# --- for iptables-restore --------------------------------------------------------------------------

answers 0 preview --format restore
silent
step 'a text for each family' [ "$(grep '^#' "$out/answer")" = \
    $'# IPv4, for /sbin/iptables-restore --noflush\n# IPv6, for /sbin/ip6tables-restore --noflush' ]
step 'each whole' [ "$(grep --count '^COMMIT$' "$out/answer")" = 2 ]
cp -- "$out/answer" "$out/restore"
answers 0 preview --format restore --family v4
prints < <(sed '/^# IPv6/,$d' "$out/restore")

# restore OPTION...: hands each family's text to its tool.
restore() {
    tarnfw preview --format restore --family v4 | iptables-restore --noflush "$@" &&
        tarnfw preview --format restore --family v6 | ip6tables-restore --noflush "$@"
}
step 'the tools take the texts' restore --test
step 'which changes nothing' same_listing base
answers 0 enable
keep_listing enabled
step 'loaded over a reload, nothing changes' restore
step 'the rules are the same' same_listing enabled
answers 0 disable
step 'loaded into empty chains' restore
step 'they are what a reload makes' same_listing enabled

# --- what it refuses -------------------------------------------------------------------------------

answers 5 preview nowhere
complains '^tarnfw: there is no profile "nowhere" (profiles: default, deny_by_default)$'
step 'nothing on standard output' [ ! -s "$out/answer" ]
answers 2 preview --format xml
answers 2 preview --family v5
answers 2 preview --json --format lines
# A table whose name is no word of the syntax: there is a line, and no text.
jq '.name = "odd" | .rules.eth0[0].table = "a\tb"' \
    "$kProfileDirectory/deny_by_default.json" >"$kProfileDirectory/odd.json"
answers 0 preview odd
answers 1 preview --format restore odd
complains '^tarnfw: the IPv4 rules cannot be written for iptables-restore$'
step 'nothing on standard output' [ ! -s "$out/answer" ]

# --- report: what it means, as a page and as a document --------------------------------------------

answers 0 report --json
silent
step 'the tables' [ "$(jq --compact-output '[.profile, .active, .changes,
    (.tables | map(.title + " " + .family) | unique)]' "$out/answer")" = \
    '["deny_by_default",true,null,["eth0 v4","eth0 v6","eth1 v4","eth1 v6","every other interface v4","every other interface v6"]]' ]
cp -- "$out/answer" "$out/document"
keep_files before
answers 0 report --html /tmp/report.html
silent
prints <<<'The report was written to /tmp/report.html'
step 'for its owner alone' [ "$(stat --format %a /tmp/report.html)" = 600 ]
step 'one page' grep --quiet '^<title>Firewall profile “deny_by_default”</title>$' /tmp/report.html
answers 1 report --html /tmp/report.html
complains '^tarnfw: /tmp/report.html already exists; --force replaces it$'
chmod 640 /tmp/report.html
answers 0 report --html /tmp/report.html --profile default --since deny_by_default --force
step 'replaced alike' [ "$(stat --format %a /tmp/report.html)" = 640 ]
step 'with the changes' grep --quiet '^<li class="[a-z]*">opens ' /tmp/report.html
step 'and nothing beside it' [ "$(find /tmp -name '*report.html*' | wc -l)" = 1 ]
answers 0 report --html -
says '^<!DOCTYPE html>$'
answers 1 report --html /nowhere/report.html
step 'nothing on standard output' [ ! -s "$out/answer" ]

# A file is a profile as well.
answers 0 profile show deny_by_default --json
cp -- "$out/answer" /tmp/shown.json
answers 0 report --json --profile /tmp/shown.json --since deny_by_default
step 'which means the same' [ "$(jq --compact-output '[.active, .enabled, .changes.same]' "$out/answer")" = \
    '[null,null,true]' ]
step 'and has the same tables' diff <(jq .tables "$out/document") <(jq .tables "$out/answer")
answers 5 report --json --profile nowhere
answers 5 report --html /tmp/other.html --since nowhere
printf '{"name": "broken", "rules": []}\n' >/tmp/broken.json
answers 3 report --html /tmp/other.html --profile /tmp/broken.json
step 'no page' [ ! -e /tmp/other.html ]
answers 2 report
answers 2 report --html /tmp/other.html --json
answers 2 report --json --force
step 'nothing was stored' same_files before
