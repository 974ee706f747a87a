#pragma once

#include "jvxb/field.h"

#include <QByteArray>
#include <QByteArrayView>

#include <functional>
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
/// The work is linear in the length of the stream, because each header is looked at once and a body is bounded, and
/// because the byte array removes bytes at its front without moving the others.
class ReceiveBuffer {
public:
    /// Is told which bytes are skipped, and why: "no magic", "header checksum", "body length" or "body checksum".
    using Reporter = std::function<void(QByteArrayView skipped, const char *reason)>;

    explicit ReceiveBuffer(Reporter report = [](QByteArrayView, const char *) {});

    /// Appends \a bytes as they came from the port, any number of them.
    void append(QByteArrayView bytes);

    /// Forgets all bytes.
    void clear();

    /// The bytes that wait for more of their packet.
    [[nodiscard]] QByteArrayView bytes() const { return _bytes; }

    /// Takes the next body with valid checksums out of the buffer, with all bytes before it; nothing if none is
    /// complete yet. Skipped on the way:
    ///  - bytes without a magic; a partial magic at the end is dropped with them once 16 bytes are buffered;
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
    QByteArray takeFrontBody();
    void skip(qsizetype count, const char *reason);

    QByteArray _bytes;
    const Reporter _report;
};

} // namespace jvxb
