# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "disable" during a reload waits for it: "Firewall disabled" means that no rules are in force. When
# the chains cannot be emptied it says so.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

wrap_iptables
answers 0 base up
keep_listing base
use_profile deny_by_default
answers 0 enable
keep_listing enabled

pause_at 'ip6tables *-A INPUT_FIREWALL *'
tarnfw reload >"$out/reload" 2>&1 &
reload=$!
await_pause
tarnfw disable >"$out/disable" 2>&1 &
disable=$!
sleep 0.3
step 'the other waits' kill -0 "$disable"
resume
step 'the reload succeeds' wait "$reload"
step 'then disable' wait "$disable"
step 'says so' grep --quiet '^Firewall disabled$' "$out/disable"
step 'nothing is in force' same_listing base

answers 0 enable
step 'the rules are in force' same_listing enabled
# Every emptying fails from now on, by whatever program.
cat >/tmp/refusing <<'END'
#!/bin/sh
case "${0##*/} $*" in
*' -F '* | *-restore*) echo 'no' >&2; exit 1 ;;
esac
exec "/tmp/wrapped/${0##*/}" "$@"
END
chmod +x /tmp/refusing
mount --bind /tmp/refusing "/usr/sbin/xtables-$variant-multi"
answers 1 disable
step 'it is said' grep --quiet 'rules are still in force\|cannot be changed\|could not be put back' \
    "$out/complaint"
refuses 'it does not say "Firewall disabled"' grep --quiet 'disabled' "$out/answer"
umount "/usr/sbin/xtables-$variant-multi"
step 'that is true' same_listing enabled
