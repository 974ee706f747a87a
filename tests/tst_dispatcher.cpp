#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QTest>

#include <sys/syscall.h>

/// Which event dispatcher of the framework the tool runs on: its own waits with ppoll, the one of GLib with poll.
class DispatcherTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theToolWaitsAs_data();
    void theToolWaitsAs();
};

void DispatcherTest::theToolWaitsAs_data()
{
#ifndef SYS_poll
    QSKIP("on this machine poll is ppoll");
#else
    QTest::addColumn<QString>("variable");
    QTest::addColumn<int>("call");
    QTest::newRow("nothing set") << QStringLiteral("QT_NO_GLIB") << SYS_ppoll;
    QTest::newRow("set by the user") << QStringLiteral("QT_NO_GLIB=1") << SYS_ppoll;
    QTest::newRow("set to nothing by the user") << QStringLiteral("QT_NO_GLIB=") << SYS_poll;
#endif
}

void DispatcherTest::theToolWaitsAs()
{
    QFETCH(const QString, variable);
    QFETCH(const int, call);
    const SimulatedTerminal terminal;
    Tool tool(argumentsOn(terminal.port(), "-m"), {variable});
    QVERIFY(tool.waitForOutput("IMEI"));
    const QString path = QStringLiteral("/proc/%1/syscall").arg(tool.process().processId());
    const auto callUnderWay = [&path] {
        QFile file(path); // the number of the call first, or "running"
        return file.open(QIODevice::ReadOnly) ? file.readAll().split(' ').constFirst() : QByteArray();
    };
    QTRY_COMPARE(callUnderWay(), QByteArray::number(call));
    QCOMPARE(tool.stop().errors, QByteArray());
}

QTEST_GUILESS_MAIN(DispatcherTest)
#include "tst_dispatcher.moc"
