#include "jvxb/trace.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QLoggingCategory>
#include <QSerialPortInfo>
#include <QSysInfo>

#include <algorithm>

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

QByteArray text(const Name &name)
{
    return name.direction + name.key;
}

/// The first 64 of \a bytes, which may be many.
QByteArray beginning(QByteArrayView bytes)
{
    constexpr qsizetype most = 64;
    const QByteArray shown = bytes.first(std::min(bytes.size(), most)).toByteArray().toHex(' ');
    return bytes.size() > most ? shown + " ..." : shown;
}

QString identifier(quint16 number)
{
    return QStringLiteral("%1").arg(number, 4, 16, QLatin1Char('0'));
}

/// What the system knows of \a port.
QString description(const QSerialPortInfo &port)
{
    if (!port.hasVendorIdentifier())
        return QStringLiteral("not on USB");
    return QStringLiteral("%1:%2 %3")
        .arg(identifier(port.vendorIdentifier()), identifier(port.productIdentifier()), port.description());
}

} // namespace

void began()
{
    if (!wire().isDebugEnabled())
        return;
    qCDebug(wire).noquote().nospace() << now() << QCoreApplication::applicationName() << ' '
                                      << QCoreApplication::applicationVersion() << ", " << QSysInfo::prettyProductName()
                                      << ' ' << QSysInfo::currentCpuArchitecture() << ", Qt " << qVersion() << ", "
                                      << QDate::currentDate().toString(Qt::ISODate);
    for (const QSerialPortInfo &port : QSerialPortInfo::availablePorts())
        qCDebug(wire).noquote().nospace() << now() << "port " << port.portName() << " seen: " << description(port);
}

void taken(const QString &name, const char *why)
{
    if (name.isEmpty())
        qCDebug(wire).noquote().nospace() << now() << "no port taken: " << why;
    else
        qCDebug(wire).noquote().nospace() << now() << "port " << name << " taken: " << why;
}

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

void sent(const Name &name, qsizetype payload_size, const QByteArray &packet)
{
    qCDebug(wire).noquote().nospace() << now() << "sent " << text(name) << ", payload " << payload_size
                                      << " B: " << packet.toHex(' ');
}

void timedOut(const Name &name)
{
    qCDebug(wire).noquote().nospace() << now() << "no answer to " << text(name) << " in time";
}

void skipped(QByteArrayView skipped, const char *reason)
{
    qCDebug(wire).noquote().nospace() << now() << "skipped " << skipped.size() << " B: " << reason << ": "
                                      << beginning(skipped);
}

void left(QByteArrayView bytes)
{
    if (!bytes.isEmpty())
        qCDebug(wire).noquote().nospace() << now() << "no packet yet in " << bytes.size() << " B: " << beginning(bytes);
}

void received(const QByteArray &body)
{
    qCDebug(wire).noquote().nospace() << now() << "body " << body.size() << " B: " << body.toHex(' ');
}

void answers(const Name &name)
{
    qCDebug(wire).noquote().nospace() << now() << "it answers " << text(name);
}

void unexpected()
{
    qCDebug(wire).noquote().nospace() << now() << "nobody waits for it";
}

} // namespace jvxb::trace
