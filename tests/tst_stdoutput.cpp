#include "capture.h"
#include "stdoutput.h"

#include <QTest>

#include <limits>
#include <type_traits>

class StdOutputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aMessageEndsAsItsFlagSays_data();
    void aMessageEndsAsItsFlagSays();
    void aMessageEndsItsLineByDefault();
    void nothingIsFlushedBeforeTheEnd();
    void everyMessageIsFlushedOnItsOwn();
    void aTextIsWritten_data();
    void aTextIsWritten();
    void aTextIsConvertedToTheLocalEncoding_data();
    void aTextIsConvertedToTheLocalEncoding();
    void aCStringIsWrittenByteForByte_data();
    void aCStringIsWrittenByteForByte();
    void aNumberIsWrittenInDecimal_data();
    void aNumberIsWrittenInDecimal();
    void everyIntegerTypeIsANumber();
    void truthValuesAndCharactersAreRefused();
    void aNumberIgnoresTheFormatOfTheStream();
    void piecesFollowEachOtherInOrder();
    void anOperatorReturnsItsStream();
    void nothingGoesToStandardError();
    void aWriteErrorIsIgnored();
    void theDestructorLetsNoExceptionOut();
};

void StdOutputTest::aMessageEndsAsItsFlagSays_data()
{
    QTest::addColumn<bool>("new_line");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("true, text") << true << QStringLiteral("text") << QByteArrayLiteral("text\n");
    QTest::newRow("true, nothing") << true << QString() << QByteArrayLiteral("\n");
    QTest::newRow("true, line end") << true << QStringLiteral("text\n") << QByteArrayLiteral("text\n\n");
    QTest::newRow("false, text") << false << QStringLiteral("text") << QByteArrayLiteral("text");
    QTest::newRow("false, nothing") << false << QString() << QByteArrayLiteral("");
    QTest::newRow("false, line end") << false << QStringLiteral("text\n") << QByteArrayLiteral("text\n");
}

void StdOutputTest::aMessageEndsAsItsFlagSays()
{
    QFETCH(bool, new_line);
    QFETCH(QString, text);
    const Capture capture;
    {
        StdOutput output(new_line);
        if (!text.isNull())
            output << text;
    }
    QTEST(capture.written(), "written");
    QTEST(capture.flushed(), "written");
    QCOMPARE(capture.flushes(), 1);
}

void StdOutputTest::aMessageEndsItsLineByDefault()
{
    const Capture capture;
    StdOutput() << "text";
    QCOMPARE(capture.flushed(), QByteArrayLiteral("text\n"));
}

void StdOutputTest::nothingIsFlushedBeforeTheEnd()
{
    const Capture capture;
    StdOutput output(true);
    output << QStringLiteral("text\n") << "\n" << 1;
    QCOMPARE(capture.written(), QByteArrayLiteral("text\n\n1"));
    QCOMPARE(capture.flushes(), 0);
}

void StdOutputTest::everyMessageIsFlushedOnItsOwn()
{
    const Capture capture;
    StdOutput(true) << "one";
    QCOMPARE(capture.flushed(), QByteArrayLiteral("one\n"));
    StdOutput(false) << "two";
    QCOMPARE(capture.flushed(), QByteArrayLiteral("one\ntwo"));
    QCOMPARE(capture.flushes(), 2);
}

void StdOutputTest::aTextIsWritten_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("plain") << QStringLiteral("Checking device ...") << QByteArrayLiteral("Checking device ...");
    QTest::newRow("empty") << QStringLiteral("") << QByteArrayLiteral("");
    QTest::newRow("null") << QString() << QByteArrayLiteral("");
    QTest::newRow("blanks") << QStringLiteral("  two\t") << QByteArrayLiteral("  two\t");
    QTest::newRow("place markers") << QStringLiteral("%1 %2 %s %%") << QByteArrayLiteral("%1 %2 %s %%");
    QTest::newRow("quotes") << QStringLiteral("\"a\\b\"") << QByteArrayLiteral("\"a\\b\"");
    QTest::newRow("control characters") << QStringLiteral("\r\n\x1b[0m") << QByteArrayLiteral("\r\n\x1b[0m");
    QTest::newRow("zero character") << QStringLiteral("one\0two") << QByteArrayLiteral("one");
    QTest::newRow("zero character first") << QStringLiteral("\0two") << QByteArrayLiteral("");
    QTest::newRow("long") << QString(100000, QLatin1Char('x')) << QByteArray(100000, 'x');
}

void StdOutputTest::aTextIsWritten()
{
    QFETCH(QString, text);
    const Capture capture;
    StdOutput(false) << text;
    QTEST(capture.flushed(), "written");
}

// Where the tests run, the framework's local encoding is UTF-8, whatever the locale.
void StdOutputTest::aTextIsConvertedToTheLocalEncoding_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("Latin") << QStringLiteral("\u00e9\u00df") << QByteArrayLiteral("\xc3\xa9\xc3\x9f");
    QTest::newRow("Cyrillic") << QStringLiteral("\u041f\u043e\u0440\u0442")
                              << QByteArrayLiteral("\xd0\x9f\xd0\xbe\xd1\x80\xd1\x82");
    QTest::newRow("beyond 16 bits") << QStringLiteral("\U0001f69a") << QByteArrayLiteral("\xf0\x9f\x9a\x9a");
    QTest::newRow("half a surrogate pair")
        << QString(QChar(0xd83d)) + QStringLiteral("x") << QByteArrayLiteral("\xef\xbf\xbdx");
}

void StdOutputTest::aTextIsConvertedToTheLocalEncoding()
{
    QFETCH(QString, text);
    const Capture capture;
    StdOutput(false) << text;
    QTEST(capture.flushed(), "written");
}

void StdOutputTest::aCStringIsWrittenByteForByte_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("carriage return") << QByteArrayLiteral("\r");
    QTest::newRow("empty") << QByteArrayLiteral("");
    QTest::newRow("place markers") << QByteArrayLiteral("% completed (%1 %s");
    QTest::newRow("no UTF-8") << QByteArrayLiteral("\xff\x80\xc3");
    QTest::newRow("UTF-8") << QByteArrayLiteral("\xc3\xa9");
}

void StdOutputTest::aCStringIsWrittenByteForByte()
{
    QFETCH(QByteArray, text);
    const Capture capture;
    StdOutput(false) << text.constData();
    QCOMPARE(capture.flushed(), text);
}

void StdOutputTest::aNumberIsWrittenInDecimal_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QByteArray>("written");
    QTest::newRow("0") << 0 << QByteArrayLiteral("0");
    QTest::newRow("-1") << -1 << QByteArrayLiteral("-1");
    QTest::newRow("10") << 10 << QByteArrayLiteral("10");
    QTest::newRow("1000000") << 1000000 << QByteArrayLiteral("1000000");
    QTest::newRow("greatest") << std::numeric_limits<int>::max() << QByteArrayLiteral("2147483647");
    QTest::newRow("least") << std::numeric_limits<int>::min() << QByteArrayLiteral("-2147483648");
}

void StdOutputTest::aNumberIsWrittenInDecimal()
{
    QFETCH(int, number);
    const Capture capture;
    StdOutput(false) << number;
    QTEST(capture.flushed(), "written");
}

void StdOutputTest::everyIntegerTypeIsANumber()
{
    const Capture capture;
    StdOutput(false) << quint32{4000000000} << " " << quint64{18446744073709551615U} << " "
                     << std::numeric_limits<qint64>::min() << " " << short{-3} << " " << quint8{65} << " " << qint8{-1}
                     << " " << 1UL;
    QCOMPARE(capture.flushed(), QByteArray("4000000000 18446744073709551615 -9223372036854775808 -3 65 -1 1"));
}

template <typename T>
constexpr bool is_printed = requires(StdOutput &output, T value)
{
    output << value;
};

// It is not clear how they should be printed, so printing them does not compile.
void StdOutputTest::truthValuesAndCharactersAreRefused()
{
    QVERIFY(is_printed<int>);
    QVERIFY(!is_printed<bool>);
    QVERIFY(!is_printed<char>);
    QVERIFY(!is_printed<wchar_t>);
    QVERIFY(!is_printed<char8_t>);
    QVERIFY(!is_printed<char16_t>);
    QVERIFY(!is_printed<char32_t>);
}

void StdOutputTest::aNumberIgnoresTheFormatOfTheStream()
{
    const Capture capture;
    const std::ios_base::fmtflags format = std::cout.flags(std::ios_base::hex | std::ios_base::showpos);
    StdOutput(false) << 255;
    std::cout.flags(format);
    QCOMPARE(capture.flushed(), QByteArrayLiteral("255"));
}

void StdOutputTest::piecesFollowEachOtherInOrder()
{
    const Capture capture;
    StdOutput(true) << QStringLiteral("a") << 1 << "b" << QStringLiteral("c") << -2;
    QCOMPARE(capture.flushed(), QByteArrayLiteral("a1bc-2\n"));
}

void StdOutputTest::anOperatorReturnsItsStream()
{
    const Capture capture;
    StdOutput output;
    QCOMPARE(&(output << QStringLiteral("text")), &output);
    QCOMPARE(&(output << "text"), &output);
    QCOMPARE(&(output << 1), &output);
}

void StdOutputTest::nothingGoesToStandardError()
{
    const Capture error(std::cerr);
    const Capture log(std::clog);
    const Capture capture;
    StdOutput(true) << QStringLiteral("Error: ") << "Timeout(" << -1 << ")";
    QCOMPARE(capture.flushed(), QByteArrayLiteral("Error: Timeout(-1)\n"));
    QCOMPARE(error.written(), QByteArray());
    QCOMPARE(log.written(), QByteArray());
}

void StdOutputTest::aWriteErrorIsIgnored()
{
    const Capture capture;
    std::cout.setstate(std::ios_base::badbit);
    StdOutput(true) << QStringLiteral("lost");
    std::cout.clear();
    StdOutput(true) << QStringLiteral("kept");
    QCOMPARE(capture.flushed(), QByteArrayLiteral("kept\n"));
}

void StdOutputTest::theDestructorLetsNoExceptionOut()
{
    QVERIFY(std::is_nothrow_destructible_v<StdOutput>);
}

QTEST_GUILESS_MAIN(StdOutputTest)
#include "tst_stdoutput.moc"
