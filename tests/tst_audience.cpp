#include "harness.h"

/// The reader of the tool's output leaves: what is done for the terminal is done to its end all the same, but the log
/// is not printed to nobody.
class TestAudience : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aWriteOutlivesItsReader_data();
    void aWriteOutlivesItsReader();
    void anApplyOutlivesItsReader_data();
    void anApplyOutlivesItsReader();
    void aReadOutlivesItsReader_data();
    void aReadOutlivesItsReader();
    void aFailureKeepsItsCode_data();
    void aFailureKeepsItsCode();
    void theLogEndsWithItsReader_data();
    void theLogEndsWithItsReader();
};

namespace {

const QByteArray settings = files::sample(100'000);

/// The rows: what reads the output, and how many lines that are.
void readers()
{
    QTest::addColumn<QString>("reader");
    QTest::addColumn<int>("lines");
    QTest::newRow("gone before the start") << QStringLiteral("true") << 0;
    QTest::newRow("gone after three lines") << QStringLiteral("head -n 3") << 3;
}

/// The tool, its output going to \a reader. One that reads nothing has left before the tool starts.
Tool toolRead(const QString &reader, const QStringList &arguments)
{
    const QString wait = reader == QLatin1String("true") ? QStringLiteral("wait $!; ") : QString();
    const QString command = QStringLiteral("exec 3> >(exec %1); %2exec \"$@\" >&3").arg(reader, wait);
    return {QStringLiteral("bash"),
        QStringList{QStringLiteral("-c"), command, QStringLiteral("bash"), QStringLiteral(JVX_LOADER)} + arguments, {}};
}

/// The number of lines that came through to the reader of the reader.
qsizetype lines(const Run &run)
{
    return run.output.count('\n');
}

} // namespace

void TestAudience::aWriteOutlivesItsReader_data()
{
    readers();
}

void TestAudience::aWriteOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, settings);
    const Run run = toolRead(reader,
        {QStringLiteral("-p"), terminal.port(), QStringLiteral("-w"), QStringLiteral("-f"), QStringLiteral("settings"),
            local})
                        .finish();
    QCOMPARE(run.errors, QByteArray());
    QTEST(static_cast<int>(lines(run)), "lines");
    QCOMPARE(run.code, 0);
    QCOMPARE(files::content(terminal.own(QStringLiteral("settings"))), settings);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestAudience::anApplyOutlivesItsReader_data()
{
    readers();
}

void TestAudience::anApplyOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, settings);
    const Run run = toolRead(reader,
        {QStringLiteral("-p"), terminal.port(), QStringLiteral("-w"), QStringLiteral("-a"), QStringLiteral("-f"),
            QStringLiteral("settings"), local})
                        .finish();
    QTEST(static_cast<int>(lines(run)), "lines");
    QCOMPARE(run.code, 0);
    QCOMPARE(files::content(terminal.own(QStringLiteral("settings"))), settings);
    // The terminal has restarted, and has been asked for its log after that.
    QCOMPARE(terminal.record().mid(terminal.record().size() - 3, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4700400000"));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestAudience::aReadOutlivesItsReader_data()
{
    readers();
}

void TestAudience::aReadOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    files::store(terminal.own(QStringLiteral("settings")), settings);
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = toolRead(reader,
        {QStringLiteral("-p"), terminal.port(), QStringLiteral("-r"), QStringLiteral("-f"), QStringLiteral("settings"),
            local})
                        .finish();
    QTEST(static_cast<int>(lines(run)), "lines");
    QCOMPARE(run.code, 0);
    QCOMPARE(files::content(local), settings);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestAudience::aFailureKeepsItsCode_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::newRow("refused") << QStringList{QStringLiteral("-r"), QStringLiteral("x")} << 2;
    QTest::newRow("no such port") << QStringList{QStringLiteral("-p"), QStringLiteral("X")} << 256 - 105;
    QTest::newRow("no path") << QStringList{QStringLiteral("-r")} << 256 - 101;
}

void TestAudience::aFailureKeepsItsCode()
{
    QFETCH(QStringList, options);
    FilingTerminal terminal;
    const QStringList port{QStringLiteral("-p"), terminal.port()};
    QTEST(toolRead(QStringLiteral("true"), port + options).finish().code, "code");
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestAudience::theLogEndsWithItsReader_data()
{
    QTest::addColumn<QString>("reader");
    QTest::addColumn<int>("lines");
    QTest::newRow("after the first record") << QStringLiteral("head -n 12") << 12;
    QTest::newRow("before the log began") << QStringLiteral("head -n 3") << 3;
    QTest::newRow("before the start") << QStringLiteral("true") << 0;
}

void TestAudience::theLogEndsWithItsReader()
{
    QFETCH(QString, reader);
    SimulatedTerminal terminal({QStringLiteral("--log-rate"), QStringLiteral("20")});
    const Run run = toolRead(reader, {QStringLiteral("-p"), terminal.port(), QStringLiteral("-m")}).finish();
    QTEST(static_cast<int>(lines(run)), "lines");
    QCOMPARE(run.code, -1); // by the signal
    QVERIFY(terminal.requests().contains("2a214c4f4700400000"));
}

QTEST_GUILESS_MAIN(TestAudience)
#include "tst_audience.moc"
