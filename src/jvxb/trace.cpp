#include "jvxb/trace.h"

#include <QDateTime>
#include <QDebug>
#include <QLoggingCategory>

#include <chrono>

namespace jvxb::trace {

namespace {

Q_LOGGING_CATEGORY(wire, "jvx.wire", QtInfoMsg)

/// The time that a line begins with, and a blank.
QString now()
{
    using namespace std::chrono;
    const qint64 time = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    const QString milliseconds = QDateTime::fromMSecsSinceEpoch(time / 1000).toString(QStringLiteral("hh:mm:ss.zzz"));
    return QStringLiteral("%1%2 ").arg(milliseconds).arg(time % 1000, 3, 10, QLatin1Char('0'));
}

} // namespace

void opened(const QString &name)
{
    qCDebug(wire).noquote().nospace() << now() << "port " << name << " opened";
}

void closed(const QString &name)
{
    qCDebug(wire).noquote().nospace() << now() << "port " << name << " closed";
}

void failed(const QString &text)
{
    qCDebug(wire).noquote().nospace() << now() << "port error: " << text;
}

void sent(const QByteArray &name, qsizetype payload_size, const QByteArray &packet)
{
    qCDebug(wire).noquote().nospace() << now() << "sent " << name << ", payload " << payload_size
                                      << " B: " << packet.toHex(' ');
}

void timedOut(const QByteArray &name)
{
    qCDebug(wire).noquote().nospace() << now() << "no answer to " << name << " in time";
}

void skipped(qsizetype count, const char *reason)
{
    qCDebug(wire).noquote().nospace() << now() << "skipped " << count << " B: " << reason;
}

void received(const QByteArray &body)
{
    qCDebug(wire).noquote().nospace() << now() << "body " << body.size() << " B: " << body.toHex(' ');
}

void answers(const QByteArray &name)
{
    qCDebug(wire).noquote().nospace() << now() << "it answers " << name;
}

void unexpected()
{
    qCDebug(wire).noquote().nospace() << now() << "nobody waits for it";
}

} // namespace jvxb::trace
