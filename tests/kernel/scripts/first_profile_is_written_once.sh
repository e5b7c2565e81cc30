# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Without a profile, "base up" writes a first one that keeps the machine reachable; if there
# is one, it writes none. Other files in the directory stay, and nothing makes it wait forever.
make_links <<'END'
veth eth0 192.168.1.10/24 203.0.113.10/24 2001:db8:1::10/64 lan 192.168.1.20/24 203.0.113.20/24 2001:db8:1::20/64
END
readonly kSeconds=20 # far more than needed, far less than for ever

base_up() {
    timeout "$kSeconds" "$build/tools/tarnfw/tarnfw" base up
}

# The directory's files with what is in them.
keep_directory() {
    find "$kProfileDirectory" -type f -exec sha256sum -- {} + | LC_ALL=C sort
}

# The directory's files but the settings.
profile_files() {
    find "$kProfileDirectory" -type f ! -path "$kSettings" | LC_ALL=C sort
}

# writes_one NAME: base up adds exactly one file, the profile "default", and a second call none.
writes_one() {
    local name=$1 added
    mkdir -p -- "$kProfileDirectory"
    profile_files >"$out/$name.before"
    keep_directory >"$out/$name.sums"
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
    "$(find "$kProfileDirectory" -name '*.json' -printf '%m\n' | sort --unique)" = 600 ]
step 'no directory: the settings are there, with apply mode "batch"' [ \
    "$(jq -c '[.status, .profile, .apply]' "$kSettings")" = '[false,"default","batch"]' ]
step 'no directory: the profile is there' [ "$(tarnfw profile list)" = '* default' ]

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
writes_none broken

# Somebody's own profile is reason enough to write none.
rm -rf -- "$kProfileDirectory"
mkdir -p -- "$kProfileDirectory"
printf '{"name": "mine", "rules": {}, "adapterPolicyMap": {}}\n' >"$kProfileDirectory/mine.json"
writes_none mine

# --- the profile itself ----------------------------------------------------------------------------

rm -rf -- "$kProfileDirectory"
step 'base up' base_up
tarnfw profile show default >"$out/default.txt" || fail 'its rules can be read'
step 'each of its codes is known' [ "$(grep -c unknown "$out/default.txt")" = 0 ]
mapfile -t services < <(sed -n 's/^.* service \([^ ]*\).*/\1/p' "$out/default.txt" | tr , '\n' |
    LC_ALL=C sort --unique)
step 'it names services' [ "${#services[@]}" -ge 2 ]
for service in "${services[@]}"; do
    step "the catalogue has $service" grep --quiet "\"name\": *\"$service\"" \
        /usr/tarn/etc.defaults/services.d/*.json
done

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

serve tcp/22 tcp/443 tcp/445 tcp/3493 tcp/47123 udp/47123
step 'what has to be in reach is, and nothing else' check_packets <<'END'
tcp4 192.168.1.10 22 open
tcp6 2001:db8:1::10 22 open
tcp4 203.0.113.10 22 open 203.0.113.20
tcp4 192.168.1.10 443 open
tcp4 192.168.1.10 445 open 192.168.1.20
tcp4 192.168.1.10 3493 open 192.168.1.20
tcp4 203.0.113.10 445 blocked 203.0.113.20
tcp6 2001:db8:1::10 445 blocked
tcp4 192.168.1.10 47123 blocked
udp4 192.168.1.10 47123 blocked
tcp6 2001:db8:1::10 47123 blocked
icmp4 192.168.1.10 0 open
icmp6 2001:db8:1::10 0 open
END
