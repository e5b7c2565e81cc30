# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Random profiles in the kernel, in both apply modes, some of their rules for countries: packets at the edges of
# rules get the verdict that the library's engine has for them; so do errors of ICMP about connections that are
# known and about others. Twelve profiles, or a hundred in the long run.
readonly kProfiles=$((${TARN_LONG:-0} ? 100 : 12))
readonly kSeed=${TARN_SEED:-20260101}

# Two adapters whose IPv6 goes through a tunnel.
cat >/tmp/tool <<'END'
#!/bin/sh
case $2 in
eth0) printf six ;;
ppp1) printf aaa0 ;;
*) printf %s "$2" ;;
esac
END
chmod +x /tmp/tool
mount --bind /tmp/tool /usr/tarn/sbin/tarnnetdtool
echo 'pppoe_interface="ppp1"' >/etc.defaults/tarninfo.conf

ip link set lo up
tarnfw base up
# Some lines are refused, which the tools say.
compare() {
    "$build/tests/kernel/meaning_probe" "$kSeed" "$kProfiles" 2>"$out/refused" || {
        tail -n 5 "$out/refused"
        return 1
    }
}
step "profiles from seed $kSeed on" compare
