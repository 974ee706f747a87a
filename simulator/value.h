#pragma once

#include "terminal.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

/// A command line that cannot be obeyed; what() is one line of English.
class UsageError : public std::runtime_error {
public:
    explicit UsageError(const QString &text)
        : std::runtime_error(text.toStdString())
    {
    }
};

/// What was typed for an option of the command line, or a part of it. Each function reads it as something else and
/// throws UsageError when it makes no sense as that.
class Value {
public:
    /// \param option name of the option, without dashes
    Value(QString option, const QString &text);

    [[nodiscard]] const QString &text() const { return _text; }
    /// A text of \a longest bytes at most.
    [[nodiscard]] const QString &text(qsizetype longest) const;

    /// What stands before and behind the first \a separator.
    [[nodiscard]] std::pair<Value, Value> split(char separator) const;

    /// A decimal number from \a minimum to \a maximum.
    [[nodiscard]] qsizetype number(qsizetype minimum, qsizetype maximum) const;
    /// A decimal number of 32 bits.
    [[nodiscard]] quint32 word() const;
    /// The N of "one in N", 1 or more.
    [[nodiscard]] int oneIn() const;
    /// The N of "the Nth", 1 or more.
    [[nodiscard]] int ordinal() const;

    /// A hexadecimal number up to \a maximum.
    [[nodiscard]] quint64 hexNumber(quint64 maximum = std::numeric_limits<quint64>::max()) const;
    /// A hexadecimal number of 32 bits.
    [[nodiscard]] quint32 mask() const;
    /// Bytes written as pairs of hexadecimal digits, \a longest at most.
    [[nodiscard]] QByteArray bytes(qsizetype longest = std::numeric_limits<qsizetype>::max()) const;
    /// A byte written as two hexadecimal digits.
    [[nodiscard]] quint8 byte() const;

    /// A decimal number of milliseconds, up to a day.
    [[nodiscard]] std::chrono::milliseconds milliseconds() const;
    /// A decimal fraction of seconds, up to a day.
    [[nodiscard]] std::chrono::milliseconds seconds() const;
    /// The time between two records, from their number per second; zero for "max".
    [[nodiscard]] std::chrono::nanoseconds periodOfRate() const;

    /// The key of any request.
    [[nodiscard]] QByteArray key() const;
    /// KEY:N, the key being one about files.
    [[nodiscard]] RequestNumber requestNumber() const;
    /// N[:before|after]
    [[nodiscard]] DropPoint dropPoint() const;

    /// A directory that is there, or nothing.
    [[nodiscard]] QString directory() const;
    /// The lines of a file without their line ends; each is \a longest bytes at most.
    [[nodiscard]] QByteArrayList linesOfFile(qsizetype longest) const;

private:
    [[nodiscard]] Value part(const QString &text) const;
    [[nodiscard]] double fraction(double minimum, double maximum) const;
    [[nodiscard]] QByteArray keyAmong(const QList<QByteArray> &keys) const;
    [[nodiscard]] UsageError bad(const QString &reason = {}) const;

    QString _option;
    QString _whole; ///< all that was typed, for the error
    QString _text;  ///< the part in question
};
