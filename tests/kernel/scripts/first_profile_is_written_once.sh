# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Without a profile, "base up" writes a first one for this machine, which lets in the local network and the
# person who is connected, and to which rules can be added; if there is one, it writes none. It chooses an
# apply mode if nobody has. Other files in the directory stay, and nothing makes it wait forever.
. "$checkout/tests/kernel/answers.sh"

make_links <<'END'
veth eth0 192.168.1.10/24 203.0.113.10/24 fd00:1::10/64 2001:db8:1::10/64 lan 192.168.1.20/24 203.0.113.20/24 203.0.113.30/24 fd00:1::20/64 2001:db8:1::20/64
END
readonly kSeconds=20 # far more than needed, far less than for ever

base_up() {
    timeout "$kSeconds" "$build/tools/tarnfw/tarnfw" base up
}

# The directory's files with what is in them.
keep_directory() {
    find "$kProfileDirectory" -maxdepth 1 -type f -exec sha256sum -- {} + | LC_ALL=C sort
}

# The directory's files but the settings.
profile_files() {
    find "$kProfileDirectory" -maxdepth 1 -type f ! -path "$kSettings" | LC_ALL=C sort
}

# writes_one NAME: base up adds exactly one file, the profile "default", and a second call none.
writes_one() {
    local name=$1 added
    mkdir -p -- "$kProfileDirectory"
    profile_files >"$out/$name.before"
    keep_directory | grep --invert-match " $kSettings$" >"$out/$name.sums" || true
    step "$name: base up returns" base_up
    step "$name: what was there is as it was" [ -z "$(
        LC_ALL=C comm -23 "$out/$name.sums" <(keep_directory)
    )" ]
    profile_files >"$out/$name.after"
    mapfile -t added < <(LC_ALL=C comm -13 "$out/$name.before" "$out/$name.after")
    step "$name: one file more" [ "${#added[@]}" = 1 ]
    step "$name: a document of the store" [ "${added[0]%.json}" != "${added[0]}" ]
    step "$name: for root alone" [ "$(stat -c %a "${added[0]}")" = 600 ]
    step "$name: it is the only profile" [ "$(tarnfw profile list)" = '* default' ]

    keep_directory >"$out/$name.written"
    step "$name: base up again" base_up
    step "$name: nothing more is written" diff -u "$out/$name.written" <(keep_directory)
    step "$name: base down" tarnfw base down
    step "$name: the profile stays" diff -u "$out/$name.written" <(keep_directory)
}

rm -rf -- "$kProfileDirectory"
umask 0 # not what it makes them with
step 'no directory: base up returns' base_up
umask 022
step 'no directory: there is one' [ -d "$kProfileDirectory" ]
step 'no directory: it is for root alone' [ "$(stat -c %a "$kProfileDirectory")" = 700 ]
step 'no directory: the profile and the settings are for root alone' [ \
    "$(find "$kProfileDirectory" -maxdepth 1 -name '*.json' -printf '%m\n' | sort --unique)" = 600 ]
step 'no directory: the settings are there, with apply mode "batch"' [ \
    "$(jq -c '[.status, .profile, .apply]' "$kSettings")" = '[false,"default","batch"]' ]
step 'no directory: the profile is there' [ "$(tarnfw profile list)" = '* default' ]

# Killed when only the profile is written, it has done nothing: the next call does all of it, which is one
# change of the history.
rm -rf -- "$kProfileDirectory"
hold /var/lock/firewall/firewall_settings.json.lock
"$build/tools/tarnfw/tarnfw" base up >"$out/killed" 2>&1 &
killed=$!
until compgen -G "$kProfileDirectory/*.json" >/dev/null; do
    kill -0 "$killed" || fail 'it did not wait'
done
kill -KILL "$killed"
wait "$killed" || true
release
step 'after a killed call: base up returns' base_up
step 'after a killed call: all settings are there' [ \
    "$(jq -c '[.status, .profile, .apply, .applyChanges]' "$kSettings")" = '[false,"default","batch",true]' ]
step 'after a killed call: one profile' [ "$(profile_files | wc -l)" = 1 ]
step 'it is one change' [ "$(tarnfw history --json | jq '.history | length')" = 1 ]
step 'which can be undone' tarnfw undo
step 'as a whole' [ -z "$(find "$kProfileDirectory" -maxdepth 1 -name '*.json')" ]

rm -rf -- "$kProfileDirectory"
writes_one empty

rm -rf -- "$kProfileDirectory"
mkdir -p -- "$kProfileDirectory"
activate default
writes_one settings

rm -rf -- "$kProfileDirectory"
mkdir -p -- "$kProfileDirectory"
printf '{"rules": {}, "adapterPolicyMap": {}}\n' >"$kProfileDirectory/1.json"
printf '{"name": 7}\n' >"$kProfileDirectory/2.json"
printf '["name"]\n' >"$kProfileDirectory/3.json"
writes_one nameless

# writes_none NAME: base up returns, and leaves the directory as it is.
writes_none() {
    local name=$1
    keep_directory >"$out/$name.sums"
    step "$name: base up returns" base_up
    step "$name: nothing is written" diff -u "$out/$name.sums" <(keep_directory)
}

# What cannot be read may be somebody's profile, and one of the name "default" at that.
rm -rf -- "$kProfileDirectory"
mkdir -p -- "$kProfileDirectory"
printf '{"name": "default", ' >"$kProfileDirectory/1.json"
printf '{"status": false, "profile": "default", "apply": "lines"}\n' >"$kSettings"
writes_none broken

# Somebody's own profile is reason enough to write none.
rm -rf -- "$kProfileDirectory"
mkdir -p -- "$kProfileDirectory"
printf '{"name": "mine", "rules": {}, "adapterPolicyMap": {}}\n' >"$kProfileDirectory/mine.json"
printf '{"status": false, "profile": "mine", "apply": "lines"}\n' >"$kSettings"
writes_none mine

# --- the apply mode --------------------------------------------------------------------------------

# chooses MODE NAME MEMBERS: with these members of the settings, base up leaves that mode, and the others.
chooses() {
    local mode=$1 name=$2 members=$3
    printf '{"status": false, "profile": "mine"%s}\n' "$members" >"$kSettings"
    step "$name: base up" base_up
    step "$name: the mode is \"$mode\"" [ \
        "$(jq -c '[.status, .profile, .apply]' "$kSettings")" = "[false,\"mine\",\"$mode\"]" ]
}

# A library call writes settings before anybody has chosen.
rm -f -- "$kSettings"
/usr/bin/python3 -c 'import ctypes, sys
ctypes.CDLL(sys.argv[1]).TARNFwPortsCheckAllowByAdapter(b"eth0", b"ssh")' "$build/lib/libtarnfirewall.so"
step 'they have no mode' [ "$(jq -c 'keys' "$kSettings")" = '["profile","status"]' ]
step 'base up' base_up
step 'now they have one' [ "$(jq -c .apply "$kSettings")" = '"batch"' ]
chooses batch 'no mode' ''
chooses batch 'no mode that exists' ', "apply": "Batch"'
chooses batch 'not even a text' ', "apply": 1'
chooses lines "a person's choice" ', "apply": "lines"'
chooses batch "a person's other choice" ', "apply": "batch"'
printf '{"status": false, ' >"$kSettings"
writes_none 'settings that cannot be read'

# It can be chosen before there is anything; the first profile then is the active one all the same.
rm -rf -- /usr/tarn/etc
answers 0 apply-mode lines
silent
step 'the mode stays, and the profile is active' base_up
step 'as the settings say' [ "$(jq -c '[.status, .profile, .apply]' "$kSettings")" = '[false,"default","lines"]' ]
# activates NAME SETTINGS: with these settings and no profile, base up makes NAME the active one.
activates() {
    rm -- "$kProfileDirectory"/*.json
    printf '%s\n' "$2" >"$kSettings"
    step 'base up' base_up
    step "the settings name \"$1\"" [ "$(jq -r .profile "$kSettings")" = "$1" ]
}
activates default '{"status": false, "profile": ""}'
activates default '{"status": false}'
activates work '{"status": false, "profile": "work"}' # somebody's choice

# --- the profile itself ----------------------------------------------------------------------------

# What is the machine's own, and what containers have.
ip link add br0 type bridge
ip link add docker0 type bridge
ip link add veth0a1b2c3 type veth peer name eth0 netns lan
ip link set veth0a1b2c3 master docker0

rm -rf -- "$kProfileDirectory"
SSH_CONNECTION='203.0.113.30 50000 203.0.113.10 22' step 'base up over SSH' base_up
step 'what is denied by default' [ "$(tarnfw profile show --json | jq -c '.adapterPolicyMap')" = \
    '{"br0":"deny","eth0":"deny","global":"none"}' ]

# shown COLUMNS: the active profile on a terminal so wide.
shown() {
    /usr/bin/python3 -c 'import pexpect, sys
tool = pexpect.spawn(sys.argv[2], ["profile", "show"], encoding="utf-8", dimensions=(24, int(sys.argv[1])))
tool.expect(pexpect.EOF)
print(tool.before.replace("\r", ""), end="")' "$1" "$build/tools/tarnfw/tarnfw" |
        sed 's/\x1b\[[0-9;]*m//g' >"$out/shown"
}
step 'it is shown' shown 80
cat -- "$out/shown"
step 'in at most 25 lines' [ "$(wc -l <"$out/shown")" -le 25 ]
step 'of at most 80 columns' [ "$(wc -L <"$out/shown")" -le 80 ]
step 'all of it' [ "$(grep -c '^  [0-9]* *allow ' "$out/shown")" = 9 ]

# The longest address that a person can come from.
rm -rf -- "$kProfileDirectory"
SSH_CONNECTION='2001:db8:1111:2222:3333:4444:5555:6666 50000 2001:db8:1::10 2222' step 'base up again' base_up
step 'it is shown' shown 80
cat -- "$out/shown"
step 'in at most 25 lines' [ "$(wc -l <"$out/shown")" -le 25 ]
step 'all of it' [ "$(grep -c '^  [0-9]* *allow ' "$out/shown")" = 10 ]
rm -rf -- "$kProfileDirectory"
SSH_CONNECTION='203.0.113.30 50000 203.0.113.10 22' step 'and the first one again' base_up

tarnfw profile show default >"$out/default.txt" || fail 'its rules can be read'
step 'each of its codes is known' [ "$(grep -c unknown "$out/default.txt")" = 0 ]
mapfile -t services < <(sed -n 's/^.* service \([^ ]*\).*/\1/p' "$out/default.txt" | tr , '\n' |
    LC_ALL=C sort --unique)
step 'it names services' [ "${#services[@]}" = 16 ]
for service in "${services[@]}"; do
    step "the catalogue has $service" grep --quiet "\"name\": *\"$service\"" \
        /usr/tarn/etc.defaults/services.d/*.json
done
answers 0 check --strict default

# What "service update" finds is what was written.
answers 0 service update
says '(no profile changed)$'
answers 0 profile create home
says '^Profile "home" created with the rules of a first profile$'
step 'of this machine' [ "$(tarnfw profile show home --json | jq -c .adapterPolicyMap)" = \
    '{"br0":"deny","eth0":"deny","global":"none"}' ]
answers 0 service update
says '(no profile changed)$'
answers 0 profile create nothing --empty
says '^Profile "nothing" created; without rules it allows everything$'
step 'it has none' [ "$(tarnfw profile show nothing --json | jq ".rules // {} | length")" = 0 ]
answers 2 profile create other --empty --from "$kSettings"

tarnfw preview default >"$out/default.preview" 2>"$out/default.complaints" || fail 'it translates'
step 'without a complaint' diff -u /dev/null "$out/default.complaints"
step 'the firewall is enabled with it' tarnfw enable
for family in v4 v6; do
    tool=$([[ $family == v4 ]] && echo iptables || echo ip6tables)
    listing "$family" >"$out/enabled.$family"
    step "$family: the kernel took each of its lines" [ \
        "$(grep -c '^-A [A-Z]*_FIREWALL' "$out/enabled.$family")" = \
        "$(grep -c "^/sbin/$tool .*-A  *[A-Z]*_FIREWALL" "$out/default.preview")" ]
done

serve tcp/22 tcp/443 tcp/445 tcp/8080 tcp/47123 udp/5353 udp/47123
step 'the local network, and the person who was connected, are let in, and nobody else' check_packets <<'END'
icmp4 192.168.1.10 0 open
icmp4 203.0.113.10 0 open 203.0.113.20
icmp6 2001:db8:1::10 0 open
udp4 203.0.113.10 5353 blocked 203.0.113.20
udp4 192.168.1.10 5353 open 192.168.1.20
tcp4 192.168.1.10 22 open 192.168.1.20
tcp4 192.168.1.10 443 open 192.168.1.20
tcp4 192.168.1.10 445 open 192.168.1.20
tcp6 fd00:1::10 22 open
tcp6 fd00:1::10 445 open
tcp4 192.168.1.10 8080 blocked 192.168.1.20
tcp4 192.168.1.10 47123 blocked 192.168.1.20
udp4 192.168.1.10 47123 blocked 192.168.1.20
tcp4 203.0.113.10 22 blocked 203.0.113.20
tcp4 203.0.113.10 443 blocked 203.0.113.20
tcp4 203.0.113.10 445 blocked 203.0.113.20
tcp6 2001:db8:1::10 22 blocked
tcp6 2001:db8:1::10 445 blocked
tcp4 203.0.113.10 22 open 203.0.113.30
tcp4 203.0.113.10 445 blocked 203.0.113.30
END

# A rule after the others opens what it says.
answers 0 rule add --adapter global --reload allow tcp 8080
step 'it is open to everybody' check_packets <<'END'
tcp4 192.168.1.10 8080 open 192.168.1.20
tcp4 203.0.113.10 8080 open 203.0.113.20
tcp6 2001:db8:1::10 8080 open
tcp4 203.0.113.10 22 blocked 203.0.113.20
tcp4 203.0.113.10 47123 blocked 203.0.113.20
END
answers 0 disable

# --- the profile of a storage system ---------------------------------------------------------------

# Nothing here writes it; systems that bring their own tool do.
answers 0 check --strict /usr/tarn/etc.defaults/firewall_default_profile.json
