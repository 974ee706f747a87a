#include "harness.h"
#include "packets.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

/// The tool prints the log of a terminal; both are processes of their own, or the terminal is this one.
class TestLog : public QObject {
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

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define JVX_UNDER_SANITIZERS
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define JVX_UNDER_SANITIZERS
#endif

#ifdef JVX_UNDER_SANITIZERS
constexpr bool is_memory_telling = false; // what is freed stays in quarantine
constexpr auto flood_limit = 180s;
#else
constexpr bool is_memory_telling = true;
constexpr auto flood_limit = 60s;
#endif

// POSIX zones, which need no zone files.
const QString utc = QStringLiteral("TZ=UTC0");

/// A terminal that says what the test wants, packet for packet: the other end of a pseudo-terminal.
class ScriptedTerminal {
public:
    ScriptedTerminal()
        : _master(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        if (::grantpt(_master) != 0 || ::unlockpt(_master) != 0)
            qWarning("no pseudo-terminal");
        _path = ::ptsname(_master);
        _slave = ::open(_path.constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios attributes{};
        ::tcgetattr(_slave, &attributes);
        ::cfmakeraw(&attributes);
        ::tcsetattr(_slave, TCSANOW, &attributes);
    }

    ~ScriptedTerminal()
    {
        ::close(_slave);
        ::close(_master);
    }

    ScriptedTerminal(const ScriptedTerminal &) = delete;
    ScriptedTerminal &operator=(const ScriptedTerminal &) = delete;

    QString port() const { return QString::fromLatin1(_path); }

    /// Answers the requests of a run without files. Returns whether they came.
    bool answerRequests(const QByteArray &mask_answer = packets::mask_answer) const
    {
        constexpr qsizetype ask = 16 + 3;
        constexpr qsizetype set_mask = 16 + 9;
        return answer(ask, packets::software_answer) && answer(ask, packets::hardware_answer)
            && answer(ask, packets::serial_number_answer) && answer(set_mask, mask_answer);
    }

    /// Returns whether the line took \a bytes within 10 s.
    bool send(QByteArray bytes) const
    {
        while (!bytes.isEmpty() && waitFor(POLLOUT)) {
            const auto count = ::write(_master, bytes.constData(), static_cast<size_t>(bytes.size()));
            if (count > 0)
                bytes.remove(0, count);
        }
        return bytes.isEmpty();
    }

    /// What the tool prints before it turns to the log.
    QByteArray identification() const
    {
        return "\rSerial port open: " + QByteArray(_path).replace("/dev/", "")
            + "\n\n"
              "Checking device ...\n"
              "\n"
              "Device: JVX\n"
              "Version: 1.2\n"
              "Date: 2024-05-06\n"
              "Language: en\n"
              "BHR: 0x102030405060708\n"
              "IMEI: 350000000000017\n"
              "\n";
    }

private:
    bool answer(qsizetype request_size, const QByteArray &answer) const
    {
        QByteArray request;
        while (request.size() < request_size && waitFor(POLLIN)) {
            std::array<char, 64> buffer{};
            const auto count = ::read(_master, buffer.data(), buffer.size());
            if (count <= 0)
                return false;
            request.append(buffer.data(), count);
        }
        return request.size() == request_size && send(answer);
    }

    bool waitFor(short event) const
    {
        pollfd request{_master, event, 0};
        return ::poll(&request, 1, 10'000) > 0;
    }

    const int _master;
    int _slave = -1;
    QByteArray _path;
};

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
    return {QStringLiteral("-p"), port, QStringLiteral("-m")};
}

/// Ends a tool that would print the log for ever.
Run stop(Tool &tool)
{
    tool.process().terminate();
    return tool.finish();
}

constexpr qsizetype time_size = 12; // hh:mm:ss zzz

/// What the tool prints of \a packets, sent when it monitors the log.
QByteArray printed(const QByteArray &packets, const QString &zone = utc)
{
    const ScriptedTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {zone});
    const bool sent = terminal.answerRequests() && terminal.send(packets + text("That is all.\n"));
    const bool is_complete = sent && tool.waitForOutput("That is all.\n");
    const Run run = stop(tool);
    if (!is_complete || !run.output.startsWith(terminal.identification()) || !run.errors.isEmpty())
        return "not as expected: " + run.output + run.errors;
    const QByteArray lines = run.output.sliced(terminal.identification().size());
    return lines.left(lines.lastIndexOf(" [1] That is all.\n") - time_size);
}

// Midnight in UTC: the tool prints a record's number of milliseconds.
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

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

/// A file of the test with \a content. Returns its path.
QString fileWith(const SimulatedTerminal &terminal, const QString &name, const QByteArray &content)
{
    QFile file(terminal.path(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qWarning("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArrayLiteral("(no file)");
}

/// The output of a run on an unplugged terminal: records behind \a front, one line for the error, nothing more.
void compareUnplugged(const Run &run, const QByteArray &front)
{
    QVERIFY2(run.output.startsWith(front), run.output.constData());
    QCOMPARE(run.output.count("Error: "), 1);
    const qsizetype error = run.output.indexOf("Error: ");
    QCOMPARE(run.output[error - 1], '\n');
    QVERIFY2(!run.output.endsWith("Error: \n"), "no reason");
    QCOMPARE(run.output.indexOf('\n', error), run.output.size() - 1);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 256 - 110);
}

} // namespace

// ---- what is printed ----------------------------------------------------------------------------------------------

void TestLog::aRecordIsPrintedWithItsLocalTime_data()
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

void TestLog::aRecordIsPrintedWithItsLocalTime()
{
    QFETCH(QString, zone);
    QFETCH(quint32, seconds);
    QFETCH(int, milliseconds);
    QFETCH(QByteArray, time);
    QCOMPARE(printed(recordOf(14, seconds, milliseconds, 3, "abc"), zone), time + " [3] abc\n");
}

void TestLog::aRecordsTextIsPrintedAsOneMessage_data()
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

void TestLog::aRecordsTextIsPrintedAsOneMessage()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, message);
    QCOMPARE(printed(text(data)), "00:00:01 000 [1] " + message);
}

void TestLog::theTypeIsPrintedAsANumber_data()
{
    QTest::addColumn<int>("type");
    for (const int type : {0, 9, 10, 127, 128, 255})
        QTest::addRow("%d", type) << type;
}

void TestLog::theTypeIsPrintedAsANumber()
{
    QFETCH(int, type);
    QCOMPARE(printed(recordOf(14, 1, 0, type, "abc")), "00:00:01 000 [" + QByteArray::number(type) + "] abc\n");
}

void TestLog::everyRecordOfTheTextLogIsPrinted()
{
    // The mask enables the logs 3 and 5 too; their records take the times 002 and 005.
    SimulatedTerminal terminal(words("--log-rate 1000 --log-count 20") + from_midnight);
    Tool tool(monitorOn(terminal.port()) + words("-l 4028"), {utc});
    const QByteArray expected = identificationOn(terminal)
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
    const Run run = stop(tool);
    QCOMPARE(run.output, expected);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4728400000"));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::linesOfTheTerminalsOwnArePrinted()
{
    const QTemporaryDir directory;
    QFile texts(directory.filePath(QStringLiteral("texts")));
    QVERIFY(texts.open(QIODevice::WriteOnly));
    texts.write("first\n\nTemperatur 21 \u00B0C\nlast\n");
    texts.close();
    SimulatedTerminal terminal(words("--log-rate 4 --log") + QStringList{texts.fileName()} + from_midnight);
    Tool tool(monitorOn(terminal.port()), {QStringLiteral("TZ=<+0545>-5:45")});
    QVERIFY(tool.waitForOutput("last\n"));
    QCOMPARE(stop(tool).output,
        identificationOn(terminal)
            + "05:45:00 000 [1] first\n"
              "05:45:00 250 [1] \n"
              "05:45:00 500 [1] Temperatur 21 \u00B0C\n"
              "05:45:00 750 [1] last\n");
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::recordsOfOtherLogsAreNotPrinted()
{
    QByteArray records;
    for (int log = 0; log < 256; ++log)
        records += recordOf(log, 1, 0, 1, "of log " + QByteArray::number(log));
    QCOMPARE(printed(records), textLine("of log 14"));
}

void TestLog::otherMessagesAreNotPrinted_data()
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

void TestLog::otherMessagesAreNotPrinted()
{
    QFETCH(QByteArray, packet);
    QCOMPARE(printed(text("before") + packet + text("behind")), textLine("before") + textLine("behind"));
}

void TestLog::aPipeSeesEachRecordAtOnce()
{
    const ScriptedTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {utc});
    QVERIFY(terminal.answerRequests());
    QByteArray expected = terminal.identification();
    // Nothing follows a record until the whole of it has come out.
    for (const char *data : {"1", "2\n", "", "4 \u20AC", "\n", "6\r\n"}) {
        QVERIFY(terminal.send(text(data)));
        expected += QByteArray(data).endsWith('\n') ? textLine(data).chopped(1) : textLine(data);
        QVERIFY2(tool.waitForOutput(expected), data);
    }
    QCOMPARE(stop(tool).output, expected);
}

// ---- when it is printed -------------------------------------------------------------------------------------------

void TestLog::theMonitorFollowsEveryJob_data()
{
    QTest::addColumn<QStringList>("job");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("identification") << QStringList() << QByteArray();
    QTest::newRow("read") << words("-f settings -r")
                          << QByteArray("Reading file 'settings' ...\n\r100% completed (3/3)\n\n"
                                        "File saved to '%local'\n");
    QTest::newRow("write") << words("-f settings -w")
                           << QByteArray("Writing file '%local' to 'settings' ...\n\r100% completed (3/3)\n\n");
}

void TestLog::theMonitorFollowsEveryJob()
{
    QFETCH(QStringList, job);
    QFETCH(QByteArray, message);
    const QTemporaryDir files;
    SimulatedTerminal terminal(
        words("--log-rate 1000 --log-count 40 --files") + QStringList{files.path()} + from_midnight);
    const QString local = fileWith(terminal, QStringLiteral("local.bin"), "new");
    QVERIFY(QFile::copy(local, files.filePath(QStringLiteral("settings"))));
    if (!job.isEmpty())
        job += local;
    Tool tool(monitorOn(terminal.port()) + job, {utc});
    QVERIFY(tool.waitForOutput("#39 position"));
    const Run run = stop(tool);
    QCOMPARE(run.output, identificationOn(terminal) + message.replace("%local", local.toLocal8Bit()) + lines(40));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4700400000"));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::theMonitorFollowsARestart()
{
    SimulatedTerminal terminal(words("--restart 1 --log-rate 1000 --log-count 40") + from_midnight);
    const QString local = fileWith(terminal, QStringLiteral("local.bin"), "new");
    Tool tool(monitorOn(terminal.port()) + words("-l 4001 -w -a -f settings") + QStringList{local}, {utc});
    const QByteArray port = terminal.port().toLocal8Bit();
    const QByteArray expected = identificationOn(terminal) + "Writing file '" + local.toLocal8Bit()
        + "' to 'settings' ...\n\r100% completed (3/3)\n\nApply file 'settings' ...\nCompleted\n\n"
          "Serial port closed: "
        + port + "\nWaiting device ...\n\rSerial port open: " + port + "\n\n" + lines(40);
    tool.waitForOutputOf(expected.size(), 30s);
    const Run run = stop(tool);
    QCOMPARE(run.output, expected);
    QCOMPARE(run.errors, QByteArray());
    // The mask is set on the terminal that came back, and on no other.
    QCOMPARE(terminal.record().mid(6, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().mid(5), QByteArrayList{"2a214c4f4701400000"});
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::withoutMonitorNothingIsPrinted()
{
    SimulatedTerminal terminal(words("--log-always --log-rate max"));
    const Run run = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    QCOMPARE(run.output, identificationOn(terminal));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::theMonitorStartsBehindTheMasksAnswer_data()
{
    QTest::addColumn<QByteArray>("mask");
    QTest::newRow("mask 4000") << packets::mask_answer;
    QTest::newRow("mask 0") << packets::packet("*@LOG" + packets::number(0, 4));
    QTest::newRow("an answer with more than the mask") << packets::packet("*@LOG" + packets::number(0x4000, 4) + "LOG");
}

void TestLog::theMonitorStartsBehindTheMasksAnswer()
{
    QFETCH(QByteArray, mask);
    const ScriptedTerminal terminal;
    Tool tool(monitorOn(terminal.port()), {utc});
    // All in one piece, so that the tool finds it all in one go.
    QVERIFY(terminal.answerRequests(text("early") + mask + text("glued") + text("glued too")));
    QVERIFY(tool.waitForOutput("glued too\n"));
    QVERIFY(terminal.send(text("late")));
    QVERIFY(tool.waitForOutput("late\n"));
    QCOMPARE(
        stop(tool).output, terminal.identification() + textLine("glued") + textLine("glued too") + textLine("late"));
}

void TestLog::recordsAroundTheMasksAnswerOfTheSimulatedTerminal()
{
    // A record on either side of each of four answers: the eighth is the only one behind the mask's answer.
    SimulatedTerminal terminal(words("--log-always") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    QVERIFY(tool.waitForOutput("in a text\n"));
    QTest::qSleep(50);
    QCOMPARE(stop(tool).output, identificationOn(terminal) + "00:00:00 007 [14] #5 @JVX in a text\n");
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::recordsBetweenThePacketsOfATransferDoNotDisturb_data()
{
    QTest::addColumn<QString>("option");
    QTest::newRow("read") << QStringLiteral("-r");
    QTest::newRow("write") << QStringLiteral("-w");
}

void TestLog::recordsBetweenThePacketsOfATransferDoNotDisturb()
{
    QFETCH(QString, option);
    constexpr int size = 20'000;
    QByteArray content;
    for (int i = 0; i < size; ++i)
        content.append(static_cast<char>(i * 31 + i / 251));
    const QTemporaryDir files;
    SimulatedTerminal terminal(words("--log-always --log-rate max --files") + QStringList{files.path()});
    const QString own = files.filePath(QStringLiteral("settings"));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const bool is_read = option == QStringLiteral("-r");
    QFile source(is_read ? own : local);
    QVERIFY(source.open(QIODevice::WriteOnly) && source.write(content) == size);
    source.close();

    const QByteArray name = local.toLocal8Bit();
    QByteArray expected = identificationOn(terminal)
        + (is_read ? QByteArray("Reading file 'settings' ...\n") : "Writing file '" + name + "' to 'settings' ...\n");
    for (int moved = 512; moved < size + 512; moved += 512) {
        const int shown = std::min(moved, size);
        expected += "\r" + QByteArray::number(shown * 100 / size) + "% completed (" + QByteArray::number(shown) + "/"
            + QByteArray::number(size) + ")";
    }
    expected += is_read ? "\n\nFile saved to '" + name + "'\n" : QByteArray("\n\n");

    const Run run
        = Tool({QStringLiteral("-p"), terminal.port(), option, QStringLiteral("-f"), QStringLiteral("settings"), local})
              .finish();
    QCOMPARE(run.output, expected);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    QVERIFY(contentOf(is_read ? local : own) == content);
    QCOMPARE(terminal.finish(), QByteArray());
}

// ---- the mask -----------------------------------------------------------------------------------------------------

void TestLog::theMonitorRunsWithEveryMask_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("request");
    const auto row = [](const char *name, const char *arguments, const char *options, const char *request) {
        QTest::newRow(name) << words(arguments) << words(options) << QByteArray(request);
    };
    row("none given", "", "", "2a214c4f4700400000");
    row("4000", "-l 4000", "", "2a214c4f4700400000");
    row("7FFFFFFF", "-l 7FFFFFFF", "", "2a214c4f47ffffff7f");
    row("-1", "-l -1", "", "2a214c4f47ffffffff");
    row("told another one", "-l 4000", "--mask-reply 1", "2a214c4f4700400000");
    row("told none", "-l 4000", "--mask-reply 0", "2a214c4f4700400000");
    row("told more", "-l 4000", "--mask-reply ffffffff", "2a214c4f4700400000");
    row("0, and logged all the same", "-l 0", "--log-always", "2a214c4f4700000000");
}

void TestLog::theMonitorRunsWithEveryMask()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, options);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal(options + words("--log-rate 1000"));
    Tool tool(monitorOn(terminal.port()) + arguments);
    QVERIFY(tool.waitForOutput("ignition on") && tool.waitForOutput("position"));
    const Run run = stop(tool);
    QVERIFY(run.output.startsWith(identificationOn(terminal)));
    QVERIFY2(!run.output.contains("Error"), run.output.constData());
    QCOMPARE(run.code, -1); // ran until it was stopped
    QCOMPARE(terminal.requests().mid(3), QByteArrayList{request});
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting_data()
{
    QTest::addColumn<QString>("mask");
    QTest::addColumn<QByteArray>("request");
    QTest::newRow("0") << QStringLiteral("0") << QByteArray("2a214c4f4700000000");
    QTest::newRow("other logs only") << QStringLiteral("28") << QByteArray("2a214c4f4728000000");
    QTest::newRow("every log but the texts") << QStringLiteral("-4001") << QByteArray("2a214c4f47ffbfffff");
}

void TestLog::aMaskThatSilencesTheTerminalLeavesTheMonitorWaiting()
{
    QFETCH(QString, mask);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal(words("--log-rate 1000"));
    Tool tool(monitorOn(terminal.port()) + QStringList{QStringLiteral("-l"), mask});
    QTRY_COMPARE_WITH_TIMEOUT(terminal.requests().mid(3), QByteArrayList{request}, 10'000);
    QVERIFY(!tool.process().waitForFinished(700)); // longer than an answer may take
    QCOMPARE(stop(tool).output, identificationOn(terminal));
    QCOMPARE(terminal.requests().size(), 4);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::theMonitorDoesNotStartWithoutAMask_data()
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

void TestLog::theMonitorDoesNotStartWithoutAMask()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, message);
    QFETCH(int, code);
    QFETCH(int, time);
    SimulatedTerminal terminal(options + words("--log-always --log-rate 1000"));
    const Run run = Tool(monitorOn(terminal.port())).finish();
    QCOMPARE(run.output, identificationOn(terminal) + message);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, code);
    QVERIFY(run.milliseconds >= time);
    QCOMPARE(terminal.requests().size(), 4);
    QCOMPARE(terminal.finish(), QByteArray());
}

// ---- many records, and the end ------------------------------------------------------------------------------------

void TestLog::aFloodIsPrintedWhole()
{
    SimulatedTerminal terminal(words("--log-rate max --log-count 100000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    const QByteArray front = identificationOn(terminal);
    QVERIFY(tool.waitForOutputOf(front.size() + lines(10'000).size(), flood_limit));
    const qint64 early = peakMemory(tool.process().processId());
    QVERIFY(tool.waitForOutputOf(front.size() + lines(100'000).size(), flood_limit));
    const qint64 late = peakMemory(tool.process().processId());
    const Run run = stop(tool);
    QVERIFY(run.output.startsWith(front));
    QCOMPARE(recordsIn(run.output.sliced(front.size())), 100'000);
    QCOMPARE(run.errors, QByteArray());
    QVERIFY(early > 0);
    if (is_memory_telling)
        QVERIFY2(late - early < 2 * 1024 * 1024, QByteArray::number(late - early).constData());
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::aSlowReaderLosesNothing()
{
    constexpr int count = 20'000; // far more than a pipe holds
    SimulatedTerminal terminal(words("--log-rate max --log-count 20000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    const QByteArray front = identificationOn(terminal);
    QVERIFY(tool.waitForOutput(line(0)));
    QTest::qSleep(2000); // nothing is read in the meantime
    QVERIFY(tool.waitForOutputOf(front.size() + lines(count).size(), flood_limit));
    const Run run = stop(tool);
    QVERIFY(run.output.startsWith(front));
    QCOMPARE(recordsIn(run.output.sliced(front.size())), count);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::aSignalEndsTheMonitor_data()
{
    QTest::addColumn<int>("signal_number");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void TestLog::aSignalEndsTheMonitor()
{
    QFETCH(int, signal_number);
    std::signal(signal_number, SIG_DFL); // a job in the background inherits it ignored
    SimulatedTerminal terminal(words("--log-rate 1000") + from_midnight);
    Tool tool(monitorOn(terminal.port()), {utc});
    QVERIFY(tool.waitForOutput("#100 clock"));
    QCOMPARE(::kill(static_cast<pid_t>(tool.process().processId()), signal_number), 0);
    const Run run = tool.finish(5s);
    QCOMPARE(run.code, -1);
    QCOMPARE(tool.process().exitStatus(), QProcess::CrashExit);
    QCOMPARE(tool.process().exitCode(), signal_number);
    const QByteArray front = identificationOn(terminal);
    QVERIFY(run.output.startsWith(front));
    QVERIFY2(recordsIn(run.output.sliced(front.size())) > 100, run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(terminal.requests().size(), 4); // the log was not switched off
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestLog::aTerminalThatDropsOffEndsTheMonitor()
{
    for (int run = 0; run < 20; ++run) {
        SimulatedTerminal terminal(words("--drop-at 4:after --no-return --log-always --log-rate max"));
        compareUnplugged(Tool(monitorOn(terminal.port())).finish(), identificationOn(terminal));
        if (QTest::currentTestFailed())
            return;
        QCOMPARE(terminal.finish(), QByteArray());
    }
}

void TestLog::aTerminalUnpluggedInFullFlowEndsTheMonitor()
{
    for (int repetition = 0; repetition < 20; ++repetition) {
        SimulatedTerminal terminal(words("--log-rate max") + from_midnight);
        const QByteArray front = identificationOn(terminal);
        Tool tool(monitorOn(terminal.port()), {utc});
        QVERIFY(tool.waitForOutput("#100 clock"));
        QCOMPARE(terminal.finish(), QByteArray());
        const Run run = tool.finish();
        compareUnplugged(run, front);
        if (QTest::currentTestFailed())
            return;
        const QByteArray records = run.output.sliced(front.size());
        QVERIFY2(recordsIn(records.first(records.indexOf("Error: "))) > 100, run.output.constData());
    }
}

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
