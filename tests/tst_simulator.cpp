#include "options.h"
#include "terminal.h"
#include "wire.h"

#include <QSignalSpy>
#include <QTest>

// The packets below were written out by a Python script: struct.pack for the integers, a loop for the exclusive or.

namespace {

const QByteArray askSoftwareVersion = QByteArray::fromHex("404a56580000000001000000030043452a3f56");
const QByteArray askHardwareVersion = QByteArray::fromHex("404a5658000000000100000003005d5b2a3f48");
const QByteArray askSerialNumber = QByteArray::fromHex("404a56580000000001000000030046402a3f53");
const QByteArray setMask4000 = QByteArray::fromHex("404a5658000000000100000009000f032a214c4f4700400000");

const QByteArray softwareVersion
    = QByteArray::fromHex("404a56580100000000000000240007262a23563a4a5658207465726d696e616c"
                          "3a312e342e323a323032362d30332d30313a656e");
const QByteArray hardwareVersion
    = QByteArray::fromHex("404a565801000000000000001000091c2a23483a4248523ad5c4b3a210000000");
const QByteArray serialNumber
    = QByteArray::fromHex("404a56580100000000000000130050462a23533a333530303030303030303030303137");
const QByteArray mask4000 = QByteArray::fromHex("404a5658010000000000000009006e622a404c4f4700400000");
const QByteArray shortSoftwareVersion = QByteArray::fromHex("404a56580100000000000000050024242a23563a41");

/// A terminal and everything that it emitted.
struct Bench {
    explicit Bench(const TerminalSettings &settings = {})
        : terminal(settings)
        , answered(&terminal, &Terminal::answered)
        , droppedOff(&terminal, &Terminal::droppedOff)
        , malformed(&terminal, &Terminal::malformedReceived)
    {
    }

    [[nodiscard]] QByteArray answers() const
    {
        QByteArray bytes;
        for (const QList<QVariant> &arguments : answered)
            bytes.append(arguments.first().toByteArray());
        return bytes;
    }

    [[nodiscard]] QStringList complaints() const
    {
        QStringList lines;
        for (const QList<QVariant> &arguments : malformed)
            lines.append(arguments[0].toString() + QStringLiteral(": ")
                + QString::fromLatin1(arguments[1].toByteArray().toHex()));
        return lines;
    }

    Terminal terminal;
    QSignalSpy answered;
    QSignalSpy droppedOff;
    QSignalSpy malformed;
};

Options parsed(const QStringList &arguments)
{
    return parseOptions(QStringList{QStringLiteral("jvx-simulator"), QStringLiteral("--link=port")} + arguments);
}

} // namespace

class SimulatorTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRequestIsAnswered_data();
    void aRequestIsAnswered();
    void aRequestMayArriveByteByByte();
    void requestsInOneReadAreAllAnswered();
    void whatIsNoCorrectRequestIsReported_data();
    void whatIsNoCorrectRequestIsReported();
    void aRequestBehindGarbageIsAnswered();
    void anIncompletePacketIsReportedWhenTheLineIsLost();
    void aFixedAnswerTakesThePlaceOfTheTrueOne();
    void aSilentKeyGetsNoAnswer();
    void aVanishingTerminalIsDeafUntilItComesBack();

    void optionsReachTheTerminal();
    void aBadCommandLineIsRefused_data();
    void aBadCommandLineIsRefused();
};

void SimulatorTest::aRequestIsAnswered_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("software version") << askSoftwareVersion << softwareVersion;
    QTest::newRow("hardware version") << askHardwareVersion << hardwareVersion;
    QTest::newRow("serial number") << askSerialNumber << serialNumber;
    QTest::newRow("log mask") << setMask4000 << mask4000;
}

void SimulatorTest::aRequestIsAnswered()
{
    QFETCH(const QByteArray, request);
    QFETCH(const QByteArray, answer);
    Bench bench;
    bench.terminal.receive(request);
    QCOMPARE(bench.answers(), answer);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::aRequestMayArriveByteByByte()
{
    Bench bench;
    for (const char byte : askSoftwareVersion)
        bench.terminal.receive(QByteArray(1, byte));
    QCOMPARE(bench.answers(), softwareVersion);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::requestsInOneReadAreAllAnswered()
{
    Bench bench;
    bench.terminal.receive(askHardwareVersion + askSerialNumber + setMask4000.first(20));
    QCOMPARE(bench.answers(), hardwareVersion + serialNumber);
    bench.terminal.receive(setMask4000.sliced(20));
    QCOMPARE(bench.answers(), hardwareVersion + serialNumber + mask4000);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::whatIsNoCorrectRequestIsReported_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("reason");
    QTest::newRow("garbage") << QByteArray("\r\n") << QStringLiteral("bytes outside a packet");
    QTest::newRow("one bit of the header")
        << QByteArray::fromHex("404a56580000000001000000030043442a3f56") << QStringLiteral("wrong header checksum");
    QTest::newRow("one bit of the body") << QByteArray::fromHex("404a56580000000001000000030043452a3f57")
                                         << QStringLiteral("wrong body checksum");
    QTest::newRow("body of 2 bytes") << QByteArray::fromHex("404a56580000000001000000020015122a3f")
                                     << QStringLiteral("body too short");
    QTest::newRow("addresses of an answer")
        << QByteArray::fromHex("404a56580100000000000000030043452a3f56") << QStringLiteral("wrong address words");
    QTest::newRow("start character #") << QByteArray::fromHex("404a5658000000000100000003004a4c233f56")
                                       << QStringLiteral("wrong start character");
    QTest::newRow("key W") << QByteArray::fromHex("404a56580000000001000000030042442a3f57")
                           << QStringLiteral("unknown key");
    QTest::newRow("command V") << QByteArray::fromHex("404a5658000000000100000003005d5b2a2156")
                               << QStringLiteral("wrong direction character");
    QTest::newRow("ask LOG") << QByteArray::fromHex("404a565800000000010000000900515d2a3f4c4f4700000000")
                             << QStringLiteral("wrong direction character");
    QTest::newRow("V with a payload") << QByteArray::fromHex("404a5658000000000100000004003b3a2a3f5678")
                                      << QStringLiteral("wrong payload size");
    QTest::newRow("LOG with 3 bytes") << QByteArray::fromHex("404a565800000000010000000"
                                                             "8000f022a214c4f47004000")
                                      << QStringLiteral("wrong payload size");
}

void SimulatorTest::whatIsNoCorrectRequestIsReported()
{
    QFETCH(const QByteArray, bytes);
    QFETCH(const QString, reason);
    Bench bench;
    bench.terminal.receive(bytes);
    QCOMPARE(bench.complaints(), QStringList{reason + QStringLiteral(": ") + QString::fromLatin1(bytes.toHex())});
    QCOMPARE(bench.answers(), QByteArray());
}

void SimulatorTest::aRequestBehindGarbageIsAnswered()
{
    Bench bench;
    bench.terminal.receive(QByteArray("@JV") + askSerialNumber + QByteArray("@J"));
    bench.terminal.receive(QByteArray("x") + askSerialNumber);
    QCOMPARE(bench.answers(), serialNumber + serialNumber);
    QCOMPARE(bench.complaints(),
        QStringList(
            {QStringLiteral("bytes outside a packet: 404a56"), QStringLiteral("bytes outside a packet: 404a78")}));
}

void SimulatorTest::anIncompletePacketIsReportedWhenTheLineIsLost()
{
    Bench bench;
    bench.terminal.receive(askSerialNumber.first(17));
    QCOMPARE(bench.complaints(), QStringList());
    bench.terminal.loseLine();
    QCOMPARE(bench.complaints(),
        QStringList{QStringLiteral("incomplete packet: 404a565800000000010000000300464"
                                   "02a")});
    bench.terminal.loseLine();
    QCOMPARE(bench.complaints().size(), 1);
}

void SimulatorTest::aFixedAnswerTakesThePlaceOfTheTrueOne()
{
    TerminalSettings settings;
    settings.fixedAnswers = {{QByteArray("V"), QByteArray(":A")}};
    Bench bench(settings);
    bench.terminal.receive(askSoftwareVersion);
    bench.terminal.receive(askSerialNumber);
    QCOMPARE(bench.answers(), shortSoftwareVersion + serialNumber);
}

void SimulatorTest::aSilentKeyGetsNoAnswer()
{
    TerminalSettings settings;
    settings.silentKeys = {QByteArray("H")};
    Bench bench(settings);
    bench.terminal.receive(askHardwareVersion);
    QCOMPARE(bench.answers(), QByteArray());
    bench.terminal.receive(askSerialNumber);
    QCOMPARE(bench.answers(), serialNumber);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::aVanishingTerminalIsDeafUntilItComesBack()
{
    TerminalSettings settings;
    settings.vanishingKeys = {QByteArray("S")};
    Bench bench(settings);
    bench.terminal.receive(askSerialNumber + askHardwareVersion);
    QCOMPARE(bench.droppedOff.count(), 1);
    bench.terminal.receive(askHardwareVersion);
    QCOMPARE(bench.answers(), QByteArray());
    bench.terminal.powerUp();
    bench.terminal.receive(askHardwareVersion);
    QCOMPARE(bench.answers(), hardwareVersion);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::optionsReachTheTerminal()
{
    const Options options = parsed({QStringLiteral("--name=Ä"), QStringLiteral("--bhr=0102030405060708"),
        QStringLiteral("--mask=ffffffff"), QStringLiteral("--answer=LOG=00FF"), QStringLiteral("--silent=V"),
        QStringLiteral("--vanish=H"), QStringLiteral("--restart=0.25"), QStringLiteral("--no-return")});
    QCOMPARE(options.link, QStringLiteral("port"));
    QCOMPARE(options.terminal.name, QStringLiteral("Ä"));
    QCOMPARE(options.terminal.bhr, quint64{0x0102030405060708});
    QCOMPARE(options.terminal.mask, 0xFFFFFFFFU);
    QCOMPARE(options.terminal.fixedAnswers.value(QByteArray("LOG")), QByteArray("\x00\xFF", 2));
    QVERIFY(options.terminal.silentKeys.contains(QByteArray("V")));
    QVERIFY(options.terminal.vanishingKeys.contains(QByteArray("H")));
    QCOMPARE(options.restartTime.count(), 250);
    QVERIFY(!options.returns);
}

void SimulatorTest::aBadCommandLineIsRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *argument :
        {"--nonsense", "stray", "--link=", "--bhr=xyz", "--mask=100000000", "--answer=V", "--answer=V=0",
            "--answer=V=0g", "--answer=X=00", "--silent=X", "--vanish=", "--restart=-1", "--restart=nan"})
        QTest::newRow(argument) << QStringList{QString::fromLatin1(argument)};
}

void SimulatorTest::aBadCommandLineIsRefused()
{
    QFETCH(const QStringList, arguments);
    QVERIFY_EXCEPTION_THROWN(parsed(arguments), UsageError);
}

QTEST_GUILESS_MAIN(SimulatorTest)
#include "tst_simulator.moc"
