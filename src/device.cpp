#include "device.h"

#include "crc.h"
#include "jvxb/trace.h"
#include "outputreader.h"
#include "platform.h"
#include "stdoutput.h"
#include "stringlistselectordialog.h"

#include <QCoreApplication>
#include <QFile>
#include <QSerialPortInfo>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <csignal>
#include <limits>
#include <optional>

using namespace std::chrono_literals;
using jvxb::Protocol;

namespace {

constexpr quint16 vendor_identifier = 0x03EB;
constexpr quint16 product_identifier = 0x6124;

constexpr auto before_operation = 1ms; // after a successful reopen
constexpr auto before_reopen = 100ms;
constexpr auto between_attempts = 1s;
constexpr auto sending_time = 100ms; // for what the system writes in the background
constexpr auto restart_time = 5s;
constexpr int reopen_attempts = 60; // after the first one

constexpr qint64 largest_file = std::numeric_limits<int>::max(); // bytes; checksum and progress count in int

constexpr jvxb::Log text_log{14};
constexpr quint32 text_log_mask = 1U << 14U;

constexpr int output_error = 1; // as of any command whose output cannot be written
constexpr int port_error = -110;
constexpr int file_error = -111;
constexpr int reopen_error = -112;

bool isTerminal(const QSerialPortInfo &port)
{
    return port.vendorIdentifier() == vendor_identifier && port.productIdentifier() == product_identifier;
}

QString firstKey(File file)
{
    return FileInfo::info(file).keys.constFirst();
}

/// How many percent of \a full_size bytes \a size bytes are; 100 if there are none at all. The multiplication wraps at
/// 32 bits, so that files above 21 million bytes show odd figures, even negative ones.
int percentOf(int size, int full_size)
{
    if (full_size == 0)
        return 100;
    const auto product = static_cast<qint32>(static_cast<quint32>(size) * 100U);
    return static_cast<qint32>(qint64{product} / full_size);
}

/// All bytes of \a file, which is open; nothing if there are more than largest_file. A pipe does not tell beforehand.
std::optional<QByteArray> contentOf(QFile &file)
{
    constexpr qint64 piece_size = 1 << 20;
    if (file.size() > largest_file)
        return {};
    QByteArray content;
    content.reserve(file.size());
    while (content.size() <= largest_file) {
        const QByteArray piece = file.read(piece_size);
        if (piece.isEmpty())
            return content;
        content += piece;
    }
    return {};
}

void printProgress(const QString &completed, int size, int full_size)
{
    StdOutput(false) << "\r" << percentOf(size, full_size) << completed << size << "/" << full_size << ")";
}

/// The terminal's line ends stay as they are; only the one that a record lacks is that of the system.
void printRecord(uint8_t type, const QDateTime &datetime, const QByteArray &data)
{
    StdOutput record(!data.endsWith('\n'));
    record << datetime.toString(QStringLiteral("hh:mm:ss zzz")) << " [" << type << "] ";
    platform::translateLineEnds(false);
    record << QString::fromUtf8(data);
    platform::translateLineEnds(true);
}

} // namespace

Device *Device::_device = nullptr;

Device::Device()
    : _port(new QSerialPort(this))
{
}

Device::~Device()
{
    if (_port->isOpen())
        platform::close(*_port);
    if (_device == this)
        _device = nullptr;
}

bool Device::setReadFile(File file, const QString &path)
{
    _file_name = path;
    _read_file = file;
    return true;
}

bool Device::setWriteFile(File file, const QString &path)
{
    _file_name = path;
    _write_file = file;
    return true;
}

void Device::logEnable(quint32 mask)
{
    _log_mask = mask;
    _set_log = true;
}

// ---- serial port --------------------------------------------------------------------------------------------------

QString Device::findPort()
{
    QStringList candidates;
    for (const QSerialPortInfo &port : QSerialPortInfo::availablePorts()) {
        if (isTerminal(port))
            candidates += port.portName();
    }
    if (candidates.size() < 2) {
        jvxb::trace::taken(candidates.value(0), candidates.isEmpty() ? "none is 03eb:6124" : "the only 03eb:6124");
        return candidates.value(0);
    }

    const QString prompt = tr("Select device serial port");
    if (platform::canShowWindow()) {
        QString selected = StringListSelectorDialog::select(candidates, prompt, {}, nullptr);
        jvxb::trace::taken(selected, selected.isEmpty() ? "none was selected" : "it was selected");
        return selected;
    }
    StdOutput() << prompt << ": " << candidates.join(QLatin1String(", "));
    jvxb::trace::taken({}, "several are 03eb:6124, and nobody can be asked");
    return {};
}

bool Device::tryOpenSerialPort(bool end_if_error, bool next_operation, int try_count)
{
    if (_port->isOpen())
        return true;

    if (_port->open(QIODevice::ReadWrite)) {
        jvxb::trace::opened(_port->portName());
        platform::watchForHangUp(*_port);
        // A terminal may send nothing before, and not every driver raises the line when it opens the port.
        _port->setDataTerminalReady(true);
        // Connected only now: opening emits harmless errors, and so does a port without that line.
        connect(_protocol, &Protocol::errorOccured, this, &Device::onErrorOccured);
        StdOutput(false) << "\r" << tr("Serial port open: %1").arg(_port->portName()) << "\n\n";
        if (next_operation)
            QTimer::singleShot(before_operation, this, &Device::nextOperation);
        return true;
    }

    if (try_count > 0) {
        StdOutput(false) << "\r" << try_count << " secs";
        QTimer::singleShot(between_attempts, this, [this, end_if_error, next_operation, try_count] {
            tryOpenSerialPort(end_if_error, next_operation, try_count - 1);
        });
    } else if (end_if_error) {
        StdOutput() << "\r              ";
        end(reopen_error, tr("Failed to open serial port %1: ").arg(_port->portName()));
    }
    return false;
}

void Device::startTryOpenSerialPort()
{
    if (!_reconnect)
        return;
    _reconnect = false;
    QTimer::singleShot(before_reopen, this, [this] { tryOpenSerialPort(true, true, reopen_attempts); });
}

void Device::closeSerialPort()
{
    if (!_port->isOpen())
        return;
    disconnect(_protocol, &Protocol::errorOccured, this, &Device::onErrorOccured);
    sendRest();
    platform::close(*_port);
    StdOutput() << tr("Serial port closed: %1").arg(_port->portName());
}

/// Sends what the line had no room for when the request was made, and would be lost with the port or the loop. That
/// happens when the answer came before its request was sent.
/// \return whether some of it is still on its way: Windows writes in the background, and the line may be full
bool Device::sendRest()
{
    return _port->isOpen() && (_port->flush() || platform::isLineFull(*_port)) && _port->bytesToWrite() > 0;
}

/// Goes on with \a next once everything is sent; closing the port would cancel what is still on its way.
void Device::afterSending(const std::function<void()> &next)
{
    if (sendRest())
        QTimer::singleShot(sending_time, this, next);
    else
        next();
}

void Device::onErrorOccured(const QString &error_text)
{
    jvxb::trace::failed(error_text);
    if (!_reconnect)
        return end(port_error, error_text);
    closeSerialPort();
    startTryOpenSerialPort();
}

// ---- sequence -----------------------------------------------------------------------------------------------------

bool Device::start(const QString &port)
{
    _device = this;
    if (!isSet(_write_file))
        _apply_file = File::Unknown;
    _port->setPortName(platform::portName(port));
    _protocol = new Protocol(_port, this);
    if (!tryOpenSerialPort(false, false, 0)) {
        StdOutput() << tr("Failed to open serial port %1: ").arg(_port->portName()) << _port->errorString();
        return false;
    }
    readSoftVersion();
    return true;
}

void Device::nextOperation()
{
    if (_finished || !_port->isOpen())
        return;

    if (isSet(_read_file)) {
        _write_file = File::Unknown; // both would share the one local file
        readFile();
    } else if (isSet(_write_file)) {
        writeFile();
    } else if (isSet(_apply_file) && _crc != 0) {
        applyFile();
    } else if (_set_log) {
        _set_log = false;
        setLog();
    } else if (_log_monitor) {
        connect(_protocol, &Protocol::logReceived, this, &Device::onLogReceived);
        output_reader::endOnBrokenPipe(); // from here on there is nothing but the log
    } else {
        quit(0);
    }
}

void Device::end(int code, const QString &text)
{
    StdOutput() << tr("Error: ") << text;
    quit(code);
}

void Device::end(jvxb::Error error)
{
    StdOutput() << tr("Error: ") << error;
    quit(static_cast<int>(error));
}

void Device::quit(int code)
{
    _finished = true;
    // A port that was unplugged goes on reporting errors until it is closed.
    disconnect(_protocol, nullptr, this, nullptr);
    afterSending([code] { QCoreApplication::exit(code); });
}

// ---- identification -----------------------------------------------------------------------------------------------

void Device::readSoftVersion()
{
    StdOutput() << tr("Checking device ...");
    connect(_protocol, &Protocol::softVersionReaded, this, &Device::onSoftVersionReaded);
    _protocol->readSoftVersion();
}

void Device::onSoftVersionReaded(
    jvxb::Error error, const QString &name, const QString &version, const QString &date, const QString &language)
{
    disconnect(_protocol, &Protocol::softVersionReaded, this, &Device::onSoftVersionReaded);
    if (error != jvxb::Error::None)
        return end(error);
    StdOutput() << "\n" << tr("Device: ") << name;
    StdOutput() << tr("Version: ") << version;
    StdOutput() << tr("Date: ") << date;
    StdOutput() << tr("Language: ") << language;
    readHardVersion();
}

void Device::readHardVersion()
{
    connect(_protocol, &Protocol::hardVesionReaded, this, &Device::onHardVesionReaded);
    _protocol->readHardVersion();
}

void Device::onHardVesionReaded(jvxb::Error error, uint64_t version)
{
    disconnect(_protocol, &Protocol::hardVesionReaded, this, &Device::onHardVesionReaded);
    if (error != jvxb::Error::None)
        return end(error);
    StdOutput() << tr("BHR: 0x") << QString::number(version, 16);
    readSerialNumber();
}

void Device::readSerialNumber()
{
    connect(_protocol, &Protocol::serialNumberReaded, this, &Device::onSerialNumberReaded);
    _protocol->readSerialNumber();
}

void Device::onSerialNumberReaded(jvxb::Error error, const QString &serial_number)
{
    disconnect(_protocol, &Protocol::serialNumberReaded, this, &Device::onSerialNumberReaded);
    if (error != jvxb::Error::None)
        return end(error);
    StdOutput() << tr("IMEI: ") << serial_number << "\n";
    nextOperation();
}

// ---- files --------------------------------------------------------------------------------------------------------

void Device::readFile()
{
    StdOutput() << tr("Reading file '%1' ...").arg(firstKey(_read_file));
    connect(_protocol, &Protocol::fileReaded, this, &Device::onFileReaded);
    connect(_protocol, &Protocol::fileReadingProgress, this, &Device::onFileReadingProgress);
    _protocol->readFile(_read_file);
    _read_file = File::Unknown;
}

void Device::onFileReadingProgress(File, int size, int full_size)
{
    printProgress(QStringLiteral("% completed ("), size, full_size);
}

void Device::onFileReaded(jvxb::Error error, File, const QByteArray &data)
{
    StdOutput() << "\n";
    disconnect(_protocol, &Protocol::fileReaded, this, &Device::onFileReaded);
    disconnect(_protocol, &Protocol::fileReadingProgress, this, &Device::onFileReadingProgress);
    if (error != jvxb::Error::None)
        return end(error);

    QFile file(_file_name);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return endWithFileError(file.errorString());
    file.write(data);
    file.close();
    StdOutput() << tr("File saved to '%1'").arg(_file_name);
    nextOperation();
}

void Device::writeFile()
{
    QFile file(_file_name);
    if (!file.open(QIODevice::ReadOnly))
        return endWithFileError(file.errorString());
    const std::optional<QByteArray> content = contentOf(file);
    // A part of a file must never be written and applied as if it were the whole.
    if (!content)
        return endWithFileError(tr("File too large"));
    if (file.error() != QFile::NoError)
        return endWithFileError(file.errorString());
    const QByteArray &data = *content;
    file.close();
    _crc = ~crc::ieee::calc(reinterpret_cast<const unsigned char *>(data.constData()), static_cast<int>(data.size()));

    StdOutput() << tr("Writing file '%1' to '%2' ...").arg(_file_name, firstKey(_write_file));
    connect(_protocol, &Protocol::fileWritten, this, &Device::onFileWritten);
    connect(_protocol, &Protocol::fileWritingProgress, this, &Device::onFileWritingProgress);
    _protocol->writeFile(_write_file, data);
    _write_file = File::Unknown;
}

void Device::onFileWritingProgress(File, int size, int full_size)
{
    printProgress(tr("% completed ("), size, full_size);
}

void Device::onFileWritten(jvxb::Error error, File)
{
    StdOutput() << "\n";
    disconnect(_protocol, &Protocol::fileWritten, this, &Device::onFileWritten);
    disconnect(_protocol, &Protocol::fileWritingProgress, this, &Device::onFileWritingProgress);
    if (error != jvxb::Error::None)
        return end(error);
    nextOperation();
}

void Device::applyFile()
{
    StdOutput() << tr("Apply file '%1' ...").arg(firstKey(_apply_file));
    connect(_protocol, &Protocol::fileApplied, this, &Device::onFileApplied);
    _protocol->applyFile(_apply_file, _crc);
    _apply_file = File::Unknown;
}

void Device::onFileApplied(jvxb::Error error, File file)
{
    disconnect(_protocol, &Protocol::fileApplied, this, &Device::onFileApplied);
    // A terminal that installs new firmware restarts before it can answer.
    const bool restarts_unanswered = file == File::Firmware && error == jvxb::Error::Timeout;
    if (error != jvxb::Error::None && !restarts_unanswered)
        return end(error);
    if (!restarts_unanswered)
        StdOutput() << tr("Completed");
    StdOutput() << "";
    _reconnect = true;
    afterSending([this] { waitForRestart(); });
}

void Device::waitForRestart()
{
    closeSerialPort();
    StdOutput() << "Waiting device ...";
    QTimer::singleShot(restart_time, Qt::PreciseTimer, this, &Device::startTryOpenSerialPort);
}

void Device::endWithFileError(const QString &reason)
{
    end(file_error, tr("Failed to access to file '%1' (%2)").arg(_file_name, reason));
}

// ---- log ----------------------------------------------------------------------------------------------------------

void Device::setLog()
{
    connect(_protocol, &Protocol::logEnabled, this, &Device::onLogEnabled);
    _protocol->logEnable(_log_mask);
}

void Device::onLogEnabled(jvxb::Error error, uint32_t mask)
{
    disconnect(_protocol, &Protocol::logEnabled, this, &Device::onLogEnabled);
    if (error != jvxb::Error::None)
        return end(error);
    _log_mask = mask;
    nextOperation();
}

void Device::onLogReceived(jvxb::Log log, uint8_t type, const QDateTime &datetime, const QByteArray &data)
{
    if (log != text_log)
        return;
    printRecord(type, datetime, data);
    if (output_reader::hasLeft())
        quit(output_error); // a log that nobody gets would hold the port for ever
}

void Device::toggleLog()
{
    if (_finished)
        return;
    connect(_protocol, &Protocol::logEnabled, this, &Device::onLogToggled);
    _protocol->logEnable(_log_mask != 0 ? 0 : text_log_mask);
}

void Device::onLogToggled(jvxb::Error error, uint32_t mask)
{
    disconnect(_protocol, &Protocol::logEnabled, this, &Device::onLogToggled);
    if (error != jvxb::Error::None) {
        StdOutput() << tr("Error: ") << error;
        return;
    }
    StdOutput() << tr("Info: ") << (mask != 0 ? tr("log enabled") : tr("log disabled"));
    _log_mask = mask;
}

void Device::onSigintSignal(int signal_number)
{
    if (signal_number == SIGINT && _device)
        QTimer::singleShot(0, _device, &Device::toggleLog);
}
