#include "options.h"
#include "terminal.h"
#include "wire.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <chrono>

// The packets below were written out by a Python script: struct.pack for the integers, a loop for the exclusive or.

namespace {

const QByteArray ask_software_version = QByteArray::fromHex("404a56580000000001000000030043452a3f56");
const QByteArray ask_hardware_version = QByteArray::fromHex("404a5658000000000100000003005d5b2a3f48");
const QByteArray ask_serial_number = QByteArray::fromHex("404a56580000000001000000030046402a3f53");
const QByteArray set_mask4000 = QByteArray::fromHex("404a5658000000000100000009000f032a214c4f4700400000");

const QByteArray software_version
    = QByteArray::fromHex("404a56580100000000000000240007262a23563a4a5658207465726d696e616c"
                          "3a312e342e323a323032362d30332d30313a656e");
const QByteArray hardware_version
    = QByteArray::fromHex("404a565801000000000000001000091c2a23483a4248523ad5c4b3a210000000");
const QByteArray serial_number
    = QByteArray::fromHex("404a56580100000000000000130050462a23533a333530303030303030303030303137");
const QByteArray mask4000 = QByteArray::fromHex("404a5658010000000000000009006e622a404c4f4700400000");
const QByteArray short_software_version = QByteArray::fromHex("404a56580100000000000000050024242a23563a41");

// The file "123456789" of kind 2.
const QByteArray read_keys = QByteArray::fromHex("404a565800000000010000000f001f152a2146520200000000000000000002");
const QByteArray keys_read = QByteArray::fromHex("404a565801000000000000001d00adb52a404652310201c3b2a1"
                                                 "00000000090009000000313233343536373839");
const QByteArray write_keys
    = QByteArray::fromHex("404a565800000000010000001c0029302a214657020000000000000000090009000000313233343536373839");
const QByteArray keys_written = QByteArray::fromHex("404a56580100000000000000100090852a404657310201c3b2a1000000000900");
const QByteArray apply_keys = QByteArray::fromHex("404a565800000000010000000d003a322a21465502000000002639f4cb");
const QByteArray keys_applied = QByteArray::fromHex("404a565801000000000000000a004a452a404655310200000000");

const QByteArray set_mask0 = QByteArray::fromHex("404a5658000000000100000009004f432a214c4f4700000000");
const QByteArray first_log_record = QByteArray::fromHex("404a565801000000000000001d0098802a3e4c4f470e00f1536500000123"
                                                        "302069676e6974696f6e206f6e0d0a");
const QByteArray second_log_record = QByteArray::fromHex("404a56580100000000000000250040602a3e4c4f470e00f15365f4010223"
                                                         "3120737570706c7920766f6c746167652031322e362056");

/// A terminal and everything that it emitted.
struct Bench {
    explicit Bench(const TerminalSettings &settings = {})
        : terminal(settings)
        , answered(&terminal, &Terminal::answered)
        , volunteered(&terminal, &Terminal::volunteered)
        , dropped_off(&terminal, &Terminal::droppedOff)
        , malformed(&terminal, &Terminal::malformedReceived)
        , misplaced(&terminal, &Terminal::misplacedReceived)
    {
    }

    [[nodiscard]] QByteArray answers() const { return joined(answered); }

    static QByteArray joined(const QSignalSpy &spy)
    {
        QByteArray bytes;
        for (const QList<QVariant> &arguments : spy)
            bytes.append(arguments.first().toByteArray());
        return bytes;
    }

    [[nodiscard]] QStringList complaints() const { return lines(malformed) + lines(misplaced); }

    static QStringList lines(const QSignalSpy &complaints)
    {
        QStringList lines;
        for (const QList<QVariant> &arguments : complaints)
            lines.append(arguments[0].toString() + QStringLiteral(": ")
                + QString::fromLatin1(arguments[1].toByteArray().toHex()));
        return lines;
    }

    Terminal terminal;
    QSignalSpy answered;
    QSignalSpy volunteered;
    QSignalSpy dropped_off;
    QSignalSpy malformed;
    QSignalSpy misplaced;
};

/// \a packet, a request about the file kind 2, for another kind.
QByteArray forKind(QByteArray packet, quint8 kind)
{
    constexpr qsizetype kind_offset = 20;
    const int change = packet[kind_offset] ^ kind;
    for (const qsizetype offset : {qsizetype{14}, qsizetype{15}, kind_offset})
        packet[offset] = static_cast<char>(packet[offset] ^ change);
    return packet;
}

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
    void aMisplacedRequestIsReportedAndRefused();
    void aRequestBehindGarbageIsAnswered();
    void anIncompletePacketIsReportedWhenTheLineIsLost();
    void aFixedAnswerTakesThePlaceOfTheTrueOne();
    void aSilentKeyGetsNoAnswer();
    void aVanishingTerminalIsDeafUntilItComesBack();

    void aFileIsWrittenReadAndApplied();
    void aScheduledStatusRefusesOneRequest();
    void aForeignAnswerComesFirst();
    void aTerminalMayRestartBeforeItAnswersFirmware_data();
    void aTerminalMayRestartBeforeItAnswersFirmware();
    void firmwareMayBringAnotherVersion_data();
    void firmwareMayBringAnotherVersion();
    void theLastBytesComeBeforeTheDrop();

    void theLogFollowsTheMask();
    void theInitialMaskComesBackAfterARestart_data();
    void theInitialMaskComesBackAfterARestart();
    void theReportedMaskCanBeAnother();
    void theLogCanBeGluedAroundAnswers();

    void aTerminalMayDropOffAtAnyPacket_data();
    void aTerminalMayDropOffAtAnyPacket();
    void oneInNFileRequestsIsRefused();
    void oneInNFileAnswersIsPrecededByAForeignOne();

    void optionsReachTheTerminal();
    void faultOptionsReachTheLine();
    void aBadCommandLineIsRefused_data();
    void aBadCommandLineIsRefused();
    void aRefusalNamesTheOptionAndTheReason_data();
    void aRefusalNamesTheOptionAndTheReason();
    void theRateOverridesThatOfTheTextsInAnyOrder_data();
    void theRateOverridesThatOfTheTextsInAnyOrder();
    void chanceAtTheTerminalAndOnTheLineDiffer();
    void theHelpNamesWhatAUserNeeds_data();
    void theHelpNamesWhatAUserNeeds();
    void theHelpFitsInto80Columns();
};

void SimulatorTest::aRequestIsAnswered_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("software version") << ask_software_version << software_version;
    QTest::newRow("hardware version") << ask_hardware_version << hardware_version;
    QTest::newRow("serial number") << ask_serial_number << serial_number;
    QTest::newRow("log mask") << set_mask4000 << mask4000;
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
    for (const char byte : ask_software_version)
        bench.terminal.receive(QByteArray(1, byte));
    QCOMPARE(bench.answers(), software_version);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::requestsInOneReadAreAllAnswered()
{
    Bench bench;
    bench.terminal.receive(ask_hardware_version + ask_serial_number + set_mask4000.first(20));
    QCOMPARE(bench.answers(), hardware_version + serial_number);
    bench.terminal.receive(set_mask4000.sliced(20));
    QCOMPARE(bench.answers(), hardware_version + serial_number + mask4000);
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
    QTest::newRow("LOG with 3 bytes") << QByteArray::fromHex("404a5658000000000100000008000f022a214c4f47004000")
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

void SimulatorTest::aMisplacedRequestIsReportedAndRefused()
{
    Bench bench;
    bench.terminal.receive(apply_keys);
    QCOMPARE(bench.misplaced.count(), 1);
    QCOMPARE(bench.complaints(),
        QStringList{QStringLiteral("nothing written to apply: ") + QString::fromLatin1(apply_keys.toHex())});
    QCOMPARE(bench.answers(), QByteArray::fromHex("404a5658010000000000000006007e7d2a4046550502"));
}

void SimulatorTest::aRequestBehindGarbageIsAnswered()
{
    Bench bench;
    bench.terminal.receive(QByteArray("@JV") + ask_serial_number + QByteArray("@J"));
    bench.terminal.receive(QByteArray("x") + ask_serial_number);
    QCOMPARE(bench.answers(), serial_number + serial_number);
    QCOMPARE(bench.complaints(),
        QStringList(
            {QStringLiteral("bytes outside a packet: 404a56"), QStringLiteral("bytes outside a packet: 404a78")}));
}

void SimulatorTest::anIncompletePacketIsReportedWhenTheLineIsLost()
{
    Bench bench;
    bench.terminal.receive(ask_serial_number.first(17));
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
    settings.fixed_answers = {{QByteArray("V"), QByteArray(":A")}};
    Bench bench(settings);
    bench.terminal.receive(ask_software_version);
    bench.terminal.receive(ask_serial_number);
    QCOMPARE(bench.answers(), short_software_version + serial_number);
}

void SimulatorTest::aSilentKeyGetsNoAnswer()
{
    TerminalSettings settings;
    settings.silent_keys = {QByteArray("H")};
    Bench bench(settings);
    bench.terminal.receive(ask_hardware_version);
    QCOMPARE(bench.answers(), QByteArray());
    bench.terminal.receive(ask_serial_number);
    QCOMPARE(bench.answers(), serial_number);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::aVanishingTerminalIsDeafUntilItComesBack()
{
    TerminalSettings settings;
    settings.vanishing_keys = {QByteArray("S")};
    Bench bench(settings);
    bench.terminal.receive(ask_serial_number + ask_hardware_version);
    QCOMPARE(bench.dropped_off.count(), 1);
    bench.terminal.receive(ask_hardware_version);
    QCOMPARE(bench.answers(), QByteArray());
    bench.terminal.powerUp();
    bench.terminal.receive(ask_hardware_version);
    QCOMPARE(bench.answers(), hardware_version);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::aFileIsWrittenReadAndApplied()
{
    Bench writing;
    writing.terminal.receive(write_keys);
    QCOMPARE(writing.answers(), keys_written);
    writing.terminal.receive(apply_keys);
    QCOMPARE(writing.answers(), keys_written + keys_applied);
    QCOMPARE(writing.dropped_off.count(), 1);
    QCOMPARE(writing.complaints(), QStringList());

    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("keys")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("123456789");
    file.close();
    TerminalSettings settings;
    settings.transfers.directory = directory.path();
    Bench reading(settings);
    reading.terminal.receive(read_keys);
    QCOMPARE(reading.answers(), keys_read);
    QCOMPARE(reading.complaints(), QStringList());
}

void SimulatorTest::aScheduledStatusRefusesOneRequest()
{
    // The refusal of a write of kind 2 with status 0x30.
    const QByteArray refusal = QByteArray::fromHex("404a565801000000000000000600494a2a4046573002");
    TerminalSettings settings;
    settings.statuses.insert({QByteArray("FW"), 2}, 0x30);
    Bench bench(settings);
    bench.terminal.receive(write_keys);
    QCOMPARE(bench.answers(), keys_written);
    bench.terminal.receive(write_keys);
    QCOMPARE(bench.answers(), keys_written + refusal);
    bench.terminal.receive(write_keys);
    QCOMPARE(bench.answered.count(), 3);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::aForeignAnswerComesFirst()
{
    TerminalSettings settings;
    settings.foreign_answers.insert({QByteArray("FW"), 1});
    Terminal terminal(settings);
    QByteArrayList sent;
    connect(&terminal, &Terminal::volunteered, &terminal, [&sent](const QByteArray &bytes) { sent.append(bytes); });
    connect(&terminal, &Terminal::answered, &terminal, [&sent](const QByteArray &packet) { sent.append(packet); });
    terminal.receive(write_keys);
    // The same answer for kind 3: one bit more in the body and in both checksums.
    const QByteArray foreign = QByteArray::fromHex("404a56580100000000000000100091842a404657310301c3b2a1000000000900");
    QCOMPARE(sent, (QByteArrayList{foreign, keys_written}));
    terminal.receive(write_keys);
    QCOMPARE(sent.size(), 3);
}

void SimulatorTest::aTerminalMayRestartBeforeItAnswersFirmware_data()
{
    QTest::addColumn<quint8>("kind");
    QTest::addColumn<int>("answers");
    QTest::newRow("firmware") << quint8{1} << 1;
    QTest::newRow("keys") << quint8{2} << 2;
}

void SimulatorTest::aTerminalMayRestartBeforeItAnswersFirmware()
{
    QFETCH(const quint8, kind);
    QFETCH(const int, answers);
    TerminalSettings settings;
    settings.restarts_before_firmware_answer = true;
    Bench bench(settings);
    bench.terminal.receive(forKind(write_keys, kind));
    bench.terminal.receive(forKind(apply_keys, kind));
    QCOMPARE(bench.answered.count(), answers);
    QCOMPARE(bench.dropped_off.count(), answers - 1); // without an answer, a second later
    bench.terminal.receive(ask_serial_number);
    QTRY_COMPARE(bench.dropped_off.count(), 1);
    QCOMPARE(bench.answered.count(), answers);
    const QString complaint
        = QStringLiteral("bytes behind an apply: ") + QString::fromLatin1(ask_serial_number.toHex());
    QCOMPARE(bench.complaints(), QStringList{complaint});
    bench.terminal.powerUp();
    bench.terminal.receive(ask_serial_number);
    QCOMPARE(bench.answered.count(), answers + 1);
    QCOMPARE(bench.complaints(), QStringList{complaint});
}

void SimulatorTest::firmwareMayBringAnotherVersion_data()
{
    QTest::addColumn<quint8>("kind");
    QTest::addColumn<std::optional<QString>>("next_version");
    QTest::addColumn<bool>("is_applied");
    QTest::addColumn<QByteArray>("version");
    QTest::newRow("firmware") << quint8{1} << std::optional(QStringLiteral("1.5.0")) << true << QByteArray(":1.5.0:");
    QTest::newRow("firmware, only written")
        << quint8{1} << std::optional(QStringLiteral("1.5.0")) << false << QByteArray(":1.4.2:");
    QTest::newRow("keys") << quint8{2} << std::optional(QStringLiteral("1.5.0")) << true << QByteArray(":1.4.2:");
    QTest::newRow("by default") << quint8{1} << std::optional<QString>() << true << QByteArray(":1.4.2:");
}

void SimulatorTest::firmwareMayBringAnotherVersion()
{
    QFETCH(const quint8, kind);
    QFETCH(const std::optional<QString>, next_version);
    QFETCH(const bool, is_applied);
    QFETCH(const QByteArray, version);
    TerminalSettings settings;
    settings.next_software_version = next_version;
    Bench bench(settings);
    bench.terminal.receive(forKind(write_keys, kind));
    if (is_applied)
        bench.terminal.receive(forKind(apply_keys, kind));
    bench.terminal.powerUp();
    bench.terminal.receive(ask_software_version);
    QVERIFY2(bench.answers().endsWith(version + "2026-03-01:en"), bench.answers().constData());
}

void SimulatorTest::theLastBytesComeBeforeTheDrop()
{
    TerminalSettings settings;
    settings.vanishing_keys = {QByteArray("S")};
    settings.last_bytes = QByteArray("@JVX");
    Terminal terminal(settings);
    QByteArrayList events;
    connect(&terminal, &Terminal::volunteered, &terminal, [&events](const QByteArray &bytes) { events.append(bytes); });
    connect(&terminal, &Terminal::droppedOff, &terminal, [&events] { events.append("dropped off"); });
    terminal.receive(ask_serial_number);
    QCOMPARE(events, (QByteArrayList{"@JVX", "dropped off"}));
}

void SimulatorTest::theLogFollowsTheMask()
{
    TerminalSettings settings;
    settings.log.start = 1700000000;
    settings.log.period = std::chrono::milliseconds(500);
    Bench bench(settings);
    QVERIFY(!bench.terminal.sendLogRecord());
    bench.terminal.receive(set_mask4000);
    QVERIFY(bench.terminal.sendLogRecord());
    QVERIFY(bench.terminal.sendLogRecord());
    QCOMPARE(Bench::joined(bench.volunteered), first_log_record + second_log_record);
    bench.terminal.receive(set_mask0);
    QVERIFY(!bench.terminal.sendLogRecord());
}

void SimulatorTest::theInitialMaskComesBackAfterARestart_data()
{
    QTest::addColumn<quint32>("initial");
    QTest::addColumn<QByteArray>("set");
    QTest::addColumn<bool>("logs_before");
    QTest::newRow("none, then texts") << 0U << set_mask4000 << true;
    QTest::newRow("texts, then none") << 0x4000U << set_mask0 << false;
}

void SimulatorTest::theInitialMaskComesBackAfterARestart()
{
    QFETCH(const quint32, initial);
    QFETCH(const QByteArray, set);
    QFETCH(const bool, logs_before);
    TerminalSettings settings;
    settings.mask = initial;
    settings.vanishing_keys = {QByteArray("S")};
    Bench bench(settings);
    bench.terminal.receive(set);
    QCOMPARE(bench.terminal.sendLogRecord(), logs_before);
    bench.terminal.receive(ask_serial_number);
    QVERIFY(!bench.terminal.sendLogRecord());
    bench.terminal.powerUp();
    QCOMPARE(bench.terminal.sendLogRecord(), !logs_before);
}

void SimulatorTest::theReportedMaskCanBeAnother()
{
    TerminalSettings settings;
    settings.reported_mask = 0x12345678;
    Bench bench(settings);
    bench.terminal.receive(set_mask4000);
    QCOMPARE(bench.answers(), QByteArray::fromHex("404a565801000000000000000900262a2a404c4f4778563412"));
    QVERIFY(bench.terminal.sendLogRecord());
}

void SimulatorTest::theLogCanBeGluedAroundAnswers()
{
    TerminalSettings settings;
    settings.log.start = 1700000000;
    settings.log.period = std::chrono::milliseconds(500);
    settings.logs_always = true;
    Terminal terminal(settings);
    QByteArray sent;
    connect(&terminal, &Terminal::volunteered, &terminal, [&sent](const QByteArray &bytes) { sent.append(bytes); });
    connect(&terminal, &Terminal::answered, &terminal, [&sent](const QByteArray &packet) { sent.append(packet); });
    QVERIFY(!terminal.sendLogRecord());
    terminal.receive(ask_serial_number);
    QCOMPARE(sent, first_log_record + serial_number + second_log_record);
    QVERIFY(terminal.sendLogRecord());
}

void SimulatorTest::aTerminalMayDropOffAtAnyPacket_data()
{
    QTest::addColumn<bool>("after_answer");
    QTest::newRow("before its answer") << false;
    QTest::newRow("after its answer") << true;
}

void SimulatorTest::aTerminalMayDropOffAtAnyPacket()
{
    QFETCH(const bool, after_answer);
    TerminalSettings settings;
    settings.drop = {2, after_answer};
    Bench bench(settings);
    bench.terminal.receive(ask_hardware_version + ask_serial_number + ask_software_version);
    QCOMPARE(bench.answers(), after_answer ? hardware_version + serial_number : hardware_version);
    QCOMPARE(bench.dropped_off.count(), 1);
    bench.terminal.powerUp();
    bench.terminal.receive(ask_serial_number + ask_serial_number);
    QCOMPARE(bench.dropped_off.count(), 1);
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::oneInNFileRequestsIsRefused()
{
    TerminalSettings settings;
    settings.error_rate = 4;
    Bench bench(settings);
    for (int i = 0; i < 400; ++i)
        bench.terminal.receive(write_keys + ask_serial_number);
    QCOMPARE(bench.answered.count(), 800);
    const QByteArray answers = bench.answers();
    QCOMPARE(answers.count(serial_number), 400);
    const qsizetype accepted = answers.count("@FW1\x02");
    QVERIFY2(accepted > 250 && accepted < 350, qPrintable(QString::number(accepted)));
    QCOMPARE(bench.complaints(), QStringList());
}

void SimulatorTest::oneInNFileAnswersIsPrecededByAForeignOne()
{
    TerminalSettings settings;
    settings.foreign_rate = 4;
    Bench bench(settings);
    for (int i = 0; i < 400; ++i)
        bench.terminal.receive(write_keys + ask_serial_number);
    QCOMPARE(bench.answered.count(), 800);
    const qsizetype foreign = bench.volunteered.count();
    QVERIFY2(foreign > 50 && foreign < 150, qPrintable(QString::number(foreign)));
    QCOMPARE(Bench::joined(bench.volunteered).count("@FW1\x03"), foreign);
}

void SimulatorTest::faultOptionsReachTheLine()
{
    const Options options = parsed({QStringLiteral("--seed=5"), QStringLiteral("--latency=20"),
        QStringLiteral("--split=random"), QStringLiteral("--garbage=6"), QStringLiteral("--damage-header=7"),
        QStringLiteral("--damage-body=8"), QStringLiteral("--lose=9"), QStringLiteral("--duplicate=10"),
        QStringLiteral("--late=11:1200"), QStringLiteral("--foreign-rate=12"), QStringLiteral("--error-rate=13"),
        QStringLiteral("--drop-at=14:after")});
    QCOMPARE(options.faults.seed, 5U);
    QCOMPARE(options.faults.latency.count(), 20);
    QVERIFY(options.faults.splits_at_random);
    QCOMPARE(options.faults.garbage, 6);
    QCOMPARE(options.faults.damaged_headers, 7);
    QCOMPARE(options.faults.damaged_bodies, 8);
    QCOMPARE(options.faults.lost, 9);
    QCOMPARE(options.faults.duplicated, 10);
    QCOMPARE(options.faults.late, 11);
    QCOMPARE(options.faults.lateness.count(), 1200);
    QCOMPARE(options.terminal.foreign_rate, 12);
    QCOMPARE(options.terminal.error_rate, 13);
    QCOMPARE(options.terminal.drop.packet, 14);
    QVERIFY(options.terminal.drop.after_answer);
    QCOMPARE(parsed({QStringLiteral("--split=every")}).faults.split_size, 1);
    QCOMPARE(parsed({QStringLiteral("--split=3")}).faults.split_size, 3);
    QVERIFY(!parsed({QStringLiteral("--drop-at=1")}).terminal.drop.after_answer);
}

void SimulatorTest::optionsReachTheTerminal()
{
    const Options options = parsed({QStringLiteral("--name=Ä"), QStringLiteral("--bhr=0102030405060708"),
        QStringLiteral("--mask=ffffffff"), QStringLiteral("--answer=LOG=00FF"), QStringLiteral("--silent=V"),
        QStringLiteral("--vanish=H"), QStringLiteral("--restart=0.25"), QStringLiteral("--no-return"),
        QStringLiteral("--accept=0"), QStringLiteral("--piece=65000"), QStringLiteral("--announce=4294967295"),
        QStringLiteral("--status=FR:3=30"), QStringLiteral("--foreign=FU:1"), QStringLiteral("--restart-junk=4a4A"),
        QStringLiteral("--restart-before-answer"), QStringLiteral("--files=/"), QStringLiteral("--mask-reply=0"),
        QStringLiteral("--log-rate=2.5"), QStringLiteral("--log-count=7"), QStringLiteral("--log-start=4294967295"),
        QStringLiteral("--log-always"), QStringLiteral("--software-version=2"), QStringLiteral("--next-version=3.0"),
        QStringLiteral("--date=3"), QStringLiteral("--language=4"), QStringLiteral("--imei=5"),
        QStringLiteral("--until-eof"), QStringLiteral("--record=r")});
    QCOMPARE(options.link, QStringLiteral("port"));
    QCOMPARE(options.record, QStringLiteral("r"));
    QVERIFY(options.until_eof);
    QCOMPARE(options.terminal.software_version, QStringLiteral("2"));
    QCOMPARE(options.terminal.next_software_version, QStringLiteral("3.0"));
    QCOMPARE(options.terminal.date, QStringLiteral("3"));
    QCOMPARE(options.terminal.language, QStringLiteral("4"));
    QCOMPARE(options.terminal.imei, QStringLiteral("5"));
    QCOMPARE(options.terminal.name, QStringLiteral("Ä"));
    QCOMPARE(options.terminal.bhr, quint64{0x0102030405060708});
    QCOMPARE(options.terminal.mask, 0xFFFFFFFFU);
    QCOMPARE(options.terminal.fixed_answers.value(QByteArray("LOG")), QByteArray("\x00\xFF", 2));
    QVERIFY(options.terminal.silent_keys.contains(QByteArray("V")));
    QVERIFY(options.terminal.vanishing_keys.contains(QByteArray("H")));
    QCOMPARE(options.restart_time.count(), 250);
    QVERIFY(!options.returns);
    QCOMPARE(options.terminal.transfers.accept, 0);
    QCOMPARE(options.terminal.transfers.piece, 65000);
    QCOMPARE(options.terminal.transfers.announced, 0xFFFFFFFFU);
    QCOMPARE(options.terminal.transfers.directory, QStringLiteral("/"));
    QCOMPARE(options.terminal.statuses.value({QByteArray("FR"), 3}), quint8{0x30});
    QVERIFY(options.terminal.foreign_answers.contains({QByteArray("FU"), 1}));
    QCOMPARE(options.terminal.last_bytes, QByteArray("JJ"));
    QCOMPARE(options.terminal.reported_mask, 0U);
    QCOMPARE(options.terminal.log.period, std::chrono::milliseconds(400));
    QCOMPARE(options.terminal.log.count, 7);
    QCOMPARE(options.terminal.log.start, 0xFFFFFFFFU);
    QVERIFY(options.terminal.logs_always);
    QVERIFY(options.terminal.restarts_before_firmware_answer);
}

void SimulatorTest::aBadCommandLineIsRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *argument :
        {"--nonsense", "stray", "--link=", "--bhr=xyz", "--mask=100000000", "--answer=V", "--answer=V=0",
            "--answer=V=0g", "--answer=X=00", "--silent=X", "--vanish=", "--restart=-1", "--restart=nan",
            "--accept=513", "--accept=-1", "--piece=65001", "--announce=4294967296", "--status=FR:0=30",
            "--status=FR:1=3031", "--status=V:1=30", "--foreign=LOG:1", "--foreign=FR", "--files=/nowhere",
            "--log=/nowhere", "--log-rate=0", "--log-rate=MAX", "--log-count=-1", "--log-start=4294967296",
            "--mask-reply=", "--seed=-1", "--latency=x", "--split=0", "--split=all", "--garbage=0", "--damage-header=0",
            "--damage-body=0", "--lose=0", "--duplicate=0", "--late=1", "--late=1:-1", "--foreign-rate=0",
            "--error-rate=0", "--drop-at=0", "--drop-at=1:never", "--drop-at=1:before:after"})
        QTest::newRow(argument) << QStringList{QString::fromLatin1(argument)};
}

void SimulatorTest::aBadCommandLineIsRefused()
{
    QFETCH(const QStringList, arguments);
    QVERIFY_THROWS_EXCEPTION(UsageError, parsed(arguments));
}

void SimulatorTest::aRefusalNamesTheOptionAndTheReason_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("0th read") << QStringLiteral("--status=FR:0=01")
                              << QByteArray("bad value 'FR:0=01' of option --status: counting starts at 1");
    QTest::newRow("0th write") << QStringLiteral("--foreign=FW:0")
                               << QByteArray("bad value 'FW:0' of option --foreign: counting starts at 1");
    QTest::newRow("0th packet") << QStringLiteral("--drop-at=0:after")
                                << QByteArray("bad value '0:after' of option --drop-at: counting starts at 1");
    QTest::newRow("a key that is none") << QStringLiteral("--silent=W")
                                        << QByteArray("bad value 'W' of option --silent: the keys are V, H, S, FR, FW, "
                                                      "FU, LOG");
    QTest::newRow("a key not about files") << QStringLiteral("--status=V:1=30")
                                           << QByteArray("bad value 'V:1=30' of option --status: the keys are FR, FW, "
                                                         "FU");
    QTest::newRow("a long text") << QStringLiteral("--imei=") + QString(1001, QLatin1Char('1'))
                                 << "bad value '" + QByteArray(1001, '1')
            + "' of option --imei: longer than 1000 bytes";
    QTest::newRow("a long answer") << QStringLiteral("--answer=V=") + QString(130'002, QLatin1Char('0'))
                                   << "bad value 'V=" + QByteArray(130'002, '0')
            + "' of option --answer: longer than 65000 bytes";
    QTest::newRow("one in 0") << QStringLiteral("--lose=0") << QByteArray("bad value '0' of option --lose");
}

void SimulatorTest::aRefusalNamesTheOptionAndTheReason()
{
    QFETCH(const QString, argument);
    QFETCH(const QByteArray, line);
    try {
        parsed({argument});
        QFAIL("accepted");
    } catch (const UsageError &error) {
        QCOMPARE(QByteArray(error.what()), line);
    }
}

void SimulatorTest::theRateOverridesThatOfTheTextsInAnyOrder_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("milliseconds");
    const QString texts = QStringLiteral("--log=/dev/null");
    const QString rate = QStringLiteral("--log-rate=2");
    QTest::newRow("texts alone") << QStringList{texts} << 100;
    QTest::newRow("texts before rate") << QStringList{texts, rate} << 500;
    QTest::newRow("rate before texts") << QStringList{rate, texts} << 500;
}

void SimulatorTest::theRateOverridesThatOfTheTextsInAnyOrder()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const int, milliseconds);
    const LogSettings log = parsed(arguments).terminal.log;
    QVERIFY(log.texts);
    QCOMPARE(log.period, std::chrono::milliseconds(milliseconds));
}

void SimulatorTest::chanceAtTheTerminalAndOnTheLineDiffer()
{
    for (const Options &options : {parsed({}), parsed({QStringLiteral("--seed=7")})})
        QVERIFY(options.terminal.seed != options.faults.seed);
    QVERIFY(parsed({QStringLiteral("--seed=7")}).terminal.seed != parsed({}).terminal.seed);
}

void SimulatorTest::theHelpNamesWhatAUserNeeds_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
        {"Usage: jvx-simulator --link <path> [options]\n", "\nPort:\n", "\nIdentity:\n", "\nFiles:\n", "\nAnswers:\n",
            "\nLog:\n", "\nRestart:\n", "\nFaults:\n", "\n  --lose <n>                  Lose one in N answers.\n",
            "\n  --no-return                 Never come back once dropped off the bus.\n", "\n  -h, --help  ",
            "\n  -v, --version  ", "\nExit codes:\n  0  ", "\n  1  ", "\n  2  ", "\nExamples:\n  jvx-simulator --link ",
            "\n  jvx-simulator --link /tmp/terminal --status FW:3=02"})
        QTest::newRow(text) << QString::fromLatin1(text);
    for (const QByteArray &key : Terminal::keys())
        QTest::newRow("key " + key) << QStringLiteral("  %1  ").arg(QString::fromLatin1(key));
}

void SimulatorTest::theHelpNamesWhatAUserNeeds()
{
    QFETCH(const QString, text);
    const Options options = parsed({QStringLiteral("--help")});
    QCOMPARE(options.action, Options::Action::ShowHelp);
    QVERIFY(options.help.contains(text));
}

void SimulatorTest::theHelpFitsInto80Columns()
{
    const QStringList lines = parsed({QStringLiteral("--help")}).help.split(QLatin1Char('\n'));
    QVERIFY(lines.size() > 50);
    for (const QString &line : lines)
        QVERIFY2(line.size() <= 80 && !line.endsWith(QLatin1Char(' ')), qPrintable(line));
}

QTEST_GUILESS_MAIN(SimulatorTest)
#include "tst_simulator.moc"
