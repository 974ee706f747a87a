#include "faults.h"

#include "wire.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {

// A pause lets the reader see each piece on its own, but an answer in very many pieces must not take so long that the
// other side gives it up: while more pieces than this are left, they follow without a pause.
constexpr qsizetype paused_pieces = 100;
constexpr auto pause_length = 1ms;

constexpr int longest_random_piece = 64;

} // namespace

FaultyLine::FaultyLine(const FaultSettings &settings, QObject *parent)
    : QObject(parent)
    , _settings(settings)
    , _dice(settings.seed)
{
    _pause_timer.setSingleShot(true);
    _pause_timer.setTimerType(Qt::PreciseTimer);
    connect(&_pause_timer, &QTimer::timeout, this, &FaultyLine::writeNext);
}

void FaultyLine::sendAnswer(const QByteArray &packet)
{
    if (_dice.oneIn(_settings.lost))
        return;
    const int copies = _dice.oneIn(_settings.duplicated) ? 2 : 1;
    const auto lateness = _dice.oneIn(_settings.late) ? _settings.lateness : 0ms;
    for (int copy = 0; copy < copies; ++copy)
        deliver(split(disturbed(packet)), _settings.latency + lateness);
}

void FaultyLine::sendMessage(const QByteArray &bytes)
{
    write({disturbed(bytes)});
}

/// \a packet with wrong bits and with garbage in front, each where the settings and the dice ask for it.
QByteArray FaultyLine::disturbed(const QByteArray &packet)
{
    QByteArray bytes = packet;
    const bool has_body = packet.size() > wire::header_size;
    if (has_body && _dice.oneIn(_settings.damaged_headers))
        flipOneBit(bytes, 0, wire::header_size);
    if (has_body && _dice.oneIn(_settings.damaged_bodies))
        flipOneBit(bytes, wire::header_size, bytes.size());
    return garbage() + bytes;
}

/// Random bytes, now and then with the beginning of a packet's magic or all of it among them.
QByteArray FaultyLine::garbage()
{
    if (_settings.garbage == 0)
        return {};
    QByteArray bytes;
    for (int size = 1 + _dice.below(_settings.garbage); size > 0; --size)
        bytes.append(static_cast<char>(_dice.below(256)));
    if (_dice.oneIn(4)) {
        const QByteArrayView part = wire::magic.first(1 + _dice.below(wire::magic.size()));
        bytes.replace(_dice.below(static_cast<int>(bytes.size())), part.size(), part.toByteArray());
    }
    return bytes.first(std::min<qsizetype>(bytes.size(), _settings.garbage));
}

void FaultyLine::flipOneBit(QByteArray &bytes, qsizetype begin, qsizetype end)
{
    const qsizetype position = begin + _dice.below(static_cast<int>(end - begin));
    bytes[position] = static_cast<char>(bytes[position] ^ (1 << _dice.below(8)));
}

QByteArrayList FaultyLine::split(const QByteArray &bytes)
{
    if (_settings.split_size == 0 && !_settings.splits_at_random)
        return {bytes};
    QByteArrayList pieces;
    for (qsizetype at = 0; at < bytes.size(); at += pieces.last().size())
        pieces.append(
            bytes.mid(at, _settings.splits_at_random ? 1 + _dice.below(longest_random_piece) : _settings.split_size));
    return pieces;
}

void FaultyLine::deliver(const QByteArrayList &pieces, std::chrono::milliseconds delay)
{
    if (delay == 0ms) {
        write(pieces);
        return;
    }
    ++_delayed;
    QTimer::singleShot(delay, Qt::PreciseTimer, this, [this, pieces] { endDelay(pieces); });
}

void FaultyLine::endDelay(const QByteArrayList &pieces)
{
    --_delayed;
    write(pieces);
}

void FaultyLine::write(const QByteArrayList &pieces)
{
    _queue.append(pieces);
    if (!_pause_timer.isActive())
        writeNext();
}

void FaultyLine::writeNext()
{
    Q_EMIT sent(_queue.takeFirst());
    if (!_queue.isEmpty())
        _pause_timer.start(_queue.size() > paused_pieces ? 0ms : pause_length);
    else if (isIdle())
        Q_EMIT becameIdle();
}
