"""Opening: how the port is named and found, and the line that says that somebody listens."""
from case import ACM0, BY_PATH, by_id, named, table
from terminal import Terminal


@named("no-terminal")
def no_terminal(case):
    run = case.run()
    case.expect_code(run, 153)
    case.expect_text("output", run.output, "Serial port is not selected")


@table("identification-{}", [("by-discovery",), ("by-name", "ttyACM0"), ("by-device", ACM0), ("by-id", by_id()),
                             ("by-path", BY_PATH)])
def identification(case, _, port=None):
    terminal = case.plug()
    run = case.run(*(["-p", port] if port else []))
    case.expect_identified(run)
    case.expect_no_faults(terminal)
    case.expect_no_locks()


@named("identification-high-speed")
def high_speed(case):
    terminal = case.plug(Terminal(high_speed=True))
    case.expect_identified(case.run())
    case.expect_no_faults(terminal)


@named("dtr-is-up-before-the-first-request")
def dtr(case):
    terminal = case.plug()
    case.expect_identified(case.run())
    seen = [(what, detail) for _, what, detail in terminal.events if what in ("DTR", "request")]
    case.expect("first event", seen[0], ("DTR", "up"))
    case.expect("last event", seen[-1], ("DTR", "down"))


@named("mute-until-dtr")
def mute_until_dtr(case):
    case.plug(Terminal(mute_until_dtr=True))
    case.expect_identified(case.run())
