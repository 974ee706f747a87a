// The terminal of the benchmark: one file in memory, on a pseudo-terminal whose name is all that it prints.
//
//     terminal LATENCY RECORDS FILE
//
// LATENCY: microseconds from a request to its answer. RECORDS: what follows, as records of the text log, as soon as the
// log is enabled. FILE: what a read yields, and what a write has to bring. It serves until it is terminated.

#include "wire.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

typedef struct Terminal {
    int port;
    struct timespec latency;
    uint32_t records;
    Content file;
    size_t taken; // bytes of it that a write has brought, in order
} Terminal;

/// Opens a pseudo-terminal and prints the name of its other side, which stays open: without anybody there a read would
/// fail.
static int publishPort(void)
{
    const int port = posix_openpt(O_RDWR | O_NOCTTY);
    if (port < 0 || grantpt(port) != 0 || unlockpt(port) != 0)
        die("lack of pseudo-terminals");
    makeRaw(open(ptsname(port), O_RDWR | O_NOCTTY));
    puts(ptsname(port));
    fflush(stdout);
    return port;
}

static void waitLatency(const Terminal *terminal)
{
    if (terminal->latency.tv_sec != 0 || terminal->latency.tv_nsec != 0)
        nanosleep(&terminal->latency, NULL);
}

static void answer(const Terminal *terminal, Packet *packet)
{
    waitLatency(terminal);
    sendPacket(terminal->port, packet);
}

static void answerText(const Terminal *terminal, const char *body)
{
    Packet packet;
    beginPacket(&packet, body);
    answer(terminal, &packet);
}

/// Begins the answer to a file request: status, kind, handle, offset, length.
static void beginFileAnswer(Packet *packet, const char *start, uint32_t kind, uint32_t offset, size_t length)
{
    beginPacket(packet, start);
    appendNumber(packet, '1', 1);
    appendNumber(packet, kind, 1);
    appendNumber(packet, 1, 4); // the handle
    appendNumber(packet, offset, 4);
    appendNumber(packet, (uint32_t)length, 2);
}

/// Request: "*!FR", kind (1), handle (4), offset (4), largest piece (2).
static void servePiece(const Terminal *terminal, const Packet *request)
{
    const Content *const file = &terminal->file;
    const uint32_t offset = numberAt(request, 9, 4);
    if (offset > file->size || numberAt(request, 13, 2) != piece_size)
        die("read request");
    const size_t rest = file->size - offset;
    const size_t length = rest < piece_size ? rest : piece_size;
    Packet packet;
    beginFileAnswer(&packet, "*@FR", numberAt(request, 4, 1), offset, length);
    appendNumber(&packet, (uint32_t)file->size, 4);
    appendBytes(&packet, file->bytes + offset, length);
    answer(terminal, &packet);
}

/// Request: "*!FW", kind (1), handle (4), offset (4), length (2), size of the file (4), piece.
static void takePiece(Terminal *terminal, const Packet *request)
{
    const Content *const file = &terminal->file;
    const uint32_t offset = numberAt(request, 9, 4);
    const size_t length = numberAt(request, 13, 2);
    if (numberAt(request, 15, 4) != file->size || offset != terminal->taken || offset + length > file->size
        || memcmp(bytesAt(request, 19, length), file->bytes + offset, length) != 0)
        die("write request");
    terminal->taken += length;
    Packet packet;
    beginFileAnswer(&packet, "*@FW", numberAt(request, 4, 1), offset, length);
    answer(terminal, &packet);
}

/// Record: log (1), seconds (4), milliseconds (2), type (1), text.
static void sendRecord(const Terminal *terminal, uint32_t number)
{
    char text[64];
    const int size = snprintf(text, sizeof text, "#%u supply voltage 12.6 V", number);
    Packet packet;
    beginPacket(&packet, "*>LOG");
    appendNumber(&packet, 14, 1);
    appendNumber(&packet, 1772368000 + number / 1000, 4);
    appendNumber(&packet, number % 1000, 2);
    appendNumber(&packet, 1, 1);
    appendBytes(&packet, text, (size_t)size);
    sendPacket(terminal->port, &packet);
}

/// Request: "*!LOG", mask (4).
static void enableLog(const Terminal *terminal, const Packet *request)
{
    if (terminal->taken != 0 && terminal->taken != terminal->file.size)
        die("end of a write");
    const uint32_t mask = numberAt(request, 5, 4);
    Packet packet;
    beginPacket(&packet, "*@LOG");
    appendNumber(&packet, mask, 4);
    answer(terminal, &packet);
    for (uint32_t number = 0; mask != 0 && number < terminal->records; ++number)
        sendRecord(terminal, number);
}

static void serve(Terminal *terminal, const Packet *request)
{
    if (startsWith(request, "*!FR"))
        servePiece(terminal, request);
    else if (startsWith(request, "*!FW"))
        takePiece(terminal, request);
    else if (startsWith(request, "*!LOG"))
        enableLog(terminal, request);
    else if (startsWith(request, "*?V"))
        answerText(terminal, "*#V:Benchmark:1:2026-03-01:en");
    else if (startsWith(request, "*?H"))
        answerText(terminal, "*#H:BHR:12345678");
    else if (startsWith(request, "*?S"))
        answerText(terminal, "*#S:350000000000017");
    else
        die("request");
}

int main(int argc, char *argv[])
{
    if (argc != 4)
        die("number of arguments");
    const long latency = atol(argv[1]);
    Terminal terminal = {
        .latency = {latency / 1000000, latency % 1000000 * 1000},
        .records = (uint32_t)atol(argv[2]),
        .file = loadFile(argv[3]),
    };
    prctl(PR_SET_TIMERSLACK, 1UL); // a sleep may take 50 microseconds longer otherwise
    terminal.port = publishPort();
    for (;;) {
        Packet request;
        receivePacket(terminal.port, &request, wait_for_ever);
        serve(&terminal, &request);
    }
}
