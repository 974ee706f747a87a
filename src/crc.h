#pragma once

/// CRC-16/MODBUS: polynomial 0x8005, reflected input and output, start value 0xFFFF, no final XOR.
namespace crc::modbus {

/// The start value of the register, 0xFFFF.
unsigned short initValue();

/// The register after the \a size bytes of \a data; a size of 0 or less processes none.
unsigned short calc(const unsigned char *data, int size);

/// The same for data that comes in pieces: \a crc is the result for the piece before.
unsigned short calc(const unsigned char *data, int size, unsigned short crc);

} // namespace crc::modbus

/// CRC-32 of IEEE 802.3: polynomial 0x04C11DB7, reflected input and output, start value 0xFFFFFFFF. The results are the
/// register as it stands; its bitwise NOT is the checksum of the standard.
namespace crc::ieee {

/// The start value of the register, 0xFFFFFFFF.
unsigned int initValue();

/// The register, not inverted, after the \a size bytes of \a data; a size of 0 or less processes none.
unsigned int calc(const unsigned char *data, int size);

/// The same for data that comes in pieces: \a crc is the result, not inverted, for the piece before.
unsigned int calc(const unsigned char *data, int size, unsigned int crc);

} // namespace crc::ieee
