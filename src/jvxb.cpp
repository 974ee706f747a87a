#include "jvxb.h"

#include "stdoutput.h"

#include <QCoreApplication>
#include <QStringList>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <numeric>

namespace jvxb {

namespace {

constexpr QByteArrayView magic = "@JVX";
constexpr qsizetype header_size = 16;
constexpr qsizetype body_length_offset = 12;
constexpr qsizetype body_checksum_offset = 14;
constexpr qsizetype min_body_size = 3;

constexpr char start_character = '*';
constexpr char message_character = '>';

constexpr int answer_timeout = 500; // ms
constexpr int write_timeout = 5000; // ms

constexpr quint32 max_piece_size = 512;

template <typename T>
void appendLittleEndian(QByteArray &bytes, T value)
{
    std::array<char, sizeof(T)> field{};
    qToLittleEndian(value, field.data());
    bytes.append(field.data(), field.size());
}

/// The field of \a bytes at \a offset, which the caller has checked to be there.
template <typename T>
T littleEndian(const QByteArray &bytes, qsizetype offset)
{
    return qFromLittleEndian<T>(bytes.constData() + offset);
}

/// The file kind that a transaction of the keys FR, FW and FU is about.
File fileOf(const Transaction *transaction)
{
    return static_cast<const FileCommand *>(transaction)->_file;
}

/// Every answer to a file request begins with a status, "1" for success, and the file kind.
/// \return the error that \a payload reports, or nothing if it is a success of at least \a min_size bytes
std::optional<Error> refusal(const QByteArray &payload, qsizetype min_size)
{
    if (payload.isEmpty())
        return Error::UnknownResponse;
    if (payload[0] != '1')
        return static_cast<Error>(payload[0]);
    if (payload.size() < min_size)
        return Error::UnknownResponse;
    return {};
}

/// Whether a file answer, of 2 bytes at least, is about another kind than \a command.
bool isForeign(const QByteArray &payload, const Transaction *command)
{
    return static_cast<File>(payload[1]) != fileOf(command);
}

char exclusiveOr(QByteArrayView bytes)
{
    return std::accumulate(bytes.begin(), bytes.end(), '\0', std::bit_xor<>());
}

} // namespace

// ---- errors -------------------------------------------------------------------------------------------------------

const char *errorText(Error error)
{
    static constexpr std::array error_items{
        QT_TRANSLATE_NOOP("jvxb", "None"),
        QT_TRANSLATE_NOOP("jvxb", "Timeout"),
        QT_TRANSLATE_NOOP("jvxb", "Unknown response"),
        QT_TRANSLATE_NOOP("jvxb", "Unknown"),
    };
    const auto index = static_cast<std::size_t>(-static_cast<int>(error));
    return error_items[std::min(index, error_items.size() - 1)];
}

StdOutput &operator<<(StdOutput &output, Error error)
{
    const int value = static_cast<int>(error);
    if (value > 0)
        return output << value;
    const QString text = QCoreApplication::translate("jvxb", errorText(error));
    return output << QStringLiteral("%1(%2)").arg(text, QString::number(value));
}

// ---- packets ------------------------------------------------------------------------------------------------------

QByteArray packet(const QByteArray &body)
{
    QByteArray bytes = magic.toByteArray();
    bytes.reserve(header_size + body.size());
    appendLittleEndian<quint32>(bytes, 0);
    appendLittleEndian<quint32>(bytes, 1);
    appendLittleEndian(bytes, static_cast<quint16>(body.size()));
    bytes.append(exclusiveOr(body));
    bytes.append(exclusiveOr(bytes));
    return bytes + body;
}

void ReceiveBuffer::append(QByteArrayView bytes)
{
    _bytes.append(bytes);
    for (const char byte : bytes)
        _sums.append(static_cast<char>(_sums.back() ^ byte));
}

void ReceiveBuffer::clear()
{
    drop(_bytes.size());
}

std::optional<QByteArray> ReceiveBuffer::takeBody()
{
    while (seekMagic()) {
        if (!headerIsValid()) {
            drop(magic.size());
            continue;
        }
        const qsizetype length = bodyLength();
        if (_bytes.size() < header_size + length)
            return {};
        const char announced = _bytes[body_checksum_offset];
        drop(header_size);
        if (checksum(length) != announced)
            continue;
        QByteArray body = _bytes.first(length);
        drop(length);
        return body;
    }
    return {};
}

/// Brings the next magic to the front. False: wait for more bytes.
bool ReceiveBuffer::seekMagic()
{
    if (_bytes.size() < header_size)
        return false;
    const qsizetype position = _bytes.indexOf(magic);
    drop(position < 0 ? _bytes.size() : position);
    return _bytes.size() >= header_size;
}

bool ReceiveBuffer::headerIsValid() const
{
    return checksum(header_size - 1) == _bytes[header_size - 1] && bodyLength() >= min_body_size;
}

quint16 ReceiveBuffer::bodyLength() const
{
    return littleEndian<quint16>(_bytes, body_length_offset);
}

char ReceiveBuffer::checksum(qsizetype count) const
{
    return static_cast<char>(_sums.front() ^ _sums[count]);
}

void ReceiveBuffer::drop(qsizetype count)
{
    _bytes.remove(0, count);
    _sums.remove(0, count);
}

// ---- transactions -------------------------------------------------------------------------------------------------

Transaction::Transaction(char request, char answer, const QByteArray &key, QObject *parent, int timeout)
    : QObject(parent)
    , _key(key)
    , _timer(new QTimer(this))
    , _request(request)
    , _answer(answer)
{
    _timer->setSingleShot(true);
    _timer->setTimerType(Qt::PreciseTimer); // a coarse timer may fire 5 % early
    _timer->setInterval(timeout);
    connect(_timer, &QTimer::timeout, this, &Transaction::timeout);
}

QByteArray Transaction::request() const
{
    return QByteArray{}.append(start_character).append(_request).append(_key).append(_payload);
}

qsizetype Transaction::checkResponse(const QByteArray &body) const
{
    if (body.size() < 2 || body[1] != _answer || body.indexOf(_key) != 2)
        return -1;
    return 2 + _key.size();
}

void Transaction::start()
{
    _timer->start();
}

void Transaction::restart()
{
    stop();
    start();
}

void Transaction::stop()
{
    _timer->stop();
}

Ask::Ask(const QByteArray &key, QObject *parent, int timeout)
    : Transaction('?', '#', key, parent, timeout)
{
}

Command::Command(const QByteArray &key, QObject *parent, int timeout)
    : Transaction('!', '@', key, parent, timeout)
{
}

FileCommand::FileCommand(File file, const QByteArray &data, const QByteArray &key, QObject *parent, int timeout)
    : Command(key, parent, timeout)
    , _file(file)
    , _data(data)
{
}

// ---- engine -------------------------------------------------------------------------------------------------------

const QByteArray Protocol::_soft_version_key = QByteArrayLiteral("V");
const QByteArray Protocol::_hard_version_key = QByteArrayLiteral("H");
const QByteArray Protocol::_serial_number_key = QByteArrayLiteral("S");
const QByteArray Protocol::_read_file_key = QByteArrayLiteral("FR");
const QByteArray Protocol::_write_file_key = QByteArrayLiteral("FW");
const QByteArray Protocol::_apply_file_key = QByteArrayLiteral("FU");
const QByteArray Protocol::_log_enable_key = QByteArrayLiteral("LOG");
const QByteArray Protocol::_log_key = QByteArrayLiteral("LOG");

Protocol::Protocol(QSerialPort *port, QObject *parent)
    : QObject(parent)
    , _port(port)
{
    connect(port, &QSerialPort::errorOccurred, this, &Protocol::onErrorOccurred);
    connect(port, &QSerialPort::readyRead, this, &Protocol::onReadyRead);
    // Half a packet from before would swallow the first answers after the port is opened again.
    connect(port, &QSerialPort::aboutToClose, this, [this] { _received.clear(); });
}

void Protocol::begin(Transaction *transaction)
{
    _queue.append(transaction);
    connect(transaction, &Transaction::timeout, this, &Protocol::onTimeout);
    send(transaction);
    transaction->start();
}

void Protocol::continuE(Transaction *transaction)
{
    send(transaction);
    transaction->restart();
}

void Protocol::end(Transaction *transaction)
{
    transaction->stop();
    _queue.removeOne(transaction);
    delete transaction;
}

void Protocol::send(Transaction *transaction)
{
    _port->write(packet(transaction->request()));
}

void Protocol::onErrorOccurred(QSerialPort::SerialPortError error)
{
    if (error != QSerialPort::NoError)
        Q_EMIT errorOccured(_port->errorString());
}

void Protocol::onTimeout()
{
    auto *const transaction = qobject_cast<Transaction *>(sender());
    if (!transaction)
        return;
    fail(transaction, Error::Timeout);
    end(transaction);
}

void Protocol::onReadyRead()
{
    for (QByteArray bytes = _port->readAll(); !bytes.isEmpty(); bytes = _port->readAll())
        _received.append(bytes);
    findPacket();
}

void Protocol::findPacket()
{
    while (const std::optional<QByteArray> body = _received.takeBody())
        recvPacket(*body);
}

void Protocol::recvPacket(const QByteArray &body)
{
    if (body.size() < 2 || body[0] != start_character)
        return;
    if (body[1] == message_character)
        return recvMessage(body);

    const auto answered = std::find_if(_queue.cbegin(), _queue.cend(),
        [&body](const Transaction *transaction) { return transaction->checkResponse(body) >= 0; });
    if (answered == _queue.cend())
        return;
    // The handler may begin further transactions, so nothing refers into the queue while it runs.
    Transaction *const transaction = *answered;
    if (recvPacket(transaction, transaction->key(), body.sliced(transaction->checkResponse(body))))
        end(transaction);
}

bool Protocol::recvPacket(Transaction *transaction, const QByteArray &key, const QByteArray &payload)
{
    if (key == _soft_version_key)
        return recvSoftVersion(transaction, payload);
    if (key == _hard_version_key)
        return recvHardVersion(transaction, payload);
    if (key == _serial_number_key)
        return recvSerialNumber(transaction, payload);
    if (key == _read_file_key)
        return recvReadFile(transaction, payload);
    if (key == _write_file_key)
        return recvWriteFile(transaction, payload);
    if (key == _apply_file_key)
        return recvApplyFile(transaction, payload);
    if (key == _log_enable_key)
        return recvLogEnable(transaction, payload);
    return true;
}

bool Protocol::fail(const Transaction *transaction, Error error)
{
    const QByteArray key = transaction->key();
    if (key == _soft_version_key)
        Q_EMIT softVersionReaded(error, {}, {}, {}, {});
    else if (key == _hard_version_key)
        Q_EMIT hardVesionReaded(error, 0);
    else if (key == _serial_number_key)
        Q_EMIT serialNumberReaded(error, {});
    else if (key == _read_file_key)
        Q_EMIT fileReaded(error, fileOf(transaction), {});
    else if (key == _write_file_key)
        Q_EMIT fileWritten(error, fileOf(transaction));
    else if (key == _apply_file_key)
        Q_EMIT fileApplied(error, fileOf(transaction));
    else if (key == _log_enable_key)
        Q_EMIT logEnabled(error, 0);
    return true;
}

// ---- identification -----------------------------------------------------------------------------------------------

void Protocol::readSoftVersion()
{
    begin(new Ask(_soft_version_key, this, answer_timeout));
}

void Protocol::readHardVersion()
{
    begin(new Ask(_hard_version_key, this, answer_timeout));
}

void Protocol::readSerialNumber()
{
    begin(new Ask(_serial_number_key, this, answer_timeout));
}

// Answer payload: ":", then up to four texts separated by ":" in the local 8-bit encoding.
bool Protocol::recvSoftVersion(Transaction *transaction, const QByteArray &payload)
{
    if (!payload.startsWith(':'))
        return fail(transaction, Error::UnknownResponse);
    const QStringList fields = QString::fromLocal8Bit(payload.sliced(1)).split(QLatin1Char(':'));
    Q_EMIT softVersionReaded(Error::None, fields.value(0), fields.value(1), fields.value(2), fields.value(3));
    return true;
}

// Answer payload:
//
//     offset size field
//          0    5 ":BHR:"
//          5    8 hardware version word, little-endian
//         13      ignored
//
// Another tag, or a word cut short, is no error: the word is 0 then.
bool Protocol::recvHardVersion(Transaction *transaction, const QByteArray &payload)
{
    if (!payload.startsWith(':'))
        return fail(transaction, Error::UnknownResponse);
    const bool has_word = payload.startsWith(":BHR:") && payload.size() >= 5 + 8;
    Q_EMIT hardVesionReaded(Error::None, has_word ? littleEndian<quint64>(payload, 5) : 0);
    return true;
}

// Answer payload: ":", then the serial number in the local 8-bit encoding.
bool Protocol::recvSerialNumber(Transaction *transaction, const QByteArray &payload)
{
    if (!payload.startsWith(':'))
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT serialNumberReaded(Error::None, QString::fromLocal8Bit(payload.sliced(1)));
    return true;
}

// ---- files --------------------------------------------------------------------------------------------------------

void Protocol::readFile(File file)
{
    readFileContinue(new FileCommand(file, {}, _read_file_key, this, answer_timeout), 0);
}

// Request payload, little-endian:
//
//     offset size field
//          0    1 file kind
//          1    4 handle: 0 at first, then that of the answer before
//          5    4 offset: bytes received so far
//          9    2 largest piece, 512
void Protocol::readFileContinue(FileCommand *command, uint handle)
{
    QByteArray data(1, static_cast<char>(command->_file));
    appendLittleEndian<quint32>(data, handle);
    appendLittleEndian(data, static_cast<quint32>(command->_data.size()));
    appendLittleEndian(data, static_cast<quint16>(max_piece_size));
    command->setPayload(data);
    sendPiece(command);
}

// Answer payload, little-endian:
//
//     offset size field
//          0    1 status
//          1    1 file kind
//          2    4 handle, to be sent back with the next request
//          6    4 offset of the piece, not checked
//         10    2 length of the piece
//         12    4 size of the whole file
//         16      piece
//
// A piece of less than 512 bytes is the last one, whatever size was announced.
bool Protocol::recvReadFile(Transaction *transaction, const QByteArray &payload)
{
    constexpr qsizetype piece_offset = 16;
    if (const std::optional<Error> error = refusal(payload, 12))
        return fail(transaction, *error);
    if (isForeign(payload, transaction))
        return false;
    const auto length = littleEndian<quint16>(payload, 10);
    if (length > payload.size() - piece_offset)
        return fail(transaction, Error::UnknownResponse);

    auto *const command = static_cast<FileCommand *>(transaction);
    command->_data.append(payload.constData() + piece_offset, length);
    const auto size = static_cast<quint32>(command->_data.size());
    const auto full_size = length < max_piece_size ? size : littleEndian<quint32>(payload, 12);
    if (size < full_size) {
        Q_EMIT fileReadingProgress(command->_file, static_cast<int>(size), static_cast<int>(full_size));
        readFileContinue(command, littleEndian<quint32>(payload, 2));
        return false;
    }
    Q_EMIT fileReadingProgress(command->_file, static_cast<int>(full_size), static_cast<int>(full_size));
    Q_EMIT fileReaded(Error::None, command->_file, command->_data.left(full_size));
    return true;
}

void Protocol::writeFile(File file, const QByteArray &data)
{
    writeFileContinue(new FileCommand(file, data, _write_file_key, this, write_timeout), 0, 0);
}

// Request payload, little-endian:
//
//     offset size field
//          0    1 file kind
//          1    4 handle: 0 at first, then that of the answer before
//          5    4 offset of the piece
//          9    2 length of the piece
//         11    4 size of the whole file
//         15      piece
void Protocol::writeFileContinue(FileCommand *command, uint offset, uint handle)
{
    const auto total = static_cast<quint32>(command->_data.size());
    const quint32 length = std::min(total - offset, max_piece_size);
    QByteArray data(1, static_cast<char>(command->_file));
    appendLittleEndian<quint32>(data, handle);
    appendLittleEndian<quint32>(data, offset);
    appendLittleEndian(data, static_cast<quint16>(length));
    appendLittleEndian(data, total);
    data.append(command->_data.mid(offset, length));
    command->setPayload(data);
    sendPiece(command);
}

// Answer payload, little-endian:
//
//     offset size field
//          0    1 status
//          1    1 file kind
//          2    4 handle, to be sent back with the next request
//          6    4 offset of the piece
//         10    2 number of bytes accepted, which may be less than were sent
//         12      ignored
bool Protocol::recvWriteFile(Transaction *transaction, const QByteArray &payload)
{
    if (const std::optional<Error> error = refusal(payload, 12))
        return fail(transaction, *error);
    if (isForeign(payload, transaction))
        return false;

    auto *const command = static_cast<FileCommand *>(transaction);
    const quint32 next = littleEndian<quint32>(payload, 6) + littleEndian<quint16>(payload, 10);
    const auto total = static_cast<quint32>(command->_data.size());
    Q_EMIT fileWritingProgress(command->_file, static_cast<int>(next), static_cast<int>(total));
    if (next < total) {
        writeFileContinue(command, next, littleEndian<quint32>(payload, 2));
        return false;
    }
    Q_EMIT fileWritten(Error::None, command->_file);
    return true;
}

// Request payload, little-endian:
//
//     offset size field
//          0    1 file kind
//          1    4 handle, always 0
//          5    4 CRC-32 of the file
void Protocol::applyFile(File file, uint checksum)
{
    QByteArray data(1, static_cast<char>(file));
    appendLittleEndian<quint32>(data, 0);
    appendLittleEndian<quint32>(data, checksum);
    auto *const command = new FileCommand(file, {}, _apply_file_key, this, answer_timeout);
    command->setPayload(data);
    begin(command);
}

// Answer payload: status, file kind, and 4 bytes or more that are ignored.
bool Protocol::recvApplyFile(Transaction *transaction, const QByteArray &payload)
{
    if (const std::optional<Error> error = refusal(payload, 6))
        return fail(transaction, *error);
    if (isForeign(payload, transaction))
        return false;
    Q_EMIT fileApplied(Error::None, fileOf(transaction));
    return true;
}

/// Sends the request in \a command, its first or a further one; each has the full answer time.
void Protocol::sendPiece(FileCommand *command)
{
    if (_queue.contains(command))
        continuE(command);
    else
        begin(command);
}

// ---- log ----------------------------------------------------------------------------------------------------------

// Request payload: the mask, 4 bytes, little-endian.
void Protocol::logEnable(quint32 mask)
{
    QByteArray data;
    appendLittleEndian(data, mask);
    auto *const command = new Command(_log_enable_key, this, answer_timeout);
    command->setPayload(data);
    begin(command);
}

// Answer payload: the mask in force, 4 bytes, little-endian; the rest is ignored.
bool Protocol::recvLogEnable(Transaction *transaction, const QByteArray &payload)
{
    if (payload.size() < 4)
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT logEnabled(Error::None, littleEndian<quint32>(payload, 0));
    return true;
}

void Protocol::recvMessage(const QByteArray &body)
{
    if (body.indexOf(_log_key) == 2)
        recvLog(body.sliced(2 + _log_key.size()));
}

// Record, little-endian:
//
//     offset size field
//          0    1 log
//          1    4 seconds since 1970-01-01 00:00:00 UTC
//          5    2 milliseconds to add, 1000 and more included
//          7    1 type
//          8      data, possibly empty
void Protocol::recvLog(const QByteArray &record)
{
    constexpr qsizetype data_offset = 8;
    if (record.size() < data_offset)
        return;
    const qint64 seconds = littleEndian<quint32>(record, 1);
    const qint64 milliseconds = littleEndian<quint16>(record, 5);
    Q_EMIT logReceived(static_cast<Log>(record[0]), static_cast<quint8>(record[7]),
        QDateTime::fromMSecsSinceEpoch(seconds * 1000 + milliseconds), record.sliced(data_offset));
}

} // namespace jvxb
