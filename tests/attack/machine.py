"""The machine under attack: the tool, the files and the kernel's rules, and how they are put back."""

import glob
import json
import os
import shutil
import stat
import subprocess

STORE = "/usr/tarn/etc/firewall.d/"
JOURNAL = STORE + ".change/documents"
HISTORY = STORE + ".history/"
SETTINGS = STORE + "firewall_settings.json"
FAMILIES = ("iptables", "ip6tables")

# All that the tool, the library and the platform write, besides lock files, whose content is nothing.
ROOTS = ("/usr/tarn", "/run", "/var", "/tmp")
UNTOUCHED = ("/run/netns", "/tmp/attack")

# No command waits longer for anything.
SECONDS = 40


class Result:
    """How a command ended: its exit status (negative: the signal), and what it printed."""

    def __init__(self, status, text):
        self.status = status
        self.text = text

    def last_line(self):
        lines = self.text.strip().splitlines()
        return lines[-1][-200:] if lines else "(nothing)"


def run(words, seconds=SECONDS, text=None, environment=None):
    """Runs a command with both outputs in one. A command that is not done in time has status None."""
    try:
        ended = subprocess.run(words, input=text, stdin=subprocess.DEVNULL if text is None else None,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors="replace", timeout=seconds, check=False,
                               env={**os.environ, **(environment or {})})
    except subprocess.TimeoutExpired:
        return Result(None, "not done after %d s" % seconds)
    return Result(ended.returncode, ended.stdout)


def must(words, text=None):
    """Runs a command that prepares something."""
    result = run(words, text=text)
    if result.status != 0:
        raise SystemExit("attack: %s: exit %s: %s" % (" ".join(words), result.status, result.text))
    return result.text


# ---- Files ----------------------------------------------------------------------------------------

def _ignored(path):
    return path in UNTOUCHED or path.endswith(".lock")


class Files:
    """All files below ROOTS: for each path its kind and mode, and its content."""

    def __init__(self):
        self.entries = {}
        for root in ROOTS:
            self._add(root)

    def _add(self, directory):
        for entry in os.scandir(directory):
            if _ignored(entry.path):
                continue
            status = entry.stat(follow_symlinks=False)
            content = b""
            if stat.S_ISREG(status.st_mode):
                with open(entry.path, "rb") as file:
                    content = file.read()
            elif stat.S_ISLNK(status.st_mode):
                content = os.readlink(entry.path).encode()
            self.entries[entry.path] = (status.st_mode, content)
            if stat.S_ISDIR(status.st_mode):
                self._add(entry.path)

    def put_back(self):
        """Makes the files what they were."""
        now = Files().entries
        for path in sorted(now, reverse=True):  # what is in a directory before the directory
            if path not in self.entries or stat.S_IFMT(now[path][0]) != stat.S_IFMT(
                    self.entries[path][0]):
                _remove(path)
        for path in sorted(self.entries):
            if now.get(path) != self.entries[path]:
                _write(path, *self.entries[path])

    def key(self):
        """Equal for equal files, but for the records of changes, which have their time."""
        return tuple(sorted((path, content) for path, (_, content) in self.entries.items()
                            if not path.endswith("/record")))


def _remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    else:
        os.unlink(path)


def _write(path, mode, content):
    if stat.S_ISDIR(mode):
        os.makedirs(path, exist_ok=True)
    elif stat.S_ISREG(mode):
        if os.path.lexists(path) and os.lstat(path).st_nlink > 1:
            os.unlink(path)  # its other name keeps what it has
        with open(path, "wb") as file:
            file.write(content)
    elif stat.S_ISLNK(mode):
        if os.path.lexists(path):
            os.unlink(path)
        os.symlink(content.decode(), path)
        return
    else:
        return  # a socket of a process that is gone
    os.chmod(path, stat.S_IMODE(mode))


# ---- Documents ------------------------------------------------------------------------------------

BROKEN = "(cannot be read)"


def documents():
    """The store's documents, as text: a profile by "profile NAME", others by their files' names."""
    found = {}
    for path in sorted(glob.glob(STORE + "*.json")):
        name = os.path.basename(path)
        try:
            with open(path, encoding="utf-8") as file:
                document = json.load(file)
        except (OSError, ValueError):
            found[name] = BROKEN
            continue
        if isinstance(document, dict) and "name" in document:
            name = "profile " + document["name"]
        found.setdefault(name, json.dumps(document, sort_keys=True))
    return found


def without_trials(found):
    return {name: text for name, text in found.items() if not name.startswith("profile .test_")}


def settings(found):
    """The settings among the documents; empty when there are none."""
    text = found.get(os.path.basename(SETTINGS), BROKEN)
    return {} if text == BROKEN else json.loads(text)


def leftovers():
    """What a command leaves in the store only when it is killed."""
    return sorted(name for name in os.listdir(STORE)
                  if not name.endswith(".json") and name != os.path.basename(HISTORY[:-1]))


# ---- The kernel -----------------------------------------------------------------------------------

class Kernel:
    """The rules of both families: as they are put back, and as they are compared."""

    def __init__(self):
        self.saved = {family: must([family + "-save"]) for family in FAMILIES}
        self.rules = {family: _plain(text) for family, text in self.saved.items()}

    def put_back(self, now=None):
        for family in FAMILIES:
            if now is None or now.rules[family] != self.rules[family]:
                must([family + "-restore"], text=self.saved[family])

    def __eq__(self, other):
        return self.rules == other.rules

    def key(self):
        return tuple(self.rules[family] for family in FAMILIES)

    def leftover(self):
        """What only an interrupted reload leaves; empty when there is nothing."""
        for family in FAMILIES:
            for line in self.rules[family].splitlines():
                if line.startswith((":INPUT DROP", ":FORWARD DROP", "-A FIREWALL_RELOADING")):
                    return family + ": " + line
        return ""

    def summary(self):
        """What a person would say of rules that are neither the old nor the new ones."""
        text = "\n".join(self.rules.values())
        if ":INPUT DROP" in text:
            return "closed: policy DROP"
        if "-j DROP" not in text:
            return "open: no rule denies anything"
        return "some of the rules"


def _plain(text):
    """A listing without comments and counters, and without tables that hold nothing: looking makes
    the kernel have them."""
    tables = {}
    name = ""
    for line in text.splitlines():
        if line.startswith("*"):
            name = line
            tables[name] = []
        elif line and not line.startswith("#") and line != "COMMIT":
            tables[name].append(line.split(" [")[0])
    return "\n".join("\n".join([table] + lines) for table, lines in sorted(tables.items())
                     if any(not line.endswith(" ACCEPT") for line in lines))
