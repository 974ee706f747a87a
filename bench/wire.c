#include "wire.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

enum {
    length_offset = 12,
    body_sum_offset = 14,
    header_sum_offset = 15,
};

static const unsigned char magic[] = {'@', 'J', 'V', 'X'};

void die(const char *was)
{
    fprintf(stderr, "unexpected: %s\n", was);
    exit(1);
}

static unsigned char exclusiveOr(const unsigned char *bytes, size_t size)
{
    unsigned char sum = 0;
    for (size_t i = 0; i < size; ++i)
        sum ^= bytes[i];
    return sum;
}

static size_t bodySize(const Packet *packet)
{
    return packet->bytes[length_offset] + 256U * packet->bytes[length_offset + 1];
}

void beginPacket(Packet *packet, const char *start)
{
    packet->size = 0;
    appendBytes(packet, magic, sizeof magic);
    appendNumber(packet, 0, 4);
    appendNumber(packet, 1, 4);
    appendNumber(packet, 0, 4); // length and sums: see sendPacket
    appendBytes(packet, start, strlen(start));
}

void appendBytes(Packet *packet, const void *bytes, size_t size)
{
    if (size > sizeof packet->bytes - packet->size)
        die("size of a packet");
    memcpy(packet->bytes + packet->size, bytes, size);
    packet->size += size;
}

void appendNumber(Packet *packet, uint32_t value, size_t size)
{
    unsigned char field[sizeof value];
    for (size_t i = 0; i < size; ++i)
        field[i] = (unsigned char)(value >> (8 * i));
    appendBytes(packet, field, size);
}

void sendPacket(int port, Packet *packet)
{
    unsigned char *const header = packet->bytes;
    const size_t length = packet->size - header_size;
    header[length_offset] = (unsigned char)length;
    header[length_offset + 1] = (unsigned char)(length >> 8);
    header[body_sum_offset] = exclusiveOr(header + header_size, length);
    header[header_sum_offset] = exclusiveOr(header, header_sum_offset);
    if (write(port, packet->bytes, packet->size) != (ssize_t)packet->size)
        die("result of a write");
}

static int isComplete(const Packet *packet)
{
    return packet->size >= header_size && packet->size >= header_size + bodySize(packet);
}

static void judge(const Packet *packet)
{
    const unsigned char *const header = packet->bytes;
    if (packet->size != header_size + bodySize(packet) || memcmp(header, magic, sizeof magic) != 0
        || header[header_sum_offset] != exclusiveOr(header, header_sum_offset)
        || header[body_sum_offset] != exclusiveOr(header + header_size, bodySize(packet)))
        die("packet");
}

void receivePacket(int port, Packet *packet, int milliseconds)
{
    packet->size = 0;
    while (!isComplete(packet)) {
        struct pollfd readable = {port, POLLIN, 0};
        if (poll(&readable, 1, milliseconds) != 1)
            die("silence");
        const ssize_t size = read(port, packet->bytes + packet->size, sizeof packet->bytes - packet->size);
        if (size <= 0)
            die("result of a read");
        packet->size += (size_t)size;
    }
    judge(packet);
}

int startsWith(const Packet *packet, const char *start)
{
    const size_t size = strlen(start);
    return packet->size - header_size >= size && memcmp(packet->bytes + header_size, start, size) == 0;
}

const unsigned char *bytesAt(const Packet *packet, size_t offset, size_t size)
{
    if (header_size + offset + size > packet->size)
        die("length of a body");
    return packet->bytes + header_size + offset;
}

uint32_t numberAt(const Packet *packet, size_t offset, size_t size)
{
    const unsigned char *const field = bytesAt(packet, offset, size);
    uint32_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value |= (uint32_t)field[i] << (8 * i);
    return value;
}

void makeRaw(int port)
{
    struct termios mode;
    if (tcgetattr(port, &mode) != 0)
        die("port that is no terminal device");
    cfmakeraw(&mode);
    tcsetattr(port, TCSANOW, &mode);
}

Content loadFile(const char *path)
{
    FILE *const file = fopen(path, "rb");
    if (!file || fseek(file, 0, SEEK_END) != 0)
        die("file that cannot be read");
    Content content = {NULL, (size_t)ftell(file)};
    content.bytes = malloc(content.size + 1);
    rewind(file);
    if (!content.bytes || fread(content.bytes, 1, content.size, file) != content.size)
        die("file that cannot be read");
    fclose(file);
    return content;
}
