#include "logsource.h"

#include "wire.h"

#include <QDateTime>

#include <array>

using namespace std::chrono_literals;

namespace {

constexpr quint8 text_log = 14;
constexpr quint8 plain_text_type = 1;

/// Time from record to record when they are sent as fast as the line takes them.
constexpr std::chrono::nanoseconds shortest_period = 1ms;

struct Pattern {
    quint8 log;
    quint8 type;
    QByteArrayView data;
    bool long_milliseconds = false; ///< give the time with more than 999 milliseconds
};

constexpr std::array<Pattern, 10> cycle = {{
    {text_log, 1, "ignition on\r\n"},
    {text_log, 2, "supply voltage 12.6 V"},
    {3, 7, "\x01\xFE@JVX"},
    {text_log, 0,
        "outside 21 \xC2\xB0"
        "C, Gr\xC3\xB6\xC3\x9F"
        "e \xE2\x82\xAC 5\n"},
    {text_log, 3, ""},
    {5, 0, ""},
    {text_log, 255, "clock carried over", true},
    {text_log, 14, "@JVX in a text"},
    {text_log, 4, "two\nlines\n"},
    {text_log, 1, "position 52.5163, 13.3777; 11 satellites; speed 87 km/h; heading 274; altitude 34 m\r\n"},
}};

bool lets(quint32 mask, quint8 log)
{
    return (mask >> log & 1U) != 0;
}

} // namespace

LogSource::LogSource(const LogSettings &settings)
    : _settings(settings)
    , _start(std::chrono::seconds(settings.start.value_or(static_cast<quint32>(QDateTime::currentSecsSinceEpoch()))))
{
}

std::optional<QByteArray> LogSource::next(quint32 mask)
{
    if (_settings.count && _sent >= *_settings.count)
        return std::nullopt;
    std::optional<QByteArray> record = _settings.texts ? nextText(mask) : nextOfCycle(mask);
    if (record)
        ++_sent;
    return record;
}

std::optional<QByteArray> LogSource::nextText(quint32 mask)
{
    if (!lets(mask, text_log) || _text_number >= _settings.texts->size())
        return std::nullopt;
    return record(text_log, plain_text_type, _settings.texts->at(_text_number++));
}

std::optional<QByteArray> LogSource::nextOfCycle(quint32 mask)
{
    for (size_t tried = 0; tried < cycle.size(); ++tried) {
        const Pattern &pattern = cycle.at(_cycle_position);
        _cycle_position = (_cycle_position + 1) % cycle.size();
        if (!lets(mask, pattern.log))
            continue;
        QByteArray data = pattern.data.toByteArray();
        if (pattern.log == text_log) {
            if (!data.isEmpty())
                data.prepend('#' + QByteArray::number(_text_number) + ' ');
            ++_text_number;
        }
        return record(pattern.log, pattern.type, data, pattern.long_milliseconds);
    }
    return std::nullopt;
}

QByteArray LogSource::record(quint8 log, quint8 type, const QByteArray &data, bool long_milliseconds) const
{
    const std::chrono::nanoseconds period = std::max(_settings.period.value_or(shortest_period), shortest_period);
    const auto time = _start + std::chrono::duration_cast<std::chrono::milliseconds>(period * _sent);
    const std::chrono::milliseconds carried = long_milliseconds && time >= 1s ? 1s : 0s;

    QByteArray bytes;
    wire::append(bytes, log);
    wire::append(bytes, static_cast<quint32>((time - carried) / 1s));
    wire::append(bytes, static_cast<quint16>((time % 1s + carried) / 1ms));
    wire::append(bytes, type);
    return bytes.append(data);
}
