#pragma once

#include "packets.h"

#include <QByteArray>
#include <QByteArrayList>

/// The search for packets once more, rule by rule and without regard to speed.
class SlowSearch {
public:
    QByteArrayList bodies; ///< of the packets found so far

    void receive(const QByteArray &bytes)
    {
        _buffer.append(bytes);
        while (makesProgress()) { }
    }

private:
    static constexpr qsizetype header_size = 16;

    bool makesProgress()
    {
        if (_buffer.size() < header_size || !magicIsAtTheStart() || _buffer.size() < header_size)
            return false;
        if (!headerIsRight()) {
            _buffer.remove(0, 4);
            return true;
        }
        if (_buffer.size() < header_size + length())
            return false;
        takePacket();
        return true;
    }

    bool magicIsAtTheStart()
    {
        const qsizetype position = _buffer.indexOf("@JVX");
        if (position < 0)
            _buffer.clear();
        else
            _buffer.remove(0, position);
        return position >= 0;
    }

    bool headerIsRight() const { return packets::exclusiveOr(_buffer.first(15)) == _buffer[15] && length() > 2; }

    qsizetype length() const
    {
        return static_cast<unsigned char>(_buffer[12]) + 256 * static_cast<unsigned char>(_buffer[13]);
    }

    void takePacket()
    {
        const qsizetype size = length();
        const char sum = _buffer[14];
        _buffer.remove(0, header_size);
        const QByteArray body = _buffer.first(size);
        if (packets::exclusiveOr(body) != sum)
            return;
        bodies.append(body);
        _buffer.remove(0, size);
    }

    QByteArray _buffer;
};
