#include "jvxb/framing.h"

#include <functional>
#include <numeric>
#include <utility>

namespace jvxb {

namespace {

quint8 exclusiveOr(QByteArrayView bytes)
{
    return static_cast<quint8>(std::accumulate(bytes.begin(), bytes.end(), '\0', std::bit_xor<>()));
}

} // namespace

QByteArray packet(const QByteArray &body)
{
    QByteArray bytes = header::magic.toByteArray().leftJustified(header::size, '\0');
    bytes.reserve(header::size + body.size());
    header::first_address.put(bytes, 0);
    header::second_address.put(bytes, 1);
    header::body_length.put(bytes, static_cast<quint16>(body.size()));
    header::body_checksum.put(bytes, exclusiveOr(body));
    header::checksum.put(bytes, exclusiveOr(QByteArrayView(bytes).first(header::checksum.offset)));
    return bytes.append(body);
}

ReceiveBuffer::ReceiveBuffer(Reporter report)
    : _report(std::move(report))
{
}

void ReceiveBuffer::append(QByteArrayView bytes)
{
    _bytes.append(bytes);
}

void ReceiveBuffer::clear()
{
    _bytes.clear();
}

std::optional<QByteArray> ReceiveBuffer::takeBody()
{
    while (true) {
        switch (front()) {
        case Front::Incomplete:
            return {};
        case Front::Packet:
            return takeFrontBody();
        case Front::NoMagic:
            skip(sizeBeforeMagic(), "no magic");
            break;
        case Front::WrongHeaderChecksum:
            skip(header::magic.size(), "header checksum");
            break;
        case Front::ShortBody:
            skip(header::magic.size(), "body length");
            break;
        case Front::WrongBodyChecksum:
            skip(header::size, "body checksum");
            break;
        }
    }
}

ReceiveBuffer::Front ReceiveBuffer::front() const
{
    if (_bytes.size() < header::size)
        return Front::Incomplete;
    if (!_bytes.startsWith(header::magic))
        return Front::NoMagic;
    const QByteArrayView bytes(_bytes);
    if (exclusiveOr(bytes.first(header::checksum.offset)) != header::checksum.of(bytes))
        return Front::WrongHeaderChecksum;
    const quint16 body_length = header::body_length.of(bytes);
    if (body_length < header::min_body_length)
        return Front::ShortBody;
    if (bytes.size() < header::size + body_length)
        return Front::Incomplete;
    if (exclusiveOr(bytes.sliced(header::size, body_length)) != header::body_checksum.of(bytes))
        return Front::WrongBodyChecksum;
    return Front::Packet;
}

/// All bytes if there is no magic.
qsizetype ReceiveBuffer::sizeBeforeMagic() const
{
    const qsizetype position = _bytes.indexOf(header::magic);
    return position < 0 ? _bytes.size() : position;
}

QByteArray ReceiveBuffer::takeFrontBody()
{
    const quint16 length = header::body_length.of(_bytes);
    QByteArray body = _bytes.sliced(header::size, length);
    _bytes.remove(0, header::size + length);
    return body;
}

void ReceiveBuffer::skip(qsizetype count, const char *reason)
{
    _report(QByteArrayView(_bytes).first(count), reason);
    _bytes.remove(0, count);
}

} // namespace jvxb
