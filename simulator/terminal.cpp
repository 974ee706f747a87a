#include "terminal.h"

#include "wire.h"

#include <QTimer>

#include <array>
#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr auto install_time = 1s;

constexpr quint8 firmware_kind = 1;

// Small, as true error codes are; neither 0, which would read as no error, nor the "1" of a success.
constexpr int largest_random_status = 15;

constexpr qsizetype answered_kind_offset = 1;

/// An answer that looks like \a payload, but is about another kind of file.
QByteArray foreignAnswer(QByteArray payload)
{
    const int kind = static_cast<quint8>(payload[answered_kind_offset]);
    payload[answered_kind_offset] = static_cast<char>((kind + 1) % FileStore::kind_count);
    return payload;
}

} // namespace

/// One kind of request. No key is the beginning of another one, so a body names its command without a separator.
struct Terminal::Command {
    QByteArrayView key;
    char direction; ///< "?" asks, "!" commands
    qsizetype minimum_payload;
    qsizetype maximum_payload;
    bool is_about_file; ///< then the payload begins with the file's kind, the answer's with a status and the kind
    Reply (Terminal::*handle)(const QByteArray &payload);

    static const std::array<Command, 7> all;

    [[nodiscard]] QByteArray answer(const QByteArray &payload) const
    {
        QByteArray body;
        body.append(wire::start_character).append(direction == '?' ? '#' : '@').append(key).append(payload);
        return wire::makePacket(body);
    }
};

const std::array<Terminal::Command, 7> Terminal::Command::all = {{
    {QByteArrayView("V"), '?', 0, 0, false, &Terminal::softwareVersion},
    {QByteArrayView("H"), '?', 0, 0, false, &Terminal::hardwareVersion},
    {QByteArrayView("S"), '?', 0, 0, false, &Terminal::serialNumber},
    {QByteArrayView("FR"), '!', FileTransfers::read_request_size, FileTransfers::read_request_size, true,
        &Terminal::readFile},
    {QByteArrayView("FW"), '!', FileTransfers::write_request_size,
        FileTransfers::write_request_size + FileTransfers::piece_size, true, &Terminal::writeFile},
    {QByteArrayView("FU"), '!', FileTransfers::apply_request_size, FileTransfers::apply_request_size, true,
        &Terminal::applyFile},
    {QByteArrayView("LOG"), '!', 4, 4, false, &Terminal::setLogMask},
}};

Terminal::Terminal(TerminalSettings settings, QObject *parent)
    : QObject(parent)
    , _settings(std::move(settings))
    , _transfers(_settings.transfers)
    , _log(_settings.log)
    , _dice(_settings.seed)
    , _software_version(_settings.software_version)
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

QList<QByteArray> Terminal::fileKeys()
{
    QList<QByteArray> keys;
    for (const Command &command : Command::all) {
        if (command.is_about_file)
            keys.append(command.key.toByteArray());
    }
    return keys;
}

void Terminal::receive(const QByteArray &bytes)
{
    if (_is_applying)
        Q_EMIT malformedReceived(QStringLiteral("bytes behind an apply"), bytes);
    if (!_on_bus)
        return;
    _has_heard = true;
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

bool Terminal::sendLogRecord()
{
    if (!_on_bus)
        return false;
    const std::optional<QByteArray> record = _log.next(effectiveMask());
    if (!record)
        return false;
    Q_EMIT volunteered(wire::makePacket(QByteArray("*>LOG") + *record));
    return true;
}

void Terminal::powerUp()
{
    _is_applying = false;
    _has_heard = false;
    _mask = _settings.mask;
    _transfers.forget();
    _on_bus = true;
}

const Terminal::Command *Terminal::findCommand(QByteArrayView body)
{
    const QByteArrayView behind_direction = body.sliced(wire::key_offset);
    for (const Command &command : Command::all) {
        if (behind_direction.startsWith(command.key))
            return &command;
    }
    return nullptr;
}

QString Terminal::faultOf(const Command *command, QByteArrayView body)
{
    if (body[0] != wire::start_character)
        return QStringLiteral("wrong start character");
    if (command == nullptr)
        return QStringLiteral("unknown key");
    if (body[wire::direction_offset] != command->direction)
        return QStringLiteral("wrong direction character");
    const qsizetype payload_size = body.size() - wire::key_offset - command->key.size();
    if (payload_size < command->minimum_payload || payload_size > command->maximum_payload)
        return QStringLiteral("wrong payload size");
    return {};
}

void Terminal::handlePacket(const QByteArray &packet)
{
    const bool is_drop_point = ++_packet_count == _settings.drop.packet;
    if (!is_drop_point || _settings.drop.after_answer)
        handleRequest(packet);
    if (is_drop_point && _on_bus)
        dropOff();
}

void Terminal::handleRequest(const QByteArray &packet)
{
    const QByteArray body = packet.sliced(wire::header_size);
    const Command *command = findCommand(body);
    if (const QString fault = faultOf(command, body); !fault.isEmpty()) {
        Q_EMIT malformedReceived(fault, packet);
        return;
    }
    serve(*command, packet);
}

void Terminal::serve(const Command &command, const QByteArray &packet)
{
    const QByteArray key = command.key.toByteArray();
    const RequestNumber number{key, ++_request_counts[key]};
    if (_settings.vanishing_keys.contains(key)) {
        dropOff();
        return;
    }
    if (_settings.silent_keys.contains(key))
        return;

    const Reply reply = replyTo(command, number, packet.sliced(wire::header_size + wire::key_offset + key.size()));
    if (!reply.complaint.isEmpty())
        Q_EMIT misplacedReceived(reply.complaint, packet);
    if (reply.payload)
        sendAnswer(command, number, *reply.payload);
    if (reply.restarts)
        restart(reply.payload.has_value());
}

Reply Terminal::replyTo(const Command &command, const RequestNumber &number, const QByteArray &payload)
{
    if (const auto fixed = _settings.fixed_answers.constFind(number.first); fixed != _settings.fixed_answers.cend())
        return {*fixed, {}};
    if (const auto status = _settings.statuses.constFind(number); status != _settings.statuses.cend())
        return refuse(*status, payload);
    if (command.is_about_file && _dice.oneIn(_settings.error_rate))
        return refuse(static_cast<quint8>(1 + _dice.below(largest_random_status)), payload);
    return (this->*command.handle)(payload);
}

Reply Terminal::refuse(quint8 status, const QByteArray &payload)
{
    _transfers.forget();
    return {FileTransfers::refusal(status, static_cast<quint8>(payload.front())), {}};
}

void Terminal::sendAnswer(const Command &command, const RequestNumber &number, const QByteArray &payload)
{
    if (precedesWithForeign(command, number) && payload.size() > answered_kind_offset)
        Q_EMIT volunteered(command.answer(foreignAnswer(payload)));
    if (_settings.logs_always)
        sendLogRecord();
    Q_EMIT answered(command.answer(payload));
    if (_settings.logs_always)
        sendLogRecord();
}

bool Terminal::precedesWithForeign(const Command &command, const RequestNumber &number)
{
    return _settings.foreign_answers.contains(number) || (command.is_about_file && _dice.oneIn(_settings.foreign_rate));
}

quint32 Terminal::effectiveMask() const
{
    constexpr quint32 every_log = 0xFFFFFFFF;
    if (_settings.logs_always)
        return _has_heard ? every_log : 0;
    return _mask;
}

/// A terminal that installs firmware without an answer answers nothing for a while before it drops off.
void Terminal::restart(bool has_answered)
{
    _is_applying = true;
    if (!_stream.isEmpty())
        Q_EMIT malformedReceived(QStringLiteral("bytes behind an apply"), std::exchange(_stream, {}));
    if (has_answered) {
        dropOff();
        return;
    }
    _on_bus = false;
    QTimer::singleShot(install_time, this, &Terminal::dropOff);
}

void Terminal::dropOff()
{
    _on_bus = false;
    _stream.clear();
    if (!_settings.last_bytes.isEmpty())
        Q_EMIT volunteered(_settings.last_bytes);
    Q_EMIT droppedOff();
}

// NOLINTNEXTLINE(readability-make-member-function-const): the table of commands holds no const ones
Reply Terminal::softwareVersion(const QByteArray & /*payload*/)
{
    const QStringList fields{{}, _settings.name, _software_version, _settings.date, _settings.language};
    return {fields.join(QLatin1Char(':')).toUtf8(), {}};
}

// NOLINTNEXTLINE(readability-make-member-function-const): the table of commands holds no const ones
Reply Terminal::hardwareVersion(const QByteArray & /*payload*/)
{
    QByteArray answer(":BHR:");
    wire::append(answer, _settings.bhr);
    return {answer, {}};
}

Reply Terminal::serialNumber(const QByteArray & /*payload*/)
{
    return {QByteArray(":") + _settings.imei.toUtf8(), {}};
}

Reply Terminal::readFile(const QByteArray &payload)
{
    return _transfers.read(payload);
}

Reply Terminal::writeFile(const QByteArray &payload)
{
    return _transfers.write(payload);
}

Reply Terminal::applyFile(const QByteArray &payload)
{
    Reply reply = _transfers.apply(payload);
    const bool is_firmware = static_cast<quint8>(payload.front()) == firmware_kind;
    if (!reply.restarts || !is_firmware)
        return reply;
    _software_version = _settings.next_software_version.value_or(_software_version);
    if (_settings.restarts_before_firmware_answer)
        reply.payload.reset();
    return reply;
}

Reply Terminal::setLogMask(const QByteArray &payload)
{
    _mask = wire::read<quint32>(payload, 0);
    QByteArray answer;
    wire::append(answer, _settings.reported_mask.value_or(_mask));
    return {answer, {}};
}
