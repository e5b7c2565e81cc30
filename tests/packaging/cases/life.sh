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

step 'the service is disabled' within deb-systemd-helper disable tarnfw.service
step 'the same packages install as an upgrade' install_packages
step 'an upgrade leaves the rules alone' same rules enabled
step 'and the service as it was' unit_is disabled
step 'which is enabled again' within deb-systemd-helper enable tarnfw.service

step 'the firewall is disabled' within tarnfw disable
step 'the base goes down' within tarnfw base down
step 'the filter table is as before' same rules before

printf 'pppoe_interface="ppp7"\n' >>"$kRoot/etc.defaults/tarninfo.conf"
step 'the packages are removed' within dpkg --remove "${kPackages[@]}"
step 'the tool is gone' [ ! -e "$kRoot/usr/sbin/tarnfw" ]
step 'profiles stay' [ -e "$kRoot$kStore/firewall_settings.json" ]
step 'what an administrator wrote stays' grep --quiet ppp7 "$kRoot/etc.defaults/tarninfo.conf"
step 'the packages are purged' within dpkg --purge "${kPackages[@]}"
step 'nothing is left' same system before
