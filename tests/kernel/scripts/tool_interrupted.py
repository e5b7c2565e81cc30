"""Interrupts the tool in the middle of its work, where the wrapper of iptables waits:
tool_interrupted.py SCENARIO TARNFW ARGUMENT...

The work must still go on to its end. The caller checks what is in the kernel then.
"""

import os
import signal
import subprocess
import sys

import pexpect

SCENARIO, *COMMAND = sys.argv[1:]
PAUSED = "/tmp/paused"
RESUME = "/tmp/resume"
SECONDS = 60  # for everything that has to happen at once, on a machine under load


def start():
    return pexpect.spawn(COMMAND[0], COMMAND[1:], timeout=SECONDS, encoding="utf-8")


def await_pause():
    with open(PAUSED, encoding="ascii") as paused:
        paused.readline()


def resume():
    """Open to both sides: neither end waits for one that is no more."""
    fifo = os.open(RESUME, os.O_RDWR)
    os.write(fifo, b"\n")
    return fifo


def ctrl_c():
    command = start()
    await_pause()
    command.sendintr()
    resume()
    command.expect(pexpect.EOF)
    command.wait()
    assert command.signalstatus == signal.SIGINT, command.before


def terminal_lost():
    command = start()
    await_pause()
    os.close(command.child_fd)
    resume()
    _, status = os.waitpid(command.pid, 0)
    assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == signal.SIGHUP, status


def stopped():
    """All that Ctrl-Z stops: the work goes on, and does not keep the machine closed."""
    command = start()
    await_pause()
    os.killpg(command.pid, signal.SIGSTOP)
    resume()
    children = f"/proc/{command.pid}/task/{command.pid}/children"
    while True:  # until the work has been done, and waits to be collected
        with open(children, encoding="ascii") as names:
            (worker,) = names.read().split()
        with open(f"/proc/{worker}/stat", encoding="ascii") as state:
            if state.read().rsplit(")", 1)[1].split()[0] == "Z":
                break
    command.kill(signal.SIGKILL)
    command.wait()


def terminated():
    command = subprocess.Popen(COMMAND, stdout=subprocess.PIPE)
    await_pause()
    command.terminate()
    resume()
    assert command.wait(SECONDS) == -signal.SIGTERM


def nobody_reads():
    """Standard output and standard error are a pipe that is closed already."""
    reading, writing = os.pipe()
    os.close(reading)
    command = subprocess.Popen(COMMAND, stdout=writing, stderr=writing)
    assert command.wait(SECONDS) == -signal.SIGPIPE


def progress():
    command = start()
    await_pause()
    command.expect_exact('Applying the rules of "deny_by_default" ...')
    resume()
    command.expect_exact("\r\033[K")
    command.expect_exact('"deny_by_default"')
    command.expect(pexpect.EOF)
    command.wait()
    assert command.exitstatus == 0, command.before


globals()[SCENARIO]()
