#pragma once

#include <QByteArray>

/// Packets as a terminal, a broken line or the tool would send them, built without the code under test.
namespace packets {

inline char exclusiveOr(const QByteArray &bytes)
{
    char sum = 0;
    for (const char byte : bytes)
        sum = static_cast<char>(sum ^ byte);
    return sum;
}

/// The low \a size bytes of \a value, the least significant first.
inline QByteArray number(quint64 value, int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes.append(static_cast<char>(value >> (8 * i) & 0xFF));
    return bytes;
}

/// The number in the \a size bytes at \a offset, the least significant first; all of them are there.
inline quint64 numberAt(const QByteArray &bytes, qsizetype offset, int size)
{
    quint64 value = 0;
    for (int i = size; i > 0; --i)
        value = value << 8 | static_cast<quint8>(bytes[offset + i - 1]);
    return value;
}

/// \a size bytes of a file in which no piece of 512 bytes resembles another.
inline QByteArray fileData(qsizetype size)
{
    QByteArray data(size, '\0');
    for (qsizetype i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 7 + i / 251 + i / 65536) & 0xFF);
    return data;
}

/// A header with a right checksum that claims a body of \a length bytes with the checksum \a body_sum.
inline QByteArray header(quint16 length, char body_sum)
{
    QByteArray bytes = "@JVX" + number(1, 4) + number(0, 4) + number(length, 2) + body_sum;
    bytes.append(exclusiveOr(bytes));
    return bytes;
}

/// The packet around \a body, which begins with its start character.
inline QByteArray packet(const QByteArray &body)
{
    return header(static_cast<quint16>(body.size()), exclusiveOr(body)) + body;
}

/// The packet around \a body as the tool sends it: with the addresses the other way round.
inline QByteArray request(const QByteArray &body)
{
    QByteArray bytes
        = "@JVX" + number(0, 4) + number(1, 4) + number(static_cast<quint64>(body.size()), 2) + exclusiveOr(body);
    return bytes.append(exclusiveOr(bytes)) + body;
}

/// \a body in a packet whose body checksum is wrong and whose header is right.
inline QByteArray withWrongBodySum(const QByteArray &body)
{
    return header(static_cast<quint16>(body.size()), static_cast<char>(exclusiveOr(body) ^ 0x01)) + body;
}

/// \a packet with its header checksum spoiled.
inline QByteArray withWrongHeaderSum(QByteArray packet)
{
    packet[15] = static_cast<char>(packet[15] ^ 0x01);
    return packet;
}

/// The body of a record of log 14, type 1, one second after the epoch, with the text \a data.
inline QByteArray logBody(const QByteArray &data)
{
    return "*>LOG" + number(14, 1) + number(1, 4) + number(0, 2) + number(1, 1) + data;
}

inline QByteArray logRecord(const QByteArray &data)
{
    return packet(logBody(data));
}

// Whole packets from another program: each is the output of the Python expression beside it, with
//
//     x = lambda b: functools.reduce(operator.xor, b, 0)
//     f = lambda a, b, n, s: b"@JVX" + struct.pack("<IIHB", a, b, n, s)
//     p = lambda body, a, b: (h := f(a, b, len(body), x(body))) + bytes([x(h)]) + body

/// p(b"*#V:JVX:1.2:2024-05-06:en", 1, 0).hex()
inline const QByteArray software_answer
    = QByteArray::fromHex("404a5658010000000000000019003a262a23563a4a56583a312e323a323032342d30352d30363a656e");

/// p(b"*#H:BHR:" + struct.pack("<Q", 0x0102030405060708), 0xFFFFFFFF, 0xDEADBEEF).hex()
inline const QByteArray hardware_answer
    = QByteArray::fromHex("404a5658ffffffffefbeadde100011272a23483a4248523a0807060504030201");

/// p(b"*#S:350000000000017", 1, 0).hex()
inline const QByteArray serial_number_answer
    = QByteArray::fromHex("404a56580100000000000000130050462a23533a333530303030303030303030303137");

/// p(b"*@LOG" + struct.pack("<I", 0x4000), 1, 0).hex()
inline const QByteArray mask_answer = QByteArray::fromHex("404a5658010000000000000009006e622a404c4f4700400000");

/// p(b"*>LOG" + struct.pack("<BIHB", 14, 1700000000, 250, 3) + b"up", 1, 0).hex()
inline const QByteArray log_record
    = QByteArray::fromHex("404a565801000000000000000f00656f2a3e4c4f470e00f15365fa00037570");

} // namespace packets
