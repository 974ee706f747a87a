#include "terminal.h"

#include "wire.h"

#include <array>

/// One kind of request. No key is the beginning of another one, so a body names its command without a separator.
struct Terminal::Command {
    QByteArrayView key;
    char direction; ///< "?" asks, "!" commands
    qsizetype payloadSize;
    QByteArray (Terminal::*handle)(const QByteArray &payload); ///< returns the payload of the answer

    static const std::array<Command, 4> all;

    [[nodiscard]] char answerDirection() const { return direction == '?' ? '#' : '@'; }
};

const std::array<Terminal::Command, 4> Terminal::Command::all = {{
    {QByteArrayView("V"), '?', 0, &Terminal::softwareVersion},
    {QByteArrayView("H"), '?', 0, &Terminal::hardwareVersion},
    {QByteArrayView("S"), '?', 0, &Terminal::serialNumber},
    {QByteArrayView("LOG"), '!', 4, &Terminal::setLogMask},
}};

Terminal::Terminal(TerminalSettings settings, QObject *parent)
    : QObject(parent)
    , _settings(std::move(settings))
    , _mask(_settings.mask)
{
}

QList<QByteArray> Terminal::keys()
{
    QList<QByteArray> keys;
    for (const Command &command : Command::all)
        keys.append(command.key.toByteArray());
    return keys;
}

void Terminal::receive(const QByteArray &bytes)
{
    if (!_on_bus)
        return;
    _stream.append(bytes);
    while (_on_bus) {
        const wire::Item item = wire::takeItem(_stream);
        switch (item.kind) {
        case wire::Item::Kind::Incomplete:
            return;
        case wire::Item::Kind::Malformed:
            Q_EMIT malformedReceived(item.reason, item.bytes);
            break;
        case wire::Item::Kind::Packet:
            Q_EMIT packetReceived(item.bytes);
            handlePacket(item.bytes);
            break;
        }
    }
}

void Terminal::loseLine()
{
    if (!_stream.isEmpty())
        Q_EMIT malformedReceived(QStringLiteral("incomplete packet"), _stream);
    _stream.clear();
}

void Terminal::powerUp()
{
    _mask = _settings.mask;
    _on_bus = true;
}

const Terminal::Command *Terminal::findCommand(QByteArrayView body)
{
    const QByteArrayView behindDirection = body.sliced(wire::keyOffset);
    for (const Command &command : Command::all) {
        if (behindDirection.startsWith(command.key))
            return &command;
    }
    return nullptr;
}

QString Terminal::faultOf(const Command *command, QByteArrayView body)
{
    if (body[0] != wire::startCharacter)
        return QStringLiteral("wrong start character");
    if (command == nullptr)
        return QStringLiteral("unknown key");
    if (body[wire::directionOffset] != command->direction)
        return QStringLiteral("wrong direction character");
    if (body.size() != wire::keyOffset + command->key.size() + command->payloadSize)
        return QStringLiteral("wrong payload size");
    return {};
}

void Terminal::handlePacket(const QByteArray &packet)
{
    const QByteArray body = packet.sliced(wire::headerSize);
    const Command *command = findCommand(body);
    if (const QString fault = faultOf(command, body); !fault.isEmpty()) {
        Q_EMIT malformedReceived(fault, packet);
        return;
    }
    serve(*command, body.sliced(wire::keyOffset + command->key.size()));
}

void Terminal::serve(const Command &command, const QByteArray &payload)
{
    const QByteArray key = command.key.toByteArray();
    if (_settings.vanishingKeys.contains(key)) {
        dropOff();
        return;
    }
    if (_settings.silentKeys.contains(key))
        return;
    const QByteArray answer = (this->*command.handle)(payload);
    sendAnswer(command, _settings.fixedAnswers.value(key, answer));
}

void Terminal::sendAnswer(const Command &command, const QByteArray &payload)
{
    QByteArray body;
    body.append(wire::startCharacter).append(command.answerDirection()).append(command.key).append(payload);
    Q_EMIT answered(wire::makePacket(body));
}

void Terminal::dropOff()
{
    _on_bus = false;
    _stream.clear();
    Q_EMIT droppedOff();
}

QByteArray Terminal::softwareVersion(const QByteArray & /*payload*/)
{
    const QStringList fields{{}, _settings.name, _settings.softwareVersion, _settings.date, _settings.language};
    return fields.join(QLatin1Char(':')).toUtf8();
}

QByteArray Terminal::hardwareVersion(const QByteArray & /*payload*/)
{
    QByteArray answer(":BHR:");
    wire::append(answer, _settings.bhr);
    return answer;
}

QByteArray Terminal::serialNumber(const QByteArray & /*payload*/)
{
    return QByteArray(":") + _settings.imei.toUtf8();
}

QByteArray Terminal::setLogMask(const QByteArray &payload)
{
    _mask = wire::read<quint32>(payload, 0);
    QByteArray answer;
    wire::append(answer, _mask);
    return answer;
}
