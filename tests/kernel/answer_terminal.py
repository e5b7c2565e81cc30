"""Answers a question of the tool on a pseudo-terminal. Run by asked of answers.sh.

    answer_terminal.py QUESTION ANSWER TARNFW ARGUMENT...

The question is the end of the output before the answer is typed; an answer "EOF" is the end of
the input, and "INTR" is Ctrl-C. The shell command in the variable MEANWHILE, if there is one, runs before the
answer. Prints what the tool says after it, and ends as the tool does; with 99, which the tool never
does, when that does not ask the question or does not end.
"""

import os
import subprocess
import sys

import pexpect

SECONDS = 60  # for a tool that hangs; no case waits for it
NOT_AS_EXPECTED = 99


def drive(question, answer, program, arguments):
    # So wide that no line is broken.
    tool = pexpect.spawn(
        program, arguments, timeout=SECONDS, encoding="utf-8", dimensions=(24, 500)
    )
    tool.expect_exact(question.replace("\n", "\r\n"))
    if "MEANWHILE" in os.environ:
        subprocess.run(["bash", "-c", os.environ["MEANWHILE"]], check=True)
    if answer == "EOF":
        tool.sendeof()
    elif answer == "INTR":
        tool.sendintr()
    else:
        tool.sendline(answer)
    tool.expect(pexpect.EOF)
    tool.close()
    print(tool.before.replace("\r", ""), end="")
    return 128 + tool.signalstatus if tool.exitstatus is None else tool.exitstatus


try:
    sys.exit(drive(*sys.argv[1:4], sys.argv[4:]))
except (pexpect.EOF, pexpect.TIMEOUT, subprocess.CalledProcessError) as error:
    print(error, file=sys.stderr)
    sys.exit(NOT_AS_EXPECTED)
