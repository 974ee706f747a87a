"""The cable is pulled, in every phase of a run."""
from case import PATTERN, named, read_file, table, write_file
from terminal import Terminal
from usbserial import later, now

OLD = b"what was there before"


def pull_at(key, number, delay=None):
    """A handler that pulls the cable in place of the answer to this request, or so long after it."""
    count = 0

    def pull(terminal):
        terminal.pulled = now()
        terminal.detach()

    def handle(terminal, payload):
        nonlocal count
        count += 1
        if count != number:
            return terminal.answer(key, payload)
        if delay is None:
            pull(terminal)
            return None
        later(delay, pull, terminal)
        return terminal.answer(key, payload)
    return {key: handle}


READ = ["-r", "-f", "settings", "/tmp/kept.bin"]
WRITE = ["-w", "-f", "settings", "/tmp/written.bin"]

PHASES = [
    # name, request, its number, seconds after it (None: in place of the answer), options
    ("first-request", "V", 1, None, []),
    ("identification", "S", 1, None, []),
    ("first-piece-of-a-read", "FR", 1, None, READ),
    ("read", "FR", 300, None, READ),
    ("first-piece-of-a-write", "FW", 1, None, WRITE),
    ("write", "FW", 300, None, WRITE),
    ("write-between-pieces", "FW", 300, 0.002, WRITE),
    ("apply", "FU", 1, None, WRITE + ["-a"]),
    ("log-mask", "LOG", 1, None, []),
    ("begin-of-a-monitor", "LOG", 1, None, ["-m"]),
    ("monitor", "LOG", 1, 3, ["-m"]),
    ("mask-after-a-restart", "LOG", 1, None, WRITE + ["-a"]),
    ("monitor-after-a-restart", "LOG", 1, 3, WRITE + ["-a", "-m"]),
]


@table("unplugged-{}", PHASES)
def unplugged(case, _, key, number, delay, options):
    write_file("written.bin", PATTERN[:200000])
    kept = write_file("kept.bin", OLD)
    terminal = case.plug(Terminal(files={0: PATTERN[:200000]}, handlers=pull_at(key, number, delay), log_rate=20,
                                  restart=(0.05, 4)))
    run = case.start(*options).wait(timeout=30)
    terminal.restart = None
    case.expect_code(run, 146)
    case.expect_below("seconds from the pull to the end", run.end - terminal.pulled, 1)
    case.expect_ends_after_its_error(run)
    case.expect_below("seconds of the processor", run.cpu, 1)
    case.expect("the local file", read_file(kept), OLD)
    case.expect_no_locks()


@table("unplugged-{}-s-after-the-apply", [1, 20])
def unplugged_while_it_waits(case, seconds):
    """While it waits the port is closed, and the terminal may be away; the run ends when its patience does. Without the
    terminal it counts down by then (20)."""
    terminal = case.plug(Terminal(restart=(0.05, 1000)))
    run = case.start("-w", "-a", "-f", "settings", write_file("written.bin", PATTERN[:600]))
    case.expect("it waits", run.until("Waiting device"), True)
    later(seconds, terminal.retire)
    run.wait()
    case.expect_code(run, 144)
    case.expect("lines \"Error:\"", run.output.count("Error:"), 1)
    case.expect_below("seconds of the processor", run.cpu, 1)
    case.expect_no_locks()


@named("unplugged-while-it-takes-nothing")
def unplugged_while_it_takes_nothing(case):
    terminal = case.plug()
    terminal.takes_nothing = True
    run = case.start()
    case.expect("it asks", run.until("Checking device"), True)
    later(0.2, terminal.detach)
    begin = now()
    run.wait()
    case.expect_code(run, 146)
    case.expect_below("seconds to the end", run.end - begin, 1.2)
    case.expect_ends_after_its_error(run)
