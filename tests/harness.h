#pragma once

#include "packets.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

using namespace std::chrono_literals;

// The executables of this build, from the outside: the tool and the simulated terminal as processes.

/// How a run of the tool ended.
struct Run {
    int code = 0;            ///< exit code as a shell sees it, 0 to 255; -1: crashed, -2: still running and killed
    QByteArray output;       ///< standard output
    QByteArray errors;       ///< standard error
    qint64 milliseconds = 0; ///< from start to end
};

/// The tool as a process of its own. Standard input is empty, and no display is announced.
class Tool {
public:
    explicit Tool(const QStringList &arguments, const QStringList &environment = {})
        : Tool(QStringLiteral(JVX_LOADER), arguments, environment)
    {
    }

    /// The tool by way of \a program, which may start further ones: all of them are one process group.
    Tool(const QString &program, const QStringList &arguments, const QStringList &environment)
    {
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "QT_QPA_PLATFORM"})
            variables.remove(QString::fromLatin1(name));
        for (const QString &assignment : environment)
            variables.insert(assignment.section(QLatin1Char('='), 0, 0), assignment.section(QLatin1Char('='), 1));
        _process.setProcessEnvironment(variables);
        _process.setStandardInputFile(QProcess::nullDevice());
        _process.setChildProcessModifier([] {
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        });
        _clock.start();
        _process.start(program, arguments);
    }

    ~Tool()
    {
        signalAll(SIGKILL);
        _process.waitForFinished();
    }

    Tool(const Tool &) = delete;
    Tool &operator=(const Tool &) = delete;

    QProcess &process() { return _process; }

    /// Sends a signal to the tool and to all that was started with it.
    void signalAll(int number) const
    {
        if (const auto group = static_cast<pid_t>(_process.processId()); group > 0)
            ::kill(-group, number);
    }

    /// Waits until standard output holds \a text, and returns whether it did within 10 s.
    bool waitForOutput(const QByteArray &text)
    {
        QElapsedTimer waiting;
        waiting.start();
        while (!_output.contains(text) && waiting.elapsed() < 10'000) {
            _process.waitForReadyRead(50);
            _output += _process.readAllStandardOutput();
        }
        return _output.contains(text);
    }

    /// Waits until standard output holds \a size bytes, and returns whether it did within \a limit.
    bool waitForOutputOf(qsizetype size, std::chrono::milliseconds limit)
    {
        QElapsedTimer waiting;
        waiting.start();
        while (_output.size() < size && waiting.elapsed() < limit.count()) {
            _process.waitForReadyRead(50);
            _output += _process.readAllStandardOutput();
        }
        return _output.size() >= size;
    }

    /// Whether the run is over already; looks for a moment.
    bool hasEnded() { return _process.state() == QProcess::NotRunning || _process.waitForFinished(1); }

    /// Waits for the end of the run; kills it after \a limit.
    Run finish(std::chrono::milliseconds limit = 30s)
    {
        const bool finished = hasEnded() || _process.waitForFinished(static_cast<int>(limit.count()));
        Run run;
        run.milliseconds = _clock.elapsed();
        if (!finished) {
            signalAll(SIGKILL);
            _process.waitForFinished();
        }
        _output += _process.readAllStandardOutput();
        run.output = _output;
        run.errors = _process.readAllStandardError();
        const bool exited = _process.exitStatus() == QProcess::NormalExit;
        run.code = !finished ? -2 : exited ? _process.exitCode() & 0xFF : -1;
        return run;
    }

private:
    QProcess _process;
    QByteArray _output;
    QElapsedTimer _clock;
};

/// The simulated terminal as a process of its own, on a port of its own.
class SimulatedTerminal {
public:
    explicit SimulatedTerminal(const QStringList &options = {})
    {
        _process.setProcessChannelMode(QProcess::SeparateChannels);
        _process.start(QStringLiteral(JVX_SIMULATOR),
            QStringList{QStringLiteral("--link"), port(), QStringLiteral("--record"), recordPath()} + options);
        QElapsedTimer waiting;
        waiting.start();
        while (!isPlugged() && waiting.elapsed() < 10'000 && _process.state() != QProcess::NotRunning)
            _process.waitForFinished(5); // one that ends at once need not be waited for any longer
        if (!isPlugged())
            qWarning("the simulated terminal did not start: %s", _process.readAllStandardError().constData());
    }

    ~SimulatedTerminal() { finish(); }

    SimulatedTerminal(const SimulatedTerminal &) = delete;
    SimulatedTerminal &operator=(const SimulatedTerminal &) = delete;

    /// What the user of the tool names.
    QString port() const { return _directory.filePath(QStringLiteral("terminal")); }

    bool isPlugged() const { return QFileInfo::exists(port()); }

    /// A path for a file of the test.
    QString path(const QString &name) const { return _directory.filePath(name); }

    QProcess &process() { return _process; }

    /// The packets that the terminal received and the events of its bus ("# ..."), in order, in hexadecimal.
    QByteArrayList record() const
    {
        QFile file(recordPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().split('\n') : QByteArrayList();
    }

    /// The bodies of the packets that the terminal received, in hexadecimal.
    QByteArrayList requests() const
    {
        QByteArrayList bodies;
        for (const QByteArray &line : record()) {
            if (!line.startsWith('#'))
                bodies += line.sliced(2 * 16);
        }
        return bodies;
    }

    /// Stops the terminal. Returns what it complained about; empty if the tool spoke correctly.
    QByteArray finish()
    {
        if (_process.state() == QProcess::NotRunning)
            return {};
        _process.terminate();
        if (!_process.waitForFinished(10'000))
            return QByteArrayLiteral("the simulated terminal does not end");
        const QByteArray complaints = _process.readAllStandardError();
        if (_process.exitStatus() != QProcess::NormalExit)
            return QByteArrayLiteral("the simulated terminal crashed: ") + complaints;
        return _process.exitCode() == 0 ? complaints
                                        : complaints + "exit code " + QByteArray::number(_process.exitCode());
    }

private:
    QString recordPath() const { return _directory.filePath(QStringLiteral("record")); }

    QTemporaryDir _directory;
    QProcess _process;
};

/// What the tool prints up to and with the identification of the simulated terminal as it is by default.
inline QByteArray identificationOn(const QString &port)
{
    return "\rSerial port open: " + port.toLocal8Bit() + "\n\n"
        + "Checking device ...\n"
          "\n"
          "Device: JVX terminal\n"
          "Version: 1.4.2\n"
          "Date: 2026-03-01\n"
          "Language: en\n"
          "BHR: 0x10a2b3c4d5\n"
          "IMEI: 350000000000017\n"
          "\n";
}

inline QByteArray identificationOn(const SimulatedTerminal &terminal)
{
    return identificationOn(terminal.port());
}

/// What the tool prints up to the first answer.
inline QByteArray checkingOn(const SimulatedTerminal &terminal)
{
    return "\rSerial port open: " + terminal.port().toLocal8Bit() + "\n\nChecking device ...\n";
}

/// Files of a test, on either side of the line.
namespace files {

/// Bytes that a mix-up of any two pieces would change; the same for the same \a seed and size.
inline QByteArray sample(qsizetype size, quint32 seed = 1)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(generator.bounded(256));
    return bytes;
}

inline QByteArray content(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("(no file)");
}

inline void store(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
}

} // namespace files

/// Holds the directory, which has to be there before the terminal starts.
struct TerminalFiles {
    QTemporaryDir directory;
};

/// A simulated terminal whose files are in a directory.
class FilingTerminal : private TerminalFiles, public SimulatedTerminal {
public:
    explicit FilingTerminal(const QStringList &options = {})
        : SimulatedTerminal(QStringList{QStringLiteral("--files"), directory.path()} + options)
    {
    }

    /// The path of the terminal's own file with this key.
    QString own(const QString &key) const { return directory.filePath(key); }
};

/// The least that a terminal can be: a pseudo-terminal, for answers that are exactly what a test wants, when it wants
/// them. It has one file, takes every request as it comes and acknowledges every piece.
class PlainTerminal {
public:
    explicit PlainTerminal(QByteArray file = {})
        : _file(std::move(file))
        , _master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        if (::grantpt(_master) != 0 || ::unlockpt(_master) != 0)
            qFatal("no pseudo-terminal");
        // Open as long as the terminal is there: without anybody at the other end a read would fail.
        _slave = ::open(::ptsname(_master), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        termios mode{};
        ::tcgetattr(_slave, &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(_slave, TCSANOW, &mode);
    }

    ~PlainTerminal() { vanish(); }

    PlainTerminal(const PlainTerminal &) = delete;
    PlainTerminal &operator=(const PlainTerminal &) = delete;

    /// What the user of the tool names.
    QString port() const { return QString::fromLocal8Bit(::ptsname(_master)); }

    /// What the tool calls the port.
    QByteArray portName() const { return port().mid(5).toLocal8Bit(); } // behind "/dev/"

    /// The body of the next request; empty if there is none within \a limit.
    QByteArray request(std::chrono::milliseconds limit = 10s)
    {
        const QByteArray head = bytes(16, limit);
        return head.size() < 16 ? QByteArray() : bytes(static_cast<quint8>(head[12]) + 256 * head[13], limit);
    }

    /// The packet of the answer to \a request.
    QByteArray answerTo(const QByteArray &request) const
    {
        if (request == "*?V")
            return packets::software_answer;
        if (request == "*?H")
            return packets::hardware_answer;
        if (request == "*?S")
            return packets::serial_number_answer;
        if (request.startsWith("*!FR"))
            return packets::packet("*@FR1" + pieceAnswer(request));
        if (request.startsWith("*!FW")) // kind, handle, offset and length, as they came
            return packets::packet("*@FW1" + request.mid(4, 11));
        if (request.startsWith("*!FU"))
            return packets::packet("*@FU1" + request.mid(4, 5));
        return packets::mask_answer;
    }

    void send(const QByteArray &packet)
    {
        if (::write(_master, packet.constData(), static_cast<size_t>(packet.size())) != packet.size())
            qWarning("the plain terminal cannot send");
    }

    /// Fills the line towards the terminal, which must not have to take any further request. The next one is stuck.
    void jam()
    {
        const QByteArray block(4096, '\0');
        while (::write(_slave, block.constData(), static_cast<size_t>(block.size())) > 0) { }
    }

    /// Takes its port away, at once: what was not read by then is lost.
    void vanish()
    {
        for (const int descriptor : {std::exchange(_slave, -1), std::exchange(_master, -1)}) {
            if (descriptor >= 0)
                ::close(descriptor);
        }
    }

private:
    /// Kind, handle, offset, length, full size and piece.
    QByteArray pieceAnswer(const QByteArray &request) const
    {
        const quint32 offset = qFromLittleEndian<quint32>(request.constData() + 9);
        const QByteArray piece = _file.mid(offset, 512);
        return request.mid(4, 1) + packets::number(7, 4) + packets::number(offset, 4)
            + packets::number(static_cast<quint64>(piece.size()), 2)
            + packets::number(static_cast<quint64>(_file.size()), 4) + piece;
    }

    QByteArray bytes(qsizetype count, std::chrono::milliseconds limit)
    {
        QByteArray read;
        pollfd descriptor{_master, POLLIN, 0};
        while (read.size() < count && ::poll(&descriptor, 1, static_cast<int>(limit.count())) > 0) {
            QByteArray part(count - read.size(), '\0');
            const auto size = ::read(_master, part.data(), static_cast<size_t>(part.size()));
            if (size <= 0)
                break;
            read += part.first(size);
        }
        return read;
    }

    const QByteArray _file;
    int _master = -1;
    int _slave = -1;
};

/// What the tool prints of the identification of a plain terminal, in the parts that one answer after the other adds.
inline QByteArrayList plainIdentification(const PlainTerminal &terminal)
{
    return {"\rSerial port open: " + terminal.portName() + "\n\nChecking device ...\n",
        "\nDevice: JVX\nVersion: 1.2\nDate: 2024-05-06\nLanguage: en\n", "BHR: 0x102030405060708\n",
        "IMEI: 350000000000017\n\n"};
}
