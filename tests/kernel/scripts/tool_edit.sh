# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw profile edit: what is stored, what is rejected and where the text is kept, on a terminal
# and without one.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# editor NAME: makes a script of what is read, in /tmp/editors.
mkdir /tmp/editors
editor() {
    {
        printf '#!/bin/sh\n'
        cat
    } >"/tmp/editors/$1"
    chmod +x "/tmp/editors/$1"
}

# edits STATUS EDITOR ARGUMENT...: without a terminal.
edits() {
    local status=$1 EDITOR=$2
    export EDITOR
    answers "$status" profile edit "${@:3}" </dev/null
}

# name_is TEXT: the name that the rule of profile "lab" has.
name_is() {
    step "the rule is called $1" grep --quiet "\"$1\"\$" <(tarnfw profile show lab)
}

no_text_left() {
    step 'no text is left' [ -z "$(compgen -G '/tmp/tarnfw.*')" ]
}

# text_kept PATTERN: the one text that was kept is named in the complaint, nobody else can read it,
# and a line of it is like this. It is then removed.
text_kept() {
    local texts
    texts=(/tmp/tarnfw.*/profile.json)
    step 'one text is kept' [ "${#texts[@]}" = 1 ]
    step 'where it is, is said' grep --quiet "the text is kept in ${texts[0]}$" "$out/complaint"
    step 'it is what was typed' grep --quiet -- "$1" "${texts[0]}"
    step 'and private' [ "$(stat --format %a:%u "${texts[0]%/*}")" = 700:0 ]
    rm -r -- "${texts[0]%/*}"
}

unset VISUAL EDITOR
step 'base up' tarnfw base up
answers 0 profile create lab --empty
answers 0 rule add --adapter eth0 --profile lab allow tcp 22 --name first
editor to_second <<<"sed -i s/first/second/ \"\$1\""
editor to_first <<<"sed -i s/second/first/ \"\$1\""
editor rubbish <<<"echo rubbish >\"\$1\""

# --- without a terminal ----------------------------------------------------------------------------

edits 0 /tmp/editors/to_second lab
silent
prints <<<'Profile "lab" stored'
name_is second
no_text_left
keep_files second
edits 0 true lab
silent
prints <<<'Profile "lab" is unchanged'
step 'nothing was written' same_files second
no_text_left

edits 3 /tmp/editors/rubbish lab
step 'nothing on standard output' [ ! -s "$out/answer" ]
step 'what is wrong, and where' grep --quiet '^tarnfw: lab: line 1, column 1: ' "$out/complaint"
step 'what came of it' grep --quiet \
    '^tarnfw: profile "lab" is invalid; nothing was stored, the text is kept in ' "$out/complaint"
step 'nobody was asked' [ "$(wc -l <"$out/complaint")" = 2 ]
text_kept '^rubbish$'
step 'nothing was written' same_files second

editor empties <<<"echo >\"\$1\""
edits 3 /tmp/editors/empties lab
text_kept '^$'
editor renames <<<"sed -i 's/\"lab\"/\"other\"/' \"\$1\""
edits 3 /tmp/editors/renames lab
step 'the name stays' grep --quiet \
    '^tarnfw: lab: name: must stay "lab"; "tarnfw profile rename" changes it$' "$out/complaint"
text_kept '"name" : "other"'
editor unnames <<<"sed -i '/\"name\" : \"lab\"/d' \"\$1\""
edits 3 /tmp/editors/unnames lab
text_kept '"portList"'
editor mistypes <<<"sed -i 's/\"ipGroup\" : 5/\"ipGroup\" : \"any\"/' \"\$1\""
edits 3 /tmp/editors/mistypes lab
text_kept '"ipGroup" : "any"'
step 'nothing was written' same_files second

editor breaks_off <<'END'
sed -i s/second/third/ "$1"
exit 7
END
edits 1 /tmp/editors/breaks_off lab
complains '^tarnfw: the editor "/tmp/editors/breaks_off" failed with exit status 7; nothing was stored, '
text_kept '"third"'
edits 1 false lab
complains '^tarnfw: the editor "false" failed with exit status 1; nothing was changed$'
no_text_left
edits 1 /tmp/editors/nowhere lab
step 'the shell and the tool say why' grep --quiet \
    '^tarnfw: the editor "/tmp/editors/nowhere" cannot be found; nothing was changed$' "$out/complaint"
no_text_left
editor removes <<<"rm \"\$1\""
edits 1 /tmp/editors/removes lab
complains '^tarnfw: cannot read /tmp/tarnfw\..*/profile.json$'
rm -rf -- /tmp/tarnfw.*
refused 5 '^tarnfw: there is no profile "nowhere" ' profile edit nowhere
no_text_left
step 'nothing was written' same_files second

# Somebody else is quicker.
editor is_late <<END
sed -i s/second/late/ "\$1"
$build/tools/tarnfw/tarnfw rule add --adapter eth0 --profile lab deny any >/dev/null
END
edits 1 /tmp/editors/is_late lab
complains '^tarnfw: profile "lab" was changed by another program meanwhile; nothing was stored, the text is'
text_kept '"late"'
step 'the other change stays' grep --quiet '^  2  deny ' <(tarnfw profile show lab)
editor deletes <<END
sed -i s/second/late/ "\$1"
$build/tools/tarnfw/tarnfw profile delete lab >/dev/null
END
cp -- "$kProfileDirectory"/*.json /tmp/editors/
edits 1 /tmp/editors/deletes lab
step 'no profile, no place for it' grep --quiet '^tarnfw: profile "lab" cannot be read; nothing was' \
    "$out/complaint"
text_kept '"late"'
cp -- /tmp/editors/*.json "$kProfileDirectory"/

# --- which editor ----------------------------------------------------------------------------------

# edits_on_terminal STATUS ARGUMENT...: as answers does, but on a terminal of its own.
edits_on_terminal() {
    local wanted=$1 status=0
    shift
    /usr/bin/python3 -c 'import os, pty, sys
sys.exit(os.waitstatus_to_exitcode(pty.spawn(sys.argv[1:], lambda fd: os.read(fd, 1024), lambda fd: b"")))' \
        "$build/tools/tarnfw/tarnfw" "$@" >"$out/answer" || status=$?
    sed -i 's/\r$//' "$out/answer"
    step "on a terminal: $wanted: tarnfw $*" [ "$status" = "$wanted" ]
}

VISUAL=/tmp/editors/to_first edits 0 false lab
name_is first
edits 0 'sed -i s/first/argument/' lab
name_is argument
edits 0 'sed -i s/argument/second/' lab
EDITOR='sed -i s/second/unseen/' edits_on_terminal 1 profile edit lab --json
says 'an editor cannot use the terminal with --json'
name_is second
unset EDITOR
mkdir /tmp/bin
ln -s "$(command -v sed)" /tmp/bin/sed
PATH=/tmp/bin edits_on_terminal 1 profile edit lab
says '^tarnfw: there is no editor; set EDITOR to one; nothing was changed$'
for program in vi editor; do # "editor" goes before "vi"
    # shellcheck disable=SC2016  # the new script expands it
    printf '#!/bin/sh\nsed -i s/second/%s/ "$1"\n' "$program" >"/tmp/bin/$program"
    chmod +x "/tmp/bin/$program"
    answers 1 profile edit lab </dev/null
    complains '^tarnfw: there is no terminal to edit on; '
    PATH=/tmp/bin edits_on_terminal 0 profile edit lab
    name_is "$program"
    edits 0 "sed -i s/$program/second/" lab
    unset EDITOR
done
mkdir /tmp/elsewhere
editor says_where <<<"echo \"\$1\" >/tmp/where"
TMPDIR=/tmp/elsewhere edits 0 /tmp/editors/says_where lab
step 'TMPDIR counts' grep --quiet '^/tmp/elsewhere/tarnfw\.' /tmp/where
TMPDIR=/tmp/nowhere edits 1 true lab
complains '^tarnfw: cannot create a private directory for temporary files: '

# --- the active profile ----------------------------------------------------------------------------

answers 0 profile use lab
edits 0 /tmp/editors/to_first
prints <<<'Profile "lab" stored'
step 'the firewall is enabled' tarnfw enable
keep_listing enabled
edits 0 'sed -i s/"22"/"23"/' lab
prints <<'END'
Profile "lab" stored
Once applied: opens tcp 23 on eth0, for everybody (rule 1 of eth0); closes tcp 22 on eth0, for everybody (rule 2 of eth0)
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
step 'so it has' same_listing enabled
edits 0 'sed -i s/"23"/"24"/' --reload
prints <<'END'
Opens tcp 24 on eth0, for everybody (rule 1 of eth0); closes tcp 22 on eth0, for everybody (rule 2 of eth0)
Profile "lab" stored
Profile "lab" applied
END
step 'now it has the new ones' iptables -C INPUT_FIREWALL -i eth0 -p tcp --dport 24 -j RETURN
edits 0 /tmp/editors/to_second
no_text_left

# --- on a terminal ---------------------------------------------------------------------------------

# on_terminal CASE STATUS: what the person sees is in $out/answer.
on_terminal() {
    printf -- '-- on a terminal: %s\n' "$1"
    /usr/bin/python3 "$checkout/tests/kernel/edit_terminal.py" "$build/tools/tarnfw/tarnfw" "$1" \
        >"$out/answer" 2>&1 || fail "$(<"$out/answer")"
    cp -- "$out/answer" "$out/complaint"
    step "it ends with $2" [ "$(tail -n 1 "$out/answer")" = "exit status $2" ]
    sed -i '$d' "$out/complaint"
}

editor asks <<'END'
test -t 0 && test -t 1 || exit 1
printf 'New name of the rule: '
read -r name
sed -i "s/second/$name/" "$1"
END
on_terminal stores 0
says '^Profile "lab" stored$'
name_is asked
no_text_left

editor second_time_right <<'END'
if [ -e /tmp/kept ]; then
    sed s/asked/second/ /tmp/kept >"$1"
else
    cp "$1" /tmp/kept
    echo rubbish >"$1"
fi
END
on_terminal again 0
says '^Profile "lab" stored$'
name_is second
no_text_left
keep_files second

on_terminal no 3
says '^tarnfw: profile "lab" is invalid; nothing was stored, '
text_kept '^rubbish$'
on_terminal end_of_file 3
text_kept '^rubbish$'
on_terminal interrupted_question 'sig 2'
step 'the text is kept anyway' grep --quiet '^rubbish$' /tmp/tarnfw.*/profile.json
rm -r -- /tmp/tarnfw.*

# Ctrl-C is the editor's. One that dies of it ends the command, and nothing is changed.
editor waits <<'END'
printf 'Editing'
read -r name
END
on_terminal interrupted_editor 1
says 'the editor "/tmp/editors/waits" was killed by signal 2; nothing was changed$'
no_text_left
step 'nothing was written' same_files second
editor minds_not <<'END'
trap 'printf Interrupted; sed -i s/second/minded/ "$1"; exit 0' INT
printf 'Editing'
while :; do
    read -r name
done
END
on_terminal interrupted_editor_goes_on 0
says '^.*Profile "lab" stored$'
name_is minded
