#include "console.h"
#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QRegularExpression>
#include <QTest>

#include <algorithm>

/// The trace of the wire, which a user switches on to report a fault.
class TraceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theRunIsTheSameWithIt();
    void everythingThatPassesIsShown();
    void bytesThatArePassedOverAreShownWithTheReason();
    void bytesThatMakeNoPacketAreShown_data();
    void bytesThatMakeNoPacketAreShown();
    void theBeginningTellsWhatRunsWhere();
    void thePortsThatAreThereAreShown_data();
    void thePortsThatAreThereAreShown();
    void anAnswerTimeThatRunsOutIsShown();
    void aPortThatFailsIsShown();
    void theTimesGoOnToTheMicrosecond();
    void theTimesAreLocal();
};

namespace {

const QStringList traced{QStringLiteral("QT_LOGGING_RULES=jvx.wire.debug=true")};
constexpr QByteArrayView category("jvx.wire: "); // in front of each line, and the time behind it

/// The lines of \a errors; of those that belong to the trace, what follows the time.
QByteArrayList traceIn(const QByteArray &errors)
{
    static const QRegularExpression line(QStringLiteral("^jvx\\.wire: \\d\\d:\\d\\d:\\d\\d\\.\\d{6} (.*)$"));
    QByteArrayList lines;
    for (const QByteArray &text : errors.trimmed().split('\n')) {
        const auto match = line.match(QString::fromLocal8Bit(text));
        lines += match.hasMatch() ? match.captured(1).toLocal8Bit() : text;
    }
    return lines;
}

/// The lines of the trace in \a errors from the opening of the port on.
QByteArrayList wireIn(const QByteArray &errors)
{
    QByteArrayList lines = traceIn(errors);
    while (!lines.isEmpty() && !lines.constFirst().endsWith(" opened"))
        lines.removeFirst();
    return lines;
}

/// The lines of \a trace that tell of bytes passed over.
QByteArrayList skipsIn(const QByteArrayList &trace)
{
    QByteArrayList lines;
    for (const QByteArray &line : trace) {
        if (line.startsWith("skipped"))
            lines += line;
    }
    return lines;
}

/// Answers the next requests with \a answers, in turn; a request whose answer is empty gets none.
void answer(PlainTerminal &terminal, const QByteArrayList &answers)
{
    for (const QByteArray &bytes : answers) {
        QVERIFY(!terminal.request().isEmpty());
        if (!bytes.isEmpty())
            terminal.send(bytes);
    }
}

} // namespace

void TraceTest::theRunIsTheSameWithIt()
{
    Run runs[2];
    QByteArrayList records[2];
    for (const bool with : {false, true}) {
        FilingTerminal terminal({QStringLiteral("--garbage"), QStringLiteral("5")});
        const QString local = terminal.path(QStringLiteral("local.bin"));
        files::store(local, files::sample(1300));
        const QStringList options = argumentsOn(terminal.port(), "-w -f keys", local);
        runs[with] = Tool(options, with ? traced : QStringList()).finish();
        runs[with].output.replace(terminal.path({}).toLocal8Bit(), "");
        records[with] = terminal.record();
    }
    QVERIFY(runs[0].errors.isEmpty());
    QVERIFY(!runs[1].errors.isEmpty());
    QCOMPARE(runs[1].code, 0);
    QCOMPARE(runs[1].output, runs[0].output);
    QCOMPARE(records[1], records[0]);
}

void TraceTest::everythingThatPassesIsShown()
{
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()), traced);
    answer(terminal,
        {packets::software_answer, packets::log_record + packets::hardware_answer,
            packets::software_answer + packets::serial_number_answer, packets::mask_answer});
    const Run run = tool.finish();
    QCOMPARE(run.code, 0);
    QCOMPARE(run.output, console::plainIdentificationParts(terminal.port()).join());
    const QByteArray name = terminal.port().toLocal8Bit();
    const QByteArrayList expected{
        "port " + name + " opened",
        "sent ?V, payload 0 B: 40 4a 56 58 00 00 00 00 01 00 00 00 03 00 43 45 2a 3f 56",
        "body 25 B: 2a 23 56 3a 4a 56 58 3a 31 2e 32 3a 32 30 32 34 2d 30 35 2d 30 36 3a 65 6e",
        "it answers ?V",
        "sent ?H, payload 0 B: 40 4a 56 58 00 00 00 00 01 00 00 00 03 00 5d 5b 2a 3f 48",
        "body 15 B: 2a 3e 4c 4f 47 0e 00 f1 53 65 fa 00 03 75 70",
        "body 16 B: 2a 23 48 3a 42 48 52 3a 08 07 06 05 04 03 02 01",
        "it answers ?H",
        "sent ?S, payload 0 B: 40 4a 56 58 00 00 00 00 01 00 00 00 03 00 46 40 2a 3f 53",
        "body 25 B: 2a 23 56 3a 4a 56 58 3a 31 2e 32 3a 32 30 32 34 2d 30 35 2d 30 36 3a 65 6e",
        "nobody waits for it",
        "body 19 B: 2a 23 53 3a 33 35 30 30 30 30 30 30 30 30 30 30 30 31 37",
        "it answers ?S",
        "sent !LOG, payload 4 B: 40 4a 56 58 00 00 00 00 01 00 00 00 09 00 0f 03 2a 21 4c 4f 47 00 40 00 00",
        "body 9 B: 2a 40 4c 4f 47 00 40 00 00",
        "it answers !LOG",
        "port " + name + " closed",
    };
    QCOMPARE(wireIn(run.errors), expected);
}

void TraceTest::bytesThatArePassedOverAreShownWithTheReason()
{
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()), traced);
    const QByteArray damaged = packets::withWrongHeaderSum(packets::software_answer);
    answer(terminal,
        {"xyz" + packets::software_answer, damaged + packets::hardware_answer,
            packets::header(2, 0) + "**" + packets::withWrongBodySum("*#S:1") + packets::serial_number_answer,
            packets::mask_answer});
    const Run run = tool.finish();
    QCOMPARE(run.code, 0);
    const QByteArrayList expected{
        "skipped 3 B: no magic: 78 79 7a",
        "skipped 4 B: header checksum: 40 4a 56 58",
        // The rest of the header, and the body.
        "skipped 37 B: no magic: " + damaged.sliced(4).toHex(' '),
        "skipped 4 B: body length: 40 4a 56 58",
        "skipped 14 B: no magic: " + packets::header(2, 0).sliced(4).toHex(' ') + " 2a 2a",
        "skipped 16 B: body checksum: " + packets::withWrongBodySum("*#S:1").first(16).toHex(' '),
        "skipped 5 B: no magic: 2a 23 53 3a 31",
    };
    QCOMPARE(skipsIn(traceIn(run.errors)), expected);
}

// A user can see by what a device says that it is no terminal.
void TraceTest::bytesThatMakeNoPacketAreShown_data()
{
    QTest::addColumn<QByteArray>("said");
    QTest::addColumn<QByteArrayList>("shown");
    const QByteArray left = "no packet yet in 7 B: 6c 6f 67 69 6e 3a 20";
    QTest::newRow("a prompt") << QByteArray("login: ") << QByteArrayList{left, left};
    const QByteArray begun = packets::software_answer.first(20);
    const QByteArray half = "no packet yet in 20 B: " + begun.toHex(' ');
    QTest::newRow("half a packet") << begun << QByteArrayList{half, half};
    const QByteArray dots(100, '.');
    QTest::newRow("a long line") << dots
                                 << QByteArrayList{"skipped 100 B: no magic: " + dots.first(64).toHex(' ') + " ..."};
}

void TraceTest::bytesThatMakeNoPacketAreShown()
{
    QFETCH(QByteArray, said);
    QFETCH(QByteArrayList, shown);
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()), traced);
    answer(terminal, {said});
    const Run run = tool.finish();
    QCOMPARE(run.code, 255);
    QByteArrayList trace = wireIn(run.errors).mid(2); // behind the opening and the request
    trace.removeOne("no answer to ?V in time");
    trace.removeLast(); // the closing
    QCOMPARE(trace, shown);
}

void TraceTest::theBeginningTellsWhatRunsWhere()
{
    const SimulatedTerminal terminal;
    const QByteArrayList trace = traceIn(Tool(argumentsOn(terminal.port()), traced).finish().errors);
    const QRegularExpression first(QStringLiteral("^JVX file loader 0\\.0\\.8, \\S.*, Qt %1, \\d{4}-\\d\\d-\\d\\d$")
                                       .arg(QRegularExpression::escape(QLatin1String(qVersion()))));
    QVERIFY2(first.match(QString::fromUtf8(trace.value(0))).hasMatch(), trace.value(0).constData());
    QVERIFY(trace.contains("port " + terminal.port().toLocal8Bit() + " taken: it is named"));
}

void TraceTest::thePortsThatAreThereAreShown_data()
{
    QTest::addColumn<int>("terminals");
    QTest::addColumn<QByteArray>("choice");
    QTest::newRow("none") << 0 << QByteArray("no port taken: none is 03eb:6124");
    QTest::newRow("one") << 1 << "port " + portName(1).toLocal8Bit() + " taken: the only 03eb:6124";
    QTest::newRow("two") << 2 << QByteArray("no port taken: several are 03eb:6124, and nobody can be asked");
}

void TraceTest::thePortsThatAreThereAreShown()
{
    QFETCH(int, terminals);
    QFETCH(QByteArray, choice);
    QList<FakedPort> ports{{0, "1-1", "0403", "6001"}, {9, "1-9", nullptr, nullptr}};
    for (int number = 1; number <= terminals; ++number)
        ports += terminalPort(number, number == 1 ? "1-2" : "1-3");
    const Testbed testbed(ports);
    const QByteArrayList trace = traceIn(testbed.start({}, traced).finish().errors);
    const auto seen = [&](int number, const char *identifiers) {
        const QByteArray line = "port " + portName(number).toLocal8Bit() + " seen: " + identifiers;
        return std::any_of(trace.cbegin(), trace.cend(), [&](const QByteArray &text) { return text.startsWith(line); });
    };
    QVERIFY(seen(0, "0403:6001"));
    QVERIFY(seen(9, "not on USB"));
    for (int number = 1; number <= terminals; ++number)
        QVERIFY(seen(number, "03eb:6124"));
    QVERIFY2(trace.contains(choice), trace.join('\n').constData());
}

void TraceTest::anAnswerTimeThatRunsOutIsShown()
{
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()), traced);
    answer(terminal, {packets::software_answer, {}});
    const Run run = tool.finish();
    QCOMPARE(run.code, 255);
    QCOMPARE(traceIn(run.errors).last(2),
        QByteArrayList({"no answer to ?H in time", "port " + terminal.port().toLocal8Bit() + " closed"}));
}

void TraceTest::aPortThatFailsIsShown()
{
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()), traced);
    answer(terminal, {packets::software_answer});
    QVERIFY(tool.waitForOutput("Language"));
    terminal.vanish();
    const Run run = tool.finish();
    QCOMPARE(run.code, 146);
    const QByteArray reason = run.output.trimmed().split('\n').constLast().mid(QByteArrayView("Error: ").size());
    QVERIFY(!reason.isEmpty());
    QVERIFY2(traceIn(run.errors).contains("port error: " + reason), run.errors);
}

void TraceTest::theTimesGoOnToTheMicrosecond()
{
    const SimulatedTerminal terminal;
    const Run run = Tool(argumentsOn(terminal.port()), traced).finish();
    QByteArrayList times;
    for (const QByteArray &line : run.errors.trimmed().split('\n'))
        times += line.mid(category.size(), QByteArrayView("hh:mm:ss.zzzzzz").size());
    QVERIFY(times.size() > 10);
    if (times.constFirst() < times.constLast()) // no midnight between them
        QVERIFY(std::is_sorted(times.cbegin(), times.cend()));
    QVERIFY(std::any_of(times.cbegin(), times.cend(), [](const QByteArray &time) { return !time.endsWith("000"); }));
}

void TraceTest::theTimesAreLocal()
{
    const auto hourThere
        = [] { return QDateTime::currentDateTimeUtc().addSecs(10 * 3600).toString(QStringLiteral("hh")).toLatin1(); };
    const QByteArray before = hourThere();
    const Run run = Tool(words("-p ''"), traced + words("TZ=JVX-10")).finish();
    const QByteArray after = hourThere();
    const QByteArray hour = run.errors.mid(category.size(), 2);
    QVERIFY2(hour == before || hour == after, run.errors.constData());
}

QTEST_GUILESS_MAIN(TraceTest)
#include "tst_trace.moc"
