"""What a case is made of: terminals that are plugged in, runs of the tool, and what is expected of them."""
import collections
import os
import subprocess
import time

from terminal import IMEI, Terminal
from tool import Run
from usbserial import now

ACM0, ACM1, ACM2 = "/dev/ttyACM0", "/dev/ttyACM1", "/dev/ttyACM2"
LOCKS = "/var/lock"
BY_PATH = "/dev/serial/by-path/platform-vhci_hcd.0-usb-0:1:1.0"
PATTERN = bytes(range(256)) * 4096  # 1 MiB, every value
IDENTIFICATION = ["Device: JVX terminal", "Version: 7.1.22", "BHR: 0x1a2b3c", "IMEI: " + IMEI]

Listed = collections.namedtuple("Listed", "group name function arguments")
listed = []


def named(name):
    """Lists a function as the case of this name."""
    return table(name, [()])


def table(pattern, rows):
    """Lists a function once for each row; the pattern makes the name of the row's values."""
    def list_them(function):
        group = function.__module__.split(".")[-1].replace("_", "-")
        for row in rows:
            arguments = row if isinstance(row, tuple) else (row,)
            name = pattern.format(*arguments)
            if any(other.name == name for other in listed):
                raise ValueError("two cases named " + name)
            listed.append(Listed(group, name, function, arguments))
        return function
    return list_them


def by_id(serial="SN1"):
    return "/dev/serial/by-id/usb-JVX_JVX_terminal_%s-if00" % serial


def write_file(name, content):
    path = "/tmp/" + name
    with open(path, "wb") as file:
        file.write(content)
    return path


def read_file(path):
    with open(path, "rb") as file:
        return file.read()


def wait_until(condition, timeout=20):
    give_up = now() + timeout
    while not condition():
        if now() > give_up:
            return False
        time.sleep(0.01)
    return True


def shell(command):
    """Runs a command that has to succeed; what it printed."""
    ended = subprocess.run(["sh", "-c", command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                           check=False)
    if ended.returncode != 0:
        raise RuntimeError("%s ends with %d: %s" % (command, ended.returncode, ended.stdout))
    return ended.stdout


def settle():
    shell("udevadm settle --timeout=20")


def ports():
    return sorted(name for name in os.listdir("/dev") if name.startswith("ttyACM"))


def locks():
    return sorted(name for name in os.listdir(LOCKS) if name.startswith("LCK.."))


class Case:
    """A case that runs. What is not as expected becomes one of its failures, what is known to differ one of known."""

    def __init__(self):
        self.failures = []
        self.known = []
        self.remarks = []
        self.terminals = []
        self.runs = []

    # -- what there is

    def plug(self, terminal=None, node=ACM0):
        """Plugs a terminal in and waits until the system has made its port."""
        terminal = terminal or Terminal()
        self.terminals.append(terminal)
        terminal.attach()
        if not wait_until(lambda: os.path.exists(node)):
            raise RuntimeError(node + " does not appear")
        settle()
        return terminal

    def start(self, *options, user=None, environment=None):
        run = Run(options, user, environment)
        self.runs.append(run)
        return run

    def run(self, *options, user=None, environment=None):
        return self.start(*options, user=user, environment=environment).wait()

    def unplug_all(self):
        for terminal in self.terminals:
            terminal.retire()
        if not wait_until(lambda: not ports()):
            raise RuntimeError("%s stay" % ports())
        settle()

    def clean_up(self):
        for run in self.runs:
            if run.end is None:
                run.process.kill()
                run.wait()
        self.unplug_all()
        for name in locks():
            os.unlink(os.path.join(LOCKS, name))

    # -- what is expected

    def remark(self, text):
        """Says what was seen, where nothing is expected of it."""
        self.remarks.append(text)

    def fail(self, what, expected, came):
        self.failures.append("%s: expected %s, came %s" % (what, expected, came))

    def expect(self, what, came, expected):
        if came != expected:
            self.fail(what, repr(expected), repr(came))

    def expect_known(self, what, came, expected, known, reason):
        """Expects the one, and lets the other pass for the reason that docs/usb.md explains."""
        if came == known != expected:
            self.known.append("%s: %r, as known: %s" % (what, came, reason))
        else:
            self.expect(what, came, expected)

    def expect_below(self, what, came, limit):
        if came is None or came >= limit:
            self.fail(what, "less than %s" % limit, "nothing" if came is None else "%.3f" % came)

    def expect_text(self, what, text, part):
        if part not in text:
            self.fail(what, "%r in it" % part, repr(text[-300:]))

    def expect_code(self, run, code, what="exit code"):
        self.expect(what, (run.code, run.last_line()) if run.code != code else code, code)

    def expect_identified(self, run, what="the run"):
        self.expect_code(run, 0, what + ", exit code")
        if run.code == 0:
            missing = [line for line in IDENTIFICATION if line not in run.output]
            self.expect(what + ", lines that are missing", missing, [])

    def expect_no_faults(self, terminal):
        self.expect("what the terminal got that is no request", [text for _, text in terminal.faults], [])

    def expect_echo_at_most(self, terminal):
        """Nothing but requests, or the echo that is known: the driver's read transfers start when the port is opened,
        before echo is switched off. All of it comes before the first request of a run."""
        echo = [text for when, text in terminal.faults if not self._is_within_a_run(terminal, when)]
        self.expect("faults after the first request of a run", len(terminal.faults) - len(echo), 0)
        if echo:
            self.known.append("%d pieces of echo at the terminal before the first request" % len(echo))

    @staticmethod
    def _is_within_a_run(terminal, when):
        """Whether DTR was up and a request had been taken since it rose. The fault itself shows when the bytes behind
        it are looked at, as late as the first request; the first of the echo comes before DTR rises."""
        changes = [(time, detail) for time, what, detail in terminal.events if what == "DTR" and time < when]
        changed, state = max(changes, default=(0, "down"))
        return state == "up" and any(changed < time < when for time, _ in terminal.requests)

    def expect_ends_after_its_error(self, run):
        """The process ends within a second of the line that says why, which it prints once."""
        self.expect("number of lines \"Error:\"", run.output.count("Error:"), 1)
        printed = run.time_of("Error:")
        self.expect_below("seconds from \"Error:\" to the end", printed and run.end - printed, 1)

    def expect_no_locks(self):
        self.expect("locks that are left", locks(), [])
