"""Runs the commands of the README's tour and compares what they print: readme_tour.py README [OUT]

A command stands behind "$ " in a block marked "console"; the lines up to the next one are what it
prints. With OUT, writes there the README with what they print now.
"""

import difflib
import re
import subprocess
import sys

import pexpect

SECONDS = 60
FENCE = "```"


def plain(text):
    """The text without lines that were cleared again, and with numbers of the clock all alike."""
    text = text.replace("\r\n", "\n")
    text = re.sub(r"[^\n]*\r\033\[K", "", text)
    # Which modules a kernel lacks is its own affair.
    text = re.sub(r"^tarnfw: tarnkm:\d+ .*\n", "", text, flags=re.MULTILINE)
    return re.sub(r"\b\d{10}\b", "1700000042", text)


def run(command):
    """What a command prints. A trial needs somebody who presses Enter."""
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
            continue  # what an earlier run printed
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
