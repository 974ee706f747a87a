"""The terminal: its side of the wire (docs/protocol.md) on a USB serial device made in software."""
import functools
import operator
import struct
import time

from usbserial import SerialDevice, later, now

MAGIC = b"@JVX"
HEADER_SIZE = 16
PIECE = 512
TEXT_LOG_BIT = 1 << 14

IMEI = "350000000000017"

# Keys of requests and their directions. "FR" comes before shorter keys that a body may begin with.
REQUESTS = {b"LOG": b"!", b"FR": b"!", b"FW": b"!", b"FU": b"!", b"V": b"?", b"H": b"?", b"S": b"?"}


def xor(data):
    return functools.reduce(operator.xor, data, 0)


def packet(body):
    header = MAGIC + struct.pack("<IIHB", 1, 0, len(body), xor(body))
    return header + bytes([xor(header)]) + body


def log_record(text, seconds=1790000000, milliseconds=1):
    return packet(b"*>LOG" + struct.pack("<BIHB", 14, seconds, milliseconds, 1) + text)


def records(count):
    return b"".join(log_record(b"message %d\r\n" % number) for number in range(count))


class Terminal(SerialDevice):
    """The settings of the device, and:

    files            kind -> content, for reading
    handlers         key -> function(terminal, payload) that returns the answer, None for silence
    boot_text        bytes that it sends as soon as it is plugged in
    log_rate         log records a second, 0 for none
    log_always       sends them without a mask that asks for them
    restart          (seconds from an apply until it leaves the bus, seconds until it is back), None: it stays
    boot_text_after  boot_text from the restart on
    answers_apply    whether it answers an apply before it restarts
    deaf_after       seconds for which it takes nothing after the restart
    """

    def __init__(self, imei=IMEI, files=None, handlers=None, boot_text=b"", log_rate=0, log_always=False, restart=None,
                 boot_text_after=b"", answers_apply=True, deaf_after=0, **device):
        super().__init__(**device)
        self.imei, self.files, self.handlers = imei, files or {}, handlers or {}
        self.boot_text, self.log_rate, self.log_always = boot_text, log_rate, log_always
        self.restart, self.boot_text_after, self.answers_apply = restart, boot_text_after, answers_apply
        self.deaf_after = deaf_after
        self.faults = []        # what it got that is no request: (time, text)
        self.requests = []      # (time, key)
        self.written = {}       # kind -> content
        self.applied = []       # kinds
        self.mask = 0
        self.masks = []         # all masks that were set
        self.handle = 0
        self.log_count = 0
        self.input = b""
        if log_rate:
            later(1 / log_rate, self._log)

    def retire(self):
        """Unplugged for good: no restart brings it back."""
        self.restart = None
        self.log_rate = 0
        self.detach()

    # -- what it does on its own

    def on_plug(self):
        self.input = b""
        self.mask = 0
        if self.boot_text:
            self.send(self.boot_text)

    def _log(self):
        if not self.log_rate:
            return
        if self.log_always or self.mask & TEXT_LOG_BIT:
            self.log_count += 1
            seconds, fraction = divmod(time.time(), 1)
            text = "#%d log text, München\r\n" % self.log_count
            self.send(log_record(text.encode(), int(seconds), int(fraction * 1000)))
        later(1 / self.log_rate, self._log)

    def _leave(self):
        if self.restart:
            self.detach()
            later(self.restart[1], self._come_back)

    def _come_back(self):
        if not self.restart:
            return
        self.boot_text = self.boot_text_after
        if self.deaf_after:
            self.takes_nothing = True
            later(self.deaf_after, self.take_again)
        self.attach()

    # -- requests

    def fault(self, text):
        self.faults.append((now(), text))
        self.note("fault", text)

    def on_bytes(self, data):
        self.input += data
        while self._take_packet():
            pass

    def _take_packet(self):
        """Takes a packet, or what cannot be one, from the input. False: more has to come."""
        if len(self.input) < HEADER_SIZE:
            return False
        start = self.input.find(MAGIC)
        if start != 0:
            end = start if start > 0 else len(self.input) - len(MAGIC) + 1
            self.fault("bytes outside a packet: %r" % self._take(end))
            return True
        to, sender, length, body_sum, header_sum = struct.unpack("<IIHBB", self.input[4:HEADER_SIZE])
        if xor(self.input[:HEADER_SIZE - 1]) != header_sum:
            self.fault("header checksum: %r" % self.input[:HEADER_SIZE])
            self._take(len(MAGIC))
            return True
        if len(self.input) < HEADER_SIZE + length:
            return False
        body = self._take(HEADER_SIZE + length)[HEADER_SIZE:]
        if (to, sender) != (0, 1):
            self.fault("packet of somebody else: %r" % body[:20])
        elif xor(body) != body_sum:
            self.fault("body checksum: %r" % body[:20])
        else:
            self._take_request(body)
        return True

    def _take(self, length):
        taken, self.input = self.input[:length], self.input[length:]
        return taken

    def _take_request(self, body):
        key = next((key for key, direction in REQUESTS.items() if body.startswith(b"*" + direction + key)), None)
        if key is None:
            self.fault("unknown request: %r" % body[:20])
            return
        name = key.decode()
        self.requests.append((now(), name))
        self.note("request", name)
        payload = body[2 + len(key):]
        if name in self.handlers:
            answer = self.handlers[name](self, payload)
        else:
            answer = self.answer(name, payload)
        if answer is not None:
            direction = {b"?": b"#", b"!": b"@"}[REQUESTS[key]]
            self.note("answer", name)
            self.send(packet(b"*" + direction + key + answer))

    def answer(self, name, payload):
        """The payload of the usual answer, None where there is none."""
        return getattr(self, "_answer_" + name)(payload)

    def _answer_V(self, _):
        return b":JVX terminal:7.1.22:2026-01-02:en"

    def _answer_H(self, _):
        return b":BHR:" + struct.pack("<Q", 0x1A2B3C)

    def _answer_S(self, _):
        return b":" + self.imei.encode()

    def _answer_LOG(self, payload):
        self.mask = struct.unpack("<I", payload)[0]
        self.masks.append(self.mask)
        return payload

    def _next_handle(self, given, offset):
        expected = self.handle if offset else 0
        if given != expected:
            self.fault("handle %#x in place of %#x" % (given, expected))
        self.handle = (self.handle + 0x51000001) & 0xFFFFFFFF
        return self.handle

    def _answer_FR(self, payload):
        kind, handle, offset, _ = struct.unpack("<BIIH", payload)
        content = self.files[kind]
        piece = content[offset:offset + PIECE]
        handle = self._next_handle(handle, offset)
        return b"1" + struct.pack("<BIIHI", kind, handle, offset, len(piece), len(content)) + piece

    def _answer_FW(self, payload):
        kind, handle, offset, length, size = struct.unpack("<BIIHI", payload[:15])
        piece = payload[15:]
        if offset == 0:
            self.written[kind] = bytearray()
        if length != len(piece) or length != min(size - offset, PIECE) or offset != len(self.written[kind]):
            self.fault("piece of %d bytes, %d announced, at %d of %d" % (len(piece), length, offset, size))
        self.written[kind] += piece
        return b"1" + struct.pack("<BIIH", kind, self._next_handle(handle, offset), offset, length)

    def _answer_FU(self, payload):
        kind = payload[0]
        self.applied.append(kind)
        if self.restart:
            later(self.restart[0], self._leave)
        return b"1" + struct.pack("<BI", kind, 0) if self.answers_apply else None
