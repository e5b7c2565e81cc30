# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# From installation to purge, with the firewall used in between, and nothing left.
keep system before
keep rules before

step 'the packages install, with no dependency missing' install_packages
step 'no rule is loaded' same rules before
step 'the service is enabled' unit_is enabled
step 'it does nothing while the firewall is disabled' within tarnfw boot
step 'so that no rule is loaded' same rules before
step 'no profile is written' [ ! -e "$kRoot$kStore" ]
step 'the tool says its version' grep --line-regexp --quiet '[0-9]*\.[0-9]*\.[0-9]*' \
    <(within tarnfw --version)
step 'the platform program runs' within sh -c '/usr/tarn/sbin/tarnnetdtool; test $? -lt 126'

step 'the base comes up' within tarnfw base up
keep rules base
step 'the firewall is enabled' within tarnfw enable
step 'its status says so' grep --quiet '^Firewall: *enabled$' <(within tarnfw status)
keep rules enabled
step 'enabling has loaded rules' fails same rules base

step 'the service is disabled' systemctl --root="$kRoot" disable tarnfw.service
step 'the same packages install as an upgrade' install_packages
step 'an upgrade leaves the rules alone' same rules enabled
step 'and the service as it was' unit_is disabled
step 'which is enabled again' systemctl --root="$kRoot" enable tarnfw.service

# Everything that is written to disk, each by what writes it.
step 'profiles are copied, tried and changed' within sh -ec '
    tarnfw profile copy default other
    tarnfw rule add --adapter global --profile other allow tcp 8080
    tarnfw rule add --adapter global --profile other allow tcp 8081
    tarnfw profile rename other another
    tarnfw profile delete another
    tarnfw reload'
step 'a configuration is imported' within sh -ec '
    tarnfw export /root/all.json
    tarnfw profile copy default second
    tarnfw import /root/all.json --yes'
step 'which keeps what it replaces' [ -n "$(ls -A "$kRoot/usr/tarn/etc/firewall.d.backup")" ]
step 'the exported file is the administrator'\''s' rm -- "$kRoot/root/all.json"
mkdir -- "$kRoot/usr/tarn/etc/services.d" "$kRoot$kStore/.change"
printf '{}\n' >"$kRoot/usr/tarn/etc/services.d/own.json"
step 'the document of a change that was interrupted' touch "$kRoot$kStore/.change/1700000042.json"
step 'a lock of a document without a directory of locks' touch "$kRoot/tmp/firewall_settings.json.lock"
step 'one that another program has there' within sh -ec 'echo 123 >/tmp/own.json.lock'
step 'what other programs have beside the store' within sh -ec '
    mkdir /usr/tarn/etc/other.d
    echo other >/usr/tarn/etc/other.d/settings.json
    echo other >/usr/tarn/etc/firewall.d/notes.txt'
step 'what root set aside' touch "$kRoot/tmp/iptables_serv_mod_list.refused-abcdef"
keep rules used

step 'the firewall is disabled' within tarnfw disable
step 'the base goes down' within tarnfw base down
step 'the filter table is as before' same rules before

printf 'pppoe_interface="ppp7"\n' >>"$kRoot/etc.defaults/tarninfo.conf"
step 'the packages are removed' within dpkg --remove "${kPackages[@]}"
step 'the tool is gone' [ ! -e "$kRoot/usr/sbin/tarnfw" ]
step 'profiles stay' [ -e "$kRoot$kStore/firewall_settings.json" ]
step 'what an administrator wrote stays' grep --quiet ppp7 "$kRoot/etc.defaults/tarninfo.conf"
step 'somebody has directories with names of such files' \
    mkdir "$kRoot/tmp/iptables_serv_mod_list.abcdef" "$kRoot$kStore/x.json"
step 'the packages are purged' within dpkg --purge "${kPackages[@]}"
step 'what belongs to other programs stays' within sh -ec '
    rmdir /tmp/iptables_serv_mod_list.abcdef /usr/tarn/etc/firewall.d/x.json
    rm /tmp/own.json.lock /usr/tarn/etc/other.d/settings.json /usr/tarn/etc/firewall.d/notes.txt
    rmdir /usr/tarn/etc/firewall.d
    cd /usr/tarn
    rmdir -p etc/other.d
    cd /
    [ ! -e /usr/tarn ] || rmdir /usr/tarn'
step 'nothing else is left' same system before
