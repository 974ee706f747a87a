// A minimal client: sends the requests of one run of the tool, with poll, read and write, and prints nothing.
//
//     client PORT read|write FILE

#include "wire.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum {
    kind = 11,
    answer_timeout = 5000, // ms
};

/// Sends \a packet and replaces it with the answer to it.
static void exchange(int port, Packet *packet, const char *answer_start)
{
    sendPacket(port, packet);
    receivePacket(port, packet, answer_timeout);
    if (!startsWith(packet, answer_start))
        die("answer");
}

static void ask(int port, const char *request, const char *answer_start)
{
    Packet packet;
    beginPacket(&packet, request);
    exchange(port, &packet, answer_start);
}

/// Begins a request for a piece: kind, handle, offset, length.
static void beginFileRequest(Packet *packet, const char *start, uint32_t handle, size_t offset, size_t length)
{
    beginPacket(packet, start);
    appendNumber(packet, kind, 1);
    appendNumber(packet, handle, 4);
    appendNumber(packet, (uint32_t)offset, 4);
    appendNumber(packet, (uint32_t)length, 2);
}

/// Answer: "*@FR1", kind (1), handle (4), offset (4), length (2), size of the file (4), piece.
static Content readFile(int port)
{
    Content file = {NULL, 0};
    uint32_t handle = 0;
    size_t full_size = 0;
    do {
        Packet packet;
        beginFileRequest(&packet, "*!FR", handle, file.size, piece_size);
        exchange(port, &packet, "*@FR1");
        handle = numberAt(&packet, 6, 4);
        full_size = numberAt(&packet, 16, 4);
        const size_t length = numberAt(&packet, 14, 2);
        if (!file.bytes)
            file.bytes = malloc(full_size + 1);
        if (!file.bytes || file.size + length > full_size || (length == 0 && full_size != 0))
            die("piece");
        memcpy(file.bytes + file.size, bytesAt(&packet, 20, length), length);
        file.size += length;
    } while (file.size < full_size);
    return file;
}

/// Answer: "*@FW1", kind (1), handle (4), offset (4), length (2).
static void writeFile(int port, Content file)
{
    uint32_t handle = 0;
    size_t offset = 0;
    do {
        const size_t rest = file.size - offset;
        const size_t length = rest < piece_size ? rest : piece_size;
        Packet packet;
        beginFileRequest(&packet, "*!FW", handle, offset, length);
        appendNumber(&packet, (uint32_t)file.size, 4);
        appendBytes(&packet, file.bytes + offset, length);
        exchange(port, &packet, "*@FW1");
        handle = numberAt(&packet, 6, 4);
        offset = numberAt(&packet, 10, 4) + numberAt(&packet, 14, 2);
    } while (offset < file.size);
}

static void saveFile(const char *path, Content content)
{
    FILE *const file = fopen(path, "wb");
    if (!file || fwrite(content.bytes, 1, content.size, file) != content.size || fclose(file) != 0)
        die("file that cannot be written");
}

static void setLogMask(int port)
{
    Packet packet;
    beginPacket(&packet, "*!LOG");
    appendNumber(&packet, 0x4000, 4);
    exchange(port, &packet, "*@LOG");
}

int main(int argc, char *argv[])
{
    if (argc != 4)
        die("number of arguments");
    const int port = open(argv[1], O_RDWR | O_NOCTTY);
    makeRaw(port);
    ask(port, "*?V", "*#V:");
    ask(port, "*?H", "*#H:");
    ask(port, "*?S", "*#S:");
    if (strcmp(argv[2], "read") == 0)
        saveFile(argv[3], readFile(port));
    else
        writeFile(port, loadFile(argv[3]));
    setLogMask(port);
    return 0;
}
