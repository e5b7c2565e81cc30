# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "--json" of commands that change something, and of errors: one document each, and nothing else.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# fails STATUS KIND ARGUMENT...: an error of that kind, as a document.
fails() {
    local kind=$2
    answers "$1" "${@:3}" --json
    silent
    step "it is of the kind $kind" [ "$(jq -r '.error.kind' "$out/answer")" = "$kind" ]
    step 'its message is one line' [ "$(jq -r '.error.message' "$out/answer" | wc -l)" = 1 ]
}

# --- errors ----------------------------------------------------------------------------------------

fails 5 notFound profile list
step 'with what helps' [ "$(jq -r '.error.remedy' "$out/answer")" = '"tarnfw base up" writes a first one' ]
fails 1 system enable
answers 0 base up --json
silent
step 'what was added' [ "$(jq -c '[.changed, .profile, .v4.chains, (.v6.jumps | length)]' "$out/answer")" = \
    '[true,"default",["FIREWALL_RELOADING","INPUT_FIREWALL","FORWARD_FIREWALL"],4]' ]
answers 0 base up --json
step 'nothing is left to add' [ "$(jq -c '[.changed, .profile, .v4.chains, .v6.jumps]' "$out/answer")" = \
    '[false,null,[],[]]' ]
answers 0 profile create home --empty
answers 0 profile use home
fails 5 notFound profile show nowhere
fails 5 notFound blocked --service shh
fails 2 usage profile sohw
step 'with the suggestion' grep --quiet 'Did you mean' "$out/answer"
fails 2 usage blocked
fails 3 invalid profile create odd --from <(echo '{"name": "odd", "rules": {"eth0": [{"policy": 7}]}}')
step 'its findings are warnings' [ "$(jq '.warnings | length > 0' "$out/answer")" = true ]
fails 1 unusable profile delete home

# --- changes ---------------------------------------------------------------------------------------

answers 0 rule add --adapter eth0 allow tcp 22 --json
silent
cp -- "$out/answer" "$out/added"
jq '.messages = .messages[:1]' "$out/added" >"$out/answer" # then what it opens
prints_json <<'END'
{"changed": true, "applied": false, "profile": "home",
 "rules": [{"adapter": "eth0", "position": 1, "text": "allow tcp 22 from anywhere"}],
 "messages": ["Rule 1 of eth0: allow tcp 22 from anywhere"],
 "warnings": ["eth0 has the default policy \"allow\": everything else is open on it, too; \"tarnfw policy eth0 deny\" closes it"]}
END
answers 0 rule add --adapter eth0 allow tcp 22 --json
step 'the same again' [ "$(jq -c '[.changed, .rules[0].position]' "$out/answer")" = '[false,1]' ]
answers 0 policy eth0 deny --json
prints_json <<'END'
{"changed": true, "applied": false, "profile": "home", "adapter": "eth0", "policy": "deny",
 "rules": [],
 "messages": ["Default policy of eth0: deny",
  "Once the firewall is enabled: closes everything except tcp 22 on eth0, for everybody (the default policy of eth0)"],
 "warnings": []}
END
answers 0 policy eth0 deny --json
step 'the same again changes nothing' [ "$(jq '.changed' "$out/answer")" = false ]
answers 0 enable --json
silent
step 'enabled' [ "$(jq -c '[.changed, .applied, .profile, .messages[0]]' "$out/answer")" = \
    '[true,true,"home","Firewall enabled with profile \"home\""]' ]
answers 0 reload --json
prints_json <<'END'
{"changed": false, "applied": true, "profile": "home",
 "messages": ["Profile \"home\" applied"], "warnings": []}
END
answers 0 rule add --adapter eth0 deny tcp 22-22 from 192.168.1.0/24 --json --reload
silent
step 'a finding is a warning' [ "$(jq -r '.warnings | length > 0' "$out/answer")" = true ]
step 'the rules are applied' [ "$(jq '.applied' "$out/answer")" = true ]
answers 0 rule delete 2 --adapter eth0 --json
step 'what the kernel still has is said' grep --quiet 'The kernel still has the old rules' "$out/answer"
answers 0 service reserve ssh allow --adapter eth0 --json
step 'the changed profiles' [ "$(jq -c '.profiles' "$out/answer")" = '["default","home"]' ]
answers 0 profile copy home away --json
step 'the new one' [ "$(jq -c '[.changed, .profile]' "$out/answer")" = '[true,"away"]' ]
answers 0 profile rename away gone --json
answers 0 profile delete gone --json
step 'the deleted one' [ "$(jq -c '[.changed, .profile]' "$out/answer")" = '[true,"gone"]' ]
answers 0 export /tmp/all.json --json
silent
step 'what was exported' [ "$(jq -c '[.changed, .profile, .profiles, .file]' "$out/answer")" = \
    '[false,"home",["default","home"],"/tmp/all.json"]' ]
fails 2 usage export
answers 0 apply-mode lines --json
step 'the mode' [ "$(jq -c '[.changed, .applyMode]' "$out/answer")" = '[true,"lines"]' ]
fails 1 declined import /tmp/all.json
answers 0 import /tmp/all.json --yes --json
silent
step 'what changed' [ "$(jq -c '[.changed, .changes, .profiles[0].change, .settings[0].now]' "$out/answer")" = \
    '[true,true,"unchanged","lines"]' ]
step 'the backup' [ -f "$(jq -r .backup "$out/answer")" ]
answers 0 boot --json
silent
step 'what a boot has applied' [ "$(jq -c '[.changed, .applied, .profile]' "$out/answer")" = '[false,true,"home"]' ]

# on_trial PROFILE: until its rules are in force.
on_trial() {
    rm -f -- "$out/trial"
    tarnfw try "$1" --json </dev/null >"$out/trial" 2>&1 &
    trial=$!
    until [[ -s $out/trial ]]; do
        step 'the trial goes on' kill -0 "$trial"
        sleep 0.05
    done
    step 'what is on trial' [ "$(jq -c '[.state, .profile, .changed, .applied, (.until | fromdate) > now]' \
        "$out/trial")" = "[\"in force\",\"$1\",false,true,true]" ]
}

# ended STATUS TEXT: so the trial has ended, with a second document.
ended() {
    local status=0
    wait "$trial" || status=$?
    step "it ends with $1" [ "$status" = "$1" ]
    step 'says how it ended' [ "$(jq -r '.state // .error.message' "$out/trial" | sed 1d)" = "$2" ]
    step 'as its schema says' "$checkout/tests/kernel/json_answer" "$checkout/docs/tarnfw-json.schema.json" \
        try <"$out/trial"
}

answers 0 profile copy home tried
on_trial tried
answers 0 try --cancel --json
silent
step 'cancelled' [ "$(jq -c '[.state, .profile, .changed, .until]' "$out/answer")" = '["reverted","tried",false,null]' ]
ended 1 'profile "tried" was not kept: cancelled; the previous rules are in force again'
on_trial tried
answers 0 try --confirm --json
silent
step 'kept' [ "$(jq -c '[.state, .profile, .changed]' "$out/answer")" = '["kept","tried",true]' ]
ended 0 kept
fails 5 notFound try --cancel
answers 0 disable --json
answers 0 base down --json
step 'what was removed' [ "$(jq -c '[.changed, (.v4.chains | length), (.v6.chains | length)]' "$out/answer")" = \
    '[true,3,3]' ]
answers 0 modules load vpn --json
silent
step 'it is loaded' [ "$(jq -c '[.changed, .messages]' "$out/answer")" = '[true,["Modules loaded for \"vpn\""]]' ]
answers 0 modules unload vpn --json
silent

# --- nobody reads the answer -----------------------------------------------------------------------

for action in Ignore Default; do
    printf -- '-- SIGPIPE: %s\n' "$action"
    /usr/bin/python3 - "$build/tools/tarnfw/tarnfw" "$action" <<'END' || fail 'not silent, or not done'
import os, signal, subprocess, sys
tool, action = sys.argv[1:]
if action == "Ignore":
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
def run(*words):
    ends = os.pipe()
    os.close(ends[0])
    done = subprocess.run([tool, *words], stdout=ends[1], stderr=subprocess.PIPE, text=True,
                          restore_signals=action != "Ignore")
    os.close(ends[1])
    assert done.stderr == "", done.stderr
    assert done.returncode != 0
run("services")
run("services", "--json")
run("profile", "create", "unread" + action)
assert "unread" + action in subprocess.run([tool, "profile", "list"], stdout=subprocess.PIPE, text=True).stdout
END
done
