#include "faults.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <bit>

using namespace std::chrono_literals;

namespace {

constexpr int patience = 5000; // ms
constexpr qsizetype header_size = 16;
const QByteArray magic("@JVX");

// Not a correct packet, but the line only looks at where the body begins.
const QByteArray packet("@JVX header body");
const QByteArray header("@JVX----------HB");
const QByteArray body = QByteArray(100, 'a') + QByteArray(100, 'b');
const QByteArray answer = header + body;

/// A line and what came out of it.
struct Bench {
    explicit Bench(const FaultSettings &settings)
        : line(settings)
        , sent(&line, &FaultyLine::sent)
        , became_idle(&line, &FaultyLine::becameIdle)
    {
    }

    [[nodiscard]] QByteArrayList pieces() const
    {
        QByteArrayList list;
        for (const QList<QVariant> &arguments : sent)
            list.append(arguments.first().toByteArray());
        return list;
    }

    FaultyLine line;
    QSignalSpy sent;
    QSignalSpy became_idle;
};

/// What a line with \a settings makes of the same answer sent again and again.
QByteArrayList sentAnswers(const FaultSettings &settings, int count)
{
    Bench bench(settings);
    for (int i = 0; i < count; ++i)
        bench.line.sendAnswer(answer);
    return bench.pieces();
}

/// Tells answers apart.
QByteArray tag(int number)
{
    return '<' + QByteArray::number(number) + '>';
}

int wrongBits(QByteArrayView one, QByteArrayView other)
{
    int bits = 0;
    for (qsizetype i = 0; i < one.size(); ++i)
        bits += std::popcount(static_cast<quint8>(one[i] ^ other[i]));
    return bits;
}

} // namespace

class SimulatorFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aGoodLinePassesEverythingOnAtOnce();
    void oneInNAnswersIsLostOrDoubled_data();
    void oneInNAnswersIsLostOrDoubled();
    void messagesAreNeverLostOrDoubled();
    void theSeedDecides();
    void anAnswerComesAfterItsLatency();
    void aLateAnswerIsOvertaken();
    void anAnswerIsWrittenInPieces_data();
    void anAnswerIsWrittenInPieces();
    void aMessageNeverSplitsAnAnswer();
    void garbageComesBeforeEveryPacket();
    void damageIsOneBit_data();
    void damageIsOneBit();
    void faultsShowAllTogether();
};

void SimulatorFaultsTest::aGoodLinePassesEverythingOnAtOnce()
{
    Bench bench({});
    bench.line.sendAnswer(answer);
    bench.line.sendMessage(packet);
    QCOMPARE(bench.pieces(), (QByteArrayList{answer, packet}));
    QVERIFY(bench.line.isIdle());
}

void SimulatorFaultsTest::oneInNAnswersIsLostOrDoubled_data()
{
    QTest::addColumn<int>("lost");
    QTest::addColumn<int>("duplicated");
    QTest::addColumn<int>("least");
    QTest::addColumn<int>("most");
    QTest::newRow("all lost") << 1 << 0 << 0 << 0;
    QTest::newRow("one in four lost") << 4 << 0 << 2850 << 3150;
    QTest::newRow("all doubled") << 0 << 1 << 8000 << 8000;
    QTest::newRow("one in four doubled") << 0 << 4 << 4850 << 5150;
}

void SimulatorFaultsTest::oneInNAnswersIsLostOrDoubled()
{
    QFETCH(const int, lost);
    QFETCH(const int, duplicated);
    QFETCH(const int, least);
    QFETCH(const int, most);
    FaultSettings settings;
    settings.lost = lost;
    settings.duplicated = duplicated;
    const QByteArrayList sent = sentAnswers(settings, 4000);
    QVERIFY2(least <= sent.size() && sent.size() <= most, qPrintable(QString::number(sent.size())));
    QCOMPARE(sent.count(answer), sent.size());
}

void SimulatorFaultsTest::messagesAreNeverLostOrDoubled()
{
    FaultSettings settings;
    settings.lost = 1;
    settings.duplicated = 1;
    settings.latency = 1h;
    settings.split_size = 1;
    Bench bench(settings);
    bench.line.sendMessage(packet);
    QCOMPARE(bench.pieces(), QByteArrayList{packet});
}

void SimulatorFaultsTest::theSeedDecides()
{
    FaultSettings settings;
    settings.seed = 7;
    settings.lost = 3;
    settings.garbage = 10;
    settings.damaged_bodies = 2;
    const QByteArrayList sent = sentAnswers(settings, 100);
    QCOMPARE(sentAnswers(settings, 100), sent);
    settings.seed = 8;
    QVERIFY(sentAnswers(settings, 100) != sent);
}

void SimulatorFaultsTest::anAnswerComesAfterItsLatency()
{
    FaultSettings settings;
    settings.latency = 50ms;
    Bench bench(settings);
    QElapsedTimer timer;
    timer.start();
    bench.line.sendAnswer(answer);
    bench.line.sendMessage(packet);
    QCOMPARE(bench.pieces(), QByteArrayList{packet});
    QVERIFY(!bench.line.isIdle());
    QCOMPARE(bench.became_idle.count(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(bench.became_idle.count(), 1, patience);
    QVERIFY(timer.elapsed() >= 49);
    QCOMPARE(bench.pieces(), (QByteArrayList{packet, answer}));
}

void SimulatorFaultsTest::aLateAnswerIsOvertaken()
{
    FaultSettings settings;
    settings.late = 2;
    settings.lateness = 20ms;
    Bench bench(settings);
    QByteArrayList numbers;
    for (int i = 0; i < 50; ++i) {
        numbers.append(QByteArray::number(i));
        bench.line.sendAnswer(numbers.last());
    }
    QTRY_COMPARE_WITH_TIMEOUT(bench.sent.count(), 50, patience);
    QByteArrayList sent = bench.pieces();
    QVERIFY(sent != numbers);
    std::sort(sent.begin(), sent.end());
    std::sort(numbers.begin(), numbers.end());
    QCOMPARE(sent, numbers);
}

void SimulatorFaultsTest::anAnswerIsWrittenInPieces_data()
{
    QTest::addColumn<int>("size"); // 0: at random
    QTest::addColumn<int>("least");
    QTest::addColumn<int>("most");
    QTest::newRow("every byte") << 1 << 216 << 216;
    QTest::newRow("100 bytes") << 100 << 3 << 3;
    QTest::newRow("more bytes than there are") << 217 << 1 << 1;
    QTest::newRow("at random") << 0 << 4 << 100;
}

void SimulatorFaultsTest::anAnswerIsWrittenInPieces()
{
    QFETCH(const int, size);
    QFETCH(const int, least);
    QFETCH(const int, most);
    FaultSettings settings;
    settings.split_size = size;
    settings.splits_at_random = size == 0;
    Bench bench(settings);
    bench.line.sendAnswer(answer);
    QTRY_VERIFY_WITH_TIMEOUT(bench.line.isIdle(), patience);
    const QByteArrayList pieces = bench.pieces();
    QVERIFY(least <= pieces.size() && pieces.size() <= most);
    QCOMPARE(pieces.join(), answer);
    QCOMPARE(bench.became_idle.count(), 1);
}

void SimulatorFaultsTest::aMessageNeverSplitsAnAnswer()
{
    FaultSettings settings;
    settings.split_size = 10;
    Bench bench(settings);
    bench.line.sendAnswer(answer);
    QVERIFY(bench.line.isWriting());
    bench.line.sendMessage(packet);
    QTRY_VERIFY_WITH_TIMEOUT(bench.line.isIdle(), patience);
    QCOMPARE(bench.pieces().join(), answer + packet);
}

void SimulatorFaultsTest::garbageComesBeforeEveryPacket()
{
    FaultSettings settings;
    settings.garbage = 6;
    bool has_magic = false;
    for (const QByteArray &sent : sentAnswers(settings, 2000)) {
        QVERIFY(sent.endsWith(answer));
        const QByteArray garbage = sent.chopped(answer.size());
        QVERIFY(garbage.size() >= 1 && garbage.size() <= 6);
        has_magic = has_magic || garbage.contains(magic);
    }
    QVERIFY(has_magic);
}

void SimulatorFaultsTest::damageIsOneBit_data()
{
    QTest::addColumn<bool>("of_header");
    QTest::addColumn<bool>("of_answer");
    QTest::newRow("header of an answer") << true << true;
    QTest::newRow("body of an answer") << false << true;
    QTest::newRow("header of a message") << true << false;
    QTest::newRow("body of a message") << false << false;
}

void SimulatorFaultsTest::damageIsOneBit()
{
    QFETCH(const bool, of_header);
    QFETCH(const bool, of_answer);
    FaultSettings settings;
    (of_header ? settings.damaged_headers : settings.damaged_bodies) = 1;
    Bench bench(settings);
    for (int i = 0; i < 500; ++i)
        of_answer ? bench.line.sendAnswer(answer) : bench.line.sendMessage(answer);
    QCOMPARE(bench.sent.count(), 500);
    for (const QByteArray &sent : bench.pieces()) {
        QCOMPARE(sent.size(), answer.size());
        QCOMPARE(wrongBits(sent.first(header_size), header), of_header ? 1 : 0);
        QCOMPARE(wrongBits(sent.sliced(header_size), body), of_header ? 0 : 1);
    }
}

void SimulatorFaultsTest::faultsShowAllTogether()
{
    FaultSettings settings;
    settings.latency = 1ms;
    settings.splits_at_random = true;
    settings.garbage = 3;
    settings.damaged_headers = 3;
    settings.damaged_bodies = 3;
    settings.lost = 3;
    settings.duplicated = 3;
    settings.late = 3;
    settings.lateness = 5ms;
    Bench bench(settings);
    for (int number = 0; number < 50; ++number) {
        bench.line.sendAnswer(header + tag(number) + body);
        bench.line.sendMessage(QByteArray("x"));
    }
    QCOMPARE(bench.sent.count(), 50); // the messages; no answer comes at once
    QTRY_VERIFY_WITH_TIMEOUT(bench.line.isIdle(), 4 * patience);
    QVERIFY(!bench.pieces().contains(QByteArray("x"))); // there is garbage before each of them

    const QByteArray stream = bench.pieces().join();
    QList<qsizetype> places;
    qsizetype copies = 0;
    int doubled = 0;
    for (int number = 0; number < 50; ++number) {
        const qsizetype count = stream.count(tag(number));
        if (count > 0)
            places.append(stream.indexOf(tag(number)));
        copies += count;
        doubled += count == 2 ? 1 : 0;
    }
    // One in three on average; a wrong bit in a tag hides an answer now and then.
    QVERIFY2(places.size() > 20 && places.size() < 45, qPrintable(QString::number(places.size())));
    QVERIFY2(doubled >= 5, qPrintable(QString::number(doubled)));
    QVERIFY(!std::is_sorted(places.begin(), places.end()));
    QVERIFY(bench.sent.count() > 50 + copies);
    for (const QByteArray &part : {header, body}) {
        const qsizetype undamaged = stream.count(part);
        QVERIFY2(undamaged > 0 && undamaged < copies, qPrintable(QString::number(undamaged)));
    }
}

QTEST_GUILESS_MAIN(SimulatorFaultsTest)
#include "tst_simulator_faults.moc"
