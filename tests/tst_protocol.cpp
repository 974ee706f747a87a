#include "packets.h"
#include "protocolbench.h"
#include "stdoutput.h"

#include <QPointer>
#include <QRandomGenerator>
#include <QTest>

#include <functional>
#include <iostream>
#include <sstream>

namespace {

using Request = void (*)(jvxb::Protocol &);

struct KnownRequest {
    const char *name;
    Request send;
    const char *packet;  ///< in hexadecimal digits
    const char *timeout; ///< what is reported when no answer comes
};

// The packets are what the expressions of packets.h give for the address words 0 and 1 and the bodies
//
//     b"*?V"   b"*?H"   b"*?S"
//     b"*!FR" + struct.pack("<BIIH", 3, 0, 0, 512)
//     b"*!FW" + struct.pack("<BIIHI", 1, 0, 0, 3, 3) + b"abc"
//     b"*!FU" + struct.pack("<BII", 11, 0, 0xCBF43926)
//     b"*!LOG" + struct.pack("<I", 0x4000)
const KnownRequest known_requests[] = {
    {"software version", [](jvxb::Protocol &protocol) { protocol.readSoftVersion(); },
        "404a56580000000001000000030043452a3f56", R"(softVersionReaded -1 "" "" "" "")"},
    {"hardware version", [](jvxb::Protocol &protocol) { protocol.readHardVersion(); },
        "404a5658000000000100000003005d5b2a3f48", "hardVesionReaded -1 0"},
    {"serial number", [](jvxb::Protocol &protocol) { protocol.readSerialNumber(); },
        "404a56580000000001000000030046402a3f53", R"(serialNumberReaded -1 "")"},
    {"read file", [](jvxb::Protocol &protocol) { protocol.readFile(File::RoadAccident); },
        "404a565800000000010000000f001e142a2146520300000000000000000002", "fileReaded -1 3 0 bytes"},
    {"write file", [](jvxb::Protocol &protocol) { protocol.writeFile(File::Firmware, "abc"); },
        "404a5658000000000100000016007b682a214657010000000000000000030003000000616263", "fileWritten -1 1"},
    {"apply file", [](jvxb::Protocol &protocol) { protocol.applyFile(File::UserFirmware, 0xCBF43926); },
        "404a565800000000010000000d00333b2a2146550b000000002639f4cb", "fileApplied -1 11"},
    {"log enable", [](jvxb::Protocol &protocol) { protocol.logEnable(0x4000); },
        "404a5658000000000100000009000f032a214c4f4700400000", "logEnabled -1 0"},
};

constexpr qsizetype header_size = 16;
constexpr qsizetype greatest_packet = header_size + 65535;
constexpr qsizetype mebibyte = 1024 * 1024;

const QByteArray software_result = R"(softVersionReaded 0 "JVX" "1.2" "2024-05-06" "en")";
const QByteArray hardware_result = "hardVesionReaded 0 72623859790382856";
const QByteArray serial_number_result = R"(serialNumberReaded 0 "350000000000017")";
const QByteArray mask_result = "logEnabled 0 16384";

/// \a unit as often as it fits into \a size bytes.
QByteArray filledWith(const QByteArray &unit, qsizetype size)
{
    return unit.repeated(size / unit.size());
}

/// \a packet with address words such that a magic before it makes a header with right checksums, which claims a body of
/// \a length bytes, at most 3; that header's last 12 bytes are the first of the packet.
QByteArray withHeaderInFront(QByteArray packet, qsizetype length)
{
    packet.replace(8, 2, packets::number(static_cast<quint64>(length), 2));
    packet[10] = packets::exclusiveOr(packet.sliced(12, length));
    packet[11] = packets::exclusiveOr("@JVX" + packet.first(11));
    packet[15] = packets::exclusiveOr(packet.first(15));
    return packet;
}

/// The search for packets once more, rule by rule and without regard to speed.
class SlowSearch {
public:
    QByteArrayList bodies;

    void receive(const QByteArray &bytes)
    {
        _buffer.append(bytes);
        while (makesProgress()) { }
    }

private:
    bool makesProgress()
    {
        if (_buffer.size() < header_size || !magicIsAtTheStart() || _buffer.size() < header_size)
            return false;
        if (!headerIsRight()) {
            _buffer.remove(0, 4);
            return true;
        }
        if (_buffer.size() < header_size + length())
            return false;
        takePacket();
        return true;
    }

    bool magicIsAtTheStart()
    {
        const qsizetype position = _buffer.indexOf("@JVX");
        if (position < 0)
            _buffer.clear();
        else
            _buffer.remove(0, position);
        return position >= 0;
    }

    bool headerIsRight() const { return packets::exclusiveOr(_buffer.first(15)) == _buffer[15] && length() > 2; }

    qsizetype length() const
    {
        return static_cast<unsigned char>(_buffer[12]) + 256 * static_cast<unsigned char>(_buffer[13]);
    }

    void takePacket()
    {
        const qsizetype size = length();
        const char sum = _buffer[14];
        _buffer.remove(0, header_size);
        const QByteArray body = _buffer.first(size);
        if (packets::exclusiveOr(body) != sum)
            return;
        bodies.append(body);
        _buffer.remove(0, size);
    }

    QByteArray _buffer;
};

/// The texts of those \a bodies that are records of the log.
QByteArrayList logTexts(const QByteArrayList &bodies)
{
    const qsizetype text_offset = packets::logBody({}).size();
    QByteArrayList texts;
    for (const QByteArray &body : bodies)
        if (body.startsWith("*>LOG") && body.size() >= text_offset)
            texts.append(body.sliced(text_offset));
    return texts;
}

/// Bytes of a line on which everything goes wrong; every record of the log in them has its own text.
class BadLine {
public:
    explicit BadLine(quint32 seed)
        : _random(seed)
    {
    }

    /// Between 1 and \a limit.
    int upTo(int limit) { return 1 + _random.bounded(limit); }

    QByteArray next()
    {
        switch (_random.bounded(10)) {
        case 0:
            return garbage(upTo(40));
        case 1:
            return shards(upTo(12));
        case 2:
            return packets::header(static_cast<quint16>(_random.bounded(2000)), anyByte());
        case 3:
            return packets::withWrongHeaderSum(record());
        case 4:
            return packets::withWrongBodySum("*>" + shards(upTo(4)) + record() + record() + garbage(upTo(20)));
        case 5:
            return packets::packet("*>LOG" + garbage(upTo(7)) + record());
        case 6:
            return record().chopped(upTo(24));
        case 7:
            return withOneBitFlipped(record());
        default:
            return record();
        }
    }

private:
    char anyByte() { return static_cast<char>(_random.bounded(256)); }

    QByteArray garbage(int size)
    {
        QByteArray bytes;
        for (int i = 0; i < size; ++i)
            bytes.append(anyByte());
        return bytes;
    }

    QByteArray shards(int count)
    {
        static const QByteArrayList kinds{"@", "@J", "@JV", "@JVX", "*", ">LOG"};
        QByteArray bytes;
        for (int i = 0; i < count; ++i)
            bytes.append(kinds.at(_random.bounded(static_cast<int>(kinds.size()))));
        return bytes;
    }

    QByteArray record() { return packets::logRecord("record " + QByteArray::number(++_records)); }

    QByteArray withOneBitFlipped(QByteArray bytes)
    {
        const int position = _random.bounded(static_cast<int>(bytes.size()));
        bytes[position] = static_cast<char>(bytes[position] ^ 1 << _random.bounded(8));
        return bytes;
    }

    QRandomGenerator _random;
    int _records = 0;
};

/// Keeps what is written to the standard output while it lives.
class OutputCapture {
public:
    OutputCapture()
        : _original(std::cout.rdbuf(_stream.rdbuf()))
    {
    }

    ~OutputCapture() { std::cout.rdbuf(_original); }

    OutputCapture(const OutputCapture &) = delete;
    OutputCapture &operator=(const OutputCapture &) = delete;

    QByteArray text() const { return QByteArray::fromStdString(_stream.str()); }

private:
    std::ostringstream _stream;
    std::streambuf *_original;
};

} // namespace

class ProtocolTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Sending
    void aRequestIsOnePacketInOneWrite_data();
    void aRequestIsOnePacketInOneWrite();
    void aPacketIsAHeaderAndABody_data();
    void aPacketIsAHeaderAndABody();
    void aTransactionMakesItsRequestOfKeyAndData();
    void aTransactionKnowsItsAnswer_data();
    void aTransactionKnowsItsAnswer();

    // Finding packets
    void addressWordsAreIgnored();
    void aPacketMayBeSplitAnywhere_data();
    void aPacketMayBeSplitAnywhere();
    void aPacketMayComeByteByByte();
    void aPacketIsFoundBehind_data();
    void aPacketIsFoundBehind();
    void aCutMagicAtTheEndOfSixteenBytesIsLost_data();
    void aCutMagicAtTheEndOfSixteenBytesIsLost();
    void fewerThanSixteenBytesWait_data();
    void fewerThanSixteenBytesWait();
    void aBrokenHeaderCostsOnlyItsMagic();
    void aBodyBelowThreeBytesIsRefused_data();
    void aBodyBelowThreeBytesIsRefused();
    void packetsInsideABrokenBodyAreFound();
    void theGreatestBodyIsAwaited();
    void aClaimOfTheGreatestBodyHidesWhatFollowsUntilItIsComplete();
    void packetsBackToBackAreAllProcessed();
    void packetsAmongGarbageAreAllProcessed();
    void aBadLineIsReadAsTheRulesSay_data();
    void aBadLineIsReadAsTheRulesSay();
    void nastyStreamsAreDigestedInLinearTime_data();
    void nastyStreamsAreDigestedInLinearTime();
    void nastyStreamsMayComeByteByByte_data();
    void nastyStreamsMayComeByteByByte();
    void closingThePortForgetsHalfAPacket();

    // Matching answers
    void whatIsNoAnswerIsIgnored_data();
    void whatIsNoAnswerIsIgnored();
    void anAnswerWithoutARequestIsIgnored();
    void anAnswerIsTakenOnce();
    void requestsMayBeAnsweredInAnyOrder();
    void theOlderOfTwoEqualRequestsTakesTheAnswer();
    void aLogRecordIsNoAnswer();
    void aMessageIsNeverAnAnswer();
    void aLogRecordMayComeBetweenTheHalvesOfAnAnswer();
    void anAnswerToAnUnknownKeyEndsItsTransactionSilently();
    void aResultMaySendTheNextRequest();
    void aResultMaySendManyRequests();
    void anAnswerMayArriveWhileAResultIsReported();

    // Time-outs
    void aSilentTerminalIsReportedInTime_data();
    void aSilentTerminalIsReportedInTime();
    void aTimeoutIsReportedOnce();
    void aLateAnswerIsIgnored();
    void aTimedOutRequestMayBeRepeatedFromItsResult();
    void anAnsweredRequestDoesNotTimeOut();
    void oneTimeoutLeavesTheOthersAlone();
    void aTransactionOfAnUnknownKeyTimesOutSilently();
    void aTimeoutOfNoTransactionChangesNothing();
    void sendingAgainBeginsTheTimeAnew();
    void sendingAgainKeepsThePlaceInTheQueue();
    void endDeletesATransactionOutsideTheQueue();
    void endTakesATransactionFromTheQueue();
    void pendingTransactionsDieWithTheirProtocol();

    // Errors
    void aPortErrorIsReportedWithItsText();
    void noErrorOfThePortIsNotReported();
    void aPortErrorEndsNoRequest();
    void anErrorHasATextAndAConsoleForm_data();
    void anErrorHasATextAndAConsoleForm();
};

// ---- sending ------------------------------------------------------------------------------------------------------

void ProtocolTest::aRequestIsOnePacketInOneWrite_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("packet");

    for (const KnownRequest &request : known_requests)
        QTest::newRow(request.name) << request.send << QByteArray::fromHex(request.packet);
}

void ProtocolTest::aRequestIsOnePacketInOneWrite()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, packet);
    ProtocolBench bench;
    send(bench.protocol);
    QCOMPARE(bench.port.written(), QByteArrayList{packet});
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.pending().size(), 1);
}

// Written out by the expressions of packets.h; the longest are given by their first 16 bytes.
void ProtocolTest::aPacketIsAHeaderAndABody_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("header");

    QTest::newRow("no body") << QByteArray() << QByteArray::fromHex("404a5658000000000100000000000005");
    QTest::newRow("one byte of 0xFF") << QByteArray(1, '\xFF')
                                      << QByteArray::fromHex("404a565800000000010000000100fffb");
    QTest::newRow("300 bytes of A, then a B")
        << QByteArray(300, 'A') + 'B' << QByteArray::fromHex("404a565800000000010000002d01426b");
    QTest::newRow("65535 bytes of A") << QByteArray(65535, 'A')
                                      << QByteArray::fromHex("404a56580000000001000000ffff4144");
    QTest::newRow("65540 bytes of A") << QByteArray(65540, 'A')
                                      << QByteArray::fromHex("404a5658000000000100000004000001");
}

void ProtocolTest::aPacketIsAHeaderAndABody()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, header);
    QCOMPARE(jvxb::packet(body), header + body);
}

void ProtocolTest::aTransactionMakesItsRequestOfKeyAndData()
{
    jvxb::Transaction transaction('<', '=', "KEY", nullptr, 1);
    QCOMPARE(transaction.request(), QByteArray("*<KEY"));
    transaction.setPayload(QByteArray("\0\xFF", 2));
    QCOMPARE(transaction.request(), QByteArray("*<KEY\0\xFF", 7));
    QCOMPARE(jvxb::Ask("V", nullptr, 1).request(), QByteArray("*?V"));
    QCOMPARE(jvxb::Command("V", nullptr, 1).request(), QByteArray("*!V"));
    QCOMPARE(jvxb::FileCommand(File::Epo, "file", "FR", nullptr, 1).request(), QByteArray("*!FR"));
}

void ProtocolTest::aTransactionKnowsItsAnswer_data()
{
    QTest::addColumn<qsizetype>("payload");

    QTest::newRow("*#KEY") << qsizetype{5};
    QTest::newRow("*#KEYpayload") << qsizetype{5};
    QTest::newRow("*#KEYKEY") << qsizetype{5};
    QTest::newRow("x#KEY") << qsizetype{5}; // the start character is not its business
    QTest::newRow("*@KEY") << qsizetype{-1};
    QTest::newRow("*?KEY") << qsizetype{-1};
    QTest::newRow("*>KEY") << qsizetype{-1};
    QTest::newRow("*#") << qsizetype{-1};
    QTest::newRow("*#KE") << qsizetype{-1};
    QTest::newRow("*#key") << qsizetype{-1};
    QTest::newRow("*#xKEY") << qsizetype{-1};
    QTest::newRow("*") << qsizetype{-1};
    QTest::newRow("") << qsizetype{-1};
}

void ProtocolTest::aTransactionKnowsItsAnswer()
{
    const jvxb::Ask ask("KEY", nullptr, 1);
    QTEST(ask.checkResponse(QTest::currentDataTag()), "payload");
}

// ---- finding packets ----------------------------------------------------------------------------------------------

// The hardware answer bears the address words 0xFFFFFFFF and 0xDEADBEEF, the others 1 and 0.
void ProtocolTest::addressWordsAreIgnored()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, QByteArrayList{hardware_result});
}

void ProtocolTest::aPacketMayBeSplitAnywhere_data()
{
    QTest::addColumn<qsizetype>("position");

    for (qsizetype position = 1; position < packets::software_answer.size(); ++position)
        QTest::addRow("before byte %d", static_cast<int>(position)) << position;
}

void ProtocolTest::aPacketMayBeSplitAnywhere()
{
    QFETCH(qsizetype, position);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer.first(position));
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer.sliced(position));
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::aPacketMayComeByteByByte()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliverInPieces(packets::software_answer.chopped(1), 1);
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer.last(1));
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::aPacketIsFoundBehind_data()
{
    QTest::addColumn<QByteArray>("garbage");

    QTest::newRow("one zero byte") << QByteArray(1, '\0');
    QTest::newRow("15 bytes") << QByteArray(15, 'x');
    QTest::newRow("16 bytes") << QByteArray(16, 'x');
    QTest::newRow("100000 bytes") << QByteArray(100'000, 'x');
    QTest::newRow("@") << QByteArray("@");
    QTest::newRow("@J") << QByteArray("@J");
    QTest::newRow("@JV") << QByteArray("@JV");
    QTest::newRow("@JVX") << QByteArray("@JVX");
    QTest::newRow("@JVX twice") << QByteArray("@JVX@JVX");
    QTest::newRow("magic in lower case") << QByteArray("@jvx");
    QTest::newRow("@ twelve times") << QByteArray(12, '@');
    QTest::newRow("a header with a wrong checksum")
        << packets::withWrongHeaderSum(packets::packet("*#V:A")).first(header_size);
    QTest::newRow("a packet with a wrong header checksum") << packets::withWrongHeaderSum(packets::packet("*#V:A"));
    QTest::newRow("a packet with a wrong body checksum") << packets::withWrongBodySum("*#V:A");
    QTest::newRow("a packet with another start character") << packets::packet("+#V:A");
    QTest::newRow("a message of two bytes and a zero") << packets::packet(QByteArray("*>\0", 3));
}

void ProtocolTest::aPacketIsFoundBehind()
{
    QFETCH(QByteArray, garbage);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(garbage + packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::aCutMagicAtTheEndOfSixteenBytesIsLost_data()
{
    QTest::addColumn<qsizetype>("cut");

    for (const int cut : {1, 2, 3})
        QTest::addRow("%d", cut) << qsizetype{cut};
}

void ProtocolTest::aCutMagicAtTheEndOfSixteenBytesIsLost()
{
    QFETCH(qsizetype, cut);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(QByteArray(header_size - cut, 'x') + packets::software_answer.first(cut));
    bench.port.deliver(packets::software_answer.sliced(cut));
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::fewerThanSixteenBytesWait_data()
{
    QTest::addColumn<QByteArray>("before");

    QTest::newRow("15 bytes of the packet") << QByteArray();
    QTest::newRow("one byte and 14 of the packet") << QByteArray("x");
    QTest::newRow("14 bytes and the first of the packet") << QByteArray(14, 'x');
    QTest::newRow("12 bytes and 3 of the packet") << QByteArray(12, 'x');
}

void ProtocolTest::fewerThanSixteenBytesWait()
{
    QFETCH(QByteArray, before);
    const qsizetype position = header_size - 1 - before.size();
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(before + packets::software_answer.first(position));
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer.sliced(position));
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

// Were more than the magic dropped, the packet that begins among the bytes of the broken header would be lost.
void ProtocolTest::aBrokenHeaderCostsOnlyItsMagic()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver("@JVX" + packets::software_answer.first(12));
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer.sliced(12));
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::aBodyBelowThreeBytesIsRefused_data()
{
    QTest::addColumn<qsizetype>("length");
    QTest::addColumn<QByteArrayList>("results");

    QTest::newRow("0 bytes") << qsizetype{0} << QByteArrayList{software_result};
    QTest::newRow("1 byte") << qsizetype{1} << QByteArrayList{software_result};
    QTest::newRow("2 bytes") << qsizetype{2} << QByteArrayList{software_result};
    QTest::newRow("3 bytes") << qsizetype{3} << QByteArrayList{};
}

// The answer begins among the bytes of the refused header, of which only the magic goes; an accepted one takes it
// along.
void ProtocolTest::aBodyBelowThreeBytesIsRefused()
{
    QFETCH(qsizetype, length);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver("@JVX" + withHeaderInFront(packets::software_answer, length));
    QTEST(bench.results, "results");
}

void ProtocolTest::packetsInsideABrokenBodyAreFound()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(
        packets::withWrongBodySum("*>LOG" + packets::logRecord("inner") + packets::software_answer + "tail"));
    QCOMPARE(bench.results, QByteArrayList{software_result});
    QCOMPARE(bench.logs, QByteArrayList{"inner"});
}

void ProtocolTest::theGreatestBodyIsAwaited()
{
    const QByteArray text(65535 - packets::logBody({}).size(), 'x');
    const QByteArray packet = packets::logRecord(text);
    QCOMPARE(packet.size(), greatest_packet);
    ProtocolBench bench;
    bench.port.deliver(packet.chopped(1));
    QCOMPARE(bench.logs, QByteArrayList{});
    bench.port.deliver(packet.last(1));
    QCOMPARE(bench.logs, QByteArrayList{text});
}

void ProtocolTest::aClaimOfTheGreatestBodyHidesWhatFollowsUntilItIsComplete()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::header(65535, '\x01') + packets::software_answer);
    bench.port.deliver(QByteArray(65535 - packets::software_answer.size() - 1, '\0'));
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(QByteArray(1, '\0'));
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::packetsBackToBackAreAllProcessed()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.protocol.readHardVersion();
    bench.port.deliver(packets::software_answer + packets::log_record + packets::hardware_answer);
    QCOMPARE(bench.results, (QByteArrayList{software_result, hardware_result}));
    QCOMPARE(bench.logs, QByteArrayList{"up"});
}

void ProtocolTest::packetsAmongGarbageAreAllProcessed()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.protocol.readSerialNumber();
    bench.port.deliver("ab@J" + packets::logRecord("1") + "@JV" + packets::software_answer + QByteArray(40, '@')
        + packets::logRecord("2") + "*#V:A" + packets::serial_number_answer + "@JVX" + packets::logRecord("3"));
    QCOMPARE(bench.results, (QByteArrayList{software_result, serial_number_result}));
    QCOMPARE(bench.logs, (QByteArrayList{"1", "2", "3"}));
}

void ProtocolTest::aBadLineIsReadAsTheRulesSay_data()
{
    QTest::addColumn<quint32>("seed");

    for (quint32 seed = 1; seed <= 20; ++seed)
        QTest::addRow("%u", seed) << seed;
}

void ProtocolTest::aBadLineIsReadAsTheRulesSay()
{
    QFETCH(quint32, seed);
    BadLine line(seed);
    SlowSearch model;
    ProtocolBench bench;
    for (int read = 0; read < 1000; ++read) {
        QByteArray bytes;
        for (int i = line.upTo(4); i > 0; --i)
            bytes.append(line.next());
        const QByteArray second = bytes.sliced(line.upTo(static_cast<int>(bytes.size())) - 1);
        for (const QByteArray &part : {bytes.chopped(second.size()), second}) {
            model.receive(part);
            bench.port.deliver(part);
        }
        QCOMPARE(bench.logs.size(), logTexts(model.bodies).size());
    }
    QCOMPARE(bench.logs, logTexts(model.bodies));
    QVERIFY(bench.logs.size() > 300); // or the line was so bad that it proves nothing
}

void ProtocolTest::nastyStreamsAreDigestedInLinearTime_data()
{
    QTest::addColumn<QByteArray>("unit");

    const QByteArray claim = packets::header(65535, '\x55');
    QTest::newRow("@") << QByteArray("@");
    QTest::newRow("@JVX") << QByteArray("@JVX");
    QTest::newRow("broken headers") << packets::withWrongHeaderSum(claim);
    QTest::newRow("headers that claim 65535 bytes") << claim;
    QTest::newRow("the same with a byte between") << claim + 'x';
    QTest::newRow("the same with a magic between") << claim + "@JVX";
    QTest::newRow("headers that claim 30000 bytes") << packets::header(30'000, '\x55');
    QTest::newRow("headers that claim 3 bytes") << packets::header(3, '\x55');
    QTest::newRow("broken packets of the greatest size, full of claims")
        << packets::withWrongBodySum(filledWith(claim, 65535));
    QTest::newRow("small packets") << packets::packet("*#V");
}

// Whatever the stream was, every claim in it is settled by as many bytes as the greatest packet has.
void ProtocolTest::nastyStreamsAreDigestedInLinearTime()
{
    QFETCH(QByteArray, unit);
    const QByteArray stream = filledWith(unit, 4 * mebibyte);
    ProtocolBench bench;
    QElapsedTimer timer;
    timer.start();
    bench.port.deliver(stream);
    bench.port.deliver(QByteArray(greatest_packet, '\0'));
    bench.port.deliver(packets::logRecord("still there"));
    QVERIFY2(timer.elapsed() < 5000, QByteArray::number(timer.elapsed()));
    QCOMPARE(bench.logs, QByteArrayList{"still there"});
}

void ProtocolTest::nastyStreamsMayComeByteByByte_data()
{
    nastyStreamsAreDigestedInLinearTime_data();
}

void ProtocolTest::nastyStreamsMayComeByteByByte()
{
    QFETCH(QByteArray, unit);
    const QByteArray stream = unit.repeated(64 * 1024 / unit.size() + 1).first(64 * 1024);
    ProtocolBench bench;
    QElapsedTimer timer;
    timer.start();
    bench.port.deliverInPieces(stream, 1);
    QVERIFY2(timer.elapsed() < 5000, QByteArray::number(timer.elapsed()));
    bench.port.deliver(QByteArray(greatest_packet, '\0'));
    bench.port.deliver(packets::logRecord("still there"));
    QCOMPARE(bench.logs, QByteArrayList{"still there"});
}

void ProtocolTest::closingThePortForgetsHalfAPacket()
{
    ProtocolBench bench;
    bench.port.deliver(packets::header(1000, '\0') + "half a body");
    bench.port.close();
    bench.port.openAgain();
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

// ---- matching answers ---------------------------------------------------------------------------------------------

void ProtocolTest::whatIsNoAnswerIsIgnored_data()
{
    QTest::addColumn<QByteArray>("body");

    for (const char *body : {"*?V:A", "*!V:A", "*@V:A", "*>V:A", "* V:A", "##V:A", "?#V:A", "@#V:A", "*#X:A", "*#v:A",
             "*#H:A", "*# V:A", "*#:V", "#V:A", "**#V:A", "*>LOG", "*@LOG1234"})
        QTest::newRow(body) << QByteArray(body);
}

void ProtocolTest::whatIsNoAnswerIsIgnored()
{
    QFETCH(QByteArray, body);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.pending().size(), 1);
    bench.port.deliver(packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::anAnswerWithoutARequestIsIgnored()
{
    ProtocolBench bench;
    bench.port.deliver(packets::software_answer + packets::mask_answer);
    QCOMPARE(bench.results, QByteArrayList{});
    bench.protocol.readSoftVersion(); // and it is not kept for later
    QCOMPARE(bench.results, QByteArrayList{});
}

void ProtocolTest::anAnswerIsTakenOnce()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    const QPointer<jvxb::Transaction> transaction(bench.pending().first());
    bench.port.deliver(packets::software_answer + packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
    QVERIFY(!transaction);
}

void ProtocolTest::requestsMayBeAnsweredInAnyOrder()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.protocol.logEnable(0x4000);
    bench.protocol.readHardVersion();
    bench.port.deliver(packets::hardware_answer + packets::software_answer);
    bench.port.deliver(packets::mask_answer);
    QCOMPARE(bench.results, (QByteArrayList{hardware_result, software_result, mask_result}));
    QCOMPARE(bench.pending().size(), 0);
}

void ProtocolTest::theOlderOfTwoEqualRequestsTakesTheAnswer()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.protocol.readSoftVersion();
    bench.protocol.readSoftVersion();
    const QPointer<jvxb::Transaction> older(bench.pending().at(1));
    const QPointer<jvxb::Transaction> younger(bench.pending().at(2));
    bench.port.deliver(packets::software_answer);
    QVERIFY(!older);
    QVERIFY(younger);
    bench.port.deliver(packets::software_answer);
    QVERIFY(!younger);
    QCOMPARE(bench.results, (QByteArrayList{software_result, software_result}));
}

void ProtocolTest::aLogRecordIsNoAnswer()
{
    ProtocolBench bench;
    bench.protocol.logEnable(0x4000);
    bench.port.deliver(packets::log_record);
    QCOMPARE(bench.logs, QByteArrayList{"up"});
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::mask_answer);
    QCOMPARE(bench.results, QByteArrayList{mask_result});
    QCOMPARE(bench.logs.size(), 1);
}

void ProtocolTest::aMessageIsNeverAnAnswer()
{
    ProtocolBench bench;
    const QPointer<jvxb::Transaction> transaction(new jvxb::Transaction('?', '>', "KEY", &bench.protocol, 60'000));
    bench.protocol.begin(transaction);
    bench.port.deliver(packets::packet("*>KEY") + packets::log_record);
    QVERIFY(transaction);
    QCOMPARE(bench.logs, QByteArrayList{"up"});
}

// A record cannot come inside another packet: the bytes of both then belong to the answer's body, whose checksum fails,
// and the record is found in it. Between two answers, cut anywhere, it changes nothing.
void ProtocolTest::aLogRecordMayComeBetweenTheHalvesOfAnAnswer()
{
    const QByteArray stream = packets::log_record + packets::software_answer + packets::log_record;
    for (qsizetype position = 1; position < stream.size(); ++position) {
        ProtocolBench bench;
        bench.protocol.readSoftVersion();
        bench.port.deliver(stream.first(position));
        bench.port.deliver(stream.sliced(position));
        QCOMPARE(bench.results, QByteArrayList{software_result});
        QCOMPARE(bench.logs, (QByteArrayList{"up", "up"}));
    }

    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer.first(20));
    bench.port.deliver(packets::log_record);
    bench.port.deliver(packets::software_answer.sliced(20));
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.logs, QByteArrayList{"up"});
}

void ProtocolTest::anAnswerToAnUnknownKeyEndsItsTransactionSilently()
{
    ProtocolBench bench;
    const QPointer<jvxb::Transaction> transaction(new jvxb::Ask("KEY", &bench.protocol, 60'000));
    bench.protocol.begin(transaction);
    bench.port.deliver(packets::packet("*#KEY1"));
    QVERIFY(!transaction);
    QCOMPARE(bench.results, QByteArrayList{});
}

void ProtocolTest::aResultMaySendTheNextRequest()
{
    ProtocolBench bench;
    connect(&bench.protocol, &jvxb::Protocol::softVersionReaded, &bench.protocol, &jvxb::Protocol::readHardVersion);
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer + packets::hardware_answer);
    QCOMPARE(bench.results, (QByteArrayList{software_result, hardware_result}));
    QCOMPARE(bench.port.written().size(), 2);
    QCOMPARE(bench.pending().size(), 0);
}

void ProtocolTest::aResultMaySendManyRequests()
{
    constexpr int count = 300;
    ProtocolBench bench;
    connect(&bench.protocol, &jvxb::Protocol::softVersionReaded, &bench.port, [&bench] {
        for (int i = 0; i < count; ++i)
            bench.protocol.readSerialNumber();
    });
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer + packets::serial_number_answer.repeated(count));
    QCOMPARE(bench.results, QByteArrayList{software_result} + QByteArrayList(count, serial_number_result));
    QCOMPARE(bench.pending().size(), 0);
}

void ProtocolTest::anAnswerMayArriveWhileAResultIsReported()
{
    ProtocolBench bench;
    connect(&bench.protocol, &jvxb::Protocol::softVersionReaded, &bench.port, [&bench] {
        bench.protocol.readHardVersion();
        bench.port.deliver(packets::hardware_answer);
    });
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::software_answer + packets::logRecord("behind"));
    QCOMPARE(bench.results, (QByteArrayList{software_result, hardware_result}));
    QCOMPARE(bench.logs, QByteArrayList{"behind"});
    QCOMPARE(bench.pending().size(), 0);
}

// ---- time-outs ----------------------------------------------------------------------------------------------------

void ProtocolTest::aSilentTerminalIsReportedInTime_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<int>("milliseconds");

    for (const KnownRequest &request : known_requests) {
        const bool writes = QByteArray(request.name) == "write file";
        QTest::newRow(request.name) << request.send << QByteArray(request.timeout) << (writes ? 5000 : 500);
    }
}

// Timers count whole milliseconds of a clock that this one does not share, hence the 1.
void ProtocolTest::aSilentTerminalIsReportedInTime()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, result);
    QFETCH(int, milliseconds);
    ProtocolBench bench;
    send(bench.protocol);
    const QPointer<jvxb::Transaction> transaction(bench.pending().first());
    QTRY_COMPARE_WITH_TIMEOUT(bench.results, QByteArrayList{result}, milliseconds + 3000);
    QVERIFY2(bench.lastResultAt() >= milliseconds - 1, QByteArray::number(bench.lastResultAt()));
    QVERIFY2(bench.lastResultAt() < milliseconds + 2000, QByteArray::number(bench.lastResultAt()));
    QVERIFY(!transaction);
}

void ProtocolTest::aTimeoutIsReportedOnce()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    QTest::qWait(1200);
    QCOMPARE(bench.results, QByteArrayList{R"(softVersionReaded -1 "" "" "" "")"});
    QCOMPARE(bench.port.written().size(), 1); // nor is the request sent again
}

void ProtocolTest::aLateAnswerIsIgnored()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    QTRY_COMPARE(bench.results.size(), 1);
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, QByteArrayList{"hardVesionReaded -1 0"});
}

void ProtocolTest::aTimedOutRequestMayBeRepeatedFromItsResult()
{
    ProtocolBench bench;
    connect(&bench.protocol, &jvxb::Protocol::hardVesionReaded, &bench.protocol, &jvxb::Protocol::readHardVersion,
        Qt::SingleShotConnection);
    bench.protocol.readHardVersion();
    QTRY_COMPARE(bench.results.size(), 1);
    QCOMPARE(bench.pending().size(), 1);
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, (QByteArrayList{"hardVesionReaded -1 0", hardware_result}));
}

void ProtocolTest::anAnsweredRequestDoesNotTimeOut()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.port.deliver(packets::hardware_answer);
    QTest::qWait(700);
    QCOMPARE(bench.results, QByteArrayList{hardware_result});
}

void ProtocolTest::oneTimeoutLeavesTheOthersAlone()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    const QPointer<jvxb::Transaction> other(new jvxb::Ask("H", &bench.protocol, 60'000));
    bench.protocol.begin(other);
    QTRY_COMPARE(bench.results.size(), 1);
    QVERIFY(other);
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.lastResult(), hardware_result);
}

void ProtocolTest::aTransactionOfAnUnknownKeyTimesOutSilently()
{
    ProtocolBench bench;
    const QPointer<jvxb::Transaction> transaction(new jvxb::Ask("KEY", &bench.protocol, 20));
    bench.protocol.begin(transaction);
    QTRY_VERIFY(!transaction);
    QCOMPARE(bench.results, QByteArrayList{});
}

void ProtocolTest::aTimeoutOfNoTransactionChangesNothing()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    QVERIFY(QMetaObject::invokeMethod(&bench.protocol, "onTimeout"));
    QCOMPARE(bench.results, QByteArrayList());
    QCOMPARE(bench.pending().size(), 1);
}

void ProtocolTest::sendingAgainBeginsTheTimeAnew()
{
    ProtocolBench bench;
    auto *const transaction = new jvxb::Ask("H", &bench.protocol, 500);
    bench.protocol.begin(transaction);
    QTest::qWait(300);
    QCOMPARE(bench.results, QByteArrayList{});
    const qint64 sent_again = bench.now();
    transaction->setPayload("more");
    bench.protocol.continuE(transaction);
    QTRY_COMPARE(bench.results, QByteArrayList{"hardVesionReaded -1 0"});
    QVERIFY2(bench.lastResultAt() - sent_again >= 499, QByteArray::number(bench.lastResultAt() - sent_again));
    QCOMPARE(bench.port.written().size(), 2);
    QCOMPARE(bench.port.lastWritten().sliced(header_size), QByteArray("*?Hmore"));
}

void ProtocolTest::sendingAgainKeepsThePlaceInTheQueue()
{
    ProtocolBench bench;
    const QPointer<jvxb::Transaction> older(new jvxb::Ask("H", &bench.protocol, 60'000));
    const QPointer<jvxb::Transaction> younger(new jvxb::Ask("H", &bench.protocol, 60'000));
    bench.protocol.begin(older);
    bench.protocol.begin(younger);
    bench.protocol.continuE(older);
    bench.port.deliver(packets::hardware_answer);
    QVERIFY(!older);
    QVERIFY(younger);
}

void ProtocolTest::endDeletesATransactionOutsideTheQueue()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    const QPointer<jvxb::Transaction> stranger(new jvxb::Ask("H", &bench.protocol, 500));
    bench.protocol.end(stranger);
    QVERIFY(!stranger);
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, QByteArrayList{hardware_result});
}

void ProtocolTest::endTakesATransactionFromTheQueue()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.protocol.readSoftVersion();
    bench.protocol.end(bench.pending().first());
    bench.port.deliver(packets::hardware_answer + packets::software_answer);
    QTest::qWait(600);
    QCOMPARE(bench.results, QByteArrayList{software_result});
}

void ProtocolTest::pendingTransactionsDieWithTheirProtocol()
{
    PortDouble port;
    QPointer<jvxb::Transaction> transaction;
    {
        jvxb::Protocol protocol(&port, nullptr);
        protocol.readSoftVersion();
        transaction = protocol.findChild<jvxb::Transaction *>();
        QVERIFY(transaction);
    }
    QVERIFY(!transaction);
    port.deliver(packets::software_answer);
}

// ---- errors -------------------------------------------------------------------------------------------------------

void ProtocolTest::aPortErrorIsReportedWithItsText()
{
    ProtocolBench bench;
    bench.port.fail(QSerialPort::ResourceError, QStringLiteral("The terminal was unplugged"));
    bench.port.fail(QSerialPort::ReadError, QStringLiteral("gone"));
    QCOMPARE(bench.results, (QByteArrayList{R"(errorOccured "The terminal was unplugged")", R"(errorOccured "gone")"}));
}

void ProtocolTest::noErrorOfThePortIsNotReported()
{
    ProtocolBench bench;
    bench.port.fail(QSerialPort::NoError, QStringLiteral("No error"));
    QCOMPARE(bench.results, QByteArrayList{});
}

void ProtocolTest::aPortErrorEndsNoRequest()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.protocol.readSoftVersion();
    bench.port.fail(QSerialPort::WriteError, QStringLiteral("broken"));
    QCOMPARE(bench.pending().size(), 2);
    bench.port.deliver(packets::hardware_answer);
    QTRY_COMPARE(bench.results,
        (QByteArrayList{R"(errorOccured "broken")", hardware_result, R"(softVersionReaded -1 "" "" "" "")"}));
    QVERIFY(bench.lastResultAt() >= 499);
}

void ProtocolTest::anErrorHasATextAndAConsoleForm_data()
{
    QTest::addColumn<int>("value");

    QTest::newRow("None(0)") << 0;
    QTest::newRow("Timeout(-1)") << -1;
    QTest::newRow("Unknown response(-2)") << -2;
    QTest::newRow("Unknown(-3)") << -3;
    QTest::newRow("Unknown(-4)") << -4;
    QTest::newRow("Unknown(-7)") << -7;
    QTest::newRow("Unknown(-128)") << -128;
    QTest::newRow("1") << 1;
    QTest::newRow("48") << 48;
    QTest::newRow("127") << 127;
}

void ProtocolTest::anErrorHasATextAndAConsoleForm()
{
    QFETCH(int, value);
    const auto error = static_cast<jvxb::Error>(value);
    const QByteArray form = QTest::currentDataTag();
    if (value <= 0)
        QCOMPARE(QByteArray(jvxb::errorText(error)), form.first(form.indexOf('(')));

    StdOutput output(false);
    QByteArray written;
    {
        const OutputCapture capture;
        output << error;
        written = capture.text();
    }
    QCOMPARE(written, form);
}

QTEST_GUILESS_MAIN(ProtocolTest)

#include "tst_protocol.moc"
