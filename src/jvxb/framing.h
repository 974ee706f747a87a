#pragma once

#include "jvxb/field.h"

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

/// Packets in a stream of bytes: a header, then a body.
namespace jvxb {

/// The header of a packet, at its start.
namespace header {

inline constexpr QByteArrayView magic = "@JVX";    ///< at offset 0
inline constexpr Field<quint32> first_address{4};  ///< sent as 0, ignored on receipt
inline constexpr Field<quint32> second_address{8}; ///< sent as 1, ignored on receipt
inline constexpr Field<quint16> body_length{12};   ///< in bytes, at least min_body_length
inline constexpr Field<quint8> body_checksum{14};  ///< XOR of all bytes of the body
inline constexpr Field<quint8> checksum{15};       ///< XOR of all bytes before this one

inline constexpr qsizetype size = checksum.end(); ///< and the offset of the body
inline constexpr quint16 min_body_length = 3;

} // namespace header

/// The packet that carries \a body, whose size is cut to 16 bits in the header.
QByteArray packet(const QByteArray &body);

/// Received bytes that are not consumed yet, and the search for packets in them.
///
/// Beside each byte stands the XOR of all bytes before it, so that the checksum of any run of bytes is one operation,
/// however many headers claim the same bytes as their body. The work would be linear in the length of the stream
/// without that too, because a body is bounded, but some 13 times as much on a stream made of such headers. It also
/// relies on the byte array's removal at the front, which moves no bytes.
class ReceiveBuffer {
public:
    /// Appends \a bytes as they came from the port, any number of them.
    void append(QByteArrayView bytes);

    /// Forgets all bytes.
    void clear();

    /// Takes the next body with valid checksums out of the buffer, with all bytes before it; nothing if none is
    /// complete yet. Skipped on the way:
    ///  - bytes without a magic; a magic that is cut by the end of the bytes goes with them, once 16 bytes are there;
    ///  - of a corrupt header (checksum, or a body length below 3) the magic, so that the search goes on behind it;
    ///  - of a packet with a corrupt body the header, so that the search goes on inside the body.
    std::optional<QByteArray> takeBody();

private:
    /// What the buffer begins with.
    enum class Front {
        Incomplete, ///< more bytes are needed to tell
        Packet,     ///< complete and valid
        NoMagic,
        WrongHeaderChecksum,
        ShortBody,
        WrongBodyChecksum,
    };

    [[nodiscard]] Front front() const;
    [[nodiscard]] qsizetype sizeBeforeMagic() const;
    [[nodiscard]] quint8 checksum(qsizetype begin, qsizetype end) const;
    QByteArray takeFrontBody();
    void skip(qsizetype count, const char *reason);
    void drop(qsizetype count);

    QByteArray _bytes;
    QByteArray _sums = QByteArray(1, '\0'); ///< element i: XOR of all bytes before _bytes[i]; one more than _bytes
};

} // namespace jvxb
