#include "console.h"
#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "sanitizers.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <array>
#include <csignal>

/// The tool prints the log of a terminal; both are processes of their own, or the terminal is this one.
class LogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRecordIsPrintedWithItsLocalTime_data();
    void aRecordIsPrintedWithItsLocalTime();
    void aRecordsTextIsPrintedAsOneMessage_data();
    void aRecordsTextIsPrintedAsOneMessage();
    void theTypeIsPrintedAsANumber_data();
    void theTypeIsPrintedAsANumber();
    void everyRecordOfTheTextLogIsPrinted();
    void linesOfTheTerminalsOwnArePrinted();
    void recordsOfOtherLogsAreNotPrinted();
    void otherMessagesAreNotPrinted_data();
    void otherMessagesAreNotPrinted();
    void aPipeSeesEachRecordAtOnce();

    void theMonitorFollowsEveryJob_data();
    void theMonitorFollowsEveryJob();
    void theMonitorFollowsARestart();
    void withoutMonitorNothingIsPrinted();
    void theMonitorStartsBehindTheMasksAnswer_data();
    void theMonitorStartsBehindTheMasksAnswer();
    void recordsAroundTheMasksAnswerOfTheSimulatedTerminal();
    void recordsBetweenThePacketsOfATransferDoNotDisturb_data();
    void recordsBetweenThePacketsOfATransferDoNotDisturb();

    void theMonitorRunsWithEveryMask_data();
    void theMonitorRunsWithEveryMask();
    void aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting_data();
    void aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting();
    void theMonitorDoesNotStartWithoutAMask_data();
    void theMonitorDoesNotStartWithoutAMask();

    void aFloodIsPrintedWhole();
    void aSlowReaderLosesNothing();
    void aSignalEndsTheMonitor_data();
    void aSignalEndsTheMonitor();
    void aTerminalThatDropsOffEndsTheMonitor();
    void aTerminalUnpluggedInFullFlowEndsTheMonitor();
};

namespace {

constexpr auto flood_limit = is_sanitized ? 180s : 60s;

// POSIX zones, which need no zone files.
const QString utc = QStringLiteral("TZ=UTC0");

QByteArray identification(const PlainTerminal &terminal)
{
    return console::plainIdentificationParts(terminal.port()).join();
}

/// Answers the requests of a run without files, the last one with \a mask_answer.
void answerRequests(PlainTerminal &terminal, const QByteArray &mask_answer = packets::mask_answer)
{
    for (int i = 0; i < 3; ++i)
        terminal.send(terminal.answerTo(terminal.request()));
    QVERIFY(terminal.request().startsWith("*!LOG"));
    terminal.send(mask_answer);
}

QByteArray recordOf(int log, quint32 seconds, int milliseconds, int type, const QByteArray &data)
{
    return packets::packet("*>LOG" + packets::number(static_cast<quint64>(log), 1) + packets::number(seconds, 4)
        + packets::number(static_cast<quint64>(milliseconds), 2) + packets::number(static_cast<quint64>(type), 1)
        + data);
}

QByteArray text(const QByteArray &data)
{
    return recordOf(14, 1, 0, 1, data);
}

/// What the tool prints of text(data) in UTC.
QByteArray textLine(const QByteArray &data)
{
    return "00:00:01 000 [1] " + data + "\n";
}

QStringList monitorOn(const QString &port)
{
    return argumentsOn(port, "-m");
}

/// A monitor that printed nothing but \a output, and would have gone on for ever.
Run runsUntilStopped(const QByteArray &output)
{
    return exits(endedBy(SIGTERM), output);
}

constexpr qsizetype time_size = 12; // hh:mm:ss zzz

/// What the tool prints of \a packets while it monitors the log; a text with all of its output if the run went wrong.
QByteArray printed(const QByteArray &packets, const QString &zone = utc)
{
    PlainTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {zone});
    answerRequests(terminal);
    terminal.send(packets + text("That is all.\n"));
    tool.waitForOutput("That is all.\n");
    const Run run = tool.stop();
    const qsizetype end = run.output.lastIndexOf(" [1] That is all.\n") - time_size;
    const qsizetype begin = identification(terminal).size();
    if (end < begin || run != runsUntilStopped(identification(terminal) + run.output.sliced(begin)))
        return "not as expected: " + run.output + run.errors;
    return run.output.sliced(begin, end - begin);
}

// The log starts at midnight in UTC, so that record N has the time of N milliseconds.
const QStringList from_midnight{QStringLiteral("--log-start"), QStringLiteral("1699920000")};

/// What the tool prints in UTC of record \a number of the simulated terminal, which logs text only, one millisecond
/// apart from midnight on.
QByteArray line(int number)
{
    struct Shape {
        const char *type;
        const char *text;
    };
    static constexpr std::array<Shape, 8> cycle{{
        {"1", "ignition on\r\n"},
        {"2", "supply voltage 12.6 V\n"},
        {"0", "outside 21 \u00B0C, Gr\u00F6\u00DFe \u20AC 5\n"},
        {"3", nullptr},
        {"255", "clock carried over\n"},
        {"14", "@JVX in a text\n"},
        {"4", "two\nlines\n"},
        {"1", "position 52.5163, 13.3777; 11 satellites; speed 87 km/h; heading 274; altitude 34 m\r\n"},
    }};
    const Shape &shape = cycle.at(static_cast<size_t>(number) % cycle.size());
    const QByteArray time = QString::asprintf(
        "%02d:%02d:%02d %03d", number / 3'600'000, number / 60'000 % 60, number / 1000 % 60, number % 1000)
                                .toLatin1();
    const QByteArray data = shape.text ? "#" + QByteArray::number(number) + " " + shape.text : QByteArray("\n");
    return time + " [" + shape.type + "] " + data;
}

QByteArray lines(int count)
{
    QByteArray all;
    for (int number = 0; number < count; ++number)
        all += line(number);
    return all;
}

/// The number of records printed in \a output, from the first one on; -1 if one is missing or not whole.
int recordsIn(const QByteArray &output)
{
    int count = 0;
    QByteArray expected;
    while (expected.size() < output.size())
        expected += line(count++);
    return output == expected ? count : -1;
}

/// The largest amount of memory that a process has had, in bytes.
qint64 peakMemory(qint64 process)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &field : status.readAll().split('\n')) {
        if (field.startsWith("VmHWM:"))
            return field.simplified().split(' ').value(1).toLongLong() * 1024;
    }
    return -1;
}

/// Checks a \a run on a terminal that was unplugged: it has to print \a front, whole records, one line for the error,
/// and nothing more.
void compareUnplugged(const Run &run, const QByteArray &front)
{
    const QByteArray records = run.output.mid(front.size(), run.output.lastIndexOf("Error: ") - front.size());
    QVERIFY2(records.isEmpty() || records.endsWith('\n'), run.output.constData());
    QVERIFY(!records.contains("Error: "));
    QCOMPARE(withoutReason(run), exits(256 - 110, front + records + "Error: ...\n"));
}

} // namespace

// ---- what is printed ----------------------------------------------------------------------------------------------

void LogTest::aRecordIsPrintedWithItsLocalTime_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<quint32>("seconds");
    QTest::addColumn<int>("milliseconds");
    QTest::addColumn<QByteArray>("time");
    // Times by `TZ=... date -d @SECONDS +%T`; the milliseconds by hand.
    const QString nepal = QStringLiteral("TZ=<+0545>-5:45");
    const QString newfoundland = QStringLiteral("TZ=<-0330>3:30");
    const QString new_york = QStringLiteral("TZ=EST5EDT,M3.2.0,M11.1.0");
    const auto row = [](const char *name, const QString &zone, quint32 seconds, int milliseconds, const char *time) {
        QTest::newRow(name) << zone << seconds << milliseconds << QByteArray(time);
    };
    row("UTC", utc, 1772373807, 45, "14:03:27 045");
    row("east, with minutes", nepal, 1772373807, 45, "19:48:27 045");
    row("west, with minutes", newfoundland, 1772373807, 45, "10:33:27 045");
    row("west, in winter", new_york, 1772373807, 0, "09:03:27 000");
    row("west, in summer", new_york, 1784613600, 0, "02:00:00 000");
    row("midnight", utc, 1699920000, 0, "00:00:00 000");
    row("before midnight", utc, 1699919999, 999, "23:59:59 999");
    row("midnight by a carry", utc, 1699919999, 1000, "00:00:00 000");
    row("the day before", newfoundland, 1699920000, 7, "20:30:00 007");
    row("a carry of 1.5 s", utc, 1772373807, 1500, "14:03:28 500");
    row("the largest carry", utc, 1772373807, 65535, "14:04:32 535");
    row("the epoch", utc, 0, 0, "00:00:00 000");
    row("the epoch, west", new_york, 0, 1, "19:00:00 001");
    row("behind 31 bits", utc, 2147483648U, 10, "03:14:08 010");
    row("the last second", utc, 4294967295U, 999, "06:28:15 999");
    row("behind the last second", utc, 4294967295U, 1000, "06:28:16 000");
}

void LogTest::aRecordIsPrintedWithItsLocalTime()
{
    QFETCH(QString, zone);
    QFETCH(quint32, seconds);
    QFETCH(int, milliseconds);
    QFETCH(QByteArray, time);
    QCOMPARE(printed(recordOf(14, seconds, milliseconds, 3, "abc"), zone), time + " [3] abc\n");
}

void LogTest::aRecordsTextIsPrintedAsOneMessage_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("message");
    const auto row = [](const char *name, const QByteArray &data, const QByteArray &message) {
        QTest::newRow(name) << data << message;
    };
    row("empty", "", "\n");
    row("without line end", "abc", "abc\n");
    row("with line end", "abc\n", "abc\n");
    row("with carriage return and line feed", "abc\r\n", "abc\r\n");
    row("with carriage return", "abc\r", "abc\r\n");
    row("two line ends", "abc\n\n", "abc\n\n");
    row("line end only", "\n", "\n");
    row("two lines", "a\nb", "a\nb\n");
    row("UTF-8", "Gr\u00F6\u00DFe \u20AC \U0001F600", "Gr\u00F6\u00DFe \u20AC \U0001F600\n");
    row("not UTF-8", "a\xFFz", "a\uFFFDz\n");
    row("a place marker", "%1 %2", "%1 %2\n");
    row("the mark of a packet", "@JVX@JVX", "@JVX@JVX\n");
    row("the header of a packet, cut at its zero", packets::mask_answer.first(16), "@JVX\x01\n");
    row("cut at a zero", QByteArray("ab\0cd", 5), "ab\n");
    row("the longest", QByteArray(65535 - 13, 'x'), QByteArray(65535 - 13, 'x') + "\n");
}

void LogTest::aRecordsTextIsPrintedAsOneMessage()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, message);
    QCOMPARE(printed(text(data)), "00:00:01 000 [1] " + message);
}

void LogTest::theTypeIsPrintedAsANumber_data()
{
    QTest::addColumn<int>("type");
    for (const int type : {0, 9, 10, 127, 128, 255})
        QTest::addRow("%d", type) << type;
}

void LogTest::theTypeIsPrintedAsANumber()
{
    QFETCH(int, type);
    QCOMPARE(printed(recordOf(14, 1, 0, type, "abc")), "00:00:01 000 [" + QByteArray::number(type) + "] abc\n");
}

void LogTest::everyRecordOfTheTextLogIsPrinted()
{
    // The mask enables the logs 3 and 5 too; their records take the times 002 and 005.
    SimulatedTerminal terminal(words("--log-rate 1000 --log-count 20") + from_midnight);
    Tool tool(monitorOn(terminal.port()) + words("-l 4028"), {utc});
    const QByteArray expected = console::identification(terminal.port())
        + "00:00:00 000 [1] #0 ignition on\r\n"
          "00:00:00 001 [2] #1 supply voltage 12.6 V\n"
          "00:00:00 003 [0] #2 outside 21 \u00B0C, Gr\u00F6\u00DFe \u20AC 5\n"
          "00:00:00 004 [3] \n"
          "00:00:00 006 [255] #4 clock carried over\n"
          "00:00:00 007 [14] #5 @JVX in a text\n"
          "00:00:00 008 [4] #6 two\nlines\n"
          "00:00:00 009 [1] #7 position 52.5163, 13.3777; 11 satellites; speed 87 km/h; heading 274; altitude 34 m\r\n"
          "00:00:00 010 [1] #8 ignition on\r\n"
          "00:00:00 011 [2] #9 supply voltage 12.6 V\n"
          "00:00:00 013 [0] #10 outside 21 \u00B0C, Gr\u00F6\u00DFe \u20AC 5\n"
          "00:00:00 014 [3] \n"
          "00:00:00 016 [255] #12 clock carried over\n"
          "00:00:00 017 [14] #13 @JVX in a text\n"
          "00:00:00 018 [4] #14 two\nlines\n"
          "00:00:00 019 [1] #15 position 52.5163, 13.3777; 11 satellites; speed 87 km/h; heading 274; altitude 34 "
          "m\r\n";
    QVERIFY(tool.waitForOutput("#15 position"));
    QTest::qSleep(50);
    QCOMPARE(tool.stop(), runsUntilStopped(expected));
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4728400000"));
}

void LogTest::linesOfTheTerminalsOwnArePrinted()
{
    const QTemporaryDir directory;
    const QString texts = directory.filePath(QStringLiteral("texts"));
    files::store(texts, "first\n\nTemperatur 21 \u00B0C\nlast\n");
    SimulatedTerminal terminal(words("--log-rate 4 --log") + QStringList{texts} + from_midnight);
    Tool tool(monitorOn(terminal.port()), {QStringLiteral("TZ=<+0545>-5:45")});
    QVERIFY(tool.waitForOutput("last\n"));
    QCOMPARE(tool.stop(),
        runsUntilStopped(console::identification(terminal.port())
            + "05:45:00 000 [1] first\n"
              "05:45:00 250 [1] \n"
              "05:45:00 500 [1] Temperatur 21 \u00B0C\n"
              "05:45:00 750 [1] last\n"));
}

void LogTest::recordsOfOtherLogsAreNotPrinted()
{
    QByteArray records;
    for (int log = 0; log < 256; ++log)
        records += recordOf(log, 1, 0, 1, "of log " + QByteArray::number(log));
    QCOMPARE(printed(records), textLine("of log 14"));
}

void LogTest::otherMessagesAreNotPrinted_data()
{
    QTest::addColumn<QByteArray>("packet");
    const QByteArray record = packets::logBody("text");
    const auto row = [](const char *name, const QByteArray &body) { QTest::newRow(name) << packets::packet(body); };
    row("a record of no bytes", record.first(5));
    row("a record of one byte", record.first(5 + 1));
    row("a record of seven bytes", record.first(5 + 7));
    row("no key", "*>" + record.sliced(5));
    row("a key cut short", "*>LO");
    row("another key", "*>LOH" + record.sliced(5));
    row("the key later", "*>xLOG" + record.sliced(5));
    row("the key in the text only", "*>LOH" + record.sliced(5) + "LOG");
    row("the key in lower case", "*>log" + record.sliced(5));
    row("an answer", "*@LOG" + record.sliced(5));
    row("an answer to a question", "*#LOG" + record.sliced(5));
    row("a request", "*!LOG" + record.sliced(5));
    row("another start", "+>LOG" + record.sliced(5));
    QTest::newRow("a wrong body checksum") << packets::withWrongBodySum(record);
    QTest::newRow("a wrong header checksum") << packets::withWrongHeaderSum(packets::packet(record));
}

void LogTest::otherMessagesAreNotPrinted()
{
    QFETCH(QByteArray, packet);
    QCOMPARE(printed(text("before") + packet + text("behind")), textLine("before") + textLine("behind"));
}

void LogTest::aPipeSeesEachRecordAtOnce()
{
    PlainTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {utc});
    answerRequests(terminal);
    QByteArray expected = identification(terminal);
    // The next record is sent only when the whole of this one has been printed.
    for (const char *data : {"1", "2\n", "", "4 \u20AC", "\n", "6\r\n"}) {
        terminal.send(text(data));
        expected += QByteArray(data).endsWith('\n') ? textLine(data).chopped(1) : textLine(data);
        QVERIFY2(tool.waitForOutput(expected), data);
    }
    QCOMPARE(tool.stop(), runsUntilStopped(expected));
}

// ---- when it is printed -------------------------------------------------------------------------------------------

void LogTest::theMonitorFollowsEveryJob_data()
{
    QTest::addColumn<QStringList>("job");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("identification") << QStringList() << QByteArray();
    QTest::newRow("read") << words("-f settings -r")
                          << console::reading("settings") + console::progress(3)
            + console::saved(QStringLiteral("%local"));
    QTest::newRow("write") << words("-f settings -w")
                           << console::writing(QStringLiteral("%local"), "settings") + console::progress(3)
            + console::written();
}

void LogTest::theMonitorFollowsEveryJob()
{
    QFETCH(QStringList, job);
    QFETCH(QByteArray, message);
    FilingTerminal terminal(words("--log-rate 1000 --log-count 40") + from_midnight);
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, "new");
    files::store(terminal.own(QStringLiteral("settings")), "old");
    if (!job.isEmpty())
        job += local;
    Tool tool(monitorOn(terminal.port()) + job, {utc});
    QVERIFY(tool.waitForOutput("#39 position"));
    message.replace("%local", local.toLocal8Bit());
    QCOMPARE(tool.stop(), runsUntilStopped(console::identification(terminal.port()) + message + lines(40)));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void LogTest::theMonitorFollowsARestart()
{
    SimulatedTerminal terminal(words("--restart 1 --log-rate 1000 --log-count 40") + from_midnight);
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, "new");
    Tool tool(argumentsOn(terminal.port(), "-m -l 4001 -w -a -f settings", local), {utc});
    const QByteArray expected = console::identification(terminal.port()) + console::writing(local, "settings")
        + console::progress(3) + console::written() + console::applying("settings") + console::completed()
        + console::waiting(terminal.port()) + console::opened(terminal.port()) + lines(40);
    tool.waitForOutputOf(expected.size(), 30s);
    QCOMPARE(tool.stop(), runsUntilStopped(expected));
    // The mask is set on the terminal that came back, and on no other.
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().mid(5), QByteArrayList{"2a214c4f4701400000"});
}

void LogTest::withoutMonitorNothingIsPrinted()
{
    SimulatedTerminal terminal(words("--log-always --log-rate max"));
    QCOMPARE(runOn(terminal.port()), exits(0, console::identification(terminal.port())));
}

void LogTest::theMonitorStartsBehindTheMasksAnswer_data()
{
    QTest::addColumn<QByteArray>("mask");
    QTest::newRow("mask 4000") << packets::mask_answer;
    QTest::newRow("mask 0") << packets::packet("*@LOG" + packets::number(0, 4));
    QTest::newRow("an answer with more than the mask") << packets::packet("*@LOG" + packets::number(0x4000, 4) + "LOG");
}

void LogTest::theMonitorStartsBehindTheMasksAnswer()
{
    QFETCH(QByteArray, mask);
    PlainTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {utc});
    // All in one piece, so that the tool finds it all in one go.
    answerRequests(terminal, text("early") + mask + text("glued") + text("glued too"));
    QVERIFY(tool.waitForOutput("glued too\n"));
    terminal.send(text("late"));
    QVERIFY(tool.waitForOutput("late\n"));
    QCOMPARE(tool.stop(),
        runsUntilStopped(identification(terminal) + textLine("glued") + textLine("glued too") + textLine("late")));
}

void LogTest::recordsAroundTheMasksAnswerOfTheSimulatedTerminal()
{
    // A record on either side of each of four answers: the eighth is the only one behind the mask's answer.
    SimulatedTerminal terminal(words("--log-always") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    QVERIFY(tool.waitForOutput("in a text\n"));
    QTest::qSleep(50);
    QCOMPARE(tool.stop(),
        runsUntilStopped(console::identification(terminal.port()) + "00:00:00 007 [14] #5 @JVX in a text\n"));
}

void LogTest::recordsBetweenThePacketsOfATransferDoNotDisturb_data()
{
    QTest::addColumn<bool>("reads");
    QTest::newRow("read") << true;
    QTest::newRow("write") << false;
}

void LogTest::recordsBetweenThePacketsOfATransferDoNotDisturb()
{
    QFETCH(bool, reads);
    constexpr int size = 20'000;
    FilingTerminal terminal(words("--log-always --log-rate max"));
    const QString own = terminal.own(QStringLiteral("settings"));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(reads ? own : local, files::sample(size));
    const QByteArray begin = reads ? console::reading("settings") : console::writing(local, "settings");
    const QByteArray end = reads ? console::saved(local) : console::written();
    QCOMPARE(runOn(terminal.port(), reads ? "-r -f settings" : "-w -f settings", local),
        exits(0, console::identification(terminal.port()) + begin + console::progress(size) + end));
    QVERIFY(files::content(reads ? local : own) == files::sample(size));
}

// ---- the mask -----------------------------------------------------------------------------------------------------

void LogTest::theMonitorRunsWithEveryMask_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("request");
    const auto row = [](const char *name, const char *arguments, const char *options, const char *request) {
        QTest::newRow(name) << words(arguments) << words(options) << QByteArray(request);
    };
    row("none given", "", "", log_mask_request);
    row("4000", "-l 4000", "", log_mask_request);
    row("7FFFFFFF", "-l 7FFFFFFF", "", "2a214c4f47ffffff7f");
    row("-1", "-l -1", "", "2a214c4f47ffffffff");
    row("told another one", "-l 4000", "--mask-reply 1", log_mask_request);
    row("told none", "-l 4000", "--mask-reply 0", log_mask_request);
    row("told more", "-l 4000", "--mask-reply ffffffff", log_mask_request);
    row("0, and logged all the same", "-l 0", "--log-always", "2a214c4f4700000000");
}

void LogTest::theMonitorRunsWithEveryMask()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal(options + words("--log-rate 1000"));
    Tool tool(monitorOn(terminal.port()) + arguments);
    QVERIFY(tool.waitForOutput("ignition on") && tool.waitForOutput("position"));
    const Run run = tool.stop();
    const QByteArray front = console::identification(terminal.port());
    const QByteArray records = run.output.mid(front.size());
    QVERIFY2(!records.contains("Error"), records.constData());
    QCOMPARE(run, runsUntilStopped(front + records));
    QCOMPARE(terminal.requests().mid(3), QByteArrayList{request});
}

void LogTest::aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting_data()
{
    QTest::addColumn<QString>("mask");
    QTest::addColumn<QByteArray>("request");
    QTest::newRow("0") << QStringLiteral("0") << QByteArray("2a214c4f4700000000");
    QTest::newRow("other logs only") << QStringLiteral("28") << QByteArray("2a214c4f4728000000");
    QTest::newRow("every log but the texts") << QStringLiteral("-4001") << QByteArray("2a214c4f47ffbfffff");
}

void LogTest::aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting()
{
    QFETCH(QString, mask);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal(words("--log-rate 1000"));
    Tool tool(monitorOn(terminal.port()) + QStringList{QStringLiteral("-l"), mask});
    QTRY_COMPARE_WITH_TIMEOUT(terminal.requests().mid(3), QByteArrayList{request}, 10'000);
    QVERIFY(!tool.process().waitForFinished(700)); // longer than an answer may take
    QCOMPARE(tool.stop(), runsUntilStopped(console::identification(terminal.port())));
    QCOMPARE(terminal.requests().size(), 4);
}

void LogTest::theMonitorDoesNotStartWithoutAMask_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("time");
    const QByteArray unknown("Error: Unknown response(-2)\n");
    QTest::newRow("no answer") << words("--silent LOG") << QByteArray("Error: Timeout(-1)\n") << 256 - 1 << 500;
    QTest::newRow("an answer of no bytes") << words("--answer LOG=") << unknown << 256 - 2 << 0;
    QTest::newRow("an answer of three bytes") << words("--answer LOG=004000") << unknown << 256 - 2 << 0;
}

void LogTest::theMonitorDoesNotStartWithoutAMask()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, message);
    QFETCH(int, code);
    QFETCH(int, time);
    SimulatedTerminal terminal(options + words("--log-always --log-rate 1000"));
    const Run run = Tool(monitorOn(terminal.port())).finish();
    QCOMPARE(run, exits(code, console::identification(terminal.port()) + message));
    QVERIFY(run.milliseconds >= time);
    QCOMPARE(terminal.requests().size(), 4);
}

// ---- many records, and the end ------------------------------------------------------------------------------------

void LogTest::aFloodIsPrintedWhole()
{
    SimulatedTerminal terminal(words("--log-rate max --log-count 100000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    const QByteArray front = console::identification(terminal.port());
    QVERIFY(tool.waitForOutputOf(front.size() + lines(10'000).size(), flood_limit));
    const qint64 early = peakMemory(tool.process().processId());
    QVERIFY(tool.waitForOutputOf(front.size() + lines(100'000).size(), flood_limit));
    const qint64 late = peakMemory(tool.process().processId());
    QCOMPARE(tool.stop(), runsUntilStopped(front + lines(100'000)));
    QVERIFY(early > 0);
    if (!is_sanitized) // what is freed stays in quarantine
        QVERIFY2(late - early < 2 * 1024 * 1024, QByteArray::number(late - early).constData());
}

void LogTest::aSlowReaderLosesNothing()
{
    constexpr int count = 20'000; // far more than a pipe holds
    SimulatedTerminal terminal(words("--log-rate max --log-count 20000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    const QByteArray front = console::identification(terminal.port());
    QVERIFY(tool.waitForOutput(line(0)));
    QTest::qSleep(2000); // nothing is read in the meantime
    QVERIFY(tool.waitForOutputOf(front.size() + lines(count).size(), flood_limit));
    QCOMPARE(tool.stop(), runsUntilStopped(front + lines(count)));
}

void LogTest::aSignalEndsTheMonitor_data()
{
    QTest::addColumn<int>("signal_number");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void LogTest::aSignalEndsTheMonitor()
{
    QFETCH(int, signal_number);
    std::signal(signal_number, SIG_DFL); // a shell's background jobs inherit SIGINT as ignored
    SimulatedTerminal terminal(words("--log-rate 1000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    QVERIFY(tool.waitForOutput("#100 clock"));
    QCOMPARE(::kill(static_cast<pid_t>(tool.process().processId()), signal_number), 0);
    const Run run = tool.finish(5s);
    const QByteArray front = console::identification(terminal.port());
    const int records = recordsIn(run.output.mid(front.size()));
    QVERIFY2(records > 100, run.output.constData());
    QCOMPARE(run, exits(endedBy(signal_number), front + lines(records)));
    QCOMPARE(terminal.requests().size(), 4); // the log was not switched off
}

void LogTest::aTerminalThatDropsOffEndsTheMonitor()
{
    for (int run = 0; run < 20; ++run) {
        SimulatedTerminal terminal(words("--drop-at 4:after --no-return --log-always --log-rate max"));
        compareUnplugged(Tool(monitorOn(terminal.port())).finish(), console::identification(terminal.port()));
        if (QTest::currentTestFailed())
            return;
    }
}

void LogTest::aTerminalUnpluggedInFullFlowEndsTheMonitor()
{
    for (int repetition = 0; repetition < 20; ++repetition) {
        SimulatedTerminal terminal(words("--log-rate max") + from_midnight);
        const QByteArray front = console::identification(terminal.port());
        Tool tool(monitorOn(terminal.port()), {utc});
        QVERIFY(tool.waitForOutput("#100 clock"));
        terminal.unplug();
        const Run run = tool.finish();
        compareUnplugged(run, front);
        if (QTest::currentTestFailed())
            return;
        const QByteArray records = run.output.sliced(front.size());
        QVERIFY2(recordsIn(records.first(records.indexOf("Error: "))) > 100, run.output.constData());
    }
}

QTEST_GUILESS_MAIN(LogTest)
#include "tst_log.moc"
