#include "harness.h"

#include <QRegularExpression>

#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <unistd.h>
#include <vector>

/// A terminal restarts after a file was applied, and the tool waits for it; both are processes of their own.
class TestRestart : public QObject {
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
    void aTerminalThatNeverComesBackEndsTheRun();
};

namespace {

/// Writes and applies a local file of nine bytes as \a kind.
QStringList apply(const SimulatedTerminal &terminal, const char *kind)
{
    QFile local(terminal.path(QStringLiteral("local.bin")));
    if (local.open(QIODevice::WriteOnly))
        local.write("123456789");
    return {QStringLiteral("-p"), terminal.port(), QStringLiteral("-w"), QStringLiteral("-a"), QStringLiteral("-f"),
        QString::fromLatin1(kind), local.fileName()};
}

/// What the tool prints until it waits for the terminal.
QByteArray applied(
    const SimulatedTerminal &terminal, const QByteArray &kind, const QByteArray &completed = "Completed\n")
{
    return identificationOn(terminal) + "Writing file '" + terminal.path(QStringLiteral("local.bin")).toLocal8Bit()
        + "' to '" + kind + "' ...\n\r100% completed (9/9)\n\nApply file '" + kind + "' ...\n" + completed + "\n"
        + "Serial port closed: " + terminal.port().toLocal8Bit() + "\nWaiting device ...\n";
}

QByteArray reopened(const SimulatedTerminal &terminal)
{
    return "\rSerial port open: " + terminal.port().toLocal8Bit() + "\n\n";
}

/// Takes pseudo-terminals until it has the one that \a path has named, which has become free, or until \a isTooLate.
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

const QByteArray log_mask_request = "2a214c4f4700400000";

} // namespace

void TestRestart::theTerminalComesBack_data()
{
    QTest::addColumn<QString>("seconds");
    QTest::newRow("at once") << QStringLiteral("0");
    QTest::newRow("after 3 s") << QStringLiteral("3");
}

void TestRestart::theTerminalComesBack()
{
    QFETCH(QString, seconds);
    SimulatedTerminal terminal({QStringLiteral("--restart"), seconds});
    const Run run = Tool(apply(terminal, "settings")).finish();
    QCOMPARE(run.output, applied(terminal, "settings") + reopened(terminal));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    QVERIFY2(run.milliseconds >= 5100, QByteArray::number(run.milliseconds).constData());
    // The log mask is set on the terminal that came back, and nothing else is asked of it.
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().mid(5), QByteArrayList{log_mask_request});
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::theCountdownIsShownUntilTheTerminalComesBack()
{
    SimulatedTerminal terminal({QStringLiteral("--restart"), QStringLiteral("8")});
    const Run run = Tool(apply(terminal, "settings")).finish();
    const QByteArray front = applied(terminal, "settings") + "\r60 secs\r59 secs\r58 secs";
    QVERIFY2(run.output.startsWith(front), run.output.constData());
    // A busy machine may bring the terminal back somewhat later.
    const QRegularExpression rest(QStringLiteral("^(\r5[0-7] secs)*%1$")
                                      .arg(QRegularExpression::escape(QString::fromLocal8Bit(reopened(terminal)))));
    QVERIFY2(rest.match(QString::fromLocal8Bit(run.output.sliced(front.size()))).hasMatch(), run.output.constData());
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::theTerminalComesBackUnderAnotherNode()
{
    SimulatedTerminal terminal({QStringLiteral("--restart"), QStringLiteral("2")});
    const QString before = QFileInfo(terminal.port()).symLinkTarget();
    Tool tool(apply(terminal, "settings"));
    QVERIFY(tool.waitForOutput("Waiting device"));
    QTRY_VERIFY(!terminal.isPlugged());
    const PseudoTerminalSquatter squatter(before, [&terminal] { return terminal.isPlugged(); });
    const Run run = tool.finish();
    const QString after = QFileInfo(terminal.port()).symLinkTarget();
    QVERIFY2(before != after, qPrintable(after));
    QCOMPARE(run.output, applied(terminal, "settings") + reopened(terminal));
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::halfAPacketFromBeforeTheRestartIsForgotten()
{
    // The header of a log record whose body of 255 bytes never comes; header checksum by a Python one-liner.
    SimulatedTerminal terminal(
        {QStringLiteral("--restart-junk"), QStringLiteral("404a56580100000000000000ff0000fa2a3e4c4f47")});
    const Run run = Tool(apply(terminal, "settings")).finish();
    QCOMPARE(run.output, applied(terminal, "settings") + reopened(terminal));
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::anApplyAnsweredBeforehandIsSentAllTheSame()
{
    PlainTerminal terminal;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, "123456789");
    Tool tool({QStringLiteral("-p"), terminal.port(), QStringLiteral("-w"), QStringLiteral("-a"), QStringLiteral("-f"),
        QStringLiteral("settings"), local});
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

void TestRestart::aStatusOfZeroCountsAsApplied()
{
    SimulatedTerminal terminal({QStringLiteral("--status"), QStringLiteral("FU:1=00")});
    const Run run = Tool(apply(terminal, "settings")).finish();
    QCOMPARE(run.output, applied(terminal, "settings") + reopened(terminal));
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::firmwareThatRestartsUnansweredIsWaitedFor()
{
    SimulatedTerminal terminal({QStringLiteral("--restart-before-answer")});
    const Run run = Tool(apply(terminal, "firmware")).finish();
    QCOMPARE(run.output, applied(terminal, "firmware", {}) + reopened(terminal));
    QCOMPARE(run.code, 0);
    QVERIFY2(run.milliseconds >= 500 + 5100, QByteArray::number(run.milliseconds).constData());
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::firmwareThatVanishesAtOnceIsAPortError()
{
    SimulatedTerminal terminal({QStringLiteral("--vanish"), QStringLiteral("FU")});
    const Run run = Tool(apply(terminal, "firmware")).finish();
    QVERIFY2(run.output.contains("Apply file 'firmware' ...\nError: "), run.output.constData());
    QCOMPARE(run.output.count("Error: "), 1);
    QCOMPARE(run.code, 256 - 110);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestRestart::aTerminalThatNeverComesBackEndsTheRun()
{
    SimulatedTerminal terminal({QStringLiteral("--no-return")});
    const Run run = Tool(apply(terminal, "settings")).finish(120s);
    QByteArray countdown;
    for (int seconds = 60; seconds > 0; --seconds)
        countdown += "\r" + QByteArray::number(seconds) + " secs";
    QCOMPARE(run.output,
        applied(terminal, "settings") + countdown + "\r              \nError: Failed to open serial port "
            + terminal.port().toLocal8Bit() + ": \n");
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 256 - 112);
    QVERIFY2(run.milliseconds >= 65'100, QByteArray::number(run.milliseconds).constData());
    QCOMPARE(terminal.finish(), QByteArray());
}

QTEST_GUILESS_MAIN(TestRestart)
#include "tst_restart.moc"
