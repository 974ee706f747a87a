#include "crc.h"

#include <array>

namespace {

/// The remainders of all byte values for the bit-reversed \a polynomial.
template <typename Register>
constexpr std::array<Register, 256> makeTable(Register polynomial)
{
    std::array<Register, 256> table{};
    for (unsigned int byte = 0; byte < table.size(); ++byte) {
        unsigned int remainder = byte;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder & 1U) != 0 ? (remainder >> 1U) ^ polynomial : remainder >> 1U;
        table[byte] = static_cast<Register>(remainder);
    }
    return table;
}

template <typename Register>
Register calcWith(const std::array<Register, 256> &table, const unsigned char *data, int size, Register crc)
{
    for (int i = 0; i < size; ++i)
        crc = static_cast<Register>(crc >> 8U) ^ table[(crc ^ data[i]) & 0xFFU];
    return crc;
}

} // namespace

namespace crc::modbus {

static constexpr std::array<unsigned short, 256> _table = makeTable<unsigned short>(0xA001);
static_assert(_table[1] == 0xC0C1 && _table[255] == 0x4040);

unsigned short initValue()
{
    return 0xFFFF;
}

unsigned short calc(const unsigned char *data, int size)
{
    return calc(data, size, initValue());
}

unsigned short calc(const unsigned char *data, int size, unsigned short crc)
{
    return calcWith(_table, data, size, crc);
}

} // namespace crc::modbus

namespace crc::ieee {

static constexpr std::array<unsigned int, 256> _table = makeTable<unsigned int>(0xEDB88320);
static_assert(_table[1] == 0x77073096 && _table[255] == 0x2D02EF8D);

unsigned int initValue()
{
    return 0xFFFFFFFF;
}

unsigned int calc(const unsigned char *data, int size)
{
    return calc(data, size, initValue());
}

unsigned int calc(const unsigned char *data, int size, unsigned int crc)
{
    return calcWith(_table, data, size, crc);
}

} // namespace crc::ieee
