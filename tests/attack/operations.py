"""The operations that are attacked: every command that writes, and every reload."""

import json
import os
import re

from machine import SETTINGS, must, settings

# These change the base filter, one family after the other.
SETTING_UP = ("base up", "base down", "boot")

# Commands that write nothing. A command that is in neither list fails the test.
READING = (
    "status", "profile list", "profile show", "profile diff", "adapters", "services", "blocked",
    "explain", "open", "preview", "check", "diff", "history", "geoip list", "geoip show",
    "geoip check", "modules status", "base status", "help",
)

OTHER = "/usr/tarn/etc/other.json"
EXPORTED = "/usr/tarn/etc/exported.json"
REPORT = "/usr/tarn/etc/report.html"
NEW_PROFILE = "/usr/tarn/etc/new_profile.json"
CATALOGUE = "/usr/tarn/etc/services.d/own.json"


class Operation:
    """A command line, and what there is before it runs.

    command     the command of the tool that it attacks, as the tool's help names it
    words       the command line, after "tarnfw"
    before      command lines that run before
    status      its exit status when nothing goes wrong
    trial       whether a trial of "third" is running meanwhile
    reloads     whether it puts rules into the kernel, which an apply mode "lines" does one by one
    interrupted a command line that is killed before that, between the first and the last document that
                it writes: the operation undoes what it has done
    weight      how many points of it are attacked, of those of others; a trial lasts a second
    """

    def __init__(self, command, words, before=(), status=0, trial=False, reloads=False, weight=1.0,
                 mode=None, environment=None, interrupted=""):
        self.command = command
        self.words = words.split()
        self.before = [line.split() for line in before]
        self.status = status
        self.trial = trial
        self.reloads = reloads or "--reload" in self.words
        self.weight = weight
        self.mode = mode
        self.environment = environment or {}
        self.name = " ".join([words] + (["(%s)" % mode] if mode else []))
        self.interrupted = interrupted.split()
        if interrupted:
            self.name += " after an interrupted " + interrupted
        if before:
            self.name += " after " + ", ".join(before)


def commands(tool, path=()):
    """The tool's commands without those that only group others, each with its help."""
    text = must([tool, *path, "--help"])
    below = re.split(r"^Subcommands:\n", text, flags=re.MULTILINE)
    names = re.findall(r"^  (\S+)", below[1], flags=re.MULTILINE) if len(below) == 2 else []
    if not names:
        return {" ".join(path): text}
    found = {}
    for name in names:
        found.update(commands(tool, (*path, name)))
    return found


def apply_modes(tool):
    modes = must([tool, "complete", "--", "apply-mode", ""]).split()
    if "lines" not in modes:
        raise SystemExit("attack: the tool does not say which apply modes there are")
    return modes


def _written(modes):
    """Every command that writes."""
    rule = "--profile home --adapter eth0"
    editor = {"EDITOR": "sed -i s/Shell/Terminal/"}
    some = [
        Operation("enable", "enable --yes", ["disable"], reloads=True),
        Operation("disable", "disable", reloads=True),
        Operation("try", "try third --timeout 1", status=1, reloads=True, weight=0.3),
        Operation("try", "try --confirm", trial=True, reloads=True, weight=0.5),
        Operation("try", "try --cancel", trial=True, reloads=True, weight=0.5),
        Operation("profile create", "profile create fresh"),
        Operation("profile create", "profile create fresh --from " + NEW_PROFILE),
        Operation("profile copy", "profile copy home fresh"),
        Operation("profile rename", "profile rename home casa"),
        Operation("profile rename", "profile rename third terza"),
        Operation("profile delete", "profile delete third"),
        Operation("profile use", "profile use third"),
        Operation("profile edit", "profile edit home", environment=editor),
        Operation("profile set", "profile set home --from " + NEW_PROFILE),
        Operation("rule add", "rule add %s allow tcp 99" % rule),
        Operation("rule add", "rule add %s --first deny tcp 98" % rule),
        Operation("rule insert", "rule insert 1 %s deny udp 99" % rule),
        Operation("rule set", "rule set 1 %s allow tcp 2222 from 10.0.0.0/8" % rule),
        Operation("rule move", "rule move 1 2 %s" % rule),
        Operation("rule delete", "rule delete 1-2 %s" % rule),
        Operation("rule on", "rule on 2 %s" % rule),
        Operation("rule off", "rule off 1 %s" % rule),
        Operation("policy", "policy eth0 allow --profile home"),
        Operation("log-denied", "log-denied on --profile home"),
        Operation("service reserve", "service reserve rsync --adapter eth0 allow"),
        Operation("service release", "service release rsync", ["service reserve rsync --adapter eth0 allow"]),
        Operation("service release", "service release ssh --everywhere --yes"),
        Operation("service update", "service update", ["profile use third"]),
        Operation("adapter rename", "adapter rename eth0 lan0"),
        Operation("undo", "undo", ["rule add %s allow tcp 98" % rule]),
        Operation("undo", "undo", ["profile delete third"]),
        Operation("undo", "undo 2", ["profile rename home casa", "profile copy casa fresh"]),
        Operation("export", "export --force " + EXPORTED),
        # Each page has its time, and so is another state to look at.
        Operation("report", "report --html " + REPORT, weight=0.3),
        Operation("import", "import --yes " + OTHER),
        Operation("modules load", "modules load vpn", weight=0.5),
        Operation("modules unload", "modules unload vpn", ["modules load vpn"], weight=0.5),
        Operation("base up", "base up", ["base down"], weight=0.5),
        Operation("base down", "base down", weight=0.5),
        Operation("boot", "boot", ["base down"], reloads=True),
    ]
    some += [
        Operation("apply-mode", "apply-mode batch", interrupted=words)
        for words in ("profile rename home casa", "import --yes " + OTHER)
    ]
    for mode in modes:
        if mode != "lines":
            some.append(Operation("apply-mode", "apply-mode " + mode))
        some.append(Operation("reload", "reload", ["profile use third"], reloads=True, weight=2,
                              mode=mode))
    return some


def _with_reload(operation):
    """The same with "--reload"."""
    words = " ".join(operation.words + ["--reload"] + ([] if "--yes" in operation.words else ["--yes"]))
    return Operation(operation.command, words, [" ".join(line) for line in operation.before],
                     weight=operation.weight, environment=operation.environment)


def all_operations(tool):
    """The operations. Ends with a finding if a command that the tool has is not among them."""
    known = commands(tool)
    written = _written(apply_modes(tool))
    ran = {operation.command for operation in written}
    missing = set(known) - ran - set(READING)
    stale = (ran | set(READING)) - set(known)
    if missing or stale or ran & set(READING):
        raise SystemExit("attack: operations.py has no run for: %s; has, but the tool has not: %s"
                         % (", ".join(sorted(missing)) or "-", ", ".join(sorted(stale)) or "-"))
    reloading = [_with_reload(operation) for operation in written
                 if "--reload" in known[operation.command]]
    return written + reloading


# ---- Where they begin -----------------------------------------------------------------------------

def set_up(tool):
    """A machine with one adapter; the profiles "home", which is in force, and "third", and the files
    that operations read."""
    must(["ip", "link", "add", "eth0", "type", "veth", "peer", "name", "far0"])
    for words in (["address", "add", "192.168.1.10/24", "dev", "eth0"],
                  ["-6", "address", "add", "fd00::10/64", "dev", "eth0", "nodad"],
                  ["link", "set", "eth0", "up"], ["link", "set", "far0", "up"]):
        must(["ip", *words])
    rule = ["--profile", "home", "--adapter", "eth0"]
    os.makedirs(os.path.dirname(CATALOGUE), exist_ok=True)
    write_catalogue(["7000"])
    must([tool, "base", "up"])
    _apply_with_reload_only()
    for line in (["profile", "create", "home", "--empty"],
                 ["policy", "eth0", "deny", "--profile", "home"],
                 ["rule", "add", *rule, "--name", "Shell", "allow", "service", "ssh", "from",
                  "192.168.1.0/24"],
                 ["rule", "add", *rule, "--disabled", "allow", "service", "ssh,own", "from",
                  "192.168.1.20"],
                 ["profile", "copy", "home", "third"],
                 ["rule", "add", "--profile", "third", "--adapter", "global", "deny", "tcp",
                  "8000-8010", "from", "10.1.0.0/16"],
                 ["rule", "on", "2", "--profile", "third", "--adapter", "eth0"],
                 ["profile", "use", "home"], ["enable", "--yes"]):
        must([tool, *line])
    # What "service update" finds.
    write_catalogue(["7000", "7100-7110"])
    _write_other(json.loads(must([tool, "export"])))


def _apply_with_reload_only():
    """As on a machine that had a profile before "base up": without "--reload" a change is stored."""
    with open(SETTINGS, encoding="utf-8") as file:
        members = json.load(file)
    del members["applyChanges"]
    with open(SETTINGS, "w", encoding="utf-8") as file:
        json.dump(members, file)


def write_catalogue(ports):
    with open(CATALOGUE, "w", encoding="utf-8") as file:
        json.dump([{"name": "own", "title": "Own", "dst": {"protocol": "tcp", "ports": ports}}], file)
    os.chmod(CATALOGUE, 0o644)


def _write_other(exported):
    """Another configuration, without "third" and with "fresh", which is active."""
    profiles = exported["config_profiles"]
    third = next(name for name, profile in profiles.items() if profile["name"] == "third")
    fresh = dict(profiles.pop(third), name="fresh")
    profiles["fresh.json"] = fresh
    exported["config_firewall_settings"]["profile"] = "fresh"
    with open(OTHER, "w", encoding="utf-8") as file:
        json.dump(exported, file)
    with open(NEW_PROFILE, "w", encoding="utf-8") as file:
        json.dump(fresh, file)


def active_is_missing(found):
    """Whether the settings name a profile that is not there."""
    return "profile %s" % settings(found).get("profile") not in found
