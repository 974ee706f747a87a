#include "console.h"
#include "localfiles.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QTest>

/// The reader of the tool's output leaves: what is done for the terminal is done to its end all the same, but the log
/// is not printed to nobody.
class AudienceTest : public QObject {
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
Tool toolRead(const QString &reader, const QStringList &arguments, const QStringList &environment = {})
{
    const QString wait = reader == QLatin1String("true") ? QStringLiteral("wait $!; ") : QString();
    const QString command = QStringLiteral("exec 3> >(exec %1); %2exec \"$@\" >&3").arg(reader, wait);
    return {QStringLiteral("bash"),
        QStringList{QStringLiteral("-c"), command, QStringLiteral("bash"), Tool::path()} + arguments, environment};
}

/// A run that ends with \a code, and whose reader took the first \a lines of \a output along.
Run readUpTo(int lines, int code, const QByteArray &output)
{
    qsizetype end = 0;
    for (int line = 0; line < lines; ++line)
        end = output.indexOf('\n', end) + 1;
    return exits(code, output.first(end));
}

} // namespace

void AudienceTest::aWriteOutlivesItsReader_data()
{
    readers();
}

void AudienceTest::aWriteOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, settings);
    const Run run = toolRead(reader, argumentsOn(terminal.port(), "-w -f settings", local)).finish();
    QFETCH(int, lines);
    QCOMPARE(run, readUpTo(lines, 0, console::identification(terminal.port())));
    QCOMPARE(files::content(terminal.own(QStringLiteral("settings"))), settings);
}

void AudienceTest::anApplyOutlivesItsReader_data()
{
    readers();
}

void AudienceTest::anApplyOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, settings);
    const Run run = toolRead(reader, argumentsOn(terminal.port(), "-w -a -f settings", local)).finish();
    QFETCH(int, lines);
    QCOMPARE(run, readUpTo(lines, 0, console::identification(terminal.port())));
    QCOMPARE(files::content(terminal.own(QStringLiteral("settings"))), settings);
    // The terminal has restarted, and has been asked for its log after that.
    QCOMPARE(terminal.record().mid(terminal.record().size() - 3, 2), QByteArrayList({"# unplugged", "# link up"}));
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4700400000"));
}

void AudienceTest::aReadOutlivesItsReader_data()
{
    readers();
}

void AudienceTest::aReadOutlivesItsReader()
{
    QFETCH(QString, reader);
    FilingTerminal terminal;
    files::store(terminal.own(QStringLiteral("settings")), settings);
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = toolRead(reader, argumentsOn(terminal.port(), "-r -f settings", local)).finish();
    QFETCH(int, lines);
    QCOMPARE(run, readUpTo(lines, 0, console::identification(terminal.port())));
    QCOMPARE(files::content(local), settings);
}

void AudienceTest::aFailureKeepsItsCode_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::newRow("refused") << QStringList{QStringLiteral("-r"), QStringLiteral("x")} << 2;
    QTest::newRow("no such port") << QStringList{QStringLiteral("-p"), QStringLiteral("X")} << 256 - 105;
    QTest::newRow("no path") << QStringList{QStringLiteral("-r")} << 256 - 101;
}

void AudienceTest::aFailureKeepsItsCode()
{
    QFETCH(QStringList, options);
    FilingTerminal terminal;
    const QStringList port{QStringLiteral("-p"), terminal.port()};
    QFETCH(int, code);
    QCOMPARE(toolRead(QStringLiteral("true"), port + options).finish(), exits(code, {}));
}

void AudienceTest::theLogEndsWithItsReader_data()
{
    QTest::addColumn<QString>("reader");
    QTest::addColumn<int>("lines");
    QTest::newRow("after the first record") << QStringLiteral("head -n 12") << 12;
    QTest::newRow("before the log began") << QStringLiteral("head -n 3") << 3;
    QTest::newRow("before the start") << QStringLiteral("true") << 0;
}

void AudienceTest::theLogEndsWithItsReader()
{
    QFETCH(QString, reader);
    SimulatedTerminal terminal(words("--log-rate 20 --log-start 1699920000")); // midnight
    const QByteArray record("00:00:00 000 [1] #0 ignition on\r\n");
    const Run run = toolRead(reader, argumentsOn(terminal.port(), "-m"), words("TZ=UTC0")).finish();
    QFETCH(int, lines);
    QCOMPARE(run, readUpTo(lines, ended_by_signal, console::identification(terminal.port()) + record));
    QVERIFY(terminal.requests().contains("2a214c4f4700400000"));
}

QTEST_GUILESS_MAIN(AudienceTest)
#include "tst_audience.moc"
