# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# One file of the service catalogue that is refused or damaged fails an update: no profile loses the rules
# that name its services, the kernel keeps its rules, and the file is named.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kShipped=/usr/tarn/etc.defaults/services.d kOwn=/usr/tarn/etc/services.d

answers 0 base up
answers 0 profile create home --empty
answers 0 profile use home
answers 0 rule add --profile home --adapter eth0 allow service ssh from 192.168.1.0/24
answers 0 policy eth0 deny --profile home
answers 0 service update
answers 0 enable --yes
ssh_file=$(grep --files-with-matches '"ssh"' "$kShipped"/*.json)
cp --archive -- "$kShipped" /tmp/shipped
mkdir --parents "$kOwn"
keep_files whole
keep_listing whole

harmed() {
    local text=$1 file=$2
    shift 2
    "$@"
    answers 1 service update
    complains "^tarnfw: the service catalogue cannot be read: $file: "
    step "$text: a person's update changes no profile" same_files whole
    refuses "$text: a service's update fails" rules_probe hup
    step "$text: it changes no profile" same_files whole
    step "$text: and no rule in the kernel" same_listing whole
    answers 3 check home
    step "$text: the check names the file" grep --quiet -- \
        "^home: the service catalogue cannot be read: $file: " "$out/answer" "$out/complaint"
    rm --recursive -- "$kShipped" "$kOwn"
    cp --archive -- /tmp/shipped "$kShipped"
    mkdir -- "$kOwn"
}
harmed 'group may write it' "$ssh_file" chmod 0664 "$ssh_file"
harmed 'truncated' "$ssh_file" truncate --size 100 "$ssh_file"
harmed "another user's" "$ssh_file" chown 1000 "$ssh_file"
harmed 'a link' "$ssh_file" ln --force --symbolic /etc/hostname "$ssh_file"
harmed 'a pipe of the administrator' "$kOwn/a.json" mkfifo "$kOwn/a.json"
harmed 'too large' "$kOwn/a.json" truncate --size $((16 * 1024 * 1024 + 1)) "$kOwn/a.json"

answers 0 service update
step 'with the whole catalogue an update succeeds' same_files whole
step "and so does a service's" rules_probe hup
step 'the rules are the same' same_listing whole

answers 0 profile copy home other
rm -- "$ssh_file"
cp -- /etc/hostname "$ssh_file"
answers 0 policy eth1 deny --profile other
says '^Once profile "other" is in use: what this opens and closes could not be found out: the service catalogue cannot be read: '
