# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# If ip6tables fails on a machine that has IPv6, "base up" says so, still sets up IPv4, and writes first
# settings that do not need it.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

mkdir /tmp/wrapped
cp -- "/usr/sbin/xtables-$variant-multi" /tmp/wrapped/iptables
cat >/tmp/wrapper <<'END'
#!/bin/sh
case ${0##*/} in
ip6tables*) exit 3 ;;
esac
exec "/tmp/wrapped/${0##*/}" "$@"
END
chmod +x /tmp/wrapper
mount --bind /tmp/wrapper "/usr/sbin/xtables-$variant-multi"
rm -f -- "$kProfileDirectory"/*.json

answers 1 base up
complains '^tarnfw: /sbin/ip6tables cannot list the filter table$'
says '^IPv4: added chains FIREWALL_RELOADING, '
says '^Settings written to .*: apply mode "lines", because ip6tables fails '
step 'the settings say so' [ "$(jq --raw-output .apply "$kSettings")" = lines ]
step 'IPv4 is set up' iptables -S INPUT_FIREWALL
