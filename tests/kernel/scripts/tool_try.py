"""Drives "tarnfw try" on a terminal of its own: tool_try.py TARNFW SCENARIO.

Ends with the exit status of the command where the scenario waits for it, else with 0; with 99 when
something else happened than should.
"""

import os
import signal
import sys

import pexpect

NOT_AS_EXPECTED = 99
TARNFW, SCENARIO = sys.argv[1:3]
PROFILE = "deny_ssh_on_one_adapter"
LONG = "600"  # seconds that no trial here takes
SECONDS = 60  # for everything that has to happen at once, on a machine under load


def start(seconds=LONG):
    command = pexpect.spawn(TARNFW, ["try", PROFILE, "--timeout", seconds], timeout=SECONDS)
    return command


def begun(seconds=LONG):
    command = start(seconds)
    command.expect("Press Enter to keep them")
    return command


def ended(command, pattern):
    command.expect(pattern)
    command.expect(pexpect.EOF)
    command.wait()
    return command.exitstatus


def watchdog_of(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
        (watchdog,) = children.read().split()
    with open(f"/proc/{watchdog}/comm", encoding="ascii") as name:
        assert name.read().strip() == "tarnfw-watchdog"
    return int(watchdog)


def enter():
    command = begun()
    command.send("\r")
    return ended(command, f'Kept: profile "{PROFILE}" is now the active one')


def nobody_confirms():
    return ended(begun("1"), "nobody confirmed in time; the previous rules are in force again")


def ctrl_c():
    command = begun()
    command.sendintr()
    return ended(command, "was not kept: cancelled; the previous rules are in force again")


def ctrl_d():
    command = begun()
    command.sendeof()
    return ended(command, "was not kept: cancelled; the previous rules are in force again")


def terminal_lost():
    command = begun()
    os.close(command.child_fd)
    os.waitpid(command.pid, 0)
    return 0


def command_killed():
    command = begun()
    os.kill(command.pid, signal.SIGKILL)
    command.wait()
    return 0


def watchdog_killed():
    command = begun()
    os.kill(watchdog_of(command.pid), signal.SIGKILL)
    return ended(command, "the watchdog was killed; the previous rules are in force again")


def both_killed():
    command = begun()
    watchdog = watchdog_of(command.pid)
    os.kill(watchdog, signal.SIGSTOP)  # or one would see the other's end
    os.kill(command.pid, signal.SIGKILL)
    os.kill(watchdog, signal.SIGKILL)
    command.wait()
    return 0


def enter_too_early():
    command = start("1")
    command.send("\r")
    return ended(command, "nobody confirmed in time")


try:
    status = globals()[SCENARIO]()
except Exception as error:  # not to be taken for a status of the command
    print(error, file=sys.stderr)
    status = NOT_AS_EXPECTED
sys.exit(status)
