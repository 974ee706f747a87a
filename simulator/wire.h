#pragma once

#include <QByteArray>
#include <QString>
#include <QtEndian>

/// The packets of the wire, as pure functions over bytes. This is the terminal's own codec: it shares no code with the
/// tool, so that a mistake in one of them shows against the other.
///
/// Packet, integers little-endian:
///
///     offset  size  field
///          0     4  magic "@JVX"
///          4     4  first address word: 0 in requests, 1 in what the terminal sends
///          8     4  second address word: 1 in requests, 0 in what the terminal sends
///         12     2  body length in bytes, 3 or more
///         14     1  XOR of the body bytes
///         15     1  XOR of the bytes 0 to 14
///         16     -  body: "*", a direction character, a key, a payload
namespace wire {

constexpr QByteArrayView magic = "@JVX";
constexpr qsizetype header_size = 16;
constexpr qsizetype direction_offset = 1;
constexpr qsizetype key_offset = 2;
constexpr char start_character = '*';

/// What stands at the front of a received byte stream.
struct Item {
    enum class Kind {
        Packet,     ///< bytes: a whole packet with a faultless header and body checksum, header included
        Malformed,  ///< bytes: what no packet may look like; reason: why
        Incomplete, ///< nothing yet: more bytes are needed
    };
    Kind kind = Kind::Incomplete;
    QByteArray bytes;
    QString reason;
};

/// Takes the next item off the front of \a stream; leaves the stream alone when it is Incomplete. Judges strictly: any
/// byte outside a packet and any header that differs from the table above is Malformed.
Item takeItem(QByteArray &stream);

/// A packet as the terminal sends it. \a body is 3 to 65535 bytes long.
QByteArray makePacket(const QByteArray &body);

/// Appends \a value to \a bytes, little-endian.
template <typename Integer>
void append(QByteArray &bytes, Integer value)
{
    const Integer little = qToLittleEndian(value);
    bytes.append(reinterpret_cast<const char *>(&little), sizeof little);
}

/// The little-endian integer at \a offset; the caller has checked that \a bytes reaches that far.
template <typename Integer>
Integer read(QByteArrayView bytes, qsizetype offset)
{
    return qFromLittleEndian<Integer>(bytes.sliced(offset, sizeof(Integer)).data());
}

} // namespace wire
