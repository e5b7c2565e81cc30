"""Attacks the tool, in the sandbox; tests/attack/run says how it is called.

kills   Each operation is killed at its system calls that change files, processes or the kernel: all
        of its processes at once, or only the one that makes the call. Whoever comes next must find
        all documents old or all new, and a reload must succeed and agree with "diff".
faults  One system call of each run fails. Success must mean that the change is there; failure needs
        a message, with documents and rules as before or as wanted.
together  Sixteen processes read and write at the same time. What reported success must be there.
"""

import argparse
import collections
import os
import random
import re
import resource
import shutil
import subprocess
import sys
import time

import machine
import operations
from machine import SECONDS, Files, Kernel, documents, leftovers, must, run, without_trials

SCRATCH = "/tmp/attack"
REPORT = SCRATCH + "/report"

# At how many of its calls an operation is attacked, times its weight.
SHORT_POINTS = {"kills": 3, "faults": 3}
LONG_POINTS = {"kills": 64, "faults": 64}
# An operation that seems to have fewer is not seen by the probe.
FEWEST_CALLS = {"kills": 3, "faults": 20}

# Processes run at the same time, so the next run may have some calls fewer, and a chosen one may not
# come. Others are attacked instead. At least this share of an operation's has to come; and of all
# operations' together, no more than the other, and two, may fail to.
FEWEST_COME = 0.5
MOST_SKIPPED = 0.15

KILLED_AT = ["change"]
FAILED_AT = ["file", "process", "kernel", "memory"]

STATUSES = (0, 1, 2, 3, 4, 5, 10, 11)  # all that the tool has, see tools/tarnfw/cli/command.h

WRITERS = 16
SHORT_TOGETHER = 5  # seconds
LONG_TOGETHER = 20


class State:
    """What an operation begins with or ends with."""

    def __init__(self):
        self.files = Files()
        self.documents = documents()
        self.restored = self.documents  # where a change was interrupted: what undoing it gives
        self.kernel = Kernel()
        self.kernels = [self.kernel]  # all that mean this state: a trial that goes on is one, too

    def put_back(self):
        self.files.put_back()
        self.kernel.put_back(Kernel())


class Point:
    """A system call that was attacked, and how the command ended."""

    def __init__(self, number, how, call, end, result):
        self.number = number
        self.how = how
        self.call = call  # "write tarnfw"
        self.end = end    # "exit 1", "signal 9", "hang", or "" without a report
        self.result = result

    def __str__(self):
        return "%s at call %d (%s)" % (self.how, self.number, self.call)


class Attack:
    """Runs the operations of one part, and keeps what it finds."""

    def __init__(self, options):
        self.options = options
        self.tool = options.build + "/tools/tarnfw/tarnfw"
        self.probe = options.build + "/tests/attack/call_probe"
        self.points = 0
        self.skipped = 0  # that did not come
        self.attacked = 0
        self.findings = []
        self.kinds = collections.Counter()
        self.seen = {}  # states that the next commands have been tried on, and what was found

    # ---- Finding ----

    def found(self, operation, point, text):
        """Keeps a finding. Prints the first one of its kind in an operation."""
        self.findings.append((operation.name, point, text))
        kind = (operation.name, re.sub("[0-9]{6,}", "N", text))
        self.kinds[kind] += 1
        if self.kinds[kind] == 1:
            print("FINDING: %s\n  %s: %s\n  printed: %s\n  again: tests/attack/run %s %s "
                  "--operation '%s' --how %s --at %d" % (
                      operation.name, point, text, point.result.last_line(), self.options.part,
                      self.options.variant, operation.name, point.how, point.number), flush=True)

    def print_kinds(self):
        """All findings, a line for each kind."""
        for (name, text), number in self.kinds.items():
            print("%4d  %s: %s" % (number, name, text))

    # ---- Running ----

    def traced(self, operation, action, classes):
        """Runs the operation under the probe. Returns the report's lines and the result."""
        if os.path.exists(REPORT):
            os.unlink(REPORT)
        result = run([self.probe, REPORT, str(SECONDS), *action, *classes, "--", self.tool,
                      *operation.words], seconds=2 * SECONDS, environment=operation.environment)
        if not os.path.exists(REPORT):
            raise SystemExit("attack: call_probe has no report: " + result.text)
        with open(REPORT, encoding="utf-8") as file:
            return file.read().splitlines(), result

    def begin_trial(self):
        """Starts a trial of "third", and returns its process when the rules are in force."""
        trial = subprocess.Popen([self.tool, "try", "third", "--timeout", "600"],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT, text=True, start_new_session=True)
        said = ""
        while "are in force" not in said:  # first it says what they open and close
            line = trial.stdout.readline()
            if not line:
                raise SystemExit("attack: the trial does not begin: " + said)
            said += line
        return trial

    def end_trial(self):
        """Ends what is left of a trial."""
        run([self.tool, "try", "--cancel"])

    def interrupt(self, words):
        """Kills a command that changes many documents before it writes the last one. Returns the
        documents before it."""
        operation = operations.Operation("", " ".join(words))
        state = State()
        calls, _ = self.traced(operation, ["count"], KILLED_AT)
        changed = documents()
        renames = [int(call.split()[0]) for call in calls if call.split()[1:2] == ["rename"]]
        # The last ones make an entry of the history, with all documents written.
        for number in reversed(renames):
            state.put_back()
            self.traced(operation, ["kill-all", str(number)], KILLED_AT)
            if os.path.exists(machine.JOURNAL) and documents() not in (state.documents, changed):
                return state.documents
        raise SystemExit("attack: not interrupted between two documents: " + " ".join(words))

    # ---- One operation ----

    def attack(self, operation, base):
        base.put_back()
        if operation.mode:
            must([self.tool, "apply-mode", operation.mode])
        for words in operation.before:
            must([self.tool, *words])
        restored = self.interrupt(operation.interrupted) if operation.interrupted else None
        old = State()
        old.restored = restored or old.documents
        trial = self.begin_trial() if operation.trial else None
        if trial:
            old.kernels.append(Kernel())
        calls, result = self.traced(operation, ["count"],
                                    KILLED_AT if self.options.part == "kills" else FAILED_AT)
        end = calls.pop()
        if end != "exit %d" % operation.status:
            raise SystemExit("attack: %s: %s: %s" % (operation.name, end, result.text))
        if trial:
            trial.wait(SECONDS)
        new = State()
        calls.pop()  # their number
        names = [line.split(" ", 1)[1] for line in calls]
        if len(names) < FEWEST_CALLS[self.options.part]:
            raise SystemExit("attack: %s: only %d calls are seen" % (operation.name, len(names)))
        points, spare = self.chosen(operation, names)
        wanted = len(points)
        done = skipped = 0
        while points:
            if self.attack_at(operation, *points.pop(0), old, new):
                done += 1
                continue
            skipped += 1
            if spare:
                points.append(spare.pop(0))
        if done < FEWEST_COME * wanted:
            self.say("%s: only %d of %d calls came" % (operation.name, done, wanted))
        self.skipped += skipped
        self.attacked += 1

    def attack_at(self, operation, number, how, old, new):
        """Attacks one call. False when the run had fewer calls."""
        old.put_back()
        trial = self.begin_trial() if operation.trial else None
        classes = KILLED_AT if self.options.part == "kills" else FAILED_AT
        lines, result = self.traced(operation, [how, str(number)], classes)
        came = len(lines) == 2
        if came:
            point = Point(number, how, lines[0].split(" ", 1)[1], lines[-1], result)
            self.points += 1
            self.judge(operation, point, old, new)
        if trial:
            self.end_trial()
            trial.kill()
            trial.wait(SECONDS)
        return came

    def chosen(self, operation, names):
        """The points: spread over the different calls of different programs, and over each of
        them. All different ones come before the second of any. And those that come next."""
        options = self.options
        hows = [options.how] if options.how else self.hows()
        if options.at:
            return [(options.at, how) for how in hows], []
        most = (LONG_POINTS if options.long else SHORT_POINTS)[options.part]
        most = max(3, round(most * operation.weight))
        kinds = {}
        for index, name in enumerate(names):
            kinds.setdefault(name, []).append(index + 1)
        order = random.Random(operation.name)
        queues = [order.sample(numbers, len(numbers)) for numbers in kinds.values()]
        order.shuffle(queues)
        numbers = []
        while queues:
            numbers += [queue.pop() for queue in queues]
            queues = [queue for queue in queues if queue]
        spare = [(number, hows[turn % len(hows)]) for turn, number in enumerate(numbers[most:])]
        numbers = sorted(numbers[:most])
        if options.long:
            return [(number, how) for number in numbers for how in hows], spare
        return [(number, hows[turn % len(hows)]) for turn, number in enumerate(numbers)], spare

    def hows(self):
        return ["kill-all", "kill-caller"] if self.options.part == "kills" else ["fail"]

    # ---- Judging ----

    def judge(self, operation, point, old, new):
        """Everything that must hold after the attack, whatever the command said, and what its exit
        status says."""
        if point.end == "hang":
            self.found(operation, point, "not done after %d s" % SECONDS)
        kind, _, number = point.end.partition(" ")
        if operation.trial:
            await_rest()
        now = State()
        if kind == "signal" and (point.how == "fail" or number != "9"):
            # A program that got no memory from its beginning may die, but not of a change.
            starved = point.call.split()[0] in ("brk", "mmap", "mremap")
            if not (starved and without_trials(now.documents) == without_trials(old.documents) and
                    now.kernel in old.kernels):
                self.found(operation, point, "died of signal " + number)
        # Who was not told may not be wrong about it.
        if kind == "exit":
            self.judge_answer(operation, point, int(number), old, new, now)
        elif operation.mode != "lines" and not operation.reloads and now.kernel not in (
                *old.kernels, new.kernel) and operation.command not in operations.SETTING_UP:
            self.found(operation, point, "rules neither old nor new: " + now.kernel.summary())
        key = (operation.name, now.files.key(), now.kernel.key())
        if key not in self.seen:
            self.seen[key] = True
            for text in self.next_commands(operation, old, new):
                self.found(operation, point, text)

    def judge_answer(self, operation, point, status, old, new, now):
        stored = without_trials(now.documents)
        before, wanted = without_trials(old.documents), without_trials(new.documents)
        if status == operation.status:
            if stored != wanted:
                self.found(operation, point, "exit %d, but stored is not what was asked for: %s" %
                           (status, differing(stored, wanted)))
            if now.kernel != new.kernel:
                self.found(operation, point, "exit %d, but the kernel has other rules: %s" %
                           (status, now.kernel.summary()))
            if operation.command == "export" and content(operations.EXPORTED) != content_in(
                    new, operations.EXPORTED):
                self.found(operation, point, "exit 0, but the exported document is another")
            if operation.command == "report" and not (content(operations.REPORT) or b"").endswith(
                    b"</html>\n"):
                self.found(operation, point, "exit 0, but the page is not whole")
            return
        if status == 0:
            self.found(operation, point, "exit 0 instead of %d" % operation.status)
        if not point.result.text.strip():
            self.found(operation, point, "exit %d without a message" % status)
        # What is half undone is for the next command.
        if stored not in (before, wanted) and not operation.interrupted:
            self.found(operation, point, "exit %d, documents neither old nor new: %s" %
                       (status, differing(stored, before)))
        if operation.command in operations.SETTING_UP:
            return  # they change a family after the other, and say how far they came
        if now.kernel not in (*old.kernels, new.kernel):
            self.found(operation, point, "exit %d, rules neither old nor new: %s" %
                       (status, now.kernel.summary()))
        elif "--reload" in operation.words and before != wanted and old.kernel != new.kernel:
            if (stored == before) != (now.kernel == old.kernel):
                self.found(operation, point, "exit %d, and what is stored is not what is in force" %
                           status)

    def next_commands(self, operation, old, new):
        """What the next commands make of the state; yields what is wrong with it."""
        before, wanted = without_trials(old.restored), without_trials(new.documents)
        result = run([self.tool, "profile", "list"])
        if result.status != 0:
            yield "next \"profile list\": exit %s: %s" % (result.status, result.last_line())
        stored = without_trials(documents())
        now = Kernel()
        if "--reload" in operation.words and before != wanted and old.kernel != new.kernel and (
                stored == before and now == new.kernel or stored == wanted and now == old.kernel):
            said = "may be in force" in result.text or run([self.tool, "status"]).status == 11
            if not said:
                yield "next: the rules are not those of the documents, and nothing says so"
        if stored not in (before, wanted):
            yield "next: documents neither all old nor all new: " + differing(stored, before)
        if operations.active_is_missing(stored):
            yield "next: the settings name a profile that does not exist"
        if operation.command in ("try",):
            self.end_trial()
        if operation.command in operations.SETTING_UP:
            result = run([self.tool, "base", "up"])
            if result.status != 0:
                yield "next \"base up\": exit %s: %s" % (result.status, result.last_line())
        enabled = machine.settings(documents()).get("status") is True
        words = ["reload"] if enabled else ["enable", "--yes"]
        result = run([self.tool, *words])
        if result.status != 0:
            yield "next \"%s\": exit %s: %s" % (words[0], result.status, result.last_line())
        result = run([self.tool, "diff"])
        if result.status != 0:
            yield "after the next %s, \"diff\": exit %s: %s" % (words[0], result.status,
                                                               result.last_line())
        left = Kernel().leftover()
        if left:
            yield "after the next %s is left: %s" % (words[0], left)
        if os.path.exists(machine.JOURNAL):
            yield "after the next %s the change is still open: %s" % (words[0], machine.JOURNAL)
        # Copies without a journal mean nothing, and may be those of a command that is running.
        result = run([self.tool, "apply-mode", "lines"])
        if result.status != 0:
            yield "next \"apply-mode\": exit %s: %s" % (result.status, result.last_line())
        if leftovers():
            yield "after the next change is left in the store: " + ", ".join(leftovers())
        if documents() != without_trials(documents()):
            yield "after the next %s a test profile is left" % words[0]

    # ---- Together ----

    def together(self):
        """Sixteen processes for some seconds. Each adds rules to a profile of its own, and all of
        them do everything else; what reported success must be there."""
        seconds = LONG_TOGETHER if self.options.long else SHORT_TOGETHER
        for number in range(WRITERS):
            must([self.tool, "profile", "create", "writer%d" % number])
        end = time.monotonic() + seconds
        children = []
        for number in range(WRITERS):
            child = os.fork()
            if child == 0:
                write_until(end, self.tool, number)
                os._exit(0)
            children.append(child)
        for child in children:
            os.waitpid(child, 0)
        self.judge_together()

    def judge_together(self):
        commands = added = 0
        stored = documents()
        for number in range(WRITERS):
            with open("%s/writer%d" % (SCRATCH, number), encoding="utf-8") as file:
                lines = file.read().splitlines()
            commands += len(lines)
            ports = [line.split()[1] for line in lines if line.startswith("added ")]
            added += len(ports)
            profile = stored.get("profile writer%d" % number, "")
            lost = [port for port in ports if '"portList": ["%s"]' % port not in profile]
            if lost:
                self.say("writer%d: \"rule add\" reported success for ports that are not stored: %s"
                         % (number, " ".join(lost)))
            for line in lines:
                if line.startswith("odd "):
                    self.say("writer%d: %s" % (number, line[4:]))
        if machine.BROKEN in stored.values():
            self.say("a document cannot be read")
        for words in (["reload"], ["diff"]):
            result = run([self.tool, *words])
            if result.status != 0:
                self.say("\"%s\" afterwards: exit %s: %s" % (words[0], result.status,
                                                             result.last_line()))
        for left in [Kernel().leftover()] + leftovers():
            if left:
                self.say("is left: " + left)
        print("together: %d commands of %d processes, %d rules added; %d findings"
              % (commands, WRITERS, added, len(self.findings)))

    def say(self, text):
        """Keeps a finding that is not one of a call."""
        self.findings.append((self.options.part, None, text))
        print("FINDING: " + text, flush=True)


def write_until(end, tool, number):
    """Runs commands at random until the time is up, and notes how they ended."""
    choose = random.Random(number)
    port = 1000
    with open("%s/writer%d" % (SCRATCH, number), "w", encoding="utf-8") as notes:
        while time.monotonic() < end:
            port += 1
            add = ["rule", "add", "--profile", "writer%d" % number, "--adapter", "eth0", "allow",
                   "tcp", str(port)]
            words = choose.choice((
                add, add, add, ["reload"], ["profile", "use", "home", "--reload", "--yes"],
                ["profile", "use", "third", "--reload", "--yes"], ["status"], ["diff"],
                ["profile", "list"], ["enable", "--yes"], ["apply-mode", "lines"],
                ["apply-mode", "batch"], ["export"], ["policy", "eth0", "deny", "--profile", "home"],
                ["check", "home", "--kernel"], ["blocked", "--port", "tcp/22"],
                ["service", "reserve", "rsync", "--adapter", "eth0", "allow"]))
            result = run([tool, *words], seconds=2 * SECONDS)
            if result.status not in STATUSES:
                notes.write("odd %s: exit %s: %s\n" % (" ".join(words), result.status,
                                                       result.last_line()))
            elif result.status not in (0, 10, 11) and not result.text.strip():
                notes.write("odd %s: exit %d without a message\n" % (" ".join(words), result.status))
            elif words is add and result.status == 0:
                notes.write("added %d\n" % port)
            else:
                notes.write("done\n")


def await_rest():
    """Waits for the watchdog of a trial, which may go on when its terminal has ended: until it has
    changed no document for a moment, for some seconds at most."""
    end = time.monotonic() + 5
    before = None
    while documents() != before and time.monotonic() < end:
        before = documents()
        time.sleep(0.3)


def differing(stored, wanted):
    """The names of the documents that differ."""
    return ", ".join(sorted(name for name in set(stored) | set(wanted)
                            if stored.get(name) != wanted.get(name)))


def content(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except OSError:
        return None


def content_in(state, path):
    return state.files.entries.get(path, (0, None))[1]


def arguments():
    parser = argparse.ArgumentParser(prog="tests/attack/run")
    parser.add_argument("--build", required=True)
    parser.add_argument("part", choices=("kills", "faults", "together"))
    parser.add_argument("variant", choices=("nft", "legacy"))
    parser.add_argument("--long", action="store_true", default=os.environ.get("TARN_LONG") == "1")
    parser.add_argument("--operation")
    parser.add_argument("--at", type=int)
    parser.add_argument("--how", choices=("kill-all", "kill-caller", "fail"))
    parser.add_argument("--list", action="store_true")
    return parser.parse_args()


def main():
    options = arguments()
    attack = Attack(options)
    started = time.monotonic()
    os.makedirs(SCRATCH)
    try:
        operations.set_up(attack.tool)
        every = operations.all_operations(attack.tool)
        if options.list:
            print("\n".join(operation.name for operation in every))
            return 0
        if options.part == "together":
            attack.together()
        else:
            base = State()
            chosen = [operation for operation in every
                      if options.operation in (None, operation.name)]
            if not chosen:
                raise SystemExit("attack: no such operation; --list prints all")
            for operation in chosen:
                begun, points, findings = time.monotonic(), attack.points, len(attack.findings)
                attack.attack(operation, base)
                print("%-75s %4d points %3d findings %6.1f s" % (
                    operation.name, attack.points - points, len(attack.findings) - findings,
                    time.monotonic() - begun), flush=True)
            if attack.skipped > 2 + MOST_SKIPPED * attack.points:
                attack.say("too many calls did not come")
            if attack.points == 0:
                attack.say("nothing was attacked")
            attack.print_kinds()
            print("%s: %d over %d operations, %d did not come; %d findings; %d s" % (
                options.part, attack.points, attack.attacked, attack.skipped, len(attack.findings),
                time.monotonic() - started))
        used = resource.getrusage(resource.RUSAGE_CHILDREN)
        print("%d s of processor time" % (used.ru_utime + used.ru_stime))
    finally:
        shutil.rmtree(SCRATCH, ignore_errors=True)
    return 1 if attack.findings else 0


if __name__ == "__main__":
    sys.exit(main())
