// The protocol engine, on a port without a device and compared with a model: any order of requests, answers, records,
// garbage, time-outs, and a port that fails, also while it is written to, closes and opens again.

#include "jvxb.h"
#include "model.h"
#include "portdouble.h"
#include "target.h"

#include <QCoreApplication>
#include <QTimer>
#include <QTimerEvent>

#include <array>

namespace {

void dropMessage(QtMsgType /*type*/, const QMessageLogContext & /*context*/, const QString & /*message*/)
{
    // The framework warns each time that a closed port is written to.
}

/// What the slot of the next signal does besides recording it. EndAtError ends the oldest request, and waits for the
/// signal of an error of the port: while a result is reported, the oldest request may be the one that just ends.
struct Reaction {
    enum class Kind { None, Begin, Close, EndAtError };
    Kind kind = Kind::None;
    model::Request request;
};

/// Takes the reaction that is due at this signal out of \a waits; gives none if it waits for a signal of another kind.
Reaction takenFrom(Reaction &waits, bool is_error)
{
    return waits.kind == Reaction::Kind::EndAtError && !is_error ? Reaction() : std::exchange(waits, {});
}

/// The engine and the model of it, which have to do the same.
class Bench {
public:
    Bench()
        : _protocol(&_port, nullptr)
    {
        connectIdentification();
        connectFiles();
        connectLog();
        _model.onEvent = [this](bool is_error) { reactInModel(is_error); };
    }

    [[nodiscard]] const QList<std::shared_ptr<model::Request>> &pending() const { return _model.pending(); }

    void begin(const model::Request &request)
    {
        ++_begun;
        beginInProtocol(request);
        _model.begin(request);
    }

    void deliver(const QByteArray &bytes)
    {
        const qsizetype size = _piece_size > 0 ? _piece_size : bytes.size();
        for (qsizetype begin = 0; begin < bytes.size() && _port.isOpen(); begin += size) {
            _port.deliver(bytes.mid(begin, size));
            _model.receive(bytes.mid(begin, size));
            compare();
        }
    }

    void setPieceSize(qsizetype size) { _piece_size = size; }
    void setReaction(const Reaction &reaction) { _protocol_reaction = _model_reaction = reaction; }

    void close()
    {
        _port.close();
        _model.close();
    }

    void open()
    {
        if (!_port.isOpen())
            _port.openAgain();
        _model.open();
    }

    void timeOut(qsizetype index)
    {
        auto *const timer = transactions().at(index)->findChild<QTimer *>();
        QTimerEvent event(timer->timerId());
        QCoreApplication::sendEvent(timer, &event);
        _model.timeOut(index);
    }

    void end(qsizetype index)
    {
        endInProtocol(index);
        _model.end(index);
    }

    void clearError() { _port.fail(QSerialPort::NoError, QStringLiteral("none")); }

    void reportError()
    {
        _port.fail(QSerialPort::ResourceError, QStringLiteral("gone"));
        _model.reportError(QStringLiteral("gone"));
    }

    void failNextWrite()
    {
        _port.failNextWrite(QSerialPort::WriteError, QStringLiteral("stuck"));
        _model.failNextWrite(QStringLiteral("stuck"));
    }

    /// Lets the event loop turn, then requires that both have done the same since the last time and are in the same
    /// state.
    void compare()
    {
        QCoreApplication::sendPostedEvents(&_protocol);
        _model.turn();
        require(_events == _model.events, "signals are as the model's");
        require(_port.written().mid(_seen) == _model.written, "packets are as the model's");
        const QList<jvxb::Transaction *> waiting = transactions();
        require(waiting.size() == _model.pending().size(), "as many requests wait as in the model");
        for (qsizetype i = 0; i < waiting.size(); ++i) {
            const auto *const timer = waiting[i]->findChild<QTimer *>();
            require(waiting[i]->key() == _model.pending()[i]->key, "requests wait in the order of the model");
            require(timer->isActive() && timer->isSingleShot(), "a request that waits has its timer running");
            require(timer->interval() == (waiting[i]->key() == "FW" ? 5000 : 500), "each request has its own time");
        }
        _seen = _port.written().size();
        _events.clear();
        _model.events.clear();
        _model.written.clear();
    }

    /// Lets all requests that wait time out.
    void finish()
    {
        setReaction({});
        while (!pending().isEmpty()) {
            timeOut(0);
            compare();
        }
        require(_results == _begun, "each request has exactly one result");
    }

private:
    [[nodiscard]] QList<jvxb::Transaction *> transactions() const
    {
        return _protocol.findChildren<jvxb::Transaction *>(QString(), Qt::FindDirectChildrenOnly);
    }

    void beginInProtocol(const model::Request &request)
    {
        const auto file = static_cast<File>(request.kind);
        if (request.key == "V")
            _protocol.readSoftVersion();
        else if (request.key == "H")
            _protocol.readHardVersion();
        else if (request.key == "S")
            _protocol.readSerialNumber();
        else if (request.key == "FR")
            _protocol.readFile(file);
        else if (request.key == "FW")
            _protocol.writeFile(file, request.data);
        else if (request.key == "FU")
            _protocol.applyFile(file, request.parameter);
        else
            _protocol.logEnable(request.parameter);
    }

    void endInProtocol(qsizetype index)
    {
        --_begun;
        _protocol.end(transactions().at(index));
    }

    void record(const QByteArray &event, bool is_error = false)
    {
        _events += event;
        const Reaction reaction = takenFrom(_protocol_reaction, is_error);
        if (reaction.kind == Reaction::Kind::Begin) {
            ++_begun;
            beginInProtocol(reaction.request);
        } else if (reaction.kind == Reaction::Kind::Close) {
            _port.close();
        } else if (reaction.kind == Reaction::Kind::EndAtError && !transactions().isEmpty()) {
            endInProtocol(0);
        }
    }

    void recordResult(jvxb::Error error, bool is_empty, const QByteArray &event)
    {
        ++_results;
        require(error == jvxb::Error::None || is_empty, "on an error the other arguments are empty");
        record(event);
    }

    void reactInModel(bool is_error)
    {
        const Reaction reaction = takenFrom(_model_reaction, is_error);
        if (reaction.kind == Reaction::Kind::Begin)
            _model.begin(reaction.request);
        else if (reaction.kind == Reaction::Kind::Close)
            _model.close();
        else if (reaction.kind == Reaction::Kind::EndAtError && !_model.pending().isEmpty())
            _model.end(0);
    }

    static int code(jvxb::Error error) { return static_cast<int>(error); }
    static int code(File file) { return static_cast<int>(file); }

    void connectIdentification()
    {
        using jvxb::Error;
        using jvxb::Protocol;
        QObject::connect(&_protocol, &Protocol::softVersionReaded, &_port,
            [this](Error error, const QString &name, const QString &version, const QString &date,
                const QString &language) {
                recordResult(error, (name + version + date + language).isEmpty(),
                    model::event("software", code(error), name, version, date, language));
            });
        QObject::connect(&_protocol, &Protocol::hardVesionReaded, &_port, [this](Error error, quint64 bhr) {
            recordResult(error, bhr == 0, model::event("hardware", code(error), QString::number(bhr)));
        });
        QObject::connect(&_protocol, &Protocol::serialNumberReaded, &_port, [this](Error error, const QString &sn) {
            recordResult(error, sn.isEmpty(), model::event("serial", code(error), sn));
        });
        QObject::connect(&_protocol, &Protocol::errorOccured, &_port,
            [this](const QString &text) { record(model::event("error", text), true); });
    }

    void connectFiles()
    {
        using jvxb::Error;
        using jvxb::Protocol;
        QObject::connect(
            &_protocol, &Protocol::fileReaded, &_port, [this](Error error, File file, const QByteArray &data) {
                recordResult(error, data.isEmpty(), model::event("read", code(error), code(file), data));
            });
        QObject::connect(
            &_protocol, &Protocol::fileReadingProgress, &_port, [this](File file, int size, int full_size) {
                require(static_cast<quint32>(size) <= static_cast<quint32>(full_size),
                    "a read never goes beyond what was announced");
                record(model::event("reading", code(file), size, full_size));
            });
        QObject::connect(&_protocol, &Protocol::fileWritten, &_port, [this](Error error, File file) {
            recordResult(error, true, model::event("written", code(error), code(file)));
        });
        QObject::connect(
            &_protocol, &Protocol::fileWritingProgress, &_port, [this](File file, int size, int full_size) {
                record(model::event("writing", code(file), size, full_size));
            });
        QObject::connect(&_protocol, &Protocol::fileApplied, &_port, [this](Error error, File file) {
            recordResult(error, true, model::event("applied", code(error), code(file)));
        });
    }

    void connectLog()
    {
        using jvxb::Error;
        using jvxb::Protocol;
        QObject::connect(&_protocol, &Protocol::logEnabled, &_port, [this](Error error, quint32 mask) {
            recordResult(error, mask == 0, model::event("mask", code(error), static_cast<qint64>(mask)));
        });
        QObject::connect(&_protocol, &Protocol::logReceived, &_port,
            [this](jvxb::Log log, quint8 type, const QDateTime &time, const QByteArray &data) {
                record(model::event("log", static_cast<int>(log), type, time.toMSecsSinceEpoch(), data));
            });
    }

    PortDouble _port;
    jvxb::Protocol _protocol;
    model::Engine _model;
    QByteArrayList _events; ///< of the protocol, as the model writes them
    qsizetype _seen = 0;    ///< packets compared
    qsizetype _piece_size = 0;
    Reaction _protocol_reaction;
    Reaction _model_reaction;
    int _begun = 0;
    int _results = 0;
};

model::Request takeRequest(Input &input)
{
    static const std::array<QByteArray, 7> keys{"V", "H", "S", "FR", "FW", "FU", "LOG"};
    model::Request request;
    request.key = keys.at(input.byte() % keys.size());
    if (request.key == "FW") {
        const auto size = static_cast<qsizetype>(input.number(2) % 2000);
        const auto content = static_cast<char>(input.byte());
        request.data = QByteArray(size, content);
    }
    if (request.key.startsWith('F'))
        request.kind = input.byte();
    if (request.key == "FU" || request.key == "LOG")
        request.parameter = input.number(4);
    return request;
}

/// The value of a field: mostly \a usual, which is right, but any other in one case of 8.
quint32 field(Input &input, quint32 usual, int size)
{
    return input.byte() % 8 != 7 ? usual : input.number(size);
}

QByteArray fileAnswer(const model::Request &request, Input &input)
{
    const quint32 status = field(input, '1', 1);
    const quint32 kind = field(input, request.kind, 1);
    QByteArray payload = packets::number(status, 1) + packets::number(kind, 1);
    if (request.key == "FU")
        return payload + input.bytes();
    const quint32 length = field(input, 512, 2) % 1500;
    const quint8 handle = input.byte();
    const quint32 usual_offset = input.byte() * 128U;
    const quint32 offset = field(input, usual_offset, 4);
    payload += packets::number(handle, 4) + packets::number(offset, 4) + packets::number(length, 2);
    if (request.key == "FR") {
        const quint32 brought = field(input, length, 2) % 1500;
        const quint32 usual_size = static_cast<quint32>(request.data.size()) + input.byte() * 8U;
        const quint32 size = field(input, usual_size, 4);
        const auto content = static_cast<char>(input.byte());
        payload += packets::number(size, 4) + QByteArray(static_cast<qsizetype>(brought), content);
    }
    const quint32 missing = field(input, 0, 1);
    return payload.first(payload.size() - std::min<qsizetype>(missing, payload.size()));
}

QByteArray answerTo(const model::Request &request, Input &input)
{
    if (request.key.startsWith('F'))
        return packets::packet("*@" + request.key + fileAnswer(request, input));
    if (request.key == "LOG")
        return packets::packet("*@LOG" + input.bytes());
    static const std::array<QByteArray, 3> beginnings{"", ":", ":BHR:"};
    const QByteArray &beginning = beginnings.at(input.byte() % 3);
    return packets::packet("*#" + request.key + beginning + input.bytes());
}

void stepOfOneRequest(Bench &bench, Input &input)
{
    const qsizetype count = bench.pending().size();
    if (count == 0)
        return;
    const quint8 choice = input.byte();
    const qsizetype index = choice / 8 % count;
    if (choice % 8 == 6)
        bench.timeOut(index);
    else if (choice % 8 == 7)
        bench.end(index);
    else
        bench.deliver(answerTo(*bench.pending().at(index), input));
}

Reaction takeReaction(Input &input)
{
    switch (input.byte() % 3) {
    case 0:
        return {Reaction::Kind::Begin, takeRequest(input)};
    case 1:
        return {Reaction::Kind::Close, {}};
    default:
        return {Reaction::Kind::EndAtError, {}};
    }
}

void fail(Bench &bench, int manner)
{
    if (manner == 0)
        bench.clearError();
    else if (manner == 1)
        bench.reportError();
    else
        bench.failNextWrite();
}

void step(Bench &bench, Input &input)
{
    constexpr qsizetype most_requests = 20; // the model copies the list of them for each body
    switch (input.byte() % 10) {
    case 0:
        return bench.pending().size() < most_requests ? bench.begin(takeRequest(input)) : void();
    case 1:
        return bench.deliver(input.bytes());
    case 2:
        return bench.deliver(packets::packet(input.bytes()));
    case 3:
        return bench.deliver(packets::packet("*>LOG" + input.bytes()));
    case 4:
        return bench.close();
    case 5:
        return bench.open();
    case 6:
        return bench.setPieceSize(input.byte());
    case 7:
        return bench.setReaction(takeReaction(input));
    case 8:
        return fail(bench, input.byte() % 3);
    default:
        return stepOfOneRequest(bench, input);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static int argument_count = 1;
    static std::array<char, 5> name{"fuzz"};
    static std::array<char *, 2> arguments{name.data(), nullptr};
    static const QCoreApplication application(argument_count, arguments.data());
    qInstallMessageHandler(dropMessage);

    Input input(data, size);
    Bench bench;
    while (!input.isAtEnd()) {
        step(bench, input);
        bench.compare();
    }
    bench.finish();
    return 0;
}
