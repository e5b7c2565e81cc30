# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A machine without IPv6 has a firewall for IPv4: no command fails for want of ip6tables, whether there is
# no such program or the kernel does not have the family. "base up" and "status" name what is absent.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# The programs with an ip6tables that answers as on a kernel without IPv6 while there is a file
# /tmp/absent, and that fails while there is /tmp/broken; and no ip6tables at all.
wrap_programs() {
    mkdir /tmp/wrapped
    cp -- "/usr/sbin/xtables-$variant-multi" /tmp/wrapped/iptables
    cat >/tmp/wrapper <<'END'
#!/bin/bash
case ${0##*/} in
ip6tables*)
    [ ! -e /tmp/broken ] || { echo 'is broken' >&2; exit 1; }
    if [ -e /tmp/absent ]; then
        echo "${0##*/} v1 (legacy): can't initialize ip6tables table \`filter': Address family not supported by protocol" >&2
        exit 3
    fi
    ;;
esac
exec -a "${0##*/}" /tmp/wrapped/iptables "$@"
END
    chmod +x /tmp/wrapper
    mount --bind /tmp/wrapper "/usr/sbin/xtables-$variant-multi"
}

no_ip6tables() {
    umount "/usr/sbin/xtables-$variant-multi"
    mkdir /tmp/sbin
    cp --recursive --no-dereference --preserve=mode -- /usr/sbin/. /tmp/sbin/
    rm -- /tmp/sbin/ip6tables*
    mount --bind /tmp/sbin /usr/sbin
}

# named_once: the last command complains at most once that the family is absent.
named_once() {
    (($(grep --count --invert-match 'left out, without an interface' "$out/complaint") <= 1)) || {
        cat -- "$out/complaint"
        fail 'an absent family named more than once'
    }
}

# all_commands: a firewall's life on this machine.
all_commands() {
    local mode
    rm -f -- "$kProfileDirectory"/*.json
    answers 0 base up
    silent
    says '^IPv4: added chains FIREWALL_RELOADING, '
    says '^IPv6: absent: this machine has no packet filter for it$'
    says '^Settings written to .*: apply mode "batch" '
    answers 0 base status
    says '^IPv6: absent: '
    answers 0 base status --json
    step 'IPv6 is absent' [ "$(jq --compact-output '[.v4.absent, .v6.absent]' "$out/answer")" = '[false,true]' ]
    use_profile deny_by_default
    for mode in batch lines; do
        answers 0 apply-mode "$mode"
        answers 0 enable --yes
        named_once
        step 'the rules of IPv4 are there' iptables -S INPUT_FIREWALL 1
        answers 0 reload --yes
        named_once
        step 'the policies accept' [ "$(iptables -S | grep -c -- '^-P .* DROP')" = 0 ]
        answers 0 diff
        answers 0 check deny_by_default --kernel
        answers 0 status
        says 'IPv6.* absent'
        answers 0 disable
        named_once
        step 'the rules are gone' [ -z "$(iptables -S INPUT_FIREWALL 1)" ]
        answers 0 diff
    done
    answers 0 base down
    silent
}

# An ip6tables that is there and fails is no absent one: IPv4 is looked at all the same, the failure is named
# once, and nothing succeeds.
broken_ip6tables() {
    local command mode words
    answers 0 base up
    use_profile deny_by_default
    answers 0 enable --yes
    keep_listing enabled
    touch /tmp/broken
    for mode in batch lines; do
        answers 0 apply-mode "$mode"
        answers 11 status
        says '^Firewall: *enabled, but what is in force for IPv6 is not known: /sbin/ip6tables cannot list the filter table: is broken$'
        says '^Base filter: *IPv4 set up$'
        says '^In the kernel: *IPv4 [0-9]* rules$'
        says '^In the kernel: *IPv6 not known$'
        step 'once' [ "$(grep --count broken "$out/answer")" = 1 ]
        silent
        answers 11 status --json
        step 'in JSON as well' [ "$(jq --compact-output '[.asStored, .kernel.v4.inForce, .kernel.v6.inForce]' \
            "$out/answer")" = '[false,"asStored","unknown"]' ]
        answers 11 blocked --port tcp/22 --adapter eth0
        says 'what is in force for IPv6 is not known: '
        for command in 'reload --yes' 'enable --yes' disable 'base up' 'base down'; do
            read -r -a words <<<"$command"
            answers 1 "${words[@]}"
            complains '/sbin/ip6tables cannot list the filter table: is broken\(; the active profile was not applied\)\?\(; nothing was changed\)\?$'
        done
        step 'IPv4 is as before' diff -u "$out/enabled.v4" <(listing v4)
    done
    rm /tmp/broken
    answers 0 status
    answers 0 base down
    step 'the firewall that filters nothing is named' grep --quiet 'now filters nothing' "$out/complaint"
}

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
wrap_programs
touch /tmp/absent
all_commands
rm /tmp/absent
broken_ip6tables
no_ip6tables
all_commands
