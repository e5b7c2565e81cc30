"""Runs commands of the tool on a terminal and draws what they print: picture.py OUT.svg"""

import re
import sys

import pexpect
from rich.console import Console
from rich.text import Text

COLUMNS = 96
COMMANDS = (
    "tarnfw status",
    "tarnfw profile show home-office",
    "tarnfw blocked --service ssh",
    "tarnfw explain --port tcp/22 --adapter eth0 --from 192.168.1.50",
)

console = Console(record=True, width=COLUMNS, file=open("/dev/null", "w", encoding="utf-8"))
for command in COMMANDS:
    output, status = pexpect.run(command, withexitstatus=True, dimensions=(200, COLUMNS))
    if status not in (0, 10):
        sys.exit(f"{command} ends with {status}:\n{output.decode()}")
    console.print(Text.from_ansi(f"\033[1m$ {command}\033[0m\n" + output.decode().rstrip() + "\n"))
picture = console.export_svg(title="tarnfw")
# The fonts of the page that shows the picture do.
picture = re.sub(r"@font-face \{.*?\}\n", "", picture, flags=re.DOTALL)
picture = re.sub(r"<!-- .*? -->\n?", "", picture).replace("Fira Code, monospace", "monospace")
picture = picture.replace("<text ", '<text xml:space="preserve" ')
with open(sys.argv[1], "w", encoding="utf-8") as out:
    out.write(picture)
