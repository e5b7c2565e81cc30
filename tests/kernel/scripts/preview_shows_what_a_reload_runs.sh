# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "tarnfw preview" prints the lines that a reload runs, in the same order, and
# changes nothing.
make_links <<'END'
veth eth0 192.168.1.10/24 2001:db8:1::10/64 lan 192.168.1.20/24 2001:db8:1::20/64
veth eth1 192.168.2.10/24 2001:db8:2::10/64 lan 192.168.2.20/24 2001:db8:2::20/64
END
wrap_iptables
tarnfw base up

# Every file and directory below the profiles, with content, times and modes.
keep_profiles() {
    find "$kProfileDirectory" -printf '%p %y %m %s %T@\n' | LC_ALL=C sort
    find "$kProfileDirectory" -type f -exec sha256sum -- {} + | LC_ALL=C sort
}

# The rule commands of the last reload: what it ran between emptying the chains and accepting again.
# The recorded words have one blank between them, so a line's runs of blanks count as one.
ran() {
    cut -d ' ' -f 2- "$kCommands" | awk '
        / -F / { count = 0; next }
        / --policy INPUT ACCEPT/ { exit }
        { lines[++count] = $0 }
        END { for (i = 1; i <= count; ++i) print lines[i] }'
}

previewed() {
    sed -n 's,^/sbin/,,p' "$1" | tr -s ' '
}

# preview NAME [PROFILE]: its lines go to NAME.preview.
preview() {
    tarnfw preview "${@:2}" >"$out/$1.preview"
}

# look NAME [PROFILE]: keeps the preview as NAME, and compares everything before and after.
look() {
    local name=$1
    keep_listing "$name.before"
    keep_profiles >"$out/$name.files"
    : >"$kCommands"
    step "$name: a preview" preview "$@"
    step "$name: no command ran" [ ! -s "$kCommands" ]
    step "$name: the filter is untouched" same_listing "$name.before"
    step "$name: so are the profiles" diff -u "$out/$name.files" <(keep_profiles)
}

rm -- "$kSettings" # of the first start
step 'there are no settings' [ ! -e "$kSettings" ]
look unset
step 'and none are made' [ ! -e "$kSettings" ]
look first default
step 'without settings the profile is "default"' cmp "$out/unset.preview" "$out/first.preview"
step 'still no settings' [ ! -e "$kSettings" ]

for profile in default deny_by_default global_rules_first many_ports logged_denial; do
    if [[ $profile == default ]]; then
        activate default
    else
        use_profile "$profile"
    fi
    # Twice: the firewall off and its chains empty, then on and its chains full.
    look "$profile.off"
    step "$profile: the firewall is enabled" tarnfw enable
    look "$profile.on"
    step "$profile: the preview does not depend on that" \
        cmp "$out/$profile.off.preview" "$out/$profile.on.preview"
    look "$profile.named" "$profile"
    step "$profile: nor on how the profile was chosen" \
        cmp "$out/$profile.off.preview" "$out/$profile.named.preview"

    : >"$kCommands"
    step "$profile: a reload" tarnfw reload
    ran >"$out/$profile.ran"
    step "$profile: it ran rules of IPv4" grep --quiet '^iptables .*-A INPUT_FIREWALL' \
        "$out/$profile.ran"
    step "$profile: and of IPv6" grep --quiet '^ip6tables .*-A INPUT_FIREWALL' "$out/$profile.ran"
    step "$profile: it ran what the preview shows" \
        diff -u <(previewed "$out/$profile.on.preview") "$out/$profile.ran"
    step "$profile: the preview has no other lines" [ \
        "$(grep -v '^/sbin/ip6\?tables ' "$out/$profile.on.preview")" = $'# IPv4\n# IPv6' ]
    step "$profile: the firewall is disabled" tarnfw disable
done

# A profile that is not the active one can be looked at while the other one is in force.
use_profile deny_by_default
step 'the firewall is enabled' tarnfw enable
look other global_rules_first
step 'it is the other profile' cmp "$out/other.preview" "$out/global_rules_first.on.preview"
refuses 'a profile that does not exist' tarnfw preview nowhere
