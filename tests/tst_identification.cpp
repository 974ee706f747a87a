#include "console.h"
#include "packets.h"
#include "plainterminal.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>

/// The tool identifies a terminal and exits; both are processes of their own, on either end of a pseudo-terminal.
class IdentificationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRunPrintsTheIdentificationSetsTheMaskAndExits();
    void theMaskOfTheUserIsSet_data();
    void theMaskOfTheUserIsSet();
    void everyAnswerIsTakenAsFarAsItIsUnderstood_data();
    void everyAnswerIsTakenAsFarAsItIsUnderstood();
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

void IdentificationTest::aRunPrintsTheIdentificationSetsTheMaskAndExits()
{
    SimulatedTerminal terminal;
    QCOMPARE(runOn(terminal.port()), exits(0, console::identification(terminal.port())));
    terminal.unplug();
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
    QCOMPARE(terminal.record().mid(0, 5), expected);
}

void IdentificationTest::theMaskOfTheUserIsSet_data()
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

void IdentificationTest::theMaskOfTheUserIsSet()
{
    QFETCH(QString, mask);
    QFETCH(QByteArray, request);
    SimulatedTerminal terminal;
    const Run run = Tool(argumentsOn(terminal.port(), "-l") + QStringList{mask}).finish();
    QCOMPARE(run, exits(0, console::identification(terminal.port())));
    QCOMPARE(terminal.requests().value(3), request);
}

void IdentificationTest::everyAnswerIsTakenAsFarAsItIsUnderstood_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("code");

    const QByteArray front = "\nDevice: JVX terminal\nVersion: 1.4.2\nDate: 2026-03-01\nLanguage: en\n";
    const QByteArray bhr = "BHR: 0x10a2b3c4d5\n";
    const QByteArray imei = "IMEI: 350000000000017\n\n";
    const QByteArray not_understood = "Error: Unknown response(-2)\n";
    const auto understood = [](const char *name, const char *key, const QByteArray &payload, const QByteArray &output) {
        QTest::newRow(name) << QByteArray(key) << payload << output << 0;
    };
    const auto refused = [](const char *name, const char *key, const QByteArray &payload, const QByteArray &output) {
        QTest::newRow(name) << QByteArray(key) << payload << output << 254;
    };

    refused("software without colon", "V", "ABC", not_understood);
    refused("software empty", "V", "", not_understood);
    understood("software name only", "V", ":ABC", "\nDevice: ABC\nVersion: \nDate: \nLanguage: \n" + bhr + imei);
    understood(
        "software five fields", "V", ":A:B:C:D:E", "\nDevice: A\nVersion: B\nDate: C\nLanguage: D\n" + bhr + imei);
    understood("software with placeholders and non-ASCII text", "V", ":%1 \xC3\xA9:%2:%n:%L1",
        "\nDevice: %1 \xC3\xA9\nVersion: %2\nDate: %n\nLanguage: %L1\n" + bhr + imei);
    refused("hardware without colon", "H", "BHR:12345678", front + not_understood);
    understood("hardware 255", "H", QByteArray::fromHex("3a4248523aff00000000000000"), front + "BHR: 0xff\n" + imei);
    understood("hardware 0", "H", QByteArray::fromHex("3a4248523a0000000000000000"), front + "BHR: 0x0\n" + imei);
    understood("hardware largest", "H", QByteArray::fromHex("3a4248523affffffffffffffff"),
        front + "BHR: 0xffffffffffffffff\n" + imei);
    understood("hardware cut", "H", QByteArray::fromHex("3a4248523aff000000000000"), front + "BHR: 0x0\n" + imei);
    refused("serial without colon", "S", "1", front + bhr + not_understood);
    understood("serial empty text", "S", ":", front + bhr + "IMEI: \n\n");
    refused("mask of three bytes", "LOG", "123", front + bhr + imei + not_understood);
    understood("mask of five bytes", "LOG", "12345", front + bhr + imei);
}

/// The beginning of the request with this key, in hexadecimal.
static QByteArray requestOf(const QByteArray &key)
{
    return ((key == "LOG" ? "*!" : "*?") + key).toHex();
}

void IdentificationTest::everyAnswerIsTakenAsFarAsItIsUnderstood()
{
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, payload);
    QFETCH(QByteArray, output);
    QFETCH(int, code);
    SimulatedTerminal terminal({QStringLiteral("--answer"), QString::fromLatin1(key + '=' + payload.toHex())});
    QCOMPARE(runOn(terminal.port()), exits(code, console::checking(terminal.port()) + output));
    // Nothing is asked after the answer that was not understood.
    QVERIFY(terminal.requests().constLast().startsWith(requestOf(code == 0 ? "LOG" : key)));
}

static void addRequestRows()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<int>("requests");
    QTest::newRow("software version") << QStringLiteral("V") << 1;
    QTest::newRow("hardware version") << QStringLiteral("H") << 2;
    QTest::newRow("serial number") << QStringLiteral("S") << 3;
    QTest::newRow("log mask") << QStringLiteral("LOG") << 4;
}

void IdentificationTest::aSilentTerminalTimesOut_data()
{
    addRequestRows();
}

void IdentificationTest::aSilentTerminalTimesOut()
{
    QFETCH(QString, key);
    QFETCH(int, requests);
    SimulatedTerminal terminal({QStringLiteral("--silent"), key});
    const Run run = runOn(terminal.port());
    const QByteArray printed = console::identificationParts(terminal.port()).first(requests).join();
    QCOMPARE(run, exits(255, printed + "Error: Timeout(-1)\n"));
    QVERIFY2(run.milliseconds >= 500, QByteArray::number(run.milliseconds).constData());
    QCOMPARE(terminal.requests().size(), requests); // nothing is asked twice, and nothing after it
}

void IdentificationTest::aVanishingTerminalIsAPortError_data()
{
    addRequestRows();
}

void IdentificationTest::aVanishingTerminalIsAPortError()
{
    QFETCH(QString, key);
    QFETCH(int, requests);
    SimulatedTerminal terminal({QStringLiteral("--vanish"), key, QStringLiteral("--no-return")});
    const QByteArray printed = console::identificationParts(terminal.port()).first(requests).join();
    QCOMPARE(withoutReason(runOn(terminal.port())), exits(256 - 110, printed + "Error: ...\n"));
    QCOMPARE(terminal.requests().size(), requests);
}

void IdentificationTest::aPortInUseIsNotOpened()
{
    SimulatedTerminal terminal;
    Tool first(argumentsOn(terminal.port(), "-m"));
    QVERIFY(first.waitForOutput("IMEI"));
    QCOMPARE(runOn(terminal.port()),
        exits(256 - 105,
            "Failed to open serial port " + terminal.port().toLocal8Bit()
                + ": Permission error while locking the device\n"));
    QCOMPARE(first.stop(), exits(endedBy(SIGTERM), console::identification(terminal.port())));
}

void IdentificationTest::aDirectoryIsNotOpened()
{
    const QTemporaryDir directory;
    const Run run = runOn(directory.path());
    const QByteArray front = "Failed to open serial port " + directory.path().toLocal8Bit() + ": ";
    QVERIFY2(run.output.startsWith(front), run.output.constData());
    const QByteArray reason = run.output.sliced(front.size()); // in the words of the system
    QVERIFY(reason.size() > 1);
    QCOMPARE(reason.indexOf('\n'), reason.size() - 1);
    QCOMPARE(run, exits(256 - 105, front + reason));
}

void IdentificationTest::aPortNameWithAPlaceholderComesOutUnchanged()
{
    SimulatedTerminal terminal;
    const QString odd = terminal.path(QStringLiteral("%1 and %2 \u00E9"));
    QVERIFY(QFile::link(QFileInfo(terminal.port()).symLinkTarget(), odd));
    QCOMPARE(runOn(odd), exits(0, console::identification(odd)));
}

void IdentificationTest::applyWithoutWriteIsDropped()
{
    SimulatedTerminal terminal;
    QCOMPARE(runOn(terminal.port(), "-a -f settings"), exits(0, console::identification(terminal.port())));
    QCOMPARE(terminal.requests().size(), 4);
}

void IdentificationTest::aRequestAnsweredBeforehandIsSentAllTheSame()
{
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()));
    QCOMPARE(terminal.request(), QByteArray("*?V"));
    terminal.send(
        packets::software_answer + packets::hardware_answer + packets::serial_number_answer + packets::mask_answer);
    QCOMPARE(tool.finish(), exits(0, console::plainIdentificationParts(terminal.port()).join()));
    QCOMPARE(terminal.request(), QByteArray("*?H"));
    QCOMPARE(terminal.request(), QByteArray("*?S"));
    QCOMPARE(terminal.request(), QByteArray("*!LOG\0\x40\0\0", 9));
}

QTEST_GUILESS_MAIN(IdentificationTest)
#include "tst_identification.moc"
