#include "packets.h"
#include "protocolbench.h"

#include <QPointer>
#include <QTest>
#include <QTimeZone>
#include <QTimer>

namespace {

constexpr qsizetype header_size = 16;
constexpr qsizetype mebibyte = 1024 * 1024;

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

/// A file request as it left the port, taken apart.
struct SentPiece {
    explicit SentPiece(const QByteArray &packet)
        : body(packet.sliced(header_size))
        , handle(numberAt(5, 4))
        , offset(numberAt(9, 4))
        , length(numberAt(13, 2))
    {
    }

    quint32 numberAt(qsizetype at, int size) const { return static_cast<quint32>(packets::numberAt(body, at, size)); }

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
    // Identification
    void anIdentificationAnswerThatIsNotUnderstoodIsReported_data();
    void anIdentificationAnswerThatIsNotUnderstoodIsReported();

    // All file requests
    void theOutcomeOfAFileAnswerIsReported_data();
    void theOutcomeOfAFileAnswerIsReported();
    void anAnswerForAnotherKindIsIgnored_data();
    void anAnswerForAnotherKindIsIgnored();
    void anAnswerForAnotherKindMayBeCut();
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
    void aLengthBeyondThePayloadIsNotUnderstood();
    void aFailureDiscardsTheBytesReadBefore();
    void theGreatestAnnouncedSizeIsUnsigned();
    void eachReadPieceHasItsOwnTime();
    void aReadTimesOutWithTheLastPiece();
    void ofTwoReadsTheOlderIsAnsweredFirst();

    // Writing
    void aFileIsWritten_data();
    void aFileIsWritten();
    void writeRequestsAreExact();
    void anEmptyFileIsOneRequest();
    void whatWasNotAcceptedIsSentAgain();
    void anAcceptanceDecidesWhatIsNext_data();
    void anAcceptanceDecidesWhatIsNext();
    void eachWrittenPieceHasFiveSeconds();

    // Applying
    void theApplyRequestIsExact();

    // Log
    void theMaskInForceIsReported();
    void aShortMaskIsNotUnderstood();
    void aRecordIsReported();
    void whatIsNoRecordIsIgnored_data();
    void whatIsNoRecordIsIgnored();
};

// ---- identification -----------------------------------------------------------------------------------------------

void RequestsTest::anIdentificationAnswerThatIsNotUnderstoodIsReported_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("result");
    QTest::newRow("software") << QByteArray("*#V") << QByteArray(R"(softVersionReaded -2 "" "" "" "")");
    QTest::newRow("hardware") << QByteArray("*#H") << QByteArray("hardVesionReaded -2 0");
    QTest::newRow("serial number") << QByteArray("*#S") << QByteArray(R"(serialNumberReaded -2 "")");
}

void RequestsTest::anIdentificationAnswerThatIsNotUnderstoodIsReported()
{
    QFETCH(QByteArray, body);
    QFETCH(QByteArray, result);
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.protocol.readHardVersion();
    bench.protocol.readSerialNumber();
    bench.port.deliver(packets::packet(body));
    QCOMPARE(bench.results, QByteArrayList{result});
    QCOMPARE(bench.pending().size(), 2); // the request is finished
}

// ---- all file requests --------------------------------------------------------------------------------------------

// tst_payloads tests which bytes make which answer; here every request has to report every outcome.
void RequestsTest::theOutcomeOfAFileAnswerIsReported_data()
{
    QTest::addColumn<Request>("send");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QByteArray>("result");

    for (const FileRequest &request : file_requests) {
        const QByteArray head = QByteArray("*@") + request.key;
        for (const int status : {0, 1, 127, 128, 255})
            QTest::addRow("%s, status %d", request.key, status)
                << request.send << head + static_cast<char>(status) << failure(request, static_cast<qint8>(status));
        QTest::addRow("%s, too short", request.key)
            << request.send << head + success(request.min_size - 1) << failure(request, -2);
        QTest::addRow("%s, the shortest", request.key)
            << request.send << head + success(request.min_size) << failure(request, 0);
    }
}

void RequestsTest::theOutcomeOfAFileAnswerIsReported()
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

// The kind is looked at before the piece.
void RequestsTest::anAnswerForAnotherKindMayBeCut()
{
    ReadBench bench;
    bench.port.deliver(packets::packet("*@FR" + FileAnswer{.file = File::Epo, .length = 9}.bytes()));
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.pending().size(), 1);
    bench.port.deliver(packets::packet("*@FR" + FileAnswer{.length = 9}.bytes()));
    QCOMPARE(bench.results, QByteArrayList{"fileReaded -2 3 0 bytes"});
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

// The serial number is requested 200 ms after the read, and has to time out after it; if the answer for another kind
// gave the read new time, it would time out first.
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
    QTest::addColumn<int>("kind");

    for (const int kind : {0, 1, 11, 12, 200, 255})
        QTest::addRow("%d", kind) << kind;
}

void RequestsTest::theKindIsSentAsItIs()
{
    QFETCH(int, kind);
    const auto file = static_cast<File>(kind);
    ProtocolBench bench;
    bench.protocol.readFile(file);
    bench.protocol.writeFile(file, {});
    bench.protocol.applyFile(file, 0);
    QCOMPARE(bench.port.written().size(), 3);
    for (const QByteArray &packet : bench.port.written())
        QCOMPARE(static_cast<File>(packet[header_size + 4]), file);
    bench.port.deliver(packets::packet("*@FU" + FileAnswer{.file = file}.bytes()));
    QCOMPARE(bench.results, QByteArrayList{"fileApplied 0 " + QByteArray::number(kind)});
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
    const QByteArray file = packets::fileData(size);
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
    const QByteArray piece = packets::fileData(length);
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
    const QByteArray data = packets::fileData(1024);
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
    const QByteArray data = packets::fileData(2 * length);
    const auto full_size = static_cast<quint32>(data.size());
    ReadBench bench;
    bench.port.deliver(readAnswer(data.first(length), full_size));
    QCOMPARE(SentPiece(bench.port.lastWritten()).offset, static_cast<quint32>(length));
    bench.port.deliver(readAnswer(data.last(length), full_size));
    QCOMPARE(bench.file, data);
    QCOMPARE(bench.results.value(0),
        "fileReadingProgress 3 " + QByteArray::number(length) + ' ' + QByteArray::number(full_size));
}

void RequestsTest::aLengthBeyondThePayloadIsNotUnderstood()
{
    ReadBench bench;
    bench.port.deliver(readAnswer(QByteArray(512, 'a'), 2000));
    bench.port.deliver(
        packets::packet("*@FR" + FileAnswer{.length = 512}.bytes() + packets::number(2000, 4) + QByteArray(511, 'b')));
    QCOMPARE(bench.results, (QByteArrayList{"fileReadingProgress 3 512 2000", "fileReaded -2 3 0 bytes"}));
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

// The four pauses together are longer than one time-out of 500 ms.
void RequestsTest::eachReadPieceHasItsOwnTime()
{
    ReadBench bench;
    for (int piece = 0; piece < 4; ++piece) {
        QTest::qWait(150);
        bench.port.deliver(readAnswer(QByteArray(512, 'a'), 2048));
    }
    QCOMPARE(bench.lastResult(), QByteArray("fileReaded 0 3 2048 bytes"));
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
void RequestsTest::ofTwoReadsTheOlderIsAnsweredFirst()
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
    const QByteArray file = packets::fileData(size);
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
    const QByteArray data = packets::fileData(1000);
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

void RequestsTest::eachWrittenPieceHasFiveSeconds()
{
    WriteBench bench(packets::fileData(600));
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

// ---- log ----------------------------------------------------------------------------------------------------------

// The mask of the answer is reported, not the one that was requested.
void RequestsTest::theMaskInForceIsReported()
{
    ProtocolBench bench;
    bench.protocol.logEnable(0x12345678);
    bench.port.deliver(packets::packet("*@LOG" + packets::number(0x01020304, 4) + "more"));
    QCOMPARE(bench.results, QByteArrayList{"logEnabled 0 16909060"});
    QCOMPARE(bench.pending().size(), 0);
}

void RequestsTest::aShortMaskIsNotUnderstood()
{
    ProtocolBench bench;
    bench.protocol.logEnable(0x12345678);
    bench.port.deliver(packets::packet("*@LOG" + packets::number(0x01020304, 3)));
    QCOMPARE(bench.results, QByteArrayList{"logEnabled -2 0"});
    QCOMPARE(bench.pending().size(), 0);
}

// packets::log_record is of 2023-11-14 22:13:20.250 UTC, as "date -u -d @1700000000" says.
void RequestsTest::aRecordIsReported()
{
    ProtocolBench bench;
    QList<ReceivedRecord> received;
    connect(&bench.protocol, &jvxb::Protocol::logReceived, &bench.port,
        [&received](jvxb::Log log, quint8 type, const QDateTime &datetime, const QByteArray &data) {
            received.append({static_cast<int>(log), type, datetime, data});
        });
    bench.port.deliver(packets::log_record);
    QCOMPARE(received.size(), 1);
    QCOMPARE(received.first().log, 14);
    QCOMPARE(received.first().type, 3);
    QCOMPARE(received.first().datetime.toUTC(), QDateTime({2023, 11, 14}, {22, 13, 20, 250}, QTimeZone::utc()));
    QCOMPARE(received.first().datetime.timeSpec(), Qt::LocalTime);
    QCOMPARE(received.first().data, QByteArray("up"));
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
