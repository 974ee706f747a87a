#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "protocolbench.h"

#include <QLoggingCategory>
#include <QTest>

/// A request goes out at once, its answer time begins then, and an error of the port meanwhile is reported afterwards.
class SendingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRequestIsSentWhenTheCallReturns();
    void aRequestOnAClosedPortIsNoErrorOfThePort();
    void anErrorWhileARequestIsSentIsReportedLater();
    void aRequestThatCouldNotBeSentMayBeEnded_data();
    void aRequestThatCouldNotBeSentMayBeEnded();
    void theAnswerTimeBeginsWhenTheRequestIsSent();
    void theAnswerTimeOfAFurtherPieceBeginsWhenItsRequestIsSent();
};

void SendingTest::aRequestIsSentWhenTheCallReturns()
{
    PlainTerminal terminal;
    QSerialPort port(terminal.port());
    QVERIFY(port.open(QIODevice::ReadWrite));
    jvxb::Protocol protocol(&port, nullptr);
    protocol.readSoftVersion();
    QCOMPARE(terminal.request(), QByteArray("*?V"));
}

void SendingTest::aRequestOnAClosedPortIsNoErrorOfThePort()
{
    ProtocolBench bench;
    bench.port.close();
    QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (QSerialPort): device not open");
    bench.protocol.readSoftVersion();
    QTRY_COMPARE(bench.results.size(), 1);
    QCOMPARE(bench.results, QByteArrayList({"softVersionReaded -1 \"\" \"\" \"\" \"\""}));
}

// A slot that gets the error may do anything, such as end the request, which is still in use while it is sent.
void SendingTest::anErrorWhileARequestIsSentIsReportedLater()
{
    ProtocolBench bench;
    bench.port.failNextWrite(QSerialPort::WriteError, QStringLiteral("gone"));
    bench.protocol.readSoftVersion();
    QCOMPARE(bench.results, QByteArrayList());
    QCOMPARE(bench.pending().size(), 1);
    QTRY_COMPARE(bench.results, QByteArrayList({"errorOccured \"gone\""}));
    QCOMPARE(bench.pending().size(), 1);
    QTRY_COMPARE(bench.results.size(), 2);
    QCOMPARE(bench.lastResult(), QByteArray("softVersionReaded -1 \"\" \"\" \"\" \"\""));
    QCOMPARE(bench.pending().size(), 0);
}

void SendingTest::aRequestThatCouldNotBeSentMayBeEnded_data()
{
    QTest::addColumn<int>("answers");
    QTest::newRow("the first one") << 0;
    QTest::newRow("the second piece") << 1;
    QTest::newRow("the third piece") << 2;
}

// The build with the sanitizer finds any access to the transaction after its end.
void SendingTest::aRequestThatCouldNotBeSentMayBeEnded()
{
    QFETCH(const int, answers);
    ProtocolBench bench;
    QObject::connect(&bench.protocol, &jvxb::Protocol::errorOccured, &bench.port,
        [&bench] { bench.protocol.end(bench.pending().constFirst()); });
    const PlainTerminal terminal(files::sample(2000));
    const QByteArray answer = terminal.answerTo("*!FR" + QByteArray(11, '\0'));
    for (int request = 0; request <= answers; ++request) {
        if (request == answers)
            bench.port.failNextWrite(QSerialPort::WriteError, QStringLiteral("gone"));
        if (request == 0)
            bench.protocol.readFile(File::Settings);
        else
            bench.port.deliver(answer);
    }
    QCOMPARE(bench.pending().size(), 1);
    QTRY_COMPARE(bench.lastResult(), QByteArray("errorOccured \"gone\""));
    QCOMPARE(bench.pending().size(), 0);
    bench.port.deliver(answer);
    QTest::qWait(700); // longer than the answer time, and no result comes
    QCOMPARE(bench.lastResult(), QByteArray("errorOccured \"gone\""));
}

namespace {

void stall(QtMsgType /*type*/, const QMessageLogContext & /*context*/, const QString & /*message*/)
{
    QTest::qSleep(700); // longer than the answer time
}

/// While it lives the trace is on, and each line of it takes long, as on a slow disk.
class SlowTrace {
public:
    SlowTrace()
        : _handler(qInstallMessageHandler(stall))
    {
        QLoggingCategory::setFilterRules(QStringLiteral("jvx.wire.debug=true"));
    }

    ~SlowTrace()
    {
        QLoggingCategory::setFilterRules({});
        qInstallMessageHandler(_handler);
    }

    SlowTrace(const SlowTrace &) = delete;
    SlowTrace &operator=(const SlowTrace &) = delete;

private:
    const QtMessageHandler _handler;
};

} // namespace

void SendingTest::theAnswerTimeBeginsWhenTheRequestIsSent()
{
    ProtocolBench bench;
    {
        const SlowTrace trace;
        bench.protocol.readSoftVersion();
    }
    QTest::qWait(50);
    bench.port.deliver(packets::software_answer);
    QCOMPARE(bench.results, QByteArrayList({R"(softVersionReaded 0 "JVX" "1.2" "2024-05-06" "en")"}));
}

void SendingTest::theAnswerTimeOfAFurtherPieceBeginsWhenItsRequestIsSent()
{
    ProtocolBench bench;
    const PlainTerminal terminal(files::sample(2000));
    bench.protocol.readFile(File::Settings);
    {
        const SlowTrace trace;
        bench.port.deliver(terminal.answerTo("*!FR" + QByteArray(11, '\0')));
    }
    QTest::qWait(50);
    QCOMPARE(bench.results, QByteArrayList({"fileReadingProgress 0 512 2000"})); // and no time-out
    QCOMPARE(bench.port.written().size(), 2);
}

QTEST_GUILESS_MAIN(SendingTest)
#include "tst_sending.moc"
