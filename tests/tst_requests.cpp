#include "packets.h"
#include "protocolbench.h"

#include <QPointer>
#include <QTest>
#include <QTimer>

#include <ctime>

namespace {

constexpr qsizetype header_size = 16;
constexpr qsizetype mebibyte = 1024 * 1024;

const QByteArray soft_error = R"(softVersionReaded -2 "" "" "" "")";

/// The first 12 bytes that all answers to requests for pieces of a file have in common.
struct FileAnswer {
    File file = File::RoadAccident;
    quint32 offset = 0;
    quint16 length = 0;
    quint32 handle = 0;
    char status = '1';

    QByteArray bytes() const
    {
        return status + packets::number(static_cast<quint8>(file), 1) + packets::number(handle, 4)
            + packets::number(offset, 4) + packets::number(length, 2);
    }
};

/// The payload of an answer that brings \a piece of a file of \a full_size bytes.
QByteArray readPayload(const QByteArray &piece, quint32 full_size, quint32 handle = 0, quint32 offset = 0)
{
    const auto length = static_cast<quint16>(piece.size());
    return FileAnswer{.offset = offset, .length = length, .handle = handle}.bytes() + packets::number(full_size, 4)
        + piece;
}

QByteArray readAnswer(const QByteArray &piece, quint32 full_size, quint32 handle = 0, quint32 offset = 0)
{
    return packets::packet("*@FR" + readPayload(piece, full_size, handle, offset));
}

/// The answer that accepts \a length bytes at \a offset.
QByteArray writeAnswer(quint32 offset, quint16 length, quint32 handle = 0)
{
    return packets::packet("*@FW" + FileAnswer{.offset = offset, .length = length, .handle = handle}.bytes());
}

/// A file of \a size bytes in which no piece of 512 bytes resembles another.
QByteArray fileOf(qsizetype size)
{
    QByteArray data(size, '\0');
    for (qsizetype i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 7 + i / 251 + i / 65536) & 0xFF);
    return data;
}

quint32 numberAt(const QByteArray &bytes, qsizetype offset, int size)
{
    quint32 value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

/// A file request as it left the port, taken apart.
struct SentPiece {
    explicit SentPiece(const QByteArray &packet)
        : body(packet.sliced(header_size))
        , handle(numberAt(body, 5, 4))
        , offset(numberAt(body, 9, 4))
        , length(numberAt(body, 13, 2))
    {
    }

    QByteArray body;
    quint32 handle;
    quint32 offset;
    quint32 length; ///< of the piece, or the longest that may come
};

/// A terminal that holds one file and serves all pieces of it, each with a handle made of the one before.
class FileTerminal {
public:
    FileTerminal(PortDouble &port, const QByteArray &file)
        : _port(port)
        , _file(file)
    {
        // Queued, as a real answer never comes inside the write of its request.
        QObject::connect(
            &port, &QIODevice::bytesWritten, &port, [this] { serve(); }, Qt::QueuedConnection);
    }

    QByteArray received; ///< the pieces of a file that is written
    bool handles_came_back = true;
    int requests = 0;

private:
    void serve()
    {
        const SentPiece request(_port.lastWritten());
        handles_came_back = handles_came_back && request.handle == _handle;
        _handle = _handle * 3 + 0x80000001U;
        ++requests;
        _port.deliver(request.body.startsWith("*!FR") ? pieceFor(request) : acceptanceOf(request));
    }

    QByteArray pieceFor(const SentPiece &request) const
    {
        const QByteArray piece = _file.mid(request.offset, request.length);
        return readAnswer(piece, static_cast<quint32>(_file.size()), _handle, request.offset);
    }

    QByteArray acceptanceOf(const SentPiece &request)
    {
        received.append(request.body.sliced(19));
        return writeAnswer(request.offset, static_cast<quint16>(request.length), _handle);
    }

    PortDouble &_port;
    QByteArray _file;
    quint32 _handle = 0;
};

/// A read of road accident data that waits for the answer to its first request.
class ReadBench : public ProtocolBench {
public:
    ReadBench() { protocol.readFile(File::RoadAccident); }
};

/// A write of \a data as road accident data that waits for the answer to its first request.
class WriteBench : public ProtocolBench {
public:
    explicit WriteBench(const QByteArray &data) { protocol.writeFile(File::RoadAccident, data); }
};

using Request = void (*)(jvxb::Protocol &);

struct FileRequest {
    const char *key;
    Request send;
    const char *failed; ///< the result signal up to its error
    const char *rest;   ///< and the rest of its arguments
    qsizetype min_size; ///< of a payload that is a success
};

const FileRequest file_requests[] = {
    {"FR", [](jvxb::Protocol &protocol) { protocol.readFile(File::RoadAccident); }, "fileReaded ", " 3 0 bytes", 16},
    {"FW", [](jvxb::Protocol &protocol) { protocol.writeFile(File::RoadAccident, {}); }, "fileWritten ", " 3", 12},
    {"FU", [](jvxb::Protocol &protocol) { protocol.applyFile(File::RoadAccident, 0); }, "fileApplied ", " 3", 6},
};

QByteArray failure(const FileRequest &request, int error)
{
    return request.failed + QByteArray::number(error) + request.rest;
}

/// The first \a size bytes of the payload of a success with nothing in it, for any of the three requests.
QByteArray success(qsizetype size)
{
    return readPayload({}, 0).leftJustified(size, 'x', true);
}

struct ReceivedRecord {
    int log = -1;
    int type = -1;
    QDateTime datetime;
    QByteArray data;
};

} // namespace

class RequestsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    // Identification
    void anIdentificationAnswerIsTakenApart_data();
    void anIdentificationAnswerIsTakenApart();

    // All file requests
    void aStatusIsTheError_data();
    void aStatusIsTheError();
    void aShortFileAnswerIsNotUnderstood_data();
    void aShortFileAnswerIsNotUnderstood();
    void anAnswerForAnotherKindIsIgnored_data();
    void anAnswerForAnotherKindIsIgnored();
    void anErrorForAnotherKindEndsTheRequest_data();
    void anErrorForAnotherKindEndsTheRequest();
    void anAnswerForAnotherKindDoesNotProlongTheTime();
    void theKindIsSentAsItIs_data();
    void theKindIsSentAsItIs();

    // Reading
    void aFileIsRead_data();
    void aFileIsRead();
    void theNextReadRequestIsExact();
    void theReadOffsetIsTheNumberOfBytesHeld();
    void aShortPieceIsTheLast_data();
    void aShortPieceIsTheLast();
    void bytesBeyondTheAnnouncedSizeAreDropped_data();
    void bytesBeyondTheAnnouncedSizeAreDropped();
    void piecesMayBeLongerThanAskedFor_data();
    void piecesMayBeLongerThanAskedFor();
    void bytesBehindThePieceAreIgnored();
    void aLengthBeyondThePayloadIsNotUnderstood_data();
    void aLengthBeyondThePayloadIsNotUnderstood();
    void aFailureDiscardsTheBytesReadBefore();
    void theGreatestAnnouncedSizeIsUnsigned();
    void eachReadPieceHasItsOwnTime();
    void aReadTimesOutWithTheLastPiece();
    void twoReadsRunSideBySide();

    // Writing
    void aFileIsWritten_data();
    void aFileIsWritten();
    void writeRequestsAreExact();
    void anEmptyFileIsOneRequest();
    void whatWasNotAcceptedIsSentAgain();
    void anAcceptanceDecidesWhatIsNext_data();
    void anAcceptanceDecidesWhatIsNext();
    void bytesBehindAnAcceptanceAreIgnored();
    void eachWrittenPieceHasFiveSeconds();

    // Applying
    void theApplyRequestIsExact();
    void anApplyAnswerMayHaveAnyRest();

    // Log
    void theMaskIsSentLittleEndian_data();
    void theMaskIsSentLittleEndian();
    void aMaskAnswerIsTakenApart_data();
    void aMaskAnswerIsTakenApart();
    void aRecordIsTakenApart_data();
    void aRecordIsTakenApart();
    void aRecordsTimeIsLocal();
    void whatIsNoRecordIsIgnored_data();
    void whatIsNoRecordIsIgnored();
};

// A local time zone that no machine has by chance: five and a half hours ahead of UTC.
void RequestsTest::initTestCase()
{
    qputenv("TZ", "<+0530>-05:30");
    tzset();
}

// ---- identification -----------------------------------------------------------------------------------------------

void RequestsTest::anIdentificationAnswerIsTakenApart_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("result");

    const auto soft = [](const QByteArray &payload, const QByteArray &result) {
        QTest::addRow("V%s", payload.simplified().constData()) << "*#V" + payload << result;
    };
    soft("", soft_error);
    soft("A", soft_error);
    soft("A:B:C:D", soft_error);
    soft(" :A", soft_error);
    soft(":", R"(softVersionReaded 0 "" "" "" "")");
    soft("::", R"(softVersionReaded 0 "" "" "" "")");
    soft(":ABC", R"(softVersionReaded 0 "ABC" "" "" "")");
    soft(":A:", R"(softVersionReaded 0 "A" "" "" "")");
    soft(":A:B", R"(softVersionReaded 0 "A" "B" "" "")");
    soft(":A:B:C", R"(softVersionReaded 0 "A" "B" "C" "")");
    soft(":A:B:C:D", R"(softVersionReaded 0 "A" "B" "C" "D")");
    soft(":A:B:C:D:E", R"(softVersionReaded 0 "A" "B" "C" "D")");
    soft("::B::D", R"(softVersionReaded 0 "" "B" "" "D")");
    soft(":::::::", R"(softVersionReaded 0 "" "" "" "")");
    soft(": A : B \r\n", "softVersionReaded 0 \" A \" \" B \r\n\" \"\" \"\"");
    soft(":*#V:A:V:H", R"(softVersionReaded 0 "*#V" "A" "V" "H")");
    soft(":J\xC3\xBCrgen:1", "softVersionReaded 0 \"J\xC3\xBCrgen\" \"1\" \"\" \"\"");

    const auto hard = [](const char *name, const QByteArray &payload, const QByteArray &result) {
        QTest::addRow("H%s", name) << "*#H" + payload << "hardVesionReaded " + result;
    };
    const QByteArray word = QByteArray::fromHex("0102030405060708");
    hard("", "", "-2 0");
    hard("BHR:word", "BHR:" + word, "-2 0");
    hard(":", ":", "0 0");
    hard("::", "::", "0 0");
    hard("::BHR:word", "::BHR:" + word, "0 0");
    hard(":BHR", ":BHR", "0 0");
    hard(":BHRword", ":BHR" + word, "0 0");
    hard(":BHR:", ":BHR:", "0 0");
    hard(":BHR:7 bytes", ":BHR:" + word.first(7), "0 0");
    hard(":BHR:word", ":BHR:" + word, "0 578437695752307201");
    hard(":BHR:word and more", ":BHR:" + word + "more", "0 578437695752307201");
    hard(":BHR:1", ":BHR:" + packets::number(1, 8), "0 1");
    hard(":BHR:greatest", ":BHR:" + QByteArray(8, '\xFF'), "0 18446744073709551615");
    hard(":BHR:colons", ":BHR:" + QByteArray(8, ':'), "0 4195730024608447034");
    hard(":XYZ:word", ":XYZ:" + word, "0 0");
    hard(":bhr:word", ":bhr:" + word, "0 0");
    hard(":BHRX:word", ":BHRX:" + word, "0 0");
    hard(":BH:word", ":BH:" + word + word, "0 0");
    hard(": BHR:word", ": BHR:" + word, "0 0");

    const auto serial_number = [](const QByteArray &payload, const QByteArray &result) {
        QTest::addRow("S%s", payload.simplified().left(20).constData())
            << "*#S" + payload << "serialNumberReaded " + result;
    };
    serial_number("", R"(-2 "")");
    serial_number("350000000000017", R"(-2 "")");
    serial_number(":", R"(0 "")");
    serial_number(":350000000000017", R"(0 "350000000000017")");
    serial_number(":1:2:3", R"(0 "1:2:3")");
    serial_number(": 17 \r\n", "0 \" 17 \r\n\"");
    serial_number(":" + QByteArray(5000, '7'), "0 \"" + QByteArray(5000, '7') + '"');
}

void RequestsTest::anIdentificationAnswerIsTakenApart()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, result);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.protocol.readHardVersion();
    bench.protocol.readSerialNumber();
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.results, QByteArrayList{result});
    QCOMPARE(bench.pending().size(), 2); // whatever the payload, the request is finished
}

// ---- all file requests --------------------------------------------------------------------------------------------

void RequestsTest::aStatusIsTheError_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("result");

    for (const FileRequest &request : file_requests) {
        for (const int status : {0, 1, 48, 50, 127, 128, 200, 253, 255}) {
            const QByteArray body = QByteArray("*@") + request.key + packets::number(static_cast<quint64>(status), 1);
            const QByteArray result = failure(request, static_cast<qint8>(status));
            QTest::addRow("%s, status %d", request.key, status) << request.send << body << result;
            QTest::addRow("%s, status %d, long", request.key, status)
                << request.send << body + success(16).sliced(1) << result;
        }
    }
}

void RequestsTest::aStatusIsTheError()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, result);
    ProtocolBench bench;
    send(bench.protocol);
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.results, QByteArrayList{result});
    QCOMPARE(bench.pending().size(), 0);
}

void RequestsTest::aShortFileAnswerIsNotUnderstood_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("result");

    for (const FileRequest &request : file_requests)
        for (qsizetype size = 0; size <= 17; ++size)
            QTest::addRow("%s, %d bytes", request.key, static_cast<int>(size))
                << request.send << QByteArray("*@") + request.key + success(size)
                << failure(request, size < request.min_size ? -2 : 0);
}

void RequestsTest::aShortFileAnswerIsNotUnderstood()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, result);
    ProtocolBench bench;
    send(bench.protocol);
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.lastResult(), result); // a success of a piece reports progress before it
    QCOMPARE(bench.pending().size(), 0);
}

void RequestsTest::anAnswerForAnotherKindIsIgnored_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("start");
    QTest::addColumn<QByteArray>("result");

    for (const FileRequest &request : file_requests)
        QTest::newRow(request.key) << request.send << QByteArray("*@") + request.key << failure(request, 0);
}

void RequestsTest::anAnswerForAnotherKindIsIgnored()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, start);
    QFETCH(QByteArray, result);
    QByteArray foreign = success(16);
    foreign[1] = 4;
    ProtocolBench bench;
    send(bench.protocol);
    bench.port.deliver(packets::packet(start + foreign));
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.port.written().size(), 1);
    bench.port.deliver(packets::packet(start + success(16)));
    QCOMPARE(bench.lastResult(), result);
}

void RequestsTest::anErrorForAnotherKindEndsTheRequest_data()
{
    anAnswerForAnotherKindIsIgnored_data();
}

// Status and size are looked at before the kind.
void RequestsTest::anErrorForAnotherKindEndsTheRequest()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, start);
    ProtocolBench bench;
    send(bench.protocol);
    bench.port.deliver(packets::packet(start + "0\x04"));
    send(bench.protocol);
    bench.port.deliver(packets::packet(start + "1\x04xyz"));
    QCOMPARE(bench.results.size(), 2);
    QVERIFY(bench.results.value(0).contains(" 48 "));
    QVERIFY(bench.lastResult().contains(" -2 "));
}

// The request for the serial number is 200 ms younger than the read, and so is its end, unless the read began anew.
void RequestsTest::anAnswerForAnotherKindDoesNotProlongTheTime()
{
    ReadBench bench;
    QTest::qWait(200);
    bench.protocol.readSerialNumber();
    bench.port.deliver(packets::packet("*@FR" + FileAnswer{.file = File::Epo}.bytes() + packets::number(0, 4)));
    QTRY_COMPARE(bench.results, (QByteArrayList{"fileReaded -1 3 0 bytes", R"(serialNumberReaded -1 "")"}));
}

void RequestsTest::theKindIsSentAsItIs_data()
{
    QTest::addColumn<File>("file");

    for (const int kind : {0, 1, 11, 12, 200, 255})
        QTest::addRow("%d", kind) << static_cast<File>(kind);
}

void RequestsTest::theKindIsSentAsItIs()
{
    QFETCH(File, file);
    ProtocolBench bench;
    bench.protocol.readFile(file);
    bench.protocol.writeFile(file, {});
    bench.protocol.applyFile(file, 0);
    for (const QByteArray &packet : bench.port.written())
        QCOMPARE(static_cast<File>(packet[header_size + 4]), file);
    bench.port.deliver(packets::packet("*@FU" + FileAnswer{.file = file}.bytes()));
    QCOMPARE(bench.results, QByteArrayList{"fileApplied 0 " + QByteArray(QTest::currentDataTag())});
}

// ---- reading ------------------------------------------------------------------------------------------------------

void RequestsTest::aFileIsRead_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<int>("requests");

    QTest::newRow("0 bytes") << qsizetype{0} << 1;
    QTest::newRow("1 byte") << qsizetype{1} << 1;
    QTest::newRow("511 bytes") << qsizetype{511} << 1;
    QTest::newRow("512 bytes") << qsizetype{512} << 1;
    QTest::newRow("513 bytes") << qsizetype{513} << 2;
    QTest::newRow("1023 bytes") << qsizetype{1023} << 2;
    QTest::newRow("1024 bytes") << qsizetype{1024} << 2;
    QTest::newRow("1025 bytes") << qsizetype{1025} << 3;
    QTest::newRow("1 MiB") << mebibyte << 2048;
}

void RequestsTest::aFileIsRead()
{
    QFETCH(qsizetype, size);
    const QByteArray file = fileOf(size);
    ProtocolBench bench;
    const FileTerminal terminal(bench.port, file);
    bench.protocol.readFile(File::RoadAccident);

    const QByteArray number = QByteArray::number(size);
    QTRY_COMPARE_WITH_TIMEOUT(bench.lastResult(), "fileReaded 0 3 " + number + " bytes", 20'000);
    QCOMPARE(bench.file, file);
    QTEST(terminal.requests, "requests");
    QVERIFY(terminal.handles_came_back);
    QCOMPARE(bench.results.size(), terminal.requests + 1);
    QCOMPARE(bench.results.at(terminal.requests - 1), "fileReadingProgress 3 " + number + ' ' + number);
    for (int piece = 1; piece < terminal.requests; ++piece)
        QCOMPARE(
            bench.results.at(piece - 1), "fileReadingProgress 3 " + QByteArray::number(piece * 512) + ' ' + number);
}

// The expression of packets.h for the words 0 and 1 and b"*!FR" + struct.pack("<BIIH", 3, 0xA1B2C3D4, 512, 512).
void RequestsTest::theNextReadRequestIsExact()
{
    ReadBench bench;
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 600, 0xA1B2C3D4));
    QCOMPARE(bench.port.written().size(), 2);
    QCOMPARE(bench.port.lastWritten(),
        QByteArray::fromHex("404a565800000000010000000f0018122a21465203d4c3b2a1000200000002"));
    QCOMPARE(bench.results, QByteArrayList{"fileReadingProgress 3 512 600"});
}

void RequestsTest::theReadOffsetIsTheNumberOfBytesHeld()
{
    ReadBench bench;
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 5000, 1, 4096));
    QCOMPARE(SentPiece(bench.port.lastWritten()).offset, 512U);
    bench.port.deliver(readAnswer(QByteArray(700, 'b'), 5000, 0, 0xFFFFFFFF));
    QCOMPARE(SentPiece(bench.port.lastWritten()).offset, 1212U);
    QCOMPARE(SentPiece(bench.port.lastWritten()).length, 512U);
    QCOMPARE(SentPiece(bench.port.lastWritten()).handle, 0U);
    bench.port.deliver(readAnswer("c", 5000));
    QCOMPARE(bench.file, QByteArray(512, 'a') + QByteArray(700, 'b') + 'c');
}

void RequestsTest::aShortPieceIsTheLast_data()
{
    QTest::addColumn<qsizetype>("length");
    QTest::addColumn<quint32>("full_size");

    QTest::newRow("0 of 0") << qsizetype{0} << 0U;
    QTest::newRow("0 of 5000") << qsizetype{0} << 5000U;
    QTest::newRow("300 of 5000") << qsizetype{300} << 5000U;
    QTest::newRow("300 of 100") << qsizetype{300} << 100U;
    QTest::newRow("300 of 0") << qsizetype{300} << 0U;
    QTest::newRow("511 of 512") << qsizetype{511} << 512U;
    QTest::newRow("511 of the greatest size") << qsizetype{511} << 0xFFFFFFFFU;
}

void RequestsTest::aShortPieceIsTheLast()
{
    QFETCH(qsizetype, length);
    QFETCH(quint32, full_size);
    const QByteArray piece = fileOf(length);
    const QByteArray number = QByteArray::number(length);
    ReadBench bench;
    bench.port.deliver(readAnswer(piece, full_size));
    QCOMPARE(bench.results,
        (QByteArrayList{"fileReadingProgress 3 " + number + ' ' + number, "fileReaded 0 3 " + number + " bytes"}));
    QCOMPARE(bench.file, piece);
    QCOMPARE(bench.pending().size(), 0);
}

void RequestsTest::bytesBeyondTheAnnouncedSizeAreDropped_data()
{
    QTest::addColumn<quint32>("full_size");
    QTest::addColumn<int>("pieces");

    QTest::newRow("0") << 0U << 1;
    QTest::newRow("1") << 1U << 1;
    QTest::newRow("511") << 511U << 1;
    QTest::newRow("512") << 512U << 1;
    QTest::newRow("513") << 513U << 2;
    QTest::newRow("1000") << 1000U << 2;
    QTest::newRow("1024") << 1024U << 2;
}

void RequestsTest::bytesBeyondTheAnnouncedSizeAreDropped()
{
    QFETCH(quint32, full_size);
    QFETCH(int, pieces);
    const QByteArray data = fileOf(1024);
    ReadBench bench;
    for (int piece = 0; piece < pieces; ++piece)
        bench.port.deliver(readAnswer(data.sliced(512 * piece, 512), full_size));
    const QByteArray number = QByteArray::number(full_size);
    QCOMPARE(bench.results.size(), pieces + 1);
    QCOMPARE(bench.results.at(pieces - 1), "fileReadingProgress 3 " + number + ' ' + number);
    QCOMPARE(bench.lastResult(), "fileReaded 0 3 " + number + " bytes");
    QCOMPARE(bench.file, data.first(full_size));
    QCOMPARE(bench.port.written().size(), pieces);
}

void RequestsTest::piecesMayBeLongerThanAskedFor_data()
{
    QTest::addColumn<qsizetype>("length");

    for (const int length : {513, 600, 32768, 65000, 65515})
        QTest::addRow("%d", length) << qsizetype{length};
}

void RequestsTest::piecesMayBeLongerThanAskedFor()
{
    QFETCH(qsizetype, length);
    const QByteArray data = fileOf(2 * length);
    const auto full_size = static_cast<quint32>(data.size());
    ReadBench bench;
    bench.port.deliver(readAnswer(data.first(length), full_size));
    QCOMPARE(SentPiece(bench.port.lastWritten()).offset, static_cast<quint32>(length));
    bench.port.deliver(readAnswer(data.last(length), full_size));
    QCOMPARE(bench.file, data);
    QCOMPARE(bench.results.value(0),
        "fileReadingProgress 3 " + QByteArray::number(length) + ' ' + QByteArray::number(full_size));
}

void RequestsTest::bytesBehindThePieceAreIgnored()
{
    ReadBench bench;
    bench.port.deliver(packets::packet("*@FR" + readPayload("piece", 5) + "more"));
    QCOMPARE(bench.file, QByteArray("piece"));
}

void RequestsTest::aLengthBeyondThePayloadIsNotUnderstood_data()
{
    QTest::addColumn<quint16>("length");
    QTest::addColumn<qsizetype>("present");

    QTest::newRow("1 of 0") << quint16{1} << qsizetype{0};
    QTest::newRow("512 of 511") << quint16{512} << qsizetype{511};
    QTest::newRow("513 of 512") << quint16{513} << qsizetype{512};
    QTest::newRow("65535 of 0") << quint16{65535} << qsizetype{0};
    QTest::newRow("65535 of 65000") << quint16{65535} << qsizetype{65000};
}

void RequestsTest::aLengthBeyondThePayloadIsNotUnderstood()
{
    QFETCH(quint16, length);
    QFETCH(qsizetype, present);
    ReadBench bench;
    bench.port.deliver(packets::packet(
        "*@FR" + FileAnswer{.length = length}.bytes() + packets::number(70'000, 4) + QByteArray(present, 'x')));
    QCOMPARE(bench.results, QByteArrayList{"fileReaded -2 3 0 bytes"});
    QCOMPARE(bench.pending().size(), 0);
}

void RequestsTest::aFailureDiscardsTheBytesReadBefore()
{
    ReadBench bench;
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 2000));
    bench.port.deliver(packets::packet("*@FR\x05"));
    QCOMPARE(bench.results, (QByteArrayList{"fileReadingProgress 3 512 2000", "fileReaded 5 3 0 bytes"}));
}

void RequestsTest::theGreatestAnnouncedSizeIsUnsigned()
{
    ReadBench bench;
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 0xFFFFFFFF));
    bench.port.deliver(readAnswer(QByteArray(512, 'b'), 0x80000000));
    bench.port.deliver(readAnswer("c", 0xFFFFFFFF));
    QCOMPARE(bench.results,
        (QByteArrayList{"fileReadingProgress 3 512 -1", "fileReadingProgress 3 1024 -2147483648",
            "fileReadingProgress 3 1025 1025", "fileReaded 0 3 1025 bytes"}));
}

// Three pauses that no single time-out of 500 ms could hold.
void RequestsTest::eachReadPieceHasItsOwnTime()
{
    ReadBench bench;
    for (int piece = 0; piece < 3; ++piece) {
        QTest::qWait(300);
        bench.port.deliver(readAnswer(QByteArray(512, 'a'), 1536));
    }
    QCOMPARE(bench.lastResult(), QByteArray("fileReaded 0 3 1536 bytes"));
}

void RequestsTest::aReadTimesOutWithTheLastPiece()
{
    ReadBench bench;
    const QPointer<jvxb::Transaction> transaction(bench.pending().first());
    QTest::qWait(200);
    const qint64 answered = bench.now();
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 2000));
    QVERIFY(transaction);
    QTRY_COMPARE(bench.results, (QByteArrayList{"fileReadingProgress 3 512 2000", "fileReaded -1 3 0 bytes"}));
    QVERIFY2(bench.lastResultAt() - answered >= 499, QByteArray::number(bench.lastResultAt() - answered));
    QVERIFY(!transaction);
}

// Two reads of different kinds share the key: the older takes every answer, so the younger waits for its turn.
void RequestsTest::twoReadsRunSideBySide()
{
    ReadBench bench;
    bench.protocol.readFile(File::Epo);
    bench.port.deliver(readAnswer("accident", 8));
    bench.port.deliver(
        packets::packet("*@FR" + FileAnswer{.file = File::Epo, .length = 3}.bytes() + packets::number(3, 4) + "epo"));
    QCOMPARE(bench.results,
        (QByteArrayList{"fileReadingProgress 3 8 8", "fileReaded 0 3 8 bytes", "fileReadingProgress 10 3 3",
            "fileReaded 0 10 3 bytes"}));
}

// ---- writing ------------------------------------------------------------------------------------------------------

void RequestsTest::aFileIsWritten_data()
{
    aFileIsRead_data();
}

void RequestsTest::aFileIsWritten()
{
    QFETCH(qsizetype, size);
    const QByteArray file = fileOf(size);
    ProtocolBench bench;
    const FileTerminal terminal(bench.port, {});
    bench.protocol.writeFile(File::RoadAccident, file);

    QTRY_COMPARE_WITH_TIMEOUT(bench.lastResult(), QByteArray("fileWritten 0 3"), 20'000);
    QCOMPARE(terminal.received, file);
    QTEST(terminal.requests, "requests");
    QVERIFY(terminal.handles_came_back);
    QCOMPARE(bench.results.size(), terminal.requests + 1);
    const QByteArray number = QByteArray::number(size);
    QCOMPARE(bench.results.at(terminal.requests - 1), "fileWritingProgress 3 " + number + ' ' + number);
    for (int piece = 1; piece < terminal.requests; ++piece)
        QCOMPARE(
            bench.results.at(piece - 1), "fileWritingProgress 3 " + QByteArray::number(piece * 512) + ' ' + number);
}

// The expressions of packets.h for the words 0 and 1 and
//
//     b"*!FW" + struct.pack("<BIIHI", 3, 0, 0, 3, 3) + b"abc"
//     b"*!FW" + struct.pack("<BIIHI", 3, 0xA1B2C3D4, 1, 2, 3) + b"bc"
void RequestsTest::writeRequestsAreExact()
{
    WriteBench bench("abc");
    bench.port.deliver(writeAnswer(0, 1, 0xA1B2C3D4));
    QCOMPARE(bench.port.written(),
        (QByteArrayList{
            QByteArray::fromHex("404a565800000000010000001600796a2a214657030000000000000000030003000000616263"),
            QByteArray::fromHex("404a5658000000000100000015001c0c2a21465703d4c3b2a1010000000200030000006263")}));
}

// The same for b"*!FW" + struct.pack("<BIIHI", 3, 0, 0, 0, 0).
void RequestsTest::anEmptyFileIsOneRequest()
{
    WriteBench bench("");
    QCOMPARE(bench.port.lastWritten(),
        QByteArray::fromHex("404a565800000000010000001300190f2a214657030000000000000000000000000000"));
    bench.port.deliver(writeAnswer(0, 0));
    QCOMPARE(bench.results, (QByteArrayList{"fileWritingProgress 3 0 0", "fileWritten 0 3"}));
    QCOMPARE(bench.port.written().size(), 1);
}

void RequestsTest::whatWasNotAcceptedIsSentAgain()
{
    const QByteArray data = fileOf(1000);
    WriteBench bench(data);
    bench.port.deliver(writeAnswer(0, 100));
    const SentPiece second(bench.port.lastWritten());
    QCOMPARE(second.offset, 100U);
    QCOMPARE(second.length, 512U);
    QCOMPARE(second.body.sliced(19), data.sliced(100, 512));
    bench.port.deliver(writeAnswer(100, 0)); // nothing at all
    QCOMPARE(bench.port.lastWritten().sliced(header_size), second.body);
    bench.port.deliver(writeAnswer(488, 511));
    const SentPiece last(bench.port.lastWritten());
    QCOMPARE(last.offset, 999U);
    QCOMPARE(last.length, 1U);
    QCOMPARE(last.body.sliced(19), data.last(1));
    bench.port.deliver(writeAnswer(999, 1));
    QCOMPARE(bench.results,
        (QByteArrayList{"fileWritingProgress 3 100 1000", "fileWritingProgress 3 100 1000",
            "fileWritingProgress 3 999 1000", "fileWritingProgress 3 1000 1000", "fileWritten 0 3"}));
}

void RequestsTest::anAcceptanceDecidesWhatIsNext_data()
{
    QTest::addColumn<quint32>("offset");
    QTest::addColumn<quint16>("length");
    QTest::addColumn<int>("next");

    QTest::newRow("less than all") << 0U << quint16{9} << 9;
    QTest::newRow("an offset of its own") << 7U << quint16{1} << 8;
    QTest::newRow("all") << 0U << quint16{10} << 10;
    QTest::newRow("all, elsewhere") << 8U << quint16{2} << 10;
    QTest::newRow("more than all") << 0U << quint16{600} << 600;
    QTest::newRow("an offset beyond all") << 5000U << quint16{0} << 5000;
    QTest::newRow("the greatest offset") << 0xFFFFFFFFU << quint16{0} << -1;
    QTest::newRow("a sum that wraps to 0") << 0xFFFFFFFFU << quint16{1} << 0;
    QTest::newRow("a sum that wraps to 1") << 0xFFFFFFFFU << quint16{2} << 1;
    QTest::newRow("a sum that wraps to 10") << 0xFFFF000BU << quint16{0xFFFF} << 10;
}

void RequestsTest::anAcceptanceDecidesWhatIsNext()
{
    QFETCH(quint32, offset);
    QFETCH(quint16, length);
    QFETCH(int, next);
    const QByteArray data = "0123456789";
    WriteBench bench(data);
    bench.port.deliver(writeAnswer(offset, length));
    QByteArrayList expected{"fileWritingProgress 3 " + QByteArray::number(next) + " 10"};
    const bool goes_on = static_cast<quint32>(next) < 10;
    if (!goes_on)
        expected.append("fileWritten 0 3");
    QCOMPARE(bench.results, expected);
    QCOMPARE(bench.port.written().size(), goes_on ? 2 : 1);
    if (!goes_on)
        return;
    const SentPiece piece(bench.port.lastWritten());
    QCOMPARE(piece.offset, static_cast<quint32>(next));
    QCOMPARE(piece.body.sliced(19), data.sliced(next));
}

void RequestsTest::bytesBehindAnAcceptanceAreIgnored()
{
    WriteBench bench("abc");
    bench.port.deliver(packets::packet("*@FW" + FileAnswer{.length = 3}.bytes() + "more"));
    QCOMPARE(bench.results, (QByteArrayList{"fileWritingProgress 3 3 3", "fileWritten 0 3"}));
}

void RequestsTest::eachWrittenPieceHasFiveSeconds()
{
    WriteBench bench(fileOf(600));
    QTest::qWait(700);
    QCOMPARE(bench.results, QByteArrayList{});
    const qint64 answered = bench.now();
    bench.port.deliver(writeAnswer(0, 512));
    QTRY_COMPARE_WITH_TIMEOUT(
        bench.results, (QByteArrayList{"fileWritingProgress 3 512 600", "fileWritten -1 3"}), 15'000);
    QVERIFY2(bench.lastResultAt() - answered >= 4999, QByteArray::number(bench.lastResultAt() - answered));
}

// ---- applying -----------------------------------------------------------------------------------------------------

// The expression of packets.h for the words 0 and 1 and b"*!FU" + struct.pack("<BII", 3, 0, 0xFEDCBA98).
void RequestsTest::theApplyRequestIsExact()
{
    ProtocolBench bench;
    bench.protocol.applyFile(File::RoadAccident, 0xFEDCBA98);
    QCOMPARE(bench.port.written(),
        QByteArrayList{QByteArray::fromHex("404a565800000000010000000d001b132a214655030000000098badcfe")});
}

void RequestsTest::anApplyAnswerMayHaveAnyRest()
{
    ProtocolBench bench;
    bench.protocol.applyFile(File::RoadAccident, 1);
    bench.port.deliver(packets::packet("*@FU1\x03\xFF\xFF\xFF\xFF and more"));
    QCOMPARE(bench.results, QByteArrayList{"fileApplied 0 3"});
}

// ---- log ----------------------------------------------------------------------------------------------------------

void RequestsTest::theMaskIsSentLittleEndian_data()
{
    QTest::addColumn<quint32>("mask");

    // The name of a row is the mask as it is sent.
    QTest::newRow("00000000") << 0U;
    QTest::newRow("01000000") << 1U;
    QTest::newRow("00400000") << 0x4000U;
    QTest::newRow("78563412") << 0x12345678U;
    QTest::newRow("ffffffff") << 0xFFFFFFFFU;
}

void RequestsTest::theMaskIsSentLittleEndian()
{
    QFETCH(quint32, mask);
    ProtocolBench bench;
    bench.protocol.logEnable(mask);
    QCOMPARE(bench.port.lastWritten().sliced(header_size),
        QByteArray("*!LOG") + QByteArray::fromHex(QTest::currentDataTag()));
}

void RequestsTest::aMaskAnswerIsTakenApart_data()
{
    QTest::addColumn<QByteArray>("result");

    // The name of a row is the payload.
    QTest::newRow("") << QByteArray("logEnabled -2 0");
    QTest::newRow("01") << QByteArray("logEnabled -2 0");
    QTest::newRow("0102") << QByteArray("logEnabled -2 0");
    QTest::newRow("010203") << QByteArray("logEnabled -2 0");
    QTest::newRow("00000000") << QByteArray("logEnabled 0 0");
    QTest::newRow("00400000") << QByteArray("logEnabled 0 16384");
    QTest::newRow("01020304") << QByteArray("logEnabled 0 67305985");
    QTest::newRow("0102030405") << QByteArray("logEnabled 0 67305985");
    QTest::newRow("ffffffff") << QByteArray("logEnabled 0 4294967295");
}

// The mask in force counts, not the one that was asked for.
void RequestsTest::aMaskAnswerIsTakenApart()
{
    QFETCH(QByteArray, result);
    ProtocolBench bench;
    bench.protocol.logEnable(0x12345678);
    bench.port.deliver(packets::packet("*@LOG" + QByteArray::fromHex(QTest::currentDataTag())));
    QCOMPARE(bench.results, QByteArrayList{result});
}

void RequestsTest::aRecordIsTakenApart_data()
{
    QTest::addColumn<QByteArray>("record");
    QTest::addColumn<int>("log");
    QTest::addColumn<int>("type");
    QTest::addColumn<qint64>("milliseconds");
    QTest::addColumn<QByteArray>("data");

    const auto row
        = [](const char *name, int log, quint32 seconds, quint16 milliseconds, int type, const QByteArray &data) {
              QTest::newRow(name) << packets::number(static_cast<quint64>(log), 1) + packets::number(seconds, 4)
                      + packets::number(milliseconds, 2) + packets::number(static_cast<quint64>(type), 1) + data
                                  << log << type << qint64{seconds} * 1000 + milliseconds << data;
          };
    row("8 bytes", 14, 1'700'000'000, 250, 3, "");
    row("text", 14, 1'700'000'000, 250, 3, "text\r\n");
    row("zero bytes", 14, 1'700'000'000, 0, 3, QByteArray("\0a\0", 3));
    row("text that looks like a record", 14, 1, 0, 3, "*>LOG");
    row("all zero", 0, 0, 0, 0, "");
    row("1500 ms", 14, 1, 1500, 1, "x");
    row("greatest values", 255, 0xFFFFFFFF, 0xFFFF, 255, "x");
    row("seconds above 31 bits", 1, 0x80000000, 999, 128, "x");
    row("a long text", 14, 1, 0, 1, QByteArray(60'000, 'x'));
}

void RequestsTest::aRecordIsTakenApart()
{
    QFETCH(QByteArray, record);
    ProtocolBench bench;
    QList<ReceivedRecord> received;
    connect(&bench.protocol, &jvxb::Protocol::logReceived, &bench.port,
        [&received](jvxb::Log log, quint8 type, const QDateTime &datetime, const QByteArray &data) {
            received.append({static_cast<int>(log), type, datetime, data});
        });
    bench.port.deliver(packets::packet("*>LOG" + record));
    QCOMPARE(received.size(), 1);
    QTEST(received.first().log, "log");
    QTEST(received.first().type, "type");
    QTEST(received.first().datetime.toMSecsSinceEpoch(), "milliseconds");
    QTEST(received.first().data, "data");
    QCOMPARE(received.first().datetime.timeSpec(), Qt::LocalTime);
}

// packets::log_record is of 2023-11-14 22:13:20.250 UTC, as "date -u -d @1700000000" says.
void RequestsTest::aRecordsTimeIsLocal()
{
    ProtocolBench bench;
    QDateTime received;
    connect(&bench.protocol, &jvxb::Protocol::logReceived, &bench.port,
        [&received](jvxb::Log, quint8, const QDateTime &datetime) { received = datetime; });
    bench.port.deliver(packets::log_record);
    QCOMPARE(received.date(), QDate(2023, 11, 15));
    QCOMPARE(received.time(), QTime(3, 43, 20, 250));
}

void RequestsTest::whatIsNoRecordIsIgnored_data()
{
    QTest::addColumn<QByteArray>("body");

    for (int size = 0; size < 8; ++size)
        QTest::addRow("%d bytes", size) << "*>LOG" + QByteArray(size, '\x0E');
    QTest::newRow("another key") << QByteArray("*>LAG12345678");
    QTest::newRow("key in lower case") << QByteArray("*>log12345678");
    QTest::newRow("key cut short") << QByteArray("*>LO");
    QTest::newRow("key one byte late") << QByteArray("*>xLOG12345678");
    QTest::newRow("no key") << QByteArray("*>x");
    QTest::newRow("two bytes of a key") << QByteArray("*>LO12345678");
    QTest::newRow("another direction") << QByteArray("*<LOG12345678");
    QTest::newRow("another start") << QByteArray(">>LOG12345678");
}

void RequestsTest::whatIsNoRecordIsIgnored()
{
    QFETCH(QByteArray, body);
    ProtocolBench bench;
    bench.protocol.logEnable(1);
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.logs, QByteArrayList{});
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::log_record + packets::mask_answer);
    QCOMPARE(bench.logs, QByteArrayList{"up"});
    QCOMPARE(bench.results, QByteArrayList{"logEnabled 0 16384"});
}

QTEST_GUILESS_MAIN(RequestsTest)

#include "tst_requests.moc"
