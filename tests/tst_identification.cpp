#include "harness.h"

#include <QRegularExpression>

/// The tool identifies a terminal and exits; both are processes of their own, on either end of a pseudo-terminal.
class TestIdentification : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRunPrintsTheIdentificationSetsTheMaskAndExits();
    void theMaskOfTheUserIsSet_data();
    void theMaskOfTheUserIsSet();
    void oddAnswers_data();
    void oddAnswers();
    void aSilentTerminalTimesOut_data();
    void aSilentTerminalTimesOut();
    void aVanishingTerminalIsAPortError_data();
    void aVanishingTerminalIsAPortError();
    void aPortInUseIsNotOpened();
    void aDirectoryIsNotOpened();
    void aPortNameWithAPlaceholderComesOutUnchanged();
    void applyWithoutWriteIsDropped();
    void aRequestAnsweredBeforehandIsSentAllTheSame();
};

void TestIdentification::aRunPrintsTheIdentificationSetsTheMaskAndExits()
{
    SimulatedTerminal terminal;
    const Run run = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    QCOMPARE(run.output, identificationOn(terminal));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    // "*?V", "*?H", "*?S", "*!LOG" 0x4000: packets by hand, checksums XORed by a Python one-liner.
    const QByteArrayList expected{
        "# link up",
        "404a56580000000001000000030043452a3f56",
        "404a5658000000000100000003005d5b2a3f48",
        "404a5658000000000100000003004640"
        "2a3f53",
        "404a5658000000000100000009000f03"
        "2a214c4f4700400000",
    };
    QCOMPARE(terminal.finish(), QByteArray());
    QCOMPARE(terminal.record().mid(0, 5), expected);
}

void TestIdentification::theMaskOfTheUserIsSet_data()
{
    QTest::addColumn<QString>("mask");
    QTest::addColumn<QByteArray>("request");
    QTest::newRow("0") << QStringLiteral("0") << QByteArray("2a214c4f4700000000");
    QTest::newRow("1") << QStringLiteral("1") << QByteArray("2a214c4f4701000000");
    QTest::newRow("12345678") << QStringLiteral("12345678") << QByteArray("2a214c4f4778563412");
    QTest::newRow("7FFFFFFF") << QStringLiteral("7FFFFFFF") << QByteArray("2a214c4f47ffffff7f");
    QTest::newRow("0x4001") << QStringLiteral("0x4001") << QByteArray("2a214c4f4701400000");
    QTest::newRow("-1") << QStringLiteral("-1") << QByteArray("2a214c4f47ffffffff");
    QTest::newRow("-80000000") << QStringLiteral("-80000000") << QByteArray("2a214c4f4700000080");
}

void TestIdentification::theMaskOfTheUserIsSet()
{
    QFETCH(QString, mask);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal;
    const Run run = Tool({QStringLiteral("-p"), terminal.port(), QStringLiteral("-l"), mask}).finish();
    QCOMPARE(run.output, identificationOn(terminal));
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().value(3), request);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestIdentification::oddAnswers_data()
{
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("code");

    const auto hex = [](const char *key, const QByteArray &payload) {
        return QString::fromLatin1(key) + QLatin1Char('=') + QString::fromLatin1(payload.toHex());
    };
    const QByteArray front = "\nDevice: JVX terminal\nVersion: 1.4.2\nDate: 2026-03-01\nLanguage: en\n";
    const QByteArray bhr = "BHR: 0x10a2b3c4d5\n";
    const QByteArray not_understood = "Error: Unknown response(-2)\n";

    QTest::newRow("software without colon") << hex("V", "ABC") << not_understood << 254;
    QTest::newRow("software empty") << hex("V", "") << not_understood << 254;
    QTest::newRow("software name only") << hex(
        "V", ":ABC") << QByteArray("\nDevice: ABC\nVersion: \nDate: \nLanguage: \n" + bhr + "IMEI: 350000000000017\n\n")
                                        << 0;
    QTest::newRow("software five fields")
        << hex("V", ":A:B:C:D:E")
        << QByteArray("\nDevice: A\nVersion: B\nDate: C\nLanguage: D\n" + bhr + "IMEI: 350000000000017\n\n") << 0;
    QTest::newRow("software with placeholders and non-ASCII text")
        << hex("V", ":%1 \xC3\xA9:%2:%n:%L1")
        << QByteArray(
               "\nDevice: %1 \xC3\xA9\nVersion: %2\nDate: %n\nLanguage: %L1\n" + bhr + "IMEI: 350000000000017\n\n")
        << 0;
    QTest::newRow("hardware without colon") << hex("H", "BHR:12345678") << QByteArray(front + not_understood) << 254;
    QTest::newRow("hardware 255") << hex("H", QByteArray::fromHex("3a4248523aff00000000000000"))
                                  << QByteArray(front + "BHR: 0xff\nIMEI: 350000000000017\n\n") << 0;
    QTest::newRow("hardware 0") << hex("H", QByteArray::fromHex("3a4248523a0000000000000000"))
                                << QByteArray(front + "BHR: 0x0\nIMEI: 350000000000017\n\n") << 0;
    QTest::newRow("hardware largest") << hex("H", QByteArray::fromHex("3a4248523affffffffffffffff"))
                                      << QByteArray(front + "BHR: 0xffffffffffffffff\nIMEI: 350000000000017\n\n") << 0;
    QTest::newRow("hardware cut") << hex("H", QByteArray::fromHex("3a4248523aff000000000000"))
                                  << QByteArray(front + "BHR: 0x0\nIMEI: 350000000000017\n\n") << 0;
    QTest::newRow("serial without colon") << hex("S", "1") << QByteArray(front + bhr + not_understood) << 254;
    QTest::newRow("serial empty text") << hex("S", ":") << QByteArray(front + bhr + "IMEI: \n\n") << 0;
    QTest::newRow("mask of three bytes") << hex("LOG", "123")
                                         << QByteArray(front + bhr + "IMEI: 350000000000017\n\n" + not_understood)
                                         << 254;
    QTest::newRow("mask of five bytes") << hex("LOG", "12345") << QByteArray(front + bhr + "IMEI: 350000000000017\n\n")
                                        << 0;
}

/// The beginning of the request with this key, in hexadecimal.
static QByteArray requestOf(const QString &key)
{
    return (key == QLatin1String("LOG") ? "*!" : "*?" + key.toLatin1()).toHex();
}

void TestIdentification::oddAnswers()
{
    QFETCH(QString, answer);
    QFETCH(QByteArray, output);
    QFETCH(int, code);
    SimulatedTerminal terminal({QStringLiteral("--answer"), answer});
    const Run run = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    QCOMPARE(run.output, checkingOn(terminal) + output);
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, code);
    if (code != 0) // nothing is asked after the answer that was not understood
        QVERIFY(terminal.requests().constLast().startsWith(requestOf(answer.section(QLatin1Char('='), 0, 0))));
    QCOMPARE(terminal.finish(), QByteArray());
}

static void addRequestRows()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<int>("requests");
    QTest::addColumn<QByteArray>("printed");
    const QByteArray software = "\nDevice: JVX terminal\nVersion: 1.4.2\nDate: 2026-03-01\nLanguage: en\n";
    const QByteArray hardware = software + "BHR: 0x10a2b3c4d5\n";
    const QByteArray serial = hardware + "IMEI: 350000000000017\n\n";
    QTest::newRow("software version") << QStringLiteral("V") << 1 << QByteArray();
    QTest::newRow("hardware version") << QStringLiteral("H") << 2 << software;
    QTest::newRow("serial number") << QStringLiteral("S") << 3 << hardware;
    QTest::newRow("log mask") << QStringLiteral("LOG") << 4 << serial;
}

void TestIdentification::aSilentTerminalTimesOut_data()
{
    addRequestRows();
}

void TestIdentification::aSilentTerminalTimesOut()
{
    QFETCH(QString, key);
    QFETCH(int, requests);
    QFETCH(QByteArray, printed);
    SimulatedTerminal terminal({QStringLiteral("--silent"), key});
    const Run run = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    QCOMPARE(run.output, checkingOn(terminal) + printed + "Error: Timeout(-1)\n");
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 255);
    QVERIFY2(run.milliseconds >= 500, QByteArray::number(run.milliseconds).constData());
    QCOMPARE(terminal.requests().size(), requests); // nothing is asked twice, and nothing after it
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestIdentification::aVanishingTerminalIsAPortError_data()
{
    addRequestRows();
}

void TestIdentification::aVanishingTerminalIsAPortError()
{
    QFETCH(QString, key);
    QFETCH(int, requests);
    QFETCH(QByteArray, printed);
    SimulatedTerminal terminal({QStringLiteral("--vanish"), key, QStringLiteral("--no-return")});
    const Run run = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    // One error line, whose text is the system's.
    const QByteArray front = checkingOn(terminal) + printed;
    QCOMPARE(run.output.first(std::min(front.size(), run.output.size())), front);
    const QString rest = QString::fromLocal8Bit(run.output.sliced(front.size()));
    QVERIFY2(QRegularExpression(QStringLiteral("^Error: [^\n]+\n$")).match(rest).hasMatch(), qPrintable(rest));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 256 - 110);
    QCOMPARE(terminal.requests().size(), requests);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestIdentification::aPortInUseIsNotOpened()
{
    SimulatedTerminal terminal({QStringLiteral("--silent"), QStringLiteral("V")});
    Tool first({QStringLiteral("-p"), terminal.port()});
    QVERIFY(first.waitForOutput("Checking"));
    const Run second = Tool({QStringLiteral("-p"), terminal.port()}).finish();
    QCOMPARE(second.output,
        "Failed to open serial port " + terminal.port().toLocal8Bit()
            + ": Permission error while locking the device\n");
    QCOMPARE(second.code, 256 - 105);
    QCOMPARE(first.finish().code, 255);
}

void TestIdentification::aDirectoryIsNotOpened()
{
    const QTemporaryDir directory;
    const Run run = Tool({QStringLiteral("-p"), directory.path()}).finish();
    QVERIFY(run.output.startsWith("Failed to open serial port " + directory.path().toLocal8Bit() + ": "));
    QCOMPARE(run.output.count('\n'), 1);
    QCOMPARE(run.code, 256 - 105);
}

void TestIdentification::aPortNameWithAPlaceholderComesOutUnchanged()
{
    SimulatedTerminal terminal;
    const QString odd = terminal.path(QStringLiteral("%1 and %2 \u00E9"));
    QVERIFY(QFile::link(QFileInfo(terminal.port()).symLinkTarget(), odd));
    const Run run = Tool({QStringLiteral("-p"), odd}).finish();
    QVERIFY2(run.output.startsWith("\rSerial port open: " + odd.toLocal8Bit() + "\n\n"), run.output.constData());
    QCOMPARE(run.code, 0);
}

void TestIdentification::applyWithoutWriteIsDropped()
{
    SimulatedTerminal terminal;
    const Run run = Tool(
        {QStringLiteral("-a"), QStringLiteral("-f"), QStringLiteral("settings"), QStringLiteral("-p"), terminal.port()})
                        .finish();
    QCOMPARE(run.output, identificationOn(terminal));
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().size(), 4);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestIdentification::aRequestAnsweredBeforehandIsSentAllTheSame()
{
    PlainTerminal terminal;
    Tool tool({QStringLiteral("-p"), terminal.port()});
    QCOMPARE(terminal.request(), QByteArray("*?V"));
    terminal.send(
        packets::software_answer + packets::hardware_answer + packets::serial_number_answer + packets::mask_answer);
    const Run run = tool.finish();
    QCOMPARE(run.output, plainIdentification(terminal).join());
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.request(), QByteArray("*?H"));
    QCOMPARE(terminal.request(), QByteArray("*?S"));
    QCOMPARE(terminal.request(), QByteArray("*!LOG\0\x40\0\0", 9));
}

QTEST_GUILESS_MAIN(TestIdentification)
#include "tst_identification.moc"
