#include "tool.h"

#include "lifeline.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>
#include <QTest>

#include <csignal>
#include <unistd.h>

namespace {

constexpr auto patience = 10s;

QProcessEnvironment surroundings(const QString &temporary_files, const QStringList &changes)
{
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "QT_QPA_PLATFORM", "LANGUAGE"})
        variables.remove(QString::fromLatin1(name));
    variables.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    variables.insert(QStringLiteral("TMPDIR"), temporary_files);
    for (const QString &change : changes) {
        const QString name = change.section(QLatin1Char('='), 0, 0);
        if (change.contains(QLatin1Char('=')))
            variables.insert(name, change.section(QLatin1Char('='), 1));
        else
            variables.remove(name);
    }
    return variables;
}

} // namespace

QString Tool::path()
{
    return QStringLiteral(JVX_LOADER);
}

Tool::Tool(const QStringList &arguments, const QStringList &environment)
    : Tool(path(), arguments, environment)
{
}

Tool::Tool(const QString &program, const QStringList &arguments, const QStringList &environment)
{
    _process.setProcessEnvironment(surroundings(_directory.path(), environment));
    _process.setStandardInputFile(QProcess::nullDevice());
    _process.setChildProcessModifier([] {
        ::setpgid(0, 0);
        endWithTheTest();
    });
    _clock.start();
    _process.start(program, arguments);
}

Tool::~Tool()
{
    signalAll(SIGKILL);
    _process.waitForFinished();
    readAll();
    if (!_is_judged && !_errors.isEmpty())
        QTest::qFail("the tool wrote to standard error: " + _errors, __FILE__, __LINE__);
}

void Tool::signalAll(int number) const
{
    if (const auto group = static_cast<pid_t>(_process.processId()); group > 0)
        ::kill(-group, number);
}

bool Tool::waitForOutput(const QByteArray &text)
{
    return waitFor([&] { return _output.contains(text); }, patience);
}

bool Tool::waitForOutputOf(qsizetype size, std::chrono::milliseconds limit)
{
    return waitFor([&] { return _output.size() >= size; }, limit);
}

bool Tool::waitForErrors(const QByteArray &text)
{
    return waitFor([&] { return _errors.contains(text); }, patience);
}

bool Tool::hasEnded()
{
    return _process.state() == QProcess::NotRunning || _process.waitForFinished(1);
}

Run Tool::finish(std::chrono::milliseconds limit)
{
    const bool finished = hasEnded() || _process.waitForFinished(static_cast<int>(limit.count()));
    Run run;
    run.milliseconds = _clock.elapsed();
    if (!finished) {
        signalAll(SIGKILL);
        _process.waitForFinished();
    }
    readAll();
    _is_judged = true;
    run.output = _output;
    run.errors = _errors;
    const bool exited = _process.exitStatus() == QProcess::NormalExit;
    run.code = !finished ? hung : exited ? _process.exitCode() & 0xFF : endedBy(_process.exitCode());
    return run;
}

Run Tool::stop()
{
    _process.terminate();
    return finish();
}

/// Reads what the tool writes until \a isEnough, and returns whether it was within \a limit.
bool Tool::waitFor(const std::function<bool()> &isEnough, std::chrono::milliseconds limit)
{
    const QDeadlineTimer deadline(limit);
    while (!isEnough() && !deadline.hasExpired()) {
        const bool has_ended = !_process.waitForReadyRead(50) && _process.state() == QProcess::NotRunning;
        readAll();
        if (has_ended)
            break;
    }
    return isEnough();
}

void Tool::readAll()
{
    _output += _process.readAllStandardOutput();
    _errors += _process.readAllStandardError();
}

QStringList argumentsOn(const QString &port, const char *options, const QString &file)
{
    QStringList arguments = QStringList{QStringLiteral("-p"), port} + words(options);
    if (!file.isEmpty())
        arguments += file;
    return arguments;
}

Run runOn(const QString &port, const char *options, const QString &file)
{
    return Tool(argumentsOn(port, options, file)).finish();
}
