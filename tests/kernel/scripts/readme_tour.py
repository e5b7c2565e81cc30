"""Runs the commands of the README's tour and compares their output: readme_tour.py README [OUT]

A command follows "$ " in a block marked "console"; the lines up to the next one are
its output. With OUT, writes the README with the present output there.
"""

import difflib
import re
import subprocess
import sys

import pexpect

SECONDS = 60
FENCE = "```"


def plain(text):
    """The text without lines that were cleared again, and with the same time stamp everywhere."""
    text = text.replace("\r\n", "\n")
    text = re.sub(r"[^\n]*\r\033\[K", "", text)
    # Kernels differ in the modules that they lack.
    text = re.sub(r"^tarnfw: tarnkm:\d+ .*\n", "", text, flags=re.MULTILINE)
    return re.sub(r"\b\d{10}\b", "1700000042", text)


def run(command):
    """The output of a command. In a trial, presses Enter."""
    if command.startswith("tarnfw try "):
        trial = pexpect.spawn("/bin/bash", ["-c", command], encoding="utf-8", timeout=SECONDS)
        trial.setecho(False)
        trial.expect("keeps them")
        begun = trial.before + trial.after
        trial.send("\r")
        trial.expect(pexpect.EOF)
        return plain(begun + trial.before)
    done = subprocess.run(
        ["/bin/bash", "-c", command],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        encoding="utf-8",
        timeout=SECONDS,
        check=False,
    )
    return plain(done.stdout)


def main():
    with open(sys.argv[1], encoding="utf-8") as readme:
        lines = readme.read().split("\n")
    written = []
    in_block = False
    commands = 0
    for line in lines:
        if line == FENCE + "console":
            in_block = True
        elif line == FENCE:
            in_block = False
        elif in_block and line.startswith("$ "):
            written.append(line)
            output = run(line[2:])
            written.extend(output.rstrip("\n").split("\n") if output else [])
            commands += 1
            continue
        elif in_block:
            continue  # the old output
        written.append(line)
    if len(sys.argv) > 2:
        with open(sys.argv[2], "w", encoding="utf-8") as out:
            out.write("\n".join(written))
        return 0
    differences = list(difflib.unified_diff(lines, written, "README", "now", lineterm=""))
    print("\n".join(differences))
    print(f"{commands} commands")
    return 1 if differences or commands == 0 else 0


sys.exit(main())
