"""What a shell makes of a line when somebody presses Tab. Run by scripts/tool_completion.sh.

    complete_terminal.py bash|zsh SCRIPT

Reads lines from standard input, types each at the prompt of a shell that completes by SCRIPT, presses
Tab, and prints the resulting line. After "* " bash is asked for all completions at once.
"""

import os
import sys
import tempfile

import pexpect

SECONDS = 60  # for a shell that hangs; no case waits for it
DUMP = "\x18d"  # Ctrl-X d: writes the line to the pipe and clears it
PROMPT = "ready> "

SHELLS = {
    "bash": (
        ["--norc", "--noprofile", "-i"],
        """source {script}
dump() {{ printf '%s\\0' "$READLINE_LINE" >{pipe}; READLINE_LINE=''; READLINE_POINT=0; }}
bind -x '"\\C-xd": dump'
bind 'set bell-style none'
bind 'set enable-bracketed-paste off'
bind 'set completion-query-items 0'
PS1='ready''> '
""",
    ),
    "zsh": (
        ["-f", "-i"],
        """fpath=({directory} $fpath)
autoload -Uz compinit && compinit -u -D
dump() {{ printf '%s\\0' "$BUFFER" >{pipe}; BUFFER=''; }}
zle -N dump
bindkey -e
bindkey '^Xd' dump
setopt no_beep no_prompt_sp no_list_ambiguous
PS1='ready''> '
""",
    ),
}


def completed(shell, pipe, keys):
    """The line after typing `keys` and Tab."""
    shell.send(keys)
    shell.send(DUMP)
    with open(pipe, "rb") as answer:
        return answer.read().rstrip(b"\0").decode()


def main():
    name, script = sys.argv[1:]
    arguments, setup = SHELLS[name]
    with tempfile.TemporaryDirectory() as directory:
        pipe = os.path.join(directory, "line")
        os.mkfifo(pipe)
        setup_file = os.path.join(directory, "setup")
        with open(setup_file, "w", encoding="utf-8") as text:
            text.write(
                setup.format(script=script, pipe=pipe, directory=os.path.dirname(script))
            )
        shell = pexpect.spawn(
            name,
            arguments,
            env={**os.environ, "TERM": "dumb", "INPUTRC": "/dev/null", "HOME": directory},
            timeout=SECONDS,
            encoding="utf-8",
            dimensions=(50, 300),
        )
        shell.delaybeforesend = None
        shell.sendline(f"source {setup_file}")
        shell.expect_exact(PROMPT)
        for line in sys.stdin.read().splitlines():
            every = line.startswith("* ")
            keys = line[2:] + "\x1b*" if every else line + "\t"
            print(completed(shell, pipe, keys), flush=True)
        shell.close(force=True)


if __name__ == "__main__":
    main()
