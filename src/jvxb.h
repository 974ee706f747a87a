#pragma once

#include "file.h"
#include "jvxb/framing.h"
#include "jvxb/payloads.h"
#include "jvxb/trace.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QObject>
#include <QSerialPort>
#include <QString>
#include <QTimer>

class StdOutput;

/// The jvxb protocol: requests to a vehicle telematics terminal, their answers, and the messages that the terminal
/// sends on its own.
///
/// They travel in packets. The body of a packet is the start character "*", a direction character, a command key and a
/// payload:
///
///     "?" asks,          "#" answers it
///     "!" commands,      "@" answers it
///     ">" is a message that the terminal sends on its own
namespace jvxb {

/// The result of a request. A positive value is the terminal's own error code; a code byte of 128 to 255 reads as the
/// negative value of the same eight bits.
enum class Error : qint8 {
    None = 0,
    Timeout = -1,         ///< no valid answer in time
    UnknownResponse = -2, ///< an answer too short or not understood
    Unknown = -3,         ///< no request results in it
};

/// The untranslated text of \a error, which is 0 or negative; everything below -3 is "Unknown".
const char *errorText(Error error);

/// Writes \a error to the console, without a line end: a positive code as its number, any other as its translated text
/// and value, for example "Timeout(-1)".
StdOutput &operator<<(StdOutput &output, Error error);

/// One request with its awaited answer and its answer timer; a child of the protocol that runs it.
class Transaction : public QObject {
    Q_OBJECT

public:
    /// \param request direction character of the request
    /// \param answer direction character that an answer must carry
    /// \param key command key
    /// \param parent the protocol that will run it
    /// \param timeout answer time-out in milliseconds, kept to the millisecond
    Transaction(char request, char answer, const QByteArray &key, QObject *parent, int timeout);

    [[nodiscard]] const QByteArray &key() const { return _key; }

    /// The request payload: empty at construction, filled by the request operation.
    void setPayload(const QByteArray &payload) { _payload = payload; }

    [[nodiscard]] const QByteArray &payload() const { return _payload; }

    /// What the trace calls the transaction; valid as long as it is there.
    [[nodiscard]] trace::Name name() const { return {_request, _key}; }

    /// The body of the request: "*", the direction character, the key and the payload.
    [[nodiscard]] QByteArray request() const;

    /// The offset of the payload in \a body if it answers this transaction, that is if it carries the answer character
    /// at offset 1 and the key first at offset 2; otherwise -1.
    [[nodiscard]] qsizetype checkResponse(const QByteArray &body) const;

    /// Starts the answer timer.
    void start();

    /// Begins the full answer time anew.
    void restart();

    /// Stops the answer timer.
    void stop();

Q_SIGNALS:
    /// The answer time has run out.
    void timeout();

private:
    const QByteArray _key;
    QByteArray _payload;
    QTimer *const _timer;
    const char _request;
    const char _answer;
};

/// Asks for information: request "?", answer "#". Arguments as of Transaction.
class Ask : public Transaction {
    Q_OBJECT

public:
    Ask(const QByteArray &key, QObject *parent, int timeout);
};

/// Makes the terminal do something: request "!", answer "@". Arguments as of Transaction.
class Command : public Transaction {
    Q_OBJECT

public:
    Command(const QByteArray &key, QObject *parent, int timeout);
};

/// A transfer or application of one file of the terminal; it serves all pieces of the file, one after the other.
class FileCommand : public Command {
    Q_OBJECT

public:
    /// \param file kind of the file, copied into every request and compared with every answer
    /// \param data a write: the whole file; otherwise empty
    FileCommand(File file, const QByteArray &data, const QByteArray &key, QObject *parent, int timeout);

    const File _file;
    QByteArray _data; ///< a read: the bytes received so far; a write: the whole file; an application: empty
};

/// The protocol engine on one serial port: sends requests, matches the answers to them by direction character and key,
/// and ends each by exactly one result signal, whose first argument is the error; when that is not None, the other
/// arguments are empty or 0, but for the kind of file. There are no retries: a request without an answer in time is
/// reported as Timeout once, and a later answer to it is ignored.
///
/// The port is opened, configured and closed by its owner. Closing it discards the bytes received so far; pending
/// requests go on waiting. Everything runs on the thread of the event loop.
class Protocol : public QObject {
    Q_OBJECT

public:
    // Command keys, the names of requests on the wire.
    static const QByteArray _soft_version_key;
    static const QByteArray _hard_version_key;
    static const QByteArray _serial_number_key;
    static const QByteArray _read_file_key;
    static const QByteArray _write_file_key;
    static const QByteArray _apply_file_key;
    static const QByteArray _log_enable_key;
    static const QByteArray _log_key; ///< the same bytes as the log enable key; the direction tells them apart

    /// \param port the port to talk through, not owned; no request may be made after its end
    Protocol(QSerialPort *port, QObject *parent);

    /// Asks for the terminal's software. Time-out 500 ms. Emits softVersionReaded.
    void readSoftVersion();

    /// Asks for the terminal's hardware version word. Time-out 500 ms. Emits hardVesionReaded.
    void readHardVersion();

    /// Asks for the terminal's serial number. Time-out 500 ms. Emits serialNumberReaded.
    void readSerialNumber();

    /// Reads the terminal's file of kind \a file in pieces of at most 512 bytes, each with a time-out of 500 ms. Emits
    /// fileReadingProgress for each piece, and fileReaded.
    void readFile(File file);

    /// Writes \a data as the terminal's file of kind \a file in pieces of at most 512 bytes, each with a time-out of
    /// 5000 ms. Emits fileWritingProgress for each piece, and fileWritten.
    void writeFile(File file, const QByteArray &data);

    /// Makes the terminal apply its file of kind \a file. Time-out 500 ms. Emits fileApplied.
    /// \param checksum CRC-32 (IEEE 802.3) of the whole file as it was written
    void applyFile(File file, uint checksum);

    /// Sets the terminal's log mask: bit n lets log n through; 0 disables the log. Time-out 500 ms. Emits logEnabled.
    void logEnable(quint32 mask);

    /// Queues a new \a transaction, sends it and starts its timer. The keys V, H and S take an Ask, LOG a Command, and
    /// FR, FW and FU a FileCommand: with another class of transaction an answer to these three has no result.
    void begin(Transaction *transaction);

    /// Sends a queued \a transaction again, with its present payload, and restarts its timer.
    void continuE(Transaction *transaction);

    /// Stops, dequeues and at once deletes \a transaction, queued or not.
    void end(Transaction *transaction);

Q_SIGNALS:
    /// The serial port reported an error; pending requests go on waiting. A line that takes no more for now is no
    /// error. Never emitted from within a request: what fails while it is sent is reported from the event loop. \param
    /// error_text the port's error string
    void errorOccured(const QString &error_text);

    /// Fields that the terminal left out are empty.
    void softVersionReaded(
        jvxb::Error error, const QString &name, const QString &version, const QString &date, const QString &language);

    /// \param bhr hardware version word; 0 if the answer bears another tag than "BHR" or too few bytes
    void hardVesionReaded(jvxb::Error error, quint64 bhr);

    /// \param sn the IMEI as the terminal wrote it
    void serialNumberReaded(jvxb::Error error, const QString &sn);

    /// \param file kind of the file, as in all signals about files
    /// \param data the whole file; empty, without an error, when the terminal answers with status 0
    void fileReaded(jvxb::Error error, File file, const QByteArray &data);

    /// A piece has come.
    /// \param size bytes received so far, like full_size negative above 2 GiB
    /// \param full_size size of the file as the terminal announced it; of the last piece, the bytes of the whole file
    void fileReadingProgress(File file, int size, int full_size);

    /// The terminal has the whole file, or has answered with status 0.
    void fileWritten(jvxb::Error error, File file);

    /// The terminal has accepted a piece.
    /// \param size bytes accepted so far; negative above 2 GiB
    /// \param full_size size of the file
    void fileWritingProgress(File file, int size, int full_size);

    /// The terminal has taken the file into use and restarts, or has answered with status 0.
    void fileApplied(jvxb::Error error, File file);

    /// A log record has come; unsolicited, at any time.
    /// \param log the log that the record belongs to
    /// \param type record type within the log
    /// \param datetime time stamp in the local time zone
    /// \param data the record's content; in log 14 a text in UTF-8, with or without a line end
    void logReceived(jvxb::Log log, quint8 type, const QDateTime &datetime, const QByteArray &data);

    /// \param mask the mask now in force
    void logEnabled(jvxb::Error error, quint32 mask);

private Q_SLOTS:
    void onErrorOccurred(QSerialPort::SerialPortError error);
    void onReadyRead();
    void onTimeout();

private:
    struct Exchange; ///< what belongs to a command key, a row of the engine's table

    static const Exchange *exchangeOf(const QByteArray &key);
    static int timeoutOf(const QByteArray &key);

    void onAboutToClose();

    void send(Transaction *transaction);

    void findPacket();
    void recvPacket(const QByteArray &body);
    bool recvPacket(Transaction *transaction, const QByteArray &key, const QByteArray &payload);
    bool fail(const Transaction *transaction, Error error); ///< returns true: finished

    // Each emits the result of the transaction and returns whether that has finished it.
    bool recvSoftVersion(Transaction *transaction, const QByteArray &payload);
    bool recvHardVersion(Transaction *transaction, const QByteArray &payload);
    bool recvSerialNumber(Transaction *transaction, const QByteArray &payload);
    bool recvReadFile(Transaction *transaction, const QByteArray &payload);
    bool recvWriteFile(Transaction *transaction, const QByteArray &payload);
    bool recvApplyFile(Transaction *transaction, const QByteArray &payload);
    bool recvLogEnable(Transaction *transaction, const QByteArray &payload);

    // Each emits the result of the transaction with the error and empty values.
    void failSoftVersion(const Transaction *transaction, Error error);
    void failHardVersion(const Transaction *transaction, Error error);
    void failSerialNumber(const Transaction *transaction, Error error);
    void failReadFile(const Transaction *transaction, Error error);
    void failWriteFile(const Transaction *transaction, Error error);
    void failApplyFile(const Transaction *transaction, Error error);
    void failLogEnable(const Transaction *transaction, Error error);

    void readFileContinue(FileCommand *command, uint handle);
    void writeFileContinue(FileCommand *command, uint offset, uint handle);
    void sendPiece(FileCommand *command);

    void recvMessage(const QByteArray &body);
    void recvLog(const QByteArray &record);

    ReceiveBuffer _received{trace::skipped};
    QList<Transaction *> _queue; ///< pending transactions, oldest first
    QSerialPort *const _port;
    bool _sending = false;
};

} // namespace jvxb
