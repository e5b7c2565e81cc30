"""The commands of docs/coming-from.md, in their order, and how to run them.

A command is a code span or a line of a block of code that begins with the name of a program and a blank. Its
exit status is 0 unless "(exit status N)" follows.
"""

import pathlib
import re
import subprocess
import sys

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/coming-from.md"


def commands(program):
    """[(line, command, status)] of the page."""
    found = []
    in_block = False
    for number, line in enumerate(PAGE.read_text(encoding="utf-8").splitlines(), 1):
        if line.startswith("```"):
            in_block = not in_block
        elif in_block:
            found.append((number, line.strip(), 0))
        else:
            for span, status in re.findall(r"`([^`]+)`(?: \(exit status (\d+)\))?", line):
                found.append((number, span.replace("\\|", "|"), int(status or 0)))
    return [entry for entry in found if entry[1].startswith(program + " ")]


def run_all(program, wanted, after=None):
    """Runs them. `wanted` has patterns: some output of that command matches each. `after(number, command)`
    returns what is wrong after it."""
    failures = []
    outputs = {}
    all_of_page = commands(program)
    for number, command, status in all_of_page:
        done = subprocess.run(
            ["bash", "-c", command],
            check=False,
            text=True,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        print(f"-- {number}: {command}\n{done.stdout}", end="", flush=True)
        outputs.setdefault(command, []).append(done.stdout)
        if done.returncode != status:
            failures.append(f"line {number}: {command}: {done.returncode} instead of {status}")
        if after:
            failures += after(number, command)
    for command, pattern in wanted:
        if not any(re.search(pattern, text, re.MULTILINE) for text in outputs.get(command, [])):
            failures.append(f"{command}: does not say {pattern!r}")
    if len(all_of_page) < 20:
        failures.append(f"only {len(all_of_page)} commands of {program}")
    for failure in failures:
        print(f"FAILED: {failure}", file=sys.stderr)
    print(f"{len(all_of_page)} commands of {program}")
    return not failures
