# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A batch that is killed at any moment leaves either the old or the new rules in each family.
readonly kSeed=${TARN_SEED:-20260101}
readonly kKills=$((${TARN_LONG:-0} ? 300 : 30))

# document NUMBER: rules that differ from those of another number in each line.
document() {
    python3 - "$1" <<'END'
import json
import sys

number = sys.argv[1]
cmds = {key: {"eth0": [f"-t filter -A INPUT_FIREWALL -s {prefix}{i + 1} -p tcp --dport {number}{i} "
                       "-j DROP" for i in range(200)]}
        for key, prefix in (("v4", "10.0.0."), ("v6", "fd00::"))}
json.dump(cmds, sys.stdout)
END
}

tarnfw base up
document 1 >"$out/a"
document 2 >"$out/b"
step "$kKills kills" rules_probe kill "$kSeed" "$kKills" "$out/a" "$out/b"
step 'a batch goes through afterwards' rules_probe batch "$out/a"
