"""A terminal that takes nothing: what is sent stays on the line, and closing a port waits for that."""
import signal
import time

from case import PATTERN, named, table, wait_until, write_file
from terminal import Terminal
from usbserial import later, now


def hold_at(key, number, seconds=None):
    """A handler that answers this request, but takes nothing after it for so long (None: for ever)."""
    count = 0

    def handle(terminal, payload):
        nonlocal count
        count += 1
        if count == number:
            terminal.takes_nothing = True
            terminal.held = now()
            if seconds is not None:
                later(seconds, terminal.take_again)
        return terminal.answer(key, payload)
    return {key: handle}


def start_write(case, seconds=None):
    """A write whose 21st piece is not taken for so long."""
    terminal = case.plug(Terminal(handlers=hold_at("FW", 20, seconds)))
    return terminal, case.start("-w", "-f", "settings", write_file("written.bin", PATTERN[:40000]))


@table("write-held-{}-s", [1, 4.5])
def held_for_a_while(case, seconds):
    """Less than the 5 s that a piece may take: nothing is lost."""
    terminal, run = start_write(case, seconds)
    case.expect_code(run.wait(), 0)
    case.expect("the terminal's file is the one written", bytes(terminal.written[0]) == PATTERN[:40000], True)
    case.expect_identified(case.run(), "the next run")
    case.expect_no_faults(terminal)


@table("write-held-{}-s", [6, 20, "endless"])
def held_for_too_long(case, seconds):
    terminal, run = start_write(case, None if seconds == "endless" else seconds)
    case.expect_code(run.wait(), 255)
    case.expect_below("seconds from the last taken piece to the error", run.time_of("Error:") - terminal.held, 5.5)
    case.expect_ends_after_its_error(run)
    case.expect_no_locks()
    if seconds == "endless":
        terminal.take_again()
    else:
        case.expect("it takes again", wait_until(lambda: not terminal.takes_nothing), True)
    case.expect_identified(case.run(), "the run when it takes again")


@named("identification-not-taken")
def identification_not_taken(case):
    terminal = case.plug()
    terminal.takes_nothing = True
    for number in range(2):
        run = case.run()
        case.expect_code(run, 255)
        case.expect_ends_after_its_error(run)
        case.expect_below("seconds of run %d" % number, run.seconds, 2)
    terminal.take_again()
    case.expect_identified(case.run(), "the run when it takes again")


@named("apply-of-firmware-not-taken")
def apply_not_taken(case):
    """Reads as a restart without an answer. The port closes without a delay, and opens again."""
    terminal = case.plug(Terminal(handlers=hold_at("FW", 3)))
    run = case.run("-w", "-a", "-f", "firmware", write_file("written.bin", PATTERN[:1500]))
    case.expect_code(run, 255)
    case.expect("openings of the port", run.output.count("Serial port open:"), 2)
    closed = run.time_of("Serial port closed:")
    case.expect_below("seconds from the last taken piece to the closed port", closed and closed - terminal.held, 1.5)
    case.expect_ends_after_its_error(run)


@table("write-held-and-{}", ["SIGINT", "SIGTERM", "SIGKILL"])
def interrupted(case, name):
    number = signal.Signals[name]
    terminal, run = start_write(case)
    case.expect("it takes nothing", wait_until(lambda: terminal.takes_nothing), True)
    time.sleep(1)
    begin = now()
    run.signal(number)
    run.wait()
    case.expect_code(run, -number)
    case.expect_below("seconds from the signal to the end", run.end - begin, 1)
    terminal.take_again()
    case.expect_identified(case.run(), "the next run")


@named("write-never-answered")
def never_answered(case):
    case.plug(Terminal(handlers={"FW": lambda terminal, payload: None}))
    run = case.run("-w", "-f", "settings", write_file("written.bin", PATTERN[:40000]))
    case.expect_code(run, 255)
    case.expect_ends_after_its_error(run)
    case.expect_below("seconds", run.seconds, 6.5)


@named("first-request-stalls")
def stalls(case):
    """The transfer fails, and the driver drops the request without a word: as lost on the line."""
    terminal = case.plug()
    terminal.stalls = 1
    run = case.run()
    case.expect_code(run, 255)
    case.expect_ends_after_its_error(run)
    case.expect_identified(case.run(), "the next run")
