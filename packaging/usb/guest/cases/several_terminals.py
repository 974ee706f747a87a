"""Several terminals, other devices, and names that change."""
import contextlib
import os

from case import ACM0, ACM1, ACM2, PATTERN, by_id, named, ports, table, write_file
from terminal import Terminal

IMEI_B = "350000000000025"


def plug_two(case, **settings):
    return (case.plug(Terminal(serial="SNA", **settings)),
            case.plug(Terminal(serial="SNB", imei=IMEI_B, socket=1, **settings), ACM1))


def written_file():
    return write_file("written.bin", PATTERN[:100000])


@named("two-terminals-and-no-display")
def no_display(case):
    plug_two(case)
    run = case.run()
    case.expect_code(run, 153)
    case.expect_text("output", run.output, "Select device serial port: ttyACM0, ttyACM1")


@named("two-terminals-by-id")
def each_by_id(case):
    first, second = plug_two(case)
    for terminal in (first, second):
        run = case.run("-p", by_id(terminal.serial))
        case.expect_code(run, 0)
        case.expect_text("output", run.output, terminal.imei)


@named("two-restarts-at-once-by-id")
def both_restart(case):
    terminals = plug_two(case, restart=(0.05, 4))
    path = written_file()
    runs = [case.start("-p", by_id(terminal.serial), "-w", "-a", "-f", "settings", path) for terminal in terminals]
    for run, terminal in zip(runs, terminals):
        case.expect_code(run.wait(), 0)
        case.expect("the terminal's file is the one written", bytes(terminal.written[0]) == PATTERN[:100000], True)
        case.expect("kinds applied", terminal.applied, [0])


@named("two-restarts-at-once-by-plain-names")
def names_are_swapped(case):
    """The terminal of the second run is back first, as ttyACM0."""
    terminals = plug_two(case)
    terminals[0].restart, terminals[1].restart = (0.05, 5), (0.05, 3)
    path = written_file()
    masks = ["4001", "4002"]
    runs = [case.start("-p", port, "-l", mask, "-w", "-a", "-f", "settings", path)
            for port, mask in zip(("ttyACM0", "ttyACM1"), masks)]
    for run in runs:
        case.expect_code(run.wait(), 0)
    case.expect_known("masks of the two", [["%x" % mask for mask in terminal.masks] for terminal in terminals],
                      expected=[["4001"], ["4002"]], known=[["4002"], ["4001"]],
                      reason="terminals that restart together swap their plain names")


@named("other-devices-are-left-alone")
def other_devices(case):
    """One has another vendor, one another product."""
    others = (case.plug(Terminal(serial="X1", vendor=0x1234, maker="Other", name="Modem")),
              case.plug(Terminal(serial="X2", product=0x2044, maker="Other", name="Board", socket=2), ACM1))
    case.expect_code(case.run(), 153)
    case.plug(Terminal(serial="SN1", socket=1), ACM2)
    run = case.run()
    case.expect_identified(run)
    case.expect_text("output", run.output, "Serial port open: ttyACM2")
    for other in others:
        case.expect("what the other one got", bytes(other.received), b"")


@contextlib.contextmanager
def held_open(path):
    descriptor = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
    try:
        yield
    finally:
        os.close(descriptor)


@table("old-port-held-open-{}", [("by-id", by_id(), 0), ("by-name", "ttyACM0", 144), ("by-discovery", None, 144)])
def held_over_a_restart(case, _, port, code):
    """Another program keeps the port open over the restart, so that the terminal comes back as ttyACM1: only a name
    that lasts leads to it."""
    terminal = case.plug(Terminal(restart=(0.05, 4)))
    with held_open(ACM0):
        run = case.run(*(["-p", port] if port else []), "-w", "-a", "-f", "settings", written_file())
        case.expect("ports", ports(), ["ttyACM1"])
        terminal.retire()
    case.expect_code(run, code)
