#include "console.h"
#include "localfiles.h"
#include "plainterminal.h"
#include "restartingterminal.h"
#include "tool.h"

#include <QFileInfo>
#include <QTest>

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <unistd.h>
#include <vector>

/// A terminal restarts after a file was applied, and the tool waits for it; both are processes of their own.
class RestartTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theTerminalComesBack_data();
    void theTerminalComesBack();
    void theCountdownIsShownUntilTheTerminalComesBack();
    void theTerminalComesBackUnderAnotherNode();
    void halfAPacketFromBeforeTheRestartIsForgotten();
    void anApplyAnsweredBeforehandIsSentAllTheSame();
    void aStatusOfZeroCountsAsApplied();
    void firmwareThatRestartsUnansweredIsWaitedFor();
    void firmwareThatVanishesAtOnceIsAPortError();
};

namespace {

/// Opens pseudo-terminals until it gets the one at \a path, which has just become free, or until \a isTooLate.
class PseudoTerminalSquatter {
public:
    PseudoTerminalSquatter(const QString &path, const std::function<bool()> &isTooLate)
    {
        for (QByteArray taken; taken != path.toLocal8Bit() && !isTooLate(); QTest::qSleep(5)) {
            _masters.push_back(::posix_openpt(O_RDWR | O_NOCTTY));
            taken = ::ptsname(_masters.back());
        }
    }

    ~PseudoTerminalSquatter()
    {
        for (const int master : _masters)
            ::close(master);
    }

    PseudoTerminalSquatter(const PseudoTerminalSquatter &) = delete;
    PseudoTerminalSquatter &operator=(const PseudoTerminalSquatter &) = delete;

private:
    std::vector<int> _masters;
};

} // namespace

void RestartTest::theTerminalComesBack_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::newRow("at once") << QByteArray("--restart 0");
    QTest::newRow("after 3 s") << QByteArray("--restart 3");
}

void RestartTest::theTerminalComesBack()
{
    QFETCH(QByteArray, options);
    RestartingTerminal terminal(options.constData());
    const Run run = terminal.start("settings").finish();
    QCOMPARE(run, terminal.restarts("settings"));
    QVERIFY2(run.milliseconds >= 5100, QByteArray::number(run.milliseconds).constData());
    // The log mask is set on the terminal that came back, and nothing else is asked of it.
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().mid(5), QByteArrayList{log_mask_request});
}

void RestartTest::theCountdownIsShownUntilTheTerminalComesBack()
{
    RestartingTerminal terminal("--restart 8");
    const Run run = terminal.start("settings").finish();
    // A busy machine may bring the terminal back somewhat later.
    QByteArray countdown("\r60 secs\r59 secs\r58 secs");
    for (int seconds = 57; run.output.contains("\r" + QByteArray::number(seconds) + " secs"); --seconds)
        countdown += "\r" + QByteArray::number(seconds) + " secs";
    QCOMPARE(run, exits(0, terminal.applied("settings") + countdown + console::opened(terminal.port())));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void RestartTest::theTerminalComesBackUnderAnotherNode()
{
    RestartingTerminal terminal("--restart 2");
    const QString before = QFileInfo(terminal.port()).symLinkTarget();
    Tool tool = terminal.start("settings");
    QVERIFY(tool.waitForOutput("Waiting device"));
    QTRY_VERIFY(!terminal.isPlugged());
    const PseudoTerminalSquatter squatter(before, [&terminal] { return terminal.isPlugged(); });
    const Run run = tool.finish();
    const QString after = QFileInfo(terminal.port()).symLinkTarget();
    QVERIFY2(before != after, qPrintable(after));
    QCOMPARE(run, terminal.restarts("settings"));
}

void RestartTest::halfAPacketFromBeforeTheRestartIsForgotten()
{
    // The header of a log record whose body of 255 bytes never comes; header checksum by a Python one-liner.
    RestartingTerminal terminal("--restart-junk 404a56580100000000000000ff0000fa2a3e4c4f47");
    QCOMPARE(terminal.start("settings").finish(), terminal.restarts("settings"));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void RestartTest::anApplyAnsweredBeforehandIsSentAllTheSame()
{
    PlainTerminal terminal;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, "123456789");
    Tool tool(argumentsOn(terminal.port(), "-w -a -f settings", local));
    for (int i = 0; i < 3; ++i)
        terminal.send(terminal.answerTo(terminal.request()));
    const QByteArray apply_request = QByteArray::fromHex("2a214655"
                                                         "00"
                                                         "00000000"
                                                         "2639f4cb");
    terminal.send(terminal.answerTo(terminal.request()) + terminal.answerTo(apply_request));
    QVERIFY(tool.waitForOutput("\nCompleted\n"));
    QCOMPARE(terminal.request(), apply_request);
}

void RestartTest::aStatusOfZeroCountsAsApplied()
{
    RestartingTerminal terminal("--status FU:1=00");
    QCOMPARE(terminal.start("settings").finish(), terminal.restarts("settings"));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void RestartTest::firmwareThatRestartsUnansweredIsWaitedFor()
{
    RestartingTerminal terminal("--restart-before-answer");
    const Run run = terminal.start("firmware").finish();
    const QByteArray reopened = console::waiting(terminal.port()) + console::opened(terminal.port());
    QCOMPARE(run, exits(0, terminal.applying("firmware") + reopened));
    QVERIFY2(run.milliseconds >= 500 + 5100, QByteArray::number(run.milliseconds).constData());
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
}

void RestartTest::firmwareThatVanishesAtOnceIsAPortError()
{
    RestartingTerminal terminal("--vanish FU");
    const Run run = terminal.start("firmware").finish();
    QCOMPARE(withoutReason(run), exits(256 - 110, terminal.applying("firmware") + "Error: ...\n"));
}

QTEST_GUILESS_MAIN(RestartTest)
#include "tst_restart.moc"
