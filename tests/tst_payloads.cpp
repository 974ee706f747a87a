#include "jvxb/payloads.h"
#include "packets.h"

#include <QTest>

#include <ctime>

namespace {

/// The first 12 bytes of the answer to a read or a write. Python: struct.pack("<cBIIH", b"1", 3, 0xA1B2C3D4,
/// 0x01020304, 3).hex()
const QByteArray piece_answer = QByteArray::fromHex("3103d4c3b2a1040302010300");

/// struct.pack("<I", 0x11223344).hex()
const QByteArray full_size = QByteArray::fromHex("44332211");

/// \a answer with another \a status.
QByteArray withStatus(char status, QByteArray answer)
{
    answer[0] = status;
    return answer;
}

/// Whether \a answer is one that bears \a status and nothing else.
template <typename Answer>
bool isBareStatus(const std::optional<Answer> &answer, quint8 status)
{
    return answer && answer->status == status && !answer->isSuccess() && answer->file == File::Unknown;
}

} // namespace

class PayloadsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void aReadRequestIsLaidOut_data();
    void aReadRequestIsLaidOut();
    void aWriteRequestIsLaidOut_data();
    void aWriteRequestIsLaidOut();
    void aWriteRequestBringsOnePiece_data();
    void aWriteRequestBringsOnePiece();
    void anApplyRequestIsLaidOut_data();
    void anApplyRequestIsLaidOut();
    void aLogRequestIsItsMask_data();
    void aLogRequestIsItsMask();

    void aSoftwareAnswerIsUpToFourTexts_data();
    void aSoftwareAnswerIsUpToFourTexts();
    void aHardwareAnswerIsATaggedWord_data();
    void aHardwareAnswerIsATaggedWord();
    void aSerialNumberIsTheWholeText_data();
    void aSerialNumberIsTheWholeText();
    void anIdentificationAnswerBeginsWithAColon_data();
    void anIdentificationAnswerBeginsWithAColon();

    void aFileAnswerOfAnErrorIsItsStatus_data();
    void aFileAnswerOfAnErrorIsItsStatus();
    void aFileAnswerHasALeastSize_data();
    void aFileAnswerHasALeastSize();
    void aReadAnswerIsTakenApart();
    void aPieceIsThereOrNot_data();
    void aPieceIsThereOrNot();
    void aWriteAnswerIsTakenApart();
    void anApplyAnswerIsTakenApart();

    void aLogAnswerIsItsMask_data();
    void aLogAnswerIsItsMask();
    void aRecordIsTakenApart_data();
    void aRecordIsTakenApart();
    void aRecordsTimeIsLocal();
    void aShortRecordIsNone();
};

// A local time zone that no machine has by chance: five and a half hours ahead of UTC.
void PayloadsTest::initTestCase()
{
    qputenv("TZ", "<+0530>-05:30");
    tzset();
}

// ---- requests -----------------------------------------------------------------------------------------------------

// Python: struct.pack("<BIIH", file, handle, offset, 512).hex()
void PayloadsTest::aReadRequestIsLaidOut_data()
{
    QTest::addColumn<File>("file");
    QTest::addColumn<quint32>("handle");
    QTest::addColumn<quint32>("offset");
    QTest::addColumn<QByteArray>("payload");

    QTest::newRow("first") << File::RoadAccident << 0U << 0U << QByteArray::fromHex("0300000000000000000002");
    QTest::newRow("further") << File::Epo << 0xA1B2C3D4U << 0x01020304U
                             << QByteArray::fromHex("0ad4c3b2a1040302010002");
    QTest::newRow("greatest values") << File::Unknown << 0xFFFFFFFFU << 0xFFFFFFFFU
                                     << QByteArray::fromHex("ffffffffffffffffff0002");
}

void PayloadsTest::aReadRequestIsLaidOut()
{
    QFETCH(File, file);
    QFETCH(quint32, handle);
    QFETCH(quint32, offset);
    QTEST(jvxb::readFileRequest(file, handle, offset), "payload");
}

// Python: (struct.pack("<BIIHI", file, handle, offset, length, size) + piece).hex()
void PayloadsTest::aWriteRequestIsLaidOut_data()
{
    QTest::addColumn<File>("file");
    QTest::addColumn<quint32>("handle");
    QTest::addColumn<quint32>("offset");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("payload");

    QTest::newRow("all") << File::Firmware << 0U << 0U << QByteArray("abc")
                         << QByteArray::fromHex("010000000000000000030003000000616263");
    QTest::newRow("rest") << File::RoadAccident << 0xA1B2C3D4U << 1U << QByteArray("abc")
                          << QByteArray::fromHex("03d4c3b2a1010000000200030000006263");
    QTest::newRow("nothing is left") << File::RoadAccident << 7U << 3U << QByteArray("abc")
                                     << QByteArray::fromHex("030700000003000000000003000000");
    QTest::newRow("empty file") << File::RoadAccident << 0U << 0U << QByteArray("")
                                << QByteArray::fromHex("030000000000000000000000000000");
    QTest::newRow("null") << File::RoadAccident << 0U << 0U << QByteArray()
                          << QByteArray::fromHex("030000000000000000000000000000");
}

void PayloadsTest::aWriteRequestIsLaidOut()
{
    QFETCH(File, file);
    QFETCH(quint32, handle);
    QFETCH(quint32, offset);
    QFETCH(QByteArray, data);
    QTEST(jvxb::writeFileRequest(file, handle, offset, data), "payload");
}

// The fields are those of aWriteRequestIsLaidOut.
void PayloadsTest::aWriteRequestBringsOnePiece_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<quint32>("offset");
    QTest::addColumn<QByteArray>("fields");
    QTest::addColumn<qsizetype>("length");

    const auto row = [](const char *name, qsizetype size, quint32 offset, const char *fields, qsizetype length) {
        QTest::newRow(name) << size << offset << QByteArray::fromHex(fields) << length;
    };
    row("511 bytes", 511, 0, "030100000000000000ff01ff010000", 511);
    row("512 bytes", 512, 0, "030100000000000000000200020000", 512);
    row("first of 513 bytes", 513, 0, "030100000000000000000201020000", 512);
    row("last of 513 bytes", 513, 512, "030100000000020000010001020000", 1);
    row("amid 70000 bytes", 70'000, 66'000, "0301000000d0010100000270110100", 512);
}

void PayloadsTest::aWriteRequestBringsOnePiece()
{
    QFETCH(qsizetype, size);
    QFETCH(quint32, offset);
    QFETCH(QByteArray, fields);
    QFETCH(qsizetype, length);
    const QByteArray data = packets::fileData(size);
    QCOMPARE(jvxb::writeFileRequest(File::RoadAccident, 1, offset, data), fields + data.sliced(offset, length));
}

// Python: struct.pack("<BII", file, 0, checksum).hex()
void PayloadsTest::anApplyRequestIsLaidOut_data()
{
    QTest::addColumn<File>("file");
    QTest::addColumn<quint32>("checksum");
    QTest::addColumn<QByteArray>("payload");

    QTest::newRow("user firmware") << File::UserFirmware << 0xCBF43926U << QByteArray::fromHex("0b000000002639f4cb");
    QTest::newRow("all zero") << File::Settings << 0U << QByteArray(9, '\0');
}

void PayloadsTest::anApplyRequestIsLaidOut()
{
    QFETCH(File, file);
    QFETCH(quint32, checksum);
    QTEST(jvxb::applyFileRequest(file, checksum), "payload");
}

void PayloadsTest::aLogRequestIsItsMask_data()
{
    QTest::addColumn<quint32>("mask");
    QTest::addColumn<QByteArray>("payload");

    QTest::newRow("0") << 0U << QByteArray::fromHex("00000000");
    QTest::newRow("1") << 1U << QByteArray::fromHex("01000000");
    QTest::newRow("4000") << 0x4000U << QByteArray::fromHex("00400000");
    QTest::newRow("12345678") << 0x12345678U << QByteArray::fromHex("78563412");
    QTest::newRow("ffffffff") << 0xFFFFFFFFU << QByteArray::fromHex("ffffffff");
}

void PayloadsTest::aLogRequestIsItsMask()
{
    QFETCH(quint32, mask);
    QTEST(jvxb::logEnableRequest(mask), "payload");
}

// ---- identification answers ---------------------------------------------------------------------------------------

void PayloadsTest::aSoftwareAnswerIsUpToFourTexts_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QStringList>("texts");

    const auto row = [](const QByteArray &payload, const QStringList &texts) {
        QTest::newRow(payload.simplified()) << payload << texts;
    };
    const QString none;
    const auto text = [](const char *utf8) { return QString::fromUtf8(utf8); };
    row(":", {none, none, none, none});
    row("::", {none, none, none, none});
    row(":ABC", {text("ABC"), none, none, none});
    row(":A:", {text("A"), none, none, none});
    row(":A:B", {text("A"), text("B"), none, none});
    row(":A:B:C", {text("A"), text("B"), text("C"), none});
    row(":A:B:C:D", {text("A"), text("B"), text("C"), text("D")});
    row(":A:B:C:D:E", {text("A"), text("B"), text("C"), text("D")});
    row("::B::D", {none, text("B"), none, text("D")});
    row(":::::::", {none, none, none, none});
    row(": A : B \r\n", {text(" A "), text(" B \r\n"), none, none});
    row(":*#V:A:V:H", {text("*#V"), text("A"), text("V"), text("H")});
    row(":J\xC3\xBCrgen:1", {QStringLiteral("J\u00FCrgen"), text("1"), none, none});
}

void PayloadsTest::aSoftwareAnswerIsUpToFourTexts()
{
    QFETCH(QByteArray, payload);
    const auto answer = jvxb::SoftVersionAnswer::parse(payload);
    QVERIFY(answer);
    QTEST((QStringList{answer->name, answer->version, answer->date, answer->language}), "texts");
}

void PayloadsTest::aHardwareAnswerIsATaggedWord_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<quint64>("bhr");

    const QByteArray word = QByteArray::fromHex("0102030405060708");
    QTest::newRow(":BHR:word") << ":BHR:" + word << quint64{0x0807060504030201};
    QTest::newRow(":BHR:word and more") << ":BHR:" + word + "more" << quint64{0x0807060504030201};
    QTest::newRow(":BHR:1") << ":BHR:" + QByteArray::fromHex("0100000000000000") << quint64{1};
    QTest::newRow(":BHR:greatest") << ":BHR:" + QByteArray(8, '\xFF') << quint64{0xFFFFFFFFFFFFFFFF};
    QTest::newRow(":BHR:colons") << ":BHR:" + QByteArray(8, ':') << quint64{0x3A3A3A3A3A3A3A3A};
    QTest::newRow(":") << QByteArray(":") << quint64{0};
    QTest::newRow("::") << QByteArray("::") << quint64{0};
    QTest::newRow("::BHR:word") << "::BHR:" + word << quint64{0};
    QTest::newRow(":BHR") << QByteArray(":BHR") << quint64{0};
    QTest::newRow(":BHRword") << ":BHR" + word << quint64{0};
    QTest::newRow(":BHR:") << QByteArray(":BHR:") << quint64{0};
    QTest::newRow(":BHR:7 bytes") << ":BHR:" + word.first(7) << quint64{0};
    QTest::newRow(":XYZ:word") << ":XYZ:" + word << quint64{0};
    QTest::newRow(":bhr:word") << ":bhr:" + word << quint64{0};
    QTest::newRow(":BHRX:word") << ":BHRX:" + word << quint64{0};
    QTest::newRow(":BH:words") << ":BH:" + word + word << quint64{0};
    QTest::newRow(": BHR:word") << ": BHR:" + word << quint64{0};
}

void PayloadsTest::aHardwareAnswerIsATaggedWord()
{
    QFETCH(QByteArray, payload);
    const auto answer = jvxb::HardVersionAnswer::parse(payload);
    QVERIFY(answer);
    QTEST(answer->bhr, "bhr");
}

void PayloadsTest::aSerialNumberIsTheWholeText_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("sn");

    QTest::newRow("none") << QByteArray(":") << QString();
    QTest::newRow("15 digits") << QByteArray(":350000000000017") << QStringLiteral("350000000000017");
    QTest::newRow("colons") << QByteArray(":1:2:3") << QStringLiteral("1:2:3");
    QTest::newRow("blanks and a line end") << QByteArray(": 17 \r\n") << QStringLiteral(" 17 \r\n");
    QTest::newRow("5000 digits") << ':' + QByteArray(5000, '7') << QString(5000, QLatin1Char('7'));
}

void PayloadsTest::aSerialNumberIsTheWholeText()
{
    QFETCH(QByteArray, payload);
    const auto answer = jvxb::SerialNumberAnswer::parse(payload);
    QVERIFY(answer);
    QTEST(answer->sn, "sn");
}

void PayloadsTest::anIdentificationAnswerBeginsWithAColon_data()
{
    QTest::addColumn<QByteArray>("payload");

    QTest::newRow("null") << QByteArray();
    QTest::newRow("nothing") << QByteArray("");
    QTest::newRow("no colon") << QByteArray("A");
    QTest::newRow("a colon later") << QByteArray("A:B:C:D");
    QTest::newRow("a blank before the colon") << QByteArray(" :A");
    QTest::newRow("a tag without a colon") << QByteArray("BHR:12345678");
}

void PayloadsTest::anIdentificationAnswerBeginsWithAColon()
{
    QFETCH(QByteArray, payload);
    QVERIFY(!jvxb::SoftVersionAnswer::parse(payload));
    QVERIFY(!jvxb::HardVersionAnswer::parse(payload));
    QVERIFY(!jvxb::SerialNumberAnswer::parse(payload));
}

// ---- file answers -------------------------------------------------------------------------------------------------

void PayloadsTest::aFileAnswerOfAnErrorIsItsStatus_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("status");

    QTest::newRow("0") << QByteArray(1, '\0') << 0;
    QTest::newRow("1") << QByteArray("\x01") << 1;
    QTest::newRow("the digit 0") << QByteArray("0") << 0x30;
    QTest::newRow("the digit 2, then a kind") << QByteArray("2\x03") << 0x32;
    QTest::newRow("127") << QByteArray("\x7F") << 127;
    QTest::newRow("128") << QByteArray("\x80") << 128;
    QTest::newRow("255") << QByteArray("\xFF") << 255;
    QTest::newRow("254, whole answer") << withStatus('\xFE', piece_answer + full_size + "abc") << 254;
}

void PayloadsTest::aFileAnswerOfAnErrorIsItsStatus()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, status);
    QVERIFY(isBareStatus(jvxb::ReadFileAnswer::parse(payload), static_cast<quint8>(status)));
    QVERIFY(isBareStatus(jvxb::WriteFileAnswer::parse(payload), static_cast<quint8>(status)));
    QVERIFY(isBareStatus(jvxb::ApplyFileAnswer::parse(payload), static_cast<quint8>(status)));
    QCOMPARE(jvxb::ReadFileAnswer::parse(payload)->piece, std::nullopt);
}

void PayloadsTest::aFileAnswerHasALeastSize_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<bool>("piece");
    QTest::addColumn<bool>("apply");

    QTest::newRow("0") << qsizetype{0} << false << false;
    QTest::newRow("1") << qsizetype{1} << false << false;
    QTest::newRow("2") << qsizetype{2} << false << false;
    QTest::newRow("5") << qsizetype{5} << false << false;
    QTest::newRow("6") << qsizetype{6} << false << true;
    QTest::newRow("11") << qsizetype{11} << false << true;
    QTest::newRow("12") << qsizetype{12} << true << true;
}

void PayloadsTest::aFileAnswerHasALeastSize()
{
    QFETCH(qsizetype, size);
    const QByteArray payload = piece_answer.first(size);
    QTEST(jvxb::ReadFileAnswer::parse(payload).has_value(), "piece");
    QTEST(jvxb::WriteFileAnswer::parse(payload).has_value(), "piece");
    QTEST(jvxb::ApplyFileAnswer::parse(payload).has_value(), "apply");
}

void PayloadsTest::aReadAnswerIsTakenApart()
{
    const auto answer = jvxb::ReadFileAnswer::parse(piece_answer + full_size + "abc");
    QVERIFY(answer);
    QVERIFY(answer->isSuccess());
    QCOMPARE(answer->file, File::RoadAccident);
    QCOMPARE(answer->handle, 0xA1B2C3D4U);
    QCOMPARE(answer->offset, 0x01020304U);
    QCOMPARE(answer->length, quint16{3});
    QCOMPARE(answer->full_size, 0x11223344U);
    QCOMPARE(answer->piece, std::optional(QByteArray("abc")));
}

void PayloadsTest::aPieceIsThereOrNot_data()
{
    QTest::addColumn<quint16>("length");
    QTest::addColumn<QByteArray>("rest"); // behind the length
    QTest::addColumn<std::optional<QByteArray>>("piece");

    const auto row = [](const char *name, quint16 length, const QByteArray &rest,
                         const std::optional<QByteArray> &piece) { QTest::newRow(name) << length << rest << piece; };
    row("no byte, no full size", 0, "", std::nullopt);
    row("no byte, a short full size", 0, full_size.first(3), std::nullopt);
    row("no byte", 0, full_size, QByteArray(""));
    row("no byte, and more", 0, full_size + "more", QByteArray(""));
    row("one byte of none", 1, full_size, std::nullopt);
    row("one byte", 1, full_size + "a", QByteArray("a"));
    row("one byte, and more", 1, full_size + "abc", QByteArray("a"));
    row("512 of 511", 512, full_size + packets::fileData(511), std::nullopt);
    row("512 of 512", 512, full_size + packets::fileData(512), packets::fileData(512));
    row("65535 of none", 65535, full_size, std::nullopt);
    row("65535 of 65534", 65535, full_size + packets::fileData(65534), std::nullopt);
    row("65535 of 65535", 65535, full_size + packets::fileData(65535), packets::fileData(65535));
}

void PayloadsTest::aPieceIsThereOrNot()
{
    QFETCH(quint16, length);
    QFETCH(QByteArray, rest);
    const auto answer = jvxb::ReadFileAnswer::parse(piece_answer.first(10) + packets::number(length, 2) + rest);
    QVERIFY(answer);
    QCOMPARE(answer->length, length);
    QTEST(answer->piece, "piece");
    QCOMPARE(answer->file, File::RoadAccident); // known without the piece, as it is checked first
}

void PayloadsTest::aWriteAnswerIsTakenApart()
{
    for (const QByteArray &rest : {QByteArray(), QByteArray("more")}) {
        const auto answer = jvxb::WriteFileAnswer::parse(piece_answer + rest);
        QVERIFY(answer);
        QVERIFY(answer->isSuccess());
        QCOMPARE(answer->file, File::RoadAccident);
        QCOMPARE(answer->handle, 0xA1B2C3D4U);
        QCOMPARE(answer->offset, 0x01020304U);
        QCOMPARE(answer->length, quint16{3});
    }
}

void PayloadsTest::anApplyAnswerIsTakenApart()
{
    const auto answer = jvxb::ApplyFileAnswer::parse("1\x0A\xFF\xFF\xFF\xFF and more");
    QVERIFY(answer);
    QVERIFY(answer->isSuccess());
    QCOMPARE(answer->file, File::Epo);
}

// ---- log ----------------------------------------------------------------------------------------------------------

void PayloadsTest::aLogAnswerIsItsMask_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<std::optional<quint32>>("mask");

    const auto row = [](const char *payload, const std::optional<quint32> &mask) {
        QTest::newRow(payload) << QByteArray::fromHex(payload) << mask;
    };
    row("", std::nullopt);
    row("01", std::nullopt);
    row("0102", std::nullopt);
    row("010203", std::nullopt);
    row("00000000", 0U);
    row("00400000", 0x4000U);
    row("01020304", 0x04030201U);
    row("0102030405", 0x04030201U);
    row("ffffffff", 0xFFFFFFFFU);
}

void PayloadsTest::aLogAnswerIsItsMask()
{
    QFETCH(QByteArray, payload);
    const auto answer = jvxb::LogEnableAnswer::parse(payload);
    QTEST(answer ? std::optional(answer->mask) : std::nullopt, "mask");
}

// Python: struct.pack("<BIHB", log, seconds, milliseconds, type).hex()
void PayloadsTest::aRecordIsTakenApart_data()
{
    QTest::addColumn<QByteArray>("fields");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<int>("log");
    QTest::addColumn<int>("type");
    QTest::addColumn<qint64>("since_epoch"); // ms

    const auto row = [](const char *name, const char *fields, const QByteArray &data, int log, int type, qint64 time) {
        QTest::newRow(name) << QByteArray::fromHex(fields) << data << log << type << time;
    };
    row("no data", "0e00f15365fa0003", "", 14, 3, 1'700'000'000'250);
    row("text", "0e00f15365fa0003", "text\r\n", 14, 3, 1'700'000'000'250);
    row("zero bytes", "0e00f15365fa0003", QByteArray("\0a\0", 3), 14, 3, 1'700'000'000'250);
    row("text that looks like a record", "0e00f15365fa0003", "*>LOG", 14, 3, 1'700'000'000'250);
    row("all zero", "0000000000000000", "", 0, 0, 0);
    row("1500 ms", "0e01000000dc0501", "x", 14, 1, 2500);
    row("seconds above 31 bits", "0100000080e70380", "x", 1, 128, 2'147'483'648'999);
    row("greatest values", "ffffffffffffffff", "x", 255, 255, 4'294'967'360'535);
    row("a long text", "0e01000000dc0501", QByteArray(60'000, 'x'), 14, 1, 2500);
}

void PayloadsTest::aRecordIsTakenApart()
{
    QFETCH(QByteArray, fields);
    QFETCH(QByteArray, data);
    const auto record = jvxb::LogRecord::parse(fields + data);
    QVERIFY(record);
    QTEST(static_cast<int>(record->log), "log");
    QTEST(static_cast<int>(record->type), "type");
    QTEST(record->datetime.toMSecsSinceEpoch(), "since_epoch");
    QTEST(record->data, "data");
}

// 2023-11-14 22:13:20.250 UTC, as "date -u -d @1700000000" says.
void PayloadsTest::aRecordsTimeIsLocal()
{
    const auto record = jvxb::LogRecord::parse(QByteArray::fromHex("0e00f15365fa0003"));
    QVERIFY(record);
    QCOMPARE(record->datetime.timeSpec(), Qt::LocalTime);
    QCOMPARE(record->datetime.date(), QDate(2023, 11, 15));
    QCOMPARE(record->datetime.time(), QTime(3, 43, 20, 250));
}

void PayloadsTest::aShortRecordIsNone()
{
    const QByteArray record = QByteArray::fromHex("0e00f15365fa0003");
    for (qsizetype size = 0; size < record.size(); ++size)
        QVERIFY(!jvxb::LogRecord::parse(record.first(size)));
}

QTEST_GUILESS_MAIN(PayloadsTest)

#include "tst_payloads.moc"
