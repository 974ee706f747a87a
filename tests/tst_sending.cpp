#include "localfiles.h"
#include "plainterminal.h"
#include "protocolbench.h"

#include <QTest>

/// A request goes out at once, and an error of the port can come while it does.
class SendingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aRequestIsSentWhenTheCallReturns();
    void aRequestOnAClosedPortIsNoErrorOfThePort();
    void anErrorWhileARequestIsSentLeavesItPending();
    void aTransactionMayEndWhileItsRequestIsSent_data();
    void aTransactionMayEndWhileItsRequestIsSent();
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

void SendingTest::anErrorWhileARequestIsSentLeavesItPending()
{
    ProtocolBench bench;
    bench.port.failNextWrite(QSerialPort::WriteError, QStringLiteral("gone"));
    bench.protocol.readSoftVersion();
    QCOMPARE(bench.results, QByteArrayList({"errorOccured \"gone\""}));
    QCOMPARE(bench.pending().size(), 1);
    QTRY_COMPARE(bench.results.size(), 2);
    QCOMPARE(bench.lastResult(), QByteArray("softVersionReaded -1 \"\" \"\" \"\" \"\""));
    QCOMPARE(bench.pending().size(), 0);
}

void SendingTest::aTransactionMayEndWhileItsRequestIsSent_data()
{
    QTest::addColumn<int>("answers");
    QTest::newRow("at the begin") << 0;
    QTest::newRow("in the answer handler") << 1;
    QTest::newRow("in a later answer handler") << 2;
}

// What touches the transaction afterwards is for the sanitizer to find.
void SendingTest::aTransactionMayEndWhileItsRequestIsSent()
{
    QFETCH(const int, answers);
    ProtocolBench bench;
    QObject::connect(&bench.protocol, &jvxb::Protocol::errorOccured, &bench.port,
        [&bench] { bench.protocol.end(bench.pending().constFirst()); });
    const PlainTerminal terminal(files::sample(1300));
    const QByteArray answer = terminal.answerTo("*!FR" + QByteArray(11, '\0'));
    for (int request = 0; request <= answers; ++request) {
        if (request == answers)
            bench.port.failNextWrite(QSerialPort::WriteError, QStringLiteral("gone"));
        if (request == 0)
            bench.protocol.readFile(File::Settings);
        else
            bench.port.deliver(answer);
    }
    QCOMPARE(bench.lastResult(), QByteArray("errorOccured \"gone\""));
    QCOMPARE(bench.pending().size(), 0);
    bench.port.deliver(answer);
    QTest::qWait(700); // the answer time, and no result
    QCOMPARE(bench.lastResult(), QByteArray("errorOccured \"gone\""));
}

QTEST_GUILESS_MAIN(SendingTest)
#include "tst_sending.moc"
