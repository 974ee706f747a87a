#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <poll.h>
#include <sys/syscall.h>

/// Which event dispatcher of the framework the tool runs on. Both wait with poll or ppoll, depending on the version of
/// the library; only the one of GLib lists the descriptors in ascending order.
class DispatcherTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theToolWaitsOn_data();
    void theToolWaitsOn();
};

namespace {

/// The system call that the process with this number waits in: the number of the call, then its arguments.
QByteArrayList callUnderWay(qint64 process)
{
    QFile file(QStringLiteral("/proc/%1/syscall").arg(process));
    return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ') : QByteArrayList();
}

/// The descriptors that the process waits for, in its order; empty as long as it does not wait.
QList<int> awaitedDescriptors(qint64 process)
{
    const QByteArrayList call = callUnderWay(process);
    const int number = call.value(0).toInt();
#ifdef SYS_poll
    const bool waits = number == SYS_poll || number == SYS_ppoll;
#else
    const bool waits = number == SYS_ppoll;
#endif
    QFile memory(QStringLiteral("/proc/%1/mem").arg(process));
    if (!waits || !memory.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    memory.seek(call.value(1).toLongLong(nullptr, 16)); // descriptors, then how many there are
    QList<int> descriptors;
    for (int i = 0; i < call.value(2).toInt(nullptr, 16); ++i) {
        pollfd request{};
        memory.read(reinterpret_cast<char *>(&request), sizeof request);
        descriptors += request.fd;
    }
    return descriptors;
}

} // namespace

void DispatcherTest::theToolWaitsOn_data()
{
    QTest::addColumn<QString>("variable");
    QTest::addColumn<bool>("is_of_glib");
    QTest::newRow("nothing set") << QStringLiteral("QT_NO_GLIB") << false;
    QTest::newRow("set by the user") << QStringLiteral("QT_NO_GLIB=1") << false;
    QTest::newRow("set to nothing by the user") << QStringLiteral("QT_NO_GLIB=") << true;
}

void DispatcherTest::theToolWaitsOn()
{
    QFETCH(const QString, variable);
    QFETCH(const bool, is_of_glib);
    const SimulatedTerminal terminal;
    Tool tool(argumentsOn(terminal.port(), "-m"), {variable});
    QVERIFY(tool.waitForOutput("IMEI"));
    QList<int> descriptors;
    QTRY_VERIFY((descriptors = awaitedDescriptors(tool.process().processId())).size() > 1);
    QCOMPARE(std::is_sorted(descriptors.cbegin(), descriptors.cend()), is_of_glib);
    QCOMPARE(tool.stop().errors, QByteArray());
}

QTEST_GUILESS_MAIN(DispatcherTest)
#include "tst_dispatcher.moc"
