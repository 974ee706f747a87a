"""The trace of the wire holds what the driver passed on."""
from case import named, write_file
from cases.unplugging import pull_at
from terminal import Terminal
from tool import TRACE

CONTENT = b"123456789"


@named("trace-of-a-restart")
def restart(case):
    terminal = case.plug(Terminal(restart=(0.05, 3)))
    run = case.run("-w", "-a", "-f", "keys", write_file("keys.bin", CONTENT), environment=TRACE)
    case.expect_code(run, 0)
    sent = [line.split(" B: ")[1] for line in run.errors.splitlines() if " sent " in line]
    case.expect("what was traced", b"".join(map(bytes.fromhex, sent)), bytes(terminal.received))
    case.expect("openings traced", run.errors.count(" opened"), 2)
    case.expect("closings traced", run.errors.count(" closed"), 2)


@named("trace-of-an-unplugged-read")
def unplugged(case):
    case.plug(Terminal(files={0: CONTENT * 500}, handlers=pull_at("FR", 3)))
    run = case.run("-r", "-f", "settings", write_file("kept.bin", b""), environment=TRACE)
    case.expect_code(run, 146)
    case.expect("pieces asked for", run.errors.count(" sent !FR"), 3)
