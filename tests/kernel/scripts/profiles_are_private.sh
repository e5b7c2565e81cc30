# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Profiles, settings and exports are for root alone, whatever the umask. A mode and a group that an
# administrator has given to them stay, in changes of one document and of all.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kGroup=4

# modes MODES: the only combinations of mode and group of all documents.
modes() {
    diff <(echo "$1") <(find "$kProfileDirectory" -maxdepth 1 -name '*.json' -printf '%m %G\n' | sort --unique)
}

rm -rf -- "$kProfileDirectory"
umask 0
answers 0 base up
answers 0 profile create home --empty
answers 0 policy eth0 deny --profile home
answers 0 profile use home
answers 0 export /tmp/all.json
step 'the directory is for root alone' [ "$(stat --format=%a "$kProfileDirectory")" = 700 ]
step 'so are the documents' modes '600 0'
step 'so is an export' [ "$(stat --format=%a /tmp/all.json)" = 600 ]
jq '.config_profiles[].rules = null' /tmp/all.json >/tmp/other.json
answers 0 import --yes /tmp/other.json
step 'so are imported documents' modes '600 0'

need_other_users
chgrp "$kGroup" "$kProfileDirectory" "$kProfileDirectory"/*.json /tmp/all.json
chmod 750 "$kProfileDirectory"
chmod 640 "$kProfileDirectory"/*.json /tmp/all.json
answers 0 rule add allow tcp 80 --adapter eth0
answers 0 adapter rename eth0 lan0
answers 0 profile rename home casa
answers 0 apply-mode lines
answers 0 import --yes /tmp/all.json
answers 0 base up
answers 0 export --force /tmp/all.json
step 'a given mode and group stay: documents' modes "640 $kGroup"
step 'the directory' [ "$(stat --format='%a %g' "$kProfileDirectory")" = "750 $kGroup" ]
step 'an export' [ "$(stat --format='%a %g' /tmp/all.json)" = "640 $kGroup" ]
