#include "wire.h"

#include <algorithm>
#include <functional>
#include <numeric>

namespace wire {

namespace {

constexpr qsizetype first_address_offset = 4;
constexpr qsizetype second_address_offset = 8;
constexpr qsizetype body_size_offset = 12;
constexpr qsizetype body_checksum_offset = 14;
constexpr qsizetype header_checksum_offset = 15;
constexpr qsizetype minimum_body_size = 3;

constexpr quint32 tool_address = 0;
constexpr quint32 terminal_address = 1;

quint8 exclusiveOr(QByteArrayView bytes)
{
    return std::accumulate(bytes.begin(), bytes.end(), quint8{0},
        [](quint8 sum, char byte) { return static_cast<quint8>(sum ^ static_cast<quint8>(byte)); });
}

/// Whether the stream's first bytes are those of the magic, as far as they have arrived.
bool mayStartPacket(QByteArrayView stream)
{
    const qsizetype arrived = std::min(stream.size(), magic.size());
    return stream.first(arrived) == magic.first(arrived);
}

/// Where the next packet may start at or behind \a from; the end of the stream when nowhere.
qsizetype nextStart(QByteArrayView stream, qsizetype from)
{
    while (from < stream.size() && !mayStartPacket(stream.sliced(from)))
        ++from;
    return from;
}

QByteArray takeFront(QByteArray &stream, qsizetype size)
{
    QByteArray front = stream.first(size);
    stream.remove(0, size);
    return front;
}

QString headerFault(QByteArrayView header)
{
    if (static_cast<quint8>(header[header_checksum_offset]) != exclusiveOr(header.first(header_checksum_offset)))
        return QStringLiteral("wrong header checksum");
    if (read<quint32>(header, first_address_offset) != tool_address
        || read<quint32>(header, second_address_offset) != terminal_address)
        return QStringLiteral("wrong address words");
    if (read<quint16>(header, body_size_offset) < minimum_body_size)
        return QStringLiteral("body too short");
    return {};
}

} // namespace

Item takeItem(QByteArray &stream)
{
    using Kind = Item::Kind;

    if (!mayStartPacket(stream)) {
        const qsizetype end = nextStart(stream, 1);
        return {Kind::Malformed, takeFront(stream, end), QStringLiteral("bytes outside a packet")};
    }
    if (stream.size() < header_size)
        return {};

    if (const QString fault = headerFault(QByteArrayView(stream).first(header_size)); !fault.isEmpty()) {
        const qsizetype end = nextStart(stream, magic.size());
        return {Kind::Malformed, takeFront(stream, end), fault};
    }
    const qsizetype packet_size = header_size + read<quint16>(stream, body_size_offset);
    if (stream.size() < packet_size)
        return {};

    const QByteArray packet = takeFront(stream, packet_size);
    if (static_cast<quint8>(packet[body_checksum_offset]) != exclusiveOr(QByteArrayView(packet).sliced(header_size)))
        return {Kind::Malformed, packet, QStringLiteral("wrong body checksum")};
    return {Kind::Packet, packet, {}};
}

QByteArray makePacket(const QByteArray &body)
{
    QByteArray packet;
    packet.reserve(header_size + body.size());
    packet.append(magic);
    append(packet, terminal_address);
    append(packet, tool_address);
    append(packet, static_cast<quint16>(body.size()));
    append(packet, exclusiveOr(body));
    append(packet, exclusiveOr(packet));
    return packet.append(body);
}

} // namespace wire
