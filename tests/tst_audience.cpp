#include "console.h"
#include "localfiles.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QTest>

#include <csignal>

/// The reader of the tool's output goes away: a transfer is finished all the same, but the monitoring of the log ends.
class AudienceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aTransferOutlivesItsReader_data();
    void aTransferOutlivesItsReader();
    void aFailureKeepsItsCode_data();
    void aFailureKeepsItsCode();
    void theLogEndsWithItsReader_data();
    void theLogEndsWithItsReader();
    void theLogEndsOnAFullDisk();
};

namespace {

const QByteArray settings = files::sample(100'000);

/// The tool with its output piped to the command \a reader; "true" has ended before the tool starts.
Tool toolRead(const QString &reader, const QStringList &arguments, const QStringList &environment = {})
{
    const QString wait = reader == QLatin1String("true") ? QStringLiteral("wait $!; ") : QString();
    const QString command = QStringLiteral("exec 3> >(exec %1); %2exec \"$@\" >&3").arg(reader, wait);
    return {QStringLiteral("bash"),
        QStringList{QStringLiteral("-c"), command, QStringLiteral("bash"), Tool::path()} + arguments, environment};
}

/// A run that ends with \a code, and whose reader passed on the first \a lines of \a output.
Run readUpTo(int lines, int code, const QByteArray &output)
{
    qsizetype end = 0;
    for (int line = 0; line < lines; ++line)
        end = output.indexOf('\n', end) + 1;
    return exits(code, output.first(end));
}

} // namespace

void AudienceTest::aTransferOutlivesItsReader_data()
{
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QString>("reader");
    QTest::addColumn<int>("lines");
    for (const QByteArray options : {"-w", "-w -a", "-r"}) {
        QTest::addRow("%s, gone before the start", options.constData()) << options << QStringLiteral("true") << 0;
        QTest::addRow("%s, gone after three lines", options.constData()) << options << QStringLiteral("head -n 3") << 3;
    }
}

void AudienceTest::aTransferOutlivesItsReader()
{
    QFETCH(QByteArray, options);
    QFETCH(QString, reader);
    FilingTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const QString own = terminal.own(QStringLiteral("settings"));
    files::store(options == "-r" ? own : local, settings);
    const Run run = toolRead(reader, argumentsOn(terminal.port(), options + " -f settings", local)).finish();
    QFETCH(int, lines);
    QCOMPARE(run, readUpTo(lines, 0, console::identification(terminal.port())));
    QCOMPARE(files::content(own), settings);
    QCOMPARE(files::content(local), settings);
    // Only an apply restarts the terminal; the log mask is set in any case.
    QCOMPARE(terminal.record().count("# unplugged"), options == "-w -a" ? 1 : 0);
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void AudienceTest::aFailureKeepsItsCode_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::newRow("refused") << QStringList{QStringLiteral("-r"), QStringLiteral("x")} << 2;
    QTest::newRow("no such port") << QStringList{QStringLiteral("-p"), QStringLiteral("X")} << 256 - 105;
    QTest::newRow("no path") << QStringList{QStringLiteral("-r")} << 256 - 101;
    QTest::newRow("no answer, short of the log") << QStringList{QStringLiteral("-m")} << 256 - 1;
}

void AudienceTest::aFailureKeepsItsCode()
{
    QFETCH(QStringList, options);
    FilingTerminal terminal(words("--silent LOG"));
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
    QCOMPARE(run, readUpTo(lines, endedBy(SIGPIPE), console::identification(terminal.port()) + record));
    QVERIFY(terminal.requests().contains(log_mask_request));
}

void AudienceTest::theLogEndsOnAFullDisk()
{
    const QString full = QStringLiteral("/dev/full");
    if (!QFile::exists(full))
        QSKIP("No /dev/full here");
    SimulatedTerminal terminal(words("--log-rate 20"));
    const QStringList command{QStringLiteral("-c"), QStringLiteral("exec \"$@\" >/dev/full"), QStringLiteral("sh")};
    Tool tool(QStringLiteral("sh"), command + QStringList{Tool::path()} + argumentsOn(terminal.port(), "-m"), {});
    QCOMPARE(tool.finish(), exits(1, {}));
    QVERIFY(terminal.requests().contains(log_mask_request));
}

QTEST_GUILESS_MAIN(AudienceTest)
#include "tst_audience.moc"
