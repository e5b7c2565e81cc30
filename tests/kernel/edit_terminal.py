"""Drives "tarnfw profile edit" on a pseudo-terminal, as a person would. Run by scripts/tool_edit.sh.

    edit_terminal.py TARNFW CASE

The editors are the scripts that tool_edit.sh has put into /tmp/editors. What the tool leaves on disk is
looked at there. Each case ends with the tool's exit status, "sig 2" for a signal.
"""

import os
import sys

import pexpect

SECONDS = 60  # for a tool that hangs; no case waits for it


def start(tarnfw, editor):
    environment = dict(os.environ, EDITOR="/tmp/editors/" + editor, NO_COLOR="1")
    return pexpect.spawn(
        tarnfw, ["profile", "edit", "lab"], env=environment, timeout=SECONDS, encoding="utf-8"
    )


def finish(tool):
    tool.expect(pexpect.EOF)
    print(tool.before.replace("\r", ""))
    tool.close()
    return f"sig {tool.signalstatus}" if tool.exitstatus is None else tool.exitstatus


def stores(tarnfw):
    """An editor that needs the terminal, and has it."""
    tool = start(tarnfw, "asks")
    tool.expect_exact("New name of the rule: ")
    tool.sendline("asked")
    return finish(tool)


def again(tarnfw):
    """Rubbish at first; Enter opens the editor again, which then corrects it."""
    tool = start(tarnfw, "second_time_right")
    tool.expect(r"tarnfw: lab: line 1, column 1: .*\r\n")
    tool.expect(r"The text is in /tmp/tarnfw\.\w{6}/profile\.json\. Edit again\? \[Y/n\] ")
    tool.sendline("")
    return finish(tool)


def answered(reply):
    def case(tarnfw):
        tool = start(tarnfw, "rubbish")
        tool.expect_exact("Edit again? [Y/n] ")
        reply(tool)
        return finish(tool)

    return case


def interrupted(editor, then=None):
    """Ctrl-C on the terminal while the editor is at work."""

    def case(tarnfw):
        tool = start(tarnfw, editor)
        tool.expect_exact("Editing")
        tool.sendintr()
        if then:
            tool.expect_exact(then)
        return finish(tool)

    return case


CASES = {
    "stores": stores,
    "again": again,
    "no": answered(lambda tool: tool.sendline("n")),
    "end_of_file": answered(lambda tool: tool.sendeof()),
    "interrupted_question": answered(lambda tool: tool.sendintr()),
    "interrupted_editor": interrupted("waits"),
    "interrupted_editor_goes_on": interrupted("minds_not", "Interrupted"),
}

if __name__ == "__main__":
    print("exit status", CASES[sys.argv[2]](sys.argv[1]))
