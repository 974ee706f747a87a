"""Restarts: a write with an apply, after which the terminal leaves the bus and comes back."""
from case import PATTERN, named, table, write_file
from terminal import Terminal, records
from usbserial import later

LONG = 200  # seconds; nobody waits that long


def apply(case, terminal, kind="settings"):
    case.plug(terminal)
    return case.run("-w", "-a", "-f", kind, write_file("applied.bin", PATTERN[:1300]))


def expect_back(case, terminal, run):
    case.expect_code(run, 0)
    case.expect("openings of the port", run.output.count("Serial port open:"), 2)
    case.expect("how often it was applied", len(terminal.applied), 1)
    case.expect_below("seconds of the processor", run.cpu, 1)


@table("restart-after-{}-s-for-{}-s", [(0, 4), (0.05, 1), (0.05, 4), (0.05, 8), (0.05, 30), (0.5, 4), (3, 8),
                                       (5.05, 3)])
def restart(case, leaves, away):
    """Leaving with the answer (0) and just before the port is opened again (5.05) are the bounds."""
    terminal = Terminal(restart=(leaves, away))
    expect_back(case, terminal, apply(case, terminal))
    case.expect_no_faults(terminal)


@named("restart-later-than-allowed")
def restart_later(case):
    """The tool goes on with the port that is about to go, and is done before it goes."""
    terminal = Terminal(restart=(7, 3))
    expect_back(case, terminal, apply(case, terminal))


@named("restart-for-too-long")
def restart_for_too_long(case):
    run = apply(case, Terminal(restart=(0.05, 80)))
    case.expect_code(run, 144)
    case.expect("lines \"Error:\"", run.output.count("Error:"), 1)
    case.expect_below("seconds of the processor", run.cpu, 1)
    case.expect_no_locks()


@table("firmware-without-answer-after-{}-s-for-{}-s", [(0.6, 4), (0.6, 30)])
def firmware(case, leaves, away):
    terminal = Terminal(restart=(leaves, away), answers_apply=False)
    expect_back(case, terminal, apply(case, terminal, "firmware"))


@table("firmware-without-answer-after-{}-s", [0, 0.3])
def firmware_leaves_early(case, leaves):
    """Before the time for the answer is over: a port error."""
    run = apply(case, Terminal(restart=(leaves, 4), answers_apply=False), "firmware")
    case.expect_code(run, 146)
    case.expect_ends_after_its_error(run)


@named("restart-with-boot-log")
def boot_log(case):
    """Sends 1830 bytes of log as soon as it is back, before the port is opened."""
    terminal = Terminal(restart=(0.05, 3), boot_text_after=records(40))
    expect_back(case, terminal, apply(case, terminal))
    case.expect_echo_at_most(terminal)


@named("restart-listens-0.3-s-late")
def listens_late(case):
    terminal = Terminal(restart=(0.05, 6), deaf_after=0.3)
    expect_back(case, terminal, apply(case, terminal))


@named("restart-listens-2-s-late")
def listens_too_late(case):
    """The file was applied all the same."""
    terminal = Terminal(restart=(0.05, 6), deaf_after=2)
    run = apply(case, terminal)
    case.expect_known("exit code", run.code, expected=0, known=255,
                      reason="the answer to the log mask comes later than its 500 ms")
    case.expect("openings of the port", run.output.count("Serial port open:"), 2)
    case.expect("kinds applied", terminal.applied, [0])
    if run.code:
        case.expect_ends_after_its_error(run)


@named("restart-by-hand")
def by_hand(case):
    """Unplugged and plugged in again 20 s after the apply."""
    terminal = case.plug(Terminal(restart=(LONG, LONG)))
    run = case.start("-w", "-a", "-f", "settings", write_file("applied.bin", PATTERN[:1300]))
    case.expect("it waits", run.until("Waiting device"), True)
    terminal.detach()
    later(20, terminal.attach)
    run.wait()
    expect_back(case, terminal, run)
