#include "jvxb/framing.h"
#include "packets.h"
#include "slowsearch.h"
#include "support/sanitizers.h"

#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <ctime>
#include <functional>
#include <limits>

namespace {

constexpr qsizetype header_size = 16;
constexpr qsizetype greatest_body = 65535;
constexpr qsizetype greatest_packet = header_size + greatest_body;
constexpr qsizetype mebibyte = 1024 * 1024;

// The bodies of the packets in packets.h, as the expressions there have them.
const QByteArray software_body = "*#V:JVX:1.2:2024-05-06:en";
const QByteArray hardware_body = QByteArray("*#H:BHR:\x08\x07\x06\x05\x04\x03\x02\x01");
const QByteArray serial_number_body = "*#S:350000000000017";

/// A search for packets and all bodies that came out of it.
template <typename Search>
struct Collector {
    void receive(const QByteArray &bytes)
    {
        search.append(bytes);
        while (const std::optional<QByteArray> body = search.takeBody())
            bodies.append(*body);
    }

    void receiveInPieces(const QByteArray &bytes, qsizetype size)
    {
        for (qsizetype begin = 0; begin < bytes.size(); begin += size)
            receive(bytes.mid(begin, size));
    }

    Search search;
    QByteArrayList bodies;
};

using Receiver = Collector<jvxb::ReceiveBuffer>;

/// \a unit as often as it fits into \a size bytes.
QByteArray filledWith(const QByteArray &unit, qsizetype size)
{
    return unit.repeated(size / unit.size());
}

/// \a packet with other address words: a magic in front of it and its first 12 bytes make one more header with right
/// checksums, which claims a body of \a length bytes, at most 3.
QByteArray withHeaderInFront(QByteArray packet, qsizetype length)
{
    packet.replace(8, 2, packets::number(static_cast<quint64>(length), 2));
    packet[10] = packets::exclusiveOr(packet.sliced(12, length));
    packet[11] = packets::exclusiveOr("@JVX" + packet.first(11));
    packet[15] = packets::exclusiveOr(packet.first(15));
    return packet;
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

/// The least processor time that several runs of some work have taken: other programs' time is not counted, and the
/// least of several runs is little disturbed by what they do to the caches.
class LeastTime {
public:
    explicit LeastTime(std::function<void()> work)
        : _work(std::move(work))
    {
    }

    void runOnce()
    {
        const std::clock_t start = std::clock();
        _work();
        _clocks = std::min(_clocks, std::clock() - start);
    }

    [[nodiscard]] double milliseconds() const { return 1000.0 * static_cast<double>(_clocks) / CLOCKS_PER_SEC; }

private:
    std::function<void()> _work;
    std::clock_t _clocks = std::numeric_limits<std::clock_t>::max();
};

/// Empty if \a work takes at most \a factor times as long as \a reference, otherwise both times.
QByteArray excess(double factor, LeastTime work, LeastTime reference)
{
    constexpr int max_runs = 5;
    for (int run = 0; run < max_runs; ++run) {
        reference.runOnce();
        work.runOnce();
        if (run >= 2 && work.milliseconds() <= factor * reference.milliseconds())
            return {};
    }
    return QByteArray::number(work.milliseconds()) + " ms, against " + QByteArray::number(reference.milliseconds());
}

/// Receives \a stream in reads of \a read_size bytes, then the most bytes that a header may claim, then a packet.
void digest(const QByteArray &stream, qsizetype read_size)
{
    Receiver receiver;
    receiver.receiveInPieces(stream, read_size);
    receiver.receive(QByteArray(greatest_packet, '\0'));
    receiver.receive(packets::packet("*#still there"));
    QCOMPARE(receiver.bodies.value(receiver.bodies.size() - 1), QByteArray("*#still there"));
}

} // namespace

class FramingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aPacketIsAHeaderAndABody_data();
    void aPacketIsAHeaderAndABody();

    void aBodyIsTakenOutOfItsPacket_data();
    void aBodyIsTakenOutOfItsPacket();
    void bodiesAreTakenOneByOne();
    void aPacketMayBeSplitAnywhere_data();
    void aPacketMayBeSplitAnywhere();
    void aPacketMayComeByteByByte();
    void aPacketIsFoundBehind_data();
    void aPacketIsFoundBehind();
    void aCutMagicAtTheEndOfSixteenBytesIsLost_data();
    void aCutMagicAtTheEndOfSixteenBytesIsLost();
    void aCutMagicBehindABrokenHeaderWaits_data();
    void aCutMagicBehindABrokenHeaderWaits();
    void fewerThanSixteenBytesWait_data();
    void fewerThanSixteenBytesWait();
    void aBrokenHeaderCostsOnlyItsMagic();
    void anyFlippedBitBreaksAPacket();
    void aBodyBelowThreeBytesIsRefused_data();
    void aBodyBelowThreeBytesIsRefused();
    void packetsInsideABrokenBodyAreFound();
    void packetsInsideAGoodBodyAreNotFound();
    void theGreatestBodyIsAwaited();
    void aClaimOfTheGreatestBodyHidesWhatFollowsUntilItIsComplete();
    void packetsAmongGarbageAreAllFound();
    void whatWasClearedDoesNotComeBack();
    void aBadLineIsReadAsTheRulesSay_data();
    void aBadLineIsReadAsTheRulesSay();

    void nastyStreamsAreDigestedInLinearTime_data();
    void nastyStreamsAreDigestedInLinearTime();
    void nastyStreamsMayComeByteByByte_data();
    void nastyStreamsMayComeByteByByte();
    void everyHeaderOfTheWorstStreamIsPassedOverOnce();
    void skippedBytesAreReportedWithTheReason();
};

// ---- packets ------------------------------------------------------------------------------------------------------

// Written out by the expressions of packets.h; the longest are given by their first 16 bytes.
void FramingTest::aPacketIsAHeaderAndABody_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("header");

    QTest::newRow("no body") << QByteArray() << QByteArray::fromHex("404a5658000000000100000000000005");
    QTest::newRow("the software version request")
        << QByteArray("*?V") << QByteArray::fromHex("404a5658000000000100000003004345");
    QTest::newRow("one byte of 0xFF") << QByteArray(1, '\xFF')
                                      << QByteArray::fromHex("404a565800000000010000000100fffb");
    QTest::newRow("300 bytes of A, then a B")
        << QByteArray(300, 'A') + 'B' << QByteArray::fromHex("404a565800000000010000002d01426b");
    QTest::newRow("65535 bytes of A") << QByteArray(65535, 'A')
                                      << QByteArray::fromHex("404a56580000000001000000ffff4144");
    QTest::newRow("65540 bytes of A") << QByteArray(65540, 'A')
                                      << QByteArray::fromHex("404a5658000000000100000004000001");
}

void FramingTest::aPacketIsAHeaderAndABody()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, header);
    QCOMPARE(jvxb::packet(body), header + body);
}

// ---- finding packets ----------------------------------------------------------------------------------------------

// The hardware answer bears the address words 0xFFFFFFFF and 0xDEADBEEF, the others 1 and 0.
void FramingTest::aBodyIsTakenOutOfItsPacket_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("body");

    QTest::newRow("software answer") << packets::software_answer << software_body;
    QTest::newRow("hardware answer") << packets::hardware_answer << hardware_body;
    QTest::newRow("serial number answer") << packets::serial_number_answer << serial_number_body;
    QTest::newRow("mask answer") << packets::mask_answer << QByteArray("*@LOG\0\x40\0\0", 9);
    QTest::newRow("three zero bytes") << packets::packet(QByteArray(3, '\0')) << QByteArray(3, '\0');
    QTest::newRow("another start character") << packets::packet("+#V:A") << QByteArray("+#V:A");
}

void FramingTest::aBodyIsTakenOutOfItsPacket()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, body);
    Receiver receiver;
    receiver.receive(packet);
    QCOMPARE(receiver.bodies, QByteArrayList{body});
}

void FramingTest::bodiesAreTakenOneByOne()
{
    jvxb::ReceiveBuffer buffer;
    buffer.append(packets::software_answer + packets::hardware_answer + packets::software_answer.chopped(1));
    QCOMPARE(buffer.takeBody(), std::optional(software_body));
    QCOMPARE(buffer.takeBody(), std::optional(hardware_body));
    QCOMPARE(buffer.takeBody(), std::nullopt);
    buffer.append(packets::software_answer.last(1));
    QCOMPARE(buffer.takeBody(), std::optional(software_body));
    QCOMPARE(buffer.takeBody(), std::nullopt);
}

void FramingTest::aPacketMayBeSplitAnywhere_data()
{
    QTest::addColumn<qsizetype>("position");

    for (qsizetype position = 1; position < packets::software_answer.size(); ++position)
        QTest::addRow("before byte %d", static_cast<int>(position)) << position;
}

void FramingTest::aPacketMayBeSplitAnywhere()
{
    QFETCH(qsizetype, position);
    Receiver receiver;
    receiver.receive(packets::software_answer.first(position));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packets::software_answer.sliced(position));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::aPacketMayComeByteByByte()
{
    Receiver receiver;
    receiver.receiveInPieces(packets::software_answer.chopped(1), 1);
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packets::software_answer.last(1));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::aPacketIsFoundBehind_data()
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
}

void FramingTest::aPacketIsFoundBehind()
{
    QFETCH(QByteArray, garbage);
    Receiver receiver;
    receiver.receive(garbage + packets::software_answer);
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::aCutMagicAtTheEndOfSixteenBytesIsLost_data()
{
    QTest::addColumn<qsizetype>("cut");

    for (const int cut : {1, 2, 3})
        QTest::addRow("%d", cut) << qsizetype{cut};
}

void FramingTest::aCutMagicAtTheEndOfSixteenBytesIsLost()
{
    QFETCH(qsizetype, cut);
    Receiver receiver;
    receiver.receive(QByteArray(header_size - cut, 'x') + packets::software_answer.first(cut));
    receiver.receive(packets::software_answer.sliced(cut));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packets::hardware_answer);
    QCOMPARE(receiver.bodies, QByteArrayList{hardware_body});
}

void FramingTest::aCutMagicBehindABrokenHeaderWaits_data()
{
    aCutMagicAtTheEndOfSixteenBytesIsLost_data();
}

// Without its magic the header has 12 bytes, so that fewer than 16 are left.
void FramingTest::aCutMagicBehindABrokenHeaderWaits()
{
    QFETCH(qsizetype, cut);
    Receiver receiver;
    receiver.receive(packets::withWrongHeaderSum(packets::header(3, 'x')) + packets::software_answer.first(cut));
    receiver.receive(packets::software_answer.sliced(cut));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::fewerThanSixteenBytesWait_data()
{
    QTest::addColumn<QByteArray>("before");

    QTest::newRow("15 bytes of the packet") << QByteArray();
    QTest::newRow("one byte and 14 of the packet") << QByteArray("x");
    QTest::newRow("14 bytes and the first of the packet") << QByteArray(14, 'x');
    QTest::newRow("12 bytes and 3 of the packet") << QByteArray(12, 'x');
}

void FramingTest::fewerThanSixteenBytesWait()
{
    QFETCH(QByteArray, before);
    const qsizetype position = header_size - 1 - before.size();
    Receiver receiver;
    receiver.receive(before + packets::software_answer.first(position));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packets::software_answer.sliced(position));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

// Were more than the magic dropped, the packet that begins among the bytes of the broken header would be lost.
void FramingTest::aBrokenHeaderCostsOnlyItsMagic()
{
    Receiver receiver;
    receiver.receive("@JVX" + packets::software_answer.first(12));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packets::software_answer.sliced(12));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::anyFlippedBitBreaksAPacket()
{
    for (int bit = 0; bit < 8 * packets::software_answer.size(); ++bit) {
        QByteArray packet = packets::software_answer;
        packet[bit / 8] = static_cast<char>(packet[bit / 8] ^ 1 << bit % 8);
        Receiver receiver;
        receiver.receive(packet + packets::hardware_answer);
        QCOMPARE(receiver.bodies, QByteArrayList{hardware_body});
    }
}

void FramingTest::aBodyBelowThreeBytesIsRefused_data()
{
    QTest::addColumn<qsizetype>("length");
    QTest::addColumn<bool>("refused");

    QTest::newRow("0 bytes") << qsizetype{0} << true;
    QTest::newRow("1 byte") << qsizetype{1} << true;
    QTest::newRow("2 bytes") << qsizetype{2} << true;
    QTest::newRow("3 bytes") << qsizetype{3} << false;
}

// The answer begins among the bytes of the header in front. If that is refused, only its magic is dropped, and the
// answer is found; if it is accepted, the answer is lost: three bytes of its header are taken as the body.
void FramingTest::aBodyBelowThreeBytesIsRefused()
{
    QFETCH(qsizetype, length);
    QFETCH(bool, refused);
    const QByteArray answer = withHeaderInFront(packets::software_answer, length);
    Receiver receiver;
    receiver.receive("@JVX" + answer);
    QCOMPARE(receiver.bodies, QByteArrayList{refused ? software_body : answer.sliced(12, length)});
}

void FramingTest::packetsInsideABrokenBodyAreFound()
{
    Receiver receiver;
    receiver.receive(packets::withWrongBodySum("*>LOG" + packets::hardware_answer + packets::software_answer + "tail"));
    QCOMPARE(receiver.bodies, (QByteArrayList{hardware_body, software_body}));
}

void FramingTest::packetsInsideAGoodBodyAreNotFound()
{
    const QByteArray body = "*>LOG" + packets::hardware_answer;
    Receiver receiver;
    receiver.receive(packets::packet(body) + packets::software_answer);
    QCOMPARE(receiver.bodies, (QByteArrayList{body, software_body}));
}

void FramingTest::theGreatestBodyIsAwaited()
{
    const QByteArray body(greatest_body, 'x');
    const QByteArray packet = packets::packet(body);
    QCOMPARE(packet.size(), greatest_packet);
    Receiver receiver;
    receiver.receive(packet.chopped(1));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(packet.last(1));
    QCOMPARE(receiver.bodies, QByteArrayList{body});
}

void FramingTest::aClaimOfTheGreatestBodyHidesWhatFollowsUntilItIsComplete()
{
    Receiver receiver;
    receiver.receive(packets::header(greatest_body, '\x01') + packets::software_answer);
    receiver.receive(QByteArray(greatest_body - packets::software_answer.size() - 1, '\0'));
    QCOMPARE(receiver.bodies, QByteArrayList{});
    receiver.receive(QByteArray(1, '\0'));
    QCOMPARE(receiver.bodies, QByteArrayList{software_body});
}

void FramingTest::packetsAmongGarbageAreAllFound()
{
    Receiver receiver;
    receiver.receive("ab@J" + packets::packet("*>1") + "@JV" + packets::software_answer + QByteArray(40, '@')
        + packets::packet("*>2") + "*#V:A" + packets::serial_number_answer + "@JVX" + packets::packet("*>3"));
    QCOMPARE(receiver.bodies, (QByteArrayList{"*>1", software_body, "*>2", serial_number_body, "*>3"}));
}

void FramingTest::whatWasClearedDoesNotComeBack()
{
    Receiver receiver;
    receiver.receive(packets::software_answer.chopped(1));
    receiver.search.clear();
    receiver.receive(packets::software_answer.last(1) + packets::hardware_answer);
    QCOMPARE(receiver.bodies, QByteArrayList{hardware_body});
}

void FramingTest::aBadLineIsReadAsTheRulesSay_data()
{
    QTest::addColumn<quint32>("seed");

    for (quint32 seed = 1; seed <= 20; ++seed)
        QTest::addRow("%u", seed) << seed;
}

void FramingTest::aBadLineIsReadAsTheRulesSay()
{
    QFETCH(quint32, seed);
    BadLine line(seed);
    Collector<SlowSearch> model;
    Receiver receiver;
    for (int read = 0; read < 1000; ++read) {
        QByteArray bytes;
        for (int i = line.upTo(4); i > 0; --i)
            bytes.append(line.next());
        const QByteArray second = bytes.sliced(line.upTo(static_cast<int>(bytes.size())) - 1);
        for (const QByteArray &part : {bytes.chopped(second.size()), second}) {
            model.receive(part);
            receiver.receive(part);
        }
        QCOMPARE(receiver.bodies.size(), model.bodies.size());
    }
    QCOMPARE(receiver.bodies, model.bodies);
    QVERIFY(receiver.bodies.size() > 300); // or the line was so bad that it proves nothing
}

// ---- work ---------------------------------------------------------------------------------------------------------

void FramingTest::nastyStreamsAreDigestedInLinearTime_data()
{
    QTest::addColumn<QByteArray>("unit");

    const QByteArray claim = packets::header(greatest_body, '\x55');
    QTest::newRow("@") << QByteArray("@");
    QTest::newRow("@JVX") << QByteArray("@JVX");
    QTest::newRow("broken headers") << packets::withWrongHeaderSum(claim);
    QTest::newRow("headers that claim 65535 bytes") << claim;
    QTest::newRow("the same with a byte between") << claim + 'x';
    QTest::newRow("the same with a magic between") << claim + "@JVX";
    QTest::newRow("headers that claim 30000 bytes") << packets::header(30'000, '\x55');
    QTest::newRow("headers that claim 3 bytes") << packets::header(3, '\x55');
    QTest::newRow("broken packets of the greatest size, full of claims")
        << packets::withWrongBodySum(filledWith(claim, greatest_body));
    QTest::newRow("small packets") << packets::packet("*#V");
}

// Eight times the bytes should take eight times as long; 24 times is allowed, quadratic work would take 64 times.
void FramingTest::nastyStreamsAreDigestedInLinearTime()
{
    if (is_sanitized)
        QSKIP("The sanitizer makes the times another ones.");
    QFETCH(QByteArray, unit);
    const QByteArray stream = filledWith(unit, mebibyte / 2);
    const QByteArray eighth = filledWith(unit, mebibyte / 16);
    const QByteArray times = excess(
        24, LeastTime([&] { digest(stream, stream.size()); }), LeastTime([&] { digest(eighth, eighth.size()); }));
    QVERIFY2(times.isEmpty(), times);
}

void FramingTest::nastyStreamsMayComeByteByByte_data()
{
    nastyStreamsAreDigestedInLinearTime_data();
}

void FramingTest::nastyStreamsMayComeByteByByte()
{
    if (is_sanitized)
        QSKIP("The sanitizer makes the times another ones.");
    QFETCH(QByteArray, unit);
    const QByteArray stream = unit.repeated(mebibyte / 8 / unit.size() + 1).first(mebibyte / 8);
    const QByteArray eighth = stream.first(stream.size() / 8);
    const QByteArray times = excess(24, LeastTime([&] { digest(stream, 1); }), LeastTime([&] { digest(eighth, 1); }));
    QVERIFY2(times.isEmpty(), times);
}

// Each of these headers claims as many bytes as it can, so each byte belongs to the claims of 4096 headers. A header is
// passed over once, as soon as the bytes that it claims have come.
void FramingTest::everyHeaderOfTheWorstStreamIsPassedOverOnce()
{
    constexpr qsizetype size = 16;
    const QByteArray stream = packets::header(greatest_body, '\x55').repeated(20'000);
    const qsizetype complete = (stream.size() - greatest_body) / size;
    qsizetype skips = 0;
    qsizetype others = 0;
    jvxb::ReceiveBuffer buffer([&](QByteArrayView skipped, const char *reason) {
        ++(skipped.size() == size && qstrcmp(reason, "body checksum") == 0 ? skips : others);
    });
    for (qsizetype position = 0; position < stream.size(); position += 1000) {
        buffer.append(QByteArrayView(stream).sliced(position, std::min<qsizetype>(1000, stream.size() - position)));
        QCOMPARE(buffer.takeBody(), std::nullopt);
    }
    QCOMPARE(skips, complete);
    QCOMPARE(others, 0);
    QCOMPARE(buffer.bytes().size(), stream.size() - complete * size);
}

void FramingTest::skippedBytesAreReportedWithTheReason()
{
    QByteArrayList reports;
    jvxb::ReceiveBuffer buffer(
        [&](QByteArrayView skipped, const char *reason) { reports += skipped.toByteArray().toHex() + ' ' + reason; });
    buffer.append("xyz" + packets::withWrongHeaderSum(packets::software_answer).first(16) + packets::header(2, 0)
        + packets::withWrongBodySum("*#S") + packets::hardware_answer + "left");
    QCOMPARE(buffer.takeBody(), std::optional(hardware_body));
    QCOMPARE(buffer.takeBody(), std::nullopt);
    QCOMPARE(reports.size(), 7);
    QCOMPARE(reports.at(0), QByteArray("78797a no magic"));
    QCOMPARE(reports.at(1), QByteArray("404a5658 header checksum"));
    QVERIFY(reports.at(2).endsWith(" no magic")); // the rest of that header
    QCOMPARE(reports.at(3), QByteArray("404a5658 body length"));
    QVERIFY(reports.at(4).endsWith(" no magic"));
    QVERIFY(reports.at(5).startsWith("404a5658") && reports.at(5).endsWith(" body checksum"));
    QCOMPARE(reports.at(6), QByteArray("2a2353 no magic"));
    QCOMPARE(buffer.bytes().toByteArray(), QByteArray("left"));
    buffer.clear();
    QVERIFY(buffer.bytes().isEmpty());
}

QTEST_GUILESS_MAIN(FramingTest)

#include "tst_framing.moc"
