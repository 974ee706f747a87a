#pragma once

#include "packets.h"
#include "slowsearch.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <utility>

/// The protocol a second time, step by step as docs/protocol.md tells it, without a thought for speed and without any
/// code of the tool.
namespace model {

using packets::numberAt;

// One line of text for each signal: its name, then its arguments.
inline QByteArray text(qint64 value)
{
    return QByteArray::number(value);
}

inline QByteArray text(const QString &value)
{
    return '"' + value.toUtf8() + '"';
}

inline QByteArray text(const QByteArray &value)
{
    return value.toHex();
}

template <typename... Arguments>
QByteArray event(const char *name, const Arguments &...arguments)
{
    QByteArray line = name;
    ((line += ' ' + text(arguments)), ...);
    return line;
}

/// A request and how far it has got.
struct Request {
    QByteArray key;
    quint8 kind = 0;       ///< of a file request
    QByteArray data;       ///< a write: the whole file; a read: what has come of it
    quint32 parameter = 0; ///< the log mask, or the checksum of the file to apply
};

/// The tool's end of the line. What it does is kept until the caller has looked at it.
class Engine {
public:
    QByteArrayList events;  ///< signals
    QByteArrayList written; ///< packets

    /// Called after each signal, before anything else is done; \a is_error: the signal reports an error of the port.
    std::function<void(bool is_error)> onEvent;

    [[nodiscard]] const QList<std::shared_ptr<Request>> &pending() const { return _pending; }

    void begin(const Request &request)
    {
        const auto begun = std::make_shared<Request>(request);
        _pending.append(begun);
        if (begun->key == "FR")
            askForPiece(*begun, 0);
        else if (begun->key == "FW")
            sendPiece(*begun, 0, 0);
        else if (begun->key == "FU")
            write("*!FU" + packets::number(begun->kind, 1) + packets::number(0, 4)
                + packets::number(begun->parameter, 4));
        else if (begun->key == "LOG")
            write("*!LOG" + packets::number(begun->parameter, 4));
        else
            write("*?" + begun->key);
    }

    void receive(const QByteArray &bytes)
    {
        _stream.append(bytes);
        while (const std::optional<QByteArray> body = _stream.takeBody())
            take(*body);
    }

    void open() { _is_open = true; }

    void close()
    {
        _is_open = false;
        _stream.clear();
    }

    void timeOut(qsizetype index)
    {
        const std::shared_ptr<Request> request = _pending.at(index);
        fail(*request, -1);
        _pending.removeOne(request);
    }

    void end(qsizetype index) { _pending.removeAt(index); }

    void reportError(const QString &text) { report(event("error", text), true); }

    /// The next write to the open port takes nothing, which turn() reports with \a text.
    void failNextWrite(const QString &text) { _next_error = text; }

    /// A turn of the event loop: reports the errors of writes.
    void turn()
    {
        while (!_unreported.isEmpty())
            reportError(_unreported.takeFirst());
    }

private:
    void write(const QByteArray &body)
    {
        if (!_is_open)
            return;
        if (_next_error.isEmpty())
            written += packets::request(body);
        else
            _unreported += std::exchange(_next_error, {});
    }

    void report(const QByteArray &event, bool is_error = false)
    {
        events += event;
        onEvent(is_error);
    }

    void askForPiece(const Request &request, quint64 handle)
    {
        write("*!FR" + packets::number(request.kind, 1) + packets::number(handle, 4)
            + packets::number(static_cast<quint64>(request.data.size()), 4) + packets::number(512, 2));
    }

    void sendPiece(const Request &request, quint64 handle, quint32 offset)
    {
        const QByteArray piece = request.data.mid(offset, 512);
        write("*!FW" + packets::number(request.kind, 1) + packets::number(handle, 4) + packets::number(offset, 4)
            + packets::number(static_cast<quint64>(piece.size()), 2)
            + packets::number(static_cast<quint64>(request.data.size()), 4) + piece);
    }

    void take(const QByteArray &body)
    {
        if (body[0] != '*')
            return;
        if (body.startsWith("*>LOG") && body.size() >= 5 + 8)
            takeRecord(body.sliced(5));
        for (const std::shared_ptr<Request> &request : QList(_pending)) {
            const bool asks = request->key.size() == 1;
            if (body[1] != (asks ? '#' : '@') || body.indexOf(request->key) != 2)
                continue;
            if (takeAnswer(*request, body.sliced(2 + request->key.size())))
                _pending.removeOne(request);
            return;
        }
    }

    void takeRecord(const QByteArray &record)
    {
        const quint64 time = numberAt(record, 1, 4) * 1000 + numberAt(record, 5, 2);
        report(event("log", static_cast<quint8>(record[0]), static_cast<quint8>(record[7]), static_cast<qint64>(time),
            record.sliced(8)));
    }

    /// Takes the answer to \a request. Returns whether the request is finished.
    bool takeAnswer(Request &request, const QByteArray &payload)
    {
        if (request.key == "V" || request.key == "H" || request.key == "S")
            return takeIdentity(request, payload);
        if (request.key == "LOG") {
            if (payload.size() < 4)
                return fail(request, -2);
            report(event("mask", 0, static_cast<qint64>(numberAt(payload, 0, 4))));
            return true;
        }
        if (payload.isEmpty())
            return fail(request, -2);
        if (payload[0] != '1')
            return fail(request, static_cast<signed char>(payload[0]));
        if (payload.size() < (request.key == "FU" ? 6 : 12))
            return fail(request, -2);
        if (static_cast<quint8>(payload[1]) != request.kind)
            return false;
        if (request.key == "FR")
            return takePiece(request, payload);
        if (request.key == "FW")
            return takeAcknowledgement(request, payload);
        report(event("applied", 0, request.kind));
        return true;
    }

    bool takeIdentity(const Request &request, const QByteArray &payload)
    {
        if (!payload.startsWith(':'))
            return fail(request, -2);
        const QByteArray content = payload.sliced(1);
        if (request.key == "S") {
            report(event("serial", 0, QString::fromLocal8Bit(content)));
        } else if (request.key == "H") {
            const bool is_word = content.startsWith("BHR:") && content.size() >= 4 + 8;
            report(event("hardware", 0, QString::number(is_word ? numberAt(content, 4, 8) : 0)));
        } else {
            const QStringList fields
                = QString::fromLocal8Bit(content).split(QLatin1Char(':')) + QStringList{{}, {}, {}};
            report(event("software", 0, fields[0], fields[1], fields[2], fields[3]));
        }
        return true;
    }

    bool takePiece(Request &request, const QByteArray &payload)
    {
        const auto length = static_cast<qsizetype>(numberAt(payload, 10, 2));
        if (payload.size() < 16 + length)
            return fail(request, -2);
        request.data += payload.sliced(16, length);
        const auto size = static_cast<quint32>(request.data.size());
        const quint32 full_size = length < 512 ? size : static_cast<quint32>(numberAt(payload, 12, 4));
        if (size < full_size) {
            report(event("reading", request.kind, static_cast<int>(size), static_cast<int>(full_size)));
            askForPiece(request, numberAt(payload, 2, 4));
            return false;
        }
        report(event("reading", request.kind, static_cast<int>(full_size), static_cast<int>(full_size)));
        report(event("read", 0, request.kind, request.data.first(full_size)));
        return true;
    }

    bool takeAcknowledgement(const Request &request, const QByteArray &payload)
    {
        const auto next = static_cast<quint32>(numberAt(payload, 6, 4) + numberAt(payload, 10, 2));
        const auto total = static_cast<quint32>(request.data.size());
        report(event("writing", request.kind, static_cast<int>(next), static_cast<int>(total)));
        if (next < total) {
            sendPiece(request, numberAt(payload, 2, 4), next);
            return false;
        }
        report(event("written", 0, request.kind));
        return true;
    }

    /// Reports the request as failed, with nothing but the error; true.
    bool fail(const Request &request, int error)
    {
        const QString none;
        if (request.key == "V")
            report(event("software", error, none, none, none, none));
        else if (request.key == "H")
            report(event("hardware", error, QStringLiteral("0")));
        else if (request.key == "S")
            report(event("serial", error, none));
        else if (request.key == "FR")
            report(event("read", error, request.kind, QByteArray()));
        else if (request.key == "FW")
            report(event("written", error, request.kind));
        else if (request.key == "FU")
            report(event("applied", error, request.kind));
        else
            report(event("mask", error, 0));
        return true;
    }

    SlowSearch _stream;
    QList<std::shared_ptr<Request>> _pending; ///< oldest first
    bool _is_open = true;
    QString _next_error;     ///< of the next write, empty: none
    QStringList _unreported; ///< errors of writes, until the next turn of the event loop
};

} // namespace model
