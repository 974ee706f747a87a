#include "console.h"
#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "tool.h"

#include <QTest>

#include <sys/resource.h>

/// The line towards the terminal takes no more for a while, or for ever: what is to be sent waits.
class FullLineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aLineThatIsFullAtTheStartIsWaitedFor();
    void piecesWaitUntilTheTerminalReads();
    void aLineThatTakesNothingIsATimeout();
};

namespace {

constexpr auto while_nothing_is_read = 300; // ms, less than any time-out

/// Answers the next \a count requests.
void answer(PlainTerminal &terminal, int count)
{
    for (int i = 0; i < count; ++i)
        terminal.send(terminal.answerTo(terminal.request()));
}

/// Seconds of processor time of all processes that this one has started and that have ended.
double processorTime()
{
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](timeval time) { return double(time.tv_sec) + double(time.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

} // namespace

void FullLineTest::aLineThatIsFullAtTheStartIsWaitedFor()
{
    PlainTerminal terminal;
    QVERIFY(terminal.fill() > 0);
    Tool tool(argumentsOn(terminal.port()));
    QVERIFY(tool.waitForOutput("Checking device ...\n"));
    QTest::qWait(while_nothing_is_read);
    terminal.takeFilling();
    answer(terminal, 4);
    QCOMPARE(tool.finish(), exits(0, console::plainIdentificationParts(terminal.port()).join()));
}

void FullLineTest::piecesWaitUntilTheTerminalReads()
{
    static constexpr int pieces = 400; // several times what the line holds
    const QByteArray file = files::sample(pieces * 512);
    PlainTerminal terminal;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, file);
    Tool tool(argumentsOn(terminal.port(), "-w -f settings", local));
    answer(terminal, 3);
    for (int piece = 0; piece < pieces; ++piece)
        terminal.send(packets::packet("*@FW1" + packets::number(0, 1) + packets::number(7, 4)
            + packets::number(static_cast<quint64>(piece) * 512, 4) + packets::number(512, 2)));
    QVERIFY(tool.waitForOutput("100% completed"));
    QTest::qWait(while_nothing_is_read);
    QByteArray received;
    for (int piece = 0; piece < pieces; ++piece) {
        const QByteArray request = terminal.request();
        QVERIFY(request.startsWith("*!FW"));
        received += request.sliced(4 + 15);
    }
    QVERIFY(received == file);
    answer(terminal, 1);
    const QByteArray identification = console::plainIdentificationParts(terminal.port()).join();
    QCOMPARE(tool.finish(),
        exits(0,
            identification + console::writing(local, "settings") + console::progress(file.size())
                + console::written()));
}

void FullLineTest::aLineThatTakesNothingIsATimeout()
{
    PlainTerminal terminal;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, "123456789");
    Tool tool(argumentsOn(terminal.port(), "-w -f settings", local));
    answer(terminal, 2);
    const QByteArray last = terminal.answerTo(terminal.request());
    QVERIFY(terminal.fill() > 0);
    terminal.send(last);
    const double before = processorTime();
    const QByteArray identification = console::plainIdentificationParts(terminal.port()).join();
    QCOMPARE(
        tool.finish(), exits(255, identification + console::writing(local, "settings") + "\n\nError: Timeout(-1)\n"));
    const double seconds = processorTime() - before;
    QVERIFY2(seconds < 3, QByteArray::number(seconds).constData()); // of the 5 s that the tool waits: it does not spin
}

QTEST_GUILESS_MAIN(FullLineTest)
#include "tst_fullline.moc"
