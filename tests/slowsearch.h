#pragma once

#include "packets.h"

#include <QByteArray>

#include <optional>

/// The search for packets once more, rule by rule as docs/protocol.md has them and without regard to speed.
class SlowSearch {
public:
    void append(const QByteArray &bytes) { _bytes.append(bytes); }
    void clear() { _bytes.clear(); }

    /// Takes the body of the next packet out; nothing when the bytes that have come do not hold any.
    std::optional<QByteArray> takeBody()
    {
        while (_bytes.size() >= header_size) {
            const qsizetype start = _bytes.indexOf("@JVX");
            if (start < 0) {
                _bytes.clear();
                break;
            }
            _bytes.remove(0, start);
            if (_bytes.size() < header_size)
                break;
            if (!headerIsRight()) {
                _bytes.remove(0, 4);
                continue;
            }
            const qsizetype size = length();
            if (_bytes.size() < header_size + size)
                break;
            const char sum = _bytes[14];
            _bytes.remove(0, header_size);
            const QByteArray body = _bytes.first(size);
            if (packets::exclusiveOr(body) != sum)
                continue;
            _bytes.remove(0, size);
            return body;
        }
        return {};
    }

private:
    static constexpr qsizetype header_size = 16;

    bool headerIsRight() const { return packets::exclusiveOr(_bytes.first(15)) == _bytes[15] && length() > 2; }

    qsizetype length() const
    {
        return static_cast<unsigned char>(_bytes[12]) + 256 * static_cast<unsigned char>(_bytes[13]);
    }

    QByteArray _bytes;
};
