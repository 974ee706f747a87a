"""Transfers: whole files, as USB may cut them, and what a monitor costs."""
import signal
import time

from case import PATTERN, named, read_file, table, write_file
from terminal import Terminal

SETTINGS = 0


class SendsSmallPackets(Terminal):
    """Sends in packets of 1, 8, 15 ... bytes."""

    def send(self, data):
        begin, size = 0, 1
        while begin < len(data):
            super().send(data[begin:begin + size])
            begin += size
            size = size % 63 + 7


TERMINALS = {
    "1-mib": lambda: Terminal(files={SETTINGS: PATTERN}),
    "small-packets": lambda: SendsSmallPackets(files={SETTINGS: PATTERN[:20000]}, memory=1 << 20),
    "empty-packets": lambda: Terminal(files={SETTINGS: PATTERN[:20000]}, empty_packets=True),
    "slowly-taken": lambda: Terminal(files={SETTINGS: PATTERN[:5000]}, taking_time=0.4),
}


@table("read-{}", ["1-mib", "small-packets", "empty-packets"])
def read(case, kind):
    terminal = case.plug(TERMINALS[kind]())
    path = write_file("read.bin", b"")
    run = case.run("-r", "-f", "settings", path)
    case.expect_code(run, 0)
    case.expect("the file is the terminal's", read_file(path) == terminal.files[SETTINGS], True)
    case.expect_no_faults(terminal)
    case.remark("%.0f KiB/s" % (len(terminal.files[SETTINGS]) / 1024 / run.seconds))


@table("write-{}", TERMINALS)
def write(case, kind):
    terminal = case.plug(TERMINALS[kind]())
    content = terminal.files[SETTINGS]
    run = case.run("-w", "-f", "settings", write_file("written.bin", content))
    case.expect_code(run, 0)
    case.expect("the terminal's file is the one written", bytes(terminal.written[SETTINGS]) == content, True)
    case.expect_no_faults(terminal)
    case.remark("%.0f KiB/s" % (len(content) / 1024 / run.seconds))


@named("monitor-30-s")
def monitor(case):
    case.plug(Terminal(log_rate=2))
    run = case.start("-m")
    time.sleep(30)
    run.signal(signal.SIGTERM)
    run.wait()
    case.expect_code(run, -signal.SIGTERM)
    case.expect("log records shown, at least 58", run.output.count("log text") >= 58, True)
    case.expect_below("seconds of the processor", run.cpu, 1)
