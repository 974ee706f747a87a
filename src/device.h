#pragma once

#include "file.h"
#include "jvxb.h"

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QSerialPort>
#include <QString>

#include <cstdint>
#include <functional>

class QFile;

/// The controller of one run: opens the terminal's port, identifies the terminal, does what was asked for as a chain of
/// requests and answer slots, reports on the console, and quits the event loop with the exit code of the program:
///
///     0            all done
///     -1, -2, n    a request failed: time-out, answer not understood, error code of the terminal
///     1            also: a record of the log could not be written
///     -110         serial port error
///     -111         the local file cannot be opened or read
///     -112         the port did not come back after the terminal's restart
///
/// The first exit stands: after it nothing is printed or requested any more.
class Device : public QObject {
    Q_OBJECT

public:
    Device();
    ~Device() override;

    /// Finds the terminal's port by its USB identifiers, 03EB:6124. When several ports qualify, the user picks one in a
    /// dialog; where no window can be shown, the candidates are printed on one line instead.
    /// \return the port's name, or an empty string if none was found or picked
    static QString findPort();

    /// Makes the run read the file of kind \a file from the terminal into the local file \a path, which is created or
    /// overwritten once the read has succeeded. A run that reads does not write. Returns true.
    bool setReadFile(File file, const QString &path);

    /// Makes the run write the local file \a path to the terminal as the file of kind \a file. Returns true.
    bool setWriteFile(File file, const QString &path);

    /// Makes the run set the terminal's log mask to \a mask after its other operations; 0 disables the log.
    void logEnable(quint32 mask);

    /// Opens the port and asks the terminal to identify itself; the event loop does the rest. To be called once.
    /// \param port name of the serial port, or its device path
    /// \return whether the port was opened; if not, the reason has been printed
    bool start(const QString &port);

    /// Switches the terminal's log off, or on with mask 0x4000 if it is off, and prints the outcome. After start()
    /// only; does nothing after the end of the run.
    void toggleLog();

    /// On SIGINT it makes the running controller toggle the log from within the event loop. The program does not
    /// install it with the C runtime's signal(): what it does is not safe in the middle of anything else.
    /// \param signal_number number of the signal that has come; nothing is done for another one than SIGINT
    static void onSigintSignal(int signal_number);

    File _apply_file = File::Unknown; ///< kind to apply after it has been written
    bool _log_monitor = false;        ///< after all operations, stay connected and print the terminal's log

public Q_SLOTS:
    /// Ends the run with -110, or reopens the port when the terminal is expected to restart.
    /// \param error_text the port's error string
    void onErrorOccured(const QString &error_text);

    // Results of the requests, with the arguments of the signals of jvxb::Protocol: each is connected for one request
    // and disconnects itself first; the progress is disconnected with the result.
    void onSoftVersionReaded(
        jvxb::Error error, const QString &name, const QString &version, const QString &date, const QString &language);
    void onHardVesionReaded(jvxb::Error error, uint64_t version);
    void onSerialNumberReaded(jvxb::Error error, const QString &serial_number);
    void onLogEnabled(jvxb::Error error, uint32_t mask);
    void onLogToggled(jvxb::Error error, uint32_t mask);
    void onFileReaded(jvxb::Error error, File file, const QByteArray &data);
    void onFileReadingProgress(File file, int size, int full_size);
    void onFileWritten(jvxb::Error error, File file);
    void onFileWritingProgress(File file, int size, int full_size);
    void onFileApplied(jvxb::Error error, File file);

    /// Prints a record of the text log (log 14): the local time, the type in brackets, the text. Ends the run if that
    /// cannot be written. Ignores other logs.
    void onLogReceived(jvxb::Log, uint8_t, const QDateTime &datetime, const QByteArray &data);

    /// Opens the port and says so; on failure tries again every second, showing the seconds left. Does nothing if the
    /// port is open.
    /// \param end_if_error end the run with -112 after the last failure; otherwise that is left to the caller
    /// \param next_operation go on with the next operation 1 ms after the port was opened
    /// \param try_count further attempts, one second apart; 0 or less: none
    /// \return whether the port is open now
    bool tryOpenSerialPort(bool end_if_error, bool next_operation, int try_count);

    /// Sends what the line has not taken yet, closes the port and says so, if it is open.
    void closeSerialPort();

private:
    void readSoftVersion();
    void readHardVersion();
    void readSerialNumber();
    void nextOperation();
    void readFile();
    void writeFile();
    void applyFile();
    void setLog();
    void startTryOpenSerialPort();
    bool sendRest();
    void afterSending(const std::function<void()> &next);
    void waitForRestart();
    void end(int code, const QString &text);
    void end(jvxb::Error error);
    void endWithFileError(const QString &reason);
    void quit(int code);

    static Device *_device; ///< the running controller, for the signal handler

    QString _file_name; ///< path of the local file of a read or a write
    QSerialPort *const _port;
    jvxb::Protocol *_protocol = nullptr;
    quint32 _crc = 0;      ///< CRC-32 of the file last written; 0: nothing to apply
    quint32 _log_mask = 0; ///< the mask to set, later the mask in force
    File _read_file = File::Unknown;
    File _write_file = File::Unknown;
    bool _reconnect = false; ///< the terminal is expected to restart
    bool _set_log = false;   ///< the log mask is still to be set
    bool _finished = false;  ///< the exit code is decided
};
