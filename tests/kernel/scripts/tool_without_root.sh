# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Commands that read answer whoever can read the files, and take no lock; what only root can see is
# named. Commands that change something need root.
need_other_users
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

answers 0 base up
answers 0 profile create home
answers 0 profile use home
answers 0 rule add --adapter eth0 allow tcp 22
answers 0 rule add --adapter eth0 allow service http
answers 0 policy eth0 deny
answers 0 enable
chmod 755 "$kProfileDirectory"
chmod 644 "$kProfileDirectory"/*
cp -- "$build/tools/tarnfw/tarnfw" /tmp/tarnfw
chmod 755 /tmp/tarnfw
rm -rf /var/lock/firewall /run/tarn
tarnfw() {
    setpriv --reuid 65534 --regid 65534 --clear-groups --inh-caps=-all -- /tmp/tarnfw "$@"
}
mkdir -m 755 /tmp/here
cd /tmp/here || fail 'no directory'
keep_files ordinary

# --- what needs nothing but the files --------------------------------------------------------------

for words in 'profile list' 'profile show' 'profile show home --json' 'profile diff home' check 'check home' preview 'report --json' \
    adapters services 'services ssh --json' 'help rules' apply-mode export; do
    read -r -a command <<<"$words"
    answers 0 "${command[@]}"
    silent
done
answers 0 profile show
says '^  1  *allow   tcp 22 '

# The history is for root alone, unless an administrator has changed that.
answers 4 history
complains '^tarnfw: cannot read /usr/tarn/etc/firewall.d/.history/: Permission denied; changes are kept for root alone$'
chmod a+rx "$kProfileDirectory/.history"
answers 4 history
complains '^tarnfw: cannot read /usr/tarn/etc/firewall.d/.history/[0-9]*/: Permission denied; changes are kept for root'
chmod -R a+rX "$kProfileDirectory/.history"
answers 0 history 1
says '^  home: + rule 2 of eth0: allow service http from anywhere$'
answers 0 history --json

# --- what only root can see ------------------------------------------------------------------------

answers 4 status
silent
says '^Firewall: *enabled in the settings$'
says '^In the kernel: *what is in force can be seen by root only$'
says '^eth0  *deny '
answers 4 status --json
step 'nothing is claimed of the kernel' [ "$(jq -c '[.asStored, .kernel, .trial, .enabled]' "$out/answer")" = '[null,null,null,true]' ]
answers 4 blocked --port tcp/22 --adapter eth0
says '^eth0  *allowed'
complains 'the answer of the stored rules; what is in force can be seen by root only$'
answers 4 blocked --service http --json
step 'nothing is claimed of the kernel' [ "$(jq -c '[.allowed, .holds]' "$out/answer")" = '[true,null]' ]
answers 4 explain --port tcp/23 --adapter eth0 --from 192.168.1.20
says 'default policy of eth0'
answers 4 explain --port tcp/23
answers 4 open
complains 'the answer of the stored rules; the programs of other users and what is in force can be seen by root only$'
for words in diff 'base status' 'modules status'; do
    read -r -a command <<<"$words"
    answers 4 "${command[@]}"
    complains '^tarnfw: what is in force can be seen by root only$'
done
answers 4 check --kernel
says '^home: valid$'

# --- files that are not readable -------------------------------------------------------------------

readonly kHome=$(grep --files-with-matches '"home"' "$kProfileDirectory"/[0-9]*.json)
chmod 600 "$kHome"
answers 5 profile show home
complains "1 file cannot be read: $kHome (only root may)"
chmod 644 "$kHome"
chmod 600 "$kSettings"
answers 4 profile list
complains '^tarnfw: the settings cannot be read: only root may$'
chmod 644 "$kSettings"
chmod 700 "$kProfileDirectory"
answers 4 profile list
complains '^tarnfw: cannot read the directory .*: Permission denied; root can$'
chmod 755 "$kProfileDirectory"

# An interrupted change, which only root can end.
mkdir --mode 700 "$kProfileDirectory/.change"
answers 0 profile show home
complains '^tarnfw: a change goes on or was interrupted: '
rmdir "$kProfileDirectory/.change"

# --- changes ---------------------------------------------------------------------------------------

for words in 'rule add deny any' 'policy eth0 allow' 'profile use home' reload 'apply-mode batch' \
    'profile edit' 'service update' 'base up'; do
    read -r -a command <<<"$words"
    answers 4 "${command[@]}"
    complains "^tarnfw: this needs root's rights$"
done
step 'nothing was written' same_files ordinary
step 'no lock was made' [ ! -e /var/lock/firewall ]
step 'and no directory for them' [ ! -e /run/tarn ]
