#pragma once

#include <QByteArray>
#include <QByteArrayList>

#include <chrono>
#include <optional>

struct LogSettings {
    /// Time from one record to the next; zero: as fast as the line takes them; none: only what --log-always glues on.
    std::optional<std::chrono::nanoseconds> period;
    std::optional<qsizetype> count;      ///< records to send in all; none: no end
    std::optional<QByteArrayList> texts; ///< the texts to send, once through; none: the built-in cycle
    std::optional<quint32> start;        ///< time of the first record, seconds since 1970; none: now
};

/// The records of the terminal's log, one after the other. The same settings and masks give the same records.
///
/// Record, integers little-endian:
///
///     offset  size  field
///          0     1  number of the log; log n is enabled by bit n of the mask
///          1     4  seconds since 1970-01-01 00:00:00 UTC
///          5     2  milliseconds to add, possibly more than 999
///          7     1  type
///          8     -  data; in log 14 UTF-8 text with or without a line end
///
/// The built-in cycle runs through texts of several shapes and records of the logs 3 and 5. Every text that is not
/// empty begins with "#N ", N counting the records of log 14 from 0 on, empty ones included.
class LogSource {
public:
    explicit LogSource(const LogSettings &settings);

    /// The next record that \a mask lets through; nothing when it lets none through or all have been sent.
    std::optional<QByteArray> next(quint32 mask);

private:
    [[nodiscard]] std::optional<QByteArray> nextText(quint32 mask);
    [[nodiscard]] std::optional<QByteArray> nextOfCycle(quint32 mask);
    [[nodiscard]] QByteArray record(
        quint8 log, quint8 type, const QByteArray &data, bool long_milliseconds = false) const;

    const LogSettings _settings;
    const std::chrono::milliseconds _start;
    qsizetype _sent = 0;        ///< records of all logs
    qsizetype _text_number = 0; ///< records of log 14
    size_t _cycle_position = 0;
};
