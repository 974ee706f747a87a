#include "jvxb.h"

#include "platform.h"
#include "stdoutput.h"

#include <QCoreApplication>
#include <QScopedValueRollback>

#include <algorithm>
#include <array>
#include <cstddef>

namespace jvxb {

namespace {

constexpr char start_character = '*';
constexpr char message_character = '>';
constexpr qsizetype start_offset = 0;
constexpr qsizetype direction_offset = 1;
constexpr qsizetype key_offset = 2;

constexpr int answer_timeout = 500; // ms
constexpr int write_timeout = 5000; // ms

/// The error with which \a answer ends its request, or nothing if it is a success. The status may be 0.
template <typename Answer>
std::optional<Error> refusal(const std::optional<Answer> &answer)
{
    if (!answer)
        return Error::UnknownResponse;
    if (!answer->isSuccess())
        return static_cast<Error>(answer->status);
    return {};
}

/// Appends in place. QByteArray::append() copies into a larger block, and a large file would be there twice meanwhile.
void append(QByteArray &data, QByteArrayView piece)
{
    const qsizetype size = data.size();
    data.resize(size + piece.size());
    std::copy(piece.begin(), piece.end(), data.begin() + size);
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
    if (body.size() < key_offset || body[direction_offset] != _answer || body.indexOf(_key) != key_offset)
        return -1;
    return key_offset + _key.size();
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

/// All that belongs to a command key.
struct Protocol::Exchange {
    const QByteArray &key;
    const QMetaObject &transaction_class; ///< what the handlers of the answer and of the failure need
    int timeout;                          ///< in milliseconds
    bool (Protocol::*recv)(Transaction *transaction, const QByteArray &payload);
    void (Protocol::*fail)(const Transaction *transaction, Error error);

    [[nodiscard]] bool takes(const Transaction *transaction) const
    {
        return transaction_class.cast(transaction) != nullptr;
    }
};

/// The row of \a key; null if there is none.
const Protocol::Exchange *Protocol::exchangeOf(const QByteArray &key)
{
    using P = Protocol;
    const QMetaObject &any = Transaction::staticMetaObject;
    const QMetaObject &file = FileCommand::staticMetaObject;
    static const std::array exchanges{
        Exchange{_soft_version_key, any, answer_timeout, &P::recvSoftVersion, &P::failSoftVersion},
        Exchange{_hard_version_key, any, answer_timeout, &P::recvHardVersion, &P::failHardVersion},
        Exchange{_serial_number_key, any, answer_timeout, &P::recvSerialNumber, &P::failSerialNumber},
        Exchange{_read_file_key, file, answer_timeout, &P::recvReadFile, &P::failReadFile},
        Exchange{_write_file_key, file, write_timeout, &P::recvWriteFile, &P::failWriteFile},
        Exchange{_apply_file_key, file, answer_timeout, &P::recvApplyFile, &P::failApplyFile},
        Exchange{_log_enable_key, any, answer_timeout, &P::recvLogEnable, &P::failLogEnable},
    };
    const auto *const found = std::find_if(
        exchanges.begin(), exchanges.end(), [&key](const Exchange &exchange) { return exchange.key == key; });
    return found == exchanges.end() ? nullptr : found;
}

/// The answer time of \a key, one of the table, in milliseconds.
int Protocol::timeoutOf(const QByteArray &key)
{
    return exchangeOf(key)->timeout;
}

Protocol::Protocol(QSerialPort *port, QObject *parent)
    : QObject(parent)
    , _port(port)
{
    connect(port, &QSerialPort::errorOccurred, this, &Protocol::onErrorOccurred);
    connect(port, &QSerialPort::readyRead, this, &Protocol::onReadyRead);
    connect(port, &QSerialPort::aboutToClose, this, &Protocol::onAboutToClose);
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

/// Sends at once, which saves a turn of the event loop; some systems go on with that in the background, and so does the
/// port when the line is full. When all of it is out, the second flush() saves another turn: it switches off the port's
/// write notifier.
void Protocol::send(Transaction *transaction)
{
    const QScopedValueRollback<bool> sending(_sending, true);
    const QByteArray bytes = packet(transaction->request());
    trace::sent(transaction->name(), transaction->payload().size(), bytes);
    if (_port->write(bytes) > 0 && _port->flush() && _port->bytesToWrite() == 0)
        _port->flush();
}

void Protocol::onErrorOccurred(QSerialPort::SerialPortError error)
{
    if (error == QSerialPort::NoError || platform::isLineFull(*_port))
        return;
    const QString text = _port->errorString();
    const auto report = [this, text] { Q_EMIT errorOccured(text); };
    if (_sending)
        QMetaObject::invokeMethod(this, report, Qt::QueuedConnection);
    else
        report();
}

/// Half a packet from before would swallow the first answers after the port is opened again.
void Protocol::onAboutToClose()
{
    trace::left(_received.bytes());
    trace::closed(_port->portName());
    _received.clear();
}

void Protocol::onTimeout()
{
    auto *const transaction = qobject_cast<Transaction *>(sender());
    if (!transaction)
        return;
    trace::timedOut(transaction->name());
    trace::left(_received.bytes());
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
    trace::received(body);
    if (body.size() < key_offset || body[start_offset] != start_character)
        return trace::unexpected();
    if (body[direction_offset] == message_character)
        return recvMessage(body);

    const auto answered = std::find_if(_queue.cbegin(), _queue.cend(),
        [&body](const Transaction *transaction) { return transaction->checkResponse(body) >= 0; });
    if (answered == _queue.cend())
        return trace::unexpected();
    // The handler may begin further transactions, so nothing refers into the queue while it runs.
    Transaction *const transaction = *answered;
    trace::answers(transaction->name());
    if (recvPacket(transaction, transaction->key(), body.sliced(transaction->checkResponse(body))))
        end(transaction);
}

bool Protocol::recvPacket(Transaction *transaction, const QByteArray &key, const QByteArray &payload)
{
    const Exchange *const exchange = exchangeOf(key);
    return !exchange || !exchange->takes(transaction) || (this->*exchange->recv)(transaction, payload);
}

bool Protocol::fail(const Transaction *transaction, Error error)
{
    const Exchange *const exchange = exchangeOf(transaction->key());
    if (exchange && exchange->takes(transaction))
        (this->*exchange->fail)(transaction, error);
    return true;
}

// ---- identification -----------------------------------------------------------------------------------------------

void Protocol::readSoftVersion()
{
    begin(new Ask(_soft_version_key, this, timeoutOf(_soft_version_key)));
}

void Protocol::readHardVersion()
{
    begin(new Ask(_hard_version_key, this, timeoutOf(_hard_version_key)));
}

void Protocol::readSerialNumber()
{
    begin(new Ask(_serial_number_key, this, timeoutOf(_serial_number_key)));
}

bool Protocol::recvSoftVersion(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = SoftVersionAnswer::parse(payload);
    if (!answer)
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT softVersionReaded(Error::None, answer->name, answer->version, answer->date, answer->language);
    return true;
}

void Protocol::failSoftVersion(const Transaction *, Error error)
{
    Q_EMIT softVersionReaded(error, {}, {}, {}, {});
}

bool Protocol::recvHardVersion(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = HardVersionAnswer::parse(payload);
    if (!answer)
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT hardVesionReaded(Error::None, answer->bhr);
    return true;
}

void Protocol::failHardVersion(const Transaction *, Error error)
{
    Q_EMIT hardVesionReaded(error, 0);
}

bool Protocol::recvSerialNumber(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = SerialNumberAnswer::parse(payload);
    if (!answer)
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT serialNumberReaded(Error::None, answer->sn);
    return true;
}

void Protocol::failSerialNumber(const Transaction *, Error error)
{
    Q_EMIT serialNumberReaded(error, {});
}

// ---- files --------------------------------------------------------------------------------------------------------

void Protocol::readFile(File file)
{
    readFileContinue(new FileCommand(file, {}, _read_file_key, this, timeoutOf(_read_file_key)), 0);
}

void Protocol::readFileContinue(FileCommand *command, uint handle)
{
    command->setPayload(readFileRequest(command->_file, handle, static_cast<quint32>(command->_data.size())));
    sendPiece(command);
}

// A piece of less than the greatest size is the last one, whatever size was announced.
bool Protocol::recvReadFile(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = ReadFileAnswer::parse(payload);
    if (const std::optional<Error> error = refusal(answer))
        return fail(transaction, *error);
    auto *const command = qobject_cast<FileCommand *>(transaction);
    if (answer->file != command->_file)
        return false;
    if (!answer->piece)
        return fail(transaction, Error::UnknownResponse);

    append(command->_data, *answer->piece);
    const auto size = static_cast<quint32>(command->_data.size());
    const quint32 full_size = answer->length < max_piece_size ? size : answer->full_size;
    if (size < full_size) {
        Q_EMIT fileReadingProgress(command->_file, static_cast<int>(size), static_cast<int>(full_size));
        readFileContinue(command, answer->handle);
        return false;
    }
    Q_EMIT fileReadingProgress(command->_file, static_cast<int>(full_size), static_cast<int>(full_size));
    command->_data.truncate(full_size);
    Q_EMIT fileReaded(Error::None, command->_file, command->_data);
    return true;
}

void Protocol::failReadFile(const Transaction *transaction, Error error)
{
    Q_EMIT fileReaded(error, qobject_cast<const FileCommand *>(transaction)->_file, {});
}

void Protocol::writeFile(File file, const QByteArray &data)
{
    writeFileContinue(new FileCommand(file, data, _write_file_key, this, timeoutOf(_write_file_key)), 0, 0);
}

void Protocol::writeFileContinue(FileCommand *command, uint offset, uint handle)
{
    command->setPayload(writeFileRequest(command->_file, handle, offset, command->_data));
    sendPiece(command);
}

bool Protocol::recvWriteFile(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = WriteFileAnswer::parse(payload);
    if (const std::optional<Error> error = refusal(answer))
        return fail(transaction, *error);
    auto *const command = qobject_cast<FileCommand *>(transaction);
    if (answer->file != command->_file)
        return false;

    const quint32 next = answer->offset + answer->length;
    const auto total = static_cast<quint32>(command->_data.size());
    Q_EMIT fileWritingProgress(command->_file, static_cast<int>(next), static_cast<int>(total));
    if (next < total) {
        writeFileContinue(command, next, answer->handle);
        return false;
    }
    Q_EMIT fileWritten(Error::None, command->_file);
    return true;
}

void Protocol::failWriteFile(const Transaction *transaction, Error error)
{
    Q_EMIT fileWritten(error, qobject_cast<const FileCommand *>(transaction)->_file);
}

void Protocol::applyFile(File file, uint checksum)
{
    auto *const command = new FileCommand(file, {}, _apply_file_key, this, timeoutOf(_apply_file_key));
    command->setPayload(applyFileRequest(file, checksum));
    begin(command);
}

bool Protocol::recvApplyFile(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = ApplyFileAnswer::parse(payload);
    if (const std::optional<Error> error = refusal(answer))
        return fail(transaction, *error);
    if (answer->file != qobject_cast<FileCommand *>(transaction)->_file)
        return false;
    Q_EMIT fileApplied(Error::None, answer->file);
    return true;
}

void Protocol::failApplyFile(const Transaction *transaction, Error error)
{
    Q_EMIT fileApplied(error, qobject_cast<const FileCommand *>(transaction)->_file);
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

void Protocol::logEnable(quint32 mask)
{
    auto *const command = new Command(_log_enable_key, this, timeoutOf(_log_enable_key));
    command->setPayload(logEnableRequest(mask));
    begin(command);
}

bool Protocol::recvLogEnable(Transaction *transaction, const QByteArray &payload)
{
    const auto answer = LogEnableAnswer::parse(payload);
    if (!answer)
        return fail(transaction, Error::UnknownResponse);
    Q_EMIT logEnabled(Error::None, answer->mask);
    return true;
}

void Protocol::failLogEnable(const Transaction *, Error error)
{
    Q_EMIT logEnabled(error, 0);
}

void Protocol::recvMessage(const QByteArray &body)
{
    if (body.indexOf(_log_key) == key_offset)
        recvLog(body.sliced(key_offset + _log_key.size()));
}

void Protocol::recvLog(const QByteArray &record)
{
    if (const auto received = LogRecord::parse(record))
        Q_EMIT logReceived(received->log, received->type, received->datetime, received->data);
}

} // namespace jvxb
