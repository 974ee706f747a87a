#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

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
    {
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "QT_QPA_PLATFORM"})
            variables.remove(QString::fromLatin1(name));
        for (const QString &assignment : environment)
            variables.insert(assignment.section(QLatin1Char('='), 0, 0), assignment.section(QLatin1Char('='), 1));
        _process.setProcessEnvironment(variables);
        _process.setStandardInputFile(QProcess::nullDevice());
        _clock.start();
        _process.start(QStringLiteral(JVX_LOADER), arguments);
    }

    QProcess &process() { return _process; }

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

    /// Waits for the end of the run; kills it after \a limit.
    Run finish(std::chrono::milliseconds limit = 30s)
    {
        const bool finished = _process.waitForFinished(static_cast<int>(limit.count()));
        Run run;
        run.milliseconds = _clock.elapsed();
        if (!finished) {
            _process.kill();
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
            QTest::qSleep(5);
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
inline QByteArray identificationOn(const SimulatedTerminal &terminal)
{
    return "\rSerial port open: " + terminal.port().toLocal8Bit() + "\n\n"
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

/// What the tool prints up to the first answer.
inline QByteArray checkingOn(const SimulatedTerminal &terminal)
{
    return "\rSerial port open: " + terminal.port().toLocal8Bit() + "\n\nChecking device ...\n";
}
