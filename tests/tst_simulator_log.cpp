#include "logsource.h"

#include <QTest>

#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr quint32 no_log = 0;
constexpr quint32 log3 = 1U << 3;
constexpr quint32 log5 = 1U << 5;
constexpr quint32 texts = 1U << 14;
constexpr quint32 every_log = 0xFFFFFFFF;
constexpr quint32 start = 1700000000; // 0x6553F100

LogSettings atRate(std::chrono::nanoseconds period)
{
    LogSettings settings;
    settings.period = period;
    settings.start = start;
    return settings;
}

QByteArrayList records(LogSource &source, quint32 mask, int count)
{
    QByteArrayList list;
    for (int i = 0; i < count; ++i)
        list.append(source.next(mask).value_or(QByteArray("none")));
    return list;
}

} // namespace

class SimulatorLogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theBuiltInCycleIsLaidOutAsTheWireWants();
    void onlyLogsOfTheMaskAreSent_data();
    void onlyLogsOfTheMaskAreSent();
    void textsAreNumberedWithoutAGap();
    void sameSettingsGiveSameRecords();
    void linesOfAFileAreSentOnce();
    void theCountEndsTheLog();
    void timeAdvancesWithTheRate_data();
    void timeAdvancesWithTheRate();
};

void SimulatorLogTest::theBuiltInCycleIsLaidOutAsTheWireWants()
{
    // Written down by hand: log, seconds, milliseconds, type, data.
    LogSource source(atRate(500ms));
    QCOMPARE(records(source, every_log, 8),
        (QByteArrayList{
            QByteArray::fromHex("0e 00f15365 0000 01") + "#0 ignition on\r\n",
            QByteArray::fromHex("0e 00f15365 f401 02") + "#1 supply voltage 12.6 V",
            QByteArray::fromHex("03 01f15365 0000 07 01fe") + "@JVX",
            QByteArray::fromHex("0e 01f15365 f401 00") + QStringLiteral("#2 outside 21 °C, Größe € 5\n").toUtf8(),
            QByteArray::fromHex("0e 02f15365 0000 03"),
            QByteArray::fromHex("05 02f15365 f401 00"),
            QByteArray::fromHex("0e 02f15365 e803 ff") + "#4 clock carried over",
            QByteArray::fromHex("0e 03f15365 f401 0e") + "#5 @JVX in a text",
        }));
}

void SimulatorLogTest::onlyLogsOfTheMaskAreSent_data()
{
    QTest::addColumn<quint32>("mask");
    QTest::addColumn<QByteArray>("logs");
    QTest::newRow("none") << no_log << QByteArray();
    QTest::newRow("a log that is never written") << (1U << 4) << QByteArray();
    QTest::newRow("log 3") << log3 << QByteArray("\x03\x03\x03\x03\x03\x03\x03\x03");
    QTest::newRow("log 3 and 5") << (log3 | log5) << QByteArray("\x03\x05\x03\x05\x03\x05\x03\x05");
    QTest::newRow("texts") << texts << QByteArray("\x0E\x0E\x0E\x0E\x0E\x0E\x0E\x0E");
}

void SimulatorLogTest::onlyLogsOfTheMaskAreSent()
{
    QFETCH(const quint32, mask);
    QFETCH(const QByteArray, logs);
    LogSource source(atRate(1ms));
    QByteArray sent;
    for (int i = 0; i < 8; ++i) {
        if (const auto record = source.next(mask))
            sent.append(record->front());
    }
    QCOMPARE(sent, logs);
}

void SimulatorLogTest::textsAreNumberedWithoutAGap()
{
    LogSource source(atRate(1ms));
    int empty_texts = 0;
    for (int number = 0; number < 80; ++number) {
        const QByteArray text = source.next(texts).value().sliced(8);
        empty_texts += text.isEmpty() ? 1 : 0;
        QVERIFY(text.isEmpty() || text.startsWith('#' + QByteArray::number(number) + ' '));
    }
    QCOMPARE(empty_texts, 10);
}

void SimulatorLogTest::sameSettingsGiveSameRecords()
{
    LogSource one(atRate(7ms));
    LogSource other(atRate(7ms));
    const QByteArrayList sent = records(one, every_log, 200);
    QVERIFY(!sent.contains("none"));
    QCOMPARE(records(other, every_log, 200), sent);
}

void SimulatorLogTest::linesOfAFileAreSentOnce()
{
    LogSettings settings = atRate(1s);
    settings.texts = QByteArrayList{QByteArray("first"), QByteArray(), QByteArray("last\r")};
    LogSource source(settings);
    QCOMPARE(records(source, log3, 1), QByteArrayList{QByteArray("none")});
    QCOMPARE(records(source, texts, 4),
        (QByteArrayList{QByteArray::fromHex("0e 00f15365 0000 01") + "first",
            QByteArray::fromHex("0e 01f15365 0000 01"), QByteArray::fromHex("0e 02f15365 0000 01") + "last\r",
            QByteArray("none")}));
}

void SimulatorLogTest::theCountEndsTheLog()
{
    LogSettings settings = atRate(1ms);
    settings.count = 2;
    LogSource source(settings);
    QCOMPARE(records(source, no_log, 1), QByteArrayList{QByteArray("none")});
    QVERIFY(source.next(every_log));
    QVERIFY(source.next(every_log));
    QVERIFY(!source.next(every_log));
}

void SimulatorLogTest::timeAdvancesWithTheRate_data()
{
    QTest::addColumn<qint64>("period");     // ns
    QTest::addColumn<QByteArray>("second"); // the first bytes of the second record of log 3
    QTest::newRow("full speed") << qint64{0} << QByteArray::fromHex("03 00f15365 0100");
    QTest::newRow("3 a second") << qint64{333333333} << QByteArray::fromHex("03 00f15365 4d01");
    QTest::newRow("1 in 100 s") << qint64{100000000000} << QByteArray::fromHex("03 64f15365 0000");
}

void SimulatorLogTest::timeAdvancesWithTheRate()
{
    QFETCH(const qint64, period);
    QFETCH(const QByteArray, second);
    LogSource source(atRate(std::chrono::nanoseconds(period)));
    source.next(log3);
    QCOMPARE(source.next(log3).value().first(second.size()), second);
}

QTEST_GUILESS_MAIN(SimulatorLogTest)
#include "tst_simulator_log.moc"
