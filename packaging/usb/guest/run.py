#!/usr/bin/env python3
"""Runs cases, all of them or those that are named by their own name or their group's: a line for each, and below a case
that failed what was expected and what came. With --list it only prints the names."""
import argparse
import importlib
import os
import sys
import time
import traceback

import case

GROUPS = ["opening", "waiting_bytes", "transfers", "restarts", "unplugging", "several_terminals", "rights",
          "takes_nothing", "signals", "trace"]


def selected(names):
    for group in GROUPS:
        importlib.import_module("cases." + group)
    known = {listed.name for listed in case.listed} | {listed.group for listed in case.listed}
    unknown = [name for name in names if name not in known]
    if unknown:
        sys.exit("No such case or group: " + ", ".join(unknown))
    return [listed for listed in case.listed if not names or listed.name in names or listed.group in names]


def tried(listed):
    """A case that has run; what goes wrong in the case itself is a failure too."""
    running = case.Case()
    for step in (lambda: listed.function(running, *listed.arguments), running.clean_up):
        try:
            step()
        except Exception:
            running.failures.append("the case breaks off: " + traceback.format_exc())
    return running


def details(running):
    """What helps to find the fault: all runs and terminals, the ends of what they did."""
    for run in running.runs:
        yield "run %s: code %s, %.2f s, %.2f s of the processor" % (
            " ".join(run.options), run.code, run.seconds, run.cpu)
        yield from run.timed()[-25:]
        yield from run.errors.splitlines()[-25:]
    for terminal in running.terminals:
        yield "terminal %s" % terminal.serial
        yield from terminal.story()[-40:]


def report(listed, running, seconds):
    verdict = "FAILED" if running.failures else "known" if running.known else "ok"
    remarks = "; ".join(running.known + running.remarks)
    print("%-6s %s (%.1f s)%s" % (verdict, listed.name, seconds, ": " + remarks if remarks else ""))
    if running.failures:
        for line in running.failures + list(details(running)):
            print("       | " + line.replace("\r", "\\r").replace("\n", "\n       | "))
    sys.stdout.flush()
    return verdict


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--list", action="store_true")
    parser.add_argument("names", nargs="*")
    options = parser.parse_args()
    cases = selected(options.names)
    if options.list:
        print("\n".join(listed.name for listed in cases))
        return
    os.umask(0o022)
    for listed in cases:
        begin = time.monotonic()
        running = tried(listed)
        report(listed, running, time.monotonic() - begin)


main()
