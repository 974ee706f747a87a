#include "capture.h"
#include "packets.h"
#include "protocolbench.h"
#include "stdoutput.h"

#include <QEventLoop>
#include <QPointer>
#include <QTest>
#include <QTimer>

#include <cerrno>
#include <cstring>

namespace {

using Request = void (*)(jvxb::Protocol &);

struct KnownRequest {
    const char *name;
    Request send;
    const char *packet;  ///< in hexadecimal digits
    const char *timeout; ///< what is reported when no answer comes
    int milliseconds;    ///< after which that is reported
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
        "404a56580000000001000000030043452a3f56", R"(softVersionReaded -1 "" "" "" "")", 500},
    {"hardware version", [](jvxb::Protocol &protocol) { protocol.readHardVersion(); },
        "404a5658000000000100000003005d5b2a3f48", "hardVesionReaded -1 0", 500},
    {"serial number", [](jvxb::Protocol &protocol) { protocol.readSerialNumber(); },
        "404a56580000000001000000030046402a3f53", R"(serialNumberReaded -1 "")", 500},
    {"read file", [](jvxb::Protocol &protocol) { protocol.readFile(File::RoadAccident); },
        "404a565800000000010000000f001e142a2146520300000000000000000002", "fileReaded -1 3 0 bytes", 500},
    {"write file", [](jvxb::Protocol &protocol) { protocol.writeFile(File::Firmware, "abc"); },
        "404a5658000000000100000016007b682a214657010000000000000000030003000000616263", "fileWritten -1 1", 5000},
    {"apply file", [](jvxb::Protocol &protocol) { protocol.applyFile(File::UserFirmware, 0xCBF43926); },
        "404a565800000000010000000d00333b2a2146550b000000002639f4cb", "fileApplied -1 11", 500},
    {"log enable", [](jvxb::Protocol &protocol) { protocol.logEnable(0x4000); },
        "404a5658000000000100000009000f032a214c4f4700400000", "logEnabled -1 0", 500},
};

constexpr qsizetype header_size = 16;

const QByteArray software_result = R"(softVersionReaded 0 "JVX" "1.2" "2024-05-06" "en")";
const QByteArray hardware_result = "hardVesionReaded 0 72623859790382856";
const QByteArray serial_number_result = R"(serialNumberReaded 0 "350000000000017")";
const QByteArray mask_result = "logEnabled 0 16384";

using NewTransaction = jvxb::Transaction *(*)(jvxb::Protocol &protocol, const QByteArray &key);

jvxb::Transaction *newAsk(jvxb::Protocol &protocol, const QByteArray &key)
{
    return new jvxb::Ask(key, &protocol, 60'000);
}

jvxb::Transaction *newCommand(jvxb::Protocol &protocol, const QByteArray &key)
{
    return new jvxb::Command(key, &protocol, 60'000);
}

jvxb::Transaction *newFileCommand(jvxb::Protocol &protocol, const QByteArray &key)
{
    return new jvxb::FileCommand(File::Epo, {}, key, &protocol, 60'000);
}

} // namespace

class ProtocolTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Sending
    void aRequestIsOnePacketInOneWrite_data();
    void aRequestIsOnePacketInOneWrite();
    void aTransactionMakesItsRequestOfKeyAndData();
    void aTransactionKnowsItsAnswer_data();
    void aTransactionKnowsItsAnswer();
    void onlyFileRequestsNeedATransactionOfTheirOwn_data();
    void onlyFileRequestsNeedATransactionOfTheirOwn();

    // Receiving
    void aPacketMayComeByteByByte();
    void packetsBackToBackAreAllProcessed();
    void closingThePortForgetsHalfAPacket();
    void closingThePortEndsNoRequest();

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
    void aResultMaySendTheNextRequest();
    void aResultMaySendManyRequests();
    void anAnswerMayArriveWhileAResultIsReported();

    // Time-outs
    void aSilentTerminalIsReportedInTime_data();
    void aSilentTerminalIsReportedInTime();
    void aTimeoutIsReportedAtOnce();
    void aTimeoutIsReportedOnce();
    void aLateAnswerIsIgnored();
    void aTimedOutRequestMayBeRepeatedFromItsResult();
    void anAnsweredRequestDoesNotTimeOut();
    void oneTimeoutLeavesTheOthersAlone();
    void aTransactionThatIsNotForItsKeyTimesOutSilently_data();
    void aTransactionThatIsNotForItsKeyTimesOutSilently();
    void aTimeoutOfNoTransactionChangesNothing();
    void sendingAgainSendsTheSame();
    void sendingAgainBeginsTheTimeAnew();
    void sendingAgainKeepsThePlaceInTheQueue();
    void endDeletesATransactionOutsideTheQueue();
    void endTakesATransactionFromTheQueue();
    void pendingTransactionsDieWithTheirProtocol();

    // Errors
    void aPortErrorIsReportedWithItsText();
    void noErrorOfThePortIsNotReported();
    void theTextOfAFullLineIsAnErrorIfNothingWaits();
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
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<qsizetype>("payload");

    const auto row = [](const char *body, qsizetype payload) { QTest::newRow(body) << QByteArray(body) << payload; };
    row("*#KEY", 5);
    row("*#KEYpayload", 5);
    row("*#KEYKEY", 5);
    row("x#KEY", 5); // the start character is not checked here
    row("*@KEY", -1);
    row("*?KEY", -1);
    row("*>KEY", -1);
    row("*#", -1);
    row("*#KE", -1);
    row("*#key", -1);
    row("*#xKEY", -1);
    row("*", -1);
    row("", -1);
}

void ProtocolTest::aTransactionKnowsItsAnswer()
{
    QFETCH(QByteArray, body);
    const jvxb::Ask ask("KEY", nullptr, 1);
    QTEST(ask.checkResponse(body), "payload");
}

void ProtocolTest::onlyFileRequestsNeedATransactionOfTheirOwn_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<NewTransaction>("make");
    QTest::addColumn<QByteArrayList>("results");

    const auto row = [](const char *key, NewTransaction make, const QByteArrayList &results) {
        const char *const name = make == newCommand ? "Command" : "FileCommand";
        QTest::addRow("%s, %s", key, name) << QByteArray(key) << make << results;
    };
    row("V", newCommand, {R"(softVersionReaded 0 "111" "" "" "")"});
    row("S", newFileCommand, {R"(serialNumberReaded 0 "111")"});
    row("LOG", newFileCommand, {"logEnabled 0 825307450"});
    row("FR", newCommand, {});
    row("FW", newCommand, {});
    row("FU", newCommand, {});
    row("FU", newFileCommand, {"fileApplied 58 10"});
    row("KEY", newFileCommand, {});
}

// Most of the transactions are of another class than the engine itself begins for their key.
void ProtocolTest::onlyFileRequestsNeedATransactionOfTheirOwn()
{
    QFETCH(QByteArray, key);
    QFETCH(NewTransaction, make);
    QFETCH(QByteArrayList, results);
    ProtocolBench bench;
    bench.protocol.begin(make(bench.protocol, key));
    const bool lacks_file = make == newCommand && key.startsWith('F');
    const QByteArray payload = lacks_file ? '1' + QByteArray(15, '\0') : QByteArray(":111"); // a success; an error
    bench.port.deliver(packets::packet("*@" + key + payload));
    QCOMPARE(bench.results, results);
    QCOMPARE(bench.pending().size(), 0);
}

// ---- receiving -----------------------------------------------------------------------------------------------------

void ProtocolTest::aPacketMayComeByteByByte()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    bench.port.deliverInPieces(packets::software_answer.chopped(1), 1);
    QCOMPARE(bench.results, QByteArrayList{});
    bench.port.deliver(packets::software_answer.last(1));
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

void ProtocolTest::closingThePortEndsNoRequest()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    bench.port.close();
    bench.port.openAgain();
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, QByteArrayList{hardware_result});
}

// ---- matching answers ---------------------------------------------------------------------------------------------

void ProtocolTest::whatIsNoAnswerIsIgnored_data()
{
    QTest::addColumn<QByteArray>("body");

    for (const char *body : {"*?V:A", "*!V:A", "*@V:A", "*>V:A", "* V:A", "##V:A", "?#V:A", "@#V:A", "*#X:A", "*#v:A",
             "*#H:A", "*# V:A", "*#:V", "#V:A", "**#V:A", "+#V:A", "*>LOG", "*@LOG1234"})
        QTest::newRow(body) << QByteArray(body);
    QTest::newRow("*> and a zero byte") << QByteArray("*>\0", 3);
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

// Nor is it kept for later: not for the next request, not for the next turn of the event loop, not for the next packet.
void ProtocolTest::anAnswerWithoutARequestIsIgnored()
{
    ProtocolBench bench;
    bench.port.deliver(packets::software_answer + packets::mask_answer);
    QCOMPARE(bench.results, QByteArrayList{});
    bench.protocol.begin(newAsk(bench.protocol, "V"));
    bench.protocol.begin(newCommand(bench.protocol, "LOG"));
    QEventLoop loop;
    QTimer::singleShot(50, &loop, &QEventLoop::quit); // behind any earlier timer, however late the machine is
    loop.exec();
    bench.port.deliver(packets::log_record);
    QCOMPARE(bench.results, QByteArrayList{});
    QCOMPARE(bench.pending().size(), 2);
    bench.port.deliver(packets::packet("*#V:later"));
    bench.port.deliver(packets::packet(QByteArray("*@LOG\x01\0\0\0", 9)));
    QCOMPARE(bench.results, (QByteArrayList{R"(softVersionReaded 0 "later" "" "" "")", "logEnabled 0 1"}));
}

void ProtocolTest::anAnswerIsTakenOnce()
{
    ProtocolBench bench;
    bench.protocol.readSoftVersion();
    const QPointer<jvxb::Transaction> transaction(bench.pending().first());
    bench.port.deliver(packets::software_answer + packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList{software_result});
    QVERIFY(!transaction);
    bench.protocol.readSoftVersion();
    bench.port.deliver(packets::packet("*#V:later"));
    QCOMPARE(bench.results, (QByteArrayList{software_result, R"(softVersionReaded 0 "later" "" "" "")"}));
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

// Records before and behind an answer change nothing, however the stream is cut. A record in the middle of an answer
// makes its body checksum fail: the answer is lost, and the record is found.
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

    for (const KnownRequest &request : known_requests)
        QTest::newRow(request.name) << request.send << QByteArray(request.timeout) << request.milliseconds;
}

// Timers count whole milliseconds of another clock than this one, so 1 ms less may pass here.
void ProtocolTest::aSilentTerminalIsReportedInTime()
{
    QFETCH(Request, send);
    QFETCH(QByteArray, result);
    QFETCH(int, milliseconds);
    ProtocolBench bench;
    send(bench.protocol);
    // However busy the machine is, timers end in the order in which they are due.
    bool is_late = false;
    QTimer::singleShot(milliseconds * 6 / 5, Qt::PreciseTimer, &bench.port, [&] { is_late = bench.results.isEmpty(); });
    const QPointer<jvxb::Transaction> transaction(bench.pending().first());
    QTRY_COMPARE_WITH_TIMEOUT(bench.results, QByteArrayList{result}, milliseconds + 3000);
    QVERIFY2(bench.lastResultAt() >= milliseconds - 1, QByteArray::number(bench.lastResultAt()));
    QVERIFY(!is_late);
    QVERIFY(!transaction);
}

// An answer that has not been read when the time is over is late.
void ProtocolTest::aTimeoutIsReportedAtOnce()
{
    ProtocolBench bench;
    bench.protocol.readHardVersion();
    Q_EMIT bench.pending().first()->timeout();
    bench.port.deliver(packets::hardware_answer);
    QCOMPARE(bench.results, QByteArrayList{"hardVesionReaded -1 0"});
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
    bench.protocol.readHardVersion();
    bench.port.deliver(packets::packet("*#H:BHR:" + packets::number(5, 8)));
    QCOMPARE(bench.results, (QByteArrayList{"hardVesionReaded -1 0", "hardVesionReaded 0 5"}));
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

void ProtocolTest::aTransactionThatIsNotForItsKeyTimesOutSilently_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::newRow("an unknown key") << QByteArray("KEY");
    for (const char *key : {"FR", "FW", "FU"})
        QTest::addRow("%s, without a file", key) << QByteArray(key);
}

void ProtocolTest::aTransactionThatIsNotForItsKeyTimesOutSilently()
{
    QFETCH(const QByteArray, key);
    ProtocolBench bench;
    const QPointer<jvxb::Transaction> transaction(new jvxb::Command(key, &bench.protocol, 20));
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

void ProtocolTest::sendingAgainSendsTheSame()
{
    ProtocolBench bench;
    auto *const transaction = new jvxb::Ask("H", &bench.protocol, 60'000);
    transaction->setPayload("more");
    bench.protocol.begin(transaction);
    bench.protocol.continuE(transaction);
    QCOMPARE(bench.port.written(), QByteArrayList(2, packets::request("*?Hmore")));
}

void ProtocolTest::sendingAgainBeginsTheTimeAnew()
{
    ProtocolBench bench;
    auto *const transaction = new jvxb::Ask("H", &bench.protocol, 500);
    bench.protocol.begin(transaction);
    QTest::qWait(200);
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

// The port reports a hang-up with the text of the system's latest error, which may be that of a full line.
void ProtocolTest::theTextOfAFullLineIsAnErrorIfNothingWaits()
{
    ProtocolBench bench;
    const QString text = QString::fromLocal8Bit(std::strerror(EAGAIN));
    QCOMPARE(bench.port.bytesToWrite(), 0);
    bench.port.fail(QSerialPort::ReadError, text);
    QCOMPARE(bench.results, QByteArrayList{"errorOccured \"" + text.toUtf8() + '"'});
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
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("form");

    const auto row = [](int value, const char *text, const char *form) {
        QTest::newRow(form) << value << QByteArray(text) << QByteArray(form);
    };
    row(0, "None", "None(0)");
    row(-1, "Timeout", "Timeout(-1)");
    row(-2, "Unknown response", "Unknown response(-2)");
    row(-3, "Unknown", "Unknown(-3)");
    row(-4, "Unknown", "Unknown(-4)");
    row(-7, "Unknown", "Unknown(-7)");
    row(-128, "Unknown", "Unknown(-128)");
    row(1, nullptr, "1");
    row(48, nullptr, "48");
    row(127, nullptr, "127");
}

// Codes of the terminal, above 0, have no text.
void ProtocolTest::anErrorHasATextAndAConsoleForm()
{
    QFETCH(int, value);
    QFETCH(QByteArray, text);
    const auto error = static_cast<jvxb::Error>(value);
    if (!text.isNull())
        QCOMPARE(QByteArray(jvxb::errorText(error)), text);

    const Capture capture;
    StdOutput output(false);
    output << error;
    QTEST(capture.written(), "form");
}

QTEST_GUILESS_MAIN(ProtocolTest)

#include "tst_protocol.moc"
