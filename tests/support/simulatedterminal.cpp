#include "simulatedterminal.h"

#include "lifeline.h"
#include "lock.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <utility>

namespace {

void fail(const QByteArray &message)
{
    QTest::qFail(message.constData(), __FILE__, __LINE__);
}

} // namespace

SimulatedTerminal::SimulatedTerminal(const QStringList &options)
{
    _process.setChildProcessModifier(endWithTheTest);
    _process.start(QStringLiteral(JVX_SIMULATOR),
        QStringList{QStringLiteral("--link"), port(), QStringLiteral("--record"), recordPath()} + options);
    if (!_process.waitForReadyRead(10'000)) // it says when it is ready
        fail("the simulated terminal did not start");
}

SimulatedTerminal::~SimulatedTerminal()
{
    unplug();
    removeLock(port());
}

bool SimulatedTerminal::isPlugged() const
{
    return QFileInfo::exists(port());
}

QByteArrayList SimulatedTerminal::record() const
{
    QFile file(recordPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QByteArrayList lines = file.readAll().split('\n');
    lines.removeLast(); // empty, or a line that is not complete yet
    return lines;
}

QByteArrayList SimulatedTerminal::requests() const
{
    constexpr qsizetype header_size = 16;
    QByteArrayList bodies;
    for (const QByteArray &line : record()) {
        if (!line.startsWith('#'))
            bodies += line.sliced(2 * header_size);
    }
    return bodies;
}

void SimulatedTerminal::unplug()
{
    constexpr qsizetype shown = 200; // a malformed packet can be long
    for (const QByteArray &complaint : end())
        fail("the simulated terminal complains: " + complaint.left(shown));
}

QByteArrayList SimulatedTerminal::complaints()
{
    return end();
}

/// Ends the process. Returns what is wrong with its run; nothing the next time.
QByteArrayList SimulatedTerminal::end()
{
    if (std::exchange(_has_ended, true))
        return {};
    _process.terminate();
    if (_process.state() != QProcess::NotRunning && !_process.waitForFinished(10'000))
        return {QByteArrayLiteral("it does not end")};
    QByteArrayList complaints = _process.readAllStandardError().split('\n');
    complaints.removeAll(QByteArray());
    if (_process.exitStatus() != QProcess::NormalExit)
        complaints += QByteArrayLiteral("it crashed");
    else if (_process.exitCode() != 0 && complaints.isEmpty())
        complaints += "exit code " + QByteArray::number(_process.exitCode());
    return complaints;
}

FilingTerminal::FilingTerminal(const QStringList &options)
    : SimulatedTerminal(QStringList{QStringLiteral("--files"), directory.path()} + options)
{
}
