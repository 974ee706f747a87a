#include "wire.h"

#include <algorithm>
#include <functional>
#include <numeric>

namespace wire {

namespace {

constexpr QByteArrayView magic("@JVX", 4);
constexpr qsizetype minimumBodySize = 3;

constexpr quint32 toolAddress = 0;
constexpr quint32 terminalAddress = 1;

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

/// Where the next packet may start at or behind @a from; the end of the stream when nowhere.
qsizetype nextStart(QByteArrayView stream, qsizetype from)
{
    while (from < stream.size() && !mayStartPacket(stream.sliced(from)))
        ++from;
    return from;
}

QByteArray takeFront(QByteArray &stream, qsizetype size)
{
    const QByteArray front = stream.first(size);
    stream.remove(0, size);
    return front;
}

QString headerFault(QByteArrayView header)
{
    if (static_cast<quint8>(header[15]) != exclusiveOr(header.first(15)))
        return QStringLiteral("wrong header checksum");
    if (read<quint32>(header, 4) != toolAddress || read<quint32>(header, 8) != terminalAddress)
        return QStringLiteral("wrong address words");
    if (read<quint16>(header, 12) < minimumBodySize)
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
    if (stream.size() < headerSize)
        return {};

    if (const QString fault = headerFault(QByteArrayView(stream).first(headerSize)); !fault.isEmpty()) {
        const qsizetype end = nextStart(stream, magic.size());
        return {Kind::Malformed, takeFront(stream, end), fault};
    }
    const qsizetype packetSize = headerSize + read<quint16>(stream, 12);
    if (stream.size() < packetSize)
        return {};

    const QByteArray packet = takeFront(stream, packetSize);
    if (static_cast<quint8>(packet[14]) != exclusiveOr(QByteArrayView(packet).sliced(headerSize)))
        return {Kind::Malformed, packet, QStringLiteral("wrong body checksum")};
    return {Kind::Packet, packet, {}};
}

QByteArray makePacket(const QByteArray &body)
{
    QByteArray packet;
    packet.reserve(headerSize + body.size());
    packet.append(magic);
    append(packet, terminalAddress);
    append(packet, toolAddress);
    append(packet, static_cast<quint16>(body.size()));
    append(packet, exclusiveOr(body));
    append(packet, exclusiveOr(packet));
    return packet.append(body);
}

} // namespace wire
