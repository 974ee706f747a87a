#pragma once

// The wire as docs/protocol.md has it, for both ends of the benchmark. Whatever is not as expected ends the program.

#include <stddef.h>
#include <stdint.h>

enum {
    header_size = 16,
    piece_size = 512,
    wait_for_ever = -1, // ms
};

/// A packet, sent or received.
typedef struct Packet {
    unsigned char bytes[header_size + 1024];
    size_t size; ///< bytes in use
} Packet;

/// Ends the program with code 1 after saying what \a was not as it should be.
_Noreturn void die(const char *was);

/// Begins a packet whose body starts with \a start: "*", a direction character, a key.
void beginPacket(Packet *packet, const char *start);

void appendBytes(Packet *packet, const void *bytes, size_t size);

/// Appends the low \a size bytes of \a value, the least significant first.
void appendNumber(Packet *packet, uint32_t value, size_t size);

/// Completes the header and writes the packet.
void sendPacket(int port, Packet *packet);

/// Reads the one packet that is due within \a milliseconds.
void receivePacket(int port, Packet *packet, int milliseconds);

/// Whether the body of \a packet starts with \a start.
int startsWith(const Packet *packet, const char *start);

/// The field of \a size bytes at \a offset of the body.
uint32_t numberAt(const Packet *packet, size_t offset, size_t size);

/// The bytes at \a offset of the body, of which there have to be \a size.
const unsigned char *bytesAt(const Packet *packet, size_t offset, size_t size);

/// Makes the line transparent: no echo, no line editing, no translation.
void makeRaw(int port);

/// A whole file in memory.
typedef struct Content {
    unsigned char *bytes;
    size_t size;
} Content;

Content loadFile(const char *path);
