// The search for packets in any bytes that come in any pieces, compared with a search step by step.

#include "jvxb/framing.h"
#include "slowsearch.h"
#include "target.h"

namespace {

/// A buffer of the tool and the model of it, which have to find the same.
class Bench {
public:
    void setPieceSize(qsizetype size) { _piece_size = size; }

    void append(const QByteArray &bytes)
    {
        const qsizetype size = _piece_size > 0 ? _piece_size : bytes.size();
        for (qsizetype begin = 0; begin < bytes.size(); begin += size) {
            const QByteArray piece = bytes.mid(begin, size);
            _buffer.append(piece);
            _model.append(piece);
            compare();
        }
    }

    void clear()
    {
        _buffer.clear();
        _model.clear();
    }

private:
    void compare()
    {
        std::optional<QByteArray> body;
        do {
            body = _buffer.takeBody();
            require(body == _model.takeBody(), "bodies are as the model's");
        } while (body);
    }

    jvxb::ReceiveBuffer _buffer;
    SlowSearch _model;
    qsizetype _piece_size = 0;
};

/// A header with right checksum that claims any body.
QByteArray takeHeader(Input &input)
{
    const auto length = static_cast<quint16>(input.number(2));
    return packets::header(length, static_cast<char>(input.byte()));
}

/// A packet with one bit that is wrong.
QByteArray takeDamaged(Input &input)
{
    const auto position = static_cast<qsizetype>(input.number(2));
    QByteArray packet = packets::packet(input.bytes());
    char &byte = packet[position % packet.size()];
    byte = static_cast<char>(byte ^ 1 << input.byte() % 8);
    return packet;
}

void step(Bench &bench, Input &input)
{
    switch (input.byte() % 8) {
    case 0:
    case 1:
        return bench.append(input.bytes());
    case 2:
    case 3:
        return bench.append(packets::packet(input.bytes()));
    case 4:
        return bench.append(takeHeader(input));
    case 5:
        return bench.append(takeDamaged(input));
    case 6:
        return bench.setPieceSize(input.byte());
    default:
        return bench.clear();
    }
}

/// Requires that a long stream, \a bytes repeated, is searched once: every byte is skipped, taken or left, and none
/// twice. That takes a thousand times as long as anything else here, so the fuzzer does it for one input in a thousand,
/// and the replay of the known inputs for all.
void checkThatEveryByteCountsOnce(const QByteArray &bytes)
{
    constexpr qsizetype stretched_size = 128 * 1024; // twice the longest body
    constexpr qsizetype header_size = 16;
    constexpr unsigned int share = is_replay ? 1 : 1000;
    static unsigned int calls = 0;
    if (bytes.isEmpty() || calls++ % share != 0)
        return;
    const QByteArray stream = bytes.repeated(stretched_size / bytes.size());
    qsizetype counted = 0;
    jvxb::ReceiveBuffer buffer([&](QByteArrayView skipped, const char *) {
        require(!skipped.isEmpty(), "a skip skips something");
        counted += skipped.size();
    });
    buffer.append(stream);
    while (const std::optional<QByteArray> body = buffer.takeBody())
        counted += header_size + body->size();
    require(counted + buffer.bytes().size() == stream.size(), "every byte counts once");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(data, size);
    if (input.byte() == 0xFF) {
        checkThatEveryByteCountsOnce(input.rest());
        return 0;
    }
    Bench bench;
    while (!input.isAtEnd())
        step(bench, input);
    return 0;
}
