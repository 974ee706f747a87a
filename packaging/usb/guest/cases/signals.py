"""Signals in each phase of a run, and two runs on one port."""
import signal
import time

from case import ACM0, PATTERN, by_id, locks, named, read_file, table, wait_until, write_file
from terminal import Terminal

OLD = b"what was there before"

WRITE = ["-w", "-f", "settings", "/tmp/written.bin"]

PHASES = {
    # phase: options, what it has printed by then
    "identification": ([], "Checking"),
    "read": (["-r", "-f", "settings", "/tmp/kept.bin"], "% completed (1"),
    "write": (WRITE, "% completed (1"),
    "waiting": (WRITE + ["-a"], "Waiting device"),
    "countdown": (WRITE + ["-a"], "58 secs"),
    "monitor": (["-m"], "log text"),
}


@table("{}-{}", [(name, phase) for name in ("SIGINT", "SIGHUP", "SIGTERM") for phase in PHASES])
def ended_by_a_signal(case, name, phase):
    number = signal.Signals[name]
    options, mark = PHASES[phase]
    write_file("written.bin", PATTERN[:600] if "-a" in options else PATTERN[:200000])
    kept = write_file("kept.bin", OLD)
    silent = {"V": lambda terminal, payload: None} if phase == "identification" else {}
    terminal = case.plug(Terminal(files={0: PATTERN[:200000]}, handlers=silent, restart=(0.05, 30), log_rate=10))
    run = case.start(*options)
    case.expect("it gets there", run.until(mark), True)
    sent = time.monotonic()
    run.signal(number)
    run.wait()
    case.expect_code(run, -number)
    case.expect_below("seconds from the signal to the end", run.end - sent, 0.5)
    case.expect("the local file", read_file(kept), OLD)
    case.expect("it is on the bus again", wait_until(lambda: terminal.cable is not None, 60), True)
    case.unplug_all()
    terminal.handlers = {}
    case.plug(terminal)
    case.expect_identified(case.run(), "the next run")


def watched(case, user):
    """A monitor on the port that shows its first records."""
    monitor = case.start("-m", "-p", ACM0, user=user)
    case.expect("the monitor shows the log", monitor.until("log text"), True)
    return monitor


def expect_goes_on(case, monitor):
    shown = monitor.output.count("log text")
    time.sleep(1)
    case.expect("the monitor goes on", monitor.output.count("log text") > shown, True)


@table("second-run-of-a-user-{}", [("by-device", ACM0, "Permission error while locking the device"),
                                   ("by-id", by_id(), "Device or resource busy")])
def second_run(case, _, port, text):
    case.plug(Terminal(log_rate=10))
    monitor = watched(case, "dial")
    run = case.run("-p", port, user="dial")
    case.expect_code(run, 151)
    case.expect_text("output", run.output, text)
    expect_goes_on(case, monitor)


@named("second-run-of-root-by-id")
def second_run_of_root(case):
    case.plug(Terminal(log_rate=10))
    monitor = watched(case, None)
    run = case.run("-p", by_id())
    case.expect_known("exit code", run.code, expected=151, known=255,
                      reason="the other name has another lock, the exclusive claim does not bind root, "
                             "and one of the two reads each answer")
    expect_goes_on(case, monitor)


@named("lock-of-an-interrupted-run-of-root")
def lock_of_root(case):
    """Root's next run takes it over."""
    case.plug()
    run = case.start("-m")
    case.expect("it identifies", run.until("IMEI"), True)
    time.sleep(0.3)
    run.signal(signal.SIGINT)
    run.wait()
    case.expect("locks", locks(), ["LCK..ttyACM0"])
    other = case.run(user="dial")
    case.expect_known("exit code of another user's run", other.code, expected=0, known=151,
                      reason="only its owner may remove a lock in the sticky folder")
    case.expect_identified(case.run(), "root's next run")
    case.expect_no_locks()
    case.expect_identified(case.run(user="dial"), "the other user's next run")
