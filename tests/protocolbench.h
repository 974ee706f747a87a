#pragma once

#include "jvxb.h"
#include "portdouble.h"

#include <QByteArrayList>
#include <QElapsedTimer>

/// A protocol on a port double, with everything that the protocol has reported.
class ProtocolBench {
public:
    ProtocolBench()
        : protocol(&port, nullptr)
    {
        recordIdentification();
        recordFiles();
        recordLogs();
        _since_start.start();
    }

    /// Pending transactions, in the order of their creation.
    QList<jvxb::Transaction *> pending() const { return protocol.findChildren<jvxb::Transaction *>(); }

    /// The latest line of results, empty if there is none.
    QByteArray lastResult() const { return results.value(results.size() - 1); }

    /// Milliseconds from the construction to the latest line of results.
    qint64 lastResultAt() const { return _last_result; }

    /// Milliseconds since the construction.
    qint64 now() const { return _since_start.elapsed(); }

    PortDouble port;
    jvxb::Protocol protocol;

    /// One line for each signal: its name, then its arguments; a file as its number of bytes. Records of the log apart.
    QByteArrayList results;
    QByteArray file;     ///< data of the latest fileReaded
    QByteArrayList logs; ///< data of each logReceived

private:
    static QByteArray text(jvxb::Error error) { return QByteArray::number(static_cast<int>(error)); }
    static QByteArray text(File kind) { return QByteArray::number(static_cast<int>(kind)); }
    static QByteArray text(int value) { return QByteArray::number(value); }
    static QByteArray text(quint32 value) { return QByteArray::number(value); }
    static QByteArray text(quint64 value) { return QByteArray::number(value); }
    static QByteArray text(const QString &value) { return '"' + value.toUtf8() + '"'; }
    static QByteArray text(const QByteArray &value) { return QByteArray::number(value.size()) + " bytes"; }

    template <typename... Arguments>
    void record(const char *name, const Arguments &...arguments)
    {
        results.append(QByteArray(name) + ' ' + QByteArrayList{text(arguments)...}.join(' '));
        _last_result = now();
    }

    template <typename... Arguments>
    void recordSignal(const char *name, void (jvxb::Protocol::*signal)(Arguments...))
    {
        QObject::connect(
            &protocol, signal, &port, [this, name](Arguments... arguments) { record(name, arguments...); });
    }

    void recordIdentification()
    {
        recordSignal("errorOccured", &jvxb::Protocol::errorOccured);
        recordSignal("softVersionReaded", &jvxb::Protocol::softVersionReaded);
        recordSignal("hardVesionReaded", &jvxb::Protocol::hardVesionReaded);
        recordSignal("serialNumberReaded", &jvxb::Protocol::serialNumberReaded);
    }

    void recordFiles()
    {
        recordSignal("fileReadingProgress", &jvxb::Protocol::fileReadingProgress);
        recordSignal("fileReaded", &jvxb::Protocol::fileReaded);
        recordSignal("fileWritingProgress", &jvxb::Protocol::fileWritingProgress);
        recordSignal("fileWritten", &jvxb::Protocol::fileWritten);
        recordSignal("fileApplied", &jvxb::Protocol::fileApplied);
        QObject::connect(&protocol, &jvxb::Protocol::fileReaded, &port,
            [this](jvxb::Error, File, const QByteArray &data) { file = data; });
    }

    void recordLogs()
    {
        recordSignal("logEnabled", &jvxb::Protocol::logEnabled);
        QObject::connect(&protocol, &jvxb::Protocol::logReceived, &port,
            [this](jvxb::Log, quint8, const QDateTime &, const QByteArray &data) { logs.append(data); });
    }

    QElapsedTimer _since_start;
    qint64 _last_result = -1;
};
