#include "localfiles.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"
#include "words.h"

#include <QRegularExpression>
#include <QTest>

/// The README lists what the tool says when something goes wrong, in its own words and with the exit code.
class TroubleshootingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theReadmeListsWhatIsPrinted_data();
    void theReadmeListsWhatIsPrinted();
    void theReadmeListsALockedPort();
    void theReadmeListsWhatIsPrintedWhereNoPortIsFound_data();
    void theReadmeListsWhatIsPrintedWhereNoPortIsFound();
};

namespace {

/// \a text with the names of ports and files, the reasons in brackets and the details of the parser as in the README.
QString withoutNames(const QByteArray &text)
{
    static const QRegularExpression port(QStringLiteral("serial port \\S+: "));
    static const QRegularExpression ports(QStringLiteral("ttyACM\\d+, ttyACM\\d+"));
    static const QRegularExpression file(QStringLiteral("file '.*' \\(.*\\)"));
    static const QRegularExpression complaint(QStringLiteral("JVX file loader: (\\w+ \\w+) .*"));
    return QString::fromUtf8(text)
        .replace(port, QStringLiteral("serial port X: "))
        .replace(ports, QStringLiteral("ttyACM0, ttyACM1"))
        .replace(file, QStringLiteral("file 'F' (`...`)"))
        .replace(complaint, QStringLiteral("\\1"));
}

/// Whether the README has a row with \a text in the first column, and with the exit code.
bool isListed(const QString &text, int code)
{
    const QString readme = QString::fromUtf8(files::content(QStringLiteral(JVX_README)));
    const QString shown = QLatin1Char('`') + text + QLatin1Char('`');
    for (const QString &line : readme.split(QLatin1Char('\n'))) {
        const QString column = line.section(QStringLiteral(" | "), 0, 0);
        if (column.startsWith(QLatin1Char('|')) && column.contains(shown)
            && column.contains(QStringLiteral("(%1").arg(code)))
            return true;
    }
    return false;
}

/// Checks that \a run has printed \a text as a line of its own, ended with \a code, and that the README says so.
void compare(const Run &run, const QString &text, int code)
{
    const QStringList lines = withoutNames(run.output + run.errors).split(QLatin1Char('\n'));
    QVERIFY2(lines.contains(text), qPrintable(lines.join(QLatin1Char('\n'))));
    QCOMPARE(run.code, code);
    QVERIFY2(isListed(text, code), qPrintable(text));
}

} // namespace

void TroubleshootingTest::theReadmeListsWhatIsPrinted_data()
{
    QTest::addColumn<QByteArray>("terminal");
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("code");
    const auto row = [](const char *terminal, const char *options, const char *text, int code) {
        QTest::newRow(text) << QByteArray(terminal) << QByteArray(options) << QString::fromLatin1(text) << code;
    };
    row("", "-p nosuch", "Failed to open serial port X: No such file or directory", 256 - 105);
    row("", "-p /dev/null", "Failed to open serial port X: Inappropriate ioctl for device", 256 - 105);
    row("--silent V", "", "Error: Timeout(-1)", 256 - 1);
    row("--answer V=31", "", "Error: Unknown response(-2)", 256 - 2);
    row("--status FR:1=03", "-r x", "Error: 3", 3);
    row("--status FR:1=c8", "-r x", "Error: Unknown(-56)", 256 - 56);
    row("", "-w nosuch", "Error: Failed to access to file 'F' (`...`)", 256 - 111);
    row("", "-r", "File name not specified", 256 - 101);
    row("", "-f nosuch", "Selected unknown file", 256 - 102);
    row("", "-l nosuch", "Invalid log mask", 256 - 106);
    row("", "--nosuch", "Unknown option", 1);
    row("", "-f", "Missing value", 1);
    row("", "--read=x", "Unexpected value", 1);
}

void TroubleshootingTest::theReadmeListsWhatIsPrinted()
{
    QFETCH(QByteArray, terminal);
    QFETCH(QByteArray, options);
    QFETCH(QString, text);
    QFETCH(int, code);
    const SimulatedTerminal simulated(words(terminal));
    compare(runOn(simulated.port(), options), text, code);
}

void TroubleshootingTest::theReadmeListsALockedPort()
{
    const SimulatedTerminal terminal;
    Tool other(argumentsOn(terminal.port(), "-m"));
    QVERIFY(other.waitForOutput("IMEI"));
    compare(runOn(terminal.port()),
        QStringLiteral("Failed to open serial port X: Permission error while locking the device"), 256 - 105);
}

void TroubleshootingTest::theReadmeListsWhatIsPrintedWhereNoPortIsFound_data()
{
    QTest::addColumn<int>("ports");
    QTest::addColumn<QString>("text");
    QTest::newRow("no port") << 0 << QStringLiteral("Serial port is not selected");
    QTest::newRow("two ports") << 2 << QStringLiteral("Select device serial port: ttyACM0, ttyACM1");
}

void TroubleshootingTest::theReadmeListsWhatIsPrintedWhereNoPortIsFound()
{
    QFETCH(int, ports);
    QFETCH(QString, text);
    const Testbed testbed(QList{terminalPort(0, "1-1"), terminalPort(1, "1-2")}.first(ports));
    compare(testbed.start().finish(), text, 256 - 103);
}

QTEST_GUILESS_MAIN(TroubleshootingTest)
#include "tst_troubleshooting.moc"
