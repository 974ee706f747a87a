#include "value.h"

#include <QFile>
#include <QFileInfo>

namespace {

constexpr qsizetype longest_delay = 86400; // s
constexpr double slowest_rate = 0.001;     // per second
constexpr double fastest_rate = 1000000;   // per second

} // namespace

Value::Value(QString option, const QString &text)
    : _option(std::move(option))
    , _whole(text)
    , _text(text)
{
}

std::pair<Value, Value> Value::split(char separator) const
{
    const qsizetype position = _text.indexOf(QLatin1Char(separator));
    if (position < 0)
        throw bad();
    return {part(_text.first(position)), part(_text.sliced(position + 1))};
}

qsizetype Value::number(qsizetype minimum, qsizetype maximum) const
{
    bool valid = false;
    const qsizetype number = _text.toLongLong(&valid);
    if (!valid || number < minimum || number > maximum)
        throw bad();
    return number;
}

quint32 Value::word() const
{
    return static_cast<quint32>(number(0, std::numeric_limits<quint32>::max()));
}

int Value::oneIn() const
{
    return static_cast<int>(number(1, std::numeric_limits<int>::max()));
}

int Value::ordinal() const
{
    bool valid = false;
    const int number = _text.toInt(&valid);
    if (!valid || number < 1)
        throw bad(QStringLiteral("counting starts at 1"));
    return number;
}

quint64 Value::hexNumber(quint64 maximum) const
{
    bool valid = false;
    const quint64 number = _text.toULongLong(&valid, 16);
    if (!valid || number > maximum)
        throw bad();
    return number;
}

quint32 Value::mask() const
{
    return static_cast<quint32>(hexNumber(std::numeric_limits<quint32>::max()));
}

const QString &Value::text(qsizetype longest) const
{
    if (_text.toUtf8().size() > longest)
        throw bad(QStringLiteral("longer than %1 bytes").arg(longest));
    return _text;
}

QByteArray Value::bytes(qsizetype longest) const
{
    QByteArray decoded = QByteArray::fromHex(_text.toLatin1());
    if (decoded.size() > longest)
        throw bad(QStringLiteral("longer than %1 bytes").arg(longest));
    if (decoded.toHex() != _text.toLatin1().toLower()) // fromHex skips what is no digit
        throw bad();
    return decoded;
}

quint8 Value::byte() const
{
    const QByteArray decoded = bytes();
    if (decoded.size() != 1)
        throw bad();
    return static_cast<quint8>(decoded.front());
}

std::chrono::milliseconds Value::milliseconds() const
{
    return std::chrono::milliseconds(number(0, longest_delay * 1000));
}

std::chrono::milliseconds Value::seconds() const
{
    return std::chrono::milliseconds(qRound64(fraction(0, longest_delay) * 1000));
}

std::chrono::nanoseconds Value::periodOfRate() const
{
    if (_text == QStringLiteral("max"))
        return std::chrono::nanoseconds::zero();
    return std::chrono::nanoseconds(qRound64(1e9 / fraction(slowest_rate, fastest_rate)));
}

QByteArray Value::key() const
{
    return keyAmong(Terminal::keys());
}

RequestNumber Value::requestNumber() const
{
    const auto [key, number] = split(':');
    return {key.keyAmong(Terminal::fileKeys()), number.ordinal()};
}

DropPoint Value::dropPoint() const
{
    if (!_text.contains(QLatin1Char(':')))
        return {ordinal(), false};
    const auto [packet, moment] = split(':');
    const bool after_answer = moment._text == QStringLiteral("after");
    if (!after_answer && moment._text != QStringLiteral("before"))
        throw bad();
    return {packet.ordinal(), after_answer};
}

QString Value::directory() const
{
    if (!_text.isEmpty() && !QFileInfo(_text).isDir())
        throw UsageError(QStringLiteral("'%1' is not a directory").arg(_text));
    return _text;
}

QByteArrayList Value::linesOfFile(qsizetype longest) const
{
    QFile file(_text);
    if (!file.open(QIODevice::ReadOnly))
        throw UsageError(QStringLiteral("cannot open '%1': %2").arg(_text, file.errorString()));
    QByteArrayList lines;
    while (!file.atEnd()) {
        QByteArray line = file.readLine();
        if (line.endsWith('\n'))
            line.chop(1);
        if (line.size() > longest)
            throw UsageError(QStringLiteral("line too long in '%1'").arg(_text));
        lines.append(line);
    }
    return lines;
}

Value Value::part(const QString &text) const
{
    Value part = *this;
    part._text = text;
    return part;
}

/// A decimal fraction from \a minimum to \a maximum.
double Value::fraction(double minimum, double maximum) const
{
    bool valid = false;
    const double number = _text.toDouble(&valid);
    if (!valid || !(number >= minimum && number <= maximum)) // the negation refuses "nan" as well
        throw bad();
    return number;
}

QByteArray Value::keyAmong(const QList<QByteArray> &keys) const
{
    QByteArray key = _text.toUtf8();
    if (!keys.contains(key))
        throw bad(QStringLiteral("the keys are %1").arg(QString::fromUtf8(keys.join(", "))));
    return key;
}

UsageError Value::bad(const QString &reason) const
{
    const QString fault = QStringLiteral("bad value '%1' of option --%2").arg(_whole, _option);
    return UsageError(reason.isEmpty() ? fault : fault + QStringLiteral(": ") + reason);
}
