"""Bytes that wait in the terminal when the port is opened.

The driver's read transfers start when the port is opened, before echo is switched off: what waits is echoed back, a
byte a transfer, until the driver has no buffer left for the first request. No run may end by that."""
import subprocess
import time

from case import ACM0, named, table
from terminal import Terminal, log_record, records
from usbserial import later

FILLER = b"abcdefghijklmno-"
BOOT_TEXT = b"boot ROM 1.0\r\nstarting \x03\x04\x11\x13\x7f ...\r\n" + records(6)


@table("waiting-bytes-{}", [16, 32, 48, 64, 200, 2000])
def waiting_bytes(case, size):
    terminal = case.plug(Terminal(boot_text=(FILLER * 200)[:size]))
    case.expect_identified(case.run())
    case.expect_echo_at_most(terminal)


@table("waiting-records-{}", [1, 2, 3, 4, 40])
def waiting_records(case, count):
    terminal = case.plug(Terminal(boot_text=records(count)))
    case.expect_identified(case.run())
    case.expect_echo_at_most(terminal)


@named("waiting-boot-text")
def boot_text(case):
    """A closed port reads nothing and so echoes nothing."""
    terminal = case.plug(Terminal(boot_text=BOOT_TEXT))
    time.sleep(2)
    case.expect("what the terminal got from the closed port", bytes(terminal.received), b"")
    case.expect("bytes that wait", terminal.waiting(), len(BOOT_TEXT))
    case.expect_identified(case.run())
    case.expect_echo_at_most(terminal)


@table("log-goes-on-at-closed-port-{}-per-s", [1, 20])
def log_at_closed_port(case, rate):
    terminal = case.plug(Terminal(log_rate=rate, log_always=True))
    for number in range(6):
        time.sleep(3)
        case.expect_identified(case.run(), "run %d" % number)
    case.expect_echo_at_most(terminal)


@named("log-goes-on-as-the-run-before-set-it")
def log_goes_on(case):
    """A terminal that does not look at DTR, with the mask that the tool leaves behind."""
    terminal = case.plug(Terminal(log_rate=1))
    for number in range(8):
        case.expect_identified(case.run(), "run %d" % number)
        time.sleep(3)
    case.expect_echo_at_most(terminal)


@named("log-150-per-s")
def fast_log(case):
    terminal = case.plug(Terminal(log_rate=150, log_always=True, forgets_with_dtr=True))
    for number in range(6):
        case.expect_identified(case.run(), "run %d" % number)
        time.sleep(0.2)
    case.expect_echo_at_most(terminal)


class SpeaksAfterDtr(Terminal):
    """Lets go what it has queued some time after DTR rises."""

    def __init__(self, delay, **settings):
        super().__init__(mute_until_dtr=True, **settings)
        self.delay = delay

    def on_dtr(self, up):
        self.says_nothing = True
        if up:
            later(self.delay, self.speak_again)


@table("queued-records-{}-ms-after-dtr", [0, 2, 10])
def queued_until_dtr(case, milliseconds):
    terminal = case.plug(SpeaksAfterDtr(milliseconds / 1000, boot_text=records(20)))
    case.expect_identified(case.run())
    case.expect_echo_at_most(terminal)


class SpeaksAfterFirstRead(Terminal):
    """Lets go what it has queued some time after the driver's first read transfer; DTR rises 1.8 ms after that."""

    def __init__(self, delay, **settings):
        super().__init__(**settings)
        self.delay = delay

    def on_read_transfer(self):
        if len(self.reads) == 1 and not self.dtr and not self.says_nothing:
            self.says_nothing = True
            later(self.delay, self.speak_again)


@table("queued-records-{}-ms-after-the-first-read", [0, 1, 1.5, 2.5, 5])
def queued_until_read(case, milliseconds):
    terminal = case.plug(SpeaksAfterFirstRead(milliseconds / 1000, boot_text=records(20)))
    case.expect_identified(case.run())
    case.expect_echo_at_most(terminal)


@named("half-a-record-waits")
def half_a_record(case):
    """The other half was lost when the terminal's memory was full. With 0 milliseconds none of its bytes is a key: a
    checksum of 03 would be Ctrl+C until the port is set up, and drop what came before it."""
    case.plug(Terminal(boot_text=log_record(b"x" * 300, milliseconds=0)[:64]))
    case.expect_known("exit code of the first run", case.run().code, expected=0, known=255,
                      reason="the body that the half record announces swallows the first answer")
    case.expect_identified(case.run(), "the next run")


@named("echo-switched-off-by-hand")
def echo_switched_off(case):
    """The setting stays until the terminal is unplugged: the tool restores what it found."""
    terminal = case.plug(Terminal(log_rate=20, log_always=True))
    time.sleep(1)
    subprocess.run(["stty", "-F", ACM0, "raw", "-echo"], check=True)
    case.expect_identified(case.run(), "the first run")
    of_the_setting = len(terminal.faults)  # the port was opened for it, with echo
    for number in range(6):
        time.sleep(2)
        case.expect_identified(case.run(), "run %d" % number)
    case.expect("what the terminal got that is no request", terminal.faults[of_the_setting:], [])
