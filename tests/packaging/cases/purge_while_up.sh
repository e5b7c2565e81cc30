# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# An enabled firewall is purged at once: its chains go, its files go, and its service is enabled no more.
keep system before
keep rules before
step 'the packages install' install_packages
step 'the base comes up' within tarnfw base up
step 'the firewall is enabled' within tarnfw enable
step 'the service is enabled' unit_is enabled

step 'the packages are purged' within dpkg --purge "${kPackages[@]}"
step 'the filter table is as before' same rules before
step 'nothing is left' same system before
