# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Tab after "tarnfw": the candidates that the tool prints, and how bash, zsh and fish use
# them on a terminal, with names that a shell must quote.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kCompletions=$checkout/packaging/completions
PATH=$build/tools/tarnfw:$PATH
cd /tmp || exit

# completes WORD... CURRENT: the tool's candidates are exactly what is read.
completes() {
    answers 0 complete -- "$@"
    silent
    prints
}

none() {
    completes "$@" </dev/null
}

# --- an empty store, no country data ---------------------------------------------------------------

none profile show ''
none geoip show ''
none rule add --profile d
completes policy e <<<eth0
step 'no profile or settings came of it' [ -z "$(ls -A "$kProfileDirectory" 2>/dev/null)" ]

printf '{' >/tmp/damaged
mkdir -p "$kProfileDirectory"
cp /tmp/damaged "$kProfileDirectory/damaged.json"
cp /tmp/damaged "$kSettings"
none profile show d
completes policy e <<<eth0
rm -- "$kProfileDirectory"/*.json

# --- the tool --------------------------------------------------------------------------------------

answers 0 base up
# The adapter of a rule that is for no interface of this machine.
answers 0 rule add --adapter pppoe deny any
sed -i 's/"pppoe"/"lab7"/' "$kProfileDirectory"/*.json
answers 0 profile copy default 'my home'
answers 0 profile copy default 'my office'
# shellcheck disable=SC2016  # the dollar is the name's
readonly kOdd='it'\''s "so" $HOME'
answers 0 profile copy default "$kOdd"
answers 0 profile copy default 'colon:one'
answers 0 profile copy default 'colon:two'
printf '{"name": "odd\\nname", "adapterPolicyMap": {"global": 2}, "rules": {}}\n' \
    >"$kProfileDirectory/odd.json"
: >/usr/share/xt_geoip/CN.iv4
: >/usr/share/xt_geoip/DE.iv4
keep_files before

completes profile show '' <<END
colon:one
colon:two
default
$kOdd
my home
my office
END
completes preview my <<<$'my home\nmy office'
completes try 'my h' <<<'my home'
completes rule add --adapter eth0 --profile c <<<$'colon:one\ncolon:two'
completes check d <<<$'default\n<file>'
completes profile create new --from d <<<$'default\n<file>'
completes profile set d <<<default
completes profile set default --from d <<<$'default\n<file>'
none profile create d
completes policy '' <<<$'eth0\nglobal\nlab7\npppoe\nvpn'
completes blocked --adapter=l <<<--adapter=lab7
completes adapter rename l <<<lab7
completes reload --for l <<<lab7
completes policy eth0 '' <<<$'allow\ndeny\nnone'
completes service reserve ft <<<$'ftp\nftp_passive\nftps'
completes service reserve ftp '' <<<$'allow\ndeny'
completes blocked --service ssh --a <<<'--adapter'
completes rule add --adapter eth0 allow service ssh,ft <<<$'ssh,ftp\nssh,ftp_passive\nssh,ftps'
completes rule add deny from country '' <<<$'CN\nDE'
completes geoip show D <<<DE
completes preview --format '' <<<$'lines\nrestore\njson'
completes help f <<<$'first-steps\nfiles'
completes pr <<<$'profile\npreview'
none complet
none nonsense ''
completes --v <<<'--version'
answers 0 complete
step 'the commands, without words' grep --quiet --line-regexp profile "$out/answer"
step 'itself is hidden' [ -z "$(grep --line-regexp complete "$out/answer")" ]
answers 0 --help
step 'from the help text as well' [ -z "$(grep '^ *complete' "$out/answer")" ]

# Every command of the help text is completed, with its options.
while read -r command; do
    answers 0 complete -- "$command"
    step 'itself' grep --quiet --line-regexp -- "$command" "$out/answer"
    answers 0 complete -- "$command" --he
    prints <<<--help
done < <(tarnfw --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z][a-z-]*\) .*/\1/p')

# --- the shells ------------------------------------------------------------------------------------

# on_terminal SHELL SCRIPT: "typed|the line after Tab", for each line read.
on_terminal() {
    local cases
    mapfile -t cases
    diff -u <(printf '%s\n' "${cases[@]#*|}") <(
        printf '%s\n' "${cases[@]%%|*}" |
            /usr/bin/python3 "$checkout/tests/kernel/complete_terminal.py" "$@"
    ) || fail "not what $1 should make of it"
}

printf 'some text\n' >'/tmp/a file'
step 'bash' on_terminal bash "$kCompletions/tarnfw.bash" <<'END'
tarnfw prof|tarnfw profile 
tarnfw profile sh|tarnfw profile show 
tarnfw profile show de|tarnfw profile show default 
tarnfw profile show my|tarnfw profile show my\ 
tarnfw profile show my\ h|tarnfw profile show my\ home 
tarnfw profile show "my h|tarnfw profile show "my home" 
tarnfw profile show 'my h|tarnfw profile show 'my home' 
tarnfw profile show it|tarnfw profile show it\'s\ \"so\"\ \$HOME 
tarnfw profile show "it|tarnfw profile show "it's \"so\" \$HOME" 
tarnfw profile show 'it|tarnfw profile show 'it'\''s "so" $HOME' 
tarnfw profile show col|tarnfw profile show colon:
tarnfw profile show colon:o|tarnfw profile show colon:one 
tarnfw profile show 'colon:o|tarnfw profile show 'colon:one' 
tarnfw rule add --profile=my\ h|tarnfw rule add --profile=my\ home 
tarnfw rule add --profile my\ home --adap|tarnfw rule add --profile my\ home --adapter 
tarnfw rule add --adapter=eth0 --profile "my home" al|tarnfw rule add --adapter=eth0 --profile "my home" allow 
tarnfw rule add --adapter eth0 allow service ssh,ftps|tarnfw rule add --adapter eth0 allow service ssh,ftps 
tarnfw policy e|tarnfw policy eth0 
tarnfw profile create new --from /tmp/a\ f|tarnfw profile create new --from /tmp/a\ file 
tarnfw check "/tmp/a f|tarnfw check "/tmp/a file" 
tarnfw nonsense x|tarnfw nonsense x
* tarnfw try m|tarnfw try my\ home my\ office 
* tarnfw policy eth0 |tarnfw policy eth0 allow deny none 
END

step 'zsh' on_terminal zsh "$kCompletions/_tarnfw" <<'END'
tarnfw prof|tarnfw profile 
tarnfw profile sh|tarnfw profile show 
tarnfw profile show de|tarnfw profile show default 
tarnfw profile show my|tarnfw profile show my\ 
tarnfw profile show my\ h|tarnfw profile show my\ home 
tarnfw profile show "my h|tarnfw profile show "my home" 
tarnfw profile show 'my h|tarnfw profile show 'my home' 
tarnfw profile show it|tarnfw profile show it\'s\ \"so\"\ \$HOME 
tarnfw profile show colon:o|tarnfw profile show colon:one 
tarnfw rule add --profile=my\ h|tarnfw rule add --profile=my\ home 
tarnfw rule add --profile "my home" --adap|tarnfw rule add --profile "my home" --adapter 
tarnfw rule add --adapter eth0 allow service ssh,ftps|tarnfw rule add --adapter eth0 allow service ssh,ftps 
tarnfw policy e|tarnfw policy eth0 
tarnfw profile create new --from /tmp/a\ f|tarnfw profile create new --from /tmp/a\ file 
tarnfw nonsense x|tarnfw nonsense x
END

# in_fish: "typed|each completion|...", for each line read. The quotes are fish's own doing, later.
in_fish() {
    local line typed
    mkdir -p /tmp/fish
    while IFS= read -r line; do
        typed=${line%%|*}
        diff -u <(tr '|' '\n' <<<"${line#*|}") <(
            HOME=/tmp/fish fish --no-config --command \
                "source '$kCompletions/tarnfw.fish'; complete --do-complete \$argv[1]" "$typed"
        ) || fail "not what fish should make of: $typed"
    done
}

step 'fish' in_fish <<'END'
tarnfw prof|profile
tarnfw profile sh|show
tarnfw profile show my|my home|my office
tarnfw profile show my\ h|my home
tarnfw profile show "my h|my home
tarnfw profile show 'my h|my home
tarnfw profile show it|it's "so" $HOME
tarnfw profile show colon:|colon:one|colon:two
tarnfw rule add --profile=my\ h|--profile=my home
tarnfw rule add --profile "my home" --adap|--adapter
tarnfw rule add --adapter eth0 allow service ssh,ftps|ssh,ftps
tarnfw policy e|eth0
tarnfw profile create new --from /tmp/a\ f|/tmp/a file
END
step 'no profile was changed' same_files before

# --- as an ordinary user ---------------------------------------------------------------------------

# Without root the candidates are the same, for "sudo"; see tool_answers_and_exit_statuses.
ordinary=(setpriv --reuid 65534 --regid 65534 --clear-groups --inh-caps +dac_override
    --ambient-caps +dac_override --)
if "${ordinary[@]}" true 2>/dev/null; then
    tarnfw() {
        "${ordinary[@]}" "$build/tools/tarnfw/tarnfw" "$@"
    }
    completes profile show c <<<$'colon:one\ncolon:two'
    completes policy '' <<<$'eth0\nglobal\nlab7\npppoe\nvpn'
    completes service reserve ss <<<ssh
    completes geoip show '' <<<$'CN\nDE'
    completes rule add --adap <<<--adapter
    step 'no lock file is another user'\''s' [ -z "$(find /var/lock/firewall /tmp/*.lock \
        -user 65534 2>/dev/null)" ]
fi
