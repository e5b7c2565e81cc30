# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The README's tour on a machine with one network interface: every command runs
# and prints what the README shows. readme_tour.py describes how to update the README.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
export PATH=$build/tools/tarnfw:$PATH LC_ALL=C.UTF-8
unset SSH_CONNECTION
pretend_systemd
enable_service
cd /root
keep_listing before
step 'the tour' /usr/bin/python3 "$checkout/tests/kernel/scripts/readme_tour.py" "$checkout/README.md" ${TARN_TOUR_OUT:+"$out/README.md"}
step 'nothing is left in the packet filter' same_listing before
