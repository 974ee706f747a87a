"""Rights: what the package's udev rule gives whom, and what ModemManager does to a terminal."""
import contextlib
import grp
import os
import pwd
import struct
import subprocess
import tempfile
import time

from case import ACM0, PATTERN, named, settle, shell, table, write_file
from terminal import Terminal

RULE = "/usr/lib/udev/rules.d/70-jvx-loader.rules"
PACKAGE = "/job/jvx-loader.deb"
USERS = ["tech", "dial", "none"]  # logged in at the seat, in the group dialout, neither
ACL_USER = 2


def owner():
    """Group and mode of the port, and the users who are let in besides."""
    status = os.stat(ACM0)
    try:
        access = os.getxattr(ACM0, "system.posix_acl_access")
    except OSError:
        access = b"\0" * 4
    entries = struct.iter_unpack("<HHI", access[4:])
    users = [pwd.getpwuid(user).pw_name for tag, _, user in entries if tag == ACL_USER]
    return grp.getgrgid(status.st_gid).gr_name, oct(status.st_mode & 0o777), users


def is_ignored_by_modem_manager():
    return "ID_MM_DEVICE_IGNORE=1" in shell("udevadm info --query=property " + ACM0)


def expect_codes(case, codes):
    came = {user: case.run(user=user).code for user in USERS}
    case.expect("exit codes", came, dict(zip(USERS, codes)))


@contextlib.contextmanager
def without_the_rule():
    """The system as it is without the package, but for the tool."""
    os.rename(RULE, RULE + ".away")
    shell("udevadm control --reload")
    try:
        yield
    finally:
        os.rename(RULE + ".away", RULE)
        shell("udevadm control --reload")


@contextlib.contextmanager
def without_the_package():
    shell("dpkg --purge jvx-loader")
    try:
        yield
    finally:
        shell("dpkg --install " + PACKAGE)


@named("users-without-the-rule")
def users_without_the_rule(case):
    with without_the_rule():
        case.plug()
        case.expect("access", owner(), ("dialout", "0o660", []))
        expect_codes(case, [151, 0, 151])


@named("users-with-the-rule")
def users_with_the_rule(case):
    case.plug()
    case.expect("access", owner(), ("dialout", "0o660", ["tech"]))
    case.expect("ModemManager is to ignore it", is_ignored_by_modem_manager(), True)
    expect_codes(case, [0, 0, 151])


@named("package-installed-while-plugged-in")
def installed_while_plugged_in(case):
    with without_the_package():
        case.plug()
        case.expect("access before", owner(), ("dialout", "0o660", []))
    settle()
    case.expect("access", owner(), ("dialout", "0o660", ["tech"]))
    case.expect("ModemManager is to ignore it", is_ignored_by_modem_manager(), True)
    expect_codes(case, [0, 0, 151])


@named("package-removed")
def removed(case):
    with without_the_package():
        case.plug()
        case.expect("access", owner(), ("dialout", "0o660", []))
        case.expect("ModemManager is to ignore it", is_ignored_by_modem_manager(), False)
        case.unplug_all()


@table("restart-as-{}", ["tech", "dial"])
def restart(case, user):
    """The port that comes back is a new one, with rights of its own."""
    terminal = case.plug(Terminal(restart=(0.05, 4)))
    with modem_manager():
        run = case.run("-w", "-a", "-f", "settings", write_file("written.bin", PATTERN[:600]), user=user)
    case.expect_code(run, 0)
    case.expect_no_faults(terminal)


@contextlib.contextmanager
def modem_manager(*options):
    """A ModemManager that is up, with the log that it writes."""
    with tempfile.NamedTemporaryFile() as log:
        process = subprocess.Popen(["/usr/sbin/ModemManager", "--debug", *options], stdout=log, stderr=log)
        time.sleep(5)
        try:
            yield log
            if process.poll() is not None:
                raise RuntimeError("ModemManager has ended: " + said(log))
        finally:
            process.terminate()
            process.wait()


def said(log):
    with open(log.name, encoding="utf-8", errors="replace") as file:
        return file.read()


@table("modem-manager-{}-rule-protocol-{}", [("with", 0, "blocklisted"), ("with", 1, "blocklisted"),
                                             ("without", 0, "not AT-capable"), ("without", 1, "forbidden")])
def modem_manager_runs(case, rule, protocol, reason):
    """It keeps away from a device that it does not know, and with the rule for the rule's sake."""
    with contextlib.nullcontext() if rule == "with" else without_the_rule(), modem_manager() as log:
        terminal = case.plug(Terminal(protocol=protocol))
        for number in range(8):
            case.expect_identified(case.run(user="dial"), "run %d" % number)
            time.sleep(3)
        time.sleep(30)
        case.expect_identified(case.run(user="dial"), "the last run")
        reasons = [line for line in said(log).splitlines() if "ttyACM0" in line and "port filtered" in line]
        case.expect_text("what ModemManager says of the port", "".join(reasons), reason)
        case.unplug_all()
    case.expect_no_faults(terminal)
