# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The tool's output and exit statuses: 0 success, 1 failed, 2 wrong usage, 4 not root, 5 not known.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# --- help, version, wrong usage --------------------------------------------------------------------

commands=('base up' 'base down' 'base status' status enable disable reload preview try 'profile list'
    'profile show' 'profile diff' 'profile create' 'profile copy' 'profile rename' 'profile delete' 'profile use'
    'profile edit' 'profile set' 'rule add' 'rule insert' 'rule set' 'rule move' 'rule delete' 'rule on' 'rule off'
    policy blocked explain adapters services 'service reserve' 'service release' 'service update'
    'adapter rename' apply-mode check diff report history undo export import 'geoip list' 'geoip show' 'geoip check'
    'modules load' 'modules unload' 'modules status')
# What they do not work without.
declare -A arguments=([report]=--json ['profile diff']=default ['profile create']=new ['profile copy']='default new'
    ['profile rename']='default new' ['profile delete']=deny_by_default
    ['profile use']=deny_by_default ['profile set']='default --from deny_by_default' ['rule add']='--adapter global deny any'
    ['rule insert']='1 --adapter global deny any' ['rule set']='1 --adapter global deny any'
    ['rule move']='1 2 --adapter global' ['rule delete']='1 --adapter global'
    ['rule on']='1 --adapter global' ['rule off']='1 --adapter global' [policy]='eth0 deny'
    [blocked]='--port tcp/22' [explain]='--port tcp/22'
    ['service reserve']='ssh allow --adapter eth0' ['service release']=ssh
    ['adapter rename']='eth0 eth1' [import]=/tmp/none.json ['geoip show']=DE
    ['geoip check']=192.0.2.1)
keep_listing before
answers 0 --help
silent
for command in "${commands[@]}"; do
    says "^ *${command%% *} "
done
for command in "${commands[@]}" adapter base geoip modules profile rule service; do
    read -r -a words <<<"$command"
    answers 0 "${words[@]}" -h
    silent
    says "tarnfw $command"
    cp -- "$out/answer" "$out/short"
    answers 0 "${words[@]}" --help
    step 'both are the same' cmp "$out/short" "$out/answer"
done
answers 0 --version
silent
step 'the version is one line of numbers' grep --quiet --line-regexp '[0-9]\+\(\.[0-9]\+\)*' \
    "$out/answer"
step 'which is all' [ "$(wc -l <"$out/answer")" = 1 ]

for wrong in '' nonsense --nonsense base 'base sideways' 'base up more' profile \
    'profile show one two' 'profile list more' 'status more' 'enable --fast' 'preview one two' rule \
    'rule sideways' policy; do
    read -r -a words <<<"$wrong"
    answers 2 "${words[@]}"
    step 'nothing on standard output' [ ! -s "$out/answer" ]
    step 'but why' [ -s "$out/complaint" ]
done

# An answer that nobody gets is a failure, wherever it is lost; a document's file does not get it.
for words in --help --version help 'help rules' 'blocked --help'; do
    read -r -a words <<<"$words"
    status=0
    tarnfw "${words[@]}" >/dev/full 2>"$out/complaint" || status=$?
    step "${words[*]}: lost on a full device" [ "$status" = 1 ]
    complains '^tarnfw: cannot write the output'
    status=0
    tarnfw "${words[@]}" 2>"$out/complaint" >&- || status=$?
    step "${words[*]}: lost without a standard output" [ "$status" = 1 ]
done

# --- before base up --------------------------------------------------------------------------------

answers 0 base status
says '^IPv4: missing: chains .*INPUT_FIREWALL.*; jumps .*INPUT -> INPUT_FIREWALL'
says '^IPv6: missing: chains .*INPUT_FIREWALL.*; jumps .*FORWARD -> FORWARD_FIREWALL'
answers 0 status
says '^Firewall: *disabled$'
says '^Active profile: *default (does not exist)$'
says '^Base filter: *IPv4 lacks chains '
says '^Base filter: *IPv6 lacks chains '
answers 5 profile list
step 'no profile is listed' [ ! -s "$out/answer" ]
step 'the way to a first one is named' grep --quiet 'tarnfw base up' "$out/complaint"
answers 1 enable
complains '^tarnfw: the base filter is not set up (.*); "tarnfw base up" sets it up$'
step 'no profile or settings came of all this' [ ! -e "$kSettings" ]
# Settings that count as enabled: a reload has something to do, and must not do it.
mkdir -p -- "$kProfileDirectory"
printf '{"status": true, "profile": "default"}\n' >"$kSettings"
cp -- "$kSettings" /tmp/settings
answers 1 reload
complains '^tarnfw: the base filter is not set up ('
answers 1 enable
step 'the settings are untouched' cmp "$kSettings" /tmp/settings
step 'the filter is untouched' same_listing before
answers 11 status
says '^Firewall: *enabled, but no rules are in force and the machine is open: the base filter is not set up; "tarnfw base up" and then "tarnfw reload" fix this$'
rm -- "$kSettings"

# --- with it ---------------------------------------------------------------------------------------

answers 0 base up
says '^IPv4: added chains .*INPUT_FIREWALL'
says '^IPv6: added chains .*INPUT_FIREWALL'
says '^Profile "default" written to '
answers 0 base up
silent
says '^IPv4: added nothing$'
says '^IPv6: added nothing$'
answers 0 base status
silent
step 'both families are set up' [ "$(<"$out/answer")" = $'IPv4: set up\nIPv6: set up' ]
keep_listing base

answers 0 reload
says '^Firewall disabled: nothing to reload$'
step 'the filter is untouched' same_listing base
answers 0 enable
says '^Firewall enabled with profile "default"$'
answers 0 status
says '^Firewall: *enabled$'
says '^Active profile: *default$'
says '^Base filter: *IPv4 set up$'
says '^Base filter: *IPv6 set up$'
keep_listing enabled
answers 0 reload
says '^Profile "default" applied$'
step 'the rules are the same' same_listing enabled

# One jump gone: the machine would pass for protected.
ip6tables -D INPUT -j INPUT_FIREWALL
keep_listing lacking
answers 0 base status
says '^IPv4: set up$'
says '^IPv6: missing: jumps INPUT -> INPUT_FIREWALL$'
answers 1 reload
complains 'IPv6 lacks jumps INPUT -> INPUT_FIREWALL'
step 'nothing was changed' same_listing lacking
answers 0 base up
says '^IPv6: added jumps INPUT -> INPUT_FIREWALL$'
step 'it is whole again' same_listing enabled

# Jumps the other way round, as somebody else may have made them: said, and put right by "base up".
iptables -D FORWARD -j FIREWALL_RELOADING
iptables -A FORWARD -j FIREWALL_RELOADING
answers 0 base status
says '^IPv4: set up, but a firewall chain comes before FIREWALL_RELOADING'
says '^IPv6: set up$'
answers 0 status
says '^Base filter: *IPv4 set up, but a firewall chain comes before FIREWALL_RELOADING'
says '^Base filter: *IPv6 set up$'
answers 0 base up
silent
answers 0 base status
says '^IPv4: set up$'
iptables -D FORWARD -j FIREWALL_RELOADING
iptables -I FORWARD -j FIREWALL_RELOADING
step 'it is complete again' same_listing enabled

# --- profiles --------------------------------------------------------------------------------------

cp -- "$checkout/tests/kernel/cases/deny_by_default/profile.json" \
    "$kProfileDirectory/deny_by_default.json"
answers 0 profile list
step 'the active one has the star' [ "$(LC_ALL=C sort "$out/answer")" = \
    $'  deny_by_default\n* default' ]
activate deny_by_default
answers 0 profile list
step 'and loses it to another one' [ "$(LC_ALL=C sort "$out/answer")" = \
    $'  default\n* deny_by_default' ]

answers 0 profile show deny_by_default
silent
prints <<'END'
Profile deny_by_default (active)

global
  default policy: none (the adapters decide)

eth0
  #  Action  What                Address            Family  Notes
  1  allow   service http,https  from anywhere      both    "Web"
  2  allow   tcp 22              from 192.168.1.20  IPv4    "SSH from the admin station"
  default policy: deny

eth1
  default policy: allow
END
answers 0 profile show default
step 'the other one is not active' [ "$(head -n 1 "$out/answer")" = 'Profile default' ]

for command in 'profile show' preview; do
    read -r -a words <<<"$command"
    answers 5 "${words[@]}" nowhere
    step 'nothing on standard output' [ ! -s "$out/answer" ]
    complains '^tarnfw: .*"nowhere"'
done

keep_files lost
for words in status export 'profile show --json' 'blocked --port tcp/22 --json'; do
    read -r -a words <<<"$words"
    status=0
    tarnfw "${words[@]}" >/dev/full 2>"$out/complaint" || status=$?
    step "${words[*]}: lost on a full device" [ "$status" = 1 ]
    complains '^tarnfw: cannot write the output'
done
step 'no file has changed' same_files lost

# A name can hold what a terminal would obey.
printf '{"name": "odd\\u001b[2J\\nname", "adapterPolicyMap": {"global": 0}, "rules": {}}\n' \
    >"$kProfileDirectory/odd.json"
answers 0 profile list
says '^  odd?\[2J?name$'
answers 0 profile show $'odd\e[2J\nname'
step 'its name is one line of text' [ "$(head -n 1 "$out/answer")" = 'Profile odd?[2J?name' ]
rm -- "$kProfileDirectory/odd.json"

answers 0 disable
says '^Firewall disabled$'
answers 0 status
says '^Firewall: *disabled$'
step 'the chains are empty' same_listing base

# --- as an ordinary user ---------------------------------------------------------------------------

# In a user namespace with root alone there is nobody else to be. The capability keeps the build
# directory in reach, whatever its mode: only the user is another one.
ordinary=(setpriv --reuid 65534 --regid 65534 --clear-groups --inh-caps +dac_override
    --ambient-caps +dac_override --)
if "${ordinary[@]}" true 2>/dev/null; then
    tarnfw() {
        "${ordinary[@]}" "$build/tools/tarnfw/tarnfw" "$@"
    }
    keep_files ordinary
    for command in "${commands[@]}"; do
        case $command in
        # These answer him, see tool_without_root.sh.
        status | adapters | services | preview | check | report | blocked | explain | apply-mode | listening | \
            'profile list' | 'profile show' | 'profile diff' | geoip* | log-denied | history | export) continue ;;
        esac
        read -r -a words <<<"$command ${arguments[$command]-}"
        answers 4 "${words[@]}"
        step 'nothing on standard output' [ ! -s "$out/answer" ]
        complains '^tarnfw: .*root'
        read -r -a words <<<"$command"
        answers 0 "${words[@]}" --help
    done
    answers 0 --help
    answers 0 --version
    answers 2 nonsense
    step 'nothing was changed' same_listing base
    step 'nothing was written' same_files ordinary
fi
