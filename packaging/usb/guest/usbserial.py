"""A USB serial device (CDC-ACM) made in software.

attach() hands one end of a pair of sockets to the kernel's virtual host controller (vhci_hcd), which talks USB/IP on
it; the kernel's own cdc_acm then binds to the device. Nothing else is needed, no network and no tools of USB/IP.
"""
import collections
import heapq
import itertools
import socket
import struct
import threading
import time

now = time.monotonic

VIRTUAL_CONTROLLER = "/sys/devices/platform/vhci_hcd.0"

# USB/IP commands, and the errors that it reports as negative numbers of Linux.
SUBMIT, UNLINK, SUBMITTED, UNLINKED = 1, 2, 3, 4
BROKEN_PIPE, CONNECTION_RESET = -32, -104

CONTROL, DATA_OUT, DATA_IN, NOTIFICATION = range(4)  # numbers of the endpoints


class Later:
    """Calls functions at their time, one after the other, in a thread of its own."""

    def __init__(self):
        self.calls = []
        self.order = itertools.count()
        self.changed = threading.Condition()
        threading.Thread(target=self._work, daemon=True).start()

    def __call__(self, delay, function, *arguments):
        with self.changed:
            heapq.heappush(self.calls, (now() + delay, next(self.order), function, arguments))
            self.changed.notify()

    def _work(self):
        while True:
            with self.changed:
                while not self.calls or self.calls[0][0] > now():
                    self.changed.wait(self.calls[0][0] - now() if self.calls else None)
                _, _, function, arguments = heapq.heappop(self.calls)
            function(*arguments)


later = Later()


class SerialDevice:
    """What is plugged in. A subclass says what it makes of received bytes (on_bytes) and of being plugged in (on_plug).

    socket            number of the socket of the virtual controller
    memory            how many bytes it keeps while nobody reads them
    mute_until_dtr    sends nothing while DTR is low
    forgets_with_dtr  drops what is not sent yet when DTR falls
    empty_packets     ends a message that fills its last packet with an empty one
    protocol          of the interface: 1 says that it takes the commands of a modem
    taking_time       seconds until it takes what it is sent
    """

    def __init__(self, serial="SN1", vendor=0x03EB, product=0x6124, socket=0, high_speed=False, name="JVX terminal",
                 maker="JVX", memory=4096, mute_until_dtr=False, forgets_with_dtr=False, empty_packets=False,
                 protocol=1, taking_time=0):
        self.serial, self.vendor, self.product, self.name, self.maker = serial, vendor, product, name, maker
        self.socket, self.high_speed, self.protocol = socket, high_speed, protocol
        self.memory, self.mute_until_dtr, self.forgets_with_dtr = memory, mute_until_dtr, forgets_with_dtr
        self.empty_packets, self.taking_time = empty_packets, taking_time
        self.lock = threading.RLock()
        self.cable = None
        self.events = []              # (time, what, detail)
        self.received = bytearray()   # all that the computer sent
        self.takes_nothing = False    # leaves what it is sent on the line
        self.says_nothing = False     # keeps what it has to send
        self.stalls = 0               # answers so many transfers with an error
        self._reset()

    def _reset(self):
        self.to_send = collections.deque()      # messages: a bytearray each
        self.reads = collections.deque()        # transfers that wait: (sequence number, length)
        self.notifications = collections.deque()
        self.writes = collections.deque()       # transfers that are not taken: (sequence number, data)
        self.dtr = False
        self.line_coding = struct.pack("<IBBB", 9600, 0, 0, 8)

    def note(self, what, detail=""):
        self.events.append((now(), what, detail))

    def story(self):
        """What happened, with the seconds since the first; a line for all that is the same."""
        lines = []
        for event, same in itertools.groupby(self.events, key=lambda event: event[1:]):
            times = [when - self.events[0][0] for when, _, _ in same]
            many = ", %d times until %.3f" % (len(times), times[-1]) if len(times) > 1 else ""
            lines.append("%8.3f %s %s%s" % (times[0], *event, many))
        return lines

    def on_bytes(self, data):
        pass

    def on_plug(self):
        pass

    def on_dtr(self, up):
        pass

    # -- the cable

    def attach(self):
        with self.lock:
            self._reset()
            self.cable, far_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
            for end in (self.cable, far_end):
                end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 20)
            self._plug_in(far_end)
            far_end.close()
            self.note("plugged in", self.serial)
            threading.Thread(target=self._serve, args=(self.cable,), daemon=True).start()
        self.on_plug()

    def _plug_in(self, far_end):
        """The socket of the controller is free only some time after a device has left it."""
        usb_speed = 3 if self.high_speed else 2
        device_number = 0x10000 + self.socket + 1
        request = "%d %d %d %d" % (self.socket, far_end.fileno(), device_number, usb_speed)
        give_up = now() + 10
        while True:
            try:
                with open(VIRTUAL_CONTROLLER + "/attach", "w") as file:
                    file.write(request)
                return
            except OSError:
                if now() > give_up:
                    raise
                time.sleep(0.01)

    def detach(self):
        with self.lock:
            cable, self.cable = self.cable, None
            if cable is None:
                return
            self.note("unplugged")
            self._reset()
            try:
                cable.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # the kernel was faster
            cable.close()

    # -- USB/IP

    def _serve(self, cable):
        try:
            while True:
                header = receive(cable, 48)
                command, sequence, _, to_computer, endpoint = struct.unpack(">5I", header[:20])
                if command == SUBMIT:
                    length = struct.unpack(">i", header[24:28])[0]
                    data = b"" if to_computer else receive(cable, length)
                    with self.lock:
                        if self.cable is cable:
                            self._submitted(sequence, endpoint, length, header[40:48], data)
                elif command == UNLINK:
                    with self.lock:
                        if self.cable is cable:
                            self._unlink(sequence, struct.unpack(">I", header[20:24])[0])
        except (EOFError, OSError):
            with self.lock:
                if self.cable is cable:
                    self.note("the computer has dropped the device")
                    self.cable = None

    def _complete(self, sequence, status=0, length=0, data=b""):
        self._reply(struct.pack(">5Iiiiii8x", SUBMITTED, sequence, 0, 0, 0, status, length, 0, 0, 0) + data)

    def _unlink(self, sequence, victim):
        found = 0
        for queue in (self.reads, self.notifications, self.writes):
            for transfer in [transfer for transfer in queue if transfer[0] == victim]:
                queue.remove(transfer)
                found = CONNECTION_RESET
                if queue is self.writes:
                    self.note("the computer takes back", "%d bytes" % len(transfer[1]))
        self._reply(struct.pack(">5Ii24x", UNLINKED, sequence, 0, 0, 0, found))

    def _reply(self, packet):
        try:
            self.cable.sendall(packet)
        except OSError:
            pass  # unplugged; the thread that serves the cable will see it

    def _submitted(self, sequence, endpoint, length, setup, data):
        if endpoint == CONTROL:
            self._control(sequence, setup, data)
        elif endpoint == DATA_OUT:
            self.note("sent", "%d bytes" % len(data))
            self._out(sequence, data)
        elif endpoint == DATA_IN:
            self.reads.append((sequence, length))
            self.on_read_transfer()
            self.pump()
        else:
            self.notifications.append((sequence, length))

    def on_read_transfer(self):
        pass

    # -- data

    def _out(self, sequence, data):
        if self.stalls:
            self.stalls -= 1
            self._complete(sequence, BROKEN_PIPE)
            return
        self.writes.append((sequence, data))
        if self.taking_time:
            later(self.taking_time, self._take_written)
        elif not self.takes_nothing:
            self._take_written()

    def _take_written(self):
        with self.lock:
            while self.writes:
                sequence, data = self.writes.popleft()
                self._complete(sequence, 0, len(data))
                self.received += data
                self.on_bytes(data)

    def take_again(self):
        """Takes what was left on the line, and what comes."""
        with self.lock:
            self.takes_nothing = False
            self._take_written()

    def speak_again(self):
        with self.lock:
            self.says_nothing = False
            self.pump()

    def send(self, data):
        with self.lock:
            if self.cable is None:
                return
            if not self.reads and self.waiting() + len(data) > self.memory:
                return  # lost, as nobody reads
            self.to_send.append(bytearray(data))
            self.pump()

    def waiting(self):
        return sum(map(len, self.to_send))

    def pump(self):
        """Fills read transfers. A message ends with a short packet; one that fills its packet may get an empty one."""
        if self.says_nothing or (self.mute_until_dtr and not self.dtr):
            return
        while self.to_send and self.reads:
            sequence, length = self.reads.popleft()
            message = self.to_send[0]
            part = bytes(message[:length])
            del message[:length]
            if not message and not (self.empty_packets and len(part) == length):
                self.to_send.popleft()
            self._complete(sequence, 0, len(part), part)

    # -- control requests

    def _control(self, sequence, setup, data):
        kind, request, value, _, length = struct.unpack("<BBHHH", setup)
        answer = b""
        if (kind, request) == (0x80, 6):
            answer = self._descriptor(value >> 8, value & 255)
        elif kind & 0xE0 == 0x80 and request == 0:  # status: powered by itself, nothing halted
            answer = b"\1\0" if kind == 0x80 else b"\0\0"
        elif (kind, request) == (0xA1, 0x21):
            answer = self.line_coding
        elif (kind, request) == (0x21, 0x20):
            self.line_coding = data
        elif (kind, request) == (0x21, 0x22):
            self._control_lines(dtr=bool(value & 1))
        elif kind & 0x80:
            answer = None  # not known to simple devices
        if answer is None:
            self._complete(sequence, BROKEN_PIPE)
        elif kind & 0x80:
            self._complete(sequence, 0, len(answer[:length]), answer[:length])
        else:
            self._complete(sequence, 0, len(data))
        self.pump()

    def _control_lines(self, dtr):
        if dtr == self.dtr:
            return
        self.dtr = dtr
        self.note("DTR", "up" if dtr else "down")
        if not dtr and self.forgets_with_dtr:
            self.to_send.clear()
        self.on_dtr(dtr)

    def _descriptor(self, kind, index):
        """A descriptor of USB 2.0, chapter 9; those of the class are of CDC 1.2 and PSTN 1.2."""
        if kind == 1:
            version = 0x200 if self.high_speed else 0x110
            return struct.pack("<BBHBBBBHHHBBBB", 18, 1, version, 2, 0, 0, 64, self.vendor, self.product, 0x100,
                               1, 2, 3, 1)
        if kind == 2:
            return self._configuration()
        if kind == 3:
            return self._text(index)
        if kind == 6 and self.high_speed:
            return struct.pack("<BBHBBBBBB", 10, 6, 0x200, 2, 0, 0, 64, 1, 0)
        return None

    def _configuration(self):
        packet = 512 if self.high_speed else 64
        interval = 7 if self.high_speed else 10
        rest = struct.pack("<9B", 9, 4, 0, 0, 1, 2, 2, self.protocol, 0)
        rest += bytes([5, 0x24, 0, 0x10, 1, 5, 0x24, 1, 0, 1, 4, 0x24, 2, 2, 5, 0x24, 6, 0, 1])
        rest += struct.pack("<BBBBHB", 7, 5, 0x80 | NOTIFICATION, 3, 16, interval)
        rest += struct.pack("<9B", 9, 4, 1, 0, 2, 10, 0, 0, 0)
        rest += struct.pack("<BBBBHB", 7, 5, DATA_OUT, 2, packet, 0)
        rest += struct.pack("<BBBBHB", 7, 5, 0x80 | DATA_IN, 2, packet, 0)
        return struct.pack("<BBHBBBBB", 9, 2, 9 + len(rest), 2, 1, 0, 0xC0, 50) + rest

    def _text(self, index):
        if index == 0:
            return b"\x04\x03\x09\x04"  # American English
        text = {1: self.maker, 2: self.name, 3: self.serial}.get(index)
        if text is None:
            return None
        encoded = text.encode("utf-16le")
        return bytes([2 + len(encoded), 3]) + encoded


def receive(cable, length):
    data = bytearray()
    while len(data) < length:
        part = cable.recv(length - len(data))
        if not part:
            raise EOFError
        data += part
    return bytes(data)
