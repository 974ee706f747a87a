#include "restartingterminal.h"

#include <QTest>

/// The end of the tool's patience with a terminal that restarts. On its own, for it takes more than a minute.
class RestartTimeoutTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aTerminalThatNeverComesBackEndsTheRun();
};

void RestartTimeoutTest::aTerminalThatNeverComesBackEndsTheRun()
{
    RestartingTerminal terminal("--no-return");
    const Run run = terminal.start("settings").finish(120s);
    QByteArray countdown;
    for (int seconds = 60; seconds > 0; --seconds)
        countdown += "\r" + QByteArray::number(seconds) + " secs";
    QCOMPARE(run,
        exits(256 - 112,
            terminal.applied("settings") + countdown + "\r              \nError: Failed to open serial port "
                + terminal.port().toLocal8Bit() + ": \n"));
    QVERIFY2(run.milliseconds >= 65'100, QByteArray::number(run.milliseconds).constData());
}

QTEST_GUILESS_MAIN(RestartTimeoutTest)
#include "tst_restart_timeout.moc"
