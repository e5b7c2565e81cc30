"""Interrupts commands that change many documents at their system calls: tool_killed_changes.py TARNFW STEP

Every STEP-th system call that changes files is one run, in which it kills the process that makes it. The
next command, which only reads, must find all documents as before the change or as after it; and the one
after that, which writes, leaves no other file. Then the same calls fail instead: the command must say so
and change nothing, or succeed.
"""

import os
import shutil
import subprocess
import sys

TARNFW, STEP = sys.argv[1], int(sys.argv[2])
STORE = "/usr/tarn/etc/firewall.d"
KEPT = "/tmp/store_before"
CALLS = ["rename", "link", "unlink", "unlinkat", "mkdir", "rmdir", "write", "openat", "fsync"]
CHANGES = [
    ["profile", "rename", "home", "casa"],
    ["import", "--yes", "/tmp/other.json"],
    ["service", "reserve", "ssh", "--adapter", "eth0", "allow"],
    ["adapter", "rename", "eth0", "lan0"],
]
FAILING = ["rename", "link", "mkdir", "write", "fsync"]
NEXT = [["status"], ["profile", "list"], ["check", "third"]]  # in turn
SECONDS = 60


def run(words, before=()):
    return subprocess.run([*before, TARNFW, *words], stdin=subprocess.DEVNULL, timeout=SECONDS,
                          capture_output=True, text=True, check=False)


def documents():
    """The content of each document."""
    texts = {}
    for name in os.listdir(STORE):
        if name.endswith(".json"):
            with open(f"{STORE}/{name}", encoding="utf-8") as file:
                texts[name] = file.read()
    return texts


def put_back():
    shutil.rmtree(STORE)
    shutil.copytree(KEPT, STORE)


def with_fault(fault, call, number, words):
    """The run in which that call of each process ends so."""
    inject = f"inject={call}:{fault}:when={number}"
    return run(words, ["strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e", inject])


def calls_of(call, words):
    """How many such calls the process makes that makes most."""
    counts = {}
    put_back()
    run(words, ["strace", "-f", "-qq", "-o", "/tmp/calls", "-e", f"trace={call}"])
    with open("/tmp/calls", encoding="utf-8", errors="replace") as lines:
        for line in lines:
            if f" {call}(" in line:
                process = line.split()[0]
                counts[process] = counts.get(process, 0) + 1
    return max(counts.values(), default=0)


def fail(where, text):
    print(f"{where}: {text}\n" + "\n".join(sorted(os.listdir(STORE))))
    sys.exit(f"FAILED: {where}: {text}")


def check_failed(where, done, old, new, count):
    """After a run in which a call failed. Where it failed in the process that writes and then in the one that
    restores, the tool says so, and the next command restores."""
    if done.returncode != 0 and "Restoring the documents failed, too; the copies are in" in done.stderr:
        check(where, old, old, count)
        return
    said = "cannot write the output" in done.stderr
    now = documents()
    if now != (new if done.returncode == 0 or said else old):
        fail(where, f"ends with {done.returncode}, but the documents do not agree: {done.stderr}")


def check(where, old, new, count):
    words = NEXT[count % len(NEXT)]
    done = run(words)
    if words[0] != "check" and done.returncode != 0:
        fail(where, f"{words} ends with {done.returncode}: {done.stderr}")
    now = documents()
    if now not in (old, new):
        differs = [n for n in {*old, *new, *now} if now.get(n) not in (old.get(n), new.get(n))]
        fail(where, f"neither as before nor as after the change; not even half of it: {differs}")
    if os.path.exists(f"{STORE}/.change/documents"):
        fail(where, "the journal is still there")
    done = run(["apply-mode", "lines"])
    if done.returncode != 0:
        fail(where, done.stderr)
    others = [name for name in os.listdir(STORE) if not name.endswith(".json") and name != ".history"]
    if others:
        fail(where, f"left over: {others}")
    return now == old


def changed(words):
    """How often the change was killed, how often that left the store as before, how often a call failed."""
    put_back()
    old = documents()
    done = run(words)
    if done.returncode != 0:
        fail(words, done.stderr)
    new = documents()
    if new == old:
        fail(words, "it changes nothing")
    kills = unchanged = failures = 0
    for call in CALLS:
        for number in range(1, calls_of(call, words) + 1, STEP):
            put_back()
            kills += 1
            if with_fault("signal=KILL", call, number, words).returncode != 0:
                unchanged += check(f"{' '.join(words)}, killed at {call} {number}", old, new, kills)
    for call in FAILING:
        for number in range(1, calls_of(call, words) + 1, STEP):
            put_back()
            failures += 1
            done = with_fault("error=EIO", call, number, words)
            check_failed(f"{' '.join(words)}, {call} {number} fails", done, old, new, failures)
    return kills, unchanged, failures


shutil.rmtree(KEPT, ignore_errors=True)
shutil.copytree(STORE, KEPT)
for change in CHANGES:
    kills, unchanged, failures = changed(change)
    print(f"{' '.join(change)}: {kills} kills, {unchanged} left the store as before; {failures} failures")
    # Both: else the system calls were not those of the change.
    if STEP == 1 and unchanged in (0, kills):
        sys.exit("FAILED: all kills left the same state")
