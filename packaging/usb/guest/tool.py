"""A run of the installed tool: what it prints and when, how it ends."""
import os
import pwd
import select
import subprocess
import tempfile
import threading

from usbserial import now

TOOL = "/usr/bin/jvx-loader"
TRACE = {"QT_LOGGING_RULES": "jvx.wire.debug=true"}


def become(user):
    """For a child process: the user's identity and groups, as a login gives them."""
    entry = pwd.getpwnam(user)

    def change():
        os.initgroups(user, entry.pw_gid)
        os.setgid(entry.pw_gid)
        os.setuid(entry.pw_uid)
    return change


class Run:
    """code is the exit code, negative for the signal that ended it and None while it goes on."""

    def __init__(self, options, user=None, environment=None):
        self.options, self.user = options, user
        self.code = self.end = self.cpu = None
        self.chunks = []  # (time, bytes)
        self.more = threading.Condition()
        self.error_file = tempfile.TemporaryFile()
        self.begin = now()
        self.process = subprocess.Popen(
            [TOOL, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self.error_file, cwd="/tmp",
            env=dict(os.environ, LANG="C.UTF-8", **(environment or {})), preexec_fn=become(user) if user else None)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        pipe = self.process.stdout
        while chunk := os.read(pipe.fileno(), 65536):
            with self.more:
                self.chunks.append((now(), chunk))
                self.more.notify_all()
        pipe.close()
        with self.more:
            self.more.notify_all()

    @property
    def output(self):
        return b"".join(chunk for _, chunk in self.chunks).decode("utf-8", "replace")

    @property
    def errors(self):
        self.error_file.seek(0)
        return self.error_file.read().decode("utf-8", "replace")

    @property
    def seconds(self):
        return self.end - self.begin

    def time_of(self, text):
        """When it had printed this text, None if it has not."""
        printed = b""
        for when, chunk in self.chunks:
            printed += chunk
            if text.encode() in printed:
                return when
        return None

    def until(self, text, timeout=100):
        """Waits until it has printed this text. False if it ends before."""
        with self.more:
            self.more.wait_for(lambda: self.time_of(text) or not self.reader.is_alive(), timeout)
        return self.time_of(text) is not None

    def wait(self, timeout=200):
        """Waits for its end, for so many seconds; after that it is killed, and has no code."""
        descriptor = os.pidfd_open(self.process.pid)
        ended = select.select([descriptor], [], [], timeout)[0]
        os.close(descriptor)
        if not ended:
            self.process.kill()
        _, status, usage = os.wait4(self.process.pid, 0)
        self.end = now()
        self.cpu = usage.ru_utime + usage.ru_stime
        self.process.returncode = os.waitstatus_to_exitcode(status)
        self.code = self.process.returncode if ended else None
        self.reader.join(10)
        return self

    def signal(self, number):
        self.process.send_signal(number)

    def lines(self):
        """What a console shows in the end: of a line that was written over, the last state."""
        shown = [line.rstrip("\r").split("\r")[-1] for line in self.output.split("\n")]
        return [line for line in shown if line.strip()]

    def last_line(self):
        return self.lines()[-1] if self.lines() else ""

    def timed(self):
        """Lines as they were printed, with the seconds since the start."""
        return ["%8.3f %r" % (when - self.begin, chunk.decode("utf-8", "replace")) for when, chunk in self.chunks]
